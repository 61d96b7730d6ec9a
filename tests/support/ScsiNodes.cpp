#include "tests/support/ScsiNodes.h"

#include "tests/support/Machines.h"

#include <cerrno>
#include <cstdio>
#include <regex>
#include <sstream>

namespace ostrand_test {

using Vantrel::Ostrand::host::FakeMachine;
using Vantrel::Ostrand::host::SgModel;

std::shared_ptr<SgModel> addSgNode(FakeMachine& machine, const std::string& path, int host, int channel, int id,
                                   int lun, int type)
{
    Vantrel::Ostrand::host::ScsiAddress address;
    address.host = host;
    address.channel = channel;
    address.id = id;
    address.lun = lun;
    address.type = type;
    auto model = std::make_shared<SgModel>(address);
    machine.addNode(path, 'c', model);
    return model;
}

std::string bytes(std::initializer_list<int> values)
{
    std::string text;
    for (int value : values) {
        text += static_cast<char>(value & 0xFF);
    }
    return text;
}

std::map<std::string, SgCapture> labServerSgCaptures()
{
    static const std::regex id(
        R"re((/dev/sg\d+): SG_GET_SCSI_ID host=(\d+) channel=(\d+) id=(\d+) lun=(\d+) type=(\d+))re");
    static const std::regex emulated(R"re((/dev/sg\d+): SG_EMULATED_HOST (\d+))re");
    static const std::regex probe(R"re((/dev/sg\d+): SCSI_IOCTL_PROBE_HOST ret=1 "(.*)")re");
    static const std::regex inquiry(
        R"re((/dev/sg\d+): SG_IO INQUIRY type=(\d+) rmb=(\d) vendor="(.*)" product="(.*)" rev="(.*)")re");
    std::map<std::string, SgCapture> nodes;
    std::istringstream lines(capture("lab-server/ioctls.txt"));
    std::string line;
    std::smatch m;
    while (std::getline(lines, line)) {
        if (std::regex_match(line, m, id)) {
            SgCapture& node = nodes[m[1]];
            node.address.host = std::stoi(m[2]);
            node.address.channel = std::stoi(m[3]);
            node.address.id = std::stoi(m[4]);
            node.address.lun = std::stoi(m[5]);
            node.address.type = std::stoi(m[6]);
        } else if (std::regex_match(line, m, emulated)) {
            nodes[m[1]].emulated = std::stoi(m[2]);
        } else if (std::regex_match(line, m, probe)) {
            nodes[m[1]].probeHost = m[2];
        } else if (std::regex_match(line, m, inquiry)) {
            auto& fields = nodes[m[1]].inquiry;
            fields.type = std::stoi(m[2]);
            fields.removable = m[3] == "1";
            fields.vendor = m[4];
            fields.product = m[5];
            fields.revision = m[6];
        }
    }
    return nodes;
}

namespace {

std::string hex(long value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%#lx", value);
    return text;
}

std::string commandName(int command)
{
    switch (command) {
    case SETVAL: return "SETVAL";
    case GETVAL: return "GETVAL";
    case IPC_RMID: return "IPC_RMID";
    default: return std::to_string(command);
    }
}

} // namespace

int RecordingMachine::scriptedFailure(const std::string& name)
{
    auto it = failures.find(name);
    if (it == failures.end() || it->second.empty()) {
        return 0;
    }
    int error = it->second.front();
    it->second.pop_front();
    return error;
}

int RecordingMachine::semget(key_t key, int count, int flags)
{
    int error = scriptedFailure("semget");
    int result = -1;
    if (error != 0) {
        errno = error;
    } else {
        result = FakeMachine::semget(key, count, flags);
    }
    int saved = errno;
    semaphoreCalls.push_back("semget key=" + hex(key) + " count=" + std::to_string(count) + " flags=" + hex(flags) +
                             " -> " + std::to_string(result));
    errno = saved;
    return result;
}

int RecordingMachine::semctl(int id, int number, int command, int value)
{
    int error = scriptedFailure("semctl");
    int result = -1;
    if (error != 0) {
        errno = error;
    } else {
        result = FakeMachine::semctl(id, number, command, value);
    }
    int saved = errno;
    std::string call = "semctl id=" + std::to_string(id) + " num=" + std::to_string(number) + " " +
                       commandName(command);
    if (command == SETVAL) {
        call += " value=" + std::to_string(value);
    }
    semaphoreCalls.push_back(call + " -> " + std::to_string(result));
    errno = saved;
    return result;
}

int RecordingMachine::semop(int id, struct sembuf* operations, size_t count)
{
    int error = scriptedFailure("semop");
    int result = -1;
    if (error != 0) {
        errno = error;
    } else {
        result = FakeMachine::semop(id, operations, count);
        if (result == 0) {
            result = semopResult;
        }
    }
    int saved = errno;
    std::string call = "semop id=" + std::to_string(id);
    for (size_t i = 0; i < count && i < 4; ++i) {
        call += " {num=" + std::to_string(operations[i].sem_num) + " op=" + std::to_string(operations[i].sem_op) +
                " flg=" + hex(operations[i].sem_flg) + "}";
    }
    semaphoreCalls.push_back(call + " -> " + std::to_string(result));
    errno = saved;
    return result;
}

int RecordingMachine::ioctl(int fd, unsigned long request, void* argument)
{
    ioctlAttempts.push_back({fd, request});
    return FakeMachine::ioctl(fd, request, argument);
}

int RecordingMachine::scandir(const char* directory, struct dirent*** list,
                              Vantrel::Ostrand::host::DirentFilter filter,
                              Vantrel::Ostrand::host::DirentCompare compare)
{
    int error = scriptedFailure("scandir");
    if (error != 0) {
        errno = error;
        return -1;
    }
    return FakeMachine::scandir(directory, list, filter, compare);
}

void RecordingMachine::sleepForSeconds(unsigned int seconds)
{
    FakeMachine::sleepForSeconds(seconds);
    if (afterSleep) {
        afterSleep(*this);
    }
}

} // namespace ostrand_test

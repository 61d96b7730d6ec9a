#include "host/fake/FakeMachine.h"

#include "host/fake/FakeSysfs.h"
#include "host/fake/ShellTools.h"
#include "host/models/FileModel.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <utility>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

int fail(int error)
{
    errno = error;
    return -1;
}

} // namespace


// --- The machine --------------------------------------------------------------

FakeMachine::FakeMachine() : m_missingCommand("sh: %s: command not found\n") { addDirectory("/dev"); }

FakeMachine::~FakeMachine()
{
    for (FILE* stream : m_streams) {
        std::fclose(stream);
    }
    for (auto& mapping : m_mappings) {
        if (mapping.second.copied) {
            std::free(mapping.first);
        }
    }
}

void FakeMachine::addCommand(const std::string& commandLine, std::string output)
{
    m_outputs[commandLine] = std::make_shared<const std::string>(std::move(output));
}

void FakeMachine::addTools(const std::vector<std::string>& names)
{
    for (const auto& name : names) {
        if (shellToolNames().count(name) == 0) {
            throw std::invalid_argument("no such tool: " + name);
        }
    }
    m_tools.insert(names.begin(), names.end());
}

void FakeMachine::addFile(const std::string& path, std::string bytes)
{
    m_tree.add(path, FakeFileTree::Entry{DT_REG, std::make_shared<FileModel>(std::move(bytes))});
}

void FakeMachine::addDirectory(const std::string& path) { m_tree.add(path, FakeFileTree::Entry{DT_DIR, nullptr}); }

void FakeMachine::addLink(const std::string& path, const std::string& target)
{
    FakeFileTree::Entry entry{DT_LNK, nullptr};
    entry.target = target;
    m_tree.add(path, std::move(entry));
}

void FakeMachine::addNode(const std::string& path, char type, std::shared_ptr<DeviceModel> model)
{
    if (!model) {
        model = std::make_shared<DeviceModel>();
    }
    m_tree.add(path, FakeFileTree::Entry{static_cast<unsigned char>(type == 'b' ? DT_BLK : DT_CHR), std::move(model)});
}

void FakeMachine::denyOpen(const std::string& path, int error)
{
    if (m_tree.find(path) == nullptr) {
        m_tree.add(path, FakeFileTree::Entry{DT_CHR, std::make_shared<DeviceModel>()});
    }
    m_tree.find(path)->openError = error;
}

void FakeMachine::setUname(const std::string& release, const std::string& machine)
{
    m_release = release;
    m_machine = machine;
}

std::shared_ptr<DeviceModel> FakeMachine::model(const std::string& path) const
{
    const FakeFileTree::Entry* entry = m_tree.find(path);
    return entry == nullptr ? nullptr : entry->model;
}

int FakeMachine::timesRun(const std::string& commandLine) const
{
    return static_cast<int>(std::count(m_commands.begin(), m_commands.end(), commandLine));
}

std::vector<std::string> FakeMachine::openDescriptors() const
{
    std::vector<std::string> paths;
    for (const auto& d : m_descriptors) {
        paths.push_back(d.second.path);
    }
    return paths;
}

std::vector<std::string> FakeMachine::ioctlNames(const std::string& path) const
{
    std::vector<std::string> names;
    for (const auto& record : m_ioctls) {
        if (record.path == path) {
            names.push_back(record.name);
        }
    }
    return names;
}

FILE* FakeMachine::popen(const char* command, const char* mode)
{
    if (command == nullptr || mode == nullptr || mode[0] != 'r') {
        errno = EINVAL;
        return nullptr;
    }
    std::string line(command);
    m_commands.push_back(line);
    std::shared_ptr<const std::string> output;
    auto it = m_outputs.find(line);
    ShellRun run;
    if (it != m_outputs.end()) {
        output = it->second;
    } else if (runShellTools(*this, m_tools, line, run)) {
        output = std::make_shared<const std::string>(run.output);
        if (!run.errors.empty()) {
            m_shellErrors.push_back(run.errors);
        }
    } else {
        std::string word = line.substr(0, line.find(' '));
        std::string said = m_missingCommand;
        size_t at = said.find("%s");
        if (at != std::string::npos) {
            said.replace(at, 2, word);
        }
        output = std::make_shared<const std::string>(said);
    }
    FILE* stream = openText(std::move(output));
    if (stream == nullptr) {
        return nullptr;
    }
    m_streams.push_back(stream);
    return stream;
}

// The output is read from memory: a stream over the text itself, held until
// the stream is closed. An empty output goes through a temporary file, whose
// first read sets the end-of-file flag as a pipe's does.
FILE* FakeMachine::openText(std::shared_ptr<const std::string> output)
{
    if (output->empty()) {
        return std::tmpfile();
    }
    // A stream opened for reading never writes to its buffer.
    FILE* stream = ::fmemopen(const_cast<char*>(output->data()), output->size(), "r");
    if (stream == nullptr) {
        return nullptr;
    }
    m_streamTexts[stream] = std::move(output);
    return stream;
}

int FakeMachine::pclose(FILE* stream)
{
    auto it = std::find(m_streams.begin(), m_streams.end(), stream);
    if (it == m_streams.end()) {
        return fail(ECHILD);
    }
    m_streams.erase(it);
    auto text = m_streamTexts.find(stream);
    std::fclose(stream);
    if (text != m_streamTexts.end()) {
        m_streamTexts.erase(text);
    }
    return 0;
}

int FakeMachine::uname(struct utsname* name)
{
    std::memset(name, 0, sizeof *name);
    std::strncpy(name->sysname, "Linux", sizeof name->sysname - 1);
    std::strncpy(name->nodename, "fake", sizeof name->nodename - 1);
    std::strncpy(name->release, m_release.c_str(), sizeof name->release - 1);
    std::strncpy(name->machine, m_machine.c_str(), sizeof name->machine - 1);
    return 0;
}

int FakeMachine::mount(const char* source, const char* target, const char* type, unsigned long, const void*)
{
    m_mounts.push_back(std::string(source ? source : "") + " " + (target ? target : "") + " " + (type ? type : ""));
    if (m_mountError != 0) {
        return fail(m_mountError);
    }
    if (type != nullptr && std::strcmp(type, "sysfs") == 0) {
        m_sysfsMounted = true;
    }
    return 0;
}

void FakeMachine::setSysfs(const std::string& folder)
{
    m_sysfs = folder;
    m_sysfsAlias.reset();
}

const char* FakeMachine::sysfsRoot()
{
    // Without a folder of its own, the machine points libsysfs at a place
    // that is not there, never at the sysfs of the machine that runs it.
    if (m_sysfs.empty()) {
        return "/nonexistent/ostrand-fake-machine/sys";
    }
    if (m_sysfsAlias == nullptr) {
        m_sysfsAlias = std::make_unique<SysfsAlias>(m_sysfs);
    }
    return m_sysfsAlias->path().c_str();
}

int FakeMachine::semget(key_t key, int count, int flags) { return m_semaphores.semget(key, count, flags); }

int FakeMachine::semctl(int id, int number, int command, int value)
{
    return m_semaphores.semctl(id, number, command, value);
}

int FakeMachine::semop(int id, struct sembuf* operations, size_t count)
{
    return m_semaphores.semop(id, operations, count);
}

unsigned int FakeMachine::sleep(unsigned int seconds)
{
    m_sleeps.push_back({"sleep", static_cast<int64_t>(seconds) * 1000000});
    m_clock.advance(static_cast<int64_t>(seconds) * 1000000);
    return 0;
}

int FakeMachine::usleep(useconds_t microseconds)
{
    m_sleeps.push_back({"usleep", static_cast<int64_t>(microseconds)});
    m_clock.advance(microseconds);
    return 0;
}

time_t FakeMachine::time(time_t* out)
{
    time_t now = static_cast<time_t>(m_clock.now() / 1000000);
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

int FakeMachine::gettimeofday(struct timeval* now)
{
    if (m_timeOfDayError != 0) {
        return fail(m_timeOfDayError);
    }
    now->tv_sec = static_cast<time_t>(m_clock.now() / 1000000);
    now->tv_usec = static_cast<suseconds_t>(m_clock.now() % 1000000);
    return 0;
}

void FakeMachine::syslog(int priority, const char* format)
{
    m_logLines.push_back({priority, format == nullptr ? "" : format});
}

void FakeMachine::sleepForSeconds(unsigned int seconds)
{
    m_sleeps.push_back({"sleepForSeconds", static_cast<int64_t>(seconds) * 1000000});
    m_clock.advance(static_cast<int64_t>(seconds) * 1000000);
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// SCSI generic nodes for tests: nodes on fake machines, what the lab server's
// captures say of its sg nodes, and a fake machine that also records the
// semaphore calls, ioctl attempts and sleeps of the library and can be told
// to fail them.
#pragma once

#include "host/fake/FakeMachine.h"
#include "host/models/SgModel.h"

#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ostrand_test {

// An sg node with this address; its model, for replies and records.
std::shared_ptr<Vantrel::Ostrand::host::SgModel> addSgNode(Vantrel::Ostrand::host::FakeMachine& machine,
                                                           const std::string& path, int host, int channel, int id,
                                                           int lun, int type);

// Bytes from numbers, as command blocks and replies are written in tests.
std::string bytes(std::initializer_list<int> values);

// What ioctls.txt of the lab server says of one sg node.
struct SgCapture {
    Vantrel::Ostrand::host::ScsiAddress address;
    int emulated = -1;
    std::string probeHost;
    Vantrel::Ostrand::host::InquiryFields inquiry;
};
// By node path, /dev/sg0 to /dev/sg4.
std::map<std::string, SgCapture> labServerSgCaptures();

// A fake machine that records, beside what every fake machine records, the
// semaphore calls ("semget key=0x1fe101f count=1 flags=0x780 -> 0"), every
// ioctl attempt with its descriptor (also on descriptors that are not open),
// and that can fail calls: each entry of failures[name] is the errno of one
// call in turn (0 lets that call through). Names: semget, semctl, semop,
// scandir. A successful semop answers semopResult. afterSleep runs after
// each sleepForSeconds.
class RecordingMachine : public Vantrel::Ostrand::host::FakeMachine {
public:
    struct IoctlAttempt {
        int fd;
        unsigned long request;
    };

    std::vector<std::string> semaphoreCalls;
    std::vector<IoctlAttempt> ioctlAttempts;
    std::map<std::string, std::deque<int>> failures;
    int semopResult = 0;
    std::function<void(RecordingMachine&)> afterSleep;

    int semget(key_t key, int count, int flags) override;
    int semctl(int id, int number, int command, int value) override;
    int semop(int id, struct sembuf* operations, size_t count) override;
    int ioctl(int fd, unsigned long request, void* argument) override;
    int scandir(const char* directory, struct dirent*** list, Vantrel::Ostrand::host::DirentFilter filter,
                Vantrel::Ostrand::host::DirentCompare compare) override;
    void sleepForSeconds(unsigned int seconds) override;

private:
    // The errno of this call if it is to fail, else 0.
    int scriptedFailure(const std::string& name);
};

} // namespace ostrand_test

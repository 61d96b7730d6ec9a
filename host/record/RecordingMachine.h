// A machine that records: every call goes on to another machine (the live
// one, or a fake one in tests), and what came back is kept in a Recording,
// from which RecordingWriter writes a machine directory that `--machine`
// replays.
//
// It keeps each command line with its output, each directory listing,
// uname, each path opened with what was read from it (from files, firmware
// tables and physical memory, mapped or read), each ioctl with what went in
// and what came back, the dialogue on serial lines, the mounts, and which
// semaphore keys were used (never their values: a replay starts fresh).
// The sysfs that libsysfs reads is not seen here; the writer copies it.
#pragma once

#include "host/Host.h"
#include "host/record/Recording.h"

#include <map>
#include <memory>
#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

class RecordingMachine final : public Machine {
public:
    explicit RecordingMachine(Machine& inner);
    ~RecordingMachine() override;
    RecordingMachine(const RecordingMachine&) = delete;
    RecordingMachine& operator=(const RecordingMachine&) = delete;

    const Recording& recording() const { return m_recording; }
    Machine& inner() { return m_inner; }

    FILE* popen(const char* command, const char* mode) override;
    int pclose(FILE* stream) override;
    int open(const char* path, int flags, mode_t mode) override;
    int close(int fd) override;
    ssize_t read(int fd, void* buffer, size_t count) override;
    ssize_t write(int fd, const void* buffer, size_t count) override;
    off_t lseek(int fd, off_t offset, int whence) override;
    int ioctl(int fd, unsigned long request, void* argument) override;
    void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) override;
    int munmap(void* address, size_t length) override;
    int tcgetattr(int fd, struct termios* settings) override;
    int tcsetattr(int fd, int action, const struct termios* settings) override;
    int scandir(const char* directory, struct dirent*** list, DirentFilter filter, DirentCompare compare) override;
    Dir* opendir(const char* path) override;
    struct dirent* readdir(Dir* directory) override;
    int closedir(Dir* directory) override;
    int uname(struct utsname* name) override;
    int mount(const char* source, const char* target, const char* type, unsigned long flags,
              const void* data) override;
    const char* sysfsRoot() override { return m_inner.sysfsRoot(); }
    bool sysfsMounted() override;
    int semget(key_t key, int count, int flags) override;
    int semctl(int id, int number, int command, int value) override;
    int semop(int id, struct sembuf* operations, size_t count) override;
    unsigned int sleep(unsigned int seconds) override { return m_inner.sleep(seconds); }
    int usleep(useconds_t microseconds) override { return m_inner.usleep(microseconds); }
    time_t time(time_t* out) override { return m_inner.time(out); }
    int gettimeofday(struct timeval* now) override { return m_inner.gettimeofday(now); }
    void sleepForSeconds(unsigned int seconds) override { m_inner.sleepForSeconds(seconds); }
    void syslog(int priority, const char* format) override { m_inner.syslog(priority, format); }

private:
    struct OpenFile {
        std::string path;
        uint64_t offset = 0;
    };
    struct Listing {
        std::string path;
        Dir* inner = nullptr;
    };

    OpenFile* openFile(int fd);
    void noteListing(const std::string& path, struct dirent** list, int count);
    void noteRead(OpenFile& file, const char* bytes, ssize_t count, size_t asked);
    void noteWrite(OpenFile& file, const char* bytes, size_t count);

    Machine& m_inner;
    Recording m_recording;
    std::map<int, OpenFile> m_files;
    std::map<FILE*, std::shared_ptr<std::string>> m_streams;
    std::map<FILE*, int> m_statuses;
    std::map<Dir*, std::string> m_listings;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// The live machine: every call goes straight to libc (or, for
// sleepForSeconds, to the framework's own library).
#include "host/Host.h"

#include "platform/SysUtil.h"

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <syslog.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

struct Dir {
    DIR* stream;
};

namespace {

union SemaphoreArgument {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

class LiveMachine final : public Machine {
public:
    FILE* popen(const char* command, const char* mode) override { return ::popen(command, mode); }
    int pclose(FILE* stream) override { return ::pclose(stream); }
    int open(const char* path, int flags, mode_t mode) override { return ::open(path, flags, mode); }
    int close(int fd) override { return ::close(fd); }
    ssize_t read(int fd, void* buffer, size_t count) override { return ::read(fd, buffer, count); }
    ssize_t write(int fd, const void* buffer, size_t count) override { return ::write(fd, buffer, count); }
    off_t lseek(int fd, off_t offset, int whence) override { return ::lseek(fd, offset, whence); }
    int ioctl(int fd, unsigned long request, void* argument) override { return ::ioctl(fd, request, argument); }
    void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) override
    {
        return ::mmap(address, length, protection, flags, fd, offset);
    }
    int munmap(void* address, size_t length) override { return ::munmap(address, length); }
    int tcgetattr(int fd, struct termios* settings) override { return ::tcgetattr(fd, settings); }
    int tcsetattr(int fd, int action, const struct termios* settings) override
    {
        return ::tcsetattr(fd, action, settings);
    }
    int scandir(const char* directory, struct dirent*** list, DirentFilter filter, DirentCompare compare) override
    {
        return ::scandir(directory, list, filter, compare);
    }
    Dir* opendir(const char* path) override
    {
        DIR* stream = ::opendir(path);
        if (stream == nullptr) {
            return nullptr;
        }
        return new Dir{stream};
    }
    struct dirent* readdir(Dir* directory) override { return ::readdir(directory->stream); }
    int closedir(Dir* directory) override
    {
        int result = ::closedir(directory->stream);
        delete directory;
        return result;
    }
    int uname(struct utsname* name) override { return ::uname(name); }
    int mount(const char* source, const char* target, const char* type, unsigned long flags,
              const void* data) override
    {
        return ::mount(source, target, type, flags, data);
    }
    const char* sysfsRoot() override { return nullptr; }
    bool sysfsMounted() override { return true; }
    int semget(key_t key, int count, int flags) override { return ::semget(key, count, flags); }
    int semctl(int id, int number, int command, int value) override
    {
        SemaphoreArgument argument;
        argument.val = value;
        return ::semctl(id, number, command, argument);
    }
    int semop(int id, struct sembuf* operations, size_t count) override { return ::semop(id, operations, count); }
    unsigned int sleep(unsigned int seconds) override { return ::sleep(seconds); }
    int usleep(useconds_t microseconds) override { return ::usleep(microseconds); }
    time_t time(time_t* out) override { return ::time(out); }
    int gettimeofday(struct timeval* now) override { return ::gettimeofday(now, nullptr); }
    void sleepForSeconds(unsigned int seconds) override { Vantrel::System::SysUtil::sleepForSeconds(seconds); }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    // The caller's text is the format: that is how the log line was always written.
    void syslog(int priority, const char* format) override { ::syslog(priority, format); }
#pragma GCC diagnostic pop
};

Machine* g_current = nullptr;

const char kSysfsPath[] = "SYSFS_PATH";

// The process's own SYSFS_PATH, taken before any other machine set it.
struct ProcessSysfsPath {
    bool set;
    std::string value;
};

const ProcessSysfsPath& processSysfsPath()
{
    static const ProcessSysfsPath original = [] {
        const char* value = std::getenv(kSysfsPath);
        return ProcessSysfsPath{value != nullptr, value != nullptr ? value : ""};
    }();
    return original;
}

} // namespace

Machine& liveMachine()
{
    static LiveMachine live;
    return live;
}

Machine& machine() { return g_current != nullptr ? *g_current : liveMachine(); }

namespace {

// SYSFS_PATH as the process had it.
void restoreProcessSysfsPath()
{
    const ProcessSysfsPath& original = processSysfsPath();
    if (original.set) {
        ::setenv(kSysfsPath, original.value.c_str(), 1);
    } else {
        ::unsetenv(kSysfsPath);
    }
}

// SYSFS_PATH as the machine in use wants it.
void pointLibsysfs()
{
    const char* root = machine().sysfsRoot();
    if (root != nullptr) {
        ::setenv(kSysfsPath, root, 1);
    } else {
        restoreProcessSysfsPath();
    }
}

} // namespace

// A machine that is put in place does not point libsysfs yet: prepareSysfs,
// which comes before every question to libsysfs, does. A fake machine's
// sysfs is handed over through an alias (a folder and a link made on disk),
// and most runs never ask sysfs anything. Until then libsysfs sees what the
// process itself would, never the folder of a machine that is gone.
void use(Machine* machine)
{
    g_current = machine;
    restoreProcessSysfsPath();
}

bool prepareSysfs()
{
    pointLibsysfs();
    return machine().sysfsMounted();
}

ScopedMachine::ScopedMachine(Machine& machine) : m_previous(g_current) { use(&machine); }

ScopedMachine::~ScopedMachine() { use(m_previous); }

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

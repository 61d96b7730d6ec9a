// The machine boundary. Every contact of the library with the machine goes
// through the functions of this header: tools, device nodes, directories,
// kernel facts, semaphores, sleeps and the clock. By default they reach the
// live machine through libc; a test, a sample or `ostrand --machine` installs
// a fake machine (host/FakeMachine.h) instead.
#pragma once

#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <sys/sem.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/utsname.h>
#include <termios.h>
#include <unistd.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

// An open directory stream, as opendir gives it. Opaque to the library.
struct Dir;

using DirentFilter = int (*)(const struct dirent*);
using DirentCompare = int (*)(const struct dirent**, const struct dirent**);

// One machine: what the library can ask of it. Failures are reported as libc
// reports them (a negative result or null, with errno set).
class Machine {
public:
    virtual ~Machine() = default;

    // Tools. popen gives a real stdio stream, so fgets and feof behave as
    // stdio does; it must be closed with pclose of the same machine.
    virtual FILE* popen(const char* command, const char* mode) = 0;
    virtual int pclose(FILE* stream) = 0;

    // Files and device nodes.
    virtual int open(const char* path, int flags, mode_t mode) = 0;
    virtual int close(int fd) = 0;
    virtual ssize_t read(int fd, void* buffer, size_t count) = 0;
    virtual ssize_t write(int fd, const void* buffer, size_t count) = 0;
    virtual off_t lseek(int fd, off_t offset, int whence) = 0;
    virtual int ioctl(int fd, unsigned long request, void* argument) = 0;
    virtual void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) = 0;
    virtual int munmap(void* address, size_t length) = 0;
    virtual int tcgetattr(int fd, struct termios* settings) = 0;
    virtual int tcsetattr(int fd, int action, const struct termios* settings) = 0;

    // Directories. scandir's list is allocated with malloc, as libc's is.
    virtual int scandir(const char* directory, struct dirent*** list, DirentFilter filter, DirentCompare compare) = 0;
    virtual Dir* opendir(const char* path) = 0;
    virtual struct dirent* readdir(Dir* directory) = 0;
    virtual int closedir(Dir* directory) = 0;

    // Kernel facts and actions.
    virtual int uname(struct utsname* name) = 0;
    virtual int mount(const char* source, const char* target, const char* type, unsigned long flags, const void* data) = 0;

    // Sysfs, which libsysfs reads by itself. The folder that stands for /sys,
    // or null for the live machine's own mount (libsysfs finds it). Whether
    // it is mounted: the live machine answers true and lets libsysfs tell.
    virtual const char* sysfsRoot() = 0;
    virtual bool sysfsMounted() = 0;

    // System V semaphores. semctl carries an int value (SETVAL, GETVAL, IPC_RMID).
    virtual int semget(key_t key, int count, int flags) = 0;
    virtual int semctl(int id, int number, int command, int value) = 0;
    virtual int semop(int id, struct sembuf* operations, size_t count) = 0;

    // Pauses and the clock.
    virtual unsigned int sleep(unsigned int seconds) = 0;
    virtual int usleep(useconds_t microseconds) = 0;
    virtual time_t time(time_t* out) = 0;
    virtual int gettimeofday(struct timeval* now) = 0;
    virtual void sleepForSeconds(unsigned int seconds) = 0;

    // The system log. The text is handed over as syslog's format, as it stands.
    virtual void syslog(int priority, const char* format) = 0;
};

// The machine in use.
Machine& machine();
// The live machine, through libc.
Machine& liveMachine();
// Installs a machine; null goes back to the live one. The caller keeps ownership.
void use(Machine* machine);

// Installs a machine for the life of the object, then restores the previous one.
class ScopedMachine {
public:
    explicit ScopedMachine(Machine& machine);
    ~ScopedMachine();
    ScopedMachine(const ScopedMachine&) = delete;
    ScopedMachine& operator=(const ScopedMachine&) = delete;

private:
    Machine* m_previous;
};

// The calls of the library, each forwarded to the machine in use.
inline FILE* popen(const char* command, const char* mode) { return machine().popen(command, mode); }
inline int pclose(FILE* stream) { return machine().pclose(stream); }
inline int open(const char* path, int flags, mode_t mode = 0) { return machine().open(path, flags, mode); }
inline int close(int fd) { return machine().close(fd); }
inline ssize_t read(int fd, void* buffer, size_t count) { return machine().read(fd, buffer, count); }
inline ssize_t write(int fd, const void* buffer, size_t count) { return machine().write(fd, buffer, count); }
inline off_t lseek(int fd, off_t offset, int whence) { return machine().lseek(fd, offset, whence); }
inline int ioctl(int fd, unsigned long request, void* argument) { return machine().ioctl(fd, request, argument); }
inline void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset)
{
    return machine().mmap(address, length, protection, flags, fd, offset);
}
inline int munmap(void* address, size_t length) { return machine().munmap(address, length); }
inline int tcgetattr(int fd, struct termios* settings) { return machine().tcgetattr(fd, settings); }
inline int tcsetattr(int fd, int action, const struct termios* settings)
{
    return machine().tcsetattr(fd, action, settings);
}
inline int scandir(const char* directory, struct dirent*** list, DirentFilter filter, DirentCompare compare)
{
    return machine().scandir(directory, list, filter, compare);
}
inline Dir* opendir(const char* path) { return machine().opendir(path); }
inline struct dirent* readdir(Dir* directory) { return machine().readdir(directory); }
inline int closedir(Dir* directory) { return machine().closedir(directory); }
inline int uname(struct utsname* name) { return machine().uname(name); }
inline int mount(const char* source, const char* target, const char* type, unsigned long flags, const void* data)
{
    return machine().mount(source, target, type, flags, data);
}
// Points libsysfs at the sysfs of the machine in use (through its SYSFS_PATH;
// for the live machine, as the process had it) before it is asked anything.
// False when the machine says that its sysfs is not mounted.
bool prepareSysfs();
inline int semget(key_t key, int count, int flags) { return machine().semget(key, count, flags); }
inline int semctl(int id, int number, int command, int value = 0) { return machine().semctl(id, number, command, value); }
inline int semop(int id, struct sembuf* operations, size_t count) { return machine().semop(id, operations, count); }
inline unsigned int sleep(unsigned int seconds) { return machine().sleep(seconds); }
inline int usleep(useconds_t microseconds) { return machine().usleep(microseconds); }
inline time_t time(time_t* out) { return machine().time(out); }
inline int gettimeofday(struct timeval* now) { return machine().gettimeofday(now); }
inline void sleepForSeconds(unsigned int seconds) { machine().sleepForSeconds(seconds); }
inline void syslog(int priority, const char* format) { machine().syslog(priority, format); }

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// A machine described as data: tool outputs by exact command line, a file
// tree whose device nodes behave as models (host/models/), kernel facts,
// semaphores, a sysfs folder for libsysfs and a clock that moves only when
// the library sleeps or waits. It records what the library did with it.
//
// Build one in code (the add... operations) or load one from a directory
// (host/fake/MachineDirectory.h, format in samples/README.md).
#pragma once

#include "host/Host.h"
#include "host/fake/Events.h"
#include "host/fake/FakeClock.h"
#include "host/fake/FakeFileTree.h"
#include "host/fake/FakeSemaphores.h"
#include "host/models/DeviceModel.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

class SysfsAlias;

class FakeMachine : public Machine {
public:
    FakeMachine();
    ~FakeMachine() override;
    FakeMachine(const FakeMachine&) = delete;
    FakeMachine& operator=(const FakeMachine&) = delete;

    // --- Description ---------------------------------------------------
    // The output of a command line, matched exactly as popen receives it.
    void addCommand(const std::string& commandLine, std::string output);
    // What the shell prints for a command line with no entry; %s is its
    // first word. The default is bash's "sh: %s: command not found\n".
    void setMissingCommandText(const std::string& text) { m_missingCommand = text; }
    const std::string& missingCommandText() const { return m_missingCommand; }
    // Tools (grep, find, dirname, basename, cat) that answer a command line
    // from the machine's own files when no exact entry matches it
    // (host/fake/ShellTools.h). Throws std::invalid_argument for a name that
    // is none of them.
    void addTools(const std::vector<std::string>& names);
    const std::set<std::string>& tools() const { return m_tools; }
    // Entries of the file system. Parent directories are implied.
    void addFile(const std::string& path, std::string bytes);
    void addDirectory(const std::string& path);
    // A symbolic link. Opening it opens its target (absolute, or relative to
    // the link's directory); a link without a target, or whose target is not
    // there, leads nowhere.
    void addLink(const std::string& path, const std::string& target = "");
    // A device node: type 'c' (character) or 'b' (block), with a model; a
    // null model gives a node that opens and refuses every operation.
    void addNode(const std::string& path, char type, std::shared_ptr<DeviceModel> model);
    // Makes opening a path fail with the errno value (as EACCES for /dev/mem without root).
    void denyOpen(const std::string& path, int error);
    void setUname(const std::string& release, const std::string& machine);
    // The folder that stands for /sys, a real directory tree that libsysfs
    // reads (through a short alias, see host/fake/FakeSysfs.h; paths that
    // libsysfs gives back begin with sysfsRoot()). Without one, libsysfs
    // finds no bus and no class.
    void setSysfs(const std::string& folder);
    // Whether sysfs is mounted (it is by default). Mounting sysfs mounts it,
    // unless mounts are refused.
    void setSysfsMounted(bool mounted) { m_sysfsMounted = mounted; }
    // Makes every mount fail with the errno value.
    void refuseMounts(int error) { m_mountError = error; }
    // Makes gettimeofday fail with the errno value (0: it answers from the clock).
    void refuseTimeOfDay(int error) { m_timeOfDayError = error; }
    const std::string& sysfsFolder() const { return m_sysfs; }
    // The model of a path, or null.
    std::shared_ptr<DeviceModel> model(const std::string& path) const;
    const FakeFileTree& fileTree() const { return m_tree; }
    FakeSemaphores& semaphores() { return m_semaphores; }

    // --- Record ----------------------------------------------------------
    const std::vector<std::string>& commands() const { return m_commands; }
    // How often this exact command line was run.
    int timesRun(const std::string& commandLine) const;
    // What the tools wrote to the shell's standard error, which popen does
    // not capture: one entry for each command line that wrote any.
    const std::vector<std::string>& shellErrors() const { return m_shellErrors; }
    const std::vector<std::string>& opens() const { return m_opens; }
    const std::vector<IoctlRecord>& ioctls() const { return m_ioctls; }
    // The names of the ioctls made on one path, in order.
    std::vector<std::string> ioctlNames(const std::string& path) const;
    const std::vector<WriteRecord>& writes() const { return m_writes; }
    const std::vector<SleepRecord>& sleeps() const { return m_sleeps; }
    const std::vector<std::string>& mounts() const { return m_mounts; }
    const std::vector<LogRecord>& logLines() const { return m_logLines; }
    // Paths of the descriptors that are open now, in the order of opening.
    std::vector<std::string> openDescriptors() const;
    // Streams from popen not yet closed, and mappings not yet unmapped.
    size_t openStreams() const { return m_streams.size(); }
    size_t openMappings() const { return m_mappings.size(); }
    FakeClock& clock() { return m_clock; }
    const FakeClock& clock() const { return m_clock; }
    // The value of the semaphore with this key, or -1 if there is none.
    int semaphoreValue(key_t key) const { return m_semaphores.value(key); }

    // --- Machine -----------------------------------------------------------
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
    const char* sysfsRoot() override;
    bool sysfsMounted() override { return m_sysfsMounted; }
    int semget(key_t key, int count, int flags) override;
    int semctl(int id, int number, int command, int value) override;
    int semop(int id, struct sembuf* operations, size_t count) override;
    unsigned int sleep(unsigned int seconds) override;
    int usleep(useconds_t microseconds) override;
    time_t time(time_t* out) override;
    int gettimeofday(struct timeval* now) override;
    void sleepForSeconds(unsigned int seconds) override;
    void syslog(int priority, const char* format) override;

private:
    FILE* openText(std::shared_ptr<const std::string> output);
    struct Descriptor {
        std::string path;
        std::shared_ptr<DeviceModel> model;
        int flags;
        off_t offset;
    };

    Descriptor* descriptor(int fd);

    // Shared with the streams that read them: a command run does not copy its output.
    std::map<std::string, std::shared_ptr<const std::string>> m_outputs;
    std::string m_missingCommand;
    std::set<std::string> m_tools;
    FakeFileTree m_tree;
    std::string m_release = "6.1.0-56-amd64";
    std::string m_machine = "x86_64";
    std::string m_sysfs;
    std::unique_ptr<SysfsAlias> m_sysfsAlias;
    bool m_sysfsMounted = true;
    int m_mountError = 0;
    int m_timeOfDayError = 0;

    std::map<int, Descriptor> m_descriptors;
    int m_nextFd = 3;
    std::vector<FILE*> m_streams;
    std::map<FILE*, std::shared_ptr<const std::string>> m_streamTexts;
    // A mapping is the model's own bytes, or a copy of them that munmap frees.
    // The same bytes can be mapped more than once at a time.
    struct Mapping {
        size_t length;
        bool copied;
    };
    std::multimap<void*, Mapping> m_mappings;
    FakeSemaphores m_semaphores;

    std::vector<std::string> m_commands;
    std::vector<std::string> m_shellErrors;
    std::vector<std::string> m_opens;
    std::vector<IoctlRecord> m_ioctls;
    std::vector<WriteRecord> m_writes;
    std::vector<SleepRecord> m_sleeps;
    std::vector<std::string> m_mounts;
    std::vector<LogRecord> m_logLines;
    FakeClock m_clock;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// A machine described as data: tool outputs by exact command line, entries of
// the file system with their types, device nodes whose behaviour is a model,
// kernel facts, semaphores and a clock that moves only when the library
// sleeps or waits. It records what the library did with it.
//
// Build one in code (the add... operations) or load one from a directory
// (host/MachineDirectory.h, format in samples/README.md).
#pragma once

#include "host/Host.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

class FakeMachine;

// Fake time in microseconds. time() shows whole seconds of it.
class FakeClock {
public:
    static constexpr int64_t kStart = 1700000000LL * 1000000LL;
    int64_t now() const { return m_now; }
    void advance(int64_t microseconds) { m_now += microseconds; }
    // Microseconds since the machine was made.
    int64_t elapsed() const { return m_now - kStart; }

private:
    int64_t m_now = kStart;
};

// The behaviour of one device node or file. Operations return what the call
// returns, or minus an errno value on failure. The defaults refuse.
class DeviceModel {
public:
    virtual ~DeviceModel() = default;
    // 0 to allow the open, or an errno value to refuse it.
    virtual int open(int flags);
    virtual ssize_t read(FakeMachine& machine, char* buffer, size_t count, off_t offset);
    virtual ssize_t write(FakeMachine& machine, const char* buffer, size_t count, off_t offset);
    virtual int ioctl(FakeMachine& machine, unsigned long request, void* argument);
    virtual int tcgetattr(struct termios* settings);
    virtual int tcsetattr(int action, const struct termios* settings);
    // Copies `count` bytes at `offset` for mmap; false refuses the mapping.
    virtual bool map(off_t offset, size_t count, unsigned char* out);
};

// A regular file: bytes read from any offset and mapped.
class FileModel : public DeviceModel {
public:
    explicit FileModel(std::string bytes) : m_bytes(std::move(bytes)) {}
    int open(int flags) override;
    ssize_t read(FakeMachine& machine, char* buffer, size_t count, off_t offset) override;
    bool map(off_t offset, size_t count, unsigned char* out) override;
    const std::string& bytes() const { return m_bytes; }

private:
    std::string m_bytes;
};

// Physical memory (/dev/mem): areas of bytes at physical addresses; the rest
// reads as zeros.
class MemoryModel : public DeviceModel {
public:
    void place(uint64_t address, std::string bytes) { m_areas[address] = std::move(bytes); }
    int open(int flags) override;
    ssize_t read(FakeMachine& machine, char* buffer, size_t count, off_t offset) override;
    bool map(off_t offset, size_t count, unsigned char* out) override;

private:
    void copy(uint64_t offset, size_t count, unsigned char* out) const;
    std::map<uint64_t, std::string> m_areas;
};

// What a modem says: for each command written, the pieces of its reply, one
// piece for each read. A command it has no entry for gets silence.
struct ModemScript {
    struct Exchange {
        std::string command;
        std::vector<std::string> pieces;
    };
    std::vector<Exchange> exchanges;
    // Parses the text form: "> COMMAND" starts an exchange, "< PIECE" adds a
    // piece of its reply; \r, \n, \t, \\ and \xHH are escapes; # begins a comment.
    static ModemScript parse(const std::string& text);
};

// A serial port (/dev/ttyS*): answers TIOCGSERIAL with its UART type, I/O
// port and irq, keeps terminal settings, and speaks the modem script if a
// modem is attached. Reading with nothing to deliver costs kIdleReadMicros of
// fake time, as a wait on the line would.
class SerialModel : public DeviceModel {
public:
    static constexpr int64_t kIdleReadMicros = 100000;
    SerialModel(int type, int port, int irq, int line = 0) : m_type(type), m_port(port), m_irq(irq), m_line(line) {}
    void attachModem(ModemScript script) { m_script = std::move(script); m_hasModem = true; }
    int open(int flags) override;
    ssize_t read(FakeMachine& machine, char* buffer, size_t count, off_t offset) override;
    ssize_t write(FakeMachine& machine, const char* buffer, size_t count, off_t offset) override;
    int ioctl(FakeMachine& machine, unsigned long request, void* argument) override;
    int tcgetattr(struct termios* settings) override;
    int tcsetattr(int action, const struct termios* settings) override;
    const struct termios& settings() const { return m_settings; }

private:
    int m_type;
    int m_port;
    int m_irq;
    int m_line;
    bool m_hasModem = false;
    ModemScript m_script;
    std::vector<std::string> m_pending;
    struct termios m_settings {};
};

// What the library did, in order.
struct IoctlRecord {
    std::string path;
    unsigned long request;
};
struct WriteRecord {
    std::string path;
    std::string bytes;
};
struct SleepRecord {
    std::string call; // "sleep", "usleep" or "sleepForSeconds"
    int64_t microseconds;
};

class FakeMachine : public Machine {
public:
    FakeMachine();
    ~FakeMachine() override;
    FakeMachine(const FakeMachine&) = delete;
    FakeMachine& operator=(const FakeMachine&) = delete;

    // --- Description ---------------------------------------------------
    // The output of a command line, matched exactly as popen receives it.
    void addCommand(const std::string& commandLine, const std::string& output);
    // What the shell prints for a command line with no entry; %s is its
    // first word. The default is bash's "sh: %s: command not found\n".
    void setMissingCommandText(const std::string& text) { m_missingCommand = text; }
    // Entries of the file system. Parent directories are implied.
    void addFile(const std::string& path, const std::string& bytes);
    void addDirectory(const std::string& path);
    void addLink(const std::string& path);
    // A device node: type 'c' (character) or 'b' (block), with a model; a
    // null model gives a node that opens and refuses every operation.
    void addNode(const std::string& path, char type, std::shared_ptr<DeviceModel> model);
    // Makes opening a path fail with the errno value (as EACCES for /dev/mem without root).
    void denyOpen(const std::string& path, int error);
    void setUname(const std::string& release, const std::string& machine);
    // The model of a path, or null.
    std::shared_ptr<DeviceModel> model(const std::string& path) const;

    // --- Record ----------------------------------------------------------
    const std::vector<std::string>& commands() const { return m_commands; }
    // How often this exact command line was run.
    int timesRun(const std::string& commandLine) const;
    const std::vector<std::string>& opens() const { return m_opens; }
    const std::vector<IoctlRecord>& ioctls() const { return m_ioctls; }
    const std::vector<WriteRecord>& writes() const { return m_writes; }
    const std::vector<SleepRecord>& sleeps() const { return m_sleeps; }
    const std::vector<std::string>& mounts() const { return m_mounts; }
    // Paths of the descriptors that are open now, in the order of opening.
    std::vector<std::string> openDescriptors() const;
    // Streams from popen not yet closed, and mappings not yet unmapped.
    size_t openStreams() const { return m_streams.size(); }
    size_t openMappings() const { return m_mappings.size(); }
    FakeClock& clock() { return m_clock; }
    const FakeClock& clock() const { return m_clock; }
    // The value of the semaphore with this key, or -1 if there is none.
    int semaphoreValue(key_t key) const;

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
    int semget(key_t key, int count, int flags) override;
    int semctl(int id, int number, int command, int value) override;
    int semop(int id, struct sembuf* operations, size_t count) override;
    unsigned int sleep(unsigned int seconds) override;
    int usleep(useconds_t microseconds) override;
    time_t time(time_t* out) override;
    void sleepForSeconds(unsigned int seconds) override;

private:
    struct Entry {
        unsigned char type; // DT_REG, DT_DIR, DT_LNK, DT_CHR, DT_BLK
        std::shared_ptr<DeviceModel> model;
        int openError = 0;
    };
    struct Descriptor {
        std::string path;
        std::shared_ptr<DeviceModel> model;
        int flags;
        off_t offset;
    };
    struct Semaphore {
        key_t key;
        int value;
    };

    void addEntry(const std::string& path, Entry entry);
    void addParents(const std::string& path);
    std::vector<std::pair<std::string, unsigned char>> children(const std::string& directory) const;
    Descriptor* descriptor(int fd);

    std::map<std::string, std::string> m_outputs;
    std::string m_missingCommand;
    std::map<std::string, Entry> m_entries;
    std::vector<std::string> m_entryOrder;
    std::string m_release = "6.1.0-56-amd64";
    std::string m_machine = "x86_64";

    std::map<int, Descriptor> m_descriptors;
    int m_nextFd = 3;
    std::vector<FILE*> m_streams;
    std::map<void*, size_t> m_mappings;
    std::vector<Semaphore> m_semaphores;

    std::vector<std::string> m_commands;
    std::vector<std::string> m_opens;
    std::vector<IoctlRecord> m_ioctls;
    std::vector<WriteRecord> m_writes;
    std::vector<SleepRecord> m_sleeps;
    std::vector<std::string> m_mounts;
    FakeClock m_clock;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

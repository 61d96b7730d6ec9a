#include "host/record/RecordingMachine.h"

#include "host/record/IoctlCapture.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

RecordedPath& Recording::path(const std::string& name)
{
    auto it = paths.find(name);
    if (it == paths.end()) {
        pathOrder.push_back(name);
        it = paths.emplace(name, RecordedPath()).first;
    }
    return it->second;
}

const RecordedCommand* Recording::command(const std::string& line) const
{
    for (const auto& command : commands) {
        if (command.line == line) {
            return &command;
        }
    }
    return nullptr;
}

RecordingMachine::RecordingMachine(Machine& inner) : m_inner(inner)
{
    const char* root = inner.sysfsRoot();
    m_recording.sysfsRoot = root == nullptr ? "/sys" : root;
    m_recording.sysfsMounted = inner.sysfsMounted();
}

RecordingMachine::~RecordingMachine()
{
    for (auto& stream : m_streams) {
        std::fclose(stream.first);
    }
}

// --- Tools ------------------------------------------------------------------

// The whole output is read at once and kept; the library reads a copy of it.
FILE* RecordingMachine::popen(const char* command, const char* mode)
{
    if (command == nullptr || mode == nullptr || std::strcmp(mode, "r") != 0) {
        return m_inner.popen(command, mode);
    }
    FILE* stream = m_inner.popen(command, mode);
    if (stream == nullptr) {
        return nullptr;
    }
    auto output = std::make_shared<std::string>();
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, stream)) > 0) {
        output->append(chunk, n);
    }
    int status = m_inner.pclose(stream);
    if (m_recording.command(command) == nullptr) {
        m_recording.commands.push_back({command, *output});
    }
    FILE* copy = output->empty() ? std::tmpfile()
                                 : ::fmemopen(const_cast<char*>(output->data()), output->size(), "r");
    if (copy == nullptr) {
        return nullptr;
    }
    m_streams[copy] = output;
    m_statuses[copy] = status;
    return copy;
}

int RecordingMachine::pclose(FILE* stream)
{
    auto it = m_streams.find(stream);
    if (it == m_streams.end()) {
        return m_inner.pclose(stream);
    }
    int status = m_statuses[stream];
    std::fclose(stream);
    m_streams.erase(it);
    m_statuses.erase(stream);
    return status;
}

// --- Files and device nodes ---------------------------------------------------

RecordingMachine::OpenFile* RecordingMachine::openFile(int fd)
{
    auto it = m_files.find(fd);
    return it == m_files.end() ? nullptr : &it->second;
}

int RecordingMachine::open(const char* path, int flags, mode_t mode)
{
    int fd = m_inner.open(path, flags, mode);
    if (path == nullptr) {
        return fd;
    }
    int error = errno;
    RecordedPath& recorded = m_recording.path(path);
    if (fd < 0) {
        if (!recorded.opened && recorded.openError == 0) {
            recorded.openError = error;
        }
    } else {
        recorded.opened = true;
        recorded.openError = 0;
        m_files[fd] = OpenFile{path, 0};
    }
    errno = error;
    return fd;
}

int RecordingMachine::close(int fd)
{
    m_files.erase(fd);
    return m_inner.close(fd);
}

void RecordingMachine::noteRead(OpenFile& file, const char* bytes, ssize_t count, size_t asked)
{
    RecordedPath& recorded = m_recording.path(file.path);
    if (count == 0 && asked > 0) {
        recorded.readToEnd = true;
    }
    if (count <= 0) {
        return;
    }
    if (!recorded.dialogue.empty()) {
        recorded.dialogue.back().pieces.emplace_back(bytes, static_cast<size_t>(count));
    }
    std::string& area = recorded.reads[file.offset];
    if (area.size() < static_cast<size_t>(count)) {
        area.assign(bytes, static_cast<size_t>(count));
    }
    file.offset += static_cast<uint64_t>(count);
}

ssize_t RecordingMachine::read(int fd, void* buffer, size_t count)
{
    ssize_t n = m_inner.read(fd, buffer, count);
    int error = errno;
    OpenFile* file = openFile(fd);
    if (file != nullptr) {
        noteRead(*file, static_cast<const char*>(buffer), n, count);
    }
    errno = error;
    return n;
}

// A write opens an exchange: what is read until the next write is its reply.
void RecordingMachine::noteWrite(OpenFile& file, const char* bytes, size_t count)
{
    RecordedPath& recorded = m_recording.path(file.path);
    recorded.dialogue.push_back({std::string(bytes, count), {}});
}

ssize_t RecordingMachine::write(int fd, const void* buffer, size_t count)
{
    ssize_t n = m_inner.write(fd, buffer, count);
    int error = errno;
    OpenFile* file = openFile(fd);
    if (file != nullptr && n > 0) {
        noteWrite(*file, static_cast<const char*>(buffer), static_cast<size_t>(n));
    }
    errno = error;
    return n;
}

off_t RecordingMachine::lseek(int fd, off_t offset, int whence)
{
    off_t at = m_inner.lseek(fd, offset, whence);
    int error = errno;
    OpenFile* file = openFile(fd);
    if (file != nullptr && at >= 0) {
        file->offset = static_cast<uint64_t>(at);
    }
    errno = error;
    return at;
}

int RecordingMachine::ioctl(int fd, unsigned long request, void* argument)
{
    RecordedIoctl call;
    captureInput(request, argument, call);
    int result = m_inner.ioctl(fd, request, argument);
    int error = errno;
    call.result = result;
    call.error = result < 0 ? error : 0;
    captureOutput(request, argument, call);
    OpenFile* file = openFile(fd);
    if (file != nullptr) {
        m_recording.path(file->path).ioctls.push_back(call);
    }
    errno = error;
    return result;
}

// What a mapping shows is kept as it is mapped.
void* RecordingMachine::mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset)
{
    void* mapped = m_inner.mmap(address, length, protection, flags, fd, offset);
    int error = errno;
    OpenFile* file = openFile(fd);
    if (file != nullptr && mapped != MAP_FAILED && mapped != nullptr) {
        RecordedPath& recorded = m_recording.path(file->path);
        recorded.mapped = true;
        std::string& area = recorded.reads[static_cast<uint64_t>(offset)];
        if (area.size() < length) {
            area.assign(static_cast<const char*>(mapped), length);
        }
    }
    errno = error;
    return mapped;
}

int RecordingMachine::munmap(void* address, size_t length) { return m_inner.munmap(address, length); }

int RecordingMachine::tcgetattr(int fd, struct termios* settings) { return m_inner.tcgetattr(fd, settings); }

int RecordingMachine::tcsetattr(int fd, int action, const struct termios* settings)
{
    return m_inner.tcsetattr(fd, action, settings);
}

// --- Directories ----------------------------------------------------------------

void RecordingMachine::noteListing(const std::string& path, struct dirent** list, int count)
{
    std::vector<RecordedEntry>& entries = m_recording.listings[path];
    for (int i = 0; i < count; ++i) {
        std::string name = list[i]->d_name;
        bool known = false;
        for (const auto& entry : entries) {
            known = known || entry.name == name;
        }
        if (!known) {
            entries.push_back({name, list[i]->d_type});
        }
    }
}

// The whole listing is kept, whatever the caller's filter lets through;
// then the caller's own scan is made.
int RecordingMachine::scandir(const char* directory, struct dirent*** list, DirentFilter filter,
                              DirentCompare compare)
{
    struct dirent** all = nullptr;
    int count = m_inner.scandir(directory, &all, nullptr, nullptr);
    if (count >= 0 && directory != nullptr) {
        noteListing(directory, all, count);
    }
    for (int i = 0; i < count; ++i) {
        std::free(all[i]);
    }
    std::free(all);
    return m_inner.scandir(directory, list, filter, compare);
}

Dir* RecordingMachine::opendir(const char* path)
{
    Dir* directory = m_inner.opendir(path);
    if (directory != nullptr && path != nullptr) {
        m_listings[directory] = path;
        m_recording.listings[path];
    }
    return directory;
}

struct dirent* RecordingMachine::readdir(Dir* directory)
{
    struct dirent* entry = m_inner.readdir(directory);
    auto it = m_listings.find(directory);
    if (entry != nullptr && it != m_listings.end()) {
        noteListing(it->second, &entry, 1);
    }
    return entry;
}

int RecordingMachine::closedir(Dir* directory)
{
    m_listings.erase(directory);
    return m_inner.closedir(directory);
}

// --- Kernel facts, actions and semaphores ----------------------------------------------

int RecordingMachine::uname(struct utsname* name)
{
    int result = m_inner.uname(name);
    if (result == 0 && name != nullptr && !m_recording.hasUname) {
        m_recording.hasUname = true;
        m_recording.release = name->release;
        m_recording.machine = name->machine;
    }
    return result;
}

int RecordingMachine::mount(const char* source, const char* target, const char* type, unsigned long flags,
                            const void* data)
{
    int result = m_inner.mount(source, target, type, flags, data);
    int error = errno;
    m_recording.mounts.push_back(std::string(type == nullptr ? "" : type) + " on " + (target == nullptr ? "" : target));
    if (result < 0 && m_recording.mountError == 0) {
        m_recording.mountError = error;
    }
    errno = error;
    return result;
}

bool RecordingMachine::sysfsMounted() { return m_inner.sysfsMounted(); }

int RecordingMachine::semget(key_t key, int count, int flags)
{
    m_recording.semaphoreKeys.insert(static_cast<int>(key));
    return m_inner.semget(key, count, flags);
}

int RecordingMachine::semctl(int id, int number, int command, int value)
{
    return m_inner.semctl(id, number, command, value);
}

int RecordingMachine::semop(int id, struct sembuf* operations, size_t count)
{
    return m_inner.semop(id, operations, count);
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

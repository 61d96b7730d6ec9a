#include "host/FakeMachine.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

struct Dir {
    std::vector<struct dirent> entries;
    size_t next = 0;
};

namespace {

struct dirent makeDirent(const std::string& name, unsigned char type)
{
    struct dirent entry;
    std::memset(&entry, 0, sizeof entry);
    std::strncpy(entry.d_name, name.c_str(), sizeof entry.d_name - 1);
    entry.d_type = type;
    entry.d_reclen = sizeof entry;
    return entry;
}

std::string parentOf(const std::string& path)
{
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    size_t slash = trimmed.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return "/";
    }
    return trimmed.substr(0, slash);
}

std::string baseOf(const std::string& path)
{
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    size_t slash = trimmed.rfind('/');
    return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string normalise(const std::string& path)
{
    std::string result;
    for (char c : path) {
        if (c == '/' && !result.empty() && result.back() == '/') {
            continue;
        }
        result += c;
    }
    while (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    return result;
}

int fail(int error)
{
    errno = error;
    return -1;
}

} // namespace

// --- Models -----------------------------------------------------------------

int DeviceModel::open(int) { return 0; }
ssize_t DeviceModel::read(FakeMachine&, char*, size_t, off_t) { return -EINVAL; }
ssize_t DeviceModel::write(FakeMachine&, const char*, size_t, off_t) { return -EINVAL; }
int DeviceModel::ioctl(FakeMachine&, unsigned long, void*) { return -ENOTTY; }
int DeviceModel::tcgetattr(struct termios*) { return -ENOTTY; }
int DeviceModel::tcsetattr(int, const struct termios*) { return -ENOTTY; }
bool DeviceModel::map(off_t, size_t, unsigned char*) { return false; }

int FileModel::open(int) { return 0; }

ssize_t FileModel::read(FakeMachine&, char* buffer, size_t count, off_t offset)
{
    if (count == 0 || offset < 0 || static_cast<size_t>(offset) >= m_bytes.size()) {
        return 0;
    }
    size_t n = std::min(count, m_bytes.size() - static_cast<size_t>(offset));
    std::memcpy(buffer, m_bytes.data() + offset, n);
    return static_cast<ssize_t>(n);
}

bool FileModel::map(off_t offset, size_t count, unsigned char* out)
{
    std::memset(out, 0, count);
    if (offset >= 0 && static_cast<size_t>(offset) < m_bytes.size()) {
        size_t n = std::min(count, m_bytes.size() - static_cast<size_t>(offset));
        std::memcpy(out, m_bytes.data() + offset, n);
    }
    return true;
}

int MemoryModel::open(int) { return 0; }

void MemoryModel::copy(uint64_t offset, size_t count, unsigned char* out) const
{
    if (count == 0) {
        return;
    }
    std::memset(out, 0, count);
    for (const auto& area : m_areas) {
        uint64_t begin = std::max<uint64_t>(area.first, offset);
        uint64_t end = std::min<uint64_t>(area.first + area.second.size(), offset + count);
        if (begin < end) {
            std::memcpy(out + (begin - offset), area.second.data() + (begin - area.first), end - begin);
        }
    }
}

ssize_t MemoryModel::read(FakeMachine&, char* buffer, size_t count, off_t offset)
{
    if (offset < 0) {
        return -EINVAL;
    }
    copy(static_cast<uint64_t>(offset), count, reinterpret_cast<unsigned char*>(buffer));
    return static_cast<ssize_t>(count);
}

bool MemoryModel::map(off_t offset, size_t count, unsigned char* out)
{
    if (offset < 0) {
        return false;
    }
    copy(static_cast<uint64_t>(offset), count, out);
    return true;
}

namespace {

std::string unescape(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        char c = text[++i];
        switch (c) {
        case 'r': out += '\r'; break;
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case '\\': out += '\\'; break;
        case 'x':
            if (i + 2 < text.size()) {
                out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
                i += 2;
            }
            break;
        default: out += c; break;
        }
    }
    return out;
}

} // namespace

ModemScript ModemScript::parse(const std::string& text)
{
    ModemScript script;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? text.size() + 1 : end + 1;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.size() >= 2 && line[0] == '>' && line[1] == ' ') {
            script.exchanges.push_back({unescape(line.substr(2)), {}});
        } else if (line.size() >= 1 && line[0] == '<' && !script.exchanges.empty()) {
            script.exchanges.back().pieces.push_back(unescape(line.size() >= 2 ? line.substr(2) : ""));
        }
    }
    return script;
}

int SerialModel::open(int) { return 0; }

ssize_t SerialModel::read(FakeMachine& machine, char* buffer, size_t count, off_t)
{
    if (m_pending.empty()) {
        machine.clock().advance(kIdleReadMicros);
        return -EAGAIN;
    }
    std::string& piece = m_pending.front();
    size_t n = std::min(count, piece.size());
    std::memcpy(buffer, piece.data(), n);
    if (n == piece.size()) {
        m_pending.erase(m_pending.begin());
    } else {
        piece.erase(0, n);
    }
    return static_cast<ssize_t>(n);
}

ssize_t SerialModel::write(FakeMachine&, const char* buffer, size_t count, off_t)
{
    if (m_hasModem) {
        std::string command(buffer, count);
        for (const auto& exchange : m_script.exchanges) {
            if (exchange.command == command) {
                m_pending.insert(m_pending.end(), exchange.pieces.begin(), exchange.pieces.end());
                break;
            }
        }
    }
    return static_cast<ssize_t>(count);
}

int SerialModel::ioctl(FakeMachine&, unsigned long request, void* argument)
{
    if (request != TIOCGSERIAL) {
        return -ENOTTY;
    }
    auto* serial = static_cast<struct serial_struct*>(argument);
    serial->type = m_type;
    serial->line = m_line;
    serial->port = static_cast<unsigned int>(m_port);
    serial->irq = m_irq;
    serial->baud_base = 115200;
    serial->xmit_fifo_size = m_type == 0 ? 0 : 16;
    return 0;
}

int SerialModel::tcgetattr(struct termios* settings)
{
    *settings = m_settings;
    return 0;
}

int SerialModel::tcsetattr(int, const struct termios* settings)
{
    m_settings = *settings;
    return 0;
}

// --- The machine --------------------------------------------------------------

FakeMachine::FakeMachine() : m_missingCommand("sh: %s: command not found\n")
{
    addDirectory("/");
    addDirectory("/dev");
}

FakeMachine::~FakeMachine()
{
    for (FILE* stream : m_streams) {
        std::fclose(stream);
    }
    for (auto& mapping : m_mappings) {
        std::free(mapping.first);
    }
}

void FakeMachine::addCommand(const std::string& commandLine, const std::string& output)
{
    m_outputs[commandLine] = output;
}

void FakeMachine::addParents(const std::string& path)
{
    std::string parent = parentOf(path);
    if (parent != path && m_entries.find(parent) == m_entries.end()) {
        addDirectory(parent);
    }
}

void FakeMachine::addEntry(const std::string& rawPath, Entry entry)
{
    std::string path = normalise(rawPath);
    if (path != "/") {
        addParents(path);
    }
    if (m_entries.find(path) == m_entries.end()) {
        m_entryOrder.push_back(path);
    }
    m_entries[path] = std::move(entry);
}

void FakeMachine::addFile(const std::string& path, const std::string& bytes)
{
    addEntry(path, Entry{DT_REG, std::make_shared<FileModel>(bytes)});
}

void FakeMachine::addDirectory(const std::string& path) { addEntry(path, Entry{DT_DIR, nullptr}); }

void FakeMachine::addLink(const std::string& path) { addEntry(path, Entry{DT_LNK, nullptr}); }

void FakeMachine::addNode(const std::string& path, char type, std::shared_ptr<DeviceModel> model)
{
    if (!model) {
        model = std::make_shared<DeviceModel>();
    }
    addEntry(path, Entry{static_cast<unsigned char>(type == 'b' ? DT_BLK : DT_CHR), std::move(model)});
}

void FakeMachine::denyOpen(const std::string& path, int error)
{
    std::string key = normalise(path);
    auto it = m_entries.find(key);
    if (it == m_entries.end()) {
        addEntry(key, Entry{DT_CHR, std::make_shared<DeviceModel>()});
        it = m_entries.find(key);
    }
    it->second.openError = error;
}

void FakeMachine::setUname(const std::string& release, const std::string& machine)
{
    m_release = release;
    m_machine = machine;
}

std::shared_ptr<DeviceModel> FakeMachine::model(const std::string& path) const
{
    auto it = m_entries.find(normalise(path));
    return it == m_entries.end() ? nullptr : it->second.model;
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

int FakeMachine::semaphoreValue(key_t key) const
{
    for (const auto& s : m_semaphores) {
        if (s.key == key) {
            return s.value;
        }
    }
    return -1;
}

FILE* FakeMachine::popen(const char* command, const char* mode)
{
    if (command == nullptr || mode == nullptr || mode[0] != 'r') {
        errno = EINVAL;
        return nullptr;
    }
    std::string line(command);
    m_commands.push_back(line);
    std::string output;
    auto it = m_outputs.find(line);
    if (it != m_outputs.end()) {
        output = it->second;
    } else {
        std::string word = line.substr(0, line.find(' '));
        output = m_missingCommand;
        size_t at = output.find("%s");
        if (at != std::string::npos) {
            output.replace(at, 2, word);
        }
    }
    FILE* stream = std::tmpfile();
    if (stream == nullptr) {
        return nullptr;
    }
    if (!output.empty()) {
        std::fwrite(output.data(), 1, output.size(), stream);
    }
    std::rewind(stream);
    m_streams.push_back(stream);
    return stream;
}

int FakeMachine::pclose(FILE* stream)
{
    auto it = std::find(m_streams.begin(), m_streams.end(), stream);
    if (it == m_streams.end()) {
        return fail(ECHILD);
    }
    m_streams.erase(it);
    std::fclose(stream);
    return 0;
}

FakeMachine::Descriptor* FakeMachine::descriptor(int fd)
{
    auto it = m_descriptors.find(fd);
    return it == m_descriptors.end() ? nullptr : &it->second;
}

int FakeMachine::open(const char* rawPath, int flags, mode_t)
{
    if (rawPath == nullptr) {
        return fail(EFAULT);
    }
    std::string path = normalise(rawPath);
    m_opens.push_back(path);
    auto it = m_entries.find(path);
    if (it == m_entries.end() || it->second.type == DT_LNK) {
        return fail(ENOENT);
    }
    if (it->second.openError != 0) {
        return fail(it->second.openError);
    }
    if (it->second.type == DT_DIR || !it->second.model) {
        return fail(EISDIR);
    }
    int refused = it->second.model->open(flags);
    if (refused != 0) {
        return fail(refused);
    }
    int fd = m_nextFd++;
    m_descriptors[fd] = Descriptor{path, it->second.model, flags, 0};
    return fd;
}

int FakeMachine::close(int fd)
{
    if (m_descriptors.erase(fd) == 0) {
        return fail(EBADF);
    }
    return 0;
}

ssize_t FakeMachine::read(int fd, void* buffer, size_t count)
{
    Descriptor* d = descriptor(fd);
    if (d == nullptr) {
        return fail(EBADF);
    }
    ssize_t n = d->model->read(*this, static_cast<char*>(buffer), count, d->offset);
    if (n < 0) {
        return fail(static_cast<int>(-n));
    }
    d->offset += n;
    return n;
}

ssize_t FakeMachine::write(int fd, const void* buffer, size_t count)
{
    Descriptor* d = descriptor(fd);
    if (d == nullptr) {
        return fail(EBADF);
    }
    m_writes.push_back({d->path, std::string(static_cast<const char*>(buffer), count)});
    ssize_t n = d->model->write(*this, static_cast<const char*>(buffer), count, d->offset);
    if (n < 0) {
        return fail(static_cast<int>(-n));
    }
    d->offset += n;
    return n;
}

off_t FakeMachine::lseek(int fd, off_t offset, int whence)
{
    Descriptor* d = descriptor(fd);
    if (d == nullptr) {
        return fail(EBADF);
    }
    off_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? d->offset : -1;
    if (base < 0 || base + offset < 0) {
        return fail(EINVAL);
    }
    d->offset = base + offset;
    return d->offset;
}

int FakeMachine::ioctl(int fd, unsigned long request, void* argument)
{
    Descriptor* d = descriptor(fd);
    if (d == nullptr) {
        return fail(EBADF);
    }
    m_ioctls.push_back({d->path, request});
    int result = d->model->ioctl(*this, request, argument);
    if (result < 0) {
        return fail(-result);
    }
    return result;
}

void* FakeMachine::mmap(void*, size_t length, int, int, int fd, off_t offset)
{
    Descriptor* d = descriptor(fd);
    if (d == nullptr || length == 0) {
        errno = d == nullptr ? EBADF : EINVAL;
        return MAP_FAILED;
    }
    auto* area = static_cast<unsigned char*>(std::malloc(length));
    if (area == nullptr || !d->model->map(offset, length, area)) {
        std::free(area);
        errno = ENODEV;
        return MAP_FAILED;
    }
    m_mappings[area] = length;
    return area;
}

int FakeMachine::munmap(void* address, size_t)
{
    auto it = m_mappings.find(address);
    if (it == m_mappings.end()) {
        return fail(EINVAL);
    }
    std::free(it->first);
    m_mappings.erase(it);
    return 0;
}

int FakeMachine::tcgetattr(int fd, struct termios* settings)
{
    Descriptor* d = descriptor(fd);
    if (d == nullptr) {
        return fail(EBADF);
    }
    int result = d->model->tcgetattr(settings);
    return result < 0 ? fail(-result) : result;
}

int FakeMachine::tcsetattr(int fd, int action, const struct termios* settings)
{
    Descriptor* d = descriptor(fd);
    if (d == nullptr) {
        return fail(EBADF);
    }
    int result = d->model->tcsetattr(action, settings);
    return result < 0 ? fail(-result) : result;
}

std::vector<std::pair<std::string, unsigned char>> FakeMachine::children(const std::string& directory) const
{
    std::vector<std::pair<std::string, unsigned char>> result;
    result.emplace_back(".", DT_DIR);
    result.emplace_back("..", DT_DIR);
    for (const auto& path : m_entryOrder) {
        if (path != "/" && parentOf(path) == directory) {
            result.emplace_back(baseOf(path), m_entries.at(path).type);
        }
    }
    return result;
}

int FakeMachine::scandir(const char* rawDirectory, struct dirent*** list, DirentFilter filter, DirentCompare compare)
{
    std::string directory = normalise(rawDirectory == nullptr ? "" : rawDirectory);
    auto it = m_entries.find(directory);
    if (it == m_entries.end() || it->second.type != DT_DIR) {
        return fail(ENOENT);
    }
    std::vector<struct dirent*> kept;
    for (const auto& child : children(directory)) {
        struct dirent entry = makeDirent(child.first, child.second);
        if (filter != nullptr && filter(&entry) == 0) {
            continue;
        }
        auto* copy = static_cast<struct dirent*>(std::malloc(sizeof(struct dirent)));
        std::memcpy(copy, &entry, sizeof entry);
        kept.push_back(copy);
    }
    if (compare != nullptr) {
        std::sort(kept.begin(), kept.end(),
                  [compare](const struct dirent* a, const struct dirent* b) { return compare(&a, &b) < 0; });
    }
    auto** array = static_cast<struct dirent**>(std::malloc(sizeof(struct dirent*) * (kept.size() + 1)));
    std::copy(kept.begin(), kept.end(), array);
    *list = array;
    return static_cast<int>(kept.size());
}

Dir* FakeMachine::opendir(const char* rawPath)
{
    std::string path = normalise(rawPath == nullptr ? "" : rawPath);
    auto it = m_entries.find(path);
    if (it == m_entries.end() || it->second.type != DT_DIR) {
        errno = ENOENT;
        return nullptr;
    }
    m_opens.push_back(path);
    auto* dir = new Dir;
    for (const auto& child : children(path)) {
        dir->entries.push_back(makeDirent(child.first, child.second));
    }
    return dir;
}

struct dirent* FakeMachine::readdir(Dir* directory)
{
    if (directory->next >= directory->entries.size()) {
        return nullptr;
    }
    return &directory->entries[directory->next++];
}

int FakeMachine::closedir(Dir* directory)
{
    delete directory;
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
    return 0;
}

int FakeMachine::semget(key_t key, int, int flags)
{
    for (size_t i = 0; i < m_semaphores.size(); ++i) {
        if (m_semaphores[i].key == key) {
            return static_cast<int>(i);
        }
    }
    if ((flags & IPC_CREAT) == 0) {
        return fail(ENOENT);
    }
    m_semaphores.push_back({key, 0});
    return static_cast<int>(m_semaphores.size() - 1);
}

int FakeMachine::semctl(int id, int, int command, int value)
{
    if (id < 0 || static_cast<size_t>(id) >= m_semaphores.size()) {
        return fail(EINVAL);
    }
    switch (command) {
    case SETVAL: m_semaphores[id].value = value; return 0;
    case GETVAL: return m_semaphores[id].value;
    case IPC_RMID: m_semaphores[id].key = -1; return 0;
    default: return fail(EINVAL);
    }
}

int FakeMachine::semop(int id, struct sembuf* operations, size_t count)
{
    if (id < 0 || static_cast<size_t>(id) >= m_semaphores.size()) {
        return fail(EINVAL);
    }
    int value = m_semaphores[id].value;
    for (size_t i = 0; i < count; ++i) {
        value += operations[i].sem_op;
    }
    // One thread, one process: a wait that could never end is refused.
    if (value < 0) {
        return fail(EAGAIN);
    }
    m_semaphores[id].value = value;
    return 0;
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

void FakeMachine::sleepForSeconds(unsigned int seconds)
{
    m_sleeps.push_back({"sleepForSeconds", static_cast<int64_t>(seconds) * 1000000});
    m_clock.advance(static_cast<int64_t>(seconds) * 1000000);
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

#include "host/fake/FakeMachine.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>

// The descriptors and directories of a fake machine: what the library opens,
// reads, writes, maps and lists.

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

int fail(int error)
{
    errno = error;
    return -1;
}

} // namespace
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
    std::string path = FakeFileTree::normalise(rawPath);
    m_opens.push_back(path);
    const FakeFileTree::Entry* link = m_tree.find(path);
    if (link != nullptr && link->openError != 0) {
        return fail(link->openError);
    }
    const FakeFileTree::Entry* entry = m_tree.follow(path);
    if (entry == nullptr) {
        return fail(ENOENT);
    }
    if (entry->openError != 0) {
        return fail(entry->openError);
    }
    if (entry->type == DT_DIR || !entry->model) {
        return fail(EISDIR);
    }
    int refused = entry->model->open(flags);
    if (refused != 0) {
        return fail(refused);
    }
    int fd = m_nextFd++;
    m_descriptors[fd] = Descriptor{path, entry->model, flags, 0};
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
    IoctlRecord event;
    event.path = d->path;
    event.request = request;
    std::shared_ptr<DeviceModel> model = d->model; // the handler may close descriptors
    int result = model->ioctl(*this, request, argument, event);
    event.result = result;
    m_ioctls.push_back(std::move(event));
    if (result < 0) {
        return fail(-result);
    }
    return result;
}

void* FakeMachine::mmap(void*, size_t length, int protection, int, int fd, off_t offset)
{
    Descriptor* d = descriptor(fd);
    if (d == nullptr || length == 0) {
        errno = d == nullptr ? EBADF : EINVAL;
        return MAP_FAILED;
    }
    // A mapping that is only read shows the model's own bytes where it can,
    // so that mapping the same area again copies nothing.
    if (protection == PROT_READ) {
        if (const unsigned char* kept = d->model->view(offset, length)) {
            void* area = const_cast<unsigned char*>(kept);
            m_mappings.emplace(area, Mapping{length, false});
            return area;
        }
    }
    auto* area = static_cast<unsigned char*>(std::malloc(length));
    if (area == nullptr || !d->model->map(offset, length, area)) {
        std::free(area);
        errno = ENODEV;
        return MAP_FAILED;
    }
    m_mappings.emplace(area, Mapping{length, true});
    return area;
}

int FakeMachine::munmap(void* address, size_t)
{
    auto it = m_mappings.find(address);
    if (it == m_mappings.end()) {
        return fail(EINVAL);
    }
    if (it->second.copied) {
        std::free(it->first);
    }
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

int FakeMachine::scandir(const char* rawDirectory, struct dirent*** list, DirentFilter filter, DirentCompare compare)
{
    std::string resolved;
    const FakeFileTree::Entry* entry = m_tree.follow(rawDirectory == nullptr ? "" : rawDirectory, &resolved);
    if (entry == nullptr || entry->type != DT_DIR) {
        return fail(ENOENT);
    }
    std::vector<struct dirent*> kept;
    for (const auto& child : m_tree.children(resolved)) {
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
    std::string path = FakeFileTree::normalise(rawPath == nullptr ? "" : rawPath);
    std::string resolved;
    const FakeFileTree::Entry* entry = m_tree.follow(path, &resolved);
    if (entry == nullptr || entry->type != DT_DIR) {
        errno = ENOENT;
        return nullptr;
    }
    m_opens.push_back(path);
    auto* dir = new Dir;
    for (const auto& child : m_tree.children(resolved)) {
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

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

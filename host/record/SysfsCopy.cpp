#include "host/record/SysfsCopy.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

// libsysfs reads at most a page of an attribute.
const size_t kAttributeBytes = 4096;

// The buses whose devices the library asks about.
const char* const kBuses[] = {"pci", "scsi", "usb"};

// Attributes of PCI functions that map or read the device itself (its
// configuration space, memory areas, option ROM, vital product data) and
// that the library never asks for: they are left out.
bool leftOut(const std::string& name)
{
    return name == "config" || name == "rom" || name == "vpd" || name.compare(0, 8, "resource") == 0 ||
           name == "remove" || name == "rescan" || name == "reset";
}

std::string realPath(const std::string& path)
{
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) == nullptr) {
        return "";
    }
    return resolved;
}

class Copier {
public:
    Copier(const std::string& root, const std::string& target) : m_root(realPath(root)), m_target(target) {}

    SysfsCopyCount run()
    {
        makeFolder(m_target);
        for (const char* bus : kBuses) {
            copyBus(std::string("bus/") + bus);
        }
        while (!m_pending.empty()) {
            std::string folder = m_pending.front();
            m_pending.pop_front();
            copyFolder(folder, false);
        }
        return m_count;
    }

private:
    std::vector<std::string> entries(const std::string& relative)
    {
        std::vector<std::string> names;
        DIR* directory = ::opendir((m_root + "/" + relative).c_str());
        if (directory == nullptr) {
            return names;
        }
        while (struct dirent* entry = ::readdir(directory)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        ::closedir(directory);
        return names;
    }

    void makeFolder(const std::string& path)
    {
        std::string partial;
        size_t from = 0;
        while (from != std::string::npos) {
            size_t slash = path.find('/', from + 1);
            partial = path.substr(0, slash);
            from = slash;
            if (!partial.empty() && ::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
                throw std::runtime_error("cannot make folder " + partial + ": " + std::strerror(errno));
            }
        }
    }

    // The bus folder: its devices (links, whose folders are copied too), its
    // driver folders, and its own files.
    void copyBus(const std::string& bus)
    {
        struct stat info;
        if (::stat((m_root + "/" + bus).c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
            return;
        }
        copyFolder(bus, false);
        copyFolder(bus + "/devices", true);
        copyFolder(bus + "/drivers", false);
        for (const auto& driver : entries(bus + "/drivers")) {
            copyFolder(bus + "/drivers/" + driver, false);
        }
    }

    // The files and links of one folder; with `follow`, the folders its
    // links lead to (inside the root) are copied next.
    void copyFolder(const std::string& relative, bool follow)
    {
        if (!m_copied.insert(relative).second) {
            return;
        }
        makeFolder(m_target + "/" + relative);
        ++m_count.folders;
        for (const auto& name : entries(relative)) {
            std::string from = m_root + "/" + relative + "/" + name;
            std::string to = m_target + "/" + relative + "/" + name;
            struct stat info;
            if (::lstat(from.c_str(), &info) != 0) {
                continue;
            }
            if (S_ISLNK(info.st_mode)) {
                copyLink(from, to);
                if (follow) {
                    followLink(from);
                }
            } else if (S_ISREG(info.st_mode) && !leftOut(name)) {
                copyFile(from, to, info.st_mode);
            }
        }
    }

    void copyLink(const std::string& from, const std::string& to)
    {
        char target[PATH_MAX];
        ssize_t length = ::readlink(from.c_str(), target, sizeof target - 1);
        if (length < 0) {
            return;
        }
        target[length] = '\0';
        if (::symlink(target, to.c_str()) != 0 && errno != EEXIST) {
            throw std::runtime_error("cannot make link " + to + ": " + std::strerror(errno));
        }
        ++m_count.links;
    }

    void followLink(const std::string& from)
    {
        std::string resolved = realPath(from);
        if (resolved.size() > m_root.size() && resolved.compare(0, m_root.size(), m_root) == 0 &&
            resolved[m_root.size()] == '/') {
            m_pending.push_back(resolved.substr(m_root.size() + 1));
        }
    }

    void copyFile(const std::string& from, const std::string& to, mode_t mode)
    {
        std::string bytes;
        int in = ::open(from.c_str(), O_RDONLY | O_NONBLOCK);
        if (in >= 0) {
            char buffer[kAttributeBytes];
            ssize_t n = ::read(in, buffer, sizeof buffer);
            if (n > 0) {
                bytes.assign(buffer, static_cast<size_t>(n));
            }
            ::close(in);
        }
        int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out < 0 || (!bytes.empty() && ::write(out, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))) {
            if (out >= 0) {
                ::close(out);
            }
            throw std::runtime_error("cannot write " + to + ": " + std::strerror(errno));
        }
        ::close(out);
        // Readable stays readable, write-only stays write-only.
        ::chmod(to.c_str(), in >= 0 ? ((mode & 0777) | S_IRUSR | S_IWUSR) : (mode & 0333) | S_IWUSR);
        ++m_count.files;
    }

    std::string m_root;
    std::string m_target;
    std::set<std::string> m_copied;
    std::deque<std::string> m_pending;
    SysfsCopyCount m_count;
};

} // namespace

SysfsCopyCount copySysfs(const std::string& root, const std::string& target)
{
    return Copier(root, target).run();
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

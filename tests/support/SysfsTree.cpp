#include "tests/support/SysfsTree.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace ostrand_test {

namespace {

std::string lastComponent(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string parentOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

// "../" once for each folder between the root and the link's folder.
std::string climb(const std::string& linkRelative)
{
    std::string up;
    std::string folder = parentOf(linkRelative);
    if (folder.empty()) {
        return up;
    }
    up = "../";
    for (char c : folder) {
        if (c == '/') {
            up += "../";
        }
    }
    return up;
}

} // namespace

SysfsTree::SysfsTree() : SysfsTree("/tmp") {}

SysfsTree::SysfsTree(const std::string& parent)
{
    // The first folder on the way to `parent` that is not there yet goes at the end.
    fs::path missing;
    for (fs::path folder = fs::absolute(parent); !folder.empty() && !fs::exists(folder);
         folder = folder.parent_path()) {
        missing = folder;
        if (folder == folder.parent_path()) {
            break;
        }
    }
    m_parentMade = missing.string();
    fs::create_directories(parent);
    std::string pattern = parent + "/sysfs-tree-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error("cannot make a folder in " + parent);
    }
    m_made = buffer.data();
    m_root = m_made + "/sys";
    fs::create_directories(m_root);
}

SysfsTree::~SysfsTree()
{
    std::error_code ignored;
    fs::remove_all(m_parentMade.empty() ? m_made : m_parentMade, ignored);
}

std::string SysfsTree::path(const std::string& relative) const
{
    return relative.empty() ? m_root : m_root + "/" + relative;
}

SysfsTree& SysfsTree::folder(const std::string& relative)
{
    fs::create_directories(path(relative));
    return *this;
}

SysfsTree& SysfsTree::file(const std::string& relative, const std::string& bytes, mode_t mode)
{
    folder(parentOf(relative));
    std::string full = path(relative);
    {
        std::ofstream out(full, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            throw std::runtime_error("cannot write " + full);
        }
    }
    ::chmod(full.c_str(), mode);
    return *this;
}

SysfsTree& SysfsTree::link(const std::string& relative, const std::string& target)
{
    return rawLink(relative, climb(relative) + target);
}

SysfsTree& SysfsTree::rawLink(const std::string& relative, const std::string& text)
{
    folder(parentOf(relative));
    std::string full = path(relative);
    ::unlink(full.c_str());
    if (::symlink(text.c_str(), full.c_str()) != 0) {
        throw std::runtime_error("cannot link " + full);
    }
    return *this;
}

SysfsTree& SysfsTree::device(const std::string& device, const Attributes& attributes)
{
    folder("devices/" + device);
    for (const auto& attribute : attributes) {
        file("devices/" + device + "/" + attribute.first, attribute.second);
    }
    return *this;
}

SysfsTree& SysfsTree::onBus(const std::string& bus, const std::string& device, const std::string& name)
{
    folder("bus/" + bus + "/drivers");
    link("bus/" + bus + "/devices/" + (name.empty() ? lastComponent(device) : name), "devices/" + device);
    link("devices/" + device + "/subsystem", "bus/" + bus);
    return *this;
}

SysfsTree& SysfsTree::bind(const std::string& bus, const std::string& driverName, const std::string& device)
{
    link("bus/" + bus + "/drivers/" + driverName + "/" + lastComponent(device), "devices/" + device);
    link("devices/" + device + "/driver", "bus/" + bus + "/drivers/" + driverName);
    return *this;
}

SysfsTree& SysfsTree::driver(const std::string& bus, const std::string& driverName)
{
    return folder("bus/" + bus + "/drivers/" + driverName);
}

SysfsTree& SysfsTree::classDevice(const std::string& cls, const std::string& device, const std::string& name,
                                  const Attributes& attributes, const std::string& folderName)
{
    std::string own = device + "/" + (folderName.empty() ? cls : folderName) + "/" + name;
    this->device(own, attributes);
    link("devices/" + own + "/device", "devices/" + device);
    link("devices/" + own + "/subsystem", "class/" + cls);
    link("class/" + cls + "/" + name, "devices/" + own);
    return *this;
}

SysfsTree& SysfsTree::virtualClassDevice(const std::string& cls, const std::string& name, const Attributes& attributes)
{
    std::string own = "virtual/" + cls + "/" + name;
    device(own, attributes);
    link("devices/" + own + "/subsystem", "class/" + cls);
    link("class/" + cls + "/" + name, "devices/" + own);
    return *this;
}

} // namespace ostrand_test

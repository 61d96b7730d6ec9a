#include "host/fake/FakeSysfs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mntent.h>
#include <unistd.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

SysfsAlias::SysfsAlias(const std::string& folder)
{
    std::error_code error;
    std::string target = std::filesystem::absolute(folder, error).string();
    if (error) {
        target = folder;
    }
    m_path = target;
    char directory[] = "/tmp/ostrand-XXXXXX";
    if (::mkdtemp(directory) == nullptr) {
        return;
    }
    std::string link = std::string(directory) + "/sys";
    if (::symlink(target.c_str(), link.c_str()) != 0) {
        ::rmdir(directory);
        return;
    }
    m_directory = directory;
    m_path = link;
}

SysfsAlias::~SysfsAlias()
{
    if (!m_directory.empty()) {
        ::unlink(m_path.c_str());
        ::rmdir(m_directory.c_str());
    }
}

bool fakeMountTable(Machine& machine, std::string& table)
{
    const char* root = machine.sysfsRoot();
    if (root == nullptr) {
        return false;
    }
    table.clear();
    if (machine.sysfsMounted()) {
        table = std::string("sysfs ") + root + " sysfs rw,nosuid,nodev,noexec,relatime 0 0\n";
    }
    return true;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// The C library's own opening of a mount table, under the name that its
// setmntent is an alias of; a program linked statically has no next
// definition to look up at run time.
extern "C" FILE* __setmntent(const char* file, const char* mode) noexcept;

// libsysfs opens /proc/mounts with setmntent to learn whether its SYSFS_PATH
// is a sysfs mount. This definition in the program comes before the C
// library's: on a fake machine the table is the machine's own, anything else
// goes to the C library.
extern "C" FILE* setmntent(const char* file, const char* mode) noexcept
{
    using Vantrel::Ostrand::host::fakeMountTable;
    using Vantrel::Ostrand::host::machine;
    std::string table;
    if (file != nullptr && std::strcmp(file, "/proc/mounts") == 0 && fakeMountTable(machine(), table)) {
        FILE* stream = std::tmpfile();
        if (stream != nullptr) {
            std::fwrite(table.data(), 1, table.size(), stream);
            std::rewind(stream);
        }
        return stream;
    }
    return __setmntent(file, mode);
}

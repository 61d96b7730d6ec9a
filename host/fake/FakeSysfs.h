// The fake machine's side of libsysfs. libsysfs reads the folder that its
// SYSFS_PATH names, but only while /proc/mounts lists that very path as a
// mount of type sysfs, and it mangles the paths of attributes that lie deeper
// than about 128 characters (names cut short, or other files read). So a fake
// machine hands libsysfs a short alias of its folder, /tmp/ostrand-XXXXXX/sys,
// and answers libsysfs's reading of /proc/mounts with a table of its own that
// lists the alias while the machine says that sysfs is mounted. On the live
// machine /proc/mounts is read as it is.
#pragma once

#include "host/Host.h"

#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

// A short path that is a symbolic link to a folder, for as long as the object
// lives. If no alias can be made, the path is the folder itself.
class SysfsAlias {
public:
    explicit SysfsAlias(const std::string& folder);
    ~SysfsAlias();
    SysfsAlias(const SysfsAlias&) = delete;
    SysfsAlias& operator=(const SysfsAlias&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_directory;
    std::string m_path;
};

// The length of the alias paths, "/tmp/ostrand-XXXXXX/sys".
const size_t kSysfsAliasLength = 23;

// The mount table that a fake machine shows libsysfs: one line with its sysfs
// folder (as it hands it to libsysfs) while it is mounted, else nothing. False
// for the live machine, whose own /proc/mounts is read.
bool fakeMountTable(Machine& machine, std::string& table);

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

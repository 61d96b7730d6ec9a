// The part of sysfs that the library's queries read through libsysfs, copied
// as a real directory tree: the PCI, SCSI and USB buses with their driver
// folders, and for each device of a bus its own folder: its attributes (as
// many bytes as libsysfs reads of one) and its links, kept as links. Links
// that lead out of the copy dangle, as they do in captured trees.
#pragma once

#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

struct SysfsCopyCount {
    size_t folders = 0;
    size_t files = 0;
    size_t links = 0;
};

// Copies from `root` (the folder that stands for /sys) into `target`.
// Attributes that cannot be read are copied empty with their mode, so they
// stay unreadable. Throws std::runtime_error when `target` cannot be written.
SysfsCopyCount copySysfs(const std::string& root, const std::string& target);

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// Real sysfs trees for libsysfs to read, written into a temporary folder that
// goes with the object, and laid out as the kernel lays them out: device
// folders under devices/, the bus's view of them as relative links in
// bus/NAME/devices/, drivers as folders of links in bus/NAME/drivers/, class
// devices as folders inside their device with a link in class/NAME/.
#pragma once

#include <map>
#include <string>
#include <sys/types.h>

namespace ostrand_test {

typedef std::map<std::string, std::string> Attributes;

class SysfsTree {
public:
    // A tree in a new folder under /tmp, or under `parent`. Everything the
    // tree made goes with it, `parent` too if it was not there before.
    SysfsTree();
    explicit SysfsTree(const std::string& parent);
    ~SysfsTree();
    SysfsTree(const SysfsTree&) = delete;
    SysfsTree& operator=(const SysfsTree&) = delete;

    // The folder that stands for /sys.
    const std::string& root() const { return m_root; }
    // A path inside the tree, from a path relative to the root.
    std::string path(const std::string& relative) const;

    // --- Plain entries, all relative to the root; parents are made. ------
    SysfsTree& folder(const std::string& relative);
    SysfsTree& file(const std::string& relative, const std::string& bytes, mode_t mode = 0644);
    // A link whose text climbs from the link's folder to the root and goes
    // down to `target` (relative to the root), as the kernel writes them.
    SysfsTree& link(const std::string& relative, const std::string& target);
    // A link with exactly this text.
    SysfsTree& rawLink(const std::string& relative, const std::string& text);

    // --- Devices, by their path under devices/. -------------------------
    // A device folder and its attribute files (value bytes as given).
    SysfsTree& device(const std::string& device, const Attributes& attributes = {});
    // The device on a bus: bus/BUS/devices/NAME (NAME defaults to the device's
    // folder name) and the device's subsystem link.
    SysfsTree& onBus(const std::string& bus, const std::string& device, const std::string& name = "");
    // The device bound to a driver: bus/BUS/drivers/DRIVER/NAME and the
    // device's driver link.
    SysfsTree& bind(const std::string& bus, const std::string& driver, const std::string& device);
    // A driver folder with no device in it.
    SysfsTree& driver(const std::string& bus, const std::string& driver);
    // A class device of a device: devices/DEVICE/FOLDER/NAME (FOLDER defaults
    // to the class name) with its attributes, its device and subsystem links,
    // and class/CLASS/NAME.
    SysfsTree& classDevice(const std::string& cls, const std::string& device, const std::string& name,
                           const Attributes& attributes = {}, const std::string& folder = "");
    // A class device of no device: devices/virtual/CLASS/NAME.
    SysfsTree& virtualClassDevice(const std::string& cls, const std::string& name, const Attributes& attributes = {});

private:
    std::string m_parentMade;
    std::string m_made;
    std::string m_root;
};

} // namespace ostrand_test

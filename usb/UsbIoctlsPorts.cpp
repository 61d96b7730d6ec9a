// UsbIoctls: the ports of a hub. The port table from the kernel's ioctl or
// rebuilt from the text of /proc/bus/usb/devices, whether a port has a
// device and which, and whether a port or anything below it is in trouble.
#include "usb/UsbIoctls.h"

#include "host/Host.h"
#include "usb/USBDeviceFinder.h"
#include "usb/UsbDevicesText.h"
#include "usb/UsbKernel.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <vector>

namespace Vantrel {
namespace Ostrand {

namespace {

// The port table holds this many device numbers behind its count.
const int kPortTableEntries = static_cast<int>(sizeof(usbdevfs_hub_portinfo{}.port));
// fgets reads tool text in pieces of this size.
const int kLineSize = 256;

// Port status words that count as trouble: no connection; connected and
// powered but not enabled; connected only.
bool isTroubled(int status) { return status == 0 || status == 257 || status == 1; }

// The kernels whose hubs answer the port table ioctl, and every machine
// that is not x86_64. Other x86_64 kernels, including all of 3.1 and later,
// take the text route.
bool takesIoctlRoute(const KernelRelease& release, const struct utsname& name)
{
    if (release.major == 2 && release.minor == 6 && release.patch > 14) {
        return true;
    }
    if (release.major == 2 && release.minor == 6 && release.patch == 9 && readKernelBuild(name) > 33) {
        return true;
    }
    if (release.major == 2 && release.minor == 4 && release.patch == 21 && readKernelBuild(name) > 39) {
        return true;
    }
    if (release.major == 3 && release.minor == 0 && release.patch > 3) {
        return true;
    }
    return std::strstr(name.machine, "x86_64") == nullptr;
}

// The node path of the device numbered `number` on the same bus as the node
// at `path`: everything behind the last "/" replaced. The number is read as
// a signed byte, as the table holds it.
std::string siblingPath(const std::string& path, int number)
{
    char text[16];
    std::snprintf(text, sizeof text, "%03d", static_cast<int>(static_cast<signed char>(number)));
    return path.substr(0, path.rfind('/') + 1) + text;
}

int portCount(const usbdevfs_hub_portinfo& info) { return static_cast<signed char>(info.nports); }
int portEntry(const usbdevfs_hub_portinfo& info, int index) { return static_cast<signed char>(info.port[index]); }

// The lines a command prints, each as fgets gives it. A stream that could
// not be started prints nothing.
std::vector<std::string> toolLines(FILE* stream, bool firstOnly)
{
    std::vector<std::string> lines;
    if (stream == nullptr) {
        return lines;
    }
    char line[kLineSize];
    std::memset(line, 0, sizeof line);
    while (std::fgets(line, sizeof line, stream) != nullptr) {
        lines.push_back(line);
        if (firstOnly) {
            break;
        }
    }
    return lines;
}

// The ioctl route, steps 1 to 4.
bool portInfoByIoctl(UsbIoctls& ioctls, const std::string& devicePath, usbdevfs_hub_portinfo* info, const int& fd)
{
    int descriptor = fd;
    bool opened = false;
    if (fd == -1) {
        errno = 0;
        descriptor = host::open(devicePath.c_str(), O_RDWR);
        if (descriptor < 0) {
            return false;
        }
        opened = true;
    }
    ioctls.getHubPortInfo(descriptor, info);
    if (opened) {
        host::close(descriptor);
    }
    return true;
}

// The text route, steps 1 to 10.
bool portInfoByText(const std::string& devicePath, usbdevfs_hub_portinfo* info)
{
    // 1.
    std::memset(info, 0, sizeof *info);
    // 2. The last two digits of bus and device, where a path under
    //    /proc/bus/usb/ has them; a shorter path throws.
    std::string busText = devicePath.substr(15, 2);
    std::string deviceText = devicePath.substr(19, 2);
    // 3-6. The hub's own line.
    FILE* stream = host::popen(hubLineCommand(busText, deviceText).c_str(), "r");
    if (stream == nullptr) {
        return false;
    }
    // 7. The last line wins.
    int count = 0;
    for (const std::string& line : toolLines(stream, false)) {
        count = portCountOfLine(line);
    }
    // 8.
    info->nports = static_cast<unsigned char>(count);
    host::pclose(stream);
    if (count <= 0) {
        return true;
    }
    // 9. One line for each port. The table has room for so many ports, and
    //    no hub has more; a count beyond it reads no further.
    for (int index = 0; index < count && index < kPortTableEntries; ++index) {
        FILE* port = host::popen(portLineCommand(busText, deviceText, index).c_str(), "r");
        std::vector<std::string> lines = toolLines(port, true);
        info->port[index] = lines.empty() ? 0 : static_cast<char>(deviceNumberOfLine(lines.front()));
        // A stream that did not start is not closed.
        if (port != nullptr) {
            host::pclose(port);
        }
    }
    // 10.
    return true;
}

} // namespace

bool UsbIoctls::getHubPortInfo(const std::string& devicePath, usbdevfs_hub_portinfo* info, const int& fd)
{
    struct utsname name;
    KernelRelease release = readKernelRelease(name);
    if (takesIoctlRoute(release, name)) {
        return portInfoByIoctl(*this, devicePath, info, fd);
    }
    return portInfoByText(devicePath, info);
}

bool UsbIoctls::getOneUsbDeviceInfo(const std::string& devicePath, Usb_Device* device)
{
    // 1.
    std::string::size_type usb = devicePath.find("usb");
    // A path that ends within "usb/" has no bus to give.
    if (usb == std::string::npos || usb + 4 > devicePath.size()) {
        return false;
    }
    // 2. Bus and device text: "001/002".
    std::string numbers = devicePath.substr(usb + 4);
    std::string::size_type slash = numbers.find('/');
    std::string busText = numbers.substr(0, slash);
    std::string deviceText = slash == std::string::npos ? numbers.substr(0, 3) : numbers.substr(slash + 1, 3);
    // 3. Its result is not needed: an empty list finds nothing.
    CSysfsReader reader(m_logStream);
    StrMapMap list;
    reader.GetDeviceList(BUS_TYPE_USB, list);
    // 4.
    long bus = std::strtol(busText.c_str(), nullptr, 10);
    long wanted = std::strtol(deviceText.c_str(), nullptr, 10);
    // 5. A key that does not read keeps the bus of the key before it.
    int keyBus = 0;
    StrMap attrs;
    for (StrMapMap::const_iterator entry = list.begin(); entry != list.end(); ++entry) {
        const std::string& key = entry->first;
        if (key.find("usb") != std::string::npos) {
            std::sscanf(key.c_str(), "usb%d", &keyBus);
        } else {
            std::sscanf(key.c_str(), "%d-", &keyBus);
        }
        if (keyBus != bus) {
            continue;
        }
        attrs.clear();
        reader.GetDeviceAttr(key, BUS_TYPE_USB, attrs);
        StrMap::const_iterator devnum = attrs.find("devnum");
        if (devnum == attrs.end() || std::strtol(devnum->second.c_str(), nullptr, 10) != wanted) {
            continue;
        }
        // 6.
        USBDeviceFinder finder(m_logStream);
        finder.parseDevAttr(key, attrs, device);
        return true;
    }
    // 7.
    return false;
}

bool UsbIoctls::isPortBusy(const std::string& hubPath, const int& port, std::string& deviceInfo, UsbMap& devices,
                           const int& fd)
{
    // 1. Port 1 reads the table; the ports after it use that table.
    if (port == 1) {
        getHubPortInfo(hubPath, &m_hubPortInfo, fd);
    }
    // 2. A port outside the table has no device.
    if (port < 1 || port > kPortTableEntries) {
        return false;
    }
    int number = portEntry(m_hubPortInfo, port - 1);
    if (number == 0) {
        return false;
    }
    // 3.
    std::string devicePath = siblingPath(hubPath, number);
    Usb_Device* device = nullptr;
    if (!devices.empty()) {
        // 4.
        UsbMap::const_iterator found = devices.find(devicePath);
        if (found == devices.end()) {
            return false;
        }
        device = new Usb_Device(found->second);
    } else {
        // 5.
        device = new Usb_Device;
        if (!getOneUsbDeviceInfo(devicePath, device)) {
            delete device;
            return false;
        }
    }
    // 6.
    char portText[16];
    std::snprintf(portText, sizeof portText, "%d", port);
    deviceInfo.clear();
    deviceInfo += device->classText + ":" + device->subClassText + "!" + device->vendorIdText + "[" +
                  device->productIdText + "]" + device->serialNo + "!" + device->firmwareRev + "!" + portText;
    // 7.
    delete device;
    return true;
}

int UsbIoctls::checkforOCState(const std::string& hubPath, const int& port, usbdevfs_hub_portinfo& info,
                               const int& fd)
{
    // 1.
    if (port == 1 && info.nports == 0) {
        getHubPortInfo(hubPath, &info, fd);
    }
    // 2. A port outside the table has no device.
    if (port < 1 || port > kPortTableEntries) {
        return -1;
    }
    int number = portEntry(info, port - 1);
    if (number == 0) {
        return -1;
    }
    // 3. A status that cannot be read is no trouble.
    int status = 0;
    if (getPortStatus(fd, port, status) != 0) {
        return 0;
    }
    // 4.
    if (isTroubled(status)) {
        return 2;
    }
    // 5, 6. A device that answers its status, or stalls it (6), is well.
    std::string devicePath = siblingPath(hubPath, number);
    int deviceStatus = getUsbDeviceStatus(devicePath);
    if (deviceStatus != 0 && deviceStatus != 6) {
        return 2;
    }
    // 7. errno is not cleared first: step 8 reads what the status request
    //    left in it.
    int node = host::open(devicePath.c_str(), O_RDWR | O_NONBLOCK);
    if (node < 0) {
        return errno;
    }
    // 8. errno still holds what the status request left (6 after it); the
    //    node stays open on this exit.
    if (errno != 0) {
        return errno;
    }
    // 9. The descriptor's own total length decides how much comes back, up
    //    to 64 KiB; the buffer takes any total, so the kernel never writes
    //    beyond it. The first 1024 bytes are those that callers look at.
    std::vector<char> descriptors(65536 + 1024, 0);
    int length = 0;
    getConfigDescriptor(node, descriptors.data(), length);
    int deviceClass = getDeviceClass(descriptors.data(), length);
    // 10.
    if (deviceClass != 9) {
        host::close(node);
        return 0;
    }
    // 11. A hub: its own table, read on the new descriptor.
    usbdevfs_hub_portinfo table;
    std::memset(&table, 0, sizeof table);
    getHubPortInfo(devicePath, &table, node);
    int count = portCount(table);
    if (count <= 0) {
        host::close(node);
        return 0;
    }
    // 12.
    for (int below = 1; below <= count; ++below) {
        int belowStatus = 0;
        getPortStatus(node, below, belowStatus);
        if (isTroubled(belowStatus)) {
            host::close(node);
            return 2;
        }
        if ((belowStatus & 1) != 0 && checkforOCState(devicePath, below, table, node) == 2) {
            host::close(node);
            return 2;
        }
    }
    // 13.
    host::close(node);
    return 0;
}

} // namespace Ostrand
} // namespace Vantrel

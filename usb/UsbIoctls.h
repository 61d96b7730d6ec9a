// The door to the kernel's USB file system: control transfers on a device
// node ("/dev/bus/usb/BBB/DDD" or "/proc/bus/usb/BBB/DDD"), the descriptor
// and status requests built on them, the driver query, the port table ioctl,
// the class-to-text table, and the small shell tools that the USB code uses
// to walk sysfs paths.
//
// Results are reported by value: an errno value as int (0 for success), a
// bool, or empty text. errno carries results from UsbPassThrough to its
// callers, so a sequence of calls must run with nothing in between.
#pragma once

#include "frame/Export.h"
#include "usb/Usb_Device.h"

#include <iosfwd>
#include <linux/usbdevice_fs.h>
#include <string>

namespace Vantrel {
namespace Ostrand {

class OSTRAND_API UsbIoctls {
public:
    explicit UsbIoctls(std::ofstream* log);
    ~UsbIoctls();

    // --- Control transfers ---------------------------------------------
    // One USBDEVFS_CONTROL. requestType and request are cut to 8 bits,
    // value, index and length to 16. The result is errno after the ioctl
    // (0 on success); the ioctl's own return value is not looked at.
    int UsbPassThrough(int fd, int requestType, int request, int value, int index, char* data, int length,
                       int timeout);
    // The configuration descriptor with all that follows it, read twice: 9
    // bytes, then the total length those give. `length` receives that total
    // length; a low byte of 128 or more makes it negative. The second read
    // has no bound against the buffer (callers pass 1024 zeroed bytes). The
    // descriptor belongs to the caller and stays open.
    int getConfigDescriptor(const int& fd, char* buffer, int& length);
    // GET_STATUS of a hub port. `status` gets the port status word, never
    // the change bits; 0 after a failed transfer. The descriptor stays open.
    int getPortStatus(const int& fd, const int& port, int& status);
    // GET_STATUS of the device at a node path: the errno of open, or the
    // result of the transfer. The reply itself is dropped.
    int getUsbDeviceStatus(const std::string& devicePath);
    // The hub class descriptor's port count. False, with the errno of open
    // in `ports`, when the node does not open; true and 0 ports when the
    // device does not answer.
    bool getNumofPorts(const std::string& devicePath, int& ports);
    // Class and subclass read from a 9-byte reply laid out as an interface
    // descriptor. 0 on success; otherwise an errno value, with both outputs
    // 0 after a failed transfer and untouched after a failed open.
    int getUsbDeviceClass(std::string devicePath, int& deviceClass, int& subClass);

    // --- Descriptor bytes ----------------------------------------------
    // The class of the last interface descriptor within `length` bytes; 0
    // when there is none. The buffer must hold `length` bytes and a few
    // more: an interface descriptor's class is read at its sixth byte.
    int getDeviceClass(const char* descriptors, const int& length);
    // The power draw of a configuration descriptor, in mA.
    int getMaxPower(const char* descriptors, const int& length);

    // --- Other ioctls --------------------------------------------------
    // USBDEVFS_HUB_PORTINFO through USBDEVFS_IOCTL on interface 0. True
    // when the ioctl returns 0 or more. The descriptor stays open.
    bool getHubPortInfo(const int& fd, usbdevfs_hub_portinfo* info);
    // The driver bound to interface 0; empty on any failure.
    std::string getDriver(const std::string& devicePath);

    // --- Hub ports -------------------------------------------------------
    // The port table of the hub at devicePath, from the ioctl or from the
    // text of /proc/bus/usb/devices, chosen by kernel release and machine
    // on every call. fd -1 opens the node (and closes it again); another
    // descriptor is used and left open. True when a route filled `info`.
    bool getHubPortInfo(const std::string& devicePath, usbdevfs_hub_portinfo* info, const int& fd);
    // The sysfs device with the bus and device number of a node path,
    // parsed into `device`. False when there is none.
    bool getOneUsbDeviceInfo(const std::string& devicePath, Usb_Device* device);
    // Whether a device sits on the port (counted from 1) of the hub at
    // hubPath, and if so its class, ids, serial, revision and the port in
    // deviceInfo. Port 1 reads the hub's table; the other ports reuse it.
    bool isPortBusy(const std::string& hubPath, const int& port, std::string& deviceInfo, UsbMap& devices,
                    const int& fd);
    // -1 nothing on the port, 2 the port or something below it in trouble,
    // 0 well or unknown, otherwise the errno of opening the device's node.
    int checkforOCState(const std::string& hubPath, const int& port, usbdevfs_hub_portinfo& info, const int& fd);

    // --- Text ----------------------------------------------------------
    // The description of a USB class and subclass.
    std::string getDevDscrpn(const int& deviceClass, const int& subClass);
    // From entries "key" "decimal length" "|" "value" in `source`, the value
    // of `key`. Always true; throws std::out_of_range when a computed start
    // lies behind the end of `source`.
    bool getAttribute(std::string source, std::string key, std::string& output, int& unused);

    // --- Tools ---------------------------------------------------------
    // Each runs one command line and leaves the last line printed, less its
    // last character, in `output`; `output` stays as it was when nothing is
    // printed. False only when the command cannot be started.
    bool getFindCmdOutput(std::string directory, std::string name, std::string& output);
    bool getDirnameCmdOutput(const std::string& path, std::string& output);
    bool getBasenameCmdOutput(const std::string& path, std::string& output);
    // The file goes to the null device: `output` is never touched.
    bool getCatCmdOutput(const std::string& path, std::string& output);

private:
    std::ofstream* m_logStream;
    // The port table of the hub that isPortBusy read last: the port count,
    // then the device number on each port.
    usbdevfs_hub_portinfo m_hubPortInfo;
};

} // namespace Ostrand
} // namespace Vantrel

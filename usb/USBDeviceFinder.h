// The USB route of the library: every USB device of the machine as a
// Usb_Device, placed in the tree of hubs and ports, and the location of one
// USB storage device given its sg descriptor.
//
// The framework builds a finder, calls getAllUSBDevices once and pulls heap
// copies with Next until it returns false; each copy is the caller's. The
// storage finders need only getMyUSBInformation, which works without a walk.
//
// The operations are spread over files by concern:
//   USBDeviceFinder.cpp            construction, the usbfs root, PCI lookups
//   USBDeviceFinderAttributes.cpp  one device's sysfs attributes into a record
//   USBDeviceFinderWalk.cpp        the flat pass and the walk from each root hub
//   USBDeviceFinderStorage.cpp     the location of a USB storage device
#pragma once

#include "frame/Export.h"
#include "probes/CSysfsReader.h"
#include "usb/Usb_Device.h"

#include <fstream>
#include <linux/usbdevice_fs.h>
#include <string>

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;
class PCIUtil;
class SCSIGeneric;
class UsbIoctls;

class OSTRAND_API USBDeviceFinder {
public:
    // Builds its LinuxUtils, then its own PCIUtil, then its UsbIoctls.
    explicit USBDeviceFinder(std::ofstream* log);
    // Clears the map, then deletes the PCIUtil, the LinuxUtils and the
    // UsbIoctls. m_scsiGeneric is not touched.
    ~USBDeviceFinder();

    // --- The walk --------------------------------------------------------
    // Reads every USB device from sysfs and places it in the tree. False
    // when there is no USB controller, no usable usbfs root or no sysfs;
    // throws std::string "usbdevfs not mounted, cannot enumerate!" when the
    // mounts have no USB file system. Meant to run once.
    bool getAllUSBDevices();
    // A heap copy of the next record, the caller's to delete. False at the
    // end, and before getAllUSBDevices.
    bool Next(Usb_Device** device);
    // The flat pass: one record per USB device of sysfs, keyed by node path.
    bool getUsbDevFromSysfs(UsbMap& devices, int controllerCount);
    // A root hub: its PCI controller's facts, ports, driver; then its tree.
    bool enumerateRootHub(Usb_Device* hub, int controllerCount, int controllerIndex);
    // Places the device on each port of the hub at hubPath, and recurses
    // into hubs.
    void getMyChildrenfromUsbIoctls(std::string& hubPath);

    // --- Port state, for the framework -------------------------------------
    int checkforOCState(const std::string& path, const int& port, usbdevfs_hub_portinfo& table, const int& fd);
    int getPortStatus(const int& fd, const int& port, int& status);
    // As UsbIoctls::isPortBusy, over this finder's own map.
    bool isPortBusy(const std::string& path, const int& port, std::string& device, const int& fd);

    // --- One device's attributes --------------------------------------------
    // Each getter looks up one attribute; an absent one leaves the record
    // as it was.
    void getDeviceClass(StrMap& attrs, Usb_Device* device);
    void getDeviceSubClass(StrMap& attrs, Usb_Device* device);
    void getDeviceNum(StrMap& attrs, std::string& deviceNum);
    void getPID(StrMap& attrs, Usb_Device* device);
    void getVID(StrMap& attrs, Usb_Device* device);
    void getManufacturer(StrMap& attrs, Usb_Device* device);
    void getNumOfPorts(StrMap& attrs, Usb_Device* device);
    void getUsbSpeed(StrMap& attrs, Usb_Device* device);
    void getDeviceName(StrMap& attrs, Usb_Device* device);
    void getSerialNo(StrMap& attrs, Usb_Device* device);
    void getUsbSpec(StrMap& attrs, Usb_Device* device);
    void getMaxPower(StrMap& attrs, std::string& power);
    void getFrwRev(StrMap& attrs, Usb_Device* device);
    void getDevPowerType(StrMap& attrs, Usb_Device* device);
    // Adds "label" and value as one item of addlHWInfo.
    void setAddlHWInfo(const std::string& label, const std::string& value, Usb_Device* device);
    // The full extraction. Always true.
    bool parseDevAttr(std::string name, StrMap& attrs, Usb_Device* device);
    // The short extraction of a storage device: release, revision, serial
    // and power only.
    void getOneUSBDeviceInfo(std::string& busId, Usb_Device* device);
    // Sets devicePath from the usbfs root, the bus and deviceNum.
    void getDeviceDescr(std::string busId, Usb_Device* device);
    // The PCI facts of the device's host controller, as far as sysfs tells.
    void getDeviceLocation(CSysfsReader* reader, std::string busId, Usb_Device* device, int& controllerCount);
    // True for the bus_ids of devices ("usb1", "1-4.2"), false for those of
    // interfaces ("1-4:1.0").
    bool isUsbDevice(std::string busId);

    // --- The usbfs root and PCI lookups -------------------------------------
    // Sets m_mountPath by kernel release; may throw the char* text
    // "usbdevfs not mounted, cannot enumerate!".
    bool getMountPath();
    bool getPciVectorIndex(const int& count, std::string& address, int& index);
    bool getPciBdf(const std::string& text, const int& progIf, const int& count, std::string& busDevFn, int& index);
    int getFirstAlphaNumChar(const char* text, int start);

    // --- USB storage ---------------------------------------------------------
    // Where the USB storage device behind the open sg descriptor fd sits. On
    // true *device is a new record, the caller's, and fd is closed.
    bool getMyUSBInformation(Usb_Device** device, const int& fd);
    // Splits the "Port n, Device d, " text of the walk into the two
    // locations; parentLocation is appended to.
    void getLocationInfo(const std::string& text, const std::string& deviceNum, std::string& location,
                         std::string& parentLocation);

private:
    USBDeviceFinder(const USBDeviceFinder&);
    USBDeviceFinder& operator=(const USBDeviceFinder&);

    std::ofstream* m_logStream;
    LinuxUtils* m_linuxUtils;
    UsbIoctls* m_usbIoctls;
    std::string m_mountPath;
    UsbMap m_usbDevices;
    UsbMap::iterator m_nextDevice;
    PCIUtil* m_pciUtil;
    SCSIGeneric* m_scsiGeneric;
};

} // namespace Ostrand
} // namespace Vantrel

// USBDeviceFinder: the walk. A flat pass puts every USB device of sysfs in
// the map by node path; then each root hub is matched with a USB controller
// and its tree is walked port by port through the USB file system, which
// gives each device its location, parent, driver, description and kind.
#include "usb/USBDeviceFinder.h"

#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"
#include "usb/UsbIoctls.h"

#include <cstdio>
#include <cstring>

namespace Vantrel {
namespace Ostrand {

namespace {

// The PCI class of USB host controllers.
const unsigned short kUsbControllerClass = 0xC03;
const int kHubClass = 9;

const int kErrorNoDriver = 28;
const int kErrorNoPower = 10;

const int kNodeRootHub = 1;
const int kNodeHub = 2;
const int kNodeEndDevice = 3;

// A chain of hubs on one bus holds at most as many devices as the bus. A
// table that leads round in a circle (a hub listed below itself) would go
// deeper; the walk stops there.
const int kMaxHubDepth = 127;
thread_local int t_hubDepth = 0;

struct HubDepth {
    HubDepth() { ++t_hubDepth; }
    ~HubDepth() { --t_hubDepth; }
    bool tooDeep() const { return t_hubDepth > kMaxHubDepth; }
};

bool isRootHub(const Usb_Device& device)
{
    return device.deviceClass == kHubClass && device.deviceNum.find("001") != std::string::npos;
}

} // namespace

bool USBDeviceFinder::getAllUSBDevices()
{
    try {
        // 1. The USB controllers of the PCI inventory.
        m_pciUtil->initPciUtil();
        int controllerCount = m_pciUtil->getNumofDeviceWithClass(kUsbControllerClass);
        if (controllerCount == 0) {
            return false;
        }
        // 2. Every device of sysfs.
        if (!getUsbDevFromSysfs(m_usbDevices, controllerCount)) {
            return false;
        }
        // 3. The n-th root hub by path belongs to the n-th controller.
        int controllerIndex = 0;
        for (UsbMap::iterator entry = m_usbDevices.begin(); entry != m_usbDevices.end(); ++entry) {
            if (isRootHub(entry->second)) {
                enumerateRootHub(&entry->second, controllerCount, controllerIndex);
                ++controllerIndex;
            }
        }
        // 4.
        m_nextDevice = m_usbDevices.begin();
        return true;
    } catch (char* text) {
        throw std::string(text);
    } catch (...) {
        return false;
    }
}

bool USBDeviceFinder::Next(Usb_Device** device)
{
    if (m_usbDevices.empty()) {
        return false;
    }
    if (m_nextDevice == m_usbDevices.end()) {
        return false;
    }
    // The copy is the caller's; slotName stays behind.
    *device = new Usb_Device(m_nextDevice->second);
    ++m_nextDevice;
    return true;
}

bool USBDeviceFinder::getUsbDevFromSysfs(UsbMap& devices, int controllerCount)
{
    // 1.
    if (!getMountPath()) {
        return false;
    }
    // 2.
    CSysfsReader reader(m_logStream);
    StrMapMap list;
    if (reader.GetDeviceList(BUS_TYPE_USB, list) != 0) {
        return false;
    }
    // 3. Devices, not interfaces, in key order.
    StrMap attrs;
    for (StrMapMap::const_iterator entry = list.begin(); entry != list.end(); ++entry) {
        std::string busId = entry->first;
        if (!isUsbDevice(busId)) {
            continue;
        }
        Usb_Device* device = new Usb_Device;
        attrs.clear();
        reader.GetDeviceAttr(busId, BUS_TYPE_USB, attrs);
        if (!parseDevAttr(busId, attrs, device)) {
            delete device;
            return false;
        }
        getDeviceDescr(busId, device);
        getDeviceLocation(&reader, busId, device, controllerCount);
        // A path already in the map keeps its first record.
        devices.insert(UsbMap::value_type(device->devicePath, *device));
        delete device;
    }
    // 4. An empty list is a success.
    return true;
}

bool USBDeviceFinder::enumerateRootHub(Usb_Device* hub, int, int controllerIndex)
{
    // 1. The controller's maker and name.
    hub->controllerVendor = m_pciUtil->getDevAttribute(controllerIndex, PCIUtil::PCI_ATTR_VENDOR);
    hub->deviceDescription = m_pciUtil->getDevAttribute(controllerIndex, PCIUtil::PCI_ATTR_NAME);
    // 2.
    if (!hub->productName.empty()) {
        hub->displayName = hub->productName;
    } else if (!hub->modelName.empty()) {
        hub->displayName = hub->modelName;
    } else {
        hub->displayName = hub->deviceDescription;
    }
    // 3. The controller's PCI address.
    int bus = 0;
    int device = 0;
    int function = 0;
    m_pciUtil->getPCIBusDevFunction(controllerIndex, bus, device, function);
    std::string busText = m_linuxUtils->toString("d", bus);
    std::string deviceText = m_linuxUtils->toString("d", device);
    std::string functionText = m_linuxUtils->toString("d", function);
    // 4, 5.
    hub->parentLocation = "System Board!PCI Bus " + busText;
    hub->location = "PCI Bus " + busText + ", Device " + deviceText + ", Function " + functionText;
    // 6. The slot goes first.
    std::string attributes = hub->addlHWInfo;
    hub->addlHWInfo.clear();
    hub->addlHWInfo = m_linuxUtils->getSlotInfo(static_cast<unsigned int>(bus), static_cast<unsigned int>(device));
    // 7. A node that does not open gives its errno as the count.
    int ports = 0;
    m_usbIoctls->getNumofPorts(hub->devicePath, ports);
    hub->numOfPorts = ports;
    hub->addlHWInfo += ", Number of Ports:" + m_linuxUtils->toString("d", ports);
    // 8.
    hub->addlHWInfo += ", " + attributes;
    // 9.
    hub->driverName = m_usbIoctls->getDriver(hub->devicePath);
    if (hub->driverName.empty()) {
        hub->deviceErrorCode = kErrorNoDriver;
    }
    // 10, 11.
    hub->nodeKind = kNodeRootHub;
    getMyChildrenfromUsbIoctls(hub->devicePath);
    return true;
}

void USBDeviceFinder::getMyChildrenfromUsbIoctls(std::string& hubPath)
{
    HubDepth depth;
    if (depth.tooDeep()) {
        return;
    }
    // 1. A hub that gives no table has no ports.
    usbdevfs_hub_portinfo table;
    std::memset(&table, 0, sizeof table);
    m_usbIoctls->getHubPortInfo(hubPath, &table, -1);
    // 2.
    std::string::size_type slash = hubPath.rfind('/');
    Usb_Device* parent = nullptr;
    // 3. Count and entries are signed bytes.
    int count = static_cast<signed char>(table.nports);
    for (int port = 0; port < count; ++port) {
        int number = static_cast<signed char>(table.port[port]);
        if (number == 0) {
            continue;
        }
        // 4. A number above 127 prints negative and finds nothing.
        char numberText[16];
        std::snprintf(numberText, sizeof numberText, "%03d", number);
        std::string childPath = hubPath.substr(0, slash + 1) + numberText;
        // 5. A device that came after the flat pass is passed over.
        UsbMap::iterator found = m_usbDevices.find(childPath);
        if (found == m_usbDevices.end()) {
            continue;
        }
        Usb_Device& child = found->second;
        // 6.
        child.location = "Port " + m_linuxUtils->toString("d", port + 1) + ", Device " + child.deviceNum;
        // 7.
        child.driverName = m_usbIoctls->getDriver(childPath);
        if (child.driverName.empty()) {
            child.deviceErrorCode = kErrorNoDriver;
        }
        // 8. No driver stays the reason given.
        if (m_usbIoctls->getUsbDeviceStatus(childPath) != 0 && child.deviceErrorCode == 0) {
            child.deviceErrorCode = kErrorNoPower;
            child.addlHWInfo += ", Device not getting enough power.";
        }
        // 9. The hub itself, looked up again for each port until found.
        if (parent == nullptr) {
            UsbMap::iterator hub = m_usbDevices.find(hubPath);
            if (hub == m_usbDevices.end()) {
                continue;
            }
            parent = &hub->second;
        }
        // 10, 11.
        child.parentLocation = parent->parentLocation + "!" + parent->location;
        child.parentPath = hubPath;
        // 12. sysfs gives no class: the interface's.
        if (child.deviceClass == 0) {
            int deviceClass = 0;
            int subClass = 0;
            m_usbIoctls->getUsbDeviceClass(childPath, deviceClass, subClass);
            child.deviceClass = deviceClass;
            child.deviceSubClass = subClass;
        }
        // 13, 14.
        child.deviceDescription = m_usbIoctls->getDevDscrpn(child.deviceClass, child.deviceSubClass);
        if (child.deviceClass == 0 && child.deviceSubClass == 0 && !child.driverName.empty() &&
            child.deviceDescription.find("Unknown") != std::string::npos) {
            child.deviceDescription = child.driverName + " device";
        }
        // 15, 16.
        if (child.modelName.find("error") != std::string::npos) {
            child.modelName = child.vendorName;
        }
        if (child.manufacturer.size() <= 1) {
            child.manufacturer = child.vendorName;
        }
        // 17.
        if (child.deviceClass != kHubClass) {
            child.nodeKind = kNodeEndDevice;
            child.endDevice = true;
            continue;
        }
        // 18. A hub below: its ports first, then its own tree.
        m_usbIoctls->getNumofPorts(childPath, child.numOfPorts);
        std::string attributes = child.addlHWInfo;
        child.addlHWInfo = "Number of Ports:";
        child.addlHWInfo += m_linuxUtils->toString("ds", child.numOfPorts, ", ") + attributes;
        child.nodeKind = kNodeHub;
        getMyChildrenfromUsbIoctls(child.devicePath);
    }
}

} // namespace Ostrand
} // namespace Vantrel

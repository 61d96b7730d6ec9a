// USBDeviceFinder: one USB device's sysfs attributes into a Usb_Device, its
// node path, and the PCI facts of its host controller. A missing or odd
// attribute is never an error: the field keeps what it had.
#include "usb/USBDeviceFinder.h"

#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"
#include "usb/LsusbText.h"

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <sstream>

namespace Vantrel {
namespace Ostrand {

namespace {

// The value of `key`, or null when the device has no such attribute.
const std::string* attribute(StrMap& attrs, const char* key)
{
    StrMap::const_iterator found = attrs.find(key);
    return found == attrs.end() ? nullptr : &found->second;
}

bool contains(const std::string& text, const char* word) { return text.find(word) != std::string::npos; }

std::string formatted(const char* format, int number)
{
    char text[32];
    std::snprintf(text, sizeof text, format, number);
    return text;
}

// The bus number at the front of a bus_id: "usb2" or "2-1.3".
int busOf(const std::string& busId)
{
    int bus = 0;
    if (contains(busId, "usb")) {
        std::sscanf(busId.c_str(), "usb%d", &bus);
    } else {
        std::sscanf(busId.c_str(), "%d-", &bus);
    }
    return bus;
}

// A double as the float it narrows to; one out of the float's range becomes
// an infinity rather than undefined.
float narrowed(double value)
{
    if (value > std::numeric_limits<float>::max()) {
        return std::numeric_limits<float>::infinity();
    }
    if (value < -std::numeric_limits<float>::max()) {
        return -std::numeric_limits<float>::infinity();
    }
    return static_cast<float>(value);
}

} // namespace

// --- The getters ---------------------------------------------------------------

void USBDeviceFinder::getDeviceClass(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "bDeviceClass");
    if (value == nullptr) {
        return;
    }
    device->classText = *value;
    device->deviceClass = m_linuxUtils->fromHexToInt(*value);
}

void USBDeviceFinder::getDeviceSubClass(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "bDeviceSubClass");
    if (value == nullptr) {
        return;
    }
    device->subClassText = *value;
    device->deviceSubClass = m_linuxUtils->fromHexToInt(*value);
}

void USBDeviceFinder::getDeviceNum(StrMap& attrs, std::string& deviceNum)
{
    const std::string* value = attribute(attrs, "devnum");
    if (value == nullptr) {
        return;
    }
    deviceNum = formatted("%.3d", static_cast<int>(std::strtol(value->c_str(), nullptr, 10)));
}

void USBDeviceFinder::getPID(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "idProduct");
    if (value == nullptr) {
        return;
    }
    device->productIdText = *value;
    if (contains(device->productIdText, "0000")) {
        // The number keeps what it had.
        device->productIdText.clear();
        return;
    }
    device->productId = m_linuxUtils->fromHexToInt(*value);
}

void USBDeviceFinder::getVID(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "idVendor");
    if (value == nullptr) {
        return;
    }
    device->vendorIdText = *value;
    if (contains(device->vendorIdText, "0000")) {
        device->vendorIdText.clear();
        return;
    }
    device->vendorId = m_linuxUtils->fromHexToInt(*value);
}

void USBDeviceFinder::getManufacturer(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "manufacturer");
    if (value == nullptr) {
        return;
    }
    device->manufacturer = *value;
    // Root hubs name the kernel as their maker; that is no maker.
    if (contains(device->manufacturer, "inux")) {
        device->manufacturer.clear();
    }
}

void USBDeviceFinder::getNumOfPorts(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "maxchild");
    if (value == nullptr) {
        return;
    }
    device->numOfPorts = static_cast<int>(std::strtol(value->c_str(), nullptr, 10));
}

void USBDeviceFinder::getUsbSpeed(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "speed");
    if (value == nullptr) {
        return;
    }
    device->usbSpeed = *value;
}

void USBDeviceFinder::getDeviceName(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "product");
    if (value == nullptr) {
        return;
    }
    device->productName = *value;
    if (!device->productName.empty() && device->modelName.empty()) {
        device->modelName = device->productName;
    }
    // Removable disk drives of these two product lines count as end devices
    // from the start.
    if (contains(device->productName, "RDX") || contains(device->productName, "KX7700")) {
        device->endDevice = true;
    }
}

void USBDeviceFinder::getSerialNo(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "serial");
    if (value == nullptr) {
        return;
    }
    device->serialNo = *value;
}

void USBDeviceFinder::getUsbSpec(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "version");
    if (value == nullptr) {
        return;
    }
    // sysfs writes the release behind one blank; one blank is cut, once.
    if (!value->empty() && (*value)[0] == ' ') {
        device->usbSpec = value->substr(1);
    } else {
        device->usbSpec = *value;
    }
}

void USBDeviceFinder::getMaxPower(StrMap& attrs, std::string& power)
{
    const std::string* value = attribute(attrs, "bMaxPower");
    if (value == nullptr || value->empty()) {
        return;
    }
    // The unit behind the number ("mA") stays.
    std::string::size_type first = value->find_first_not_of(' ');
    power = first == std::string::npos ? std::string() : value->substr(first);
}

void USBDeviceFinder::getFrwRev(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "bcdDevice");
    if (value == nullptr) {
        return;
    }
    // 1. The BCD digits read as a decimal number, in hundredths: 0206 is
    //    2.06, and 02a0 stops at the letter and is 0.02.
    float revision = narrowed(std::strtod(value->c_str(), nullptr) / 100.0);
    // 2, 3.
    device->firmwareRev.clear();
    if (revision == 0) {
        return;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", revision);
    device->firmwareRev = text;
}

void USBDeviceFinder::getDevPowerType(StrMap& attrs, Usb_Device* device)
{
    const std::string* value = attribute(attrs, "bmAttributes");
    if (value == nullptr) {
        return;
    }
    std::istringstream stream(*value);
    short attributes = 0;
    stream >> std::hex >> attributes;
    device->selfPowered = (attributes & 0x40) != 0 ? 1 : 0;
}

void USBDeviceFinder::setAddlHWInfo(const std::string& label, const std::string& value, Usb_Device* device)
{
    if (!device->addlHWInfo.empty()) {
        device->addlHWInfo += ", ";
        device->addlHWInfo += label;
    } else {
        device->addlHWInfo = label;
    }
    device->addlHWInfo += value;
}

// --- The extractions -------------------------------------------------------------

bool USBDeviceFinder::parseDevAttr(std::string, StrMap& attrs, Usb_Device* device)
{
    // 1-3. The facts of the device.
    getDeviceClass(attrs, device);
    getDeviceSubClass(attrs, device);
    getDeviceNum(attrs, device->deviceNum);
    getPID(attrs, device);
    getVID(attrs, device);
    getManufacturer(attrs, device);
    getNumOfPorts(attrs, device);
    getUsbSpeed(attrs, device);
    getDeviceName(attrs, device);
    getSerialNo(attrs, device);
    getUsbSpec(attrs, device);
    // 4. The USB release.
    setAddlHWInfo(kUsbReleaseLabel, device->usbSpec, device);
    // 5. The revision, when there is one.
    getFrwRev(attrs, device);
    if (!device->firmwareRev.empty()) {
        setAddlHWInfo("Rev:", device->firmwareRev, device);
    }
    // 6. The power draw.
    std::string power;
    getMaxPower(attrs, power);
    setAddlHWInfo("Power:", power, device);
    // 7. Where the power comes from.
    getDevPowerType(attrs, device);
    device->addlHWInfo += device->selfPowered != 0 ? " Self" : " Bus";
    // 8.
    if (!device->manufacturer.empty() && device->vendorName.empty()) {
        device->vendorName = device->manufacturer;
    }
    return true;
}

void USBDeviceFinder::getOneUSBDeviceInfo(std::string& busId, Usb_Device* device)
{
    // 1. On failure the steps run on an empty map.
    CSysfsReader reader(m_logStream);
    StrMap attrs;
    reader.GetDeviceAttr(busId, BUS_TYPE_USB, attrs);
    // 2.
    getUsbSpec(attrs, device);
    setAddlHWInfo(kUsbReleaseLabel, device->usbSpec, device);
    // 3. The revision's label stands also when the revision is empty.
    getFrwRev(attrs, device);
    setAddlHWInfo("Rev:", device->firmwareRev, device);
    // 4.
    getSerialNo(attrs, device);
    // 5.
    std::string power;
    getMaxPower(attrs, power);
    setAddlHWInfo("Power:", power, device);
    // 6.
    getDevPowerType(attrs, device);
    device->addlHWInfo += device->selfPowered != 0 ? " Self" : " Bus";
}

void USBDeviceFinder::getDeviceDescr(std::string busId, Usb_Device* device)
{
    int bus = busOf(busId);
    device->devicePath.clear();
    device->devicePath = m_mountPath + formatted("%.3d", bus) + "/" + device->deviceNum;
}

void USBDeviceFinder::getDeviceLocation(CSysfsReader* reader, std::string busId, Usb_Device* device,
                                        int& controllerCount)
{
    // 1. Asked with the bus_id where the query expects a sysfs path: it finds
    //    nothing and the three texts stay empty. Callers depend on the
    //    answers that follow from that.
    std::string pciBus;
    std::string pciDevice;
    std::string pciFunction;
    reader->GetPCIDeviceBDF(busId, BUS_TYPE_USB, pciBus, pciDevice, pciFunction);
    // 2. With empty parts, ":.".
    std::string address = pciBus + ":" + pciDevice + "." + pciFunction;
    // 3.
    int bus = 0;
    int deviceNumber = 0;
    int function = 0;
    m_linuxUtils->extractBusDevFn(address, bus, deviceNumber, function);
    // 4. Its result is not needed: index ends at the controller count when
    //    nothing matches.
    int index = 0;
    getPciVectorIndex(controllerCount, address, index);
    // 5.
    device->slotName = m_linuxUtils->getSlotInfo(static_cast<unsigned int>(bus), static_cast<unsigned int>(deviceNumber));
    // 6.
    device->vendorName = m_pciUtil->getDevAttribute(index, PCIUtil::PCI_ATTR_VENDOR);
    device->deviceDescription = m_pciUtil->getDevAttribute(index, PCIUtil::PCI_ATTR_NAME);
}

bool USBDeviceFinder::isUsbDevice(std::string busId)
{
    return contains(busId, "usb") || !contains(busId, ":");
}

} // namespace Ostrand
} // namespace Vantrel

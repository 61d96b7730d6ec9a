#include "finders/RACDeviceFinder.h"

#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"

namespace Vantrel {
namespace Ostrand {

namespace {

// First pass: the controllers of the other-class family.
const unsigned short kOtherClass = 0xFF00;
const int kFamilyVendor = 0x1F3B;
// Second pass: the older controller, seen as another system peripheral.
const unsigned short kPeripheralClass = 0x0880;
const int kOlderVendor = 0x9063;
const int kOlderDevice = 0x101E;

bool containsPciSlot(const std::string& slot) { return slot.find("PCI Slot") != std::string::npos; }

// The product table of the first pass. Names the controller and, for device
// 0x0011, replaces a slot that is no numbered one by "Embedded". False for
// ids that the table does not know.
bool nameFromProductTable(int vendorId, int deviceId, std::string& name, std::string& slot)
{
    if (vendorId != kFamilyVendor) {
        return false;
    }
    switch (deviceId) {
    case 0x0007:
        name = "TLBX3";
        return true;
    case 0x000C:
        name = containsPciSlot(slot) ? "TLBXIII_XT" : "GNW4";
        return true;
    case 0x0011:
        if (!containsPciSlot(slot)) {
            slot = "Embedded";
        }
        name = "TLBX4";
        return true;
    case 0x0010:
        name = "TLBX4";
        return true;
    default:
        return false;
    }
}

// The second pass compares the vendor field with 0x9063 and the device field with 0x101E, in this sense only.
bool isOlderController(int vendorId, int deviceId) { return vendorId == kOlderVendor && deviceId == kOlderDevice; }

// Slot of the selected device at `index`, from the firmware routing table.
std::string slotOf(PCIUtil* pci, LinuxUtils* utils, int index)
{
    int bus = 0;
    int device = 0;
    int function = 0;
    pci->getPCIBusDevFunction(index, bus, device, function);
    unsigned int slotBus = static_cast<unsigned int>(bus);
    unsigned int slotDevice = static_cast<unsigned int>(device);
    return utils->getSlotInfo(slotBus, slotDevice);
}

// Builds the record of the selected device at `index` and appends a copy.
void appendController(PCIUtil* pci, int index, const std::string& name, const std::string& descriptor,
                      const std::string& slot, std::vector<IWbemClassObject>& objects)
{
    std::string location = pci->getDevAttribute(index, PCIUtil::PCI_ATTR_LOCATION);
    // The first part of the location, up to its comma, names the bus.
    std::string parent = "System Board!" + location.substr(0, location.find(','));
    std::string vendor = pci->getDevAttribute(index, PCIUtil::PCI_ATTR_VENDOR);

    IWbemClassObject* record = new IWbemClassObject(name, "", descriptor, name, location, location, parent, "",
                                                    vendor, "", "", "", slot, 0);
    objects.push_back(*record);
    delete record;
}

} // namespace

RACDeviceFinder::RACDeviceFinder() : m_linuxUtils(new LinuxUtils()), m_pciUtil(nullptr) {}

RACDeviceFinder::~RACDeviceFinder()
{
    delete m_linuxUtils;
    m_linuxUtils = nullptr;
}

void RACDeviceFinder::getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects)
{
    objects.clear();
    m_pciUtil = pci;
    // The facade never passes a null inventory; a direct caller that does gets nothing.
    if (pci == nullptr) {
        return;
    }
    // Kept from one device to the next, as each record overwrites them anyway.
    std::string name;
    std::string slot;
    std::string descriptor;

    int n = pci->getNumofDeviceWithClass(kOtherClass);
    for (int i = 0; i < n; ++i) {
        int deviceId = 0;
        int vendorId = 0;
        pci->getDeviceIdVendorId(i, deviceId, vendorId);
        slot = slotOf(pci, m_linuxUtils, i);
        if (!nameFromProductTable(vendorId, deviceId, name, slot)) {
            continue;
        }
        descriptor = "1";
        appendController(pci, i, name, descriptor, slot, objects);
    }

    // The selection of the first pass is gone from here on.
    int m = pci->getNumofDeviceWithClass(kPeripheralClass);
    for (int i = 0; i < m; ++i) {
        int deviceId = 0;
        int vendorId = 0;
        pci->getDeviceIdVendorId(i, deviceId, vendorId);
        if (!isOlderController(vendorId, deviceId)) {
            continue;
        }
        name = "TLBX2";
        descriptor = "";
        slot = slotOf(pci, m_linuxUtils, i);
        appendController(pci, i, name, descriptor, slot, objects);
    }
}

int RACDeviceFinder::getNumberofDevices()
{
    // Before any getAllObjects there is no inventory to ask: no device.
    if (m_pciUtil == nullptr) {
        return 0;
    }
    return m_pciUtil->getNumofDeviceWithClass(kOtherClass);
}

void RACDeviceFinder::getNode(std::string& node, char letter, std::string kind)
{
    // Tested in this order, so a kind holding both "CD" and "Ide" is an IDE node.
    if (kind.find("Ide") != std::string::npos) {
        node = m_linuxUtils->toString("sc", "/dev/hd", letter);
    } else if (kind.find("CD") != std::string::npos) {
        node = m_linuxUtils->toString("sc", "/dev/scd", letter);
    } else if (kind.find("Floppy") != std::string::npos) {
        node = m_linuxUtils->toString("sc", "/dev/sd", letter);
    } else if (kind.find("SR") != std::string::npos) {
        node = m_linuxUtils->toString("sc", "/dev/sr", letter);
    }
}

} // namespace Ostrand
} // namespace Vantrel

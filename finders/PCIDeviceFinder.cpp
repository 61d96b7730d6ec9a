#include "finders/PCIDeviceFinder.h"

#include "probes/PCIUtil.h"

#include <cstdio>

namespace Vantrel {
namespace Ostrand {

namespace {

const size_t kTextSize = 256;

const int kClassScsi = 0x0100;
const int kClassIde = 0x0101;
const int kClassRaid = 0x0104;
const int kClassIsaBridge = 0x0601;
const int kClassPciBridge = 0x0604;
const int kClassUsb = 0x0C03;

// The fibre channel adapters of this vendor are SCSI controllers that this
// finder does not report, nor the bus they sit on.
const int kFibreChannelVendor = 0x1077;

const int kMaxBuses = 255;

// Builds the record on the heap, appends a copy and frees it.
void append(std::vector<IWbemClassObject>& objects, const std::string& name, const std::string& description,
            const std::string& location, const std::string& parentLocation, const std::string& deviceClass)
{
    IWbemClassObject* object = new IWbemClassObject(name, "", "", description, location, location, parentLocation,
                                                    deviceClass, "", "", "", "", "", 0);
    objects.push_back(*object);
    delete object;
}

bool isPassedOver(const pci_device& device)
{
    return (device.vendorId & 0xFFFF) == kFibreChannelVendor && device.classCode == kClassScsi;
}

// The name and class key of a controller record, by PCI class; false for the
// classes that get no controller record.
bool controllerKeys(int classCode, const char*& name, const char*& deviceClass)
{
    switch (classCode) {
    case kClassRaid:
        name = "RAID_BUS_CONTROLLER_NAME";
        deviceClass = "RAID_DEVICE_CONTROLLER";
        return true;
    case kClassScsi:
        name = "SCSI_BUS_CHANNEL_NAME";
        deviceClass = "SCSI_BUS";
        return true;
    case kClassUsb:
        name = "USB_BUS_CONTROLLER_NAME";
        deviceClass = "USB_BUS_CONTROLLER";
        return true;
    case kClassIde:
        name = "IDE_BUS_CONTROLLER_NAME";
        deviceClass = "IDE_BUS_CONTROLLER";
        return true;
    default:
        return false;
    }
}

} // namespace

PCIDeviceFinder::PCIDeviceFinder() : m_numBuses(0), m_objects(nullptr) {}

void PCIDeviceFinder::getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects)
{
    // 1. Whatever the vector held goes; the buses seen before are kept.
    objects.clear();
    m_objects = &objects;

    // 2. A private copy of the whole inventory: the four controllers that the
    //    class queries hide are seen here.
    std::vector<pci_device> devices;
    pci->getAllPCIDevices(devices);

    for (size_t i = 0; i < devices.size(); ++i) {
        const pci_device& device = devices[i];

        // 3. No record and no bus.
        if (isPassedOver(device)) {
            continue;
        }

        // 4. One text per model: that of the first of the model in the inventory.
        std::string description = pci->getDeviceName(device.vendorId, device.deviceId);
        ParseAndRemoveSpecialChars(description);

        // 5. The record of the controller, or the buses of a bridge.
        const char* name = nullptr;
        const char* deviceClass = nullptr;
        if (controllerKeys(device.classCode, name, deviceClass)) {
            char location[kTextSize];
            char parentLocation[kTextSize];
            std::snprintf(location, sizeof location, "PCI Bus %d, Device %d, Function %d", device.bus,
                          device.device, device.function);
            std::snprintf(parentLocation, sizeof parentLocation, "System Board!PCI Bus %d", device.bus);
            append(objects, name, description, location, parentLocation, deviceClass);
        } else if (device.classCode == kClassIsaBridge) {
            // Not de-duplicated: two such bridges give two ISA buses.
            append(objects, "Isa_BUS", description, "ISA Bus", "System Board", "PCI_TO_ISA_BRIDGE");
        } else if (device.classCode == kClassPciBridge) {
            // A bridge gets no record of its own, only its buses.
            checkForDuplicateBusAndAdd(device.primaryBus);
            checkForDuplicateBusAndAdd(device.secondaryBus);
            checkForDuplicateBusAndAdd(device.subordinateBus);
        }

        // 6. The bus the device sits on.
        checkForDuplicateBusAndAdd(device.bus);
    }
    // 7. The private copy goes with the scope.
}

bool PCIDeviceFinder::checkForDuplicateBusAndAdd(int bus)
{
    // 1. A bus that has its record already.
    for (int i = 0; i < m_numBuses; ++i) {
        if (m_busNumbers[i] == bus) {
            return false;
        }
    }

    // 2. The record of the bus. Called before any getAllObjects there is no
    //    vector to append to, and the number is only remembered.
    char name[kTextSize];
    char location[kTextSize];
    std::snprintf(name, sizeof name, "PCI_BUS_%d", bus);
    std::snprintf(location, sizeof location, "PCI Bus %d", bus);
    if (m_objects != nullptr) {
        append(*m_objects, name, "PCI_BUS_DEV_DESC", location, "System Board", "PCI_BUS");
    }

    // 3. Remembered. The list holds 255 numbers; a number met when it is full
    //    gets its record each time but is not remembered (on a real machine,
    //    whose buses are 0 to 255, only the last could be so).
    if (m_numBuses < kMaxBuses) {
        m_busNumbers[m_numBuses] = bus;
        ++m_numBuses;
    }
    return true;
}

void PCIDeviceFinder::ParseAndRemoveSpecialChars(std::string& text)
{
    std::string cleaned;
    for (size_t i = 0; i < text.size(); ++i) {
        switch (text[i]) {
        case '&':
            cleaned += " AND ";
            break;
        case '<':
        case '>':
        case '"':
        case '\'':
        case '\\':
            cleaned += '~';
            break;
        default:
            cleaned += text[i];
            break;
        }
    }
    text = cleaned;
}

} // namespace Ostrand
} // namespace Vantrel

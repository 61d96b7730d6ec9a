// The PCI inventory, read from three lspci passes and queried by class.
#pragma once

#include "frame/Export.h"

#include <string>
#include <vector>

// One PCI function as the inventory knows it.
struct OSTRAND_API pci_device {
    std::string busDevFn;
    std::string className;
    int classCode = 0;
    int bus = 0;
    int device = 0;
    int function = 0;
    int primaryBus = 0;
    int secondaryBus = 0;
    int subordinateBus = 0;
    int vendorId = 0;
    int deviceId = 0;
    int irq = 0;
    int progIf = 0;
    std::string vendorName;
    std::string deviceName;
    std::string ioPortsAddr;
    long revision = 0;
    std::string reservedText;
};

namespace Vantrel {
namespace Ostrand {

class OSTRAND_API PCIUtil {
public:
    enum DeviceAttribute : int {
        PCI_ATTR_NAME = 0,
        PCI_ATTR_LOCATION = 1,
        PCI_ATTR_PARENT_LOCATION = 2,
        PCI_ATTR_VENDOR = 3,
        PCI_ATTR_CLASS = 4,
        PCI_ATTR_NONE = 5,
        PCI_ATTR_IO_PORTS = 6,
        PCI_ATTR_BUS_DEV_FN = 7
    };

    PCIUtil();
    ~PCIUtil();

    int initPciUtil();
    int getNumofDeviceWithClass(unsigned short classCode);
    int getDeviceIdVendorId(int index, int& deviceId, int& vendorId);
    int getPCIBusDevFunction(int index, int& bus, int& device, int& function);
    std::string getDevAttribute(const int& index, const DeviceAttribute& attribute) const;
    int getProgIntface(int index);
    std::string getDeviceName(int vendorId, int deviceId) const;
    void getAllPCIDevices(std::vector<pci_device>& devices);

    void parseN(const std::string& line, pci_device* device);
    void parseM(const std::string& line, pci_device* device);
    void parseBusDetails(const std::string& line, int& primary, int& secondary, int& subordinate);
    int parseIRQ(const std::string& line);
    std::string parseIOPortsAddr(const std::string& line);

private:
    std::vector<pci_device> m_selection;
    std::vector<pci_device> m_allDevices;
};

} // namespace Ostrand
} // namespace Vantrel

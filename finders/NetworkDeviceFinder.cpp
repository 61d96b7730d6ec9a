#include "finders/NetworkDeviceFinder.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"

#include <list>

namespace Vantrel {
namespace Ostrand {

namespace {

const unsigned short kEthernetClass = 0x0200;
const char* const kNetClassDirectory = "/sys/class/net/";

// The eth0 and em1 schemes: any name holding "eth", or else "em", anywhere.
bool hasEthOrEm(const std::string& name)
{
    return name.find("eth") != std::string::npos || name.find("em") != std::string::npos;
}

// The p1p1 scheme: "p" and a digit in front.
bool hasSlotPrefix(const std::string& name)
{
    return name.size() >= 2 && name[0] == 'p' && name[1] >= '0' && name[1] <= '9';
}

// Both rules are asked independently, so a name that meets both is listed twice.
void collectInterfaceName(const std::string& name, std::list<std::string>& names)
{
    if (hasEthOrEm(name)) {
        names.push_back(name);
    }
    if (hasSlotPrefix(name)) {
        names.push_back(name);
    }
}

// Reads the interface directory once. A directory that cannot be opened
// leaves the count at 0, so that the next call tries again.
void scanInterfaceNames(std::list<std::string>& names, long& scanCount)
{
    host::Dir* directory = host::opendir(kNetClassDirectory);
    if (directory == nullptr) {
        return;
    }
    while (struct dirent* entry = host::readdir(directory)) {
        collectInterfaceName(std::string(entry->d_name), names);
    }
    ++scanCount;
    // Plain byte order: eth10 comes before eth2, em before eth before p.
    names.sort();
    host::closedir(directory);
}

} // namespace

NetworkDeviceFinder::NetworkDeviceFinder() : m_linuxUtils(new LinuxUtils()), m_pciUtil(nullptr) {}

NetworkDeviceFinder::~NetworkDeviceFinder()
{
    delete m_linuxUtils;
    m_linuxUtils = nullptr;
}

void NetworkDeviceFinder::getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects)
{
    objects.clear();
    m_pciUtil = pci;
    // The facade never passes a null inventory; a direct caller that does gets nothing.
    if (pci == nullptr) {
        return;
    }
    int count = pci->getNumofDeviceWithClass(kEthernetClass);
    if (count < 1) {
        return;
    }
    for (int index = 0; index < count; ++index) {
        std::string name = pci->getDevAttribute(index, PCIUtil::PCI_ATTR_NAME);
        std::string location = pci->getDevAttribute(index, PCIUtil::PCI_ATTR_LOCATION);
        std::string parent = pci->getDevAttribute(index, PCIUtil::PCI_ATTR_PARENT_LOCATION);
        // One name leaves the process-wide list per adapter, found or not.
        std::string descriptor = getDeviceDescriptor(index, index);
        std::string vendor = pci->getDevAttribute(index, PCIUtil::PCI_ATTR_VENDOR);
        std::string className = pci->getDevAttribute(index, PCIUtil::PCI_ATTR_CLASS);

        int bus = 0;
        int device = 0;
        int function = 0;
        pci->getPCIBusDevFunction(index, bus, device, function);
        unsigned int slotBus = static_cast<unsigned int>(bus);
        unsigned int slotDevice = static_cast<unsigned int>(device);
        std::string slot = m_linuxUtils->getSlotInfo(slotBus, slotDevice);

        IWbemClassObject* record = new IWbemClassObject(name, "", descriptor, name, location, location, parent,
                                                        className, vendor, "", "", "", slot, 0);
        objects.push_back(*record);
        delete record;
    }
}

std::string NetworkDeviceFinder::getDeviceDescriptor(const int&, const int&) const
{
    // Shared by every finder of the process and consumed: the directory is
    // read by the first call only, and each name is handed out once.
    static std::list<std::string> interfaceNames;
    static long scanCount = 0;

    std::string result;
    if (scanCount == 0) {
        scanInterfaceNames(interfaceNames, scanCount);
    }
    if (!interfaceNames.empty()) {
        result = interfaceNames.front();
        interfaceNames.pop_front();
    }
    return result;
}

} // namespace Ostrand
} // namespace Vantrel

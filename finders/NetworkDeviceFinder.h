// Ethernet adapters from the PCI inventory, paired with interface names by order.
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"

#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;

class OSTRAND_API NetworkDeviceFinder : public IDeviceFinder {
public:
    NetworkDeviceFinder();
    virtual ~NetworkDeviceFinder();
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

    // The next interface name of the process-wide list; the integers are ignored.
    std::string getDeviceDescriptor(const int&, const int&) const;

private:
    LinuxUtils* m_linuxUtils;
    PCIUtil* m_pciUtil;
};

} // namespace Ostrand
} // namespace Vantrel

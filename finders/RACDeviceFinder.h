// Remote access controllers, recognised from the product table by PCI class and ids.
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"

#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;

class OSTRAND_API RACDeviceFinder : public IDeviceFinder {
public:
    RACDeviceFinder();
    virtual ~RACDeviceFinder();
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

    // Needs the inventory of an earlier getAllObjects; replaces its selection.
    int getNumberofDevices();
    void getNode(std::string& node, char letter, std::string kind);

private:
    LinuxUtils* m_linuxUtils;
    PCIUtil* m_pciUtil;
};

} // namespace Ostrand
} // namespace Vantrel

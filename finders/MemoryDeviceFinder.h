// Populated memory modules from the SMBIOS Memory Device structures.
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"

#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {

class OSTRAND_API MemoryDeviceFinder : public IDeviceFinder {
public:
    MemoryDeviceFinder();
    virtual ~MemoryDeviceFinder();
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

    int createMemoryDevices();
    void updateMemoryInfo(const std::string& text);

private:
    std::vector<IWbemClassObject>* m_devices;
    int m_deviceCount;
};

} // namespace Ostrand
} // namespace Vantrel

// Records for the PCI buses and the storage, USB and legacy-bus controllers.
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"

#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {

class OSTRAND_API PCIDeviceFinder : public IDeviceFinder {
public:
    PCIDeviceFinder();
    virtual ~PCIDeviceFinder() {}
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

    void ParseAndRemoveSpecialChars(std::string& text);
    bool checkForDuplicateBusAndAdd(int bus);

private:
    int m_busNumbers[255];
    int m_numBuses;
    std::vector<IWbemClassObject>* m_objects;
};

} // namespace Ostrand
} // namespace Vantrel

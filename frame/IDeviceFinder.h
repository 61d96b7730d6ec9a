// The abstract finder: everything that can fill the facade's record vector.
#pragma once

#include "frame/Export.h"
#include "frame/IWbemClassObject.h"

#include <vector>

namespace Vantrel {
namespace Ostrand {

class PCIUtil;

class OSTRAND_API IDeviceFinder {
public:
    virtual ~IDeviceFinder() {}
    // Destroys what `objects` holds, then appends one record per device found.
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects) = 0;
};

} // namespace Ostrand
} // namespace Vantrel

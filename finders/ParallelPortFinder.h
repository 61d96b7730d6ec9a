// The board's parallel ports, as the firmware's port table counts them.
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"

#include <vector>

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;

class OSTRAND_API ParallelPortFinder : public IDeviceFinder {
public:
    ParallelPortFinder();
    virtual ~ParallelPortFinder();
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

private:
    LinuxUtils* m_linuxUtils;
};

} // namespace Ostrand
} // namespace Vantrel

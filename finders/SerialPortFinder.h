// The board's serial ports: the firmware's count, verified against /dev/ttyS*.
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"

#include <vector>

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;

class OSTRAND_API SerialPortFinder : public IDeviceFinder {
public:
    SerialPortFinder();
    virtual ~SerialPortFinder();
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

private:
    LinuxUtils* m_linuxUtils;
};

} // namespace Ostrand
} // namespace Vantrel

// The facade: a lazily built singleton that owns the PCI inventory and the
// records of the latest enumeration.
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"
#include "frame/IWbemClassObject.h"

#include <fstream>
#include <vector>

// The caller's log stream. Stored by setLogFile and handed on; never written to.
extern OSTRAND_API std::ofstream* pLogFile;

namespace Vantrel {
namespace Ostrand {

class PCIUtil;

class OSTRAND_API CWmiInfo {
public:
    static CWmiInfo* getCWMIInfoInstance();
    CWmiInfo();

    IWbemClassObject* getEnumerateDeviceHandle(IDeviceFinder* finder);
    // The two integers are ignored.
    int Next(int, int, IWbemClassObject*& object);
    void freeEnumerateDeviceHandle();
    void setLogFile(std::ofstream& stream);

private:
    IWbemClassObject* m_cursor;
    std::vector<IWbemClassObject> m_objects;
    PCIUtil* m_pciUtil;

public:
    static CWmiInfo* _CWmiInfoInstance;
};

} // namespace Ostrand
} // namespace Vantrel

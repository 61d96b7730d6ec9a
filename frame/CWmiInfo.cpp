#include "frame/CWmiInfo.h"

#include "probes/PCIUtil.h"

std::ofstream* pLogFile = nullptr;

namespace Vantrel {
namespace Ostrand {

CWmiInfo* CWmiInfo::_CWmiInfoInstance = nullptr;

CWmiInfo* CWmiInfo::getCWMIInfoInstance()
{
    if (_CWmiInfoInstance != nullptr) {
        return _CWmiInfoInstance;
    }
    // An exception from the inventory leaves the constructor; new then frees
    // the memory and the singleton stays null, so the next call starts over.
    _CWmiInfoInstance = new CWmiInfo();
    return _CWmiInfoInstance;
}

CWmiInfo::CWmiInfo() : m_cursor(nullptr), m_objects(), m_pciUtil(nullptr)
{
    m_pciUtil = new PCIUtil();
    try {
        m_pciUtil->initPciUtil(); // the result is not looked at
    } catch (...) {
        delete m_pciUtil;
        throw;
    }
}

IWbemClassObject* CWmiInfo::getEnumerateDeviceHandle(IDeviceFinder* finder)
{
    // 1. Destroy the records of the last enumeration; the storage stays.
    if (!m_objects.empty()) {
        m_objects.clear();
    }
    // 2. The finder fills the vector.
    finder->getAllObjects(m_pciUtil, m_objects);
    // 3. The cursor and the handle are the begin of the vector: null only if
    //    the vector never held storage. Emptiness is told by Next.
    m_cursor = m_objects.data();
    return m_cursor;
}

int CWmiInfo::Next(int, int, IWbemClassObject*& object)
{
    if (m_cursor == m_objects.data() + m_objects.size()) {
        object = nullptr;
        return 0;
    }
    object = m_cursor;
    ++m_cursor;
    return 1;
}

void CWmiInfo::freeEnumerateDeviceHandle()
{
    // 1. The inventory.
    if (m_pciUtil != nullptr) {
        delete m_pciUtil;
        m_pciUtil = nullptr;
    }
    // 2. Through the singleton pointer, not through this object.
    CWmiInfo* instance = _CWmiInfoInstance;
    if (instance == nullptr) {
        return;
    }
    // 3. The records, their storage and the instance itself.
    std::vector<IWbemClassObject>().swap(instance->m_objects);
    delete instance;
    _CWmiInfoInstance = nullptr;
}

void CWmiInfo::setLogFile(std::ofstream& stream) { pLogFile = &stream; }

} // namespace Ostrand
} // namespace Vantrel

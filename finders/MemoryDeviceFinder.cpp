#include "finders/MemoryDeviceFinder.h"

#include "platform/smbios/ISmbiosTable.h"
#include "platform/smbios/SmbiosException.h"
#include "platform/smbios/SmbiosFactory.h"
#include "platform/smbios/SmbiosItemAccess.h"

#include <cstdint>
#include <string>

namespace Vantrel {
namespace Ostrand {

namespace {

// SMBIOS Memory Device: the size, the device locator and the bank locator.
const int kMemoryDevice = 17;
const unsigned int kSizeOffset = 12;
const unsigned int kDeviceLocatorOffset = 16;
const unsigned int kBankLocatorOffset = 17;

// Bit 15 of the size gives kilobytes instead of megabytes; the low 15 bits the amount.
const uint16_t kKilobytesBit = 0x8000;
const uint16_t kAmountBits = 0x7FFF;

// A string of the structure, or the empty text if it cannot be read.
std::string stringOrEmpty(const smbios::ISmbiosItem& item, unsigned int offset)
{
    try {
        return smbios::getString_FromItem(item, offset);
    } catch (const smbios::SmbiosException&) {
        return std::string();
    }
}

} // namespace

MemoryDeviceFinder::MemoryDeviceFinder() : m_devices(nullptr), m_deviceCount(0) {}

MemoryDeviceFinder::~MemoryDeviceFinder() {}

void MemoryDeviceFinder::getAllObjects(PCIUtil* /* the inventory is not needed */, std::vector<IWbemClassObject>& objects)
{
    // 1, 2, 3. The module numbers go on from an earlier pass: m_deviceCount is kept.
    objects.clear();
    m_devices = &objects;
    createMemoryDevices();
}

int MemoryDeviceFinder::createMemoryDevices()
{
    // 1. The table and the Memory Device structures. Failures of the table
    //    itself reach the caller.
    smbios::ISmbiosTable* table = smbios::SmbiosFactory::getFactory()->getSingleton();
    // 2. The end is asked for anew on each pass.
    for (smbios::SmbiosTableIterator it = (*table)[kMemoryDevice]; it != table->end(); ++it) {
        const smbios::ISmbiosItem& item = *it;
        // 3.
        std::string deviceLocator;
        std::string bankLocator;
        std::string text;
        // 4. The size; an unreadable or empty slot is passed over.
        uint16_t size = 0;
        try {
            size = smbios::getU16_FromItem(item, kSizeOffset);
        } catch (const smbios::SmbiosException&) {
            continue;
        }
        if (size == 0) {
            continue;
        }
        // 5, 6.
        deviceLocator = stringOrEmpty(item, kDeviceLocatorOffset);
        bankLocator = stringOrEmpty(item, kBankLocatorOffset);
        // 7.
        text = bankLocator.empty() ? deviceLocator : bankLocator + " " + deviceLocator;
        text += " : ";
        // 8. An unknown size (0xFFFF) gives no record.
        if (static_cast<uint16_t>(size - 1) > 0xFFFD) {
            continue;
        }
        // 9. So 0xFFFE reads as 32766 KB.
        int amount = size & kAmountBits;
        text += std::to_string(amount) + ((size & kKilobytesBit) != 0 ? " KB" : " MB");
        // 10.
        updateMemoryInfo(text);
        // 11. The loop moves the iterator on.
    }
    return 1;
}

void MemoryDeviceFinder::updateMemoryInfo(const std::string& text)
{
    // Before getAllObjects there is no vector to append to: no record, no number.
    if (m_devices == nullptr) {
        return;
    }
    std::string name = "Memory Device " + std::to_string(m_deviceCount++);
    IWbemClassObject* record = new IWbemClassObject(name, "DIMMDevice", "", "MEM_DIMM_DEV_DESC", name, name,
                                                    "System Board!Memory", "MEMORY_DIMM", "", "", "", "", text, 0);
    m_devices->push_back(*record);
    delete record;
}

} // namespace Ostrand
} // namespace Vantrel

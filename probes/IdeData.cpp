#include "probes/IdeData.h"

#include <algorithm>

namespace Vantrel {
namespace Ostrand {

std::string identityText(const unsigned char* block, size_t size, size_t offset)
{
    if (block == nullptr || offset >= size) {
        return "";
    }
    const unsigned char* begin = block + offset;
    const unsigned char* end = std::find(begin, block + size, '\0');
    return std::string(reinterpret_cast<const char*>(begin), static_cast<size_t>(end - begin));
}

IdentityReading readIdentity(const unsigned char* block, size_t size)
{
    IdentityReading reading;
    if (block == nullptr) {
        return reading;
    }
    reading.removable = size > 0 && (block[0] & 0x80) != 0;
    reading.serial = identityText(block, size, kIdentitySerialOffset);
    reading.firmware = identityText(block, size, kIdentityFirmwareOffset);
    reading.model = identityText(block, size, kIdentityModelOffset);
    return reading;
}

} // namespace Ostrand
} // namespace Vantrel

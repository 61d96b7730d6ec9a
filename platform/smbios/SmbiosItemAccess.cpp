#include "platform/smbios/SmbiosItemAccess.h"

#include "platform/smbios/SmbiosException.h"

#include <string>

namespace smbios {

namespace {

// The formatted area of the item, after checking that `width` bytes at
// `offset` lie inside it. The sum is done in 64 bits, so a huge offset cannot
// wrap around into the area.
const uint8_t* fieldAt(const ISmbiosItem& item, unsigned int offset, unsigned int width)
{
    if (static_cast<uint64_t>(offset) + width > item.getLength()) {
        throw SmbiosException("offset " + std::to_string(offset) + " is outside the formatted area of " +
                              std::to_string(item.getLength()) + " bytes of a type " +
                              std::to_string(item.getType()) + " structure");
    }
    return item.getFormattedArea() + offset;
}

} // namespace

uint8_t getU8_FromItem(const ISmbiosItem& item, unsigned int offset) { return *fieldAt(item, offset, 1); }

uint16_t getU16_FromItem(const ISmbiosItem& item, unsigned int offset)
{
    const uint8_t* field = fieldAt(item, offset, 2);
    return static_cast<uint16_t>(field[0] | (field[1] << 8));
}

uint32_t getU32_FromItem(const ISmbiosItem& item, unsigned int offset)
{
    const uint8_t* field = fieldAt(item, offset, 4);
    return static_cast<uint32_t>(field[0]) | (static_cast<uint32_t>(field[1]) << 8) |
           (static_cast<uint32_t>(field[2]) << 16) | (static_cast<uint32_t>(field[3]) << 24);
}

const char* getString_FromItem(const ISmbiosItem& item, unsigned int offset)
{
    return item.getStringByNumber(*fieldAt(item, offset, 1));
}

} // namespace smbios

// Reading fields of a structure by their offset in the formatted area, as the
// SMBIOS standard gives them. Offsets count from the structure's first byte
// (its type), so the header fields 0 to 3 can be read too.
#pragma once

#include "frame/Export.h"
#include "platform/smbios/ISmbiosItem.h"

#include <cstdint>

namespace smbios {

// The byte at `offset`. Throws SmbiosException if the byte lies outside the
// formatted area (offset >= length).
OSTRAND_API uint8_t getU8_FromItem(const ISmbiosItem& item, unsigned int offset);

// The little-endian 16 bits at `offset`. Throws SmbiosException unless both
// bytes lie inside the formatted area.
OSTRAND_API uint16_t getU16_FromItem(const ISmbiosItem& item, unsigned int offset);

// The little-endian 32 bits at `offset`. Throws SmbiosException unless all
// four bytes lie inside the formatted area.
OSTRAND_API uint32_t getU32_FromItem(const ISmbiosItem& item, unsigned int offset);

// The text of the string whose number is the byte at `offset`. Throws
// SmbiosException if that byte lies outside the formatted area, if the number
// is 0 (the structure's way of saying "no string"), or if the structure has
// fewer strings than the number. The text lives as long as the table.
OSTRAND_API const char* getString_FromItem(const ISmbiosItem& item, unsigned int offset);

} // namespace smbios

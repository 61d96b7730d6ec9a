// One SMBIOS structure: its formatted area (the four-byte header included)
// and its strings. Items belong to their table and live as long as it does.
#pragma once

#include "frame/Export.h"

#include <cstdint>

namespace smbios {

class OSTRAND_API ISmbiosItem {
public:
    virtual ~ISmbiosItem();

    // The structure type, the byte at offset 0.
    virtual uint8_t getType() const = 0;
    // The handle, the 16 bits at offset 2.
    virtual uint16_t getHandle() const = 0;
    // The length of the formatted area as the structure states it (offset 1);
    // never less than 4.
    virtual unsigned int getLength() const = 0;
    // The formatted area: getLength() bytes, offset 0 is the type.
    virtual const uint8_t* getFormattedArea() const = 0;
    // The number of strings behind the formatted area.
    virtual unsigned int getStringCount() const = 0;
    // String `number`, counted from 1 as structures number them. Throws
    // SmbiosException for 0 and for a number above getStringCount().
    virtual const char* getStringByNumber(unsigned int number) const = 0;
};

} // namespace smbios

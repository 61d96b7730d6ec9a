// The SMBIOS structures of a machine, in table order.
#pragma once

#include "frame/Export.h"
#include "platform/smbios/ISmbiosItem.h"
#include "platform/smbios/SmbiosTableIterator.h"

#include <cstddef>

namespace smbios {

class OSTRAND_API ISmbiosTable {
public:
    virtual ~ISmbiosTable();

    // An iterator on the first structure of `type` that walks only the
    // structures of that type. A type outside 0 to 255 gives the end.
    virtual SmbiosTableIterator operator[](int type) const = 0;
    // An iterator over all structures.
    virtual SmbiosTableIterator begin() const = 0;
    // The end iterator.
    virtual SmbiosTableIterator end() const = 0;

    // The number of whole structures, and the structure at an index below it.
    // getItem throws SmbiosException for any other index.
    virtual size_t getNumberOfItems() const = 0;
    virtual const ISmbiosItem& getItem(size_t index) const = 0;

    // The SMBIOS version that the entry point states (0.0 when the table was
    // made from bytes alone).
    virtual int getMajorVersion() const = 0;
    virtual int getMinorVersion() const = 0;
};

} // namespace smbios

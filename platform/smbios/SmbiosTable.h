// A table parsed from its raw bytes, as the firmware lays it out: structures
// one behind the other, each a formatted area followed by its strings and a
// double zero.
#pragma once

#include "frame/Export.h"
#include "platform/smbios/ISmbiosTable.h"
#include "platform/smbios/SmbiosItem.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace smbios {

class OSTRAND_API SmbiosTable : public ISmbiosTable {
public:
    static const size_t kNoLimit = static_cast<size_t>(-1);

    // Parses a copy of `bytes`. The walk stops at the first of: `structureLimit`
    // structures (the count of a 2.x entry point), the end-of-table structure
    // (type 127, kept as the last item), or a structure that is not whole. A
    // structure is not whole if its length byte is below 4, its formatted area
    // runs past the bytes, or no double zero ends its strings inside them; it
    // and everything behind it are left out, and nothing outside the bytes is
    // ever read.
    SmbiosTable(const std::string& bytes, size_t structureLimit = kNoLimit, int majorVersion = 0,
                int minorVersion = 0);
    ~SmbiosTable() override;
    SmbiosTable(const SmbiosTable&) = delete;
    SmbiosTable& operator=(const SmbiosTable&) = delete;

    SmbiosTableIterator operator[](int type) const override;
    SmbiosTableIterator begin() const override;
    SmbiosTableIterator end() const override;
    size_t getNumberOfItems() const override;
    const ISmbiosItem& getItem(size_t index) const override;
    int getMajorVersion() const override;
    int getMinorVersion() const override;

private:
    void parse(size_t structureLimit);
    // The position of the first of two zero bytes in a row at or after `from`,
    // or the size of the bytes if there is none.
    size_t findDoubleZero(size_t from) const;
    std::vector<const char*> stringsBetween(size_t from, size_t terminator) const;

    std::vector<uint8_t> m_bytes;
    std::vector<SmbiosItem> m_items;
    int m_majorVersion;
    int m_minorVersion;
};

} // namespace smbios

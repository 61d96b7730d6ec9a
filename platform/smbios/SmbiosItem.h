// A structure of a parsed table. It points into the bytes of its table, which
// owns both, so it is valid exactly as long as the table.
#pragma once

#include "platform/smbios/ISmbiosItem.h"

#include <vector>

namespace smbios {

class SmbiosItem : public ISmbiosItem {
public:
    // `area` holds `length` bytes of formatted area; `strings` point at the
    // zero-terminated texts behind it.
    SmbiosItem(const uint8_t* area, unsigned int length, std::vector<const char*> strings);
    ~SmbiosItem() override;

    uint8_t getType() const override;
    uint16_t getHandle() const override;
    unsigned int getLength() const override;
    const uint8_t* getFormattedArea() const override;
    unsigned int getStringCount() const override;
    const char* getStringByNumber(unsigned int number) const override;

private:
    const uint8_t* m_area;
    unsigned int m_length;
    std::vector<const char*> m_strings;
};

} // namespace smbios

#include "platform/smbios/SmbiosItem.h"

#include "platform/smbios/SmbiosException.h"

#include <string>
#include <utility>

namespace smbios {

ISmbiosItem::~ISmbiosItem() {}

SmbiosItem::SmbiosItem(const uint8_t* area, unsigned int length, std::vector<const char*> strings)
    : m_area(area), m_length(length), m_strings(std::move(strings))
{
}

SmbiosItem::~SmbiosItem() {}

uint8_t SmbiosItem::getType() const { return m_area[0]; }

uint16_t SmbiosItem::getHandle() const { return static_cast<uint16_t>(m_area[2] | (m_area[3] << 8)); }

unsigned int SmbiosItem::getLength() const { return m_length; }

const uint8_t* SmbiosItem::getFormattedArea() const { return m_area; }

unsigned int SmbiosItem::getStringCount() const { return static_cast<unsigned int>(m_strings.size()); }

const char* SmbiosItem::getStringByNumber(unsigned int number) const
{
    if (number == 0) {
        throw SmbiosException("string number 0 names no string");
    }
    if (number > m_strings.size()) {
        throw SmbiosException("string number " + std::to_string(number) + " is beyond the structure's " +
                              std::to_string(m_strings.size()) + " strings");
    }
    return m_strings[number - 1];
}

} // namespace smbios

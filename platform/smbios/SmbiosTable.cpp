#include "platform/smbios/SmbiosTable.h"

#include "platform/smbios/SmbiosException.h"

namespace smbios {

namespace {

const size_t kHeaderLength = 4;
const uint8_t kEndOfTable = 127;

} // namespace

ISmbiosTable::~ISmbiosTable() {}

SmbiosTable::SmbiosTable(const std::string& bytes, size_t structureLimit, int majorVersion, int minorVersion)
    : m_bytes(bytes.begin(), bytes.end()), m_majorVersion(majorVersion), m_minorVersion(minorVersion)
{
    parse(structureLimit);
}

SmbiosTable::~SmbiosTable() {}

void SmbiosTable::parse(size_t structureLimit)
{
    const size_t size = m_bytes.size();
    size_t position = 0;
    while (m_items.size() < structureLimit && size - position >= kHeaderLength) {
        // The header: type, length of the formatted area, handle.
        const size_t length = m_bytes[position + 1];
        if (length < kHeaderLength || length > size - position) {
            break;
        }
        // The strings, up to the double zero that ends them.
        const size_t stringsStart = position + length;
        const size_t terminator = findDoubleZero(stringsStart);
        if (terminator == size) {
            break;
        }
        m_items.emplace_back(m_bytes.data() + position, static_cast<unsigned int>(length),
                             stringsBetween(stringsStart, terminator));
        if (m_bytes[position] == kEndOfTable) {
            break;
        }
        position = terminator + 2;
    }
}

size_t SmbiosTable::findDoubleZero(size_t from) const
{
    for (size_t i = from; i + 1 < m_bytes.size(); ++i) {
        if (m_bytes[i] == 0 && m_bytes[i + 1] == 0) {
            return i;
        }
    }
    return m_bytes.size();
}

std::vector<const char*> SmbiosTable::stringsBetween(size_t from, size_t terminator) const
{
    // With no strings the double zero follows the formatted area at once.
    // Otherwise the first zero of the pair ends the last string, and every
    // string ends with a zero at or before it.
    std::vector<const char*> strings;
    if (terminator == from) {
        return strings;
    }
    size_t start = from;
    for (size_t i = from; i <= terminator; ++i) {
        if (m_bytes[i] == 0) {
            strings.push_back(reinterpret_cast<const char*>(m_bytes.data() + start));
            start = i + 1;
        }
    }
    return strings;
}

SmbiosTableIterator SmbiosTable::operator[](int type) const
{
    if (type < 0 || type > 255) {
        return end();
    }
    return SmbiosTableIterator(this, type);
}

SmbiosTableIterator SmbiosTable::begin() const { return SmbiosTableIterator(this, SmbiosTableIteratorBase::kAnyType); }

SmbiosTableIterator SmbiosTable::end() const
{
    return SmbiosTableIterator(this, SmbiosTableIteratorBase::kAnyType, m_items.size());
}

size_t SmbiosTable::getNumberOfItems() const { return m_items.size(); }

const ISmbiosItem& SmbiosTable::getItem(size_t index) const
{
    if (index >= m_items.size()) {
        throw SmbiosException("no structure at index " + std::to_string(index));
    }
    return m_items[index];
}

int SmbiosTable::getMajorVersion() const { return m_majorVersion; }

int SmbiosTable::getMinorVersion() const { return m_minorVersion; }

} // namespace smbios

#include "platform/smbios/SmbiosTableIterator.h"

#include "platform/smbios/ISmbiosTable.h"
#include "platform/smbios/SmbiosException.h"

namespace smbios {

SmbiosTableIteratorBase::SmbiosTableIteratorBase() : m_table(nullptr), m_type(kAnyType), m_index(0) {}

SmbiosTableIteratorBase::SmbiosTableIteratorBase(const ISmbiosTable* table, int type, size_t index)
    : m_table(table), m_type(type), m_index(index)
{
    skipToType();
}

SmbiosTableIteratorBase::~SmbiosTableIteratorBase() {}

bool SmbiosTableIteratorBase::atEnd() const { return m_table == nullptr || m_index >= m_table->getNumberOfItems(); }

bool SmbiosTableIteratorBase::operator==(const SmbiosTableIteratorBase& other) const
{
    if (atEnd() || other.atEnd()) {
        return atEnd() && other.atEnd();
    }
    return m_table == other.m_table && m_index == other.m_index;
}

bool SmbiosTableIteratorBase::operator!=(const SmbiosTableIteratorBase& other) const { return !(*this == other); }

const ISmbiosItem& SmbiosTableIteratorBase::dereference() const
{
    if (atEnd()) {
        throw SmbiosException("dereference of an end iterator");
    }
    return m_table->getItem(m_index);
}

void SmbiosTableIteratorBase::increment()
{
    if (atEnd()) {
        return;
    }
    ++m_index;
    skipToType();
}

void SmbiosTableIteratorBase::skipToType()
{
    if (m_type == kAnyType) {
        return;
    }
    while (!atEnd() && m_table->getItem(m_index).getType() != m_type) {
        ++m_index;
    }
}

SmbiosTableIterator::SmbiosTableIterator() {}

SmbiosTableIterator::SmbiosTableIterator(const ISmbiosTable* table, int type, size_t index)
    : SmbiosTableIteratorBase(table, type, index)
{
}

SmbiosTableIterator::~SmbiosTableIterator() {}

SmbiosTableIterator::reference SmbiosTableIterator::operator*() const { return dereference(); }

SmbiosTableIterator::pointer SmbiosTableIterator::operator->() const { return &dereference(); }

SmbiosTableIterator& SmbiosTableIterator::operator++()
{
    increment();
    return *this;
}

SmbiosTableIterator SmbiosTableIterator::operator++(int)
{
    SmbiosTableIterator before = *this;
    increment();
    return before;
}

} // namespace smbios

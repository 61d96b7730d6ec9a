// Walking the structures of a table, all of them or those of one type, in
// table order.
#pragma once

#include "frame/Export.h"
#include "platform/smbios/ISmbiosItem.h"

#include <cstddef>
#include <iterator>

namespace smbios {

class ISmbiosTable;

class OSTRAND_API SmbiosTableIteratorBase {
public:
    // Any type: the iterator visits every structure.
    static const int kAnyType = -1;

    // An end iterator that belongs to no table.
    SmbiosTableIteratorBase();
    // On the first structure at or after `index` whose type is `type` (or any
    // structure for kAnyType); at the end if there is none.
    SmbiosTableIteratorBase(const ISmbiosTable* table, int type, size_t index = 0);
    ~SmbiosTableIteratorBase();

    // Iterators at the end are all equal, whatever table and type they walk;
    // others are equal when they stand on the same structure of the same table.
    bool operator==(const SmbiosTableIteratorBase& other) const;
    bool operator!=(const SmbiosTableIteratorBase& other) const;

    bool atEnd() const;

protected:
    // The current structure. Throws SmbiosException at the end.
    const ISmbiosItem& dereference() const;
    // On to the next structure of the type; at the end it stays there.
    void increment();

private:
    void skipToType();

    const ISmbiosTable* m_table;
    int m_type;
    size_t m_index;
};

class OSTRAND_API SmbiosTableIterator : public SmbiosTableIteratorBase {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = ISmbiosItem;
    using difference_type = std::ptrdiff_t;
    using pointer = const ISmbiosItem*;
    using reference = const ISmbiosItem&;

    SmbiosTableIterator();
    SmbiosTableIterator(const ISmbiosTable* table, int type, size_t index = 0);
    ~SmbiosTableIterator();

    // The current structure. Throws SmbiosException at the end.
    reference operator*() const;
    pointer operator->() const;
    SmbiosTableIterator& operator++();
    SmbiosTableIterator operator++(int);
};

} // namespace smbios

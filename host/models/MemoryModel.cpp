#include "host/models/MemoryModel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace Vantrel {
namespace Ostrand {
namespace host {

int MemoryModel::open(int) { return 0; }

void MemoryModel::copy(uint64_t offset, size_t count, unsigned char* out) const
{
    if (count == 0) {
        return;
    }
    std::memset(out, 0, count);
    for (const auto& area : m_areas) {
        uint64_t begin = std::max<uint64_t>(area.first, offset);
        uint64_t end = std::min<uint64_t>(area.first + area.second.size(), offset + count);
        if (begin < end) {
            std::memcpy(out + (begin - offset), area.second.data() + (begin - area.first), end - begin);
        }
    }
}

ssize_t MemoryModel::read(FakeMachine&, char* buffer, size_t count, off_t offset)
{
    if (offset < 0) {
        return -EINVAL;
    }
    copy(static_cast<uint64_t>(offset), count, reinterpret_cast<unsigned char*>(buffer));
    return static_cast<ssize_t>(count);
}

bool MemoryModel::map(off_t offset, size_t count, unsigned char* out)
{
    if (offset < 0) {
        return false;
    }
    copy(static_cast<uint64_t>(offset), count, out);
    return true;
}

// One area that holds the whole range is shown in place; a range that runs
// into zeros, or into an area placed above it (whose bytes copy lays over
// it), is copied by map.
const unsigned char* MemoryModel::view(off_t offset, size_t count) const
{
    if (offset < 0) {
        return nullptr;
    }
    const uint64_t begin = static_cast<uint64_t>(offset);
    auto above = m_areas.upper_bound(begin);
    if (above == m_areas.begin() || (above != m_areas.end() && above->first - begin < count)) {
        return nullptr;
    }
    auto area = std::prev(above);
    const uint64_t inside = begin - area->first;
    if (inside > area->second.size() || count > area->second.size() - inside) {
        return nullptr;
    }
    return reinterpret_cast<const unsigned char*>(area->second.data()) + inside;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

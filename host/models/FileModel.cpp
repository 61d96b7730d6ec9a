#include "host/models/FileModel.h"

#include <algorithm>
#include <cstring>

namespace Vantrel {
namespace Ostrand {
namespace host {

int FileModel::open(int) { return 0; }

ssize_t FileModel::read(FakeMachine&, char* buffer, size_t count, off_t offset)
{
    if (count == 0 || offset < 0 || static_cast<size_t>(offset) >= m_bytes.size()) {
        return 0;
    }
    size_t n = std::min(count, m_bytes.size() - static_cast<size_t>(offset));
    std::memcpy(buffer, m_bytes.data() + offset, n);
    return static_cast<ssize_t>(n);
}

bool FileModel::map(off_t offset, size_t count, unsigned char* out)
{
    std::memset(out, 0, count);
    if (offset >= 0 && static_cast<size_t>(offset) < m_bytes.size()) {
        size_t n = std::min(count, m_bytes.size() - static_cast<size_t>(offset));
        std::memcpy(out, m_bytes.data() + offset, n);
    }
    return true;
}

const unsigned char* FileModel::view(off_t offset, size_t count) const
{
    if (offset < 0 || static_cast<size_t>(offset) > m_bytes.size() || count > m_bytes.size() - offset) {
        return nullptr;
    }
    return reinterpret_cast<const unsigned char*>(m_bytes.data()) + offset;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

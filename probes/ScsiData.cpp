#include "probes/ScsiData.h"

#include <algorithm>
#include <cstdint>

namespace Vantrel {
namespace Ostrand {

namespace {

// Text from `offset` up to the first NUL or the end of the buffer, cut to `length`.
std::string textAt(const unsigned char* data, size_t size, size_t offset, size_t length)
{
    if (data == nullptr || offset >= size) {
        return "";
    }
    const unsigned char* begin = data + offset;
    const unsigned char* end = std::find(begin, data + size, '\0');
    std::string text(reinterpret_cast<const char*>(begin), static_cast<size_t>(end - begin));
    return text.substr(0, length);
}

} // namespace

SenseReading readSense(const unsigned char* sense, size_t size, int written)
{
    SenseReading reading;
    if (sense == nullptr || written < 3) {
        return reading;
    }
    size_t reach = std::min(static_cast<size_t>(written), size);
    if (reach < 3) {
        return reading;
    }
    reading.usable = true;
    if ((sense[0] & 0x02) != 0) {
        reading.key = sense[1] & 0x0F;
        reading.code = sense[2];
    } else {
        reading.key = sense[2] & 0x0F;
        reading.code = reach > 12 ? sense[12] : 0;
    }
    return reading;
}

int senseKeyAtByteTwo(const unsigned char* sense, size_t size)
{
    if (sense == nullptr || size < 3) {
        return 0;
    }
    return sense[2] & 0x0F;
}

int capacityBlocks(const unsigned char* data, size_t size)
{
    uint32_t last = 0;
    for (size_t i = 0; i < 4; ++i) {
        last = (last << 8) | (data != nullptr && i < size ? data[i] : 0u);
    }
    return static_cast<int>(last + 1u);
}

InquiryReading readInquiry(const unsigned char* data, size_t size)
{
    InquiryReading reading;
    if (data == nullptr) {
        return reading;
    }
    if (size > 0) {
        reading.peripheralType = data[0] & 0x1F;
    }
    if (size > 1) {
        reading.removable = (data[1] & 0x80) != 0;
    }
    reading.vendor = textAt(data, size, 8, 8);
    reading.product = textAt(data, size, 16, 16);
    reading.revision = textAt(data, size, 32, 4);
    return reading;
}

} // namespace Ostrand
} // namespace Vantrel

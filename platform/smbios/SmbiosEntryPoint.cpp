#include "platform/smbios/SmbiosEntryPoint.h"

#include <cstring>

namespace smbios {

namespace {

uint16_t u16At(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t u32At(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}

bool sumsToZero(const uint8_t* p, size_t length)
{
    unsigned int sum = 0;
    for (size_t i = 0; i < length; ++i) {
        sum += p[i];
    }
    return (sum & 0xFF) == 0;
}

// 2.x: the length is at 5; some firmware of 2.1 states 0x1E for its 0x1F bytes.
const size_t kLength21 = 0x1F;
const size_t kShortLength21 = 0x1E;
// The "_DMI_" part: 15 bytes from 0x10, with a checksum of its own.
const size_t kDmiStart = 0x10;
const size_t kDmiLength = 0x0F;
// 3.x: the length is at 6.
const size_t kLength30 = 0x18;

} // namespace

bool SmbiosEntryPoint::parse21(const uint8_t* bytes, size_t size, SmbiosEntryPoint& out)
{
    if (bytes == nullptr || size < kLength21 || std::memcmp(bytes, "_SM_", 4) != 0) {
        return false;
    }
    const size_t length = bytes[5];
    if (length < kShortLength21 || length > size || !sumsToZero(bytes, length)) {
        return false;
    }
    if (std::memcmp(bytes + kDmiStart, "_DMI_", 5) != 0 || !sumsToZero(bytes + kDmiStart, kDmiLength)) {
        return false;
    }
    out = SmbiosEntryPoint();
    out.majorVersion = bytes[6];
    out.minorVersion = bytes[7];
    out.tableLength = u16At(bytes + 0x16);
    out.tableAddress = u32At(bytes + 0x18);
    out.hasStructureCount = true;
    out.structureCount = u16At(bytes + 0x1C);
    return true;
}

bool SmbiosEntryPoint::parse30(const uint8_t* bytes, size_t size, SmbiosEntryPoint& out)
{
    if (bytes == nullptr || size < kLength30 || std::memcmp(bytes, "_SM3_", 5) != 0) {
        return false;
    }
    const size_t length = bytes[6];
    if (length < kLength30 || length > size || !sumsToZero(bytes, length)) {
        return false;
    }
    out = SmbiosEntryPoint();
    out.majorVersion = bytes[7];
    out.minorVersion = bytes[8];
    out.tableLength = u32At(bytes + 0x0C);
    out.tableAddress = static_cast<uint64_t>(u32At(bytes + 0x10)) | (static_cast<uint64_t>(u32At(bytes + 0x14)) << 32);
    out.hasStructureCount = false;
    return true;
}

bool SmbiosEntryPoint::parse(const uint8_t* bytes, size_t size, SmbiosEntryPoint& out)
{
    return parse30(bytes, size, out) || parse21(bytes, size, out);
}

} // namespace smbios

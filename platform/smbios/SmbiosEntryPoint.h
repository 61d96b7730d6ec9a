// The entry points that tell where the table is: "_SM_" of SMBIOS 2.x (with
// its "_DMI_" part) and "_SM3_" of 3.x.
#pragma once

#include <cstddef>
#include <cstdint>

namespace smbios {

struct SmbiosEntryPoint {
    int majorVersion = 0;
    int minorVersion = 0;
    uint64_t tableAddress = 0;
    // The table's length (2.x) or its maximum size (3.x).
    uint32_t tableLength = 0;
    // The number of structures (2.x); 3.x gives none.
    bool hasStructureCount = false;
    uint16_t structureCount = 0;

    // Reads an entry point from the `size` bytes at `bytes`. False unless the
    // anchor is there, the stated length fits in the bytes and the checksums
    // (both of them for 2.x) add up to zero.
    static bool parse(const uint8_t* bytes, size_t size, SmbiosEntryPoint& out);
    static bool parse21(const uint8_t* bytes, size_t size, SmbiosEntryPoint& out);
    static bool parse30(const uint8_t* bytes, size_t size, SmbiosEntryPoint& out);
};

} // namespace smbios

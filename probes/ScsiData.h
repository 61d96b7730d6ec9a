// Readers of the bytes that SCSI devices answer with: sense data, the READ
// CAPACITY reply and standard INQUIRY data. Pure functions over buffers of a
// stated size; nothing here touches the machine, and nothing reads outside
// the buffer it is given, whatever the device or its driver claims.
#pragma once

#include <cstddef>
#include <string>

namespace Vantrel {
namespace Ostrand {

// Sense data as TEST UNIT READY and READ CAPACITY read them.
struct SenseReading {
    bool usable = false; // at least three bytes were written
    int key = 0;         // sense key
    int code = 0;        // additional sense code
};

// `size` is the buffer's size, `written` what the driver says it wrote
// (sb_len_wr); only the bytes that are both written and in the buffer count.
// Descriptor format (bit 1 of byte 0 set, as 0x72 and 0x73): key in the low
// four bits of byte 1, code in byte 2. Fixed format: key in the low four
// bits of byte 2, code in byte 12 if more than 12 bytes were written, else 0.
SenseReading readSense(const unsigned char* sense, size_t size, int written);

// The sense key at byte 2 (its low four bits), whatever the format; 0 for a
// buffer too short to hold it.
int senseKeyAtByteTwo(const unsigned char* sense, size_t size);

// READ CAPACITY(10): the last logical block address, big-endian in the first
// four bytes, plus one. The block length behind it is not read. Bytes beyond
// `size` read as 0; an address of 0xFFFFFFFF wraps to 0.
int capacityBlocks(const unsigned char* data, size_t size);

// Standard INQUIRY data as the finders read it.
struct InquiryReading {
    int peripheralType = 0; // low five bits of byte 0
    bool removable = false; // RMB, bit 7 of byte 1
    std::string vendor;     // from offset 8, at most 8 characters
    std::string product;    // from offset 16, at most 16 characters
    std::string revision;   // from offset 32, at most 4 characters
};

// Each text runs from its offset to the first NUL (or the end of the buffer)
// and is then cut to its length, so a vendor field without a NUL is not
// followed into the product field. Blanks are kept.
InquiryReading readInquiry(const unsigned char* data, size_t size);

} // namespace Ostrand
} // namespace Vantrel

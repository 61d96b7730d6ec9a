// Reader of the identity block that HDIO_GET_IDENTITY answers with: the
// 512 bytes of the kernel's hd_driveid. A pure function over a buffer of a
// stated size; nothing here touches the machine.
#pragma once

#include <cstddef>
#include <string>

namespace Vantrel {
namespace Ostrand {

// The block's size, and the offsets of what the CD/DVD finder reads in it.
const size_t kIdentitySize = 512;
const size_t kIdentitySerialOffset = 20;
const size_t kIdentityFirmwareOffset = 46;
const size_t kIdentityModelOffset = 54;

// The identity block as the CD/DVD finder reads it.
struct IdentityReading {
    bool removable = false; // bit 7 of the low byte of the configuration word
    std::string serial;     // from offset 20
    std::string firmware;   // from offset 46
    std::string model;      // from offset 54
};

// Each text runs from its offset to the first zero byte of the block, with
// no width limit: a field that fills its width runs on into the fields behind
// it (an eight-character firmware text takes the model with it). The values
// of the records depend on that. A block with no zero byte ends the text at
// its end, never beyond.
IdentityReading readIdentity(const unsigned char* block, size_t size);

// The text from `offset` to the first zero byte or the end of the block.
std::string identityText(const unsigned char* block, size_t size, size_t offset);

} // namespace Ostrand
} // namespace Vantrel

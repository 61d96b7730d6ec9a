// Hexadecimal numbers and PCI slots in tool text, read without building a
// string or a stream for each. LinuxUtils and the PCI inventory read theirs
// here. Internal to the library.
#pragma once

#include <limits>
#include <string_view>

namespace Vantrel {
namespace Ostrand {

// The characters as a stream in hex mode tells them apart.
namespace hex {

inline bool isStreamSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The value of each hexadecimal digit, and -1 for every other character.
struct HexDigits {
    signed char value[256];

    constexpr HexDigits() : value()
    {
        for (int c = 0; c < 256; ++c) {
            value[c] = -1;
        }
        for (int c = '0'; c <= '9'; ++c) {
            value[c] = static_cast<signed char>(c - '0');
        }
        for (int c = 'a'; c <= 'f'; ++c) {
            value[c] = static_cast<signed char>(c - 'a' + 10);
            value[c - 'a' + 'A'] = static_cast<signed char>(c - 'a' + 10);
        }
    }
};
inline constexpr HexDigits kHexDigits;

inline int hexDigit(char c) { return kHexDigits.value[static_cast<unsigned char>(c)]; }

} // namespace hex

// A hexadecimal int read the way a stream in hex mode reads it: leading white
// space, one sign, an optional 0x or 0X, then the digits up to the first
// other character. No digits read as 0; a value outside int stands at the
// nearest end of int. Inline: the numbers it reads are a few digits long,
// and a call would cost as much as reading them.
inline int readHex(std::string_view text)
{
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end && hex::isStreamSpace(*at)) {
        ++at;
    }
    bool negative = false;
    if (at != end && (*at == '-' || *at == '+')) {
        negative = *at == '-';
        ++at;
    }
    if (end - at >= 2 && at[0] == '0' && (at[1] == 'x' || at[1] == 'X')) {
        at += 2;
    }
    // Past 2^32 the value is out of int either way; the digits still count.
    const unsigned long long kBeyond = 1ULL << 32;
    unsigned long long magnitude = 0;
    for (; at != end; ++at) {
        int digit = hex::hexDigit(*at);
        if (digit < 0) {
            break;
        }
        if (magnitude < kBeyond) {
            magnitude = magnitude * 16 + static_cast<unsigned long long>(digit);
        }
    }
    const unsigned long long kLargest = static_cast<unsigned long long>(std::numeric_limits<int>::max());
    if (negative) {
        if (magnitude > kLargest + 1) {
            return std::numeric_limits<int>::min();
        }
        return static_cast<int>(-static_cast<long long>(magnitude));
    }
    if (magnitude > kLargest) {
        return std::numeric_limits<int>::max();
    }
    return static_cast<int>(magnitude);
}

// Bus, device and function of a slot ("00:1f.2", or with a domain
// "0000:00:1f.2"), each read by readHex.
void splitBusDevFn(std::string_view text, int& bus, int& device, int& function);

} // namespace Ostrand
} // namespace Vantrel

// What the fuzz targets share: the rule that only the exceptions a parser is
// allowed to throw are accepted, and anything else is a finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

namespace ostrand_fuzz {

// std::string::substr's std::out_of_range is part of the parsers' contract on
// unexpected tool output; anything else that leaves them is a finding.
template <typename Body>
void allowingOutOfRange(Body body)
{
    try {
        body();
    } catch (const std::out_of_range&) {
    } catch (const std::exception& e) {
        std::fprintf(stderr, "unexpected exception: %s\n", e.what());
        std::abort();
    } catch (...) {
        std::fprintf(stderr, "unexpected exception of unknown type\n");
        std::abort();
    }
}

// Only exceptions of type Allowed (the SMBIOS interface's own, say) may leave.
template <typename Allowed, typename Body>
void allowingOnly(Body body)
{
    try {
        body();
    } catch (const Allowed&) {
    } catch (const std::exception& e) {
        std::fprintf(stderr, "unexpected exception: %s\n", e.what());
        std::abort();
    } catch (...) {
        std::fprintf(stderr, "unexpected exception of unknown type\n");
        std::abort();
    }
}

// A broken promise of the code under test: reported and fatal.
inline void check(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "check failed: %s\n", what);
        std::abort();
    }
}

// No exception is allowed at all.
template <typename Body>
void allowingNothing(Body body)
{
    try {
        body();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "unexpected exception: %s\n", e.what());
        std::abort();
    } catch (...) {
        std::fprintf(stderr, "unexpected exception of unknown type\n");
        std::abort();
    }
}

inline std::string text(const uint8_t* data, size_t size) { return std::string(reinterpret_cast<const char*>(data), size); }

} // namespace ostrand_fuzz

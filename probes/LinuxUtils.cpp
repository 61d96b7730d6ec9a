#include "probes/LinuxUtils.h"

#include "host/Host.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string_view>

const char* c_pNodeStr = nullptr;

int selectNodes(const dirent* entry)
{
    // Nothing to compare against before the first numofDevNodes: keep nothing.
    if (entry == nullptr || c_pNodeStr == nullptr) {
        return 0;
    }
    std::string name(entry->d_name);
    // d_type 10 is a symbolic link.
    return name.find(c_pNodeStr) == 0 && entry->d_type != 10 ? 1 : 0;
}

namespace Vantrel {
namespace Ostrand {

namespace {

const char* const kPortTypeTexts[] = {
    "None",
    "PARALLEL_PORT_DESC0", "PARALLEL_PORT_DESC1", "PARALLEL_PORT_DESC2", "PARALLEL_PORT_DESC3", "PARALLEL_PORT_DESC4",
    "SERIAL_PORT_DESC0", "SERIAL_PORT_DESC1", "SERIAL_PORT_DESC2", "SERIAL_PORT_DESC3",
    "",
};
const int kPortTypeCount = sizeof kPortTypeTexts / sizeof kPortTypeTexts[0];

bool isStreamSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// A hexadecimal int read the way a stream in hex mode reads it, without
// building one: leading white space, one sign, an optional 0x or 0X, then
// the digits up to the first other character. No digits read as 0; a value
// outside int stands at the nearest end of int.
int readHex(std::string_view text)
{
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end && isStreamSpace(*at)) {
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
        int digit = hexDigit(*at);
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

} // namespace

// No port has been counted yet: 10, whose description is the empty text.
LinuxUtils::LinuxUtils() : m_portType(10) {}

LinuxUtils::~LinuxUtils() {}

std::string LinuxUtils::toString(const char* format, ...)
{
    std::string text;
    if (format == nullptr) {
        return text;
    }
    va_list arguments;
    va_start(arguments, format);
    for (const char* letter = format; *letter != '\0'; ++letter) {
        switch (*letter) {
        case 'd': {
            std::ostringstream number;
            number << va_arg(arguments, int);
            text += number.str();
            break;
        }
        case 's': {
            const char* part = va_arg(arguments, const char*);
            if (part != nullptr) { // a null text adds nothing
                text += part;
            }
            break;
        }
        case 'c':
            text += static_cast<char>(va_arg(arguments, int));
            break;
        default:
            break; // other letters take no argument and add nothing
        }
    }
    va_end(arguments);
    return text;
}

void LinuxUtils::extractBusDevFn(const std::string& text, int& bus, int& device, int& function) const
{
    // 1, 2. Without the domain, if there is one. A search that finds nothing
    //       gives npos, so a text without a colon or a point is taken whole.
    //       The two beginnings up to the first and the last colon are one
    //       text exactly when they are equally long. The parts are views
    //       of the text, not copies: no start below lies behind its end.
    size_t first = text.find(':');
    size_t last = text.rfind(':');
    std::string_view working(text);
    if (std::min(first, text.size()) != std::min(last, text.size())) {
        working = working.substr(first + 1, last);
    }
    // 3. The bus, up to the first colon.
    size_t colon = working.find(':');
    bus = readHex(working.substr(0, colon));
    // 4. The device, behind that colon up to the first point.
    size_t point = working.find('.');
    device = readHex(working.substr(colon + 1, point - (colon + 1)));
    // 5. The function, behind the last point.
    size_t lastPoint = working.rfind('.');
    function = readHex(working.substr(lastPoint + 1));
}

int LinuxUtils::fromHexToInt(const std::string& text) { return readHex(text); }

int LinuxUtils::numofDevNodes(char* prefix, dirent*** list)
{
    if (prefix == nullptr) {
        return -1;
    }
    c_pNodeStr = prefix;
    errno = 0;
    int count = host::scandir("/dev/", list, selectNodes, alphasort);
    if (count >= 0 && errno == 0) {
        return count;
    }
    // A count with errno set is reported as -1; the list the caller will not
    // free is released here.
    if (count >= 0) {
        for (int i = 0; i < count; ++i) {
            std::free((*list)[i]);
        }
        std::free(*list);
        *list = nullptr;
    }
    return -1;
}

std::string LinuxUtils::getPortType(int index)
{
    // The table has the indices 0 to 10; any other index gives the empty text.
    if (index < 0 || index >= kPortTypeCount) {
        return "";
    }
    return kPortTypeTexts[index];
}

} // namespace Ostrand
} // namespace Vantrel

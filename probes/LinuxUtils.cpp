#include "probes/LinuxUtils.h"

#include "host/Host.h"
#include "probes/HexText.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sstream>

const char* c_pNodeStr = nullptr;

int selectNodes(const dirent* entry)
{
    // Nothing to compare against before the first numofDevNodes: keep nothing.
    if (entry == nullptr || c_pNodeStr == nullptr) {
        return 0;
    }
    // The name begins with the prefix (find gives 0 exactly then), read in
    // place; d_type 10 is a symbolic link.
    const bool begins = std::strncmp(entry->d_name, c_pNodeStr, std::strlen(c_pNodeStr)) == 0;
    return begins && entry->d_type != 10 ? 1 : 0;
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
    splitBusDevFn(text, bus, device, function);
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

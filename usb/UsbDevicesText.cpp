// The port table's text route: command lines and the reading of their lines.
#include "usb/UsbDevicesText.h"

#include <cstdio>
#include <cstdlib>

namespace Vantrel {
namespace Ostrand {

const char kUsbDevicesFile[] = "/proc/bus/usb/devices";

namespace {

// The lines end in a line feed; it is overwritten, whatever the last
// character is. The text then ends at the first terminator.
std::string withoutLastCharacter(const std::string& line)
{
    if (line.empty()) {
        return line;
    }
    std::string cut = line.substr(0, line.size() - 1);
    return cut.substr(0, cut.find('\0'));
}

// grep "PATTERN" /proc/bus/usb/devices
std::string grepCommand(const std::string& pattern)
{
    return "grep \"" + pattern + "\" " + kUsbDevicesFile;
}

// The dots take the two digits of Lev and the blank behind them.
std::string topologyPattern(const std::string& busText, const std::string& parentText)
{
    return "T:  Bus=" + busText + " Lev=...Prnt=" + parentText;
}

} // namespace

std::string hubLineCommand(const std::string& busText, const std::string& deviceText)
{
    int device = static_cast<int>(std::strtol(deviceText.c_str(), nullptr, 10));
    if (device == 1) {
        return grepCommand(topologyPattern(busText, "00")) + " 2>&1";
    }
    char number[32];
    std::snprintf(number, sizeof number, "%d", device);
    return grepCommand(topologyPattern(busText, "...")) + "|grep \"Dev#=  " + number + "\" 2>&1";
}

std::string portLineCommand(const std::string& busText, const std::string& deviceText, int port)
{
    char index[32];
    std::snprintf(index, sizeof index, "%02d", port);
    return grepCommand(topologyPattern(busText, deviceText) + " Port=" + index) + " 2>&1";
}

int portCountOfLine(std::string line)
{
    std::string text = withoutLastCharacter(line);
    // Not found, the position wraps round to the fifth character.
    std::string::size_type start = text.find("MxCh= ") + 5;
    return static_cast<int>(std::strtol(text.substr(start).c_str(), nullptr, 10));
}

int deviceNumberOfLine(std::string line)
{
    std::string text = withoutLastCharacter(line);
    std::string::size_type start = text.find("Dev#=") + 5;
    return static_cast<int>(std::strtol(text.substr(start, 3).c_str(), nullptr, 10));
}

} // namespace Ostrand
} // namespace Vantrel

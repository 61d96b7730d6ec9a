// UsbIoctls: the shell tools that walk sysfs paths, and the key, length and
// value text form.
#include "usb/UsbIoctls.h"

#include "host/Host.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Vantrel {
namespace Ostrand {

namespace {

// Runs the command and leaves the last line it printed in `output`, with its
// last character cut off, whatever that character is (a line longer than
// the buffer arrives in pieces, and each piece loses one). When nothing is
// printed, `output` keeps what it held. A shell's complaint, such as
// "command not found", is a line like any other.
bool lastLineOf(const std::string& command, std::string& output)
{
    FILE* stream = host::popen(command.c_str(), "r");
    if (stream == nullptr) {
        return false;
    }
    char buffer[256];
    std::memset(buffer, 0, sizeof buffer);
    while (std::fgets(buffer, sizeof buffer, stream) != nullptr) {
        size_t length = std::strlen(buffer);
        // A line that begins with a NUL byte has no last character to cut.
        if (length > 0) {
            buffer[length - 1] = '\0';
        }
        output = buffer;
    }
    host::pclose(stream);
    return true;
}

} // namespace

bool UsbIoctls::getFindCmdOutput(std::string directory, std::string name, std::string& output)
{
    errno = 0;
    return lastLineOf("find " + directory + " -name " + name, output);
}

bool UsbIoctls::getDirnameCmdOutput(const std::string& path, std::string& output)
{
    return lastLineOf("dirname " + path, output);
}

bool UsbIoctls::getBasenameCmdOutput(const std::string& path, std::string& output)
{
    return lastLineOf("basename " + path, output);
}

bool UsbIoctls::getCatCmdOutput(const std::string& path, std::string& output)
{
    // The file goes to the null device, so the stream stays empty and only
    // the start of the command is reported; callers receive back what they
    // passed in.
    return lastLineOf("cat " + path + " > /dev/null 2>&1", output);
}

bool UsbIoctls::getAttribute(std::string source, std::string key, std::string& output, int&)
{
    // 1. The key, and the first "|" at or behind it. A key that is missing is
    //    not tested for: the positions are used as they come.
    size_t keyAt = source.find(key);
    size_t barAt = source.find('|', keyAt);
    // 2. The decimal length between the end of the key and the "|".
    size_t numberAt = keyAt + key.size();
    std::string number = source.substr(numberAt, barAt - numberAt);
    long count = std::strtol(number.c_str(), nullptr, 10);
    // 3. That many characters behind the "|".
    output.clear();
    output = source.substr(barAt + 1, static_cast<size_t>(count));
    return true;
}

} // namespace Ostrand
} // namespace Vantrel

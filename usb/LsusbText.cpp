#include "usb/LsusbText.h"

#include "usb/lsusbParser.h"

#include <cstdio>
#include <cstring>

namespace Vantrel {
namespace Ostrand {

namespace {

bool contains(const char* line, const char* word) { return std::strstr(line, word) != nullptr; }

// A device line of "lsusb -v"; a power line that happens to hold "Bus 0" is none.
bool beginsDevice(const char* line) { return contains(line, "Bus 0") && !contains(line, "(Bus Powered"); }

} // namespace

bool readToolLine(FILE* stream, char* buffer)
{
    // Without the stream's lock: a tool's stream is read by one caller, on
    // one thread, and the lock taken for every line buys nothing.
    while (fgets_unlocked(buffer, static_cast<int>(kLsusbLineSize), stream) != nullptr) {
        size_t length = std::strlen(buffer);
        if (length == 1) {
            continue;
        }
        // The newline goes, or the last character of a piece of a long line.
        // A line that begins with a zero byte has no last character to cut.
        if (length > 0) {
            buffer[length - 1] = '\0';
        }
        return true;
    }
    return false;
}

LsusbDeviceCollector::LsusbDeviceCollector(lsusbParser& parser, UsbMap& devices)
    : m_parser(parser), m_devices(devices), m_current(nullptr)
{
    m_line.reserve(kLsusbLineSize);
}

void LsusbDeviceCollector::takeLine(char* line)
{
    // 6. The tool is missing: the shell's own line goes up to the caller.
    if (contains(line, "command not found")) {
        throw line;
    }
    // 7. A new device: the one in hand goes into the map.
    if (beginsDevice(line)) {
        storeCurrent();
        m_current = new Usb_Device;
    }
    // 8. Every line, the device line included.
    m_line.assign(line);
    m_parser.parseBuffer(m_line, m_current);
}

void LsusbDeviceCollector::finish() { storeCurrent(); }

// The map keeps what it already holds under the same path; the copy is then
// dropped without a word.
void LsusbDeviceCollector::storeCurrent()
{
    if (m_current == nullptr) {
        return;
    }
    // Copied once, straight into the map, and only when the path is new.
    m_devices.try_emplace(m_current->devicePath, *m_current);
    delete m_current;
    m_current = nullptr;
}

} // namespace Ostrand
} // namespace Vantrel

// The lsusb parser's handling of tool text, apart from the runs of the tools:
// how a line is read from a stream, and how the lines of "lsusb -v" are
// gathered into one record per device. Internal to the library.
#pragma once

#include "usb/Usb_Device.h"

#include <cstddef>
#include <cstdio>
#include <string>

namespace Vantrel {
namespace Ostrand {

class lsusbParser;

// The size of the line buffer that every read of tool text uses.
const size_t kLsusbLineSize = 256;

// The label in front of the USB release in addlHWInfo, as the framework shows it.
extern const char kUsbReleaseLabel[];

// fgets into buffer (kLsusbLineSize bytes), passing over lines of one
// character, and cuts the last character of the line it gives, whatever it
// is. A line of 255 characters or more comes in pieces, each one a line.
// False at the end of the stream.
bool readToolLine(FILE* stream, char* buffer);

// Gathers the lines of one "lsusb -v" text into records: a device line
// stores the record before it and begins a new one, and every line is applied
// to the record in hand.
class LsusbDeviceCollector {
public:
    LsusbDeviceCollector(lsusbParser& parser, UsbMap& devices);

    // One line as readToolLine gives it. A line of the shell that says
    // "command not found" is thrown as it stands (char*); the record in hand
    // is then left as it is, and nobody releases it.
    void takeLine(char* line);
    // The end of the text: the record in hand is stored.
    void finish();
    // The record in hand, or null before the first device line.
    Usb_Device* current() const { return m_current; }

private:
    void storeCurrent();

    lsusbParser& m_parser;
    UsbMap& m_devices;
    Usb_Device* m_current;
    // The line as the parser takes it; its room is kept from line to line.
    std::string m_line;
};

} // namespace Ostrand
} // namespace Vantrel

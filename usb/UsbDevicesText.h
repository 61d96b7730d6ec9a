// The port table of a hub as the text of /proc/bus/usb/devices gives it:
// the grep command lines that find a hub's topology line and those of the
// devices on its ports, and the two numbers read back from such a line.
// Pure text; internal to the library.
#pragma once

#include <string>

namespace Vantrel {
namespace Ostrand {

// The file the text route reads.
extern const char kUsbDevicesFile[];

// The grep command line that finds the topology line of the hub with this
// bus and device text (two digits each). Device 1 is a root hub, whose
// parent is 00; any other is found among the devices of any parent by
// "Dev#=  N", which only matches a one-digit number.
std::string hubLineCommand(const std::string& busText, const std::string& deviceText);
// The grep command line that finds the device on port index `port` (from
// 0) of the hub with this bus and device text.
std::string portLineCommand(const std::string& busText, const std::string& deviceText, int port);

// The port count of a topology line as fgets gave it: its last character is
// overwritten, then what stands five characters behind "MxCh= " is read in
// base 10. A line without the key is read from its fifth character, which
// gives 0; a line shorter than that throws std::out_of_range.
int portCountOfLine(std::string line);
// The device number of a topology line: the three characters behind
// "Dev#=", base 10, after the last character is overwritten. A line without
// the key is read from its fifth character; a shorter one throws
// std::out_of_range.
int deviceNumberOfLine(std::string line);

} // namespace Ostrand
} // namespace Vantrel

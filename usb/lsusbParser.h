// USB facts from the text of the lsusb tool: one "lsusb -v" run gives the
// whole tree as Usb_Device records, a filtered "lsusb -D" run gives single
// facts of one node. No ioctl, no sysfs. The library itself never calls it;
// the framework does.
#pragma once

#include "frame/Export.h"
#include "usb/Usb_Device.h"

#include <fstream>
#include <string>

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;

class OSTRAND_API lsusbParser {
public:
    // The stream is kept when it is not null, and never written to.
    lsusbParser(std::ofstream* log);
    ~lsusbParser();

    // Settles the root of the USB file system, then reads "lsusb -v 2>&1"
    // into the map, one record per device line; an entry already in the map
    // under the same path stays. False when a tool could not be started.
    // Throws char*: "usbdevfs not mounted, cannot enumerate!" when no mount
    // line names usbdevfs or usbfs, or the shell's line when lsusb is missing.
    bool getlsusbOutput(UsbMap& devices);
    // Runs "lsusb -D" on the node of devicePath, filtered by grep on key, and
    // applies each line to the record. True when any line came.
    bool getInfoforOneUsbDev(std::string const& devicePath, std::string const& key, Usb_Device* device);
    // Applies one line of lsusb's text to the record.
    void parseBuffer(std::string const& line, Usb_Device* device);
    // Looks for the control characters 1 to 30 (but tab, newline and carriage
    // return) in rising order of code; the first code present gives its index.
    bool isContrlChar(std::string const& line, int& position);
    // Index of the first digit at or behind start, or -1.
    int getFirstDigit(char const* text, int start);
    // Index of the first letter or digit at or behind start, or -1.
    int getFirstAlphaNumChar(char const* text, int start);

private:
    lsusbParser(const lsusbParser&);
    lsusbParser& operator=(const lsusbParser&);

    std::ofstream* m_logStream;
    LinuxUtils* m_linuxUtils;
    std::string m_usbRoot;
};

} // namespace Ostrand
} // namespace Vantrel

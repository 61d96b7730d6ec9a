// Where a USB CD/DVD or floppy drive sits, as both storage finders give it:
// a running number on a 2.4 kernel, the USB tree on 2.6, nothing later.
// Internal to the library.
#pragma once

#include <cstddef>
#include <string>

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;

// The texts that a USB drive's location fills in.
struct UsbDriveTexts {
    std::string& location;
    std::string& parentLocation;
    std::string& serial;
    std::string& additionalInfo;
    std::string& resourceTag;
};

// `numberedName` is the 2.4 location's text in front of the running number
// ("USB Bus, CD-DVD "); `tagLength` how much of the parent location, from
// its 24th character, the tag keeps. fd is the drive's sg descriptor; on a
// 2.6 kernel the lookup closes it when it finds the drive.
bool usbDriveLocation(LinuxUtils& utils, const char* numberedName, size_t tagLength, int usbNumber, int fd,
                      UsbDriveTexts texts);

} // namespace Ostrand
} // namespace Vantrel

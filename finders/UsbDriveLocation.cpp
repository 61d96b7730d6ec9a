#include "finders/UsbDriveLocation.h"

#include "frame/CWmiInfo.h"
#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "usb/USBDeviceFinder.h"
#include "usb/Usb_Device.h"

#include <cstring>
#include <memory>
#include <sys/utsname.h>

namespace Vantrel {
namespace Ostrand {

namespace {

// The tag starts at the 24th character of the parent location.
const size_t kTagStart = 23;

} // namespace

bool usbDriveLocation(LinuxUtils& utils, const char* numberedName, size_t tagLength, int usbNumber, int fd,
                      UsbDriveTexts texts)
{
    // 1.
    struct utsname name;
    std::memset(&name, 0, sizeof name);
    host::uname(&name);

    // 2. A 2.4 kernel: a numbered drive on the USB bus, no serial.
    if (std::strncmp(name.release, "2.4", 3) == 0) {
        texts.location = utils.toString("sd", numberedName, usbNumber);
        texts.parentLocation = "System Board!USB Bus";
        return true;
    }

    // 3. On a 3.x kernel and later a USB drive has no location at all.
    if (std::strncmp(name.release, "2.6", 3) != 0) {
        return false;
    }

    // 4. The USB tree, from the sg descriptor.
    USBDeviceFinder finder(pLogFile);
    Usb_Device* device = nullptr;
    finder.getMyUSBInformation(&device, fd);

    // 5. Not found: the board as the parent, and the record all the same.
    if (device == nullptr) {
        texts.parentLocation = "";
        texts.parentLocation = "System Board";
        return false;
    }

    // The record is ours and nothing reads it after this call: released
    // here, also when the cut below throws.
    std::unique_ptr<Usb_Device> record(device);

    // 6. The tag is cut at a fixed place, whatever the length of the bus
    //    number; a parent location shorter than that throws std::out_of_range.
    texts.location = record->location;
    texts.parentLocation = record->parentLocation;
    texts.additionalInfo += ", " + record->addlHWInfo;
    texts.serial = record->serialNo;
    texts.resourceTag = texts.parentLocation.substr(kTagStart, tagLength);
    return true;
}

} // namespace Ostrand
} // namespace Vantrel

// USBDeviceFinder: where a USB storage device sits. The storage finders hand
// over an open sg descriptor; the SCSI host number leads to the host's folder
// in sysfs, whose path names the USB ports on the way and the PCI address of
// the controller.
#include "usb/USBDeviceFinder.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "probes/SCSIGeneric.h"
#include "usb/UsbIoctls.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <scsi/sg.h>
#include <string>

namespace Vantrel {
namespace Ostrand {

namespace {

// Only this PCI root is searched for the SCSI host.
const char* const kPciRoot = "/sys/devices/pci0000:00/";

// The text of a number in three digits with leading zeros.
std::string threeDigits(long number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%03d", static_cast<int>(number));
    return text;
}

// The last path component of a path that ends in "/", without that "/".
std::string lastComponent(const std::string& path)
{
    std::string bare = path.substr(0, path.size() - 1);
    return bare.substr(bare.rfind('/') + 1);
}

// Step 11: each device number read for the record gives a diagnostic text,
// which nobody reads.
void devnumDiagnostic(LinuxUtils& utils, const std::string& devnumText)
{
    std::string diagnostic = "[MyDevNum:" + utils.toString("dc", static_cast<int>(devnumText.size()), '|') + devnumText;
    (void)diagnostic;
}

// Step 10: the chain of ports behind the root hub ("4.2.3"), one hub a
// level. Appends to walkText; gives the device number of the last port, or
// deviceNumber unchanged when the last port has two digits.
long walkHubChain(UsbIoctls& tools, LinuxUtils& utils, const std::string& interfacePath, const std::string& rootHub,
                  const std::string& ports, std::string& walkText, std::string& devnumText, long deviceNumber)
{
    std::string usbPath = interfacePath.substr(0, interfacePath.find("usb") + 3) + rootHub + "/";
    std::string prefix;
    size_t start = 0;
    int level = 0;
    while (true) {
        size_t dot = ports.find('.', start);
        if (dot == std::string::npos) {
            break;
        }
        std::string port = ports.substr(start, dot - start);
        if (level == 0) {
            usbPath += rootHub + "-" + port;
            prefix += port + ".";
        } else {
            usbPath += rootHub + "-";
            prefix += port;
            usbPath += prefix;
            prefix += ".";
        }
        usbPath += "/";
        // The hub's own number; as getCatCmdOutput hands back what it was
        // given, no hub enters the walk's text.
        tools.getCatCmdOutput(usbPath + "/devnum", devnumText);
        if (devnumText.size() == 1) {
            walkText += "Port " + port + ", Device 00" + devnumText + ", ";
        } else if (devnumText.size() == 2) {
            walkText += "Port " + port + ", Device 0" + devnumText + ", ";
        }
        start = dot + 1;
        // Exactly one character left: the last port. A last port of two
        // digits never meets this test and ends the walk with no "Port".
        if (dot + 2 == ports.size()) {
            std::string lastPort = ports.substr(start);
            usbPath += lastComponent(usbPath) + "." + lastPort + "/";
            walkText += "Port " + lastPort;
            tools.getCatCmdOutput(usbPath + "/devnum", devnumText);
            deviceNumber = std::strtol(devnumText.c_str(), nullptr, 10);
            devnumDiagnostic(utils, devnumText);
        }
        ++level;
    }
    return deviceNumber;
}

} // namespace

bool USBDeviceFinder::getMyUSBInformation(Usb_Device** device, const int& fd)
{
    // 1. A full SCSIGeneric of our own: this reopens the semaphore and sets
    //    it to 1, and on a 2.6 kernel runs modprobe again, even while the
    //    calling finder holds the semaphore.
    m_scsiGeneric = new SCSIGeneric();

    // 2. The SCSI address behind the descriptor.
    sg_scsi_id scsiId;
    std::memset(&scsiId, 0, sizeof scsiId);
    if (m_scsiGeneric->scsiGenericIoctl(fd, SG_GET_SCSI_ID, 0, &scsiId, 0) < 0) {
        // Released here, which no caller can tell; fd stays open.
        delete m_scsiGeneric;
        m_scsiGeneric = nullptr;
        return false;
    }

    try {
        // 3. The host's name, as sysfs names its folder.
        std::string hostName = m_linuxUtils->toString("sd", "host", scsiId.host_no);

        // 4. Its folder below the one PCI root.
        std::string hostPath;
        m_usbIoctls->getFindCmdOutput(kPciRoot, hostName, hostPath);

        // 5. The USB interface folder above it, and its name (1-4.2:1.0).
        std::string interfacePath;
        m_usbIoctls->getDirnameCmdOutput(hostPath, interfacePath);
        std::string interfaceName;
        m_usbIoctls->getBasenameCmdOutput(interfacePath, interfaceName);

        // 6. The root hub: the text before the "-".
        size_t dash = interfaceName.find('-');
        std::string rootHub = interfaceName.substr(0, dash);

        // 7. The walk's text starts with the bus and its root hub.
        std::string walkText = "USB " + rootHub + ", Root Hub " + rootHub + ", ";

        // 8. The chain of ports, between the "-" and the ":".
        size_t colon = interfaceName.find(':', dash + 1);
        std::string ports = interfaceName.substr(dash + 1, colon - dash - 1);

        // Left unset by a last port of two digits; 0 then, and unseen, since
        // no location is written in that case.
        long deviceNumber = 0;
        std::string devnumText;
        if (ports.find('.') == std::string::npos) {
            // 9. A port of the root hub.
            walkText += "Port " + ports;
            std::string devnumPath;
            m_usbIoctls->getDirnameCmdOutput(interfacePath, devnumPath);
            devnumPath += "/devnum";
            m_usbIoctls->getCatCmdOutput(devnumPath, devnumText);
            deviceNumber = std::strtol(devnumText.c_str(), nullptr, 10);
            devnumDiagnostic(*m_linuxUtils, devnumText);
        } else {
            // 10. Through the hubs, one port of the chain at a time.
            deviceNumber = walkHubChain(*m_usbIoctls, *m_linuxUtils, interfacePath, rootHub, ports, walkText,
                                        devnumText, deviceNumber);
        }

        // 12. The controller's PCI address, from the folder above "usbN":
        //     ".../0000:00:1d.7/usb1/..." gives 00:1d.7. An interface path
        //     without "usb" (the host was not found) puts the start past the
        //     end of the text, and substr throws.
        size_t usb = interfacePath.find("usb");
        size_t slash = interfacePath.rfind('/', usb - 2);
        std::string address = interfacePath.substr(slash + 6, usb - 1 - (slash + 6));
        int bus = 0;
        int deviceNo = 0;
        int function = 0;
        m_linuxUtils->extractBusDevFn(address, bus, deviceNo, function);

        // 13. The record, the caller's.
        *device = new Usb_Device();

        // 14. The controller as the parent.
        (*device)->parentLocation =
            "System Board!PCI Bus " +
            m_linuxUtils->toString("dsdsdsd", bus, "!PCI Bus ", bus, ", Device ", deviceNo, ", Function ", function);

        // 15. The usbfs folder of the bus, composed and not used further.
        std::string busFolder = "/proc/bus/usb/" + threeDigits(std::strtol(rootHub.c_str(), nullptr, 10)) + "/";
        (void)busFolder;

        // 16. The device number in three digits.
        std::string deviceText = threeDigits(deviceNumber);

        // 17. The device's own facts from its sysfs attributes.
        std::string busId = interfaceName.substr(0, interfaceName.find(':'));
        getOneUSBDeviceInfo(busId, *device);

        // 18. The two locations from the walk's text.
        getLocationInfo(walkText, deviceText, (*device)->location, (*device)->parentLocation);
    } catch (...) {
        // The sg object is of no further use; the exception goes on to the
        // caller as it came, with fd open.
        delete m_scsiGeneric;
        m_scsiGeneric = nullptr;
        throw;
    }

    // 19. Done with the sg object and with the caller's descriptor.
    delete m_scsiGeneric;
    m_scsiGeneric = nullptr;
    host::close(fd);
    return true;
}

void USBDeviceFinder::getLocationInfo(const std::string& text, const std::string& deviceNum, std::string& location,
                                      std::string& parentLocation)
{
    size_t start = 0;
    while (true) {
        // 1. The next "Port "; none, and the location stays as it was.
        size_t p = text.find("Port ", start);
        if (p == std::string::npos) {
            return;
        }
        // 2. No comma behind it: the last segment. Six characters only, so
        //    a two-digit port loses its last digit.
        size_t c1 = text.find(',', p);
        if (c1 == std::string::npos) {
            location = text.substr(p, 6) + ", Device " + deviceNum;
            return;
        }
        // 3-4. A segment with two commas behind it is a level above.
        size_t c2 = text.find(',', c1 + 1);
        parentLocation += "!" + text.substr(p, c2 - p);
        // A segment with one comma only has taken the rest of the text;
        // nothing is left to read (starting over would never end).
        if (c2 == std::string::npos) {
            return;
        }
        // 5. On behind the second comma.
        start = c2 + 1;
    }
}

} // namespace Ostrand
} // namespace Vantrel

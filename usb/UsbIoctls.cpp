// UsbIoctls: the control transfer, the requests built on it, the descriptor
// walk, the driver query and the port table ioctl.
#include "usb/UsbIoctls.h"

#include "host/Host.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>

namespace Vantrel {
namespace Ostrand {

namespace {

// The setup fields of each transfer, as the devices expect them.
const int kRequestTypeStandardDeviceIn = 128;   // 0x80
const int kRequestTypeStandardInterfaceIn = 129; // 0x81
const int kRequestTypeClassDeviceIn = 160;       // 0xa0
const int kRequestTypeClassOtherIn = 163;        // 0xa3
const int kRequestGetStatus = 0;
const int kRequestGetDescriptor = 6;
const int kRequestGetInterface = 10;
const int kValueConfigDescriptor = 512; // type 2, index 0
// Sent as it stands: the hub class descriptor type (0x29) is not added.
const int kValueHubDescriptor = 2304;

const int kDescriptorTypeInterface = 4;

int byteAt(const char* bytes, int index) { return static_cast<unsigned char>(bytes[index]); }
int signedByteAt(const char* bytes, int index) { return static_cast<signed char>(bytes[index]); }

} // namespace

UsbIoctls::UsbIoctls(std::ofstream* log) : m_logStream(nullptr), m_hubPortInfo()
{
    // The port table is zeroed: a port asked for before port 1 then finds no
    // device, not whatever the heap held.
    if (log != nullptr) {
        m_logStream = log;
    }
}

UsbIoctls::~UsbIoctls() {}

// --- Control transfers ---------------------------------------------------

int UsbIoctls::UsbPassThrough(int fd, int requestType, int request, int value, int index, char* data, int length,
                              int timeout)
{
    usbdevfs_ctrltransfer transfer;
    std::memset(&transfer, 0, sizeof transfer);
    transfer.bRequestType = static_cast<__u8>(requestType);
    transfer.bRequest = static_cast<__u8>(request);
    transfer.wValue = static_cast<__u16>(value);
    transfer.wIndex = static_cast<__u16>(index);
    transfer.wLength = static_cast<__u16>(length);
    transfer.timeout = static_cast<__u32>(timeout);
    transfer.data = data;
    errno = 0;
    host::ioctl(fd, USBDEVFS_CONTROL, &transfer);
    return errno;
}

int UsbIoctls::getConfigDescriptor(const int& fd, char* buffer, int& length)
{
    // 1. The first 9 bytes: the configuration descriptor alone.
    UsbPassThrough(fd, kRequestTypeStandardDeviceIn, kRequestGetDescriptor, kValueConfigDescriptor, 0, buffer, 9,
                   1000);
    // 2. The total length from its bytes 3 and 4, each a signed byte: the
    //    high one times 256, or'ed with the low one. A low byte of 128 or
    //    more sets all the upper bits, and the length comes out negative.
    length = (signedByteAt(buffer, 3) * 256) | signedByteAt(buffer, 2);
    // 3. All of it, into the same buffer, with no bound against its size.
    return UsbPassThrough(fd, kRequestTypeStandardDeviceIn, kRequestGetDescriptor, kValueConfigDescriptor, 0, buffer,
                          length, 1000);
}

int UsbIoctls::getPortStatus(const int& fd, const int& port, int& status)
{
    char reply[4];
    std::memset(reply, 0, sizeof reply);
    int result = UsbPassThrough(fd, kRequestTypeClassOtherIn, kRequestGetStatus, 0, port, reply, 4, 1000);
    // The port status word only; the change word behind it stays here.
    status = byteAt(reply, 0) | (byteAt(reply, 1) << 8);
    return result;
}

int UsbIoctls::getUsbDeviceStatus(const std::string& devicePath)
{
    errno = 0;
    int fd = host::open(devicePath.c_str(), O_RDWR);
    if (fd < 0) {
        return errno;
    }
    char reply[2];
    std::memset(reply, 0, sizeof reply);
    int result = UsbPassThrough(fd, kRequestTypeStandardDeviceIn, kRequestGetStatus, 0, 0, reply, 2, 5000);
    // errno stays as the transfer or close left it; the port state check
    // that follows this call reads it.
    host::close(fd);
    return result;
}

bool UsbIoctls::getNumofPorts(const std::string& devicePath, int& ports)
{
    errno = 0;
    int fd = host::open(devicePath.c_str(), O_RDWR);
    if (fd < 0) {
        ports = errno;
        return false;
    }
    char reply[14];
    std::memset(reply, 0, sizeof reply);
    // A device that does not answer leaves the reply zeroed: 0 ports.
    UsbPassThrough(fd, kRequestTypeClassDeviceIn, kRequestGetDescriptor, kValueHubDescriptor, 0, reply, 14, 1000);
    ports = byteAt(reply, 2);
    host::close(fd);
    return true;
}

int UsbIoctls::getUsbDeviceClass(std::string devicePath, int& deviceClass, int& subClass)
{
    errno = 0;
    int fd = host::open(devicePath.c_str(), O_RDWR);
    if (fd < 0) {
        return errno;
    }
    char reply[9];
    std::memset(reply, 0, sizeof reply);
    // GET_INTERFACE asking for 9 bytes, read as an interface descriptor.
    int result = UsbPassThrough(fd, kRequestTypeStandardInterfaceIn, kRequestGetInterface, 0, 0, reply, 9, 1000);
    if (result == 0) {
        host::close(fd);
        deviceClass = byteAt(reply, 5);
        subClass = byteAt(reply, 6);
        return 0;
    }
    deviceClass = 0;
    subClass = 0;
    host::close(fd);
    return errno;
}

// --- Descriptor bytes ----------------------------------------------------

int UsbIoctls::getDeviceClass(const char* descriptors, const int& length)
{
    int deviceClass = 0;
    int remaining = length;
    const char* descriptor = descriptors;
    while (remaining >= 2) {
        if (descriptor[1] == kDescriptorTypeInterface) {
            deviceClass = signedByteAt(descriptor, 5);
        }
        int descriptorLength = signedByteAt(descriptor, 0);
        // A descriptor of length 0 or less never gets the walk any further
        // (or takes it back in front of the buffer): the walk ends there,
        // with the class found so far.
        if (descriptorLength <= 0) {
            break;
        }
        remaining -= descriptorLength;
        descriptor += descriptorLength;
    }
    return deviceClass;
}

int UsbIoctls::getMaxPower(const char* descriptors, const int&) { return byteAt(descriptors, 8) * 2; }

// --- Other ioctls --------------------------------------------------------

bool UsbIoctls::getHubPortInfo(const int& fd, usbdevfs_hub_portinfo* info)
{
    usbdevfs_ioctl command;
    std::memset(&command, 0, sizeof command);
    command.ifno = 0;
    command.ioctl_code = static_cast<int>(USBDEVFS_HUB_PORTINFO);
    command.data = info;
    return host::ioctl(fd, USBDEVFS_IOCTL, &command) >= 0;
}

std::string UsbIoctls::getDriver(const std::string& devicePath)
{
    errno = 0;
    int fd = host::open(devicePath.c_str(), O_RDWR);
    if (fd < 0) {
        return "";
    }
    usbdevfs_getdriver query;
    std::memset(&query, 0, sizeof query);
    query.interface = 0;
    if (host::ioctl(fd, USBDEVFS_GETDRIVER, &query) < 0) {
        host::close(fd);
        return "";
    }
    host::close(fd);
    // The kernel ends the name; a name that fills the field is taken whole.
    return std::string(query.driver, strnlen(query.driver, sizeof query.driver));
}

} // namespace Ostrand
} // namespace Vantrel

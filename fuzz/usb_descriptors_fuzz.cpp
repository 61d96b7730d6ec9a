// Descriptor bytes from a device: the input is what the device answers for
// its configuration (and, for the port count, its hub class descriptor). The
// walk over a copy of the bytes, then the two reads of getConfigDescriptor on
// a usbfs node, the walk and the power over what they left in the buffer,
// and the port count.
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "host/models/UsbfsModel.h"
#include "usb/UsbIoctls.h"

#include <fcntl.h>
#include <memory>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

// The walk reads an interface descriptor's class at its sixth byte, so a
// buffer holds its length and a few zeros more, as the callers' do.
const size_t kSlack = 8;
// The total length is a 16-bit word read as signed bytes: never above 32767.
const size_t kLargestLength = 32767;

void walkCopy(UsbIoctls& usb, const std::string& bytes)
{
    std::vector<char> buffer(bytes.begin(), bytes.end());
    buffer.resize(bytes.size() + kSlack, '\0');
    int length = static_cast<int>(std::min(bytes.size(), kLargestLength));
    int deviceClass = usb.getDeviceClass(buffer.data(), length);
    ostrand_fuzz::check(deviceClass >= -128 && deviceClass <= 127, "class is a signed byte");
}

void readFromNode(UsbIoctls& usb, const std::string& bytes)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    auto device = std::make_shared<host::UsbfsModel>();
    device->addConfiguration(bytes);
    device->setHubDescriptor(bytes);
    device->setDriver(0, "hub");
    machine.addNode("/dev/bus/usb/001/002", 'c', device);

    int fd = host::open("/dev/bus/usb/001/002", O_RDWR);
    ostrand_fuzz::check(fd >= 0, "the node opens");
    std::vector<char> buffer(kLargestLength + kSlack, '\0');
    int length = 0;
    usb.getConfigDescriptor(fd, buffer.data(), length);
    ostrand_fuzz::check(length >= -32768 && length <= 32767, "length is a signed word");
    int deviceClass = usb.getDeviceClass(buffer.data(), length);
    ostrand_fuzz::check(deviceClass >= -128 && deviceClass <= 127, "class is a signed byte");
    int power = usb.getMaxPower(buffer.data(), length);
    ostrand_fuzz::check(power >= 0 && power <= 510, "power is a byte times two");
    usbdevfs_hub_portinfo info{};
    usb.getHubPortInfo(fd, &info);
    host::close(fd);

    int ports = -1;
    ostrand_fuzz::check(usb.getNumofPorts("/dev/bus/usb/001/002", ports), "the node opens again");
    int expected = bytes.size() > 2 ? static_cast<unsigned char>(bytes[2]) : 0;
    ostrand_fuzz::check(ports == expected, "ports is the third byte of the hub descriptor");
    ostrand_fuzz::check(machine.openDescriptors().empty(), "every node is closed");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string bytes = ostrand_fuzz::text(data, size);
    ostrand_fuzz::allowingNothing([&] {
        UsbIoctls usb(nullptr);
        walkCopy(usb, bytes);
        readFromNode(usb, bytes);
    });
    return 0;
}

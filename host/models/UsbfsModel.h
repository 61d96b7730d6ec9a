// A node of the USB file system ("/dev/bus/usb/BBB/DDD" or
// "/proc/bus/usb/BBB/DDD") of a fake machine: one USB device as the kernel
// shows it through usbfs.
//
// USBDEVFS_CONTROL is answered from the device's real descriptor bytes:
// device, configuration and string descriptors, GET_STATUS of the device,
// and for a hub its class descriptor, its status and each port's status and
// change. USBDEVFS_GETDRIVER names the driver of an interface (ENODATA when
// none is bound); USBDEVFS_IOCTL carrying USBDEVFS_HUB_PORTINFO gives a
// hub's port count and the device number on each port.
//
// The kernel's own checks come first, as usbfs makes them: more than a page
// of data is EINVAL; a request to an interface (or to an endpoint of one)
// claims it, which fails with EBUSY while a driver is bound to it and with
// ENOENT when it does not exist. A transfer the device has no answer for is
// stalled: EPIPE. A transfer that succeeds returns the bytes it delivered.
//
// Events are named readably ("USBDEVFS_CONTROL GET_DESCRIPTOR(device)",
// "USBDEVFS_CONTROL GET_STATUS(port 2)", "USBDEVFS_GETDRIVER",
// "USBDEVFS_IOCTL HUB_PORTINFO"); a control transfer puts its 8-byte setup
// packet in `event.input`, and the model keeps each transfer with its
// time-out in transfers().
#pragma once

#include "host/models/DeviceModel.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct usbdevfs_ctrltransfer;

namespace Vantrel {
namespace Ostrand {
namespace host {

// The readable name of a control transfer, as the events and the `fail` and
// `reply` lines of device files write it: "GET_DESCRIPTOR(device)",
// "GET_STATUS(port 2)", "request 0x40/0x01".
std::string usbTransferName(const usbdevfs_ctrltransfer& transfer);

class UsbfsModel : public DeviceModel {
public:
    // One control transfer as it reached the device.
    struct Transfer {
        uint8_t requestType;
        uint8_t request;
        uint16_t value;
        uint16_t index;
        uint16_t length;
        uint32_t timeout;
    };

    UsbfsModel();

    // The text form of a device (samples/README.md, "USB device files").
    // Throws std::invalid_argument naming the line that is wrong.
    static std::shared_ptr<UsbfsModel> parse(const std::string& text);

    // --- Description -----------------------------------------------------
    void setDeviceDescriptor(std::string bytes) { m_device = std::move(bytes); }
    // Bytes of the configuration: the configuration descriptor and all the
    // descriptors that follow it, added in order.
    void addConfiguration(const std::string& bytes) { m_configuration += bytes; }
    // String descriptor 0: the language ids.
    void setLanguages(const std::vector<uint16_t>& languages);
    // String descriptor `index` holding `text`, one UTF-16 unit per byte.
    void setString(int index, const std::string& text);
    // The word that GET_STATUS of the device answers (0 by default).
    void setStatus(uint16_t status) { m_status = status; }
    // The driver bound to an interface.
    void setDriver(int interface, std::string name) { m_drivers[interface] = std::move(name); }
    // A hub's class descriptor, as many bytes as the hub answers with. A
    // device with one is a hub.
    void setHubDescriptor(std::string bytes) { m_hub = std::move(bytes); }
    // The status and change words of a hub port (counted from 1). A port
    // without them is stalled.
    void setPort(int port, uint16_t status, uint16_t change);
    // The device number on each port, as the hub driver reports them; the
    // port count is the number of entries. Without it, a hub reports the
    // port count of its class descriptor, all ports empty.
    void setPortInfo(std::vector<int> devices) { m_portInfo = std::move(devices); m_hasPortInfo = true; }
    // Makes the event of that exact name fail with the errno value.
    void fail(const std::string& eventName, int error) { m_failures[eventName] = error; }
    // Makes the control transfer of that exact event name answer these bytes
    // (for devices that answer beyond the standard, as a 9-byte
    // GET_INTERFACE); the kernel's checks still come first.
    void setReply(const std::string& eventName, std::string bytes) { m_replies[eventName] = std::move(bytes); }

    // --- Record ----------------------------------------------------------
    const std::vector<Transfer>& transfers() const { return m_transfers; }
    // The flags of each open, in order.
    const std::vector<int>& openFlags() const { return m_openFlags; }

    int open(int flags) override;

private:
    int control(void* argument, IoctlRecord& event);
    int driver(void* argument, IoctlRecord& event);
    int interfaceIoctl(void* argument, IoctlRecord& event);

    std::string transferName(const usbdevfs_ctrltransfer& transfer) const;
    int claimCheck(const usbdevfs_ctrltransfer& transfer) const;
    int claimInterface(int interface) const;
    bool reply(const usbdevfs_ctrltransfer& transfer, std::string& bytes) const;
    bool hasInterface(int interface) const;
    int interfaceOfEndpoint(int address) const;
    int failure(const std::string& eventName) const;
    bool isHub() const { return !m_hub.empty(); }

    std::string m_device;
    std::string m_configuration;
    std::map<int, std::string> m_strings;
    uint16_t m_status = 0;
    std::map<int, std::string> m_drivers;
    std::string m_hub;
    std::map<int, std::string> m_ports;
    std::vector<int> m_portInfo;
    bool m_hasPortInfo = false;
    std::map<std::string, int> m_failures;
    std::map<std::string, std::string> m_replies;

    std::vector<Transfer> m_transfers;
    std::vector<int> m_openFlags;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// A node of the USB file system as a recording writes it: a device file
// with the descriptors, statuses, drivers and port table the device and the
// kernel gave, and the failures and answers that the standard ones do not
// describe.
#include "host/record/MachineText.h"

#include "host/fake/MachineDirectory.h"
#include "host/models/UsbfsModel.h"

#include <cstdio>
#include <cstring>
#include <linux/usbdevice_fs.h>
#include <map>
#include <sys/ioctl.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

struct Setup {
    uint8_t type = 0;
    uint8_t request = 0;
    uint16_t value = 0;
    uint16_t index = 0;
    uint16_t length = 0;
};

Setup setupOf(const RecordedIoctl& call)
{
    Setup setup;
    if (call.input.size() >= 8) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(call.input.data());
        setup.type = bytes[0];
        setup.request = bytes[1];
        setup.value = static_cast<uint16_t>(bytes[2] | (bytes[3] << 8));
        setup.index = static_cast<uint16_t>(bytes[4] | (bytes[5] << 8));
        setup.length = static_cast<uint16_t>(bytes[6] | (bytes[7] << 8));
    }
    return setup;
}

std::string nameOf(const Setup& setup)
{
    usbdevfs_ctrltransfer transfer;
    std::memset(&transfer, 0, sizeof transfer);
    transfer.bRequestType = setup.type;
    transfer.bRequest = setup.request;
    transfer.wValue = setup.value;
    transfer.wIndex = setup.index;
    return "USBDEVFS_CONTROL " + usbTransferName(transfer);
}

std::string word16(unsigned value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%04x", value & 0xFFFF);
    return text;
}

unsigned little16(const std::string& bytes, size_t at)
{
    return static_cast<unsigned char>(bytes[at]) | (static_cast<unsigned char>(bytes[at + 1]) << 8);
}

// What the device file says of the answers, each kept at its longest.
struct DeviceText {
    std::string device;
    std::string configuration;
    std::map<int, std::string> strings;
    bool hasStatus = false;
    unsigned status = 0;
    std::string hub;
    std::map<int, std::string> ports;
    std::map<int, std::string> drivers;
    bool hasPortInfo = false;
    std::vector<int> portInfo;
    std::map<std::string, std::string> replies;
    std::map<std::string, int> failures;
    std::set<std::string> succeeded;
};

void keepLongest(std::string& kept, const std::string& bytes)
{
    if (bytes.size() > kept.size()) {
        kept = bytes;
    }
}

// A transfer's answer, as the line of the device file that describes it;
// false for one that none of them describes.
bool describe(DeviceText& text, const Setup& setup, const std::string& bytes)
{
    unsigned kind = setup.value >> 8;
    unsigned number = setup.value & 0xFF;
    if (setup.type == 0x80 && setup.request == 6 && kind == 1) {
        keepLongest(text.device, bytes);
    } else if (setup.type == 0x80 && setup.request == 6 && kind == 2 && number == 0) {
        keepLongest(text.configuration, bytes);
    } else if (setup.type == 0x80 && setup.request == 6 && kind == 3 && bytes.size() >= 2 && bytes.size() % 2 == 0) {
        keepLongest(text.strings[static_cast<int>(number)], bytes);
    } else if (setup.type == 0x80 && setup.request == 0 && bytes.size() == 2) {
        text.hasStatus = true;
        text.status = little16(bytes, 0);
    } else if (setup.type == 0xA0 && setup.request == 6) {
        keepLongest(text.hub, bytes);
    } else if (setup.type == 0xA3 && setup.request == 0 && bytes.size() == 4 && setup.index >= 1 &&
               setup.index <= 255) {
        text.ports.emplace(setup.index, word16(little16(bytes, 0)) + " " + word16(little16(bytes, 2)));
    } else {
        return false;
    }
    return true;
}

void noteTransfer(DeviceText& text, const RecordedIoctl& call)
{
    Setup setup = setupOf(call);
    std::string name = nameOf(setup);
    if (call.result < 0) {
        text.failures.emplace(name, call.error);
        return;
    }
    text.succeeded.insert(name);
    // An answer cut by the caller's length says nothing of the rest.
    if (!describe(text, setup, call.output)) {
        keepLongest(text.replies[name], call.output);
    }
}

// The hub driver answers the port table; other drivers refuse it, and an
// interface without a driver knows nothing of it. The driver is what the
// answer shows, where GETDRIVER was not asked.
void noteInterfaceIoctl(DeviceText& text, const RecordedIoctl& call)
{
    int interface = 0;
    std::memcpy(&interface, call.input.data(), sizeof interface);
    if (call.result >= 0 && call.output.size() >= 1) {
        text.drivers.emplace(interface, "hub");
        int count = static_cast<unsigned char>(call.output[0]);
        text.hasPortInfo = true;
        text.portInfo.clear();
        for (int port = 0; port < count && static_cast<size_t>(port) + 1 < call.output.size(); ++port) {
            text.portInfo.push_back(static_cast<unsigned char>(call.output[static_cast<size_t>(port) + 1]));
        }
    } else if (call.result < 0 && call.error == ENOTTY) {
        text.drivers.emplace(interface, "unknown");
    } else if (call.result < 0 && call.error != ENODATA) {
        text.failures.emplace("USBDEVFS_IOCTL HUB_PORTINFO", call.error);
    }
}

void noteIoctl(DeviceText& text, const RecordedIoctl& call)
{
    if (call.request == USBDEVFS_CONTROL) {
        noteTransfer(text, call);
    } else if (call.request == USBDEVFS_GETDRIVER && call.input.size() >= sizeof(unsigned int)) {
        unsigned int interface = 0;
        std::memcpy(&interface, call.input.data(), sizeof interface);
        if (call.result >= 0 && !call.output.empty()) {
            text.drivers[static_cast<int>(interface)] = call.output;
        } else if (call.result < 0 && call.error != ENODATA) {
            text.failures.emplace("USBDEVFS_GETDRIVER", call.error);
        }
    } else if (call.request == USBDEVFS_IOCTL && call.input.size() >= 2 * sizeof(int)) {
        noteInterfaceIoctl(text, call);
    }
}

// A string descriptor's text, one character a UTF-16 unit (units above
// 0xFF cannot be written and become '?').
std::string stringText(const std::string& descriptor)
{
    std::string text;
    for (size_t i = 2; i + 1 < descriptor.size(); i += 2) {
        unsigned unit = little16(descriptor, i);
        text += unit <= 0xFF ? static_cast<char>(unit) : '?';
    }
    return text;
}

// The descriptor the model gives for a text.
std::string stringDescriptor(const std::string& text)
{
    std::string descriptor;
    descriptor += static_cast<char>(2 + 2 * text.size());
    descriptor += '\x03';
    for (char c : text) {
        descriptor += c;
        descriptor += '\0';
    }
    return descriptor;
}

std::string fileText(const DeviceText& text)
{
    std::string file = "# Recorded from the device through usbfs.\n";
    if (!text.device.empty()) {
        file += "device " + hexPairs(text.device) + "\n";
    }
    if (!text.configuration.empty()) {
        file += "config " + hexPairs(text.configuration) + "\n";
    }
    for (const auto& string : text.strings) {
        if (string.first == 0) {
            file += "languages";
            for (size_t i = 2; i + 1 < string.second.size(); i += 2) {
                char id[8];
                std::snprintf(id, sizeof id, " %04x", little16(string.second, i));
                file += id;
            }
            file += "\n";
        } else {
            std::string value = stringText(string.second);
            // A text that the line cannot carry (line breaks, blanks at its
            // ends, units above 0xFF, a length byte that says otherwise) goes
            // as its exact bytes instead.
            if (value.size() <= 126 && value.find_first_of("\r\n") == std::string::npos && !value.empty() &&
                value.back() != ' ' && value.front() != ' ' && stringDescriptor(value) == string.second) {
                file += "string " + std::to_string(string.first) + " " + value + "\n";
            } else {
                file += "reply " + hexWord(string.second, true) + " USBDEVFS_CONTROL GET_DESCRIPTOR(string " +
                        std::to_string(string.first) + ")\n";
            }
        }
    }
    if (text.hasStatus) {
        file += "status " + word16(text.status) + "\n";
    }
    for (const auto& driver : text.drivers) {
        file += "driver " + std::to_string(driver.first) + " " + driver.second + "\n";
    }
    if (!text.hub.empty()) {
        file += "hub " + hexPairs(text.hub) + "\n";
    }
    for (const auto& port : text.ports) {
        file += "port " + std::to_string(port.first) + " " + port.second + "\n";
    }
    if (text.hasPortInfo) {
        file += "portinfo";
        for (int device : text.portInfo) {
            file += " " + std::to_string(device);
        }
        file += "\n";
    }
    for (const auto& reply : text.replies) {
        file += "reply " + hexWord(reply.second, true) + " " + reply.first + "\n";
    }
    for (const auto& failure : text.failures) {
        if (text.succeeded.count(failure.first) == 0) {
            file += "fail " + errnoName(failure.second) + " " + failure.first + "\n";
        }
    }
    return file;
}

} // namespace

bool writeUsbfsNode(MachineText& out, const std::string& path, const RecordedPath& node)
{
    DeviceText text;
    bool usb = false;
    for (const auto& call : node.ioctls) {
        if (call.request == USBDEVFS_CONTROL || call.request == USBDEVFS_GETDRIVER || call.request == USBDEVFS_IOCTL) {
            usb = true;
            noteIoctl(text, call);
        }
    }
    if (!usb) {
        return false;
    }
    std::string wanted = path;
    const std::string busPrefix = "/bus/usb/";
    size_t bus = wanted.find(busPrefix);
    wanted = bus == std::string::npos ? fileNameOf(wanted) : fileNameOf(wanted.substr(bus + busPrefix.size()));
    out.line("usbfs " + path + " " + out.data("usbfs/" + wanted + ".usb", fileText(text)));
    return true;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

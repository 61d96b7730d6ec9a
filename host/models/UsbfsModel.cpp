#include "host/models/UsbfsModel.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sstream>
#include <stdexcept>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

// usbfs refuses a control transfer of more than a page.
const uint16_t kPageSize = 4096;

const int kRecipientMask = 0x1f;
const int kRecipientInterface = 1;
const int kRecipientEndpoint = 2;
const int kTypeMask = 0x60;
const int kTypeVendor = 0x40;
// Interfaces that usbfs can claim: one bit each in a long.
const int kClaimableInterfaces = 64;

const int kDescriptorDevice = 1;
const int kDescriptorConfiguration = 2;
const int kDescriptorString = 3;
const int kDescriptorInterface = 4;
const int kDescriptorEndpoint = 5;

std::string littleEndian16(unsigned value)
{
    return std::string{static_cast<char>(value & 0xff), static_cast<char>((value >> 8) & 0xff)};
}

std::string littleEndian32(unsigned value) { return littleEndian16(value & 0xffff) + littleEndian16(value >> 16); }

std::string hex(const char* format, unsigned value)
{
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// Walks descriptors (length byte, type byte, ...) and calls visit(type,
// bytes, length) for each that fits. Stops at a length below 2.
template <typename Visit>
void eachDescriptor(const std::string& bytes, Visit visit)
{
    size_t at = 0;
    while (at + 2 <= bytes.size()) {
        size_t length = static_cast<unsigned char>(bytes[at]);
        if (length < 2 || at + length > bytes.size()) {
            break;
        }
        visit(static_cast<unsigned char>(bytes[at + 1]), bytes.data() + at, length);
        at += length;
    }
}

} // namespace

UsbfsModel::UsbfsModel()
{
    answer(USBDEVFS_CONTROL, "USBDEVFS_CONTROL",
           [this](FakeMachine&, void* argument, IoctlRecord& event) { return control(argument, event); });
    answer(USBDEVFS_GETDRIVER, "USBDEVFS_GETDRIVER",
           [this](FakeMachine&, void* argument, IoctlRecord& event) { return driver(argument, event); });
    answer(USBDEVFS_IOCTL, "USBDEVFS_IOCTL",
           [this](FakeMachine&, void* argument, IoctlRecord& event) { return interfaceIoctl(argument, event); });
}

void UsbfsModel::setLanguages(const std::vector<uint16_t>& languages)
{
    std::string bytes(2, '\0');
    for (uint16_t language : languages) {
        bytes += littleEndian16(language);
    }
    bytes[0] = static_cast<char>(bytes.size());
    bytes[1] = static_cast<char>(kDescriptorString);
    m_strings[0] = bytes;
}

void UsbfsModel::setString(int index, const std::string& text)
{
    std::string bytes(2, '\0');
    for (size_t i = 0; i < text.size() && i < 126; ++i) {
        bytes += littleEndian16(static_cast<unsigned char>(text[i]));
    }
    bytes[0] = static_cast<char>(bytes.size());
    bytes[1] = static_cast<char>(kDescriptorString);
    m_strings[index] = bytes;
}

void UsbfsModel::setPort(int port, uint16_t status, uint16_t change)
{
    m_ports[port] = littleEndian16(status) + littleEndian16(change);
}

int UsbfsModel::open(int flags)
{
    m_openFlags.push_back(flags);
    return 0;
}

// --- USBDEVFS_CONTROL --------------------------------------------------------

int UsbfsModel::control(void* argument, IoctlRecord& event)
{
    const auto& transfer = *static_cast<const usbdevfs_ctrltransfer*>(argument);
    event.input = std::string{static_cast<char>(transfer.bRequestType), static_cast<char>(transfer.bRequest)} +
                  littleEndian16(transfer.wValue) + littleEndian16(transfer.wIndex) +
                  littleEndian16(transfer.wLength);
    m_transfers.push_back({transfer.bRequestType, transfer.bRequest, transfer.wValue, transfer.wIndex,
                           transfer.wLength, transfer.timeout});
    event.name = "USBDEVFS_CONTROL " + transferName(transfer);
    // The kernel's checks, then the device.
    if (transfer.wLength > kPageSize) {
        return -EINVAL;
    }
    int refused = claimCheck(transfer);
    if (refused != 0) {
        return -refused;
    }
    int error = failure(event.name);
    if (error != 0) {
        return -error;
    }
    std::string bytes;
    auto replaced = m_replies.find(event.name);
    if (replaced != m_replies.end()) {
        bytes = replaced->second;
    } else if (!reply(transfer, bytes)) {
        return -EPIPE;
    }
    size_t count = std::min<size_t>(transfer.wLength, bytes.size());
    if (count > 0 && transfer.data == nullptr) {
        return -EFAULT;
    }
    if (count > 0) {
        std::memcpy(transfer.data, bytes.data(), count);
    }
    return static_cast<int>(count);
}

std::string UsbfsModel::transferName(const usbdevfs_ctrltransfer& transfer) const
{
    return usbTransferName(transfer);
}

std::string usbTransferName(const usbdevfs_ctrltransfer& transfer)
{
    unsigned type = transfer.bRequestType;
    unsigned request = transfer.bRequest;
    unsigned value = transfer.wValue;
    unsigned index = transfer.wIndex;
    if (request == 6 && type == 0x80) {
        unsigned descriptor = value >> 8;
        unsigned number = value & 0xff;
        if (descriptor == kDescriptorDevice) {
            return "GET_DESCRIPTOR(device)";
        }
        if (descriptor == kDescriptorConfiguration) {
            return number == 0 ? "GET_DESCRIPTOR(config)" : "GET_DESCRIPTOR(config " + std::to_string(number) + ")";
        }
        if (descriptor == kDescriptorString) {
            return "GET_DESCRIPTOR(string " + std::to_string(number) + ")";
        }
        return "GET_DESCRIPTOR(type " + hex("0x%02x", descriptor) + ")";
    }
    if (request == 6 && type == 0xa0) {
        return "GET_DESCRIPTOR(hub class, value " + hex("0x%04x", value) + ")";
    }
    if (request == 0) {
        switch (type) {
        case 0x80: return "GET_STATUS(device)";
        case 0x81: return "GET_STATUS(interface " + std::to_string(index) + ")";
        case 0x82: return "GET_STATUS(endpoint " + hex("0x%02x", index) + ")";
        case 0xa0: return "GET_STATUS(hub)";
        case 0xa3: return "GET_STATUS(port " + std::to_string(index) + ")";
        default: break;
        }
    }
    if (request == 10 && type == 0x81) {
        return "GET_INTERFACE(interface " + std::to_string(index) + ")";
    }
    if (request == 8 && type == 0x80) {
        return "GET_CONFIGURATION";
    }
    return "request " + hex("0x%02x", type) + "/" + hex("0x%02x", request);
}

// What usbfs checks before a transfer goes out: a request to an interface,
// or to an endpoint other than the default one, claims the interface for
// the caller. Vendor requests pass unchecked.
int UsbfsModel::claimCheck(const usbdevfs_ctrltransfer& transfer) const
{
    if ((transfer.bRequestType & kTypeMask) == kTypeVendor) {
        return 0;
    }
    int index = transfer.wIndex & 0xff;
    switch (transfer.bRequestType & kRecipientMask) {
    case kRecipientInterface:
        return claimInterface(index);
    case kRecipientEndpoint: {
        if ((index & ~0x80) == 0) {
            return 0;
        }
        int interface = interfaceOfEndpoint(index);
        return interface < 0 ? ENOENT : claimInterface(interface);
    }
    default:
        return 0;
    }
}

// Claiming succeeds for an interface without a driver; the claim lasts while
// the node is open, which the model does not follow.
int UsbfsModel::claimInterface(int interface) const
{
    if (interface >= kClaimableInterfaces) {
        return EINVAL;
    }
    if (!hasInterface(interface)) {
        return ENOENT;
    }
    return m_drivers.count(interface) != 0 ? EBUSY : 0;
}

bool UsbfsModel::reply(const usbdevfs_ctrltransfer& transfer, std::string& bytes) const
{
    unsigned type = transfer.bRequestType;
    unsigned request = transfer.bRequest;
    unsigned value = transfer.wValue;
    unsigned index = transfer.wIndex;
    if (request == 6 && type == 0x80) {
        unsigned descriptor = value >> 8;
        unsigned number = value & 0xff;
        if (descriptor == kDescriptorDevice) {
            bytes = m_device;
        } else if (descriptor == kDescriptorConfiguration && number == 0) {
            bytes = m_configuration;
        } else if (descriptor == kDescriptorString && m_strings.count(static_cast<int>(number)) != 0) {
            bytes = m_strings.at(static_cast<int>(number));
        }
        return !bytes.empty();
    }
    // A hub answers its class descriptor whatever the value asks for.
    if (request == 6 && type == 0xa0) {
        bytes = m_hub;
        return isHub();
    }
    if (request == 0) {
        switch (type) {
        case 0x80: bytes = littleEndian16(m_status); return true;
        case 0x81:
        case 0x82: bytes = littleEndian16(0); return true;
        case 0xa0: bytes = littleEndian32(0); return isHub();
        case 0xa3:
            if (isHub() && m_ports.count(static_cast<int>(index)) != 0) {
                bytes = m_ports.at(static_cast<int>(index));
                return true;
            }
            return false;
        default: return false;
        }
    }
    // The alternate setting, 0: one byte.
    if (request == 10 && type == 0x81) {
        bytes = std::string(1, '\0');
        return true;
    }
    if (request == 8 && type == 0x80) {
        bytes = std::string(1, m_configuration.size() > 5 ? m_configuration[5] : '\1');
        return true;
    }
    return false;
}

bool UsbfsModel::hasInterface(int interface) const
{
    if (m_drivers.count(interface) != 0) {
        return true;
    }
    bool found = false;
    eachDescriptor(m_configuration, [&](int type, const char* bytes, size_t length) {
        if (type == kDescriptorInterface && length > 2 && static_cast<unsigned char>(bytes[2]) == interface) {
            found = true;
        }
    });
    return found;
}

int UsbfsModel::interfaceOfEndpoint(int address) const
{
    int interface = -1;
    int found = -1;
    eachDescriptor(m_configuration, [&](int type, const char* bytes, size_t length) {
        if (type == kDescriptorInterface && length > 2) {
            interface = static_cast<unsigned char>(bytes[2]);
        } else if (type == kDescriptorEndpoint && length > 2 && static_cast<unsigned char>(bytes[2]) == address &&
                   found < 0) {
            found = interface;
        }
    });
    return found;
}

int UsbfsModel::failure(const std::string& eventName) const
{
    auto it = m_failures.find(eventName);
    return it == m_failures.end() ? 0 : it->second;
}

// --- USBDEVFS_GETDRIVER -------------------------------------------------------

int UsbfsModel::driver(void* argument, IoctlRecord& event)
{
    auto* query = static_cast<usbdevfs_getdriver*>(argument);
    event.input = littleEndian32(query->interface);
    int error = failure(event.name);
    if (error != 0) {
        return -error;
    }
    auto it = m_drivers.find(static_cast<int>(query->interface));
    if (it == m_drivers.end()) {
        return -ENODATA;
    }
    std::memset(query->driver, 0, sizeof query->driver);
    std::strncpy(query->driver, it->second.c_str(), sizeof query->driver - 1);
    return 0;
}

// --- USBDEVFS_IOCTL -------------------------------------------------------------

// The request goes to the driver of the interface: the hub driver answers
// HUB_PORTINFO with the port count plus one and knows no other request; other
// drivers take no requests at all.
int UsbfsModel::interfaceIoctl(void* argument, IoctlRecord& event)
{
    auto* command = static_cast<usbdevfs_ioctl*>(argument);
    event.input = littleEndian32(static_cast<unsigned>(command->ifno)) +
                  littleEndian32(static_cast<unsigned>(command->ioctl_code));
    bool portInfo = static_cast<unsigned>(command->ioctl_code) == USBDEVFS_HUB_PORTINFO;
    event.name = portInfo ? "USBDEVFS_IOCTL HUB_PORTINFO"
                          : "USBDEVFS_IOCTL " + hex("0x%08X", static_cast<unsigned>(command->ioctl_code));
    if (command->ifno < 0 || !hasInterface(command->ifno)) {
        return -EINVAL;
    }
    auto it = m_drivers.find(command->ifno);
    if (it == m_drivers.end()) {
        return -ENODATA;
    }
    if (it->second != "hub") {
        return -ENOTTY;
    }
    if (!portInfo) {
        return -ENOSYS;
    }
    int error = failure(event.name);
    if (error != 0) {
        return -error;
    }
    if (command->data == nullptr) {
        return -EFAULT;
    }
    // The whole table is written back: entries behind the port count are 0.
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    if (m_hasPortInfo) {
        info.nports = static_cast<char>(m_portInfo.size());
        for (size_t i = 0; i < m_portInfo.size() && i < sizeof info.port; ++i) {
            info.port[i] = static_cast<char>(m_portInfo[i]);
        }
    } else if (m_hub.size() > 2) {
        info.nports = m_hub[2];
    }
    std::memcpy(command->data, &info, sizeof info);
    return static_cast<unsigned char>(info.nports) + 1;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// The pure IDE walk: /dev/hd<letter> through HDIO_GET_IDENTITY and ATAPI
// packets sent with CDROM_SEND_PACKET. This walk takes no lock.
#include "finders/CDDVDDeviceFinder.h"

#include "host/Host.h"
#include "probes/IdeData.h"
#include "probes/LinuxUtils.h"
#include "probes/ScsiData.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/cdrom.h>
#include <linux/hdreg.h>

namespace Vantrel {
namespace Ostrand {

static_assert(sizeof(struct hd_driveid) == kIdentitySize, "hd_driveid");
static_assert(HDIO_GET_IDENTITY == 0x030D, "HDIO_GET_IDENTITY");
static_assert(CDROM_SEND_PACKET == 0x5393, "CDROM_SEND_PACKET");

namespace {

const unsigned char kInquiryPacket = 0x12;
const unsigned char kModeSense10Packet = 0x5A;
const unsigned char kCapabilitiesPage = 0x2A;
const unsigned char kCapabilitiesLength = 0x18;

// The buffers of the walk: the MODE SENSE and INQUIRY replies land in 36 bytes.
const int kReplyBufferLength = 36;
const int kSenseLength = 64;
// The packets' time-out, as the kernel reads cdrom_generic_command.
const int kPacketTimeout = 5;

// One ATAPI packet of 12 bytes, reading `buflen` bytes into `buffer`. The
// length goes to both byte 4 (the allocation length of a 6-byte command) and
// byte 8 (the low allocation length of a 10-byte one), whichever it is.
int sendPacket(int fd, unsigned char opcode, unsigned char page, unsigned char length, char* buffer,
               unsigned int buflen)
{
    struct cdrom_generic_command command;
    unsigned char sense[kSenseLength];
    std::memset(&command, 0, sizeof command);
    std::memset(sense, 0, sizeof sense);
    command.cmd[0] = opcode;
    command.cmd[2] = page;
    command.cmd[4] = length;
    command.cmd[8] = length;
    command.buffer = reinterpret_cast<unsigned char*>(buffer);
    command.buflen = buflen;
    command.sense = reinterpret_cast<struct request_sense*>(sense);
    command.data_direction = CGC_DATA_READ;
    command.timeout = kPacketTimeout;
    errno = 0;
    return host::ioctl(fd, CDROM_SEND_PACKET, &command);
}

bool contains(const std::string& text, const char* word) { return text.find(word) != std::string::npos; }

} // namespace

IWbemClassObject* CDDVDDeviceFinder::getPureIDECDDevice(char letter)
{
    // 1, 2.
    std::string path = m_linuxUtils->toString("sc", "/dev/hd", letter);
    errno = 0;
    int fd = host::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        return nullptr;
    }

    // 3. A removable IDE device, or nothing.
    struct hd_driveid identity;
    std::memset(&identity, 0, sizeof identity);
    if (isCDDevice(fd, &identity) < 0) {
        host::close(fd);
        return nullptr;
    }
    IdentityReading block = readIdentity(reinterpret_cast<const unsigned char*>(&identity), sizeof identity);

    // 4. The descriptor stays open here, deliberately.
    std::string model = block.model;
    if (contains(model, "VIRTUALCDROM")) {
        return nullptr;
    }

    // 5. A drive that cannot be spoken to in the pure way is on ide-scsi: the
    // SCSI walk meets it later and gives it this node's letter.
    char modeSense[kReplyBufferLength];
    std::memset(modeSense, 0, sizeof modeSense);
    if (isPureIDE(fd, modeSense) < 0) {
        host::close(fd);
        m_emulatedIdeNodes.push_back(path);
        return nullptr;
    }

    // 6.
    std::string deviceClass = getDeviceClass(modeSense);

    // 7, 8. Without INQUIRY data: the identity block's model and firmware, no vendor.
    char inquiry[kReplyBufferLength];
    std::memset(inquiry, 0, sizeof inquiry);
    std::string vendor;
    std::string firmware;
    if (ideInquiry(fd, inquiry, kReplyBufferLength) == 0) {
        InquiryReading data = readInquiry(reinterpret_cast<const unsigned char*>(inquiry), sizeof inquiry);
        vendor = data.vendor;
        model = data.product;
        firmware = data.revision;
    } else {
        firmware = block.firmware;
    }

    // 9. The vendor text here; the SCSI walk looks for the word in the product.
    // The descriptor stays open, as in step 4.
    if (contains(vendor, "QOVA") && contains(model, "VCD")) {
        return nullptr;
    }

    // 10, 11.
    std::string serial = block.serial;
    std::string location = mkDevLocationString(letter);
    std::string parentLocation = mkDevParentLocationString(letter);
    host::close(fd);

    // 12, 13. A drive without INQUIRY data has a name with a leading blank.
    trimString(vendor, 't');
    trimString(model, 't');
    return new IWbemClassObject(vendor + " " + model, "", path, deviceClass, location, location, parentLocation,
                                deviceClass, vendor, model, firmware, serial, path, 0);
}

int CDDVDDeviceFinder::isCDDevice(int fd, hd_driveid* id)
{
    errno = 0;
    if (host::ioctl(fd, HDIO_GET_IDENTITY, id) < 0) {
        return -1;
    }
    // Bit 7 of the low byte of the configuration word: removable.
    const unsigned char* block = reinterpret_cast<const unsigned char*>(id);
    return (block[0] & 0x80) != 0 ? 0 : -1;
}

int CDDVDDeviceFinder::isPureIDE(int fd, char* buffer)
{
    return sendPacket(fd, kModeSense10Packet, kCapabilitiesPage, kCapabilitiesLength, buffer, kCapabilitiesLength);
}

int CDDVDDeviceFinder::ideInquiry(int fd, char* buffer, int length)
{
    return sendPacket(fd, kInquiryPacket, 0, static_cast<unsigned char>(length), buffer,
                      static_cast<unsigned int>(length));
}

} // namespace Ostrand
} // namespace Vantrel

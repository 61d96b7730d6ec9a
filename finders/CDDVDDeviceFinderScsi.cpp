// The SCSI walk: each /dev/sr* or /dev/scd* node through its sg twin, under
// the semaphore; virtual and flash devices left out; the location by the kind
// of host adapter: an IDE channel (ide-scsi), a USB port, or a SCSI address.
#include "finders/CDDVDDeviceFinder.h"

#include "finders/UsbDriveLocation.h"
#include "frame/CWmiInfo.h"
#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "probes/SCSIGeneric.h"
#include "probes/ScsiData.h"
#include "usb/USBDeviceFinder.h"
#include "usb/Usb_Device.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <scsi/scsi.h>
#include <sys/utsname.h>

namespace Vantrel {
namespace Ostrand {

static_assert(SCSI_IOCTL_GET_IDLUN == 0x5382, "SCSI_IOCTL_GET_IDLUN");

namespace {

const int kInquiry = 0x12;
const int kModeSense10 = 0x5A;
const int kReplyLength = 36;
// Only sg nodes of this device type are taken: CD/DVD.
const int kCdDvdType = 5;
// How much of the parent location a USB drive's resource tag keeps.
const size_t kTagLength = 32;

// The kernel's answer to SCSI_IOCTL_GET_IDLUN.
struct IdLun {
    int dev_id;
    int host_unique_id;
};

bool contains(const std::string& text, const char* word) { return text.find(word) != std::string::npos; }

// The filters, in order; the first that fires rejects the drive. Here the
// product holds the word that the IDE walk looks for in the vendor.
bool rejected(const std::string& vendor, const std::string& product, int type)
{
    if (contains(product, "QOVA") && contains(product, "VCD")) {
        return true;
    }
    if (contains(product, "Virtual")) {
        return true;
    }
    if (type != kCdDvdType) {
        return true;
    }
    return contains(vendor, "SanDisk") || contains(vendor, "kvm") || contains(vendor, "KVM");
}

// Closes what is open of a node, in this order, and gives the semaphore back.
void finish(SCSIGeneric& sg, int sgFd, int fd)
{
    if (sgFd >= 0) {
        host::close(sgFd);
    }
    host::close(fd);
    sg.sempahore_unlock();
}

} // namespace

IWbemClassObject* CDDVDDeviceFinder::getSCSICDDevice(const char* nodeName)
{
    // 1.
    std::string path = std::string("/dev/") + nodeName;

    // 2. Nothing to unlock when the lock fails.
    errno = 0;
    if (m_scsiGeneric->sempahore_lock() < 0) {
        return nullptr;
    }

    // 3.
    errno = 0;
    int fd = host::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        m_scsiGeneric->sempahore_unlock();
        return nullptr;
    }

    // 4. A node that is no SCSI device, or whose sg twin the scan did not see.
    int hostNumber = 0;
    int target = 0;
    int channel = 0;
    std::string sgPath = getSgDeviceDescriptor(fd, hostNumber, target, channel);
    if (sgPath.empty()) {
        finish(*m_scsiGeneric, -1, fd);
        return nullptr;
    }

    // 5.
    errno = 0;
    int sgFd = host::open(sgPath.c_str(), O_RDWR | O_NONBLOCK);
    if (sgFd < 0) {
        finish(*m_scsiGeneric, -1, fd);
        return nullptr;
    }

    // 6. Only the failure of MODE SENSE counts; its reply is not read. NOT
    // READY (2) rejects the drive too.
    unsigned char modeSense[kReplyLength];
    std::memset(modeSense, 0, sizeof modeSense);
    if (m_scsiGeneric->scsiGenericIoctl(sgFd, SG_IO, kModeSense10, modeSense, kReplyLength) != 0) {
        finish(*m_scsiGeneric, sgFd, fd);
        return nullptr;
    }

    // 7.
    unsigned char inquiry[kReplyLength];
    std::memset(inquiry, 0, sizeof inquiry);
    if (m_scsiGeneric->scsiGenericIoctl(sgFd, SG_IO, kInquiry, inquiry, kReplyLength) != 0) {
        finish(*m_scsiGeneric, sgFd, fd);
        return nullptr;
    }

    // 8, 9.
    InquiryReading data = readInquiry(inquiry, sizeof inquiry);
    std::string vendor = data.vendor;
    std::string product = data.product;
    if (rejected(vendor, product, data.peripheralType)) {
        finish(*m_scsiGeneric, sgFd, fd);
        return nullptr;
    }

    // 10. The class from the product before it is trimmed.
    std::string deviceClass = getDeviceClass(product);
    std::string firmware = data.revision;
    std::string additionalInfo = sgPath + ":" + path;
    std::string location;
    std::string parentLocation;
    std::string resourceTag;
    std::string serial;

    // 11. Still under the semaphore, the USB lookup included.
    int kind = m_scsiGeneric->isEmulated(sgFd);
    if (kind == SG_HOST_IDE) {
        // The n-th emulated drive of this walk is the n-th that the IDE walk
        // remembered: the pairing rests on the order alone.
        int letter = -1;
        if (m_emulatedIdeNodes.empty()) {
            letter = getDeviceNodeFromSysfs(BUS_TYPE_IDE, const_cast<char*>("drivename"));
        } else if (static_cast<size_t>(m_emulatedIdeIndex) < m_emulatedIdeNodes.size()) {
            letter = m_emulatedIdeNodes[m_emulatedIdeIndex].back();
        }
        // A drive beyond the remembered ones has no letter, as one that sysfs
        // does not name: the empty location, a parent without channel.
        location = mkDevLocationString(static_cast<char>(letter));
        resourceTag = location;
        parentLocation = mkDevParentLocationString(static_cast<char>(letter));
        ++m_emulatedIdeIndex;
    } else if (kind == SG_HOST_USB) {
        ++m_usbDeviceCount;
        // The result is not looked at: what was filled stands.
        getUSBCDLoc_ParentLoc(m_usbDeviceCount, sgFd, location, parentLocation, serial, additionalInfo,
                              resourceTag);
    } else if (kind == SG_HOST_OTHER) {
        // The channel, not the LUN, stands behind ", LUN ": callers depend on it.
        location = m_linuxUtils->toString("sdsdsd", "SCSI Bus ", hostNumber, ", Target ", target, ", LUN ", channel);
        resourceTag = location;
        parentLocation = mkDevParentLocationString(sgFd);
    }

    // 12. When the USB lookup found the drive it has closed sgFd already;
    // this second close then fails, and that is of no account.
    host::close(fd);
    host::close(sgFd);
    m_scsiGeneric->sempahore_unlock();

    // 13, 14.
    trimString(vendor, 't');
    trimString(product, 't');
    return new IWbemClassObject(vendor + " " + product, "", path, deviceClass, location, resourceTag, parentLocation,
                                deviceClass, vendor, product, firmware, serial, additionalInfo, 0);
}

std::string CDDVDDeviceFinder::getSgDeviceDescriptor(int fd, int& hostNumber, int& target, int& channel)
{
    // 1.
    IdLun block;
    std::memset(&block, 0, sizeof block);
    if (host::ioctl(fd, SCSI_IOCTL_GET_IDLUN, &block) != 0) {
        return "";
    }
    // 2. Bits 24 to 31 are the host number, read as the byte it is.
    unsigned int id = static_cast<unsigned int>(block.dev_id);
    hostNumber = static_cast<int>((id >> 24) & 0xFF);
    target = static_cast<int>(id & 0xFF);
    channel = static_cast<int>((id >> 16) & 0xFF);
    int lun = static_cast<int>((id >> 8) & 0xFF);
    // 3. The map of the constructor's scan, sg nodes of CD/DVD type only.
    return m_scsiGeneric->getSgfromMap(kCdDvdType, hostNumber, target, lun, channel);
}

int CDDVDDeviceFinder::getDeviceNodeFromSysfs(BusType bus, char* attribute)
{
    // 1.
    CSysfsReader reader(pLogFile);
    StrMapMap devices;
    reader.GetDeviceList(bus, devices);
    if (devices.empty()) {
        return -1;
    }

    // 2. The first device, in key order, bound to "ide-scsi".
    std::string deviceName;
    bool found = false;
    for (const auto& device : devices) {
        StrMap facts = device.second;
        auto driver = facts.find("driver_name");
        if (driver != facts.end() && driver->second == "ide-scsi") {
            deviceName = device.first;
            found = true;
            break;
        }
    }
    if (!found) {
        return -1;
    }

    // 3, 4. The letter of "hdc" is its third character. A value shorter than
    // that gives its terminator's place, 0: no letter.
    StrMap attributes;
    attributes.clear();
    reader.GetDeviceAttr(deviceName, bus, attributes);
    auto value = attributes.find(attribute == nullptr ? "" : attribute);
    if (value == attributes.end()) {
        return -1;
    }
    return value->second.size() > 2 ? static_cast<signed char>(value->second[2]) : 0;
}

bool CDDVDDeviceFinder::getUSBCDLoc_ParentLoc(const int& usbNumber, const int& fd, std::string& location,
                                              std::string& parentLocation, std::string& serial,
                                              std::string& additionalInfo, std::string& resourceTag)
{
    return usbDriveLocation(*m_linuxUtils, "USB Bus, CD-DVD ", kTagLength, usbNumber, fd,
                            UsbDriveTexts{location, parentLocation, serial, additionalInfo, resourceTag});
}

} // namespace Ostrand
} // namespace Vantrel

// FloppyDeviceFinder: a USB floppy drive, reached as a SCSI disk through its
// sg node, told from other USB disks by its capacity, and placed by the USB
// storage location.
#include "finders/FloppyDeviceFinder.h"

#include "finders/UsbDriveLocation.h"
#include "frame/CWmiInfo.h"
#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "probes/SCSIGeneric.h"
#include "probes/ScsiData.h"
#include "usb/USBDeviceFinder.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <scsi/scsi.h>
#include <string>
#include <sys/utsname.h>

namespace Vantrel {
namespace Ostrand {

namespace {

// The 512-byte blocks of a 1.44 MB disk: no floppy has more.
const int kMaxFloppyBlocks = 0xB40;
// The sense codes of READ CAPACITY that a drive without a readable disk gives.
const int kIncompatibleMedium = 0x30;
const int kFormatCorrupted = 0x31;
const int kNoMedium = 0x3A;
// Direct-access devices: the sg node of a disk.
const int kDirectAccess = 0;
const int kInquiryLength = 36;
const unsigned char kInquiry = 0x12;
// How much of the parent location the resource tag keeps: one character
// less than the CD/DVD finder keeps.
const size_t kTagLength = 31;

// 4. A floppy's capacity, or a drive that has no readable disk in it.
bool floppyCapacity(int rc, int blocks)
{
    switch (rc) {
    case 0: return blocks <= kMaxFloppyBlocks;
    case kIncompatibleMedium:
    case kFormatCorrupted:
    case kNoMedium: return true;
    default: return false; // a failure (negative) or any other answer
    }
}

// 8. The virtual floppies of remote consoles.
bool virtualDrive(const std::string& vendor, const std::string& product)
{
    return product.find("Virtual") != std::string::npos || vendor.find("zMARL") != std::string::npos ||
           product.find("vmDisk") != std::string::npos;
}

IWbemClassObject* usbRecord(const std::string& path, const std::string& location, const std::string& resourceTag,
                            const std::string& parentLocation, const InquiryReading& inquiry,
                            const std::string& serial, const std::string& additionalInfo)
{
    return new IWbemClassObject("FLOPPY_USB_NAME", "", path, "FLOPPY_H1440_USB_DESCR", location, resourceTag,
                                parentLocation, "144FLOPPY_DRIVE", inquiry.vendor, inquiry.product,
                                inquiry.revision, serial, additionalInfo, 0);
}

} // namespace

IWbemClassObject* FloppyDeviceFinder::getUSBFloppies(char* nodeName)
{
    // 1. Names with a partition number, and four-letter disks, before any lock.
    if (std::strlen(nodeName) > 3) {
        return nullptr;
    }

    // 2. Under the semaphore: the block node, and its sg node.
    std::string path = std::string("/dev/") + nodeName;
    errno = 0;
    if (m_scsiGeneric->sempahore_lock() < 0) {
        return nullptr;
    }
    errno = 0;
    int fd = host::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        m_scsiGeneric->sempahore_unlock();
        return nullptr;
    }
    int hostNo = 0;
    int target = 0;
    int channel = 0;
    std::string sgPath = getSgDeviceDescriptor(fd, hostNo, target, channel);
    if (sgPath.empty()) {
        host::close(fd);
        m_scsiGeneric->sempahore_unlock();
        return nullptr;
    }

    // 3. The sg node, read-only.
    errno = 0;
    int sgFd = host::open(sgPath.c_str(), O_RDONLY | O_NONBLOCK);
    if (sgFd < 0) {
        host::close(fd);
        m_scsiGeneric->sempahore_unlock();
        return nullptr;
    }

    // Every rejection from here on closes both, unlocks and gives nothing.
    auto reject = [&]() -> IWbemClassObject* {
        host::close(sgFd);
        host::close(fd);
        m_scsiGeneric->sempahore_unlock();
        return nullptr;
    };

    // 4. The capacity, where MODE SENSE stands for a CD drive.
    int blocks = 0;
    int rc = m_scsiGeneric->doReadCapacity(sgFd, blocks);
    if (!floppyCapacity(rc, blocks)) {
        return reject();
    }

    // 5. Only a disk behind the USB host adapter.
    if (m_scsiGeneric->isEmulated(sgFd) != SG_HOST_USB) {
        return reject();
    }

    // 6-7. INQUIRY.
    unsigned char buffer[kInquiryLength];
    std::memset(buffer, 0, sizeof buffer);
    if (m_scsiGeneric->scsiGenericIoctl(sgFd, SG_IO, kInquiry, buffer, kInquiryLength) != 0) {
        return reject();
    }
    InquiryReading inquiry = readInquiry(buffer, sizeof buffer);

    // 8. No peripheral type is tested: any small or empty USB disk passes.
    if (virtualDrive(inquiry.vendor, inquiry.product)) {
        return reject();
    }

    // 9. The sg node alone, with no node path behind it.
    std::string additionalInfo = sgPath;
    ++m_usbDeviceCount;

    // 10. The location; its result is not looked at.
    std::string location;
    std::string parentLocation;
    std::string serial;
    std::string resourceTag;
    getUSBFDDLoc_ParentLoc(m_usbDeviceCount, sgFd, location, parentLocation, serial, additionalInfo, resourceTag);

    // 11. When the location was found the sg descriptor is closed already,
    //     and this close fails unseen. Nothing is trimmed.
    host::close(fd);
    host::close(sgFd);
    m_scsiGeneric->sempahore_unlock();
    return usbRecord(path, location, resourceTag, parentLocation, inquiry, serial, additionalInfo);
}

std::string FloppyDeviceFinder::getSgDeviceDescriptor(int fd, int& host, int& target, int& channel)
{
    // 1. The block node's SCSI address: dev_id, then the host's unique id.
    std::string sgPath;
    int idLun[2] = {0, 0};
    if (host::ioctl(fd, SCSI_IOCTL_GET_IDLUN, idLun) != 0) {
        return sgPath;
    }
    // 2. Target, LUN, channel and host, from the low byte up.
    unsigned int devId = static_cast<unsigned int>(idLun[0]);
    host = static_cast<int>(devId >> 24);
    target = static_cast<int>(devId & 0xFF);
    channel = static_cast<int>((devId >> 16) & 0xFF);
    int lun = static_cast<int>((devId >> 8) & 0xFF);
    // 3. The sg node of a direct-access device at that address.
    return m_scsiGeneric->getSgfromMap(kDirectAccess, host, target, lun, channel);
}

bool FloppyDeviceFinder::getUSBFDDLoc_ParentLoc(const int& usbNumber, const int& fd, std::string& location,
                                                std::string& parentLocation, std::string& serial,
                                                std::string& additionalInfo, std::string& resourceTag)
{
    return usbDriveLocation(*m_linuxUtils, "USB Bus, Floppy Drive ", kTagLength, usbNumber, fd,
                            UsbDriveTexts{location, parentLocation, serial, additionalInfo, resourceTag});
}

} // namespace Ostrand
} // namespace Vantrel

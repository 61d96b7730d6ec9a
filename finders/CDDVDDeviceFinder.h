// The optical drives of the machine: first the pure IDE world (/dev/hda,
// /dev/hdb, ... through the IDE and CD-ROM ioctls), then the SCSI world (the
// /dev/sr* or /dev/scd* nodes through their sg twins). A drive under ide-scsi
// emulation is seen by both: the IDE walk remembers its /dev/hd? name, and
// the SCSI walk hands that name's letter to the drive's record.
//
// The operations are spread over files by concern:
//   CDDVDDeviceFinder.cpp      construction, the enumeration, the node prefix,
//                              the classes and the location strings
//   CDDVDDeviceFinderIde.cpp   the pure IDE walk
//   CDDVDDeviceFinderScsi.cpp  the SCSI walk, with the IDE and USB hosts
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"
#include "probes/CSysfsReader.h"

#include <string>
#include <vector>

// The kernel's IDE identity block (linux/hdreg.h), 512 bytes.
struct hd_driveid;

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;
class SCSIGeneric;

class OSTRAND_API CDDVDDeviceFinder : public IDeviceFinder {
public:
    // Builds the SCSIGeneric (semaphore, and the sg module on a 2.6 kernel)
    // and scans the sg nodes under the semaphore: this may wait for another
    // holder, and it pauses 10 seconds when there is no sg node yet.
    CDDVDDeviceFinder();
    virtual ~CDDVDDeviceFinder();
    // The IDE drives in letter order, then the SCSI-side drives in the
    // alphabetical order of their nodes.
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

    // --- The pure IDE walk -------------------------------------------------
    // The drive at /dev/hd<letter>, or null. The record is the caller's.
    IWbemClassObject* getPureIDECDDevice(char letter);
    // 0 for a removable IDE device, -1 otherwise.
    int isCDDevice(int fd, hd_driveid* id);
    // MODE SENSE(10) of page 2A as an ATAPI packet, 24 bytes into `buffer`;
    // the ioctl's result, negative when the drive cannot be spoken to so.
    int isPureIDE(int fd, char* buffer);
    // INQUIRY as an ATAPI packet; the ioctl's result.
    int ideInquiry(int fd, char* buffer, int length);

    // --- The SCSI walk -----------------------------------------------------
    // The drive behind /dev/<nodeName>, or null. The record is the caller's.
    IWbemClassObject* getSCSICDDevice(const char* nodeName);
    // The sg node of CD/DVD type with the address of the open block node, or
    // empty; host, target and channel are written on success only.
    std::string getSgDeviceDescriptor(int fd, int& host, int& target, int& channel);
    // The third character of the attribute of the first device on the bus
    // that is bound to "ide-scsi", or -1.
    int getDeviceNodeFromSysfs(BusType bus, char* attribute);
    // The location fields of a USB drive; true when they were filled.
    bool getUSBCDLoc_ParentLoc(const int& usbNumber, const int& fd, std::string& location,
                               std::string& parentLocation, std::string& serial, std::string& additionalInfo,
                               std::string& resourceTag);

    // --- Classes, text and locations ---------------------------------------
    // From the capability bytes of a MODE SENSE reply of page 2A.
    std::string getDeviceClass(const char* modeSense) const;
    // From the product text of INQUIRY data.
    std::string getDeviceClass(std::string& model) const;
    // "sr" or "scd" by the distribution, into a buffer of at least 5 bytes.
    void getCDDevNode(char* prefix);
    // Mode 't' or 'T' drops trailing blanks, 'l' or 'L' leading ones.
    int trimString(std::string& text, char mode);
    // "Location 0" or "Location 1": master or slave.
    std::string mkDevLocationString(char letter) const;
    // The IDE channel of the drive, from the PCI inventory.
    std::string mkDevParentLocationString(char letter) const;
    // The PCI function of the SCSI host adapter, from the kernel.
    std::string mkDevParentLocationString(int fd) const;

private:
    CDDVDDeviceFinder(const CDDVDDeviceFinder&);
    CDDVDDeviceFinder& operator=(const CDDVDDeviceFinder&);

    PCIUtil* m_pciUtil;
    SCSIGeneric* m_scsiGeneric;
    LinuxUtils* m_linuxUtils;
    std::vector<std::string> m_emulatedIdeNodes;
    int m_usbDeviceCount;
    int m_emulatedIdeIndex;
};

} // namespace Ostrand
} // namespace Vantrel

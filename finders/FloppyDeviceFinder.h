// Floppy drives: those of the board's controller through /dev/fd*, and USB
// drives through the SCSI generic route, told from other USB disks by their
// capacity.
//
// The operations are spread over files by concern:
//   FloppyDeviceFinder.cpp     construction and the walk over both kinds
//   FloppyDeviceFinderIsa.cpp  a drive of the board's controller
//   FloppyDeviceFinderUsb.cpp  a USB drive: its sg node, commands and location
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"

#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;
class SCSIGeneric;

class OSTRAND_API FloppyDeviceFinder : public IDeviceFinder {
public:
    // Creates the SCSIGeneric, scans the sg nodes under its semaphore, and
    // creates the LinuxUtils.
    FloppyDeviceFinder();
    virtual ~FloppyDeviceFinder();
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

    // The drive at /dev/fd<index>, or null. Throws the const char* text
    // "No more Floppies to enumerate" when the driver names no drive type
    // for that number.
    IWbemClassObject* getISAFloppies(int index);
    // The USB floppy drive behind /dev/<nodeName>, or null.
    IWbemClassObject* getUSBFloppies(char* nodeName);
    // The sg node of the open block node fd (a direct-access device), or
    // empty; host, target and channel are written when the address is read.
    std::string getSgDeviceDescriptor(int fd, int& host, int& target, int& channel);
    // The location fields of the USB drive behind the sg descriptor fd, by
    // kernel release. False when nothing, or only "System Board", is known.
    bool getUSBFDDLoc_ParentLoc(const int& usbNumber, const int& fd, std::string& location,
                                std::string& parentLocation, std::string& serial, std::string& additionalInfo,
                                std::string& resourceTag);

private:
    FloppyDeviceFinder(const FloppyDeviceFinder&);
    FloppyDeviceFinder& operator=(const FloppyDeviceFinder&);

    PCIUtil* m_pciUtil;
    SCSIGeneric* m_scsiGeneric;
    LinuxUtils* m_linuxUtils;
    int m_usbDeviceCount;
};

} // namespace Ostrand
} // namespace Vantrel

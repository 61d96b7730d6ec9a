#include "host/models/IoctlNames.h"

#include "host/models/SgModel.h"

#include <cstdio>
#include <cstdlib>
#include <linux/cdrom.h>
#include <linux/fd.h>
#include <linux/hdreg.h>
#include <linux/usbdevice_fs.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <utility>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

const std::pair<unsigned long, const char*> kNames[] = {
    {SG_IO, "SG_IO"},
    {SG_GET_SCSI_ID, "SG_GET_SCSI_ID"},
    {SG_EMULATED_HOST, "SG_EMULATED_HOST"},
    {SCSI_IOCTL_PROBE_HOST, "SCSI_IOCTL_PROBE_HOST"},
    {kScsiIoctlGetPci, "SCSI_IOCTL_GET_PCI"},
    {SCSI_IOCTL_GET_IDLUN, "SCSI_IOCTL_GET_IDLUN"},
    {HDIO_GET_IDENTITY, "HDIO_GET_IDENTITY"},
    {CDROM_SEND_PACKET, "CDROM_SEND_PACKET"},
    {FDPOLLDRVSTAT, "FDPOLLDRVSTAT"},
    {FDGETDRVTYP, "FDGETDRVTYP"},
    {TIOCGSERIAL, "TIOCGSERIAL"},
    {USBDEVFS_CONTROL, "USBDEVFS_CONTROL"},
    {USBDEVFS_GETDRIVER, "USBDEVFS_GETDRIVER"},
    {USBDEVFS_IOCTL, "USBDEVFS_IOCTL"},
};

} // namespace

std::string ioctlName(unsigned long request)
{
    for (const auto& entry : kNames) {
        if (entry.first == request) {
            return entry.second;
        }
    }
    char number[32];
    std::snprintf(number, sizeof number, "0x%lX", request);
    return number;
}

bool ioctlByName(const std::string& name, unsigned long& request)
{
    for (const auto& entry : kNames) {
        if (name == entry.second) {
            request = entry.first;
            return true;
        }
    }
    char* end = nullptr;
    unsigned long number = std::strtoul(name.c_str(), &end, 0);
    if (name.empty() || end == nullptr || *end != '\0' || name[0] == '-') {
        return false;
    }
    request = number;
    return true;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

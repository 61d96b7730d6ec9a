#include "host/record/IoctlCapture.h"

#include "host/models/SgModel.h"

#include <algorithm>
#include <cstring>
#include <linux/cdrom.h>
#include <linux/fd.h>
#include <linux/hdreg.h>
#include <linux/serial.h>
#include <linux/usbdevice_fs.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

std::string bytesAt(const void* pointer, size_t count)
{
    if (pointer == nullptr || count == 0) {
        return "";
    }
    return std::string(static_cast<const char*>(pointer), count);
}

// A text of at most `room` bytes, to its NUL if it has one.
std::string textAt(const void* pointer, size_t room)
{
    if (pointer == nullptr) {
        return "";
    }
    const char* text = static_cast<const char*>(pointer);
    return std::string(text, strnlen(text, room));
}

void sgIoInput(const sg_io_hdr_t& header, RecordedIoctl& call)
{
    if (header.cmdp != nullptr && header.cmd_len > 0) {
        call.input = bytesAt(header.cmdp, header.cmd_len);
    }
    call.direction = header.dxfer_direction;
}

// The data the device sent: the transfer length less what the driver says
// was left over.
void sgIoOutput(const sg_io_hdr_t& header, RecordedIoctl& call)
{
    call.status = header.status;
    if (header.dxfer_direction == SG_DXFER_FROM_DEV || header.dxfer_direction == SG_DXFER_TO_FROM_DEV) {
        int resid = header.resid;
        if (resid < 0 || static_cast<unsigned int>(resid) > header.dxfer_len) {
            resid = 0;
        }
        call.output = bytesAt(header.dxferp, header.dxfer_len - static_cast<unsigned int>(resid));
    }
    if (header.sbp != nullptr) {
        call.sense = bytesAt(header.sbp, std::min<size_t>(header.sb_len_wr, header.mx_sb_len));
    }
}

void packetInput(const cdrom_generic_command& command, RecordedIoctl& call)
{
    call.input = bytesAt(command.cmd, CDROM_PACKET_SIZE);
    call.direction = command.data_direction;
}

// The CD-ROM layer tells no length: the whole buffer is kept, and the sense
// data whenever the status is not GOOD.
void packetOutput(const cdrom_generic_command& command, RecordedIoctl& call)
{
    call.status = command.stat;
    if (call.result >= 0 && command.data_direction == CGC_DATA_READ) {
        call.output = bytesAt(command.buffer, command.buflen);
    }
    if (command.sense != nullptr && command.stat != 0) {
        call.sense = bytesAt(command.sense, sizeof(struct request_sense));
    }
}

} // namespace

void captureInput(unsigned long request, const void* argument, RecordedIoctl& call)
{
    call.request = request;
    if (argument == nullptr) {
        return;
    }
    switch (request) {
    case SG_IO: sgIoInput(*static_cast<const sg_io_hdr_t*>(argument), call); break;
    case CDROM_SEND_PACKET: packetInput(*static_cast<const cdrom_generic_command*>(argument), call); break;
    case USBDEVFS_CONTROL: {
        const auto* transfer = static_cast<const usbdevfs_ctrltransfer*>(argument);
        call.input = bytesAt(transfer, 8); // the setup packet: type, request, value, index, length
        break;
    }
    case USBDEVFS_GETDRIVER:
        call.input = bytesAt(&static_cast<const usbdevfs_getdriver*>(argument)->interface, sizeof(unsigned int));
        break;
    case USBDEVFS_IOCTL: {
        const auto* command = static_cast<const usbdevfs_ioctl*>(argument);
        call.input = bytesAt(&command->ifno, sizeof command->ifno) + bytesAt(&command->ioctl_code, sizeof(int));
        break;
    }
    case SCSI_IOCTL_PROBE_HOST: call.input = bytesAt(argument, sizeof(unsigned int)); break;
    default: break;
    }
}

void captureOutput(unsigned long request, const void* argument, RecordedIoctl& call)
{
    if (argument == nullptr) {
        return;
    }
    switch (request) {
    case SG_IO:
        if (call.result >= 0) {
            sgIoOutput(*static_cast<const sg_io_hdr_t*>(argument), call);
        }
        return;
    case CDROM_SEND_PACKET: packetOutput(*static_cast<const cdrom_generic_command*>(argument), call); return;
    default: break;
    }
    if (call.result < 0) {
        return;
    }
    switch (request) {
    case USBDEVFS_CONTROL: {
        const auto* transfer = static_cast<const usbdevfs_ctrltransfer*>(argument);
        if ((transfer->bRequestType & 0x80) != 0) {
            call.output = bytesAt(transfer->data, static_cast<size_t>(call.result));
        }
        break;
    }
    case USBDEVFS_GETDRIVER: {
        const auto* query = static_cast<const usbdevfs_getdriver*>(argument);
        call.output = textAt(query->driver, sizeof query->driver);
        break;
    }
    case USBDEVFS_IOCTL: {
        const auto* command = static_cast<const usbdevfs_ioctl*>(argument);
        if (command->ioctl_code == static_cast<int>(USBDEVFS_HUB_PORTINFO) && command->data != nullptr) {
            call.output = bytesAt(command->data, sizeof(usbdevfs_hub_portinfo));
        }
        break;
    }
    case SCSI_IOCTL_PROBE_HOST: {
        unsigned int room = 0;
        std::memcpy(&room, call.input.data(), std::min(call.input.size(), sizeof room));
        call.output = textAt(argument, room);
        break;
    }
    case kScsiIoctlGetPci: call.output = textAt(argument, 20); break;
    case HDIO_GET_IDENTITY: call.output = bytesAt(argument, 512); break;
    case SCSI_IOCTL_GET_IDLUN: call.output = bytesAt(argument, 2 * sizeof(int)); break;
    case SG_GET_SCSI_ID: call.output = bytesAt(argument, sizeof(sg_scsi_id)); break;
    case SG_EMULATED_HOST: call.output = bytesAt(argument, sizeof(int)); break;
    case TIOCGSERIAL: call.output = bytesAt(argument, sizeof(struct serial_struct)); break;
    case FDPOLLDRVSTAT: call.output = bytesAt(argument, sizeof(struct floppy_drive_struct)); break;
    case FDGETDRVTYP: call.output = textAt(argument, 16); break;
    default: break;
    }
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// SCSI generic nodes, and the block nodes of the IDE, SCSI disk and CD
// drivers, as recordings write them: the address and texts the driver gave,
// then every command or packet's reply in the order they came.
#include "host/record/MachineText.h"

#include "host/fake/MachineDirectory.h"
#include "host/models/SgModel.h"

#include <cstring>
#include <linux/cdrom.h>
#include <linux/hdreg.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

bool made(const RecordedPath& node, unsigned long request)
{
    for (const auto& call : node.ioctls) {
        if (call.request == request) {
            return true;
        }
    }
    return false;
}

// One reply: a failed call, GOOD with its data, or the status, data and
// sense exactly as they came.
std::string replyWords(const RecordedIoctl& call)
{
    if (call.result < 0 && call.status == 0) {
        return "fail " + errnoName(call.error);
    }
    if (call.status == 0 && call.sense.empty()) {
        return call.output.empty() ? "good" : "good " + hexWord(call.output);
    }
    char status[8];
    std::snprintf(status, sizeof status, "%02X", static_cast<unsigned int>(call.status) & 0xFF);
    std::string words = std::string("status ") + status;
    if (!call.output.empty()) {
        words += " data=" + hexWord(call.output);
    }
    if (!call.sense.empty()) {
        words += " sense=" + hexWord(call.sense);
    }
    return words;
}

void writeReplies(MachineText& out, const std::string& directive, const std::string& path, const RecordedPath& node,
                  unsigned long request, size_t shortest)
{
    for (const auto& call : node.ioctls) {
        if (call.request != request || call.input.size() < shortest) {
            continue;
        }
        int opcode = static_cast<unsigned char>(call.input[0]);
        out.line(directive + " " + path + " " + scsiCommandWord(opcode) + " " + replyWords(call));
    }
}

std::string identityOption(MachineText& out, const std::string& path, const RecordedPath& node)
{
    const RecordedIoctl* identity = firstAnswer(node, HDIO_GET_IDENTITY);
    if (identity == nullptr || identity->output.size() != 512) {
        return "";
    }
    return " identity=" + out.data("ide/" + fileNameOf(path.substr(path.rfind('/') + 1)) + "-identity.bin",
                                   identity->output);
}

} // namespace

bool writeSgNode(MachineText& out, const std::string& path, const RecordedPath& node)
{
    if (!made(node, SG_GET_SCSI_ID) && !made(node, SG_IO) && !made(node, SG_EMULATED_HOST) &&
        !made(node, SCSI_IOCTL_PROBE_HOST)) {
        return false;
    }
    sg_scsi_id id;
    std::memset(&id, 0, sizeof id);
    id.h_cmd_per_lun = 1;
    id.d_queue_depth = 1;
    const RecordedIoctl* address = firstAnswer(node, SG_GET_SCSI_ID);
    if (address != nullptr && address->output.size() == sizeof id) {
        std::memcpy(&id, address->output.data(), sizeof id);
    }
    int emulated = 0;
    const RecordedIoctl* emulation = firstAnswer(node, SG_EMULATED_HOST);
    if (emulation != nullptr && emulation->output.size() == sizeof emulated) {
        std::memcpy(&emulated, emulation->output.data(), sizeof emulated);
    }
    out.line("sg " + path + " host=" + std::to_string(id.host_no) + " channel=" + std::to_string(id.channel) +
             " id=" + std::to_string(id.scsi_id) + " lun=" + std::to_string(id.lun) +
             " type=" + std::to_string(id.scsi_type) + " emulated=" + (emulated != 0 ? "1" : "0") +
             " cmd-per-lun=" + std::to_string(id.h_cmd_per_lun) + " queue-depth=" + std::to_string(id.d_queue_depth));
    const RecordedIoctl* probe = firstAnswer(node, SCSI_IOCTL_PROBE_HOST);
    if (probe != nullptr && !probe->output.empty()) {
        out.line("sg-probe-host " + path + " " + escaped(probe->output));
    }
    const RecordedIoctl* parent = firstAnswer(node, kScsiIoctlGetPci);
    if (parent != nullptr) {
        out.line("sg-pci " + path + " " + escaped(parent->output));
    }
    // A header the driver refuses (no command block) carries no command.
    writeReplies(out, "sg-reply", path, node, SG_IO, 6);
    return true;
}

bool writeBlockNode(MachineText& out, const std::string& path, const RecordedPath& node)
{
    bool scsi = made(node, SCSI_IOCTL_GET_IDLUN);
    if (!scsi && !made(node, HDIO_GET_IDENTITY) && !made(node, CDROM_SEND_PACKET)) {
        return false;
    }
    const RecordedIoctl* idLun = firstAnswer(node, SCSI_IOCTL_GET_IDLUN);
    if (scsi && idLun != nullptr && idLun->output.size() == 2 * sizeof(int)) {
        unsigned int packed = 0;
        int uniqueId = 0;
        std::memcpy(&packed, idLun->output.data(), sizeof packed);
        std::memcpy(&uniqueId, idLun->output.data() + sizeof packed, sizeof uniqueId);
        out.line("scsi-block " + path + " host=" + std::to_string((packed >> 24) & 0xFF) +
                 " channel=" + std::to_string((packed >> 16) & 0xFF) + " id=" + std::to_string(packed & 0xFF) +
                 " lun=" + std::to_string((packed >> 8) & 0xFF) + " unique-id=" + std::to_string(uniqueId) +
                 identityOption(out, path, node));
        const RecordedIoctl* parent = firstAnswer(node, kScsiIoctlGetPci);
        if (parent != nullptr) {
            out.line("scsi-block-pci " + path + " " + escaped(parent->output));
        }
    } else {
        out.line("ide " + path + identityOption(out, path, node));
    }
    writeReplies(out, "ide-packet", path, node, CDROM_SEND_PACKET, 1);
    return true;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

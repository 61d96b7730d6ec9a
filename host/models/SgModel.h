// A SCSI generic node (/dev/sg*) of a fake machine: the SCSI address that
// SG_GET_SCSI_ID gives, whether the host adapter is emulated, the adapter's
// text (SCSI_IOCTL_PROBE_HOST) and parent device (SCSI_IOCTL_GET_PCI), and
// the device's replies to the commands sent through SG_IO.
//
// Each SG_IO is recorded as "SG_IO " and the command's name ("SG_IO
// INQUIRY", "SG_IO MODE SENSE(10)", "SG_IO TEST UNIT READY", "SG_IO READ
// CAPACITY", "SG_IO opcode 0xNN" for others), with the command block in the
// event's input; headers() keeps each header as it came in.
#pragma once

#include "host/models/DeviceModel.h"

#include <cstdint>
#include <map>
#include <scsi/sg.h>
#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

// The kernel's request for the name of the host adapter's parent device. No
// user-space header carries it.
constexpr unsigned long kScsiIoctlGetPci = 0x5387;

// SCSI operation codes the model names.
constexpr int kTestUnitReady = 0x00;
constexpr int kInquiry = 0x12;
constexpr int kModeSense6 = 0x1A;
constexpr int kReadCapacity10 = 0x25;
constexpr int kModeSense10 = 0x5A;

struct ScsiAddress {
    int host = 0;
    int channel = 0;
    int id = 0;
    int lun = 0;
    int type = 0;
};

// One answer of the device to one command.
struct SgReply {
    int error = 0;            // an errno value: the ioctl itself fails
    unsigned char status = 0; // SCSI status: 0 GOOD, 2 CHECK CONDITION, 8 BUSY
    std::string data;         // what the device sends, cut to dxfer_len
    std::string sense;        // sense data, cut to mx_sb_len
    int senseLength = -1;     // what sb_len_wr reports; -1: the bytes copied

    static SgReply good(const std::string& data = "");
    // CHECK CONDITION with fixed-format sense data (0x70, 18 bytes).
    static SgReply check(int key, int code, int qualifier = 0);
    // CHECK CONDITION with descriptor-format sense data (0x72, 8 bytes).
    static SgReply checkDescriptor(int key, int code, int qualifier = 0);
    static SgReply failure(int error);
};

// What standard INQUIRY data say.
struct InquiryFields {
    int type = 0;
    bool removable = false;
    std::string vendor;
    std::string product;
    std::string revision;
};

// The 36 bytes of standard INQUIRY data: the texts padded with blanks (cut
// if longer), version 5, response format 2, additional length 31.
std::string inquiryData(const InquiryFields& fields);
// READ CAPACITY(10) data: the last block's address and the block length, big-endian.
std::string capacityData(uint32_t lastBlock, uint32_t blockLength);
// A command's name as the events show it: "INQUIRY", "opcode 0x4A".
std::string scsiCommandName(int opcode);

class SgModel : public DeviceModel {
public:
    explicit SgModel(const ScsiAddress& address);

    // The node's address; changing it shows what a later scan sees.
    void setAddress(const ScsiAddress& address) { m_address = address; }
    const ScsiAddress& address() const { return m_address; }
    void setQueue(short commandsPerLun, short queueDepth);
    void setEmulated(bool emulated) { m_emulated = emulated; }
    // The adapter's text. Without one, SCSI_IOCTL_PROBE_HOST leaves the
    // buffer as it was (an adapter with no name) and still answers 1.
    void setProbeHost(const std::string& text);
    // The parent device's name. Without one, SCSI_IOCTL_GET_PCI fails with ENXIO.
    void setPci(const std::string& text);
    // The default INQUIRY answer. Until set: the address's type, blank texts.
    void setInquiry(const InquiryFields& fields) { m_inquiry = fields; }
    const InquiryFields& inquiry() const { return m_inquiry; }
    // Appends a reply for the opcode: successive commands take successive
    // replies, and the last one stays. Without replies, INQUIRY answers from
    // the inquiry fields, TEST UNIT READY is good, and other commands get
    // ILLEGAL REQUEST, INVALID COMMAND OPERATION CODE.
    void addReply(int opcode, const SgReply& reply);

    int open(int flags) override;
    // The flags of each open, in order.
    const std::vector<int>& openFlags() const { return m_openFlags; }
    // Each SG_IO header as it came in (its pointers are the caller's and may be gone).
    const std::vector<sg_io_hdr_t>& headers() const { return m_headers; }
    // How many SG_IO commands with this opcode were answered.
    int timesSent(int opcode) const;

private:
    int getScsiId(void* argument) const;
    int emulatedHost(void* argument) const;
    int probeHost(void* argument, IoctlRecord& event) const;
    int getPci(void* argument) const;
    int sgIo(void* argument, IoctlRecord& event);
    SgReply nextReply(int opcode);

    ScsiAddress m_address;
    short m_commandsPerLun = 1;
    short m_queueDepth = 1;
    bool m_emulated = false;
    bool m_hasProbeHost = false;
    std::string m_probeHost;
    bool m_hasPci = false;
    std::string m_pci;
    InquiryFields m_inquiry;
    std::map<int, std::vector<SgReply>> m_replies;
    std::map<int, int> m_sent;
    std::vector<int> m_openFlags;
    std::vector<sg_io_hdr_t> m_headers;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// An IDE (ATAPI) block node (/dev/hd*) of a fake machine: HDIO_GET_IDENTITY
// answers with a 512-byte identity block, and CDROM_SEND_PACKET carries ATAPI
// packets to the device, which answers them from a table of replies.
//
// Each packet is recorded as "CDROM_SEND_PACKET " and the command's name
// ("CDROM_SEND_PACKET INQUIRY", "CDROM_SEND_PACKET MODE SENSE(10)", or
// "CDROM_SEND_PACKET opcode 0xNN"), with the 12 packet bytes in the event's
// input; packets() keeps what came with each. HDIO_GET_IDENTITY is recorded
// as such.
#pragma once

#include "host/models/DeviceModel.h"
#include "host/models/SgModel.h"

#include <map>
#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

class IdeModel : public DeviceModel {
public:
    // What came with one CDROM_SEND_PACKET besides the packet bytes.
    struct Packet {
        std::string command;  // the 12 bytes
        unsigned int buflen = 0;
        unsigned char dataDirection = 0;
        int timeout = 0;
        bool withBuffer = false;
        bool withSense = false;
    };

    IdeModel();

    // The identity block: cut or padded with zeros to 512 bytes. Without
    // one, HDIO_GET_IDENTITY fails with EINVAL, as on a node whose driver
    // has no identity to give.
    void setIdentity(const std::string& block);
    bool hasIdentity() const { return m_hasIdentity; }
    // Whether the driver knows packets at all. A node that does not (an hd
    // node handed to ide-scsi) fails every CDROM_SEND_PACKET with EINVAL.
    void setPackets(bool known) { m_packets = known; }
    // The INQUIRY data. Until set: type 5 (CD/DVD), blank texts.
    void setInquiry(const InquiryFields& fields) { m_inquiry = fields; }
    const InquiryFields& inquiry() const { return m_inquiry; }
    // Appends a reply for the packet's opcode: successive packets take
    // successive replies, and the last one stays. Without replies, INQUIRY
    // answers from the inquiry fields and other packets get ILLEGAL REQUEST,
    // INVALID COMMAND OPERATION CODE. A reply with a status other than GOOD
    // fails the ioctl with EIO, with the sense data and the status handed back.
    void addReply(int opcode, const SgReply& reply);

    int open(int flags) override;
    // The flags of each open, in order.
    const std::vector<int>& openFlags() const { return m_openFlags; }
    const std::vector<Packet>& packets() const { return m_sentPackets; }
    int timesSent(int opcode) const;

private:
    int getIdentity(void* argument) const;
    int sendPacket(void* argument, IoctlRecord& event);
    SgReply nextReply(int opcode);

    bool m_hasIdentity = false;
    std::string m_identity;
    bool m_packets = true;
    InquiryFields m_inquiry;
    std::map<int, std::vector<SgReply>> m_replies;
    std::map<int, int> m_sent;
    std::vector<Packet> m_sentPackets;
    std::vector<int> m_openFlags;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

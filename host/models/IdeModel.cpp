#include "host/models/IdeModel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/cdrom.h>
#include <linux/hdreg.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

const size_t kIdentitySize = 512;

} // namespace

IdeModel::IdeModel()
{
    m_inquiry.type = 5;
    answer(HDIO_GET_IDENTITY, "HDIO_GET_IDENTITY",
           [this](FakeMachine&, void* argument, IoctlRecord&) { return getIdentity(argument); });
    answer(CDROM_SEND_PACKET, "CDROM_SEND_PACKET",
           [this](FakeMachine&, void* argument, IoctlRecord& event) { return sendPacket(argument, event); });
}

void IdeModel::setIdentity(const std::string& block)
{
    m_identity = block.substr(0, kIdentitySize);
    m_identity.resize(kIdentitySize, '\0');
    m_hasIdentity = true;
}

int IdeModel::open(int flags)
{
    m_openFlags.push_back(flags);
    return 0;
}

void IdeModel::addReply(int opcode, const SgReply& reply) { m_replies[opcode & 0xFF].push_back(reply); }

int IdeModel::timesSent(int opcode) const
{
    auto it = m_sent.find(opcode & 0xFF);
    return it == m_sent.end() ? 0 : it->second;
}

int IdeModel::getIdentity(void* argument) const
{
    if (!m_hasIdentity) {
        return -EINVAL;
    }
    if (argument == nullptr) {
        return -EFAULT;
    }
    std::memcpy(argument, m_identity.data(), kIdentitySize);
    return 0;
}

SgReply IdeModel::nextReply(int opcode)
{
    auto it = m_replies.find(opcode);
    if (it != m_replies.end() && !it->second.empty()) {
        SgReply reply = it->second.front();
        if (it->second.size() > 1) {
            it->second.erase(it->second.begin());
        }
        return reply;
    }
    if (opcode == kInquiry) {
        return SgReply::good(inquiryData(m_inquiry));
    }
    return SgReply::check(5, 0x20);
}

// As the CD-ROM layer does it: the status goes back into `stat`, the sense
// data (as much as the kernel's request_sense holds) to the caller's sense
// block, and the data to the caller's buffer only when the command succeeded.
int IdeModel::sendPacket(void* argument, IoctlRecord& event)
{
    if (!m_packets) {
        return -EINVAL;
    }
    if (argument == nullptr) {
        return -EFAULT;
    }
    auto* command = static_cast<struct cdrom_generic_command*>(argument);
    Packet packet;
    packet.command.assign(reinterpret_cast<const char*>(command->cmd), CDROM_PACKET_SIZE);
    packet.buflen = command->buflen;
    packet.dataDirection = command->data_direction;
    packet.timeout = command->timeout;
    packet.withBuffer = command->buffer != nullptr;
    packet.withSense = command->sense != nullptr;
    m_sentPackets.push_back(packet);

    int opcode = command->cmd[0];
    event.name = "CDROM_SEND_PACKET " + scsiCommandName(opcode);
    event.input = packet.command;
    ++m_sent[opcode];

    SgReply reply = nextReply(opcode);
    if (reply.error != 0) {
        return -reply.error;
    }
    command->stat = reply.status;
    if (command->sense != nullptr && !reply.sense.empty()) {
        size_t count = std::min(reply.sense.size(), sizeof(struct request_sense));
        std::memcpy(command->sense, reply.sense.data(), count);
    }
    if (reply.status != 0) {
        return -EIO;
    }
    if (command->data_direction == CGC_DATA_READ) {
        size_t count = std::min<size_t>(reply.data.size(), command->buflen);
        if (count > 0 && command->buffer == nullptr) {
            return -EFAULT;
        }
        if (count > 0) {
            std::memcpy(command->buffer, reply.data.data(), count);
        }
    }
    return 0;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

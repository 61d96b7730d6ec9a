#include "host/models/SgModel.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <scsi/scsi.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

// The driver's note that sense data came back.
const unsigned char kDriverSense = 0x08;

std::string padded(const std::string& text, size_t length)
{
    std::string field = text.substr(0, length);
    field.resize(length, ' ');
    return field;
}

} // namespace

SgReply SgReply::good(const std::string& data)
{
    SgReply reply;
    reply.data = data;
    return reply;
}

SgReply SgReply::check(int key, int code, int qualifier)
{
    SgReply reply;
    reply.status = 2;
    reply.sense.assign(18, '\0');
    reply.sense[0] = '\x70';
    reply.sense[2] = static_cast<char>(key & 0x0F);
    reply.sense[7] = 10; // additional sense length
    reply.sense[12] = static_cast<char>(code);
    reply.sense[13] = static_cast<char>(qualifier);
    return reply;
}

SgReply SgReply::checkDescriptor(int key, int code, int qualifier)
{
    SgReply reply;
    reply.status = 2;
    reply.sense.assign(8, '\0');
    reply.sense[0] = '\x72';
    reply.sense[1] = static_cast<char>(key & 0x0F);
    reply.sense[2] = static_cast<char>(code);
    reply.sense[3] = static_cast<char>(qualifier);
    return reply;
}

SgReply SgReply::failure(int error)
{
    SgReply reply;
    reply.error = error;
    return reply;
}

std::string inquiryData(const InquiryFields& fields)
{
    std::string data(8, '\0');
    data[0] = static_cast<char>(fields.type & 0x1F);
    data[1] = static_cast<char>(fields.removable ? 0x80 : 0x00);
    data[2] = 0x05; // version: SPC-3
    data[3] = 0x02; // response data format
    data[4] = 31;   // additional length: 36 bytes in all
    data += padded(fields.vendor, 8);
    data += padded(fields.product, 16);
    data += padded(fields.revision, 4);
    return data;
}

std::string capacityData(uint32_t lastBlock, uint32_t blockLength)
{
    std::string data;
    for (uint32_t value : {lastBlock, blockLength}) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            data += static_cast<char>((value >> shift) & 0xFF);
        }
    }
    return data;
}

std::string scsiCommandName(int opcode)
{
    switch (opcode) {
    case kTestUnitReady: return "TEST UNIT READY";
    case kInquiry: return "INQUIRY";
    case kModeSense6: return "MODE SENSE(6)";
    case kReadCapacity10: return "READ CAPACITY";
    case kModeSense10: return "MODE SENSE(10)";
    default: {
        char name[32];
        std::snprintf(name, sizeof name, "opcode 0x%02X", static_cast<unsigned int>(opcode) & 0xFF);
        return name;
    }
    }
}

SgModel::SgModel(const ScsiAddress& address) : m_address(address)
{
    m_inquiry.type = address.type;
    answer(SG_GET_SCSI_ID, "SG_GET_SCSI_ID",
           [this](FakeMachine&, void* argument, IoctlRecord&) { return getScsiId(argument); });
    answer(SG_EMULATED_HOST, "SG_EMULATED_HOST",
           [this](FakeMachine&, void* argument, IoctlRecord&) { return emulatedHost(argument); });
    answer(SCSI_IOCTL_PROBE_HOST, "SCSI_IOCTL_PROBE_HOST",
           [this](FakeMachine&, void* argument, IoctlRecord& event) { return probeHost(argument, event); });
    answer(kScsiIoctlGetPci, "SCSI_IOCTL_GET_PCI",
           [this](FakeMachine&, void* argument, IoctlRecord&) { return getPci(argument); });
    answer(SG_IO, "SG_IO", [this](FakeMachine&, void* argument, IoctlRecord& event) { return sgIo(argument, event); });
}

void SgModel::setQueue(short commandsPerLun, short queueDepth)
{
    m_commandsPerLun = commandsPerLun;
    m_queueDepth = queueDepth;
}

void SgModel::setProbeHost(const std::string& text)
{
    m_probeHost = text;
    m_hasProbeHost = true;
}

void SgModel::setPci(const std::string& text)
{
    m_pci = text;
    m_hasPci = true;
}

void SgModel::addReply(int opcode, const SgReply& reply) { m_replies[opcode & 0xFF].push_back(reply); }

int SgModel::open(int flags)
{
    m_openFlags.push_back(flags);
    return 0;
}

int SgModel::timesSent(int opcode) const
{
    auto it = m_sent.find(opcode & 0xFF);
    return it == m_sent.end() ? 0 : it->second;
}

int SgModel::getScsiId(void* argument) const
{
    if (argument == nullptr) {
        return -EFAULT;
    }
    auto* id = static_cast<sg_scsi_id*>(argument);
    std::memset(id, 0, sizeof *id);
    id->host_no = m_address.host;
    id->channel = m_address.channel;
    id->scsi_id = m_address.id;
    id->lun = m_address.lun;
    id->scsi_type = m_address.type;
    id->h_cmd_per_lun = m_commandsPerLun;
    id->d_queue_depth = m_queueDepth;
    return 0;
}

int SgModel::emulatedHost(void* argument) const
{
    if (argument == nullptr) {
        return -EFAULT;
    }
    *static_cast<int*>(argument) = m_emulated ? 1 : 0;
    return 0;
}

// As the kernel does it: the first unsigned int of the buffer is the room the
// caller has; a text shorter than that goes in with its NUL, a longer one is
// cut to the room, without a NUL. The answer is 1.
int SgModel::probeHost(void* argument, IoctlRecord& event) const
{
    if (argument == nullptr) {
        return 1;
    }
    auto* buffer = static_cast<char*>(argument);
    unsigned int room = 0;
    std::memcpy(&room, buffer, sizeof room);
    event.input.assign(buffer, sizeof room);
    if (m_hasProbeHost) {
        size_t length = room;
        if (length > m_probeHost.size()) {
            length = m_probeHost.size() + 1;
        }
        std::memcpy(buffer, m_probeHost.c_str(), length);
    }
    return 1;
}

// As the kernel does it: at most 20 characters, no NUL.
int SgModel::getPci(void* argument) const
{
    if (!m_hasPci) {
        return -ENXIO;
    }
    if (argument == nullptr) {
        return -EFAULT;
    }
    std::memcpy(argument, m_pci.data(), std::min<size_t>(m_pci.size(), 20));
    return 0;
}

SgReply SgModel::nextReply(int opcode)
{
    auto it = m_replies.find(opcode);
    if (it != m_replies.end() && !it->second.empty()) {
        SgReply reply = it->second.front();
        if (it->second.size() > 1) {
            it->second.erase(it->second.begin());
        }
        return reply;
    }
    switch (opcode) {
    case kInquiry: return SgReply::good(inquiryData(m_inquiry));
    case kTestUnitReady: return SgReply::good();
    default: return SgReply::check(5, 0x20);
    }
}

int SgModel::sgIo(void* argument, IoctlRecord& event)
{
    if (argument == nullptr) {
        return -EFAULT;
    }
    auto* header = static_cast<sg_io_hdr_t*>(argument);
    m_headers.push_back(*header);
    // What the driver refuses before the device hears of it.
    if (header->interface_id != 'S') {
        return -ENOSYS;
    }
    if (header->cmdp == nullptr || header->cmd_len < 6 || header->cmd_len > 16) {
        return -EMSGSIZE;
    }
    event.input.assign(reinterpret_cast<const char*>(header->cmdp), header->cmd_len);
    int opcode = header->cmdp[0];
    event.name = "SG_IO " + scsiCommandName(opcode);
    ++m_sent[opcode];

    SgReply reply = nextReply(opcode);
    if (reply.error != 0) {
        return -reply.error;
    }
    size_t count = 0;
    if (header->dxfer_direction == SG_DXFER_FROM_DEV || header->dxfer_direction == SG_DXFER_TO_FROM_DEV) {
        count = std::min<size_t>(reply.data.size(), header->dxfer_len);
        if (count > 0 && header->dxferp == nullptr) {
            return -EFAULT;
        }
        if (count > 0) {
            std::memcpy(header->dxferp, reply.data.data(), count);
        }
    }
    header->resid = static_cast<int>(header->dxfer_len - count);
    size_t senseCount = header->sbp == nullptr ? 0 : std::min<size_t>(reply.sense.size(), header->mx_sb_len);
    if (senseCount > 0) {
        std::memcpy(header->sbp, reply.sense.data(), senseCount);
    }
    header->sb_len_wr = static_cast<unsigned char>(reply.senseLength >= 0 ? reply.senseLength : senseCount);
    header->status = reply.status;
    header->masked_status = static_cast<unsigned char>((reply.status >> 1) & 0x7F);
    header->msg_status = 0;
    header->host_status = 0;
    header->driver_status = senseCount > 0 ? kDriverSense : 0;
    header->info = reply.status != 0 || senseCount > 0 ? SG_INFO_CHECK : SG_INFO_OK;
    header->duration = 1;
    return 0;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

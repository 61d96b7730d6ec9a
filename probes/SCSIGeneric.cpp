#include "probes/SCSIGeneric.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "probes/ScsiData.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <scsi/scsi.h>

namespace Vantrel {
namespace Ostrand {

static_assert(SG_IO == 0x2285, "SG_IO");
static_assert(SG_GET_SCSI_ID == 0x2276, "SG_GET_SCSI_ID");
static_assert(SG_EMULATED_HOST == 0x2203, "SG_EMULATED_HOST");
static_assert(SCSI_IOCTL_PROBE_HOST == 0x5385, "SCSI_IOCTL_PROBE_HOST");

namespace {

const unsigned char kInquiry = 0x12;
const unsigned char kModeSense10 = 0x5A;
const unsigned char kReadCapacity = 0x25;

// The sense buffer of scsiGenericIoctl, and the sense and data buffers of
// the medium commands.
const int kSenseLength = 32;
const int kMediumSenseLength = 64;
const int kMediumDataLength = 8;

// SCSI status CHECK CONDITION.
const unsigned char kCheckCondition = 2;

// What the SG_PROBE_HOST buffer holds, and the length the kernel is told it has.
const int kProbeBufferLength = 264;
const int kProbeTextLength = 250;

// Fills the fields that every command of this class sends.
void prepareHeader(sg_io_hdr_t& header, void* data, unsigned int dataLength, unsigned char* sense,
                   unsigned char senseLength)
{
    std::memset(&header, 0, sizeof header);
    header.interface_id = 'S';
    header.dxfer_direction = SG_DXFER_FROM_DEV;
    header.mx_sb_len = senseLength;
    header.dxfer_len = dataLength;
    header.dxferp = data;
    header.sbp = sense;
    header.timeout = SG_COMMAND_TIMEOUT_MS;
}

// The command block of scsiGenericIoctl's opcode; any other opcode gets none
// (cmd_len 0), which the kernel refuses.
void buildCommandBlock(int opcode, int length, unsigned char* block, sg_io_hdr_t& header)
{
    if (opcode == kInquiry) {
        block[0] = kInquiry;
        block[4] = static_cast<unsigned char>(length & 0xFF);
        header.cmdp = block;
        header.cmd_len = 6;
    } else if (opcode == kModeSense10) {
        block[0] = kModeSense10;
        block[1] = 0x08; // no block descriptors
        block[2] = 0x2A; // the CD capabilities page
        block[7] = static_cast<unsigned char>((length >> 8) & 0xFF);
        block[8] = static_cast<unsigned char>(length & 0xFF);
        header.cmdp = block;
        header.cmd_len = 10;
    }
}

// TEST UNIT READY and READ CAPACITY: a 64-byte sense buffer and an 8-byte
// data buffer, also for TEST UNIT READY, which moves no data.
struct MediumCommand {
    sg_io_hdr_t header;
    unsigned char sense[kMediumSenseLength];
    unsigned char data[kMediumDataLength];
    unsigned char block[10];

    MediumCommand(const unsigned char* command, unsigned char length)
    {
        std::memset(sense, 0, sizeof sense);
        std::memset(data, 0, sizeof data);
        std::memset(block, 0, sizeof block);
        std::memcpy(block, command, length);
        prepareHeader(header, data, sizeof data, sense, sizeof sense);
        header.cmdp = block;
        header.cmd_len = length;
    }

    int send(int fd)
    {
        errno = 0;
        return host::ioctl(fd, SG_IO, &header);
    }
};

// What the sense data of a medium command say.
enum class MediumSense { None, IllegalRequest, MediumChanged, NoMedium, IncompatibleMedium, FormatCorrupted, Other };

MediumSense readMediumSense(const MediumCommand& command)
{
    const sg_io_hdr_t& header = command.header;
    if (header.status != kCheckCondition || header.sbp == nullptr) {
        return MediumSense::None;
    }
    SenseReading sense = readSense(command.sense, sizeof command.sense, header.sb_len_wr);
    if (!sense.usable) {
        return MediumSense::None;
    }
    if (sense.key == 5) {
        return MediumSense::IllegalRequest;
    }
    switch (sense.code) {
    case 0x28: return MediumSense::MediumChanged;
    case 0x3A: return MediumSense::NoMedium;
    case 0x30: return MediumSense::IncompatibleMedium;
    case 0x31: return MediumSense::FormatCorrupted;
    default: return MediumSense::Other;
    }
}

} // namespace

// The light object's semaphore id leads nowhere and its flag is clear, so that
// its destructor only destroys the map.
SCSIGeneric::SCSIGeneric(int) : m_numOfValidSgNodes(0), m_sgNodes(), m_semId(-1), m_semLocked(false) {}

// The node count is 0 until the first scan, not a value left to chance.
SCSIGeneric::SCSIGeneric() : m_numOfValidSgNodes(0), m_sgNodes(), m_semId(-1), m_semLocked(false)
{
    m_semLocked = false;
    m_semId = zt_sem_create(SCSI_GENERIC_SEM_KEY);
    loadSgModule();
}

SCSIGeneric::~SCSIGeneric()
{
    if (m_semLocked) {
        zt_sem_relinquish(m_semId);
    }
}

void SCSIGeneric::loadSgModule()
{
    struct utsname name;
    std::memset(&name, 0, sizeof name);
    host::uname(&name);
    // On 2.4 and on later kernels no module is loaded.
    if (std::strncmp(name.release, "2.6", 3) != 0) {
        return;
    }
    FILE* tool = host::popen("modprobe -v sg 2>&1", "r");
    if (tool == nullptr) {
        return;
    }
    char line[256];
    std::memset(line, 0, sizeof line);
    while (std::fgets(line, sizeof line, tool) != nullptr) {
    }
    host::pclose(tool);
}

int SCSIGeneric::sempahore_lock()
{
    int result = zt_sem_wait(m_semId);
    // semop answers 0 on success, so a successful lock leaves the flag clear
    // and the destructor never gives back a lock that a caller forgot.
    // Releasing is the caller's job; SEM_UNDO is the net. Kept as it is.
    if (result > 0) {
        m_semLocked = true;
    }
    return result;
}

int SCSIGeneric::sempahore_unlock()
{
    int result = zt_sem_relinquish(m_semId);
    m_semLocked = false;
    return result;
}

void SCSIGeneric::setnumOfValidSgNodes()
{
    LinuxUtils utils;
    // Static, since c_pNodeStr keeps pointing at it after the call.
    static char prefix[] = "sg";
    dirent** entries = nullptr;

    // 1. The entries of /dev/ named sg*, in alphabetical order.
    int count = utils.numofDevNodes(prefix, &entries);
    if (count < 0) {
        m_numOfValidSgNodes = 0;
        return;
    }

    // 2. None yet: the driver may still be making them. One wait, one retry.
    if (count == 0) {
        std::free(entries);
        entries = nullptr;
        host::sleepForSeconds(10);
        count = utils.numofDevNodes(prefix, &entries);
        // A failure of the second asking counts as no entries.
        if (count < 0) {
            count = 0;
            entries = nullptr;
        }
    }

    // Zeroed once for the whole walk, not for each node.
    sg_scsi_id record;
    std::memset(&record, 0, sizeof record);

    for (int i = 0; i < count; ++i) {
        // 3. Open the node.
        std::string path = std::string("/dev/") + entries[i]->d_name;
        errno = 0;
        int fd = host::open(path.c_str(), O_RDONLY | O_NONBLOCK);
        // 4. A busy node is passed over.
        if (fd < 0 && errno == EBUSY) {
            continue;
        }
        // 5. Any other failure to open still asks: the bad descriptor fails the ioctl.
        if (scsiGenericIoctl(fd, SG_GET_SCSI_ID, 0, &record, 0) < 0) {
            // 6. Closed only if above 0.
            if (fd > 0) {
                host::close(fd);
            }
            continue;
        }
        // 7. A path already in the map keeps its old record.
        m_sgNodes.insert(std::make_pair(path, record));
        host::close(fd);
    }

    // 8. Entries in reverse order, then the list.
    for (int i = count - 1; i >= 0; --i) {
        std::free(entries[i]);
    }
    std::free(entries);

    // 9. What the map holds, vanished nodes of earlier scans included.
    m_numOfValidSgNodes = static_cast<int>(m_sgNodes.size());
}

int SCSIGeneric::getNumofActiveSGs() { return m_numOfValidSgNodes; }

std::string SCSIGeneric::getSgfromMap(int scsi_type, int host_no, int scsi_id, int lun, int channel)
{
    for (const auto& node : m_sgNodes) {
        const sg_scsi_id& id = node.second;
        if (id.scsi_type == scsi_type && id.host_no == host_no && id.scsi_id == scsi_id && id.lun == lun &&
            id.channel == channel) {
            return node.first;
        }
    }
    return "";
}

int SCSIGeneric::scsiGenericIoctl(int fd, int ioctlCode, int opcode, void* buffer, int length)
{
    // 1. The node's address; opcode and length play no part.
    if (ioctlCode == SG_GET_SCSI_ID) {
        errno = 0;
        return host::ioctl(fd, SG_GET_SCSI_ID, buffer);
    }
    // 2. Nothing else but SG_IO.
    if (ioctlCode != SG_IO) {
        return -2;
    }
    // 3. The header and the command block.
    sg_io_hdr_t header;
    unsigned char sense[kSenseLength];
    unsigned char block[10];
    std::memset(sense, 0, sizeof sense);
    std::memset(block, 0, sizeof block);
    prepareHeader(header, buffer, static_cast<unsigned int>(length), sense, sizeof sense);
    buildCommandBlock(opcode, length, block, header);
    // 4. A status other than GOOD is judged by the sense key alone: any key
    // but NOT READY counts as success.
    errno = 0;
    int result = host::ioctl(fd, SG_IO, &header);
    if (header.status == 0) {
        return result;
    }
    return checkSenseBuffer(sense, header.sb_len_wr);
}

int SCSIGeneric::checkSenseBuffer(unsigned char* sense, int)
{
    // The buffer is the 32 bytes of scsiGenericIoctl, or the caller's.
    return senseKeyAtByteTwo(sense, kSenseLength) == 2 ? 2 : 0;
}

int SCSIGeneric::doTestUnitReady(int fd)
{
    const unsigned char testUnitReady[6] = {0, 0, 0, 0, 0, 0};
    MediumCommand command(testUnitReady, sizeof testUnitReady);
    if (command.send(fd) < 0) {
        return errno;
    }
    switch (readMediumSense(command)) {
    case MediumSense::IllegalRequest: return -1;
    case MediumSense::MediumChanged:
        // The medium may have changed: once more, whatever it answers.
        command.send(fd);
        return 0;
    case MediumSense::NoMedium: return ENOMEDIUM;
    default: return 0;
    }
}

int SCSIGeneric::doReadCapacity(int fd, int& blocks)
{
    const unsigned char readCapacity[10] = {kReadCapacity, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    MediumCommand command(readCapacity, sizeof readCapacity);
    int result = command.send(fd);
    if (result < 0) {
        return result;
    }
    switch (readMediumSense(command)) {
    case MediumSense::IllegalRequest: return -1;
    case MediumSense::MediumChanged: command.send(fd); break;
    case MediumSense::NoMedium: return 0x3A;
    case MediumSense::IncompatibleMedium: return 0x30;
    case MediumSense::FormatCorrupted: return 0x31;
    default: break;
    }
    // Also after another CHECK CONDITION: the zeroed data give 1.
    blocks = capacityBlocks(command.data, sizeof command.data);
    return 0;
}

int SCSIGeneric::isEmulated(int fd)
{
    // 1. Asked, and only its failure counts.
    int emulated = 0;
    errno = 0;
    if (host::ioctl(fd, SG_EMULATED_HOST, &emulated) < 0) {
        return -1;
    }
    // 2. The host adapter's text; the first int tells the kernel how much room there is.
    char probe[kProbeBufferLength];
    std::memset(probe, 0, sizeof probe);
    int room = kProbeTextLength;
    std::memcpy(probe, &room, sizeof room);
    errno = 0;
    if (host::ioctl(fd, SCSI_IOCTL_PROBE_HOST, probe) < 0) {
        return -1;
    }
    // 3. Case-sensitive, "IDE" first.
    std::string text(probe, strnlen(probe, sizeof probe));
    if (text.find("IDE") != std::string::npos) {
        return SG_HOST_IDE;
    }
    if (text.find("USB") != std::string::npos) {
        return SG_HOST_USB;
    }
    return SG_HOST_OTHER;
}

} // namespace Ostrand
} // namespace Vantrel

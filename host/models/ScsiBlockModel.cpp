#include "host/models/ScsiBlockModel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <scsi/scsi.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

unsigned int packedScsiId(const ScsiAddress& address)
{
    return (static_cast<unsigned int>(address.id) & 0xFF) | ((static_cast<unsigned int>(address.lun) & 0xFF) << 8) |
           ((static_cast<unsigned int>(address.channel) & 0xFF) << 16) |
           ((static_cast<unsigned int>(address.host) & 0xFF) << 24);
}

ScsiBlockModel::ScsiBlockModel(const ScsiAddress& address, int uniqueId) : m_address(address), m_uniqueId(uniqueId)
{
    answer(SCSI_IOCTL_GET_IDLUN, "SCSI_IOCTL_GET_IDLUN",
           [this](FakeMachine&, void* argument, IoctlRecord&) { return getIdLun(argument); });
    answer(kScsiIoctlGetPci, "SCSI_IOCTL_GET_PCI",
           [this](FakeMachine&, void* argument, IoctlRecord&) { return getPci(argument); });
}

void ScsiBlockModel::setPci(const std::string& text)
{
    m_pci = text;
    m_hasPci = true;
}

// Two ints: dev_id, then the host's unique id.
int ScsiBlockModel::getIdLun(void* argument) const
{
    if (argument == nullptr) {
        return -EFAULT;
    }
    int words[2] = {static_cast<int>(packedScsiId(m_address)), m_uniqueId};
    std::memcpy(argument, words, sizeof words);
    return 0;
}

// As the kernel does it: at most 20 characters, no NUL.
int ScsiBlockModel::getPci(void* argument) const
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

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

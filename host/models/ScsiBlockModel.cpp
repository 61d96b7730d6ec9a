#include "host/models/ScsiBlockModel.h"

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
}

// Two ints: dev_id, then the host's unique id.
int ScsiBlockModel::getIdLun(void* argument) const
{
    auto* words = static_cast<int*>(argument);
    words[0] = static_cast<int>(packedScsiId(m_address));
    words[1] = m_uniqueId;
    return 0;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// A block node of the kernel's SCSI disk or CD driver (/dev/sd*, /dev/sr*)
// of a fake machine: SCSI_IOCTL_GET_IDLUN gives the device's SCSI address
// packed as the kernel packs it, and the host's unique id.
#pragma once

#include "host/models/DeviceModel.h"
#include "host/models/SgModel.h"

namespace Vantrel {
namespace Ostrand {
namespace host {

// dev_id as the kernel packs it: target id in bits 0-7, LUN 8-15, channel
// 16-23, host number 24-31.
unsigned int packedScsiId(const ScsiAddress& address);

class ScsiBlockModel : public DeviceModel {
public:
    explicit ScsiBlockModel(const ScsiAddress& address, int uniqueId = 0);

    void setAddress(const ScsiAddress& address) { m_address = address; }
    const ScsiAddress& address() const { return m_address; }

private:
    int getIdLun(void* argument) const;

    ScsiAddress m_address;
    int m_uniqueId;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

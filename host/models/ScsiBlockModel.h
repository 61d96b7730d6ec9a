// A block node of the kernel's SCSI disk or CD driver (/dev/sd*, /dev/sr*,
// /dev/scd*) of a fake machine: SCSI_IOCTL_GET_IDLUN gives the device's SCSI
// address packed as the kernel packs it, and the host's unique id;
// SCSI_IOCTL_GET_PCI the name of its host adapter's parent device. As the
// IDE node it is built on, it also answers HDIO_GET_IDENTITY (when it has an
// identity block, as the optical nodes of libata do) and ATAPI packets
// through CDROM_SEND_PACKET.
#pragma once

#include "host/models/IdeModel.h"
#include "host/models/SgModel.h"

#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

// dev_id as the kernel packs it: target id in bits 0-7, LUN 8-15, channel
// 16-23, host number 24-31.
unsigned int packedScsiId(const ScsiAddress& address);

class ScsiBlockModel : public IdeModel {
public:
    explicit ScsiBlockModel(const ScsiAddress& address, int uniqueId = 0);

    void setAddress(const ScsiAddress& address) { m_address = address; }
    const ScsiAddress& address() const { return m_address; }
    // The parent device's name. Without one, SCSI_IOCTL_GET_PCI fails with ENXIO.
    void setPci(const std::string& text);

private:
    int getIdLun(void* argument) const;
    int getPci(void* argument) const;

    ScsiAddress m_address;
    int m_uniqueId;
    bool m_hasPci = false;
    std::string m_pci;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

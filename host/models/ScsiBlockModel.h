// A SCSI block node (/dev/sr*, /dev/scd*, /dev/sd*) of a fake machine: its
// SCSI address for SCSI_IOCTL_GET_IDLUN and the name of its host adapter's
// parent device for SCSI_IOCTL_GET_PCI. As the IDE node it is built on, it
// also answers HDIO_GET_IDENTITY (when it has an identity block, as the
// optical nodes of libata do) and ATAPI packets through CDROM_SEND_PACKET.
#pragma once

#include "host/models/IdeModel.h"

#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

class ScsiBlockModel : public IdeModel {
public:
    // `uniqueId` is the host's unique id, the second number of GET_IDLUN.
    ScsiBlockModel(const ScsiAddress& address, int uniqueId);

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

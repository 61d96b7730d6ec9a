// A floppy drive node (/dev/fd*) of a fake machine, as the kernel's floppy
// driver answers for it: FDPOLLDRVSTAT with the drive's state (flags, track,
// the highest block and track read), FDGETDRVTYP with the name of its drive
// type ("H1440"; "(null)" when the controller has no drive of that number).
#pragma once

#include "host/models/DeviceModel.h"

#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

struct FloppyState {
    unsigned long flags = 0;
    short track = 0; // negative: the driver does not know where the head is
    short maxblock = 0;
    short maxtrack = 0;
};

class FloppyModel : public DeviceModel {
public:
    FloppyModel(const std::string& driveType, const FloppyState& state);

    void setDriveType(const std::string& driveType) { m_driveType = driveType; }
    void setState(const FloppyState& state) { m_state = state; }

private:
    int pollDriveState(void* argument) const;
    int getDriveType(void* argument) const;

    std::string m_driveType;
    FloppyState m_state;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

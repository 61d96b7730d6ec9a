#include "host/models/FloppyModel.h"

#include <algorithm>
#include <cstring>
#include <linux/fd.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

FloppyModel::FloppyModel(const std::string& driveType, const FloppyState& state)
    : m_driveType(driveType), m_state(state)
{
    answer(FDPOLLDRVSTAT, "FDPOLLDRVSTAT", [this](FakeMachine&, void* argument, IoctlRecord&) {
        return pollDriveState(argument);
    });
    answer(FDGETDRVTYP, "FDGETDRVTYP", [this](FakeMachine&, void* argument, IoctlRecord&) {
        return getDriveType(argument);
    });
}

// The whole structure is written; what the model does not keep reads as 0.
int FloppyModel::pollDriveState(void* argument) const
{
    auto* state = static_cast<floppy_drive_struct*>(argument);
    std::memset(state, 0, sizeof *state);
    state->flags = m_state.flags;
    state->track = m_state.track;
    state->maxblock = m_state.maxblock;
    state->maxtrack = m_state.maxtrack;
    return 0;
}

// As the driver copies it: the name with its NUL, at most the 16 bytes of the
// caller's buffer (a longer name comes without one). The rest of the buffer
// is left as it was.
int FloppyModel::getDriveType(void* argument) const
{
    size_t count = std::min(sizeof(floppy_drive_name), m_driveType.size() + 1);
    std::memcpy(argument, m_driveType.c_str(), count);
    return 0;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

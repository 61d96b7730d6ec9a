// FloppyDeviceFinder: a drive of the board's floppy controller, through the
// floppy driver's state and drive type.
#include "finders/FloppyDeviceFinder.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fd.h>
#include <string>

namespace Vantrel {
namespace Ostrand {

namespace {

// What the driver names a drive number that has no drive.
const char* const kNoDriveType = "(null)";
// Thrown when the driver knows no drive of this number: no more to come.
const char* const kNoMoreFloppies = "No more Floppies to enumerate";

IWbemClassObject* controllerRecord(const std::string& path, const std::string& location)
{
    return new IWbemClassObject("FLOPPY_NAME", "", path, "FLOPPY_H1440_DESCR", location, location,
                                "System Board!ISA Bus", "144FLOPPY_DRIVE", "", "", "", "", path, 0);
}

} // namespace

IWbemClassObject* FloppyDeviceFinder::getISAFloppies(int index)
{
    // 1.
    std::string path = m_linuxUtils->toString("sd", "/dev/fd", index);
    errno = 0;
    int fd = host::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        return nullptr;
    }

    // 2. The drive's state; a negative track is no drive to report.
    errno = 0;
    floppy_drive_struct state;
    std::memset(&state, 0, sizeof state);
    if (host::ioctl(fd, FDPOLLDRVSTAT, &state) < 0 || state.track < 0) {
        host::close(fd);
        return nullptr;
    }

    // 3. The drive type's name. A buffer of the stack: the driver's 16 bytes
    //    and a terminator of our own, for a name that fills them.
    char name[sizeof(floppy_drive_name) + 1];
    std::memset(name, 0, sizeof name);
    errno = 0;
    int result = host::ioctl(fd, FDGETDRVTYP, name);

    // 4. A drive of a known type.
    if (result >= 0 && std::strcmp(name, kNoDriveType) != 0) {
        std::string location = m_linuxUtils->toString("sd", "Floppy Drive ", index + 1);
        host::close(fd);
        return controllerRecord(path, location);
    }

    // 5. errno still 0: the driver said "(null)", there is no such drive and
    //    none after it. A failed ioctl only loses this one.
    host::close(fd);
    if (errno == 0) {
        throw kNoMoreFloppies;
    }
    return nullptr;
}

} // namespace Ostrand
} // namespace Vantrel

// The kernel release as the USB routes read it.
#include "usb/UsbKernel.h"

#include "host/Host.h"

#include <cstdio>
#include <cstring>

namespace Vantrel {
namespace Ostrand {

KernelRelease readKernelRelease(struct utsname& name)
{
    std::memset(&name, 0, sizeof name);
    host::uname(&name);
    KernelRelease release = {0, 0, 0};
    std::sscanf(name.release, "%d.%d.%d-", &release.major, &release.minor, &release.patch);
    return release;
}

int readKernelBuild(const struct utsname& name)
{
    int major = 0;
    int minor = 0;
    int patch = 0;
    int build = 0;
    std::sscanf(name.release, "%d.%d.%d-%d", &major, &minor, &patch, &build);
    return build;
}

} // namespace Ostrand
} // namespace Vantrel

// What the USB code asks of the running kernel: its release, read the way
// every USB route reads it. Internal to the library.
#pragma once

#include <sys/utsname.h>

namespace Vantrel {
namespace Ostrand {

struct KernelRelease {
    int major;
    int minor;
    int patch;
};

// uname into a cleared `name`, and the release as "%d.%d.%d-" reads it.
// What does not read stays 0.
KernelRelease readKernelRelease(struct utsname& name);
// The build number behind the patch level, as "%d.%d.%d-%d" reads it; 0
// when the release has none.
int readKernelBuild(const struct utsname& name);

} // namespace Ostrand
} // namespace Vantrel

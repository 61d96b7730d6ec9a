// The framework's own utility library, libcorvex.so.2. The library links
// against it for its pauses; this tree carries a stand-in so that it builds,
// links and runs without the framework.
#pragma once

namespace Vantrel {
namespace System {

class __attribute__((visibility("default"))) SysUtil {
public:
    // Sleeps for the given number of seconds.
    static void sleepForSeconds(unsigned int seconds);
};

} // namespace System
} // namespace Vantrel

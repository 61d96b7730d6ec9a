// What a recording machine keeps of each ioctl the library makes: before the
// call, what goes in (a command block, a packet, a setup packet, the room of
// a buffer); after it, what came back (data, sense, a structure, a text).
// Each request the library uses has a pair of readers here; another
// request is kept with its result alone.
#pragma once

#include "host/record/Recording.h"

namespace Vantrel {
namespace Ostrand {
namespace host {

void captureInput(unsigned long request, const void* argument, RecordedIoctl& call);
void captureOutput(unsigned long request, const void* argument, RecordedIoctl& call);

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

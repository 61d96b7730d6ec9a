// Writes a recording as a machine directory, in the format that
// loadMachine reads (samples/README.md): `machine`, the outputs of the
// tools, the data of files, memory and device nodes, and a copy of the
// sysfs that libsysfs reads.
#pragma once

#include "host/record/Recording.h"

#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

struct RecordingHeader {
    // Comment lines at the top of `machine` (what was recorded, when, how).
    std::vector<std::string> lines;
};

// Writes into `directory`, which must exist and be empty. Throws
// std::runtime_error when it cannot write.
void writeRecording(const Recording& recording, const std::string& directory, const RecordingHeader& header);

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

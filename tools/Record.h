// `ostrand record DIR`: runs the finders and the USB walk on a machine
// through a recording machine, and writes what the machine answered as a
// machine directory that `--machine DIR` replays.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace ostrand_tool {

struct RecordRequest {
    std::string directory;
    std::vector<std::string> classes;
    // The machine to record: empty for the live one, else a machine directory.
    std::string source;
    bool progress = false;
};

// What to record for a --class value: by default every class but modem
// (the AT dialogue writes to serial lines and takes tens of seconds a port).
// False for an unknown class.
bool recordClasses(const std::string& className, std::vector<std::string>& classes);

// Returns the exit status: 0 when written, 2 for bad use (DIR exists and is
// not empty, the source cannot be read), 1 when writing fails. Messages, one
// line each, go to `err`.
int record(const RecordRequest& request, std::ostream& err);

} // namespace ostrand_tool

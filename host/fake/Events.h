// What a fake machine records of the library's doings, in order.
#pragma once

#include <cstdint>
#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

// One ioctl. `name` is the model's name for it ("TIOCGSERIAL", "SG_IO
// INQUIRY"); `input` holds the bytes that went in, where the model keeps
// them (the command block of SG_IO); `result` is what the call returned.
struct IoctlRecord {
    std::string path;
    unsigned long request = 0;
    std::string name;
    std::string input;
    int result = 0;
};

struct WriteRecord {
    std::string path;
    std::string bytes;
};

// One line handed to the system log: its priority and the text, which went
// in as the format.
struct LogRecord {
    int priority = 0;
    std::string format;
};

struct SleepRecord {
    std::string call; // "sleep", "usleep" or "sleepForSeconds"
    int64_t microseconds;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

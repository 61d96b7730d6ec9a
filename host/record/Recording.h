// What a recording machine kept of one run of the library on a machine: the
// answers that came back from it, in a form from which a machine directory
// is written (host/record/RecordingWriter.h).
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

// One ioctl with what went in and what came back. Which fields are filled
// depends on the request (host/record/IoctlCapture.h).
struct RecordedIoctl {
    unsigned long request = 0;
    int result = 0;
    int error = 0;      // errno when the result is negative
    std::string input;  // the command block, packet or setup packet; the room of a buffer
    std::string output; // the bytes handed back: data, a structure, a text
    std::string sense;  // sense data of a SCSI command or packet
    int status = 0;     // SCSI status of a command or packet
    int direction = 0;  // the data direction of a command or packet
};

// One exchange on a serial line: the bytes written, then what each read gave.
struct RecordedExchange {
    std::string command;
    std::vector<std::string> pieces;
};

// A path the library opened.
struct RecordedPath {
    int openError = 0;  // errno of the first open that failed, when none succeeded
    bool opened = false;
    bool mapped = false;
    // Bytes read, by offset.
    std::map<uint64_t, std::string> reads;
    bool readToEnd = false;
    std::vector<RecordedIoctl> ioctls;
    std::vector<RecordedExchange> dialogue;
};

// One entry of a directory listing, as readdir typed it.
struct RecordedEntry {
    std::string name;
    unsigned char type = 0;
};

struct RecordedCommand {
    std::string line;
    std::string output;
};

struct Recording {
    std::string release;
    std::string machine;
    bool hasUname = false;
    // In the order first run; a command run again keeps its first output.
    std::vector<RecordedCommand> commands;
    std::map<std::string, std::vector<RecordedEntry>> listings;
    // In the order first opened.
    std::vector<std::string> pathOrder;
    std::map<std::string, RecordedPath> paths;
    std::vector<std::string> mounts;
    int mountError = 0;
    std::set<int> semaphoreKeys;
    bool sysfsMounted = true;
    std::string sysfsRoot; // the folder that stood for /sys; empty for none

    RecordedPath& path(const std::string& name);
    const RecordedCommand* command(const std::string& line) const;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// Floppy drives and serial lines as recordings write them.
#include "host/record/MachineText.h"

#include <cstring>
#include <linux/fd.h>
#include <linux/serial.h>
#include <sys/ioctl.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

// The dialogue as a modem file: each command with the pieces of its reply.
// A command written again keeps the reply it had the first time.
std::string modemText(const std::vector<RecordedExchange>& dialogue)
{
    std::string text = "# Recorded: each command written, then what each read gave.\n";
    std::set<std::string> written;
    for (const auto& exchange : dialogue) {
        if (!written.insert(exchange.command).second) {
            continue;
        }
        text += "> " + escaped(exchange.command) + "\n";
        for (const auto& piece : exchange.pieces) {
            text += "< " + escaped(piece) + "\n";
        }
    }
    return text;
}

} // namespace

bool writeFloppyNode(MachineText& out, const std::string& path, const RecordedPath& node)
{
    const RecordedIoctl* state = firstAnswer(node, FDPOLLDRVSTAT);
    const RecordedIoctl* type = firstAnswer(node, FDGETDRVTYP);
    if (state == nullptr && type == nullptr) {
        return false;
    }
    struct floppy_drive_struct drive;
    std::memset(&drive, 0, sizeof drive);
    if (state != nullptr && state->output.size() == sizeof drive) {
        std::memcpy(&drive, state->output.data(), sizeof drive);
    }
    // A drive type name holds no blank; one that does is cut there.
    std::string name = type == nullptr || type->output.empty() ? "(null)" : type->output;
    name = name.substr(0, name.find_first_of(" \t"));
    out.line("floppy " + path + " type=" + name + " track=" + std::to_string(drive.track) +
             " flags=" + std::to_string(drive.flags) + " maxblock=" + std::to_string(drive.maxblock) +
             " maxtrack=" + std::to_string(drive.maxtrack));
    return true;
}

bool writeSerialNode(MachineText& out, const std::string& path, const RecordedPath& node)
{
    const RecordedIoctl* answer = firstAnswer(node, TIOCGSERIAL);
    if (answer == nullptr || answer->output.size() != sizeof(struct serial_struct)) {
        return false;
    }
    struct serial_struct serial;
    std::memcpy(&serial, answer->output.data(), sizeof serial);
    char port[32];
    std::snprintf(port, sizeof port, "0x%x", serial.port);
    std::string line = "serial " + path + " type=" + std::to_string(serial.type) + " port=" + port +
                       " irq=" + std::to_string(serial.irq) + " line=" + std::to_string(serial.line);
    if (!node.dialogue.empty()) {
        line += " modem=" + out.data("modems/" + fileNameOf(path.substr(path.rfind('/') + 1)) + ".txt",
                                     modemText(node.dialogue));
    }
    out.line(line);
    return true;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

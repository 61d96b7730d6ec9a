// The text of a machine directory as a recording writes it: the lines of
// `machine`, and the data files beside it, each written once under a
// readable name and listed with its length (a `size` line), so that a file
// cut short or edited later is caught when the machine is loaded.
#pragma once

#include "host/record/Recording.h"

#include <set>
#include <sstream>
#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

class MachineText {
public:
    explicit MachineText(std::string directory) : m_directory(std::move(directory)) {}

    // Appends one line to `machine`.
    void line(const std::string& text) { m_lines << text << "\n"; }
    void blank() { m_lines << "\n"; }
    void comment(const std::string& text) { m_lines << "# " << text << "\n"; }
    // Writes a data file under a name made from `wanted` (made unique), adds
    // its `size` line, and gives the name relative to the directory.
    std::string data(const std::string& wanted, const std::string& bytes);
    std::string text() const { return m_lines.str(); }
    const std::string& directory() const { return m_directory; }

private:
    std::string m_directory;
    std::ostringstream m_lines;
    std::set<std::string> m_names;
};

// Bytes as hexadecimal digits, two a byte, in one word ("-" for none when `dashForNone`).
std::string hexWord(const std::string& bytes, bool dashForNone = false);
// Bytes as hexadecimal pairs with a blank between ("12 01 00 02").
std::string hexPairs(const std::string& bytes);
// A text in the escapes of machine files (\r, \n, \t, \\, \xHH for other
// bytes that are not printable, and for blanks at either end).
std::string escaped(const std::string& text);
// A file name made of the letters, digits, dots and dashes of a text.
std::string fileNameOf(const std::string& text);
// The SCSI command name that sg-reply and ide-packet lines take.
std::string scsiCommandWord(int opcode);

// The first call of a request on a node that succeeded, or null.
const RecordedIoctl* firstAnswer(const RecordedPath& node, unsigned long request);

// The directives of one recorded device node, by model. Each gives false
// when the node's ioctls are not those of its model.
bool writeSgNode(MachineText& out, const std::string& path, const RecordedPath& node);
bool writeBlockNode(MachineText& out, const std::string& path, const RecordedPath& node);
bool writeFloppyNode(MachineText& out, const std::string& path, const RecordedPath& node);
bool writeSerialNode(MachineText& out, const std::string& path, const RecordedPath& node);
bool writeUsbfsNode(MachineText& out, const std::string& path, const RecordedPath& node);
// refuse-ioctl lines for the requests that failed and that the node's model
// does not answer call by call.
void writeRefusals(MachineText& out, const std::string& path, const RecordedPath& node);

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// What a modem on a fake serial port says.
#pragma once

#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

// For each command written, the pieces of the reply, one piece for each
// read. A command it has no entry for gets silence.
struct ModemScript {
    struct Exchange {
        std::string command;
        std::vector<std::string> pieces;
    };
    std::vector<Exchange> exchanges;
    // Parses the text form: "> COMMAND" starts an exchange, "< PIECE" adds a
    // piece of its reply; \r, \n, \t, \\ and \xHH are escapes; # begins a comment.
    static ModemScript parse(const std::string& text);
};

// The escapes of the text forms of fake machines: \r, \n, \t, \\ and \xHH.
std::string unescape(const std::string& text);

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// The ostrand command run as a support engineer runs it: through the shell,
// its standard output read whole and its exit status decoded.
#pragma once

#include <string>

namespace ostrand_test {

struct CommandRun {
    int status; // the exit status, or -1 when it did not exit
    std::string out;
};

// Runs the built command with the arguments, a shell line's tail that may
// carry redirections of stderr. Only defined where the command is built.
CommandRun runCommand(const std::string& arguments);

int countLines(const std::string& text);

} // namespace ostrand_test

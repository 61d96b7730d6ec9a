// Shell tools that a fake machine answers from its own files: grep, find,
// dirname, basename and cat, run as `sh -c LINE` would run them.
//
// A command line is split into the stages of a pipeline, each a tool with
// its words (blanks separate them; '...' and "..." quote, and \ escapes
// inside double quotes) and its redirections (`2>&1`, `>&2`, `> /dev/null`,
// `2>/dev/null`, `< FILE`). Each stage reads the stage before it; what the
// last stage writes to standard output is what popen gives. Standard error
// reaches that output only where the line sends it there (`2>&1` on the
// last stage); otherwise it goes to the shell's standard error, which popen
// does not capture and the fake machine records (FakeMachine::shellErrors()).
//
// The files are those of the machine: its file tree (links followed as
// the kernel follows them), and its sysfs folder, which stands for /sys.
// The tools print what the GNU tools print on this machine, messages
// included; `find` walks each directory in the order of names (bytewise),
// where the real one takes the order in which the file system lists them.
#pragma once

#include <set>
#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

class FakeMachine;

// The tools a machine can be given.
const std::set<std::string>& shellToolNames();

// What one command line gave.
struct ShellRun {
    std::string output; // what popen reads
    std::string errors; // what went to the shell's standard error
};

// Runs a command line with the machine's tools. False, with nothing done,
// when the line's first word is none of `tools`. A stage whose tool is not
// among them gets the machine's missing-command text on its standard error,
// as the shell prints it. A line the tools cannot take apart (shell syntax
// or options they do not know) prints nothing, and says so on standard error.
bool runShellTools(FakeMachine& machine, const std::set<std::string>& tools, const std::string& line, ShellRun& run);

// The pure text tools, as coreutils computes them (no newline added).
std::string dirnameOf(const std::string& path);
std::string basenameOf(const std::string& path, const std::string& suffix = "");

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

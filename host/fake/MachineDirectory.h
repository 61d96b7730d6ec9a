// Fake machines kept as data in a directory. The directory holds a file
// named `machine`, one directive a line, and the data files it names by
// paths relative to the directory. samples/README.md documents the format.
#pragma once

#include "host/fake/FakeMachine.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

// A directory that is missing or does not describe a machine. The text is one
// line that names the directory, the line and what is wrong.
class MachineDirectoryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One directive line, split at blanks. `rest(i)` is the line from word i on,
// as written (a command line keeps its blanks).
struct Directive {
    std::string directory;
    int lineNumber;
    std::vector<std::string> words;
    std::string line;
    // The file the line is in, as messages name it: empty for a file named
    // `machine` in `directory` (the directory names it), else its path.
    std::string file;
    std::string rest(size_t word) const;
    // The bytes of a data file named relative to the machine's directory.
    std::string data(const std::string& relativePath) const;
    // A key=value word's value, or the default.
    std::string option(const std::string& key, const std::string& fallback) const;
    long number(const std::string& key, long fallback) const;
    // The path of a folder named relative to the machine's directory; it must exist.
    std::string folder(const std::string& relativePath) const;
    [[noreturn]] void fail(const std::string& message) const;
};

using DirectiveHandler = std::function<void(FakeMachine&, const Directive&)>;

// Calls each(line) for the lines of a text as std::getline gives them: cut
// at newlines, a last line without one included, no empty line after a
// final newline.
template <typename Each>
void eachLine(const std::string& text, Each each)
{
    size_t at = 0;
    while (at < text.size()) {
        size_t newline = text.find('\n', at);
        size_t end = newline == std::string::npos ? text.size() : newline;
        std::string line = text.substr(at, end - at);
        at = end == text.size() ? end : end + 1;
        each(line);
    }
}
// The words of a line as a stream reads them with >>: cut at white space
// (blank, tab, newline, vertical tab, form feed, carriage return).
void splitWords(const std::string& line, std::vector<std::string>& words);

// Fails the directive unless it has at least `count` words.
void needWords(const Directive& d, size_t count, const char* usage);
// The line from word `word` on, as written (blanks inside kept).
std::string restOfLine(const std::string& line, size_t word);
// An errno value by its name (EACCES, EBUSY, EPIPE, ...) or its decimal
// number, or 0 for a name it does not know.
int errnoNamed(const std::string& name);
// The name of an errno value, as errnoNamed reads it back (its number when it has no name here).
std::string errnoName(int error);
// An errno value by its name (EACCES, EBUSY, ...), or fails the directive.
int errnoByName(const Directive& d, const std::string& name);

// Loads the machine of a directory. Throws MachineDirectoryError.
std::unique_ptr<FakeMachine> loadMachine(const std::string& directory);
// Fills a machine from directive text, data files relative to `directory`.
// `include` lines load other machine files into the same machine, in place.
void loadMachineText(FakeMachine& machine, const std::string& text, const std::string& directory);

// The bytes of a file, or throws MachineDirectoryError.
std::string readWholeFile(const std::string& path);

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

#include "host/fake/ShellTools.h"

#include "host/fake/FakeMachine.h"
#include "host/models/FileModel.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <fstream>
#include <map>
#include <regex.h>
#include <sstream>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

const std::set<std::string>& shellToolNames()
{
    static const std::set<std::string> names = {"basename", "cat", "dirname", "find", "grep"};
    return names;
}

namespace {

// --- Taking a command line apart ---------------------------------------------

// Where a stage's descriptor 1 or 2 writes.
enum class Sink { Next, Output, Errors, Null };

struct Redirect {
    int fd;          // 1 or 2
    int dupOf;       // the descriptor copied (`2>&1`), or -1
    std::string file; // the file written (`> /dev/null`) when dupOf is -1
};

struct Stage {
    std::vector<std::string> words;
    std::vector<Redirect> redirects;
};

// A line in words and redirections, or false for what these tools leave to a
// real shell: variables, substitutions, globs, lists, subshells, input
// redirection, descriptors other than 1 and 2.
class LineParser {
public:
    explicit LineParser(const std::string& line) : m_line(line) {}

    bool parse(std::vector<Stage>& stages)
    {
        stages.assign(1, Stage{});
        while (m_at < m_line.size()) {
            char c = m_line[m_at];
            if (c == ' ' || c == '\t') {
                endWord(stages.back());
                ++m_at;
            } else if (c == '|') {
                endWord(stages.back());
                if (stages.back().words.empty() || next(1) == '|') {
                    return false;
                }
                stages.emplace_back();
                ++m_at;
            } else if (c == '>') {
                if (!redirect(stages.back())) {
                    return false;
                }
            } else if (c == '\'') {
                size_t end = m_line.find('\'', m_at + 1);
                if (end == std::string::npos) {
                    return false;
                }
                m_word += m_line.substr(m_at + 1, end - m_at - 1);
                m_inWord = m_quoted = true;
                m_at = end + 1;
            } else if (c == '"') {
                if (!doubleQuoted()) {
                    return false;
                }
            } else if (c == '\\') {
                if (m_at + 1 >= m_line.size()) {
                    return false;
                }
                m_word += m_line[m_at + 1];
                m_inWord = m_quoted = true;
                m_at += 2;
            } else if (std::strchr(";&<()$`*?[{}\n", c) != nullptr || ((c == '#' || c == '~') && !m_inWord)) {
                return false;
            } else {
                m_word += c;
                m_inWord = true;
                ++m_at;
            }
        }
        endWord(stages.back());
        return !stages.back().words.empty();
    }

private:
    char next(size_t ahead) const { return m_at + ahead < m_line.size() ? m_line[m_at + ahead] : '\0'; }

    void endWord(Stage& stage)
    {
        if (m_inWord) {
            stage.words.push_back(m_word);
        }
        m_word.clear();
        m_inWord = m_quoted = false;
    }

    // `N>&M`, `N>FILE`, `N> FILE`, `>>FILE`: a word of digits just before
    // the '>' names the descriptor.
    bool redirect(Stage& stage)
    {
        int fd = 1;
        if (m_inWord) {
            if (m_quoted || m_word.size() != 1 || (m_word[0] != '1' && m_word[0] != '2')) {
                if (!m_quoted && !m_word.empty() && std::all_of(m_word.begin(), m_word.end(), [](char d) { return std::isdigit(static_cast<unsigned char>(d)) != 0; })) {
                    return false; // another descriptor
                }
                endWord(stage);
            } else {
                fd = m_word[0] - '0';
                m_word.clear();
                m_inWord = false;
            }
        }
        ++m_at;
        if (next(0) == '>') {
            ++m_at;
        }
        if (next(0) == '&') {
            char target = next(1);
            if ((target != '1' && target != '2') || std::isdigit(static_cast<unsigned char>(next(2)))) {
                return false;
            }
            stage.redirects.push_back({fd, target - '0', ""});
            m_at += 2;
            return true;
        }
        while (next(0) == ' ' || next(0) == '\t') {
            ++m_at;
        }
        std::string file;
        while (m_at < m_line.size() && std::strchr(" \t|;&<>()$`'\"\\", m_line[m_at]) == nullptr) {
            file += m_line[m_at++];
        }
        if (file.empty()) {
            return false;
        }
        stage.redirects.push_back({fd, -1, file});
        return true;
    }

    // Inside "...", a backslash escapes only $ ` " \ and newline.
    bool doubleQuoted()
    {
        ++m_at;
        m_inWord = m_quoted = true;
        while (m_at < m_line.size() && m_line[m_at] != '"') {
            char c = m_line[m_at];
            if (c == '$' || c == '`') {
                return false;
            }
            if (c == '\\' && m_at + 1 < m_line.size() && std::strchr("$`\"\\\n", m_line[m_at + 1]) != nullptr) {
                m_word += m_line[m_at + 1];
                m_at += 2;
                continue;
            }
            m_word += c;
            ++m_at;
        }
        if (m_at >= m_line.size()) {
            return false;
        }
        ++m_at;
        return true;
    }

    const std::string& m_line;
    size_t m_at = 0;
    std::string m_word;
    bool m_inWord = false;
    bool m_quoted = false;
};

// --- The machine's files ---------------------------------------------------------

// The absolute path a tool means, "." and ".." folded (the fake shell runs in /).
std::string absolute(const std::string& path)
{
    std::vector<std::string> parts;
    std::istringstream names(path);
    std::string name;
    while (std::getline(names, name, '/')) {
        if (name == "..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
        } else if (!name.empty() && name != ".") {
            parts.push_back(name);
        }
    }
    std::string result;
    for (const auto& part : parts) {
        result += "/" + part;
    }
    return result.empty() ? "/" : result;
}

// The folder's path for a path under /sys, or "" for one elsewhere.
std::string onDisk(FakeMachine& machine, const std::string& path)
{
    const std::string& folder = machine.sysfsFolder();
    if (folder.empty()) {
        return "";
    }
    if (path == "/sys") {
        return folder;
    }
    if (path.compare(0, 5, "/sys/") == 0) {
        return folder + path.substr(4);
    }
    return "";
}

struct Node {
    bool exists = false;
    bool directory = false;
};

// What a path is: in the file tree first, then in the sysfs folder. `follow`
// takes a last link to where it leads.
Node nodeAt(FakeMachine& machine, const std::string& path, bool follow)
{
    Node node;
    const FakeFileTree& tree = machine.fileTree();
    const FakeFileTree::Entry* entry = follow ? tree.follow(path) : tree.find(path);
    if (entry != nullptr) {
        node.exists = true;
        node.directory = entry->type == DT_DIR;
        return node;
    }
    std::string disk = onDisk(machine, path);
    struct stat info;
    if (!disk.empty() && (follow ? ::stat(disk.c_str(), &info) : ::lstat(disk.c_str(), &info)) == 0) {
        node.exists = true;
        node.directory = S_ISDIR(info.st_mode);
    }
    return node;
}

// The entries of a directory of the tree and of the folder together, by
// name; an entry of the tree hides one of the same name in the folder.
std::map<std::string, bool> entriesOf(FakeMachine& machine, const std::string& directory)
{
    std::map<std::string, bool> entries; // name to "is a directory, not a link"
    if (directory == "/" && !machine.sysfsFolder().empty()) {
        entries["sys"] = true;
    }
    std::string disk = onDisk(machine, directory);
    if (!disk.empty()) {
        if (DIR* dir = ::opendir(disk.c_str())) {
            while (struct dirent* e = ::readdir(dir)) {
                std::string name = e->d_name;
                if (name == "." || name == "..") {
                    continue;
                }
                struct stat info;
                std::string child = disk + "/" + name;
                entries[name] = ::lstat(child.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
            }
            ::closedir(dir);
        }
    }
    std::string resolved;
    const FakeFileTree::Entry* entry = machine.fileTree().follow(directory, &resolved);
    if (entry != nullptr && entry->type == DT_DIR) {
        for (const auto& child : machine.fileTree().children(resolved)) {
            if (child.first != "." && child.first != "..") {
                entries[child.first] = child.second == DT_DIR;
            }
        }
    }
    return entries;
}

// The bytes of a file as a process reads them: 0, or an errno value.
int readFile(FakeMachine& machine, const std::string& rawPath, std::string& bytes)
{
    bytes.clear();
    std::string path = absolute(rawPath);
    bool wantsDirectory = rawPath.size() > 1 && rawPath.back() == '/';
    const FakeFileTree::Entry* link = machine.fileTree().find(path);
    if (link != nullptr && link->openError != 0) {
        return link->openError;
    }
    const FakeFileTree::Entry* entry = machine.fileTree().follow(path);
    if (entry != nullptr) {
        if (entry->type == DT_DIR) {
            return EISDIR;
        }
        if (wantsDirectory) {
            return ENOTDIR;
        }
        if (entry->openError != 0) {
            return entry->openError;
        }
        if (auto file = std::dynamic_pointer_cast<FileModel>(entry->model)) {
            bytes = file->bytes();
            return 0;
        }
        // A device node reads as its model answers.
        int refused = entry->model ? entry->model->open(O_RDONLY) : ENXIO;
        if (refused != 0) {
            return refused;
        }
        char buffer[4096];
        for (off_t offset = 0; bytes.size() < (1u << 20);) {
            ssize_t n = entry->model->read(machine, buffer, sizeof buffer, offset);
            if (n < 0) {
                return static_cast<int>(-n);
            }
            if (n == 0) {
                break;
            }
            bytes.append(buffer, static_cast<size_t>(n));
            offset += n;
        }
        return 0;
    }
    std::string disk = onDisk(machine, path);
    struct stat info;
    if (disk.empty() || ::stat(disk.c_str(), &info) != 0) {
        return ENOENT;
    }
    if (S_ISDIR(info.st_mode)) {
        return EISDIR;
    }
    if (wantsDirectory) {
        return ENOTDIR;
    }
    std::ifstream in(disk, std::ios::binary);
    if (!in) {
        return EACCES;
    }
    std::ostringstream text;
    text << in.rdbuf();
    bytes = text.str();
    return 0;
}

// --- The tools ---------------------------------------------------------------------

// What a tool writes, in order, to its descriptors 1 and 2.
struct Written {
    std::vector<std::pair<int, std::string>> pieces;
    void out(const std::string& text) { pieces.emplace_back(1, text); }
    void err(const std::string& text) { pieces.emplace_back(2, text); }
};

// GNU quotes a name in its messages as ‘this’ in this machine's locale.
std::string quoted(const std::string& text) { return "\xE2\x80\x98" + text + "\xE2\x80\x99"; }

using Tool = bool (*)(FakeMachine&, const std::vector<std::string>&, const std::string&, Written&);

// grep PATTERN [FILE...]: the lines that the basic regular expression
// matches; several files put "FILE:" before each line.
bool grep(FakeMachine& machine, const std::vector<std::string>& args, const std::string& input, Written& w)
{
    size_t first = 1;
    if (first < args.size() && args[first] == "--") {
        ++first;
    } else if (first < args.size() && args[first].size() > 1 && args[first][0] == '-') {
        return false;
    }
    if (first >= args.size()) {
        w.err("Usage: grep [OPTION]... PATTERNS [FILE]...\nTry 'grep --help' for more information.\n");
        return true;
    }
    regex_t pattern;
    int error = ::regcomp(&pattern, args[first].c_str(), REG_NOSUB);
    if (error != 0) {
        char message[256];
        ::regerror(error, &pattern, message, sizeof message);
        w.err(std::string("grep: ") + message + "\n");
        return true;
    }
    std::vector<std::string> files(args.begin() + static_cast<long>(first) + 1, args.end());
    bool named = files.size() > 1;
    if (files.empty()) {
        files.push_back("-");
    }
    for (const std::string& file : files) {
        std::string text = input;
        std::string shown = file == "-" ? "(standard input)" : file;
        if (file != "-") {
            int failed = readFile(machine, file, text);
            if (failed != 0) {
                w.err("grep: " + file + ": " + std::strerror(failed) + "\n");
                continue;
            }
        }
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
            start = end == std::string::npos ? text.size() : end + 1;
            if (::regexec(&pattern, line.c_str(), 0, nullptr, 0) == 0) {
                w.out((named ? shown + ":" : "") + line + "\n");
            }
        }
    }
    ::regfree(&pattern);
    return true;
}

// Prints each entry below `path` whose name matches, depth first, a
// directory's entries in the order of their names. Links are not entered.
void findBelow(FakeMachine& machine, const std::string& shown, const std::string& path, const std::string& name,
               Written& w)
{
    std::string prefix = shown.back() == '/' ? shown : shown + "/";
    for (const auto& entry : entriesOf(machine, path)) {
        std::string childShown = prefix + entry.first;
        if (::fnmatch(name.c_str(), entry.first.c_str(), 0) == 0) {
            w.out(childShown + "\n");
        }
        if (entry.second) {
            findBelow(machine, childShown, path == "/" ? "/" + entry.first : path + "/" + entry.first, name, w);
        }
    }
}

// find [START...] -name NAME
bool find(FakeMachine& machine, const std::vector<std::string>& args, const std::string&, Written& w)
{
    std::vector<std::string> starts;
    size_t at = 1;
    while (at < args.size() && !args[at].empty() && args[at][0] != '-') {
        starts.push_back(args[at++]);
    }
    if (args.size() != at + 2 || args[at] != "-name") {
        return false;
    }
    const std::string& name = args[at + 1];
    if (starts.empty()) {
        starts.push_back(".");
    }
    for (const std::string& start : starts) {
        if (start.empty()) {
            w.err("find: " + quoted("") + ": No such file or directory\n");
            continue;
        }
        std::string path = absolute(start);
        bool throughLink = start.size() > 1 && start.back() == '/';
        Node node = nodeAt(machine, path, throughLink);
        if (!node.exists) {
            w.err("find: " + quoted(start) + ": No such file or directory\n");
            continue;
        }
        if (throughLink && !node.directory) {
            w.err("find: " + quoted(start) + ": Not a directory\n");
            continue;
        }
        std::string base = basenameOf(start);
        if (::fnmatch(name.c_str(), base.c_str(), 0) == 0) {
            w.out(start + "\n");
        }
        if (node.directory) {
            findBelow(machine, start, path, name, w);
        }
    }
    return true;
}

bool dirname(FakeMachine&, const std::vector<std::string>& args, const std::string&, Written& w)
{
    if (args.size() > 1 && args[1].size() > 1 && args[1][0] == '-') {
        return false;
    }
    if (args.size() < 2) {
        w.err("dirname: missing operand\nTry 'dirname --help' for more information.\n");
        return true;
    }
    for (size_t i = 1; i < args.size(); ++i) {
        w.out(dirnameOf(args[i]) + "\n");
    }
    return true;
}

bool basename(FakeMachine&, const std::vector<std::string>& args, const std::string&, Written& w)
{
    if (args.size() > 1 && args[1].size() > 1 && args[1][0] == '-') {
        return false;
    }
    if (args.size() < 2) {
        w.err("basename: missing operand\nTry 'basename --help' for more information.\n");
    } else if (args.size() > 3) {
        w.err("basename: extra operand " + quoted(args[3]) + "\nTry 'basename --help' for more information.\n");
    } else {
        w.out(basenameOf(args[1], args.size() == 3 ? args[2] : "") + "\n");
    }
    return true;
}

// cat [FILE...]: the files one after the other; "-" or none is the input.
bool cat(FakeMachine& machine, const std::vector<std::string>& args, const std::string& input, Written& w)
{
    std::vector<std::string> files(args.begin() + 1, args.end());
    if (files.empty()) {
        files.push_back("-");
    }
    for (const std::string& file : files) {
        if (file.size() > 1 && file[0] == '-') {
            return false;
        }
    }
    for (const std::string& file : files) {
        if (file == "-") {
            w.out(input);
            continue;
        }
        std::string bytes;
        int failed = readFile(machine, file, bytes);
        if (failed != 0) {
            w.err("cat: " + file + ": " + std::strerror(failed) + "\n");
        } else {
            w.out(bytes);
        }
    }
    return true;
}

Tool toolNamed(const std::string& name)
{
    static const std::map<std::string, Tool> tools = {
        {"basename", basename}, {"cat", cat}, {"dirname", dirname}, {"find", find}, {"grep", grep}};
    auto it = tools.find(name);
    return it == tools.end() ? nullptr : it->second;
}

std::string missingCommandText(FakeMachine& machine, const std::string& word)
{
    std::string text = machine.missingCommandText();
    size_t at = text.find("%s");
    if (at != std::string::npos) {
        text.replace(at, 2, word);
    }
    return text;
}

} // namespace

// --- Pure text -----------------------------------------------------------------------

std::string dirnameOf(const std::string& path)
{
    size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') {
        --end; // trailing slashes
    }
    size_t slash = path.rfind('/', end == 0 ? 0 : end - 1);
    if (slash == std::string::npos) {
        return ".";
    }
    while (slash > 0 && path[slash - 1] == '/') {
        --slash; // the slashes before the last name
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string basenameOf(const std::string& path, const std::string& suffix)
{
    size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') {
        --end;
    }
    if (end == 1 && path[0] == '/') {
        return "/";
    }
    size_t slash = path.rfind('/', end == 0 ? 0 : end - 1);
    std::string base = path.substr(slash == std::string::npos ? 0 : slash + 1,
                                   slash == std::string::npos ? end : end - slash - 1);
    if (!suffix.empty() && base.size() > suffix.size() &&
        base.compare(base.size() - suffix.size(), suffix.size(), suffix) == 0) {
        base.erase(base.size() - suffix.size());
    }
    return base;
}

// --- Running a line ---------------------------------------------------------------------

bool runShellTools(FakeMachine& machine, const std::set<std::string>& tools, const std::string& line, ShellRun& run)
{
    std::string first = line.substr(0, line.find_first_of(" \t|"));
    if (tools.count(first) == 0) {
        return false;
    }
    run = ShellRun{};
    std::vector<Stage> stages;
    if (!LineParser(line).parse(stages)) {
        run.errors = "sh: the fake machine's tools cannot run: " + line + "\n";
        return true;
    }
    std::string input;
    for (size_t s = 0; s < stages.size(); ++s) {
        const Stage& stage = stages[s];
        bool last = s + 1 == stages.size();
        Sink sinks[3] = {Sink::Null, last ? Sink::Output : Sink::Next, Sink::Errors};
        for (const Redirect& r : stage.redirects) {
            if (r.dupOf >= 0) {
                sinks[r.fd] = sinks[r.dupOf];
            } else if (r.file == "/dev/null") {
                sinks[r.fd] = Sink::Null;
            } else {
                run = ShellRun{};
                run.errors = "sh: the fake machine's tools cannot run: " + line + "\n";
                return true;
            }
        }
        Written written;
        const std::string& word = stage.words[0];
        Tool tool = tools.count(word) != 0 ? toolNamed(word) : nullptr;
        if (tool == nullptr) {
            written.err(missingCommandText(machine, word));
        } else if (!tool(machine, stage.words, input, written)) {
            run = ShellRun{};
            run.errors = "sh: the fake machine's tools cannot run: " + line + "\n";
            return true;
        }
        std::string next;
        for (const auto& piece : written.pieces) {
            switch (sinks[piece.first]) {
            case Sink::Next:
                next += piece.second;
                break;
            case Sink::Output:
                run.output += piece.second;
                break;
            case Sink::Errors:
                run.errors += piece.second;
                break;
            case Sink::Null:
                break;
            }
        }
        input = next;
    }
    return true;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

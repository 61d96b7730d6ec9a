#include "host/fake/MachineDirectory.h"

#include "host/fake/ShellTools.h"
#include "host/models/IoctlNames.h"
#include "host/models/Models.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

// The bytes of a file, read straight into the text: its size is asked first,
// so a regular file takes one read and no copy. What a failed read leaves
// out is left out, as a stream copying the file would leave it. False when
// the file cannot be opened.
bool readBytes(const std::string& path, std::string& bytes)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    // A regular file is read to the size it has; what says it is empty (as
    // the files of /proc do) or is no regular file is read to its end.
    struct stat info;
    size_t size = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? static_cast<size_t>(info.st_size) : 0;
    bytes.assign(size > 0 ? size : 4096, '\0');
    size_t length = 0;
    while (size == 0 || length < size) {
        if (length == bytes.size()) {
            bytes.resize(bytes.size() * 2 + 4096);
        }
        ssize_t count = ::read(fd, &bytes[length], bytes.size() - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        length += static_cast<size_t>(count);
    }
    ::close(fd);
    bytes.resize(length);
    return true;
}

} // namespace

std::string readWholeFile(const std::string& path)
{
    std::string bytes;
    if (!readBytes(path, bytes)) {
        throw MachineDirectoryError("cannot read " + path);
    }
    return bytes;
}

std::string restOfLine(const std::string& line, size_t word)
{
    size_t position = 0;
    for (size_t i = 0; i < word; ++i) {
        position = line.find_first_not_of(" \t", position);
        position = line.find_first_of(" \t", position);
        if (position == std::string::npos) {
            return "";
        }
    }
    position = line.find_first_not_of(" \t", position);
    return position == std::string::npos ? "" : line.substr(position);
}

std::string Directive::rest(size_t word) const { return restOfLine(line, word); }

std::string Directive::data(const std::string& relativePath) const
{
    if (relativePath == "-") {
        return "";
    }
    // Only a regular file: a device or a pipe named by a hand edit would never end.
    std::error_code error;
    std::string bytes;
    if (!std::filesystem::is_regular_file(directory + "/" + relativePath, error) ||
        !readBytes(directory + "/" + relativePath, bytes)) {
        fail("cannot read data file " + relativePath);
    }
    return bytes;
}

std::string Directive::option(const std::string& key, const std::string& fallback) const
{
    for (const auto& word : words) {
        if (word.compare(0, key.size() + 1, key + "=") == 0) {
            return word.substr(key.size() + 1);
        }
    }
    return fallback;
}

long Directive::number(const std::string& key, long fallback) const
{
    std::string text = option(key, "");
    if (text.empty()) {
        return fallback;
    }
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 0);
    if (end == nullptr || *end != '\0') {
        fail("'" + key + "' is not a number: " + text);
    }
    return value;
}

std::string Directive::folder(const std::string& relativePath) const
{
    std::string path = directory + "/" + relativePath;
    struct stat info;
    if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        fail("no folder " + relativePath);
    }
    return path;
}

void Directive::fail(const std::string& message) const
{
    throw MachineDirectoryError("machine " + (file.empty() ? directory : file) + ", line " +
                                std::to_string(lineNumber) + ": " + message);
}

namespace {

// White space as the classic locale tells it to a stream.
bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

} // namespace

void splitWords(const std::string& line, std::vector<std::string>& words)
{
    // Room for the words of most lines at once; longer lines grow the list.
    words.reserve(words.size() + 16);
    const char* at = line.data();
    const char* const end = at + line.size();
    while (at != end) {
        while (at != end && isBlank(*at)) {
            ++at;
        }
        const char* begin = at;
        while (at != end && !isBlank(*at)) {
            ++at;
        }
        if (at != begin) {
            words.emplace_back(begin, at);
        }
    }
}

void needWords(const Directive& d, size_t count, const char* usage)
{
    if (d.words.size() < count) {
        d.fail(std::string("expected: ") + usage);
    }
}

namespace {

// The directives of the machine itself; the device models add theirs.
std::map<std::string, DirectiveHandler> coreDirectives()
{
    return {
        {"uname",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 3, "uname RELEASE MACHINE");
             m.setUname(d.words[1], d.words[2]);
         }},
        {"run",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 3, "run DATAFILE|- COMMAND LINE");
             m.addCommand(d.rest(2), d.data(d.words[1]));
         }},
        {"tools",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 2, "tools NAME...");
             try {
                 m.addTools(std::vector<std::string>(d.words.begin() + 1, d.words.end()));
             } catch (const std::invalid_argument& e) {
                 std::string known;
                 for (const auto& name : shellToolNames()) {
                     known += " " + name;
                 }
                 d.fail(std::string(e.what()) + "; the tools are" + known);
             }
         }},
        {"missing-command",
         [](FakeMachine& m, const Directive& d) { m.setMissingCommandText(unescape(d.rest(1))); }},
        {"file",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 3, "file PATH DATAFILE");
             m.addFile(d.words[1], d.data(d.words[2]));
         }},
        {"dir",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 2, "dir PATH");
             m.addDirectory(d.words[1]);
         }},
        {"link",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 2, "link PATH [TARGET]");
             m.addLink(d.words[1], d.words.size() > 2 ? d.words[2] : "");
         }},
        {"sysfs",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 2, "sysfs FOLDER|unmounted");
             if (d.words[1] == "unmounted") {
                 m.setSysfsMounted(false);
             } else {
                 m.setSysfs(d.folder(d.words[1]));
             }
         }},
        {"refuse-mount",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 2, "refuse-mount ERRNO");
             m.refuseMounts(errnoByName(d, d.words[1]));
         }},
        {"node",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 3, "node PATH c|b");
             if (d.words[2] != "c" && d.words[2] != "b") {
                 d.fail("node type must be c or b");
             }
             m.addNode(d.words[1], d.words[2][0], nullptr);
         }},
        {"deny",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 3, "deny PATH ERRNO");
             m.denyOpen(d.words[1], errnoByName(d, d.words[2]));
         }},
        {"refuse-ioctl",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 4, "refuse-ioctl PATH REQUEST ERRNO");
             unsigned long request = 0;
             if (!ioctlByName(d.words[2], request)) {
                 d.fail("unknown ioctl " + d.words[2]);
             }
             int error = errnoByName(d, d.words[3]);
             std::shared_ptr<DeviceModel> model = m.model(d.words[1]);
             if (!model) {
                 model = std::make_shared<DeviceModel>();
                 m.addNode(d.words[1], 'c', model);
             }
             model->refuse(request, error);
         }},
        {"size",
         [](FakeMachine&, const Directive& d) {
             needWords(d, 3, "size DATAFILE BYTES");
             char* end = nullptr;
             unsigned long long expected = std::strtoull(d.words[2].c_str(), &end, 10);
             if (d.words[2].empty() || end == nullptr || *end != '\0' || d.words[2][0] == '-') {
                 d.fail("not a byte count: " + d.words[2]);
             }
             std::string bytes = d.data(d.words[1]);
             if (bytes.size() != expected) {
                 d.fail(d.words[1] + " holds " + std::to_string(bytes.size()) + " bytes, not the " + d.words[2] +
                        " that were recorded (cut short or edited)");
             }
         }},
    };
}

const std::map<std::string, DirectiveHandler>& handlers()
{
    static const std::map<std::string, DirectiveHandler> table = [] {
        std::map<std::string, DirectiveHandler> all = coreDirectives();
        for (const auto& model : modelDirectives()) {
            all.emplace(model.name, model.load);
        }
        return all;
    }();
    return table;
}

} // namespace

namespace {

const std::map<std::string, int>& errnoNames()
{
    static const std::map<std::string, int> names = {
        {"EACCES", EACCES},     {"EPERM", EPERM},         {"ENOENT", ENOENT},         {"EIO", EIO},
        {"EBUSY", EBUSY},       {"ENXIO", ENXIO},         {"EINVAL", EINVAL},         {"ENOTTY", ENOTTY},
        {"ENODEV", ENODEV},     {"ENOMEDIUM", ENOMEDIUM}, {"ENOSPC", ENOSPC},         {"EAGAIN", EAGAIN},
        {"EPIPE", EPIPE},       {"ETIMEDOUT", ETIMEDOUT}, {"EPROTO", EPROTO},         {"EILSEQ", EILSEQ},
        {"EOVERFLOW", EOVERFLOW}, {"EHOSTUNREACH", EHOSTUNREACH}, {"ENODATA", ENODATA}, {"ENOSYS", ENOSYS},
        {"ESHUTDOWN", ESHUTDOWN}, {"EFAULT", EFAULT},     {"EMSGSIZE", EMSGSIZE},     {"ENOMEM", ENOMEM},
        {"EBADF", EBADF},       {"EOPNOTSUPP", EOPNOTSUPP}, {"EROFS", EROFS},         {"ENOTDIR", ENOTDIR},
        {"EISDIR", EISDIR},     {"ENOTBLK", ENOTBLK},     {"ENOLINK", ENOLINK},       {"EREMOTEIO", EREMOTEIO},
        {"ECOMM", ECOMM},       {"EINTR", EINTR},         {"ECONNRESET", ECONNRESET}, {"ENOTCONN", ENOTCONN}};
    return names;
}

} // namespace

int errnoNamed(const std::string& name)
{
    auto it = errnoNames().find(name);
    if (it != errnoNames().end()) {
        return it->second;
    }
    // A number stands for itself, for the errors that have no name here.
    char* end = nullptr;
    long number = std::strtol(name.c_str(), &end, 10);
    if (name.empty() || end == nullptr || *end != '\0' || number <= 0 || number > 4095) {
        return 0;
    }
    return static_cast<int>(number);
}

std::string errnoName(int error)
{
    for (const auto& entry : errnoNames()) {
        if (entry.second == error) {
            return entry.first;
        }
    }
    return std::to_string(error);
}

int errnoByName(const Directive& d, const std::string& name)
{
    int error = errnoNamed(name);
    if (error == 0) {
        d.fail("unknown error name " + name);
    }
    return error;
}

namespace {

void loadLines(FakeMachine& machine, const std::string& text, const std::string& directory, const std::string& file,
               std::vector<std::string>& loading);


// `include PATH`: a machine file, or a machine directory's `machine`, named
// relative to the including file's directory. Its lines run in place, data
// files relative to its own directory; lines after the include override it
// where a directive replaces (uname, run, file, sysfs, a node).
void include(FakeMachine& machine, const Directive& d, std::vector<std::string>& loading)
{
    needWords(d, 2, "include PATH");
    namespace fs = std::filesystem;
    fs::path named = d.words[1];
    fs::path path = (named.is_absolute() ? named : fs::path(d.directory) / named).lexically_normal();
    std::error_code error;
    bool isDirectory = fs::is_directory(path, error);
    fs::path machineFile = isDirectory ? path / "machine" : path;
    std::string canonical = fs::canonical(machineFile, error).string();
    if (error || fs::is_directory(machineFile)) {
        d.fail("cannot read included machine " + d.words[1]);
    }
    if (std::find(loading.begin(), loading.end(), canonical) != loading.end()) {
        d.fail("include cycle: " + d.words[1] + " is being loaded already");
    }
    std::string text;
    if (!readBytes(machineFile.string(), text)) {
        d.fail("cannot read included machine " + d.words[1]);
    }
    std::string pathText = (isDirectory ? path : path.parent_path()).string();
    loading.push_back(canonical);
    loadLines(machine, text, pathText, isDirectory ? "" : path.string(), loading);
    loading.pop_back();
}

void loadLines(FakeMachine& machine, const std::string& text, const std::string& directory, const std::string& file,
               std::vector<std::string>& loading)
{
    // Lines and words without a stream built for each line.
    int number = 0;
    eachLine(text, [&](std::string& line) {
        ++number;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        Directive d{directory, number, {}, line, file};
        splitWords(line, d.words);
        if (d.words.empty() || d.words[0][0] == '#') {
            return;
        }
        if (d.words[0] == "include") {
            include(machine, d, loading);
            return;
        }
        auto it = handlers().find(d.words[0]);
        if (it == handlers().end()) {
            d.fail("unknown directive '" + d.words[0] + "'");
        }
        it->second(machine, d);
    });
}

} // namespace

void loadMachineText(FakeMachine& machine, const std::string& text, const std::string& directory)
{
    std::vector<std::string> loading;
    loadLines(machine, text, directory, "", loading);
}

std::unique_ptr<FakeMachine> loadMachine(const std::string& directory)
{
    struct stat info;
    if (::stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        throw MachineDirectoryError("machine " + directory + ": no such directory");
    }
    std::string text;
    if (!readBytes(directory + "/machine", text)) {
        throw MachineDirectoryError("machine " + directory + ": no file 'machine' in it");
    }
    auto machine = std::make_unique<FakeMachine>();
    std::error_code error;
    std::vector<std::string> loading{std::filesystem::canonical(directory + "/machine", error).string()};
    loadLines(*machine, text, directory, "", loading);
    return machine;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

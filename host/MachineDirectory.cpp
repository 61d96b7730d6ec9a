#include "host/MachineDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/stat.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

std::string readWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw MachineDirectoryError("cannot read " + path);
    }
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

std::string Directive::rest(size_t word) const
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

std::string Directive::data(const std::string& relativePath) const
{
    if (relativePath == "-") {
        return "";
    }
    std::ifstream in(directory + "/" + relativePath, std::ios::binary);
    if (!in) {
        fail("cannot read data file " + relativePath);
    }
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
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

void Directive::fail(const std::string& message) const
{
    throw MachineDirectoryError("machine " + directory + ", line " + std::to_string(lineNumber) + ": " + message);
}

namespace {

void needWords(const Directive& d, size_t count, const char* usage)
{
    if (d.words.size() < count) {
        d.fail(std::string("expected: ") + usage);
    }
}

int errnoByName(const Directive& d, const std::string& name)
{
    static const std::map<std::string, int> names = {
        {"EACCES", EACCES}, {"EPERM", EPERM}, {"ENOENT", ENOENT}, {"EIO", EIO}, {"EBUSY", EBUSY}, {"ENXIO", ENXIO}};
    auto it = names.find(name);
    if (it == names.end()) {
        d.fail("unknown error name " + name);
    }
    return it->second;
}

std::string unescapeText(const std::string& text)
{
    ModemScript script = ModemScript::parse("> x\n< " + text);
    return script.exchanges.front().pieces.front();
}

std::map<std::string, DirectiveHandler>& handlers()
{
    static std::map<std::string, DirectiveHandler> table = {
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
        {"missing-command",
         [](FakeMachine& m, const Directive& d) { m.setMissingCommandText(unescapeText(d.rest(1))); }},
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
             needWords(d, 2, "link PATH");
             m.addLink(d.words[1]);
         }},
        {"node",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 3, "node PATH c|b");
             if (d.words[2] != "c" && d.words[2] != "b") {
                 d.fail("node type must be c or b");
             }
             m.addNode(d.words[1], d.words[2][0], nullptr);
         }},
        {"memory",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 4, "memory PATH ADDRESS DATAFILE");
             auto model = std::dynamic_pointer_cast<MemoryModel>(m.model(d.words[1]));
             if (!model) {
                 model = std::make_shared<MemoryModel>();
                 m.addNode(d.words[1], 'c', model);
             }
             char* end = nullptr;
             unsigned long long address = std::strtoull(d.words[2].c_str(), &end, 0);
             if (end == nullptr || *end != '\0') {
                 d.fail("bad address " + d.words[2]);
             }
             model->place(address, d.data(d.words[3]));
         }},
        {"serial",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 2, "serial PATH type=N port=N irq=N [line=N] [modem=FILE]");
             auto model = std::make_shared<SerialModel>(static_cast<int>(d.number("type", 4)),
                                                        static_cast<int>(d.number("port", 0)),
                                                        static_cast<int>(d.number("irq", 0)),
                                                        static_cast<int>(d.number("line", 0)));
             std::string modem = d.option("modem", "");
             if (!modem.empty()) {
                 model->attachModem(ModemScript::parse(d.data(modem)));
             }
             m.addNode(d.words[1], 'c', model);
         }},
        {"deny",
         [](FakeMachine& m, const Directive& d) {
             needWords(d, 3, "deny PATH ERRNO");
             m.denyOpen(d.words[1], errnoByName(d, d.words[2]));
         }},
    };
    return table;
}

} // namespace

void registerDirective(const std::string& name, DirectiveHandler handler) { handlers()[name] = std::move(handler); }

void loadMachineText(FakeMachine& machine, const std::string& text, const std::string& directory)
{
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    while (std::getline(lines, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        Directive d{directory, number, {}, line};
        std::istringstream words(line);
        std::string word;
        while (words >> word) {
            d.words.push_back(word);
        }
        if (d.words.empty() || d.words[0][0] == '#') {
            continue;
        }
        auto it = handlers().find(d.words[0]);
        if (it == handlers().end()) {
            d.fail("unknown directive '" + d.words[0] + "'");
        }
        it->second(machine, d);
    }
}

std::unique_ptr<FakeMachine> loadMachine(const std::string& directory)
{
    struct stat info;
    if (::stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        throw MachineDirectoryError("machine " + directory + ": no such directory");
    }
    std::ifstream in(directory + "/machine");
    if (!in) {
        throw MachineDirectoryError("machine " + directory + ": no file 'machine' in it");
    }
    std::ostringstream text;
    text << in.rdbuf();
    auto machine = std::make_unique<FakeMachine>();
    loadMachineText(*machine, text.str(), directory);
    return machine;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

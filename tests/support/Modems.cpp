#include "tests/support/Modems.h"

#include "tests/support/Machines.h"

#include <cstdlib>
#include <sstream>

namespace ostrand_test {

using Vantrel::Ostrand::host::FakeMachine;
using Vantrel::Ostrand::host::ModemScript;

ssize_t ProbedSerial::read(FakeMachine& machine, char* buffer, size_t count, off_t offset)
{
    m_readSizes.push_back(count);
    if (m_readError != 0) {
        return -m_readError;
    }
    return SerialModel::read(machine, buffer, count, offset);
}

ssize_t ProbedSerial::write(FakeMachine& machine, const char* buffer, size_t count, off_t offset)
{
    m_arrivals.push_back({std::string(buffer, count), machine.clock().elapsed()});
    if (m_writeError != 0) {
        return -m_writeError;
    }
    return SerialModel::write(machine, buffer, count, offset);
}

std::shared_ptr<ProbedSerial> addSerialNode(FakeMachine& machine, const std::string& path, int port, int irq,
                                            const std::string& script, int type)
{
    auto model = std::make_shared<ProbedSerial>(type, port, irq);
    if (!script.empty()) {
        model->attachModem(ModemScript::parse(script));
    }
    machine.addNode(path, 'c', model);
    return model;
}

namespace {

// The capture's escapes: \r and \n; anything else stands for itself.
std::string unescapeToken(const std::string& token)
{
    if (token == "\\r") {
        return "\r";
    }
    if (token == "\\n") {
        return "\n";
    }
    return token;
}

std::string unescapeCommand(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            out += unescapeToken(text.substr(i, 2));
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

} // namespace

std::map<std::string, ModemScript> labServerModemScripts()
{
    // Lines "PATH <- COMMAND" and "   ->  b y t e s": the reply's bytes are
    // separated by blanks, so the modem's own blanks are lost in the dump.
    // The captures' README gives the words of the identification.
    std::map<std::string, ModemScript> scripts;
    std::istringstream text(capture("lab-server/modem.txt"));
    std::string line;
    ModemScript* current = nullptr;
    while (std::getline(text, line)) {
        size_t arrow = line.find(" <- ");
        if (arrow != std::string::npos) {
            current = &scripts[line.substr(0, arrow)];
            current->exchanges.push_back({unescapeCommand(line.substr(arrow + 4)), {}});
            continue;
        }
        size_t reply = line.find("->");
        if (reply == std::string::npos || current == nullptr) {
            continue;
        }
        std::istringstream tokens(line.substr(reply + 2));
        std::string token;
        std::string bytes;
        while (tokens >> token) {
            bytes += unescapeToken(token);
        }
        const std::string squeezed = "LabModem56KV.92External";
        size_t at = bytes.find(squeezed);
        if (at != std::string::npos) {
            bytes.replace(at, squeezed.size(), "LabModem 56K V.92 External");
        }
        // A silent line has no piece at all.
        if (!bytes.empty()) {
            current->exchanges.back().pieces.push_back(bytes);
        }
    }
    return scripts;
}

std::map<std::string, std::shared_ptr<ProbedSerial>> addLabServerSerialPorts(FakeMachine& machine)
{
    std::map<std::string, std::shared_ptr<ProbedSerial>> ports;
    std::map<std::string, ModemScript> scripts = labServerModemScripts();
    std::istringstream text(capture("lab-server/ioctls.txt"));
    std::string line;
    while (std::getline(text, line)) {
        size_t colon = line.find(": TIOCGSERIAL ");
        if (colon == std::string::npos) {
            continue;
        }
        std::string path = line.substr(0, colon);
        std::istringstream words(line.substr(colon + 14));
        std::map<std::string, long> values;
        std::string word;
        while (words >> word) {
            size_t equals = word.find('=');
            if (equals != std::string::npos) {
                values[word.substr(0, equals)] = std::strtol(word.substr(equals + 1).c_str(), nullptr, 0);
            }
        }
        auto model = std::make_shared<ProbedSerial>(static_cast<int>(values["type"]), static_cast<int>(values["port"]),
                                                    static_cast<int>(values["irq"]), static_cast<int>(values["line"]));
        // Only a node that answered something carries the modem.
        auto script = scripts.find(path);
        if (script != scripts.end()) {
            bool answers = false;
            for (const auto& exchange : script->second.exchanges) {
                answers = answers || !exchange.pieces.empty();
            }
            if (answers) {
                model->attachModem(script->second);
            }
        }
        machine.addNode(path, 'c', model);
        ports[path] = model;
    }
    return ports;
}

void addLabServerSmbios(FakeMachine& machine)
{
    machine.addFile("/sys/firmware/dmi/tables/smbios_entry_point", capture("lab-server/smbios_entry_point.bin"));
    machine.addFile("/sys/firmware/dmi/tables/DMI", capture("lab-server/DMI.bin"));
}

} // namespace ostrand_test

#include "host/models/Models.h"

#include <cctype>
#include <cstdlib>
#include <stdexcept>
#include <map>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

void loadMemory(FakeMachine& m, const Directive& d)
{
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
}

void loadSerial(FakeMachine& m, const Directive& d)
{
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
}

void loadUsbfs(FakeMachine& m, const Directive& d)
{
    needWords(d, 3, "usbfs PATH DEVICEFILE");
    std::shared_ptr<UsbfsModel> model;
    try {
        model = UsbfsModel::parse(d.data(d.words[2]));
    } catch (const std::invalid_argument& e) {
        d.fail(d.words[2] + ", " + e.what());
    }
    m.addNode(d.words[1], 'c', model);
}

// --- SCSI generic nodes --------------------------------------------------------

std::shared_ptr<SgModel> sgNode(FakeMachine& m, const Directive& d)
{
    auto model = std::dynamic_pointer_cast<SgModel>(m.model(d.words[1]));
    if (!model) {
        d.fail("no sg node " + d.words[1] + " (its 'sg' line comes first)");
    }
    return model;
}

int flag(const Directive& d, const std::string& key, int fallback)
{
    long value = d.number(key, fallback);
    if (value != 0 && value != 1) {
        d.fail("'" + key + "' is 0 or 1");
    }
    return static_cast<int>(value);
}

// key=value words, where a value in double quotes may hold blanks and the
// escapes of modem files (and \" for a quote).
std::map<std::string, std::string> quotedFields(const Directive& d, const std::string& text)
{
    std::map<std::string, std::string> fields;
    size_t i = 0;
    while (true) {
        i = text.find_first_not_of(" \t", i);
        if (i == std::string::npos) {
            return fields;
        }
        size_t equals = text.find('=', i);
        size_t blank = text.find_first_of(" \t", i);
        if (equals == std::string::npos || (blank != std::string::npos && blank < equals)) {
            d.fail("expected key=value at: " + text.substr(i));
        }
        std::string key = text.substr(i, equals - i);
        i = equals + 1;
        std::string value;
        if (i < text.size() && text[i] == '"') {
            size_t end = i + 1;
            while (end < text.size() && text[end] != '"') {
                end += text[end] == '\\' ? 2 : 1;
            }
            if (end >= text.size()) {
                d.fail("no closing quote for " + key);
            }
            std::string raw = text.substr(i + 1, end - i - 1);
            for (size_t q = 0; (q = raw.find("\\\"", q)) != std::string::npos;) {
                raw.replace(q, 2, "\"");
                ++q;
            }
            value = unescape(raw);
            i = end + 1;
        } else {
            size_t end = text.find_first_of(" \t", i);
            value = text.substr(i, end == std::string::npos ? std::string::npos : end - i);
            i = end == std::string::npos ? text.size() : end;
        }
        fields[key] = value;
    }
}

// The bytes of one hexadecimal text, two digits a byte.
std::string hexText(const Directive& d, const std::string& text)
{
    std::string bytes;
    if (text.size() % 2 != 0) {
        d.fail("odd number of hexadecimal digits: " + text);
    }
    for (size_t i = 0; i < text.size(); i += 2) {
        if (!std::isxdigit(static_cast<unsigned char>(text[i])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 1]))) {
            d.fail("not hexadecimal: " + text);
        }
        bytes += static_cast<char>(std::strtol(text.substr(i, 2).c_str(), nullptr, 16));
    }
    return bytes;
}

// Hexadecimal bytes, two digits each, in words of any even length ("0B3F").
std::string hexBytes(const Directive& d, size_t firstWord)
{
    std::string bytes;
    for (size_t w = firstWord; w < d.words.size(); ++w) {
        bytes += hexText(d, d.words[w]);
    }
    return bytes;
}

long hexWord(const Directive& d, size_t word)
{
    char* end = nullptr;
    long value = std::strtol(d.words[word].c_str(), &end, 16);
    if (end == nullptr || *end != '\0' || value < 0 || value > 0xFF) {
        d.fail("not a hexadecimal byte: " + d.words[word]);
    }
    return value;
}

long numberText(const Directive& d, const std::string& key, const std::string& text, long lowest, long highest)
{
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || end == nullptr || *end != '\0' || value < lowest || value > highest) {
        d.fail("'" + key + "' is a number from " + std::to_string(lowest) + " to " + std::to_string(highest) + ": " +
               text);
    }
    return value;
}

int opcodeByName(const Directive& d, const std::string& name)
{
    static const std::map<std::string, int> names = {{"test-unit-ready", kTestUnitReady},
                                                     {"inquiry", kInquiry},
                                                     {"mode-sense", kModeSense10},
                                                     {"mode-sense-6", kModeSense6},
                                                     {"read-capacity", kReadCapacity10}};
    auto it = names.find(name);
    if (it != names.end()) {
        return it->second;
    }
    char* end = nullptr;
    long opcode = std::strtol(name.c_str(), &end, 0);
    if (name.empty() || end == nullptr || *end != '\0' || opcode < 0 || opcode > 0xFF) {
        d.fail("unknown SCSI command " + name);
    }
    return static_cast<int>(opcode);
}

InquiryFields inquiryFields(const Directive& d, InquiryFields fields)
{
    for (const auto& field : quotedFields(d, d.rest(2))) {
        if (field.first == "type") {
            fields.type = static_cast<int>(numberText(d, field.first, field.second, 0, 0x1F));
        } else if (field.first == "rmb") {
            fields.removable = numberText(d, field.first, field.second, 0, 1) == 1;
        } else if (field.first == "vendor") {
            fields.vendor = field.second;
        } else if (field.first == "product") {
            fields.product = field.second;
        } else if (field.first == "rev") {
            fields.revision = field.second;
        } else {
            d.fail("unknown INQUIRY field " + field.first);
        }
    }
    return fields;
}

// status STATUS [data=HEX] [sense=HEX], from word 3 on: a reply exactly as a
// device gave it, as recordings write it.
SgReply statusReply(const Directive& d, const char* usage)
{
    if (d.words.size() < 5) {
        d.fail(std::string("expected: ") + usage);
    }
    SgReply reply;
    reply.status = static_cast<unsigned char>(hexWord(d, 4));
    for (size_t w = 5; w < d.words.size(); ++w) {
        const std::string& word = d.words[w];
        if (word.compare(0, 5, "data=") == 0) {
            reply.data = hexText(d, word.substr(5));
        } else if (word.compare(0, 6, "sense=") == 0) {
            reply.sense = hexText(d, word.substr(6));
        } else {
            d.fail("expected data=HEX or sense=HEX: " + word);
        }
    }
    return reply;
}

// good HEX... | check KEY CODE [QUALIFIER] | check-descriptor ... | fail ERRNO,
// from word 3 on.
SgReply replyOf(const Directive& d, const char* usage)
{
    const std::string& kind = d.words[3];
    if (kind == "good") {
        return SgReply::good(hexBytes(d, 4));
    }
    if (kind == "check" || kind == "check-descriptor") {
        if (d.words.size() < 6 || d.words.size() > 7) {
            d.fail(std::string("expected: ") + usage);
        }
        int key = static_cast<int>(hexWord(d, 4));
        int code = static_cast<int>(hexWord(d, 5));
        int qualifier = d.words.size() > 6 ? static_cast<int>(hexWord(d, 6)) : 0;
        return kind == "check" ? SgReply::check(key, code, qualifier) : SgReply::checkDescriptor(key, code, qualifier);
    }
    if (kind == "fail") {
        needWords(d, 5, usage);
        return SgReply::failure(errnoByName(d, d.words[4]));
    }
    if (kind == "status") {
        return statusReply(d, usage);
    }
    d.fail(std::string("expected: ") + usage);
}

void loadSg(FakeMachine& m, const Directive& d)
{
    needWords(d, 2, "sg PATH host=N channel=N id=N lun=N type=N [emulated=0|1] [cmd-per-lun=N] [queue-depth=N]");
    ScsiAddress address;
    address.host = static_cast<int>(d.number("host", 0));
    address.channel = static_cast<int>(d.number("channel", 0));
    address.id = static_cast<int>(d.number("id", 0));
    address.lun = static_cast<int>(d.number("lun", 0));
    address.type = static_cast<int>(d.number("type", 0));
    auto model = std::make_shared<SgModel>(address);
    model->setEmulated(flag(d, "emulated", 0) == 1);
    model->setQueue(static_cast<short>(d.number("cmd-per-lun", 1)), static_cast<short>(d.number("queue-depth", 1)));
    m.addNode(d.words[1], 'c', model);
}

void loadSgProbeHost(FakeMachine& m, const Directive& d)
{
    needWords(d, 3, "sg-probe-host PATH TEXT");
    sgNode(m, d)->setProbeHost(unescape(d.rest(2)));
}

void loadSgPci(FakeMachine& m, const Directive& d)
{
    needWords(d, 3, "sg-pci PATH TEXT");
    sgNode(m, d)->setPci(unescape(d.rest(2)));
}

void loadSgInquiry(FakeMachine& m, const Directive& d)
{
    needWords(d, 2, "sg-inquiry PATH [type=N] [rmb=0|1] vendor=\"TEXT\" product=\"TEXT\" rev=\"TEXT\"");
    auto model = sgNode(m, d);
    model->setInquiry(inquiryFields(d, model->inquiry()));
}

void loadSgReply(FakeMachine& m, const Directive& d)
{
    const char* usage = "sg-reply PATH COMMAND good [HEX...] | check KEY CODE [QUALIFIER] | "
                        "check-descriptor KEY CODE [QUALIFIER] | fail ERRNO | status STATUS [data=HEX] [sense=HEX]";
    needWords(d, 4, usage);
    auto model = sgNode(m, d);
    int opcode = opcodeByName(d, d.words[2]);
    model->addReply(opcode, replyOf(d, usage));
}

// --- IDE and SCSI block nodes ---------------------------------------------------

std::shared_ptr<IdeModel> ideNode(FakeMachine& m, const Directive& d)
{
    auto model = std::dynamic_pointer_cast<IdeModel>(m.model(d.words[1]));
    if (!model) {
        d.fail("no ide or scsi-block node " + d.words[1] + " (its 'ide' or 'scsi-block' line comes first)");
    }
    return model;
}

// The identity block of an identity=DATAFILE word: 512 bytes.
void loadIdentity(IdeModel& model, const Directive& d)
{
    std::string file = d.option("identity", "");
    if (file.empty()) {
        return;
    }
    std::string block = d.data(file);
    if (block.size() != 512) {
        d.fail(file + " holds " + std::to_string(block.size()) + " bytes, not the 512 of an identity block");
    }
    model.setIdentity(block);
}

void loadIde(FakeMachine& m, const Directive& d)
{
    needWords(d, 2, "ide PATH [identity=DATAFILE] [packets=0|1]");
    auto model = std::make_shared<IdeModel>();
    loadIdentity(*model, d);
    model->setPackets(flag(d, "packets", 1) == 1);
    m.addNode(d.words[1], 'b', model);
}

void loadIdeInquiry(FakeMachine& m, const Directive& d)
{
    needWords(d, 2, "ide-inquiry PATH [type=N] [rmb=0|1] vendor=\"TEXT\" product=\"TEXT\" rev=\"TEXT\"");
    auto model = ideNode(m, d);
    model->setInquiry(inquiryFields(d, model->inquiry()));
}

void loadIdePacket(FakeMachine& m, const Directive& d)
{
    const char* usage = "ide-packet PATH COMMAND good [HEX...] | check KEY CODE [QUALIFIER] | "
                        "check-descriptor KEY CODE [QUALIFIER] | fail ERRNO | status STATUS [data=HEX] [sense=HEX]";
    needWords(d, 4, usage);
    auto model = ideNode(m, d);
    int opcode = opcodeByName(d, d.words[2]);
    model->addReply(opcode, replyOf(d, usage));
}

void loadScsiBlock(FakeMachine& m, const Directive& d)
{
    needWords(d, 2, "scsi-block PATH host=N channel=N id=N lun=N [unique-id=N] [identity=DATAFILE]");
    ScsiAddress address;
    address.host = static_cast<int>(numberText(d, "host", d.option("host", "0"), 0, 255));
    address.channel = static_cast<int>(numberText(d, "channel", d.option("channel", "0"), 0, 255));
    address.id = static_cast<int>(numberText(d, "id", d.option("id", "0"), 0, 255));
    address.lun = static_cast<int>(numberText(d, "lun", d.option("lun", "0"), 0, 255));
    auto model = std::make_shared<ScsiBlockModel>(address, static_cast<int>(d.number("unique-id", 0)));
    loadIdentity(*model, d);
    m.addNode(d.words[1], 'b', model);
}

void loadScsiBlockPci(FakeMachine& m, const Directive& d)
{
    needWords(d, 3, "scsi-block-pci PATH TEXT");
    auto model = std::dynamic_pointer_cast<ScsiBlockModel>(m.model(d.words[1]));
    if (!model) {
        d.fail("no scsi-block node " + d.words[1] + " (its 'scsi-block' line comes first)");
    }
    model->setPci(unescape(d.rest(2)));
}

// --- Floppy drives ------------------------------------------------------------------

void loadFloppy(FakeMachine& m, const Directive& d)
{
    needWords(d, 3, "floppy PATH type=NAME [track=N] [flags=N] [maxblock=N] [maxtrack=N]");
    std::string type = d.option("type", "");
    if (type.empty()) {
        d.fail("'type' names the drive type (H1440, or (null) for no drive)");
    }
    FloppyState state;
    state.flags = static_cast<unsigned long>(d.number("flags", 0));
    state.track = static_cast<short>(numberText(d, "track", d.option("track", "0"), -32768, 32767));
    state.maxblock = static_cast<short>(numberText(d, "maxblock", d.option("maxblock", "0"), -32768, 32767));
    state.maxtrack = static_cast<short>(numberText(d, "maxtrack", d.option("maxtrack", "0"), -32768, 32767));
    m.addNode(d.words[1], 'b', std::make_shared<FloppyModel>(type, state));
}

} // namespace

const std::vector<ModelDirective>& modelDirectives()
{
    static const std::vector<ModelDirective> list = {
        {"memory", loadMemory},
        {"serial", loadSerial},
        {"usbfs", loadUsbfs},
        {"sg", loadSg},
        {"sg-probe-host", loadSgProbeHost},
        {"sg-pci", loadSgPci},
        {"sg-inquiry", loadSgInquiry},
        {"sg-reply", loadSgReply},
        {"floppy", loadFloppy},
        {"ide", loadIde},
        {"ide-inquiry", loadIdeInquiry},
        {"ide-packet", loadIdePacket},
        {"scsi-block", loadScsiBlock},
        {"scsi-block-pci", loadScsiBlockPci},
    };
    return list;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// The lsusb parser's line scanner: one line of lsusb's text at a time, keys
// sought anywhere in the line, values found by column, written straight into
// the record. Text only; nothing here touches the machine.
//
// Positions are std::string positions: a search that finds nothing gives
// npos, and the arithmetic below wraps as the unsigned positions of
// std::string do. A start that lands behind the end makes substr throw
// std::out_of_range, which goes up to the caller.
#include "usb/lsusbParser.h"

#include "probes/LinuxUtils.h"

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace Vantrel {
namespace Ostrand {

// The framework shows this label, letter for letter, in front of the USB
// release; it is spelt out here once and every route takes it from here.
extern const char kUsbReleaseLabel[] = {'S', 'p', 'e', 'c', 's', ':', '\0'};

namespace {

const size_t npos = std::string::npos;

bool contains(const std::string& line, const char* key) { return line.find(key) != npos; }

// The keys that choose what a line is, each a bit.
enum Key : unsigned {
    kBus0 = 1u << 0,
    kBusPowered = 1u << 1,
    kBcdUsb = 1u << 2,
    kIdVendor = 1u << 3,
    kNoId = 1u << 4,
    kIdProduct = 1u << 5,
    kBcdDevice = 1u << 6,
    kIManufacturer = 1u << 7,
    kIProduct = 1u << 8,
    kISerial = 1u << 9,
    kSelfPowered = 1u << 10,
    kMaxPower = 1u << 11,
    kBInterfaceClass = 1u << 12,
    kBInterfaceSubClass = 1u << 13,
};

struct KeyText {
    char first;
    const char* text;
    size_t length;
    Key key;
};

template <size_t N> constexpr KeyText keyText(const char (&text)[N], Key key) { return {text[0], text, N - 1, key}; }

constexpr KeyText kKeyTexts[] = {
    keyText("Bus 0", kBus0),
    keyText("(Bus Powered", kBusPowered),
    keyText("bcdUSB", kBcdUsb),
    keyText("idVendor", kIdVendor),
    keyText("0x0000", kNoId),
    keyText("idProduct", kIdProduct),
    keyText("bcdDevice", kBcdDevice),
    keyText("iManufacturer", kIManufacturer),
    keyText("iProduct", kIProduct),
    keyText("iSerial", kISerial),
    keyText("Self Powered", kSelfPowered),
    keyText("MaxPower", kMaxPower),
    keyText("bInterfaceClass", kBInterfaceClass),
    keyText("bInterfaceSubClass", kBInterfaceSubClass),
};

// The keys that a letter may begin, as a bit set over kKeyTexts.
struct FirstLetters {
    unsigned short keys[256];

    constexpr FirstLetters() : keys()
    {
        for (size_t k = 0; k < sizeof kKeyTexts / sizeof kKeyTexts[0]; ++k) {
            keys[static_cast<unsigned char>(kKeyTexts[k].first)] |= static_cast<unsigned short>(1u << k);
        }
    }
};
constexpr FirstLetters kFirstLetters;

// Every key the line holds, anywhere in it, found in one pass: the same
// answers as a search for each key in turn. A letter that begins no key
// costs one look in the table.
unsigned keysIn(const std::string& line)
{
    unsigned found = 0;
    const char* const data = line.data();
    const size_t size = line.size();
    for (size_t i = 0; i < size; ++i) {
        unsigned candidates = kFirstLetters.keys[static_cast<unsigned char>(data[i])];
        while (candidates != 0) {
            const KeyText& key = kKeyTexts[__builtin_ctz(candidates)];
            candidates &= candidates - 1;
            if (key.length <= size - i && std::memcmp(data + i, key.text, key.length) == 0) {
                found |= key.key;
            }
        }
    }
    return found;
}

// Whether any of the codes 1 to 30 but tab, newline and carriage return is
// in the line.
bool holdsControlCharacter(const std::string& line)
{
    const unsigned char* const data = reinterpret_cast<const unsigned char*>(line.data());
    unsigned any = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const unsigned code = data[i];
        any |= static_cast<unsigned>(code - 1u < 30u) & static_cast<unsigned>(code != 9) &
               static_cast<unsigned>(code != 10) & static_cast<unsigned>(code != 13);
    }
    return any != 0;
}

bool isDigit(unsigned char c) { return std::isdigit(c) != 0; }
bool isAlphaNum(unsigned char c) { return std::isalnum(c) != 0; }

// The first character at or behind start that passes the test. A null text,
// or a start below 0, finds nothing.
int firstMatching(const char* text, int start, bool (*test)(unsigned char))
{
    if (text == nullptr || start < 0) {
        return -1;
    }
    size_t length = std::strlen(text);
    for (size_t i = static_cast<size_t>(start); i < length; ++i) {
        if (test(static_cast<unsigned char>(text[i]))) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// A std::string position as a start for the searches: npos, and anything
// that an int cannot hold, gives -1, which finds nothing.
int asStart(size_t position) { return position > static_cast<size_t>(INT_MAX) ? -1 : static_cast<int>(position); }

// The decimal value of digits, as atoi reads them; a value beyond an int is
// held at the nearest limit.
int decimalValue(const std::string& digits)
{
    long value = std::strtol(digits.c_str(), nullptr, 10);
    if (value > INT_MAX) {
        return INT_MAX;
    }
    if (value < INT_MIN) {
        return INT_MIN;
    }
    return static_cast<int>(value);
}

// A value of a line: its first digit at or behind the column, and the blank
// behind that digit (npos when the value runs to the end).
struct Value {
    bool found;
    size_t digit;
    size_t blank;
};

// Applies one line, cut at its control character, to one record.
class LineScan {
public:
    LineScan(lsusbParser& parser, LinuxUtils& utils, const std::string& text, Usb_Device& device)
        : m_parser(parser), m_utils(utils), m_text(text), m_device(device)
    {
    }

    // Order 1: "Bus 001 Device 003: ID 8087:0024 Intel Corp. Hub".
    void deviceLine(const std::string& root)
    {
        // 1. The bus text, from behind "Bus " up to " Device".
        size_t device = m_text.find(" Device");
        std::string bus = m_text.substr(4, device - 4);
        // 2.
        m_device.devicePath += root + bus;
        // 3. The device number, from behind " Device " up to the first colon.
        size_t colon = m_text.find(':');
        m_device.deviceNum = m_text.substr(device + 8, colon - (device + 8));
        // 4.
        m_device.devicePath += "/" + m_device.deviceNum;
        // 5. A root hub takes its names from the later lines.
        if (contains(m_text, "Device 001:")) {
            return;
        }
        // 6. The blank behind the vendor and product ids. Without one, npos
        //    passes the length test and substr throws.
        size_t id = m_text.find("ID");
        size_t blank = m_text.find(' ', id + 4);
        if (m_text.size() - blank < 5) {
            return;
        }
        // 7. The name as the tool gives it, its leading blank kept.
        m_device.modelName = m_text.substr(blank);
    }

    // Order 2: "bcdUSB               2.00".
    void usbRelease()
    {
        Value value = valueFrom(8);
        if (!value.found) {
            return;
        }
        m_device.usbSpec = m_text.substr(value.digit);
        m_device.addlHWInfo = kUsbReleaseLabel + m_device.usbSpec;
    }

    // Order 3: "idVendor           0x8087 Intel Corp.".
    void vendor() { numberLine(10, m_device.vendorIdText, m_device.vendorId, m_device.vendorName, false); }

    // Order 4: "idProduct          0x0024 Integrated Rate Matching Hub". A name
    // from the device line stays.
    void product() { numberLine(11, m_device.productIdText, m_device.productId, m_device.modelName, true); }

    // Order 5: "bcdDevice            5.04". Any release that holds "0.00",
    // 10.00 included, adds nothing.
    void deviceRelease()
    {
        Value value = valueFrom(11);
        if (!value.found) {
            return;
        }
        m_device.firmwareRev = m_text.substr(value.digit);
        if (!contains(m_device.firmwareRev, "0.00")) {
            m_device.addlHWInfo += ", Rev:" + m_device.firmwareRev;
        }
    }

    // Order 6: "iManufacturer           3 Linux 5.04 ehci_hcd".
    void manufacturer()
    {
        indexLine(15, m_device.manufacturerIndex, m_device.manufacturer);
        if (!m_device.manufacturer.empty() && m_device.vendorName.empty()) {
            m_device.vendorName = m_device.manufacturer;
        }
    }

    // Order 7: "iProduct                2 EHCI Host Controller". Without a
    // string the bare index stays in productName, and may become the model.
    void productString()
    {
        indexLine(10, m_device.productName, m_device.productName);
        if (!m_device.productName.empty() && m_device.modelName.empty()) {
            m_device.modelName = m_device.productName;
        }
        if (contains(m_device.productName, "RDX") || contains(m_device.productName, "KX7700")) {
            m_device.endDevice = true;
        }
    }

    // Order 8: "iSerial                 1 0000:00:1d.0".
    void serial() { indexLine(7, m_device.serialNo, m_device.serialNo); }

    // Order 9.
    void selfPowered() { m_device.selfPowered = 1; }

    // Order 10: "MaxPower              100mA". The power source is the one that
    // the "Self Powered" line before it set.
    void maxPower()
    {
        Value value = valueFrom(12);
        if (!value.found) {
            return;
        }
        std::string draw = m_text.substr(value.digit);
        if (contains(m_text, "mA")) {
            m_device.addlHWInfo += ", Power:" + draw + " ";
        } else {
            m_device.addlHWInfo += ", Power:" + draw + "mA ";
        }
        m_device.addlHWInfo += m_device.selfPowered != 0 ? "Self" : "Bus";
    }

    // Order 11: "bInterfaceClass         9 Hub". The last interface wins.
    void interfaceClass() { digitsLine(21, m_device.classText, m_device.deviceClass); }

    // Order 12: "bInterfaceSubClass      0 Unused".
    void interfaceSubClass() { digitsLine(14, m_device.subClassText, m_device.deviceSubClass); }

private:
    Value valueFrom(int column)
    {
        int digit = m_parser.getFirstDigit(m_text.c_str(), column);
        if (digit < 0) {
            return Value{false, 0, 0};
        }
        size_t at = static_cast<size_t>(digit);
        return Value{true, at, m_text.find(' ', at)};
    }

    // The value from its digit up to the blank behind it, or to the end.
    std::string valueText(const Value& value) const { return m_text.substr(value.digit, value.blank - value.digit); }

    // The text behind a value: from its first letter or digit to the end of
    // the line. The field stays as it was when there is none.
    void textBehind(const Value& value, std::string& field)
    {
        int start = m_parser.getFirstAlphaNumChar(m_text.c_str(), asStart(value.blank));
        if (start >= 0) {
            field = m_text.substr(static_cast<size_t>(start));
        }
    }

    // A hexadecimal id with its "0x", its number, and the name behind it.
    void numberLine(int column, std::string& idText, int& number, std::string& name, bool onlyIntoEmptyName)
    {
        Value value = valueFrom(column);
        if (!value.found) {
            return;
        }
        idText = valueText(value);
        number = m_utils.fromHexToInt(idText);
        if (onlyIntoEmptyName && !name.empty()) {
            return;
        }
        textBehind(value, name);
    }

    // A string index, then the string behind it. The two fields may be one.
    void indexLine(int column, std::string& index, std::string& string)
    {
        Value value = valueFrom(column);
        if (!value.found) {
            return;
        }
        index = valueText(value);
        textBehind(value, string);
    }

    // Decimal digits up to the next blank, as text and as number.
    void digitsLine(int column, std::string& text, int& number)
    {
        Value value = valueFrom(column);
        if (!value.found) {
            return;
        }
        text = valueText(value);
        number = decimalValue(text);
    }

    lsusbParser& m_parser;
    LinuxUtils& m_utils;
    const std::string& m_text;
    Usb_Device& m_device;
};

} // namespace

void lsusbParser::parseBuffer(std::string const& line, Usb_Device* device)
{
    // A line before the first device line has no record to go to; it is
    // dropped rather than written through a null pointer.
    if (device == nullptr) {
        return;
    }
    // A control character cuts the line, and the character before it goes too.
    std::string cut;
    int position = 0;
    if (isContrlChar(line, position) && position > 0) {
        cut = line.substr(0, static_cast<size_t>(position - 1));
    }
    const std::string& text = position > 0 ? cut : line;

    // The first key that the line holds takes it.
    const unsigned keys = keysIn(text);
    LineScan scan(*this, *m_linuxUtils, text, *device);
    if ((keys & kBus0) && !(keys & kBusPowered)) {
        scan.deviceLine(m_usbRoot);
    } else if (keys & kBcdUsb) {
        scan.usbRelease();
    } else if ((keys & kIdVendor) && !(keys & kNoId)) {
        scan.vendor();
    } else if (keys & kIdProduct) {
        scan.product();
    } else if (keys & kBcdDevice) {
        scan.deviceRelease();
    } else if (keys & kIManufacturer) {
        scan.manufacturer();
    } else if (keys & kIProduct) {
        scan.productString();
    } else if (keys & kISerial) {
        scan.serial();
    } else if (keys & kSelfPowered) {
        scan.selfPowered();
    } else if (keys & kMaxPower) {
        scan.maxPower();
    } else if (keys & kBInterfaceClass) {
        scan.interfaceClass();
    } else if (keys & kBInterfaceSubClass) {
        scan.interfaceSubClass();
    }
}

bool lsusbParser::isContrlChar(std::string const& line, int& position)
{
    // Nearly every line holds none of them: a pass that only asks whether
    // any is there (and that the compiler can run many bytes at a time)
    // settles those lines.
    if (!holdsControlCharacter(line)) {
        return false;
    }
    // The lowest code present wins, wherever it stands in the line: one
    // pass keeps the lowest code seen and where it first stood.
    int lowest = 31;
    size_t at = npos;
    for (size_t i = 0; i < line.size(); ++i) {
        int code = static_cast<unsigned char>(line[i]);
        if (code < 1 || code >= lowest || code == 9 || code == 10 || code == 13) {
            continue;
        }
        lowest = code;
        at = i;
    }
    if (at == npos) {
        return false;
    }
    position = static_cast<int>(at);
    return true;
}

int lsusbParser::getFirstDigit(char const* text, int start) { return firstMatching(text, start, isDigit); }

int lsusbParser::getFirstAlphaNumChar(char const* text, int start) { return firstMatching(text, start, isAlphaNum); }

} // namespace Ostrand
} // namespace Vantrel

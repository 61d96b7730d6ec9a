#include "probes/PCIUtil.h"

#include "host/Host.h"
#include "probes/HexText.h"
#include "probes/LinuxUtils.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace Vantrel {
namespace Ostrand {

namespace {

const size_t kLineSize = 256;

// These four controllers are hidden from every class query.
bool isHiddenDevice(int deviceId)
{
    return deviceId == 0x27C0 || deviceId == 0x24D1 || deviceId == 0x1D3A || deviceId == 0x1D3B;
}

bool contains(const char* line, const char* word) { return std::strstr(line, word) != nullptr; }

// fgets and feof without the stream's lock: each pipe is read by this
// function alone, on one thread, so the lock taken for every line buys
// nothing.
char* readLine(char* line, FILE* pipe) { return fgets_unlocked(line, static_cast<int>(kLineSize), pipe); }

bool atEnd(FILE* pipe) { return feof_unlocked(pipe) != 0; }

// fgets leaves the newline in; the last character is cut whatever it is.
// The length of what is left.
size_t cutLastCharacter(char* line)
{
    size_t length = std::strlen(line);
    if (length > 0) {
        line[--length] = '\0';
    }
    return length;
}

// The line, cut, goes into text, whose room is kept from one line to the next.
void takeLine(char* line, std::string& text)
{
    size_t length = cutLastCharacter(line);
    text.assign(line, length);
}

// The words that an -v line is read for, each a bit.
enum VWord : unsigned {
    kPcilib = 1u << 0,
    kIrq = 1u << 1,
    kBusColon = 1u << 2,
    kIoPortsAt = 1u << 3,
};

bool wordAt(const char* at, const char* end, const char* word, size_t length)
{
    return length <= static_cast<size_t>(end - at) && std::memcmp(at, word, length) == 0;
}

// Every word the line holds, anywhere in it, found in one pass: the same
// answers as a search for each word in turn. The line ends at its first zero
// byte (length is its strlen), so strpbrk finds the capitals that begin the
// other words and the colon that ends "pcilib:", letters that few lines
// hold more than once; only there are the words compared.
unsigned vWordsIn(const char* line, size_t length)
{
    unsigned found = 0;
    const char* const begin = line;
    const char* const end = begin + length;
    for (const char* at = std::strpbrk(begin, "IB:"); at != nullptr; at = std::strpbrk(at + 1, "IB:")) {
        if (*at == ':') {
            if (at - begin >= 6 && std::memcmp(at - 6, "pcilib:", 7) == 0) {
                found |= kPcilib;
            }
        } else if (*at == 'I') {
            if (wordAt(at, end, "IRQ", 3)) {
                found |= kIrq;
            } else if (wordAt(at, end, "I/O ports at", 12)) {
                found |= kIoPortsAt;
            }
        } else if (wordAt(at, end, "Bus: ", 5)) {
            found |= kBusColon;
        }
    }
    return found;
}

// Whether "0000:" stands anywhere in the line, read in one pass as four
// zeros (or more) straight before a colon: the answer of a search for it,
// without a library call for every zero the line holds.
bool holdsZeroDomain(const std::string& line)
{
    size_t zeros = 0;
    for (char c : line) {
        if (c == ':' && zeros >= 4) {
            return true;
        }
        zeros = c == '0' ? zeros + 1 : 0;
    }
    return false;
}

// line.find_first_of("(r", from), in one pass without a search of the set
// for every character.
size_t firstParenthesisOrR(const std::string& line, size_t from)
{
    for (size_t i = from; i < line.size(); ++i) {
        if (line[i] == '(' || line[i] == 'r') {
            return i;
        }
    }
    return std::string::npos;
}

// A start in the line, checked as std::string::substr checks it: one behind
// the end throws the very std::out_of_range that substr throws.
size_t checkedStart(const std::string& line, size_t start)
{
    if (start > line.size()) {
        static_cast<void>(line.substr(start));
    }
    return start;
}

// A part of the line as std::string::substr cuts it, without the copy.
std::string_view part(const std::string& line, size_t start, size_t count)
{
    return std::string_view(line).substr(checkedStart(line, start), count);
}

} // namespace

PCIUtil::PCIUtil() {}

PCIUtil::~PCIUtil() {}

int PCIUtil::initPciUtil()
{
    // 1. Line buffers, then the -n and -m children, running side by side.
    char nLine[kLineSize];
    char mLine[kLineSize];
    char vLine[kLineSize];
    std::memset(nLine, 0, sizeof nLine);
    std::memset(mLine, 0, sizeof mLine);
    std::memset(vLine, 0, sizeof vLine);

    // The lines as texts, each kept for the next line so that its room is
    // allocated once.
    std::string nText;
    std::string mText;
    std::string vText;
    nText.reserve(kLineSize);
    mText.reserve(kLineSize);
    vText.reserve(kLineSize);

    FILE* nPipe = host::popen("/sbin/lspci -n 2>&1", "r");
    if (nPipe == nullptr) {
        return 0;
    }
    FILE* mPipe = host::popen("/sbin/lspci -m 2>&1", "r");
    if (mPipe == nullptr) {
        host::pclose(nPipe);
        return 0;
    }

    // 2. The two texts in lockstep: the n-th line of one is the n-th device of
    //    the other. The end test follows the read, so an unterminated last line
    //    is dropped and the shorter text ends the pass.
    for (;;) {
        readLine(nLine, nPipe);
        readLine(mLine, mPipe);
        if (atEnd(nPipe)) {
            break;
        }
        if (atEnd(mPipe)) {
            break;
        }
        // Only the -n line is looked at, one line is skipped, and the end of
        // the texts is not tested again here.
        if (contains(nLine, "pcilib:")) {
            readLine(nLine, nPipe);
            readLine(mLine, mPipe);
        }
        takeLine(nLine, nText);
        takeLine(mLine, mText);
        // The device is parsed in its place at the end of the inventory; a
        // line that throws takes it out again, so the inventory holds only
        // whole devices, as if it had been parsed aside.
        pci_device& device = m_allDevices.emplace_back();
        try {
            parseN(nText, &device);
            parseM(mText, &device);
        } catch (...) {
            m_allDevices.pop_back();
            throw;
        }
    }

    // 4. The -v pass.
    host::pclose(nPipe);
    host::pclose(mPipe);
    FILE* vPipe = host::popen("/sbin/lspci -v 2>&1", "r");
    if (vPipe == nullptr) {
        return 0;
    }

    // 5. Blocks are joined to the inventory by counting: the header lines
    //    themselves are never read.
    size_t current = 0;
    bool firstLineToCome = true;
    pci_device beyondTheInventory;
    if (!m_allDevices.empty()) {
        m_allDevices[0].irq = 0;
    }
    while (readLine(vLine, vPipe) != nullptr) {
        const size_t length = cutLastCharacter(vLine);
        // The words are sought once, all of them in one pass.
        const unsigned words = vWordsIn(vLine, length);
        if (words & kPcilib) {
            continue;
        }
        if (firstLineToCome) {
            firstLineToCome = false;
            continue;
        }
        if (vLine[0] == '\0') {
            continue;
        }
        if (vLine[0] == '\t') {
            // A text with more blocks than the inventory writes nothing past
            // its end: those details are parsed and dropped.
            pci_device& device = current < m_allDevices.size() ? m_allDevices[current] : beyondTheInventory;
            // Only a line that is parsed is made a text.
            if (words & (kIrq | kBusColon | kIoPortsAt)) {
                vText.assign(vLine, length);
            }
            if (words & kIrq) {
                device.irq = parseIRQ(vText);
            }
            if (words & kBusColon) {
                parseBusDetails(vText, device.primaryBus, device.secondaryBus, device.subordinateBus);
            }
            if (words & kIoPortsAt) {
                device.ioPortsAddr = parseIOPortsAddr(vText);
            }
            continue;
        }
        ++current;
        if (current < m_allDevices.size()) {
            m_allDevices[current].irq = 0;
        }
    }

    // 6.
    host::pclose(vPipe);
    return 1; // any value will do on success: no caller looks at it
}

// Positions are std::string positions: a search that finds nothing gives npos,
// and the arithmetic below wraps as the unsigned positions of std::string do.
// That is what lets the shell's one-line complaint pass as a device.
void PCIUtil::parseN(const std::string& line, pci_device* device)
{
    const bool hasClass = line.find("Class") != std::string::npos;

    // 1. Where the class starts and the slot ends.
    size_t start;
    size_t slotEnd;
    if (hasClass) {
        size_t c = line.find('C');
        start = c;
        slotEnd = c - 1;
    } else {
        size_t q = line.find(':', line.find(':') + 1); // the second colon
        start = q - 4;
        slotEnd = q - 5;
    }

    // 2. The slot, without a domain on the shape with the word Class.
    if (holdsZeroDomain(line)) {
        device->busDevFn = line.substr(5, slotEnd - 5);
    } else {
        device->busDevFn = line.substr(0, slotEnd);
    }

    // 3. Bus, device and function from the slot.
    splitBusDevFn(device->busDevFn, device->bus, device->device, device->function);

    // 4. The class code.
    size_t k = line.find(':', start);
    size_t classBegin = hasClass ? start + 6 : start;
    device->className = line.substr(classBegin, k - classBegin);
    device->classCode = readHex(device->className);

    // 5. The vendor.
    size_t m = line.find(':', k + 1);
    device->vendorId = readHex(part(line, k + 2, m - (k + 2)));

    // 6. The device: up to the first "(" or "r", a set of characters, not a word.
    size_t r = firstParenthesisOrR(line, m);
    if (r != std::string::npos) {
        device->deviceId = readHex(part(line, m + 1, (r - 1) - (m + 1)));
    } else {
        device->deviceId = readHex(part(line, m + 1, std::string::npos));
        return;
    }

    // 7. The revision, read as decimal on purpose: 02 gives 2, 1a gives 1, a1
    //    gives 0. The digits end at the ")" or before it, so they are read in
    //    the line itself.
    device->revision = std::strtol(line.c_str() + checkedStart(line, r + 4), nullptr, 10);
}

void PCIUtil::parseM(const std::string& line, pci_device* device)
{
    // Each quote is searched from one past the one before it.
    size_t q1 = line.find('"');
    size_t q2 = line.find('"', q1 + 1);
    device->className = line.substr(q1 + 1, q2 - q1 - 1);

    size_t q3 = line.find('"', q2 + 1);
    size_t q4 = line.find('"', q3 + 1);
    device->vendorName = line.substr(q3 + 1, q4 - q3 - 1);

    size_t q5 = line.find('"', q4 + 1);
    size_t q6 = line.find('"', q5 + 1);
    // The vendor, a blank and the device, put together in place.
    std::string& name = device->deviceName;
    const size_t deviceLength = std::min(q6 - q5 - 1, line.size() - (q5 + 1));
    name.clear();
    name.reserve(device->vendorName.size() + 1 + deviceLength);
    name.append(device->vendorName).append(1, ' ').append(line, q5 + 1, deviceLength);

    // The test is on the whole line: a name with USB in it counts.
    if (line.find("USB") == std::string::npos) {
        device->progIf = -1;
    } else if (line.find(" -p10 ") != std::string::npos) {
        device->progIf = 10;
    } else if (line.find(" -p20 ") != std::string::npos) {
        device->progIf = 20;
    } else {
        device->progIf = 0;
    }
}

void PCIUtil::parseBusDetails(const std::string& line, int& primary, int& secondary, int& subordinate)
{
    size_t at = line.find("primary=");
    if (at == std::string::npos) {
        return;
    }
    primary = readHex(part(line, at + 8, 2));
    at = line.find("secondary=");
    if (at == std::string::npos) {
        return;
    }
    secondary = readHex(part(line, at + 10, 2));
    at = line.find("subordinate=");
    if (at == std::string::npos) {
        return;
    }
    subordinate = readHex(part(line, at + 12, 2));
}

int PCIUtil::parseIRQ(const std::string& line)
{
    size_t at = line.find("IRQ");
    if (at == std::string::npos) {
        return 0;
    }
    // A line that ends in the word has no number behind it: 0.
    if (at + 4 > line.size()) {
        return 0;
    }
    return static_cast<int>(std::strtol(line.c_str() + at + 4, nullptr, 10));
}

std::string PCIUtil::parseIOPortsAddr(const std::string& line)
{
    size_t at = line.find("at ");
    size_t bracket = line.find(" [", at);
    return line.substr(at + 3, bracket - (at + 3));
}

int PCIUtil::getNumofDeviceWithClass(unsigned short classCode)
{
    m_selection.clear();
    for (size_t i = 0; i < m_allDevices.size(); ++i) {
        const pci_device& device = m_allDevices[i];
        if (isHiddenDevice(device.deviceId)) {
            continue;
        }
        if (device.classCode == classCode) {
            m_selection.push_back(device);
        }
        // Simple communication controllers and modems are one family to callers.
        if (classCode == 0x0780 && device.classCode == 0x0703) {
            m_selection.push_back(device);
        }
    }
    return static_cast<int>(m_selection.size());
}

int PCIUtil::getDeviceIdVendorId(int index, int& deviceId, int& vendorId)
{
    // Only an index above the size is refused (a negative one counts as above);
    // the index equal to the size passes but has no device, so the outputs
    // stay as they were.
    if (static_cast<unsigned int>(index) > m_selection.size()) {
        return 0;
    }
    if (static_cast<size_t>(index) < m_selection.size()) {
        deviceId = m_selection[index].deviceId;
        vendorId = m_selection[index].vendorId;
    }
    return 1;
}

int PCIUtil::getPCIBusDevFunction(int index, int& bus, int& device, int& function)
{
    // The same check as getDeviceIdVendorId, with the same harmless end.
    if (static_cast<unsigned int>(index) > m_selection.size()) {
        return 0;
    }
    if (static_cast<size_t>(index) < m_selection.size()) {
        bus = m_selection[index].bus;
        device = m_selection[index].device;
        function = m_selection[index].function;
    }
    return 1;
}

std::string PCIUtil::getDevAttribute(const int& index, const DeviceAttribute& attribute) const
{
    // The attribute is held as an integer, and a caller can hand over any
    // integer: it is read as such, not as an enumerator.
    static_assert(sizeof(DeviceAttribute) == sizeof(int), "the attribute is held as an int");
    int which = 0;
    std::memcpy(&which, &attribute, sizeof which);
    if (index < 0 || static_cast<size_t>(index) >= m_selection.size() || which > 7) {
        return "";
    }
    const pci_device& device = m_selection[index];
    LinuxUtils utils;
    switch (which) {
    case PCI_ATTR_NAME:
        return device.deviceName;
    case PCI_ATTR_LOCATION:
        return utils.toString("sdsdsd", "PCI Bus ", device.bus, ", Device ", device.device, ", Function ",
                              device.function);
    case PCI_ATTR_PARENT_LOCATION:
        return utils.toString("sd", "System Board!PCI Bus ", device.bus);
    case PCI_ATTR_VENDOR:
        return device.vendorName;
    case PCI_ATTR_CLASS:
        return device.className;
    case PCI_ATTR_IO_PORTS:
        return device.ioPortsAddr;
    case PCI_ATTR_BUS_DEV_FN:
        return device.busDevFn;
    case PCI_ATTR_NONE:
    default:
        return "";
    }
}

int PCIUtil::getProgIntface(int index)
{
    // Unchecked by contract; an index outside the selection answers -1, the
    // value of a device that is no USB controller.
    if (index < 0 || static_cast<size_t>(index) >= m_selection.size()) {
        return -1;
    }
    return m_selection[index].progIf;
}

std::string PCIUtil::getDeviceName(int vendorId, int deviceId) const
{
    for (size_t i = 0; i < m_allDevices.size(); ++i) {
        if (m_allDevices[i].vendorId == vendorId && m_allDevices[i].deviceId == deviceId) {
            return m_allDevices[i].deviceName;
        }
    }
    return "";
}

void PCIUtil::getAllPCIDevices(std::vector<pci_device>& devices) { devices = m_allDevices; }

} // namespace Ostrand
} // namespace Vantrel

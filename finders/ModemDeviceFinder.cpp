#include "finders/ModemDeviceFinder.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>

int selecString(const dirent* entry)
{
    if (entry == nullptr) {
        return 0;
    }
    return std::strstr(entry->d_name, "ttyS") != nullptr ? 1 : 0;
}

namespace Vantrel {
namespace Ostrand {

namespace {

// Numbered serial nodes /dev/ttyS0 to /dev/ttyS31 are counted.
const int kMaxNodes = 32;
// The size of a modem reply buffer.
const int kReplySize = 100;
// How long a command may wait for its answer, in seconds of time().
const double kAnswerSeconds = 10.0;
// The pause after every port that got as far as a command.
const unsigned int kCoolDownSeconds = 10;

// The modem families, by PCI vendor:device, and the word that their
// driver's node names carry.
struct ModemFamily {
    const char* ids;
    const char* kind;
};
const ModemFamily kFamilies[] = {
    {"14f1:2f10", "HSF"},
    {"127a:1025", "HCF"},
    {"14e4:4212", "M"},
};

// The id text is looked for inside the table's text, not the other way
// round: an id that is a piece of a table entry takes that entry's family.
std::string familyOf(int vendorId, int deviceId)
{
    char ids[32];
    std::snprintf(ids, sizeof ids, "%x:%x", static_cast<unsigned int>(vendorId), static_cast<unsigned int>(deviceId));
    for (const ModemFamily& family : kFamilies) {
        if (std::strstr(family.ids, ids) != nullptr) {
            return family.kind;
        }
    }
    return "UNKNOWN";
}

// "System Board!" and the location up to its first comma: the PCI bus.
std::string busParentOf(const std::string& location)
{
    return "System Board!" + location.substr(0, location.find(','));
}

void append(std::vector<IWbemClassObject>& objects, IWbemClassObject* record)
{
    objects.push_back(*record);
    delete record;
}

} // namespace

ModemDeviceFinder::ModemDeviceFinder()
    : m_linuxUtils(new LinuxUtils),
      m_pciUtil(nullptr),
      m_atReset("ATZ\r"),
      m_atFlowControl("AT&K3\r"),
      m_atInit("ATQ0E0V1&C1&D2\r"),
      m_atIdentify("ATI3\r"),
      m_okReply("OK"),
      m_errorReply("ERROR"),
      m_modemIndex(0)
{
}

ModemDeviceFinder::~ModemDeviceFinder()
{
    delete m_linuxUtils;
    m_linuxUtils = nullptr;
}

void ModemDeviceFinder::getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects)
{
    // 1. A fresh result. m_pciModems is not cleared: it keeps what an earlier run left.
    objects.clear();
    m_pciUtil = pci;
    std::vector<std::string> ports;

    // 2. The numbered serial ports the firmware promises.
    int numPorts = m_linuxUtils->getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL);
    if (numPorts >= 1) {
        findSerialPorts(numPorts, ports);
    }

    // 3.
    host::sleep(2);

    // 4. The PCI modems. Without an inventory there are none.
    int count = m_pciUtil != nullptr ? m_pciUtil->getNumofDeviceWithClass(0x0780) : 0;
    fillModemInfo(count);

    // 5. Every node whose name holds "ttyS".
    struct dirent** list = nullptr;
    int entries = host::scandir("/dev/", &list, selecString, alphasort);
    if (entries < 0) {
        return;
    }

    // 6. From the last entry to the first, so ttyS1 is asked before ttyS0.
    int externalIndex = 0;
    for (int i = entries - 1; i >= 0; --i) {
        IWbemClassObject* record = probePort(list[i]->d_name, numPorts, ports, externalIndex);
        if (record != nullptr) {
            append(objects, record);
        }
    }

    // 7. All entries are released, answered or not.
    for (int i = 0; i < entries; ++i) {
        std::free(list[i]);
    }
    std::free(list);

    // 8. The PCI modems no node answered for.
    for (size_t position = 0; position < m_pciModems.size(); ++position) {
        append(objects, getUnknownModem(static_cast<int>(position)));
    }
}

// /dev/ttyS0, /dev/ttyS1, ... that hold a UART, until the firmware's count is
// reached or node 31 was tried.
void ModemDeviceFinder::findSerialPorts(int numPorts, std::vector<std::string>& ports)
{
    int found = 0;
    int i = 0;
    do {
        struct serial_struct serial;
        std::memset(&serial, 0, sizeof serial);
        std::string path = m_linuxUtils->toString("sd", "/dev/ttyS", i);
        int fd = host::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        if (fd > 0) {
            if (host::ioctl(fd, TIOCGSERIAL, &serial) >= 0 && serial.type != 0) {
                ports.push_back(path);
                ++found;
            }
            host::close(fd);
        }
        ++i;
    } while (found != numPorts && i < kMaxNodes);
}

// The dialogue with the node /dev/<name>: a record for a modem that answered, or null.
IWbemClassObject* ModemDeviceFinder::probePort(const char* name, int numPorts, std::vector<std::string>& ports,
                                               int& externalIndex)
{
    // Open.
    char reply[kReplySize];
    std::memset(reply, 0, sizeof reply);
    std::string path = std::string("/dev/") + name;
    int fd = host::open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        return nullptr;
    }

    // Check.
    struct serial_struct serial;
    std::memset(&serial, 0, sizeof serial);
    if (host::ioctl(fd, TIOCGSERIAL, &serial) < 0 || serial.type == 0 || serial.irq == 0) {
        host::close(fd);
        return nullptr;
    }

    // Configure.
    setSerialOptions(fd);

    // Reset, Options, Identify.
    if (!greetModem(fd, reply)) {
        coolDown(fd);
        return nullptr;
    }

    // Classify.
    filterResponse(reply);
    std::string modemName = reply;
    std::string location;
    std::string tag;
    std::string parent;
    std::string description;
    bool external = isModemExternal(path, numPorts, ports);
    if (external) {
        // External: the digit is the one character after "ttyS", so node 10 gives 1.
        std::string digit = path.substr(path.find("ttyS") + 4, 1);
        location = "Serial Port " + digit;
        parent = "System Board!ISA Bus!" + location;
        tag = location;
        location += ", Modem " + m_linuxUtils->toString("d", externalIndex);
        tag += "/" + location;
        description = "External Modem";
    } else {
        // Internal: the node must match a PCI modem. With no match the
        // descriptor stays open and there is no pause.
        std::string slot;
        std::string pciLocation = matchModemLocation(path, slot);
        if (pciLocation.empty()) {
            return nullptr;
        }
        location = pciLocation;
        parent = busParentOf(location);
        tag = location;
        description = slot;
    }
    description += " : " + modemName;

    // Emit.
    IWbemClassObject* record = new IWbemClassObject(external ? "EXTERNAL_MODEM" : "INTERNAL_MODEM", "", path,
                                                    modemName, location, tag, parent, "", modemName, "", "", "",
                                                    description, 0);
    if (external) {
        ++externalIndex;
    }
    host::close(fd);
    host::sleep(kCoolDownSeconds);
    return record;
}

// Reset, the options (whose answers do not matter) and the identification.
// True if the reset and the identification were answered; `reply` then holds
// the answer to the identification.
bool ModemDeviceFinder::greetModem(int& fd, char* reply)
{
    if (queryModem(fd, m_atReset, reply) != 0) {
        return false;
    }
    host::usleep(3000);
    queryModem(fd, m_atFlowControl, reply);
    host::usleep(3000);
    queryModem(fd, m_atInit, reply);
    host::usleep(3000);
    return queryModem(fd, m_atIdentify, reply) == 0;
}

void ModemDeviceFinder::coolDown(int fd)
{
    host::close(fd);
    host::sleep(kCoolDownSeconds);
}

int ModemDeviceFinder::setSerialOptions(int fd)
{
    struct termios options;
    std::memset(&options, 0, sizeof options);
    host::tcgetattr(fd, &options);
    options.c_cflag |= CLOCAL | CREAD;
    options.c_lflag &= ~(ISIG | ICANON | ECHO | ECHOE);
    options.c_oflag &= ~OPOST;
    options.c_cc[VMIN] = 0;
    options.c_cc[VTIME] = 10;
    return host::tcsetattr(fd, TCSANOW, &options);
}

int ModemDeviceFinder::queryModem(int& fd, const char* command, char* reply)
{
    time_t start = host::time(nullptr);
    if (host::write(fd, command, std::strlen(command)) < 0) {
        return errno;
    }
    host::usleep(200000);
    for (;;) {
        time_t now = host::time(nullptr);
        if (std::difftime(now, start) >= kAnswerSeconds) {
            return -1;
        }
        // Each read replaces the last: the pieces of a reply are not joined.
        std::memset(reply, 0, kReplySize);
        // At most 99 bytes, so that the reply always ends in a terminator for strstr.
        if (host::read(fd, reply, kReplySize - 1) < 0) {
            if (errno == EAGAIN) {
                continue;
            }
            return errno;
        }
        if (std::strstr(reply, m_okReply) != nullptr) {
            return 0;
        }
        if (std::strstr(reply, m_errorReply) != nullptr) {
            return 0;
        }
    }
}

void ModemDeviceFinder::filterResponse(char* reply)
{
    // Leading line ends go; the text moves to the start of the buffer.
    size_t skip = std::strspn(reply, "\r\n");
    std::memmove(reply, reply + skip, std::strlen(reply + skip) + 1);

    // The first line end or "OK" ends the text. A mark that is missing is
    // taken as the end of the text.
    size_t end = std::strlen(reply);
    const char* marks[] = {std::strchr(reply, '\n'), std::strchr(reply, '\r'), std::strstr(reply, "OK")};
    for (const char* mark : marks) {
        if (mark != nullptr && static_cast<size_t>(mark - reply) < end) {
            end = static_cast<size_t>(mark - reply);
        }
    }
    reply[end] = '\0';
}

// Containment, not equality: /dev/ttyS10 holds /dev/ttyS1.
bool ModemDeviceFinder::isModemExternal(std::string& path, int, std::vector<std::string>& ports)
{
    for (const std::string& port : ports) {
        if (path.find(port) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void ModemDeviceFinder::fillModemInfo(int count)
{
    // Without an inventory there is nothing to read.
    if (m_pciUtil == nullptr) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        int bus = 0;
        int device = 0;
        int function = 0;
        m_pciUtil->getPCIBusDevFunction(i, bus, device, function);
        pciInfo info;
        info.location =
            m_linuxUtils->toString("sdsdsd", "PCI Bus ", bus, ", Device ", device, ", Function ", function);
        int deviceId = 0;
        int vendorId = 0;
        m_pciUtil->getDeviceIdVendorId(i, deviceId, vendorId);
        info.kind = familyOf(vendorId, deviceId);
        unsigned int slotBus = static_cast<unsigned int>(bus);
        unsigned int slotDevice = static_cast<unsigned int>(device);
        info.slot = m_linuxUtils->getSlotInfo(slotBus, slotDevice);
        m_pciModems.push_back(info);
    }
}

// The first PCI modem whose family word is in the path; it is used up.
std::string ModemDeviceFinder::matchModemLocation(std::string path, std::string& slot)
{
    for (auto it = m_pciModems.begin(); it != m_pciModems.end(); ++it) {
        if (path.find(it->kind) != std::string::npos) {
            std::string location = it->location;
            slot = it->slot;
            m_pciModems.erase(it);
            return location;
        }
    }
    return "";
}

IWbemClassObject* ModemDeviceFinder::getUnknownModem(int index)
{
    // An index outside the list has no modem.
    if (index < 0 || static_cast<size_t>(index) >= m_pciModems.size()) {
        return nullptr;
    }
    const pciInfo& info = m_pciModems[index];
    return new IWbemClassObject("INTERNAL_MODEM", "", "", "INTERNAL_MODEM", info.location, info.location,
                                busParentOf(info.location), "", "INTERNAL_MODEM", "", "", "", info.slot, 50);
}

} // namespace Ostrand
} // namespace Vantrel

#include "finders/SerialPortFinder.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"

#include <cstring>
#include <fcntl.h>
#include <linux/serial.h>
#include <string>
#include <sys/ioctl.h>

namespace Vantrel {
namespace Ostrand {

namespace {

// Node numbers /dev/ttyS0 to /dev/ttyS31 are tried.
const int kMaxNodes = 32;
const char* const kParentLocation = "System Board!ISA Bus";

// The port at this node, if the kernel knows a UART on irq 3 or 4 there.
bool queryPort(const std::string& path, struct serial_struct& serial)
{
    std::memset(&serial, 0, sizeof serial);
    int fd = host::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd <= 0) {
        return false;
    }
    bool taken = host::ioctl(fd, TIOCGSERIAL, &serial) >= 0 && serial.type > 0 && (serial.irq == 3 || serial.irq == 4);
    host::close(fd);
    return taken;
}

// A port that answered on its node: it carries the node, its address and its irq.
IWbemClassObject* makeVerifiedRecord(LinuxUtils& utils, int found, const std::string& path,
                                     const struct serial_struct& serial)
{
    std::string name = utils.toString("sd", "SERIAL_PORT_", found);
    std::string location = utils.toString("sd", "Serial Port ", found);
    std::string info = "Communication Port, " + utils.toString("ssdsd", path.c_str(), ", Port Addr: ",
                                                               static_cast<int>(serial.port), ", irq: ", serial.irq);
    return new IWbemClassObject(name, "", path, utils.getDeviceDescription(), location, location, kParentLocation, "",
                                "", "", "", "", info, 0);
}

// A port the firmware promises but no node confirmed: no node path in the
// record, and the number 1.
IWbemClassObject* makePlaceholderRecord(LinuxUtils& utils, int found)
{
    std::string name = utils.toString("sd", "SERIAL_PORT_", found);
    std::string location = utils.toString("sd", "Serial Port ", found);
    return new IWbemClassObject(name, "", "", utils.getDeviceDescription(), location, location, kParentLocation, "",
                                "", "", "", "", "Communication Port", 1);
}

void append(std::vector<IWbemClassObject>& objects, IWbemClassObject* record)
{
    objects.push_back(*record);
    delete record;
}

// First pass: nodes 0 to 31 in order, until as many ports as the firmware
// counts are verified. Returns the number of records made.
int addVerifiedPorts(LinuxUtils& utils, int numPorts, int* portSeen, std::vector<IWbemClassObject>& objects)
{
    int found = 0;
    int i = 0;
    do {
        struct serial_struct serial;
        std::string path = utils.toString("sd", "/dev/ttyS", i);
        if (queryPort(path, serial)) {
            IWbemClassObject* record = makeVerifiedRecord(utils, found, path, serial);
            portSeen[i] = 0;
            ++found;
            append(objects, record);
        }
        ++i;
    } while (i < kMaxNodes && found != numPorts);
    return found;
}

// Second pass: a placeholder for each node number that gave no record, until
// the firmware's count is reached. The stop test comes after each position.
void addPlaceholders(LinuxUtils& utils, int numPorts, int found, const int* portSeen,
                     std::vector<IWbemClassObject>& objects)
{
    // The positions end with the 32 node numbers, even if the firmware counts more ports.
    for (int k = 0; k < kMaxNodes; ++k) {
        if (portSeen[k] == -1) {
            append(objects, makePlaceholderRecord(utils, found));
            ++found;
        }
        if (numPorts < k + 1 || found == numPorts) {
            return;
        }
    }
}

} // namespace

SerialPortFinder::SerialPortFinder() : m_linuxUtils(new LinuxUtils) {}

SerialPortFinder::~SerialPortFinder()
{
    delete m_linuxUtils;
    m_linuxUtils = nullptr;
}

void SerialPortFinder::getAllObjects(PCIUtil*, std::vector<IWbemClassObject>& objects)
{
    int portSeen[kMaxNodes];
    for (int& seen : portSeen) {
        seen = -1;
    }
    objects.clear();

    int numPorts = m_linuxUtils->getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL);
    if (numPorts <= 0) {
        return;
    }
    int found = addVerifiedPorts(*m_linuxUtils, numPorts, portSeen, objects);
    if (found == numPorts) {
        return;
    }
    addPlaceholders(*m_linuxUtils, numPorts, found, portSeen, objects);
}

} // namespace Ostrand
} // namespace Vantrel

// The finders' shared toolbox: text building, hexadecimal and PCI address
// parsing, device nodes under /dev/, and the firmware tables.
#pragma once

#include "frame/Export.h"

#include <dirent.h>
#include <string>
#include <vector>

// The name prefix that numofDevNodes hands to its scandir filter.
extern OSTRAND_API const char* c_pNodeStr;

// The scandir filter of numofDevNodes: names that begin with c_pNodeStr and are no symbolic link.
OSTRAND_API int selectNodes(const dirent* entry);

namespace Vantrel {
namespace Ostrand {

class OSTRAND_API LinuxUtils {
public:
    enum PortType { PORT_TYPE_PARALLEL = 0, PORT_TYPE_SERIAL = 1 };

    LinuxUtils();
    ~LinuxUtils();

    // Builds text from format letters: d an int, s a const char*, c a char.
    // Other letters take no argument and add nothing.
    std::string toString(const char* format, ...);
    void extractBusDevFn(const std::string& text, int& bus, int& device, int& function) const;
    int fromHexToInt(const std::string& text);
    int numofDevNodes(char* prefix, dirent*** list);
    std::string getPortType(int index);

    // Firmware tables.
    std::string getSlotInfo(const unsigned int& bus, const unsigned int& device);
    int getNumOfPorts(PortType type);
    std::string getDeviceDescription();
    int readDmiTable(int fd, int offset, unsigned short length, unsigned short count, PortType type);

private:
    LinuxUtils(const LinuxUtils&);
    LinuxUtils& operator=(const LinuxUtils&);

    int m_portType;
    std::vector<std::string> m_portDescriptions;
};

} // namespace Ostrand
} // namespace Vantrel

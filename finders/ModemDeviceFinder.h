// Modems: the AT dialogue on every ttyS node, and the PCI modems nobody answered for.
#pragma once

#include "frame/Export.h"
#include "frame/IDeviceFinder.h"

#include <dirent.h>
#include <string>
#include <vector>

// The scandir filter of the modem walk: names that contain "ttyS".
OSTRAND_API int selecString(const dirent* entry);

namespace Vantrel {
namespace Ostrand {

class LinuxUtils;

class OSTRAND_API ModemDeviceFinder : public IDeviceFinder {
public:
    // A PCI modem not yet matched to a node.
    struct pciInfo {
        std::string location;
        std::string kind;
        std::string spare;
        std::string slot;
    };

    ModemDeviceFinder();
    virtual ~ModemDeviceFinder();
    virtual void getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects);

    int setSerialOptions(int fd);
    int queryModem(int& fd, const char* command, char* reply);
    void filterResponse(char* reply);
    bool isModemExternal(std::string& path, int portCount, std::vector<std::string>& ports);
    void fillModemInfo(int count);
    std::string matchModemLocation(std::string path, std::string& slot);
    IWbemClassObject* getUnknownModem(int index);

private:
    LinuxUtils* m_linuxUtils;
    PCIUtil* m_pciUtil;
    const char* m_atReset;
    const char* m_atFlowControl;
    const char* m_atInit;
    const char* m_atIdentify;
    const char* m_okReply;
    const char* m_errorReply;
    int m_modemIndex;
    std::vector<pciInfo> m_pciModems;

    // The steps of getAllObjects.
    void findSerialPorts(int numPorts, std::vector<std::string>& ports);
    IWbemClassObject* probePort(const char* name, int numPorts, std::vector<std::string>& ports, int& externalIndex);
    bool greetModem(int& fd, char* reply);
    void coolDown(int fd);
};

} // namespace Ostrand
} // namespace Vantrel

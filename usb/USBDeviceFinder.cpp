// USBDeviceFinder: construction, the root of the USB file system by kernel
// release, and the lookups in the finder's own PCI inventory.
#include "usb/USBDeviceFinder.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"
#include "usb/LsusbText.h"
#include "usb/UsbIoctls.h"
#include "usb/UsbKernel.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace Vantrel {
namespace Ostrand {

namespace {

const char kDevBusUsb[] = "/dev/bus/usb/";
const char kProcBusUsb[] = "/proc/bus/usb/";

// Thrown as char*; it must outlive the throw, so it is not on the stack.
char g_notMounted[] = "usbdevfs not mounted, cannot enumerate!";

// 1. Kernels that keep their nodes under /dev/bus/usb/ without a doubt.
bool hasDevBusUsb(const KernelRelease& release)
{
    if (release.major == 2 && release.minor == 6 && release.patch >= 15) {
        return true;
    }
    return release.major == 3 && release.minor == 0 && release.patch >= 4;
}

// 2. Kernels before 2.6 have no root the finder knows.
bool tooOld(const KernelRelease& release) { return release.major == 2 && release.minor <= 5; }

} // namespace

USBDeviceFinder::USBDeviceFinder(std::ofstream* log)
    : m_logStream(nullptr), m_linuxUtils(nullptr), m_usbIoctls(nullptr), m_mountPath(), m_usbDevices(),
      m_nextDevice(m_usbDevices.begin()), m_pciUtil(nullptr), m_scsiGeneric(nullptr)
{
    if (log != nullptr) {
        m_logStream = log;
    }
    m_linuxUtils = new LinuxUtils;
    m_pciUtil = new PCIUtil;
    m_usbIoctls = new UsbIoctls(m_logStream);
}

USBDeviceFinder::~USBDeviceFinder()
{
    m_usbDevices.clear();
    delete m_pciUtil;
    m_pciUtil = nullptr;
    delete m_linuxUtils;
    m_linuxUtils = nullptr;
    delete m_usbIoctls;
    m_usbIoctls = nullptr;
}

// --- The usbfs root --------------------------------------------------------

bool USBDeviceFinder::getMountPath()
{
    struct utsname name;
    KernelRelease release = readKernelRelease(name);
    if (tooOld(release)) {
        return false;
    }
    if (hasDevBusUsb(release)) {
        m_mountPath = kDevBusUsb;
        return true;
    }

    // Every other kernel: whatever the mounts show.
    FILE* stream = host::popen("mount 2>&1", "r");
    if (stream == nullptr) {
        return false;
    }
    char line[kLsusbLineSize];
    std::memset(line, 0, sizeof line);
    while (readToolLine(stream, line)) {
        if (std::strstr(line, "usbdevfs") != nullptr || std::strstr(line, "usbfs") != nullptr) {
            host::pclose(stream);
            m_mountPath = kProcBusUsb;
            return true;
        }
    }
    host::pclose(stream);
    throw static_cast<char*>(g_notMounted);
}

// --- PCI lookups -------------------------------------------------------------

bool USBDeviceFinder::getPciVectorIndex(const int& count, std::string& address, int& index)
{
    index = 0;
    while (index < count) {
        std::string busDevFn = m_pciUtil->getDevAttribute(index, PCIUtil::PCI_ATTR_BUS_DEV_FN);
        if (address.find(busDevFn) != std::string::npos) {
            return true;
        }
        ++index;
    }
    return false;
}

bool USBDeviceFinder::getPciBdf(const std::string& text, const int& progIf, const int& count, std::string& busDevFn,
                                int& index)
{
    index = 0;
    while (index < count) {
        // 1. The controller's I/O ports, address and programming interface.
        std::string ioPorts = m_pciUtil->getDevAttribute(index, PCIUtil::PCI_ATTR_IO_PORTS);
        busDevFn = m_pciUtil->getDevAttribute(index, PCIUtil::PCI_ATTR_BUS_DEV_FN);
        int controllerProgIf = m_pciUtil->getProgIntface(index);
        // 2. An empty I/O port text is found in any text.
        if (text.find(ioPorts) != std::string::npos) {
            return true;
        }
        // 3.
        if (text.find(busDevFn) != std::string::npos) {
            return true;
        }
        // 4.
        if (controllerProgIf == progIf) {
            return true;
        }
        // 5.
        ++index;
    }
    busDevFn.clear();
    index = -1;
    return false;
}

int USBDeviceFinder::getFirstAlphaNumChar(const char* text, int start)
{
    // A null text counts as an empty one, and a negative start finds nothing.
    if (text == nullptr || start < 0) {
        return -1;
    }
    int length = static_cast<int>(std::strlen(text));
    for (int position = start; position < length; ++position) {
        if (std::isalnum(static_cast<unsigned char>(text[position])) != 0) {
            return position;
        }
    }
    return -1;
}

// --- Port state, passed through for the framework ------------------------------

int USBDeviceFinder::checkforOCState(const std::string& path, const int& port, usbdevfs_hub_portinfo& table,
                                     const int& fd)
{
    return m_usbIoctls->checkforOCState(path, port, table, fd);
}

int USBDeviceFinder::getPortStatus(const int& fd, const int& port, int& status)
{
    return m_usbIoctls->getPortStatus(fd, port, status);
}

bool USBDeviceFinder::isPortBusy(const std::string& path, const int& port, std::string& device, const int& fd)
{
    return m_usbIoctls->isPortBusy(path, port, device, m_usbDevices, fd);
}

} // namespace Ostrand
} // namespace Vantrel

// The lsusb parser's runs of the tools: the root of the USB file system from
// the kernel release or the mount table, the "lsusb -v" run over the whole
// tree, and the filtered "lsusb -D" run for one node. The text itself is
// scanned in LsusbScanner.cpp and LsusbText.cpp.
#include "usb/lsusbParser.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "usb/LsusbText.h"
#include "usb/UsbKernel.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Vantrel {
namespace Ostrand {

namespace {

// The line buffer of the mount and "lsusb -v" runs. It is static so that the
// text thrown from it as char* still stands when the caller catches it; it
// keeps that text until the next run.
char g_lineBuffer[kLsusbLineSize];

const char kNotMounted[] = "usbdevfs not mounted, cannot enumerate!";

void clearLine(char* buffer) { std::memset(buffer, 0, kLsusbLineSize); }

bool contains(const char* line, const char* word) { return std::strstr(line, word) != nullptr; }

// 1. The release as "%d.%d.%d-" reads it. What does not read stays 0, so an
//    unreadable release counts as no 2.6 kernel.
KernelRelease kernelRelease()
{
    struct utsname name;
    return readKernelRelease(name);
}

// 2. Kernels from 2.6.15 on keep their nodes under /dev/bus/usb/. Only the
//    2.6 series counts: series 3 and later go to the mount table.
bool hasDevBusUsb(const KernelRelease& release)
{
    return release.major == 2 && release.minor == 6 && release.patch > 14;
}

// 3. Whether a usbdevfs or usbfs file system is mounted, by the text of
//    mount. False when mount cannot be started. When no line names one, the
//    message is thrown from the line buffer, and the stream stays open.
bool usbfsMounted()
{
    FILE* stream = host::popen("mount 2>&1", "r");
    if (stream == nullptr) {
        return false;
    }
    clearLine(g_lineBuffer);
    while (readToolLine(stream, g_lineBuffer)) {
        if (contains(g_lineBuffer, "usbdevfs") || contains(g_lineBuffer, "usbfs")) {
            host::pclose(stream);
            return true;
        }
    }
    clearLine(g_lineBuffer);
    std::strcpy(g_lineBuffer, kNotMounted);
    throw static_cast<char*>(g_lineBuffer);
}

} // namespace

lsusbParser::lsusbParser(std::ofstream* log) : m_logStream(nullptr), m_linuxUtils(new LinuxUtils)
{
    if (log != nullptr) {
        m_logStream = log;
    }
}

lsusbParser::~lsusbParser()
{
    if (m_linuxUtils != nullptr) {
        delete m_linuxUtils;
        m_linuxUtils = nullptr;
    }
    m_usbRoot.clear();
}

bool lsusbParser::getlsusbOutput(UsbMap& devices)
{
    // 1. The kernel release.
    errno = 0;
    KernelRelease release = kernelRelease();

    // 2, 3. The root of the USB file system. The mounted file system's own
    //       mount point is not read: usbfs and usbdevfs live under /proc.
    if (hasDevBusUsb(release)) {
        m_usbRoot = "/dev/bus/usb/";
    } else {
        if (!usbfsMounted()) {
            return false;
        }
        m_usbRoot = "/proc/bus/usb/";
    }

    // 4.
    FILE* stream = host::popen("lsusb -v 2>&1", "r");
    if (stream == nullptr) {
        return false;
    }

    // 5 to 8. One record in hand at a time. A throw leaves the stream and
    //         the record in hand as they are.
    LsusbDeviceCollector collector(*this, devices);
    clearLine(g_lineBuffer);
    while (readToolLine(stream, g_lineBuffer)) {
        collector.takeLine(g_lineBuffer);
    }

    // 9. The last device.
    collector.finish();
    host::pclose(stream);
    return true;
}

bool lsusbParser::getInfoforOneUsbDev(std::string const& devicePath, std::string const& key, Usb_Device* device)
{
    // The tool is asked about the node under /proc/bus/usb/, even when the
    // path is under /dev/bus/usb/.
    std::string command = "lsusb -D ";
    if (devicePath.find("/dev/") != std::string::npos) {
        command += "/proc";
        command += devicePath.substr(4);
    } else {
        command += devicePath;
    }
    command += " | grep ";
    command += key;
    command += " 2>&1";

    FILE* stream = host::popen(command.c_str(), "r");
    if (stream == nullptr) {
        return false;
    }
    char line[kLsusbLineSize];
    clearLine(line);
    bool parsed = false;
    while (readToolLine(stream, line)) {
        parseBuffer(line, device);
        parsed = true;
    }
    host::pclose(stream);
    return parsed;
}

} // namespace Ostrand
} // namespace Vantrel

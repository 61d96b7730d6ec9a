// Construction, the enumeration in its fixed order, the node prefix by
// distribution, the device classes, and the location strings.
#include "finders/CDDVDDeviceFinder.h"

#include "host/Host.h"
#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"
#include "probes/SCSIGeneric.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Vantrel {
namespace Ostrand {

namespace {

// The PCI class of IDE controllers.
const unsigned short kIdeControllerClass = 0x0101;
// Drive letters reckoned per IDE controller: two channels, master and slave.
const int kLettersPerController = 4;

// The kernel's request for the name of the host adapter's parent device. No
// user-space header carries it.
const unsigned long kScsiIoctlGetPci = 0x5387;
// The kernel writes up to 20 characters there, with no terminator.
const size_t kGetPciRoom = 20 + 1;

// The controllers whose drives all count as drives of the first listed one.
const int kSiliconImageVendor = 0x1095;
const int kSiliconImage0680 = 0x0680;

void append(std::vector<IWbemClassObject>& objects, IWbemClassObject* record)
{
    if (record != nullptr) {
        objects.push_back(*record);
        delete record;
    }
}

// The entries of a scan of /dev/, released from the last to the first and
// then the list, also when an exception leaves the walk.
struct NodeList {
    dirent** entries = nullptr;
    int count = -1;

    ~NodeList() { release(); }
    void release()
    {
        // A failed scan leaves no list to release.
        if (count >= 0) {
            for (int i = count - 1; i >= 0; --i) {
                std::free(entries[i]);
            }
            std::free(entries);
        }
        entries = nullptr;
        count = -1;
    }
};

bool contains(const std::string& text, const char* word) { return text.find(word) != std::string::npos; }

// The controller index of a drive letter: 0 for 'a' to 'd', 1 for 'e' to 'h'.
// Letters beyond (a third controller, or no letter at all) count as drives of
// the first listed controller: a fixed, harmless choice.
int controllerIndex(char letter)
{
    if (letter >= 'e' && letter <= 'h') {
        return 1;
    }
    return 0;
}

// The channel segment of a drive letter, with its "!".
const char* channelSegment(char letter, bool twoChannelsPerFourLetters)
{
    if (twoChannelsPerFourLetters) {
        switch (letter) {
        case 'a': case 'b': case 'e': case 'f': return "!Primary IDE Channel";
        case 'c': case 'd': case 'g': case 'h': return "!Secondary IDE Channel";
        default: return "";
        }
    }
    switch (letter) {
    case 'a': case 'b': return "!Primary IDE Channel";
    case 'c': case 'd': return "!Secondary IDE Channel";
    case 'e': case 'f': return "!Tertiary IDE Channel";
    case 'g': case 'h': return "!Quaternary IDE Channel";
    default: return "";
    }
}

} // namespace

// m_pciUtil is the caller's and is set by every getAllObjects; null until then.
CDDVDDeviceFinder::CDDVDDeviceFinder()
    : m_pciUtil(nullptr), m_scsiGeneric(nullptr), m_linuxUtils(nullptr), m_emulatedIdeNodes(), m_usbDeviceCount(0),
      m_emulatedIdeIndex(0)
{
    // 2. The semaphore, and the sg module on a 2.6 kernel.
    m_scsiGeneric = new SCSIGeneric();
    // 3. The scan runs even if the lock failed: its result is not tested.
    m_scsiGeneric->sempahore_lock();
    m_scsiGeneric->setnumOfValidSgNodes();
    m_scsiGeneric->sempahore_unlock();
    // 4.
    m_linuxUtils = new LinuxUtils();
    // 5.
    m_usbDeviceCount = 0;
    m_emulatedIdeIndex = 0;
}

CDDVDDeviceFinder::~CDDVDDeviceFinder()
{
    delete m_scsiGeneric;
    m_scsiGeneric = nullptr;
    delete m_linuxUtils;
    m_linuxUtils = nullptr;
}

// The remembered emulated drives and the running numbers are not reset here:
// a second enumeration on the same finder goes on from where the first one
// stopped. A finder serves one enumeration.
void CDDVDDeviceFinder::getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects)
{
    // 1, 2.
    objects.clear();
    m_pciUtil = pci;

    // 3, 4. Four drive letters per IDE controller, in letter order.
    int controllers = m_pciUtil->getNumofDeviceWithClass(kIdeControllerClass);
    int letters = kLettersPerController * controllers;
    for (int i = 0; i < letters; ++i) {
        append(objects, getPureIDECDDevice(static_cast<char>('a' + i)));
    }

    // 5. Without sg nodes there is no SCSI walk, and lsb_release is not run.
    if (m_scsiGeneric->getNumofActiveSGs() < 1) {
        return;
    }

    // 6. Static, since c_pNodeStr keeps pointing at it after the scan.
    static char prefix[5];
    std::memset(prefix, 0, sizeof prefix);
    getCDDevNode(prefix);

    // 7, 8. None under the distribution's name: once more with "sr". A
    // failed scan (-1) is not retried.
    NodeList nodes;
    nodes.count = m_linuxUtils->numofDevNodes(prefix, &nodes.entries);
    if (nodes.count == 0) {
        nodes.release();
        std::snprintf(prefix, sizeof prefix, "%s", "sr");
        nodes.count = m_linuxUtils->numofDevNodes(prefix, &nodes.entries);
    }

    // 9. In the scanned order, so node 10 comes before node 2.
    for (int i = 0; i < nodes.count; ++i) {
        append(objects, getSCSICDDevice(nodes.entries[i]->d_name));
    }

    // 10.
    nodes.release();
}

void CDDVDDeviceFinder::getCDDevNode(char* prefix)
{
    // 1.
    FILE* tool = host::popen("lsb_release -d 2>&1", "r");
    if (tool == nullptr) {
        return;
    }
    // 2. One line. Its reading is not checked: a tool that prints nothing
    // leaves the zeroed line, which names nothing and gives "scd".
    char line[256];
    std::memset(line, 0, sizeof line);
    if (std::fgets(line, sizeof line, tool) == nullptr) {
        line[0] = '\0';
    }
    host::pclose(tool);
    std::string text(line);

    // 3 to 6. The later releases of both distributions fall to "scd" and are
    // saved by the retry with "sr".
    const char* name = "scd";
    if (contains(text, "SUSE") && (contains(text, "Server 10") || contains(text, "Server 11"))) {
        name = "sr";
    } else if (contains(text, "Red Hat Enterprise Linux Server release 6.0")) {
        name = "sr";
    } else if (contains(text, "Red Hat Enterprise Linux Server release 6.1")) {
        name = "sr";
    }
    std::snprintf(prefix, 5, "%s", name);
}

std::string CDDVDDeviceFinder::getDeviceClass(const char* modeSense) const
{
    // Byte 10 is what the drive reads, byte 11 what it writes; byte 11 first.
    unsigned char reads = static_cast<unsigned char>(modeSense[10]);
    unsigned char writes = static_cast<unsigned char>(modeSense[11]);
    if ((writes & 0x03) != 0) {
        return "CDRW";
    }
    if ((reads & 0x03) != 0) {
        return "CDR";
    }
    if ((reads & (0x18 | 0x20)) != 0) {
        return "DVD";
    }
    if ((writes & 0x30) != 0) {
        return "DVD_RAM";
    }
    return "";
}

// Another vocabulary than the bits': "CDROM" and "DVD_ROM" come only from
// the text, "DVD" only from the bits.
std::string CDDVDDeviceFinder::getDeviceClass(std::string& model) const
{
    if (contains(model, "CD-ROM")) {
        return "CDROM";
    }
    if (contains(model, "CDRW")) {
        return "CDRW";
    }
    if (contains(model, "DVD-ROM")) {
        return "DVD_ROM";
    }
    if (contains(model, "DVD-RAM")) {
        return "DVD_RAM";
    }
    return "CDR";
}

int CDDVDDeviceFinder::trimString(std::string& text, char mode)
{
    if (mode == 'T' || mode == 't') {
        size_t last = text.find_last_not_of(' ');
        if (last == std::string::npos) {
            text.clear();
            return -1;
        }
        text.erase(last + 1);
        return static_cast<int>(last);
    }
    if (mode == 'L' || mode == 'l') {
        // The last character is never examined: a text of blanks only keeps
        // its last blank, and a text of one character is left alone.
        size_t removed = 0;
        while (removed + 1 < text.size() && text[removed] == ' ') {
            ++removed;
        }
        text.erase(0, removed);
        return static_cast<int>(removed);
    }
    return 0;
}

std::string CDDVDDeviceFinder::mkDevLocationString(char letter) const
{
    switch (letter) {
    case 'a': case 'c': case 'e': case 'g': return "Location 0";
    case 'b': case 'd': case 'f': case 'h': return "Location 1";
    default: return "";
    }
}

std::string CDDVDDeviceFinder::mkDevParentLocationString(char letter) const
{
    // 1, 2. A lookup that the inventory rejects leaves the zeros.
    int index = controllerIndex(letter);
    int device = 0;
    int vendor = 0;
    m_pciUtil->getDeviceIdVendorId(index, device, vendor);

    // 3. All drives of such controllers count as drives of the first listed one.
    bool siliconImage = device == kSiliconImage0680 && vendor == kSiliconImageVendor;
    if (siliconImage || device == 0x27C0 || device == 0x2680 || device == 0x24D1) {
        index = 0;
    }

    // 4, 5. The bus number stands twice.
    int bus = 0;
    int slot = 0;
    int function = 0;
    m_pciUtil->getPCIBusDevFunction(index, bus, slot, function);
    std::string text = m_linuxUtils->toString("sdsdsdsd", "System Board!PCI Bus ", bus, "!PCI Bus ", bus,
                                              ", Device ", slot, ", Function ", function);

    // 6. By the ids read in step 2, not those of the first controller.
    return text + channelSegment(letter, siliconImage);
}

std::string CDDVDDeviceFinder::mkDevParentLocationString(int fd) const
{
    // 1. All of the kernel's 20 characters have room, and a terminator behind them.
    char text[kGetPciRoom];
    std::memset(text, 0, sizeof text);
    errno = 0;
    if (host::ioctl(fd, kScsiIoctlGetPci, text) < 0) {
        return "";
    }
    // 2, 3. Whatever the name is: a PCI address, "ata2", "1-1:1.0".
    int bus = 0;
    int slot = 0;
    int function = 0;
    m_linuxUtils->extractBusDevFn(text, bus, slot, function);
    return m_linuxUtils->toString("sdsdsdsd", "System Board!PCI Bus ", bus, "!PCI Bus ", bus, ", Device ", slot,
                                  ", Function ", function);
}

} // namespace Ostrand
} // namespace Vantrel

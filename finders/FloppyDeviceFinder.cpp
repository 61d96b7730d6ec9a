// FloppyDeviceFinder: construction, and the walk over the controller's drives
// and the USB disks.
#include "finders/FloppyDeviceFinder.h"

#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"
#include "probes/SCSIGeneric.h"

#include <cstdlib>
#include <dirent.h>

namespace Vantrel {
namespace Ostrand {

namespace {

const unsigned short kIsaBridgeClass = 0x0601;
const unsigned short kUsbControllerClass = 0x0C03;

// The /dev/ entries of one prefix, released when the walk is done (also when
// an exception leaves it): the entries from the last to the first, then the
// list.
class NodeList {
public:
    // Static texts: c_pNodeStr keeps pointing at the prefix after the scan.
    NodeList(LinuxUtils& utils, char* prefix) : m_count(utils.numofDevNodes(prefix, &m_entries)) {}
    ~NodeList()
    {
        if (m_count < 0) {
            return; // no list was made
        }
        for (int i = m_count - 1; i >= 0; --i) {
            std::free(m_entries[i]);
        }
        std::free(m_entries);
    }
    NodeList(const NodeList&) = delete;
    NodeList& operator=(const NodeList&) = delete;

    int count() const { return m_count; }
    char* name(int i) const { return m_entries[i]->d_name; }

private:
    dirent** m_entries = nullptr;
    int m_count;
};

void append(std::vector<IWbemClassObject>& objects, IWbemClassObject* record)
{
    if (record != nullptr) {
        objects.push_back(*record);
        delete record;
    }
}

} // namespace

// m_pciUtil has no meaning before getAllObjects; null until then.
FloppyDeviceFinder::FloppyDeviceFinder()
    : m_pciUtil(nullptr), m_scsiGeneric(new SCSIGeneric()), m_linuxUtils(nullptr), m_usbDeviceCount(0)
{
    // The sg scan runs whether the lock was had or not.
    m_scsiGeneric->sempahore_lock();
    m_scsiGeneric->setnumOfValidSgNodes();
    m_scsiGeneric->sempahore_unlock();
    m_linuxUtils = new LinuxUtils;
    m_usbDeviceCount = 0;
}

FloppyDeviceFinder::~FloppyDeviceFinder()
{
    delete m_scsiGeneric;
    m_scsiGeneric = nullptr;
    delete m_linuxUtils;
    m_linuxUtils = nullptr;
}

void FloppyDeviceFinder::getAllObjects(PCIUtil* pci, std::vector<IWbemClassObject>& objects)
{
    static char floppyPrefix[] = "fd";
    static char diskPrefix[] = "sd";

    // 1.
    m_usbDeviceCount = 0;
    objects.clear();
    m_pciUtil = pci;

    // 2. The controller's drives, behind an ISA bridge. The number of the
    //    entry in the scan is the number of the node, whatever the names.
    if (pci->getNumofDeviceWithClass(kIsaBridgeClass) >= 1) {
        NodeList nodes(*m_linuxUtils, floppyPrefix);
        if (nodes.count() >= 1) {
            try {
                for (int i = 0; i < nodes.count(); ++i) {
                    append(objects, getISAFloppies(i));
                }
            } catch (...) {
                // "No more Floppies to enumerate", or anything else: the
                // walk of the controller's drives ends here.
            }
        }
    }

    // 3. USB disks, behind a USB controller. Nothing is caught here.
    if (pci->getNumofDeviceWithClass(kUsbControllerClass) >= 1) {
        NodeList nodes(*m_linuxUtils, diskPrefix);
        if (nodes.count() >= 1) {
            for (int i = 0; i < nodes.count(); ++i) {
                append(objects, getUSBFloppies(nodes.name(i)));
            }
        }
    }
}

} // namespace Ostrand
} // namespace Vantrel

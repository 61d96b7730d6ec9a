// The library's one reader of sysfs. Each query opens a bus or a class, copies
// what it needs into plain maps of text, closes it again and answers with a
// small result code; no sysfs object outlives a query. sysfs is mounted on
// demand.
#pragma once

#include "frame/Export.h"

#include <fstream>
#include <map>
#include <string>

// libsysfs's attribute: name, path, value and its 16-bit length.
struct sysfs_attribute;

namespace Vantrel {
namespace Ostrand {

// The buses by which the library names a bus; the reader knows their sysfs names.
enum BusType : int {
    BUS_TYPE_IDE = 0,
    BUS_TYPE_PCI = 1,
    BUS_TYPE_PCI_EXPRESS = 2,
    BUS_TYPE_SCSI = 3,
    BUS_TYPE_USB = 4
};

// Text to text; the first value inserted for a key stays.
typedef std::map<std::string, std::string> StrMap;
// Text to a map of text: one inner map per device or class device.
typedef std::map<std::string, StrMap> StrMapMap;

class OSTRAND_API CSysfsReader {
public:
    // What every query answers, in the order in which the conditions are tested.
    enum Result {
        SYSFS_OK = 0,
        SYSFS_NOT_FOUND = 1,
        SYSFS_MOUNT_FAILED = 2,
        SYSFS_BUS_UNAVAILABLE = 3,
        SYSFS_CLASS_UNAVAILABLE = 4
    };

    explicit CSysfsReader(std::ofstream* log);
    ~CSysfsReader();

    // Fills m_BusMap with the sysfs name of each BusType.
    static void InitializeBusMap();
    // 0 and the sysfs name of the bus, or 1 with name untouched.
    static int Lookup(BusType bus, std::string& name);

    // 0 if sysfs is mounted or could be mounted, else 2.
    int CheckandMountSysfs();
    // Adds the attribute's name and its text (line feed gone) to the map.
    void SetAttribute(sysfs_attribute* attr, StrMap& out);
    // Splits controller:bus:target:lun; 0, or 1 with the outputs cleared.
    int GetScsiDeviceCBTL(std::string scsiId, std::string& controller, std::string& bus, std::string& target,
                          std::string& lun);

    // All devices of a bus, by bus_id: "name", "bus", "driver_name", "path".
    int GetDeviceList(BusType bus, StrMapMap& out);
    // The attributes of the device with this bus_id.
    int GetDeviceAttr(std::string busId, BusType bus, StrMap& out);
    // The name of the driver that lists the device with this bus_id.
    int GetDeviceDriver(std::string busId, BusType bus, std::string& driver);
    // The deepest PCI address on the sysfs path of the device whose path this is.
    int GetPCIDeviceBDF(std::string sysfsPath, BusType bus, std::string& pciBus, std::string& pciDevice,
                        std::string& pciFunction);
    // All devices of a class, by name: "classname", "path".
    int GetClsDeviceList(std::string className, StrMapMap& out);
    // The attributes of one class device, and the facts and attributes of the device behind it.
    int GetClsDeviceAttr(std::string className, std::string devName, StrMap& classAttrs, StrMap& deviceAttrs);

    // The sysfs name of each bus; filled by the first reader of the process.
    static std::map<BusType, std::string> m_BusMap;
    static bool m_BusMapInitialize;

private:
    std::ofstream* m_logStream;
};

} // namespace Ostrand
} // namespace Vantrel

// The one source file of the library that speaks to libsysfs.
#include "probes/CSysfsReader.h"

#include "host/Host.h"

#include <sysfs/libsysfs.h>

#include <cstdio>
#include <cstring>
#include <list>

namespace Vantrel {
namespace Ostrand {

std::map<BusType, std::string> CSysfsReader::m_BusMap;
bool CSysfsReader::m_BusMapInitialize = false;

namespace {

typedef CSysfsReader Reader;

// dlist_for_each_data as libsysfs writes it: dlist_start, then move the
// marker on until it is back at the list's head. The visitor answers false to
// leave the walk. libsysfs puts no null into its lists; should one come, it
// is passed over, as the class walks require.
template <typename Item, typename Visit>
void walk(struct dlist* list, Visit visit)
{
    dlist_start(list);
    for (void* data = _dlist_mark_move(list, 1); list->marker != list->head; data = _dlist_mark_move(list, 1)) {
        if (data == nullptr) {
            continue;
        }
        if (!visit(static_cast<Item*>(data))) {
            return;
        }
    }
}

// The inner map of GetDeviceList, with its four keys in their order.
StrMap deviceEntry(const sysfs_device* device)
{
    StrMap entry;
    entry.insert(StrMap::value_type("name", device->name));
    entry.insert(StrMap::value_type("bus", device->bus));
    entry.insert(StrMap::value_type("driver_name", device->driver_name));
    entry.insert(StrMap::value_type("path", device->path));
    return entry;
}

// The inner map of GetClsDeviceList.
StrMap classDeviceEntry(const sysfs_class_device* device)
{
    StrMap entry;
    entry.insert(StrMap::value_type("classname", device->classname));
    entry.insert(StrMap::value_type("path", device->path));
    return entry;
}

// Which field of a device names it for a query: bus_id, or path for GetPCIDeviceBDF.
typedef const char* (*DeviceKey)(const sysfs_device*);
const char* busIdOf(const sysfs_device* device) { return device->bus_id; }
const char* pathOf(const sysfs_device* device) { return device->path; }

// An open bus and the device of the query on it.
struct BusDevice {
    sysfs_bus* bus = nullptr;
    sysfs_device* device = nullptr;
};

// The steps that every query of one device of a bus begins with, tested in
// this order: mount, bus name, empty key, open, device list, and the walk to
// the device whose key equals `key` exactly. On 0 the bus is open and the
// device found; on anything else the bus is closed again.
int findBusDevice(Reader& reader, BusType bus, const std::string& key, DeviceKey keyOf, BusDevice& found)
{
    if (reader.CheckandMountSysfs() == Reader::SYSFS_MOUNT_FAILED) {
        return Reader::SYSFS_MOUNT_FAILED;
    }
    std::string name;
    if (Reader::Lookup(bus, name) != Reader::SYSFS_OK) {
        return Reader::SYSFS_BUS_UNAVAILABLE;
    }
    if (key.empty()) {
        return Reader::SYSFS_NOT_FOUND;
    }
    found.bus = sysfs_open_bus(name.c_str());
    if (found.bus == nullptr) {
        return Reader::SYSFS_BUS_UNAVAILABLE;
    }
    struct dlist* devices = sysfs_get_bus_devices(found.bus);
    if (devices == nullptr) {
        sysfs_close_bus(found.bus);
        return Reader::SYSFS_NOT_FOUND;
    }
    walk<sysfs_device>(devices, [&](sysfs_device* device) {
        if (key == keyOf(device)) {
            found.device = device;
            return false;
        }
        return true;
    });
    if (found.device == nullptr) {
        sysfs_close_bus(found.bus);
        return Reader::SYSFS_NOT_FOUND;
    }
    return Reader::SYSFS_OK;
}

// Every attribute of a list through SetAttribute into one map.
void setAttributes(Reader& reader, struct dlist* attributes, StrMap& out)
{
    walk<sysfs_attribute>(attributes, [&](sysfs_attribute* attribute) {
        reader.SetAttribute(attribute, out);
        return true;
    });
}

// The list node at the front goes. An empty list loses nothing.
void dropFront(std::list<std::string>& tokens)
{
    if (!tokens.empty()) {
        tokens.pop_front();
    }
}

// GetPCIDeviceBDF, step 3: the path split by strtok on "/", in order.
std::list<std::string> pathTokens(const char* path)
{
    char scratch[SYSFS_PATH_MAX];
    std::strncpy(scratch, path, sizeof scratch - 1);
    scratch[sizeof scratch - 1] = '\0';
    std::list<std::string> tokens;
    for (char* token = std::strtok(scratch, "/"); token != nullptr; token = std::strtok(nullptr, "/")) {
        tokens.push_back(token);
    }
    return tokens;
}

// GetPCIDeviceBDF, steps 4 to 6: the last token of the shape of a PCI
// address. Each colon or point outside its place in a 12-character token
// costs the list its front node (the token itself at the first, the next
// tokens after it); callers' results depend on that, so it stays.
std::string lastPciAddress(std::list<std::string>& tokens)
{
    std::string address;
    while (!tokens.empty()) {
        std::string token = tokens.front();
        if (token.size() != 12) {
            tokens.pop_front();
            continue;
        }
        int colons = 0;
        int points = 0;
        for (size_t position = 0; position < 12; ++position) {
            if (token[position] == ':') {
                ++colons;
                if (position != 4 && position != 7) {
                    dropFront(tokens);
                }
            } else if (token[position] == '.') {
                ++points;
                if (position != 10) {
                    dropFront(tokens);
                }
            }
        }
        dropFront(tokens);
        if (colons == 2 && points == 1) {
            address = token;
        }
    }
    return address;
}

} // namespace

CSysfsReader::CSysfsReader(std::ofstream* log) : m_logStream(nullptr)
{
    // A null stream is not stored; the member stays null then, and nothing reads it either way.
    if (log != nullptr) {
        m_logStream = log;
    }
    if (!m_BusMapInitialize) {
        InitializeBusMap();
        m_BusMapInitialize = true;
    }
}

CSysfsReader::~CSysfsReader() {}

void CSysfsReader::InitializeBusMap()
{
    m_BusMap[BUS_TYPE_IDE] = "ide";
    m_BusMap[BUS_TYPE_PCI] = "pci";
    m_BusMap[BUS_TYPE_PCI_EXPRESS] = "pci_express";
    m_BusMap[BUS_TYPE_SCSI] = "scsi";
    m_BusMap[BUS_TYPE_USB] = "usb";
}

int CSysfsReader::Lookup(BusType bus, std::string& name)
{
    std::map<BusType, std::string>::const_iterator it = m_BusMap.find(bus);
    if (it == m_BusMap.end()) {
        return SYSFS_NOT_FOUND;
    }
    name = it->second;
    return SYSFS_OK;
}

int CSysfsReader::CheckandMountSysfs()
{
    // 1. A mounted sysfs has a mount path; the path itself is not looked at.
    char path[256] = {};
    if (host::prepareSysfs() && sysfs_get_mnt_path(path, sizeof path) == 0) {
        return SYSFS_OK;
    }
    // 2. and 3. Mount it; the two slashes of the target are meant.
    if (host::mount("none", "//sys", "sysfs", 0, "") == 0) {
        return SYSFS_OK;
    }
    return SYSFS_MOUNT_FAILED;
}

void CSysfsReader::SetAttribute(sysfs_attribute* attr, StrMap& out)
{
    if (attr == nullptr) {
        return;
    }
    // 1. No value, or an empty one: empty text.
    std::string text;
    char* value = attr->value;
    if (value != nullptr && value[0] != '\0') {
        // 2. The line feed goes from the attribute's own buffer; the text is
        //    the first len - 1 bytes whatever was there, so a value without a
        //    line feed loses its last byte. A len of 0 gives no text.
        size_t length = std::strlen(value);
        if (value[length - 1] == '\n') {
            value[length - 1] = '\0';
        }
        if (attr->len > 0) {
            text.assign(value, attr->len - 1);
        }
    }
    // 3. The first value of a name stays.
    out.insert(StrMap::value_type(attr->name, text));
}

int CSysfsReader::GetScsiDeviceCBTL(std::string scsiId, std::string& controller, std::string& bus,
                                    std::string& target, std::string& lun)
{
    // 1.
    if (scsiId.empty()) {
        return SYSFS_NOT_FOUND;
    }
    // 2. Colons separate and are dropped; everything from the fourth field on is the LUN.
    int colons = 0;
    for (char c : scsiId) {
        if (c == ':') {
            ++colons;
            continue;
        }
        switch (colons) {
        case 0:
            controller += c;
            break;
        case 1:
            bus += c;
            break;
        case 2:
            target += c;
            break;
        default:
            lun += c;
            break;
        }
    }
    // 3.
    if (colons == 3) {
        return SYSFS_OK;
    }
    // 4.
    controller.clear();
    bus.clear();
    target.clear();
    lun.clear();
    return SYSFS_NOT_FOUND;
}

int CSysfsReader::GetDeviceList(BusType bus, StrMapMap& out)
{
    // 1.
    if (CheckandMountSysfs() == SYSFS_MOUNT_FAILED) {
        return SYSFS_MOUNT_FAILED;
    }
    // 2.
    std::string name;
    if (Lookup(bus, name) != SYSFS_OK) {
        return SYSFS_BUS_UNAVAILABLE;
    }
    // 3.
    sysfs_bus* opened = sysfs_open_bus(name.c_str());
    if (opened == nullptr) {
        return SYSFS_BUS_UNAVAILABLE;
    }
    // 4.
    struct dlist* devices = sysfs_get_bus_devices(opened);
    if (devices == nullptr) {
        sysfs_close_bus(opened);
        return SYSFS_NOT_FOUND;
    }
    // 5. A bus_id seen before keeps its first device.
    walk<sysfs_device>(devices, [&](sysfs_device* device) {
        out.insert(StrMapMap::value_type(device->bus_id, deviceEntry(device)));
        return true;
    });
    // 6.
    sysfs_close_bus(opened);
    return SYSFS_OK;
}

int CSysfsReader::GetDeviceAttr(std::string busId, BusType bus, StrMap& out)
{
    // 1. to 6.
    BusDevice found;
    int result = findBusDevice(*this, bus, busId, busIdOf, found);
    if (result != SYSFS_OK) {
        return result;
    }
    // 7. A device without attributes is a success with nothing added.
    struct dlist* attributes = sysfs_get_device_attributes(found.device);
    if (attributes != nullptr) {
        // 8.
        setAttributes(*this, attributes, out);
    }
    sysfs_close_bus(found.bus);
    return SYSFS_OK;
}

int CSysfsReader::GetDeviceDriver(std::string busId, BusType bus, std::string& driver)
{
    driver.clear();
    // Steps 1 to 6 of GetDeviceAttr.
    BusDevice found;
    int result = findBusDevice(*this, bus, busId, busIdOf, found);
    if (result != SYSFS_OK) {
        return result;
    }
    // 1. to 3. From the drivers' side: the first driver that lists the device.
    //    The device's own driver_name is not used.
    struct dlist* drivers = sysfs_get_bus_drivers(found.bus);
    if (drivers != nullptr) {
        bool listed = false;
        walk<sysfs_driver>(drivers, [&](sysfs_driver* candidate) {
            struct dlist* devices = sysfs_get_driver_devices(candidate);
            if (devices == nullptr) {
                return true;
            }
            walk<sysfs_device>(devices, [&](sysfs_device* device) {
                if (busId == device->bus_id) {
                    driver = candidate->name;
                    listed = true;
                    return false;
                }
                return true;
            });
            return !listed;
        });
    }
    // 4.
    sysfs_close_bus(found.bus);
    return driver.empty() ? SYSFS_NOT_FOUND : SYSFS_OK;
}

int CSysfsReader::GetPCIDeviceBDF(std::string sysfsPath, BusType bus, std::string& pciBus, std::string& pciDevice,
                                  std::string& pciFunction)
{
    // 1. and 2. The device is found by its path, not by its bus_id.
    BusDevice found;
    int result = findBusDevice(*this, bus, sysfsPath, pathOf, found);
    if (result != SYSFS_OK) {
        return result;
    }
    // 3. to 6.
    std::list<std::string> tokens = pathTokens(found.device->path);
    std::string address = lastPciAddress(tokens);
    // 7. The numbers stay hexadecimal text; the domain is dropped.
    if (!address.empty()) {
        char domain[5] = {};
        char busText[3] = {};
        char deviceText[3] = {};
        char functionText[3] = {};
        (void)std::sscanf(address.c_str(), "%4s:%2s:%2s.%2s", domain, busText, deviceText, functionText);
        pciBus = busText;
        pciDevice = deviceText;
        pciFunction = functionText;
    }
    // 8. Also when nothing was found.
    sysfs_close_bus(found.bus);
    return SYSFS_OK;
}

int CSysfsReader::GetClsDeviceList(std::string className, StrMapMap& out)
{
    // 1.
    if (className.empty()) {
        return SYSFS_CLASS_UNAVAILABLE;
    }
    // 2.
    if (CheckandMountSysfs() == SYSFS_MOUNT_FAILED) {
        return SYSFS_MOUNT_FAILED;
    }
    // 3.
    sysfs_class* opened = sysfs_open_class(className.c_str());
    if (opened == nullptr) {
        return SYSFS_CLASS_UNAVAILABLE;
    }
    // 4.
    struct dlist* devices = sysfs_get_class_devices(opened);
    if (devices == nullptr) {
        sysfs_close_class(opened);
        return SYSFS_NOT_FOUND;
    }
    // 5. A name seen before keeps its first class device.
    walk<sysfs_class_device>(devices, [&](sysfs_class_device* device) {
        out.insert(StrMapMap::value_type(device->name, classDeviceEntry(device)));
        return true;
    });
    // 6.
    sysfs_close_class(opened);
    return SYSFS_OK;
}

int CSysfsReader::GetClsDeviceAttr(std::string className, std::string devName, StrMap& classAttrs,
                                   StrMap& deviceAttrs)
{
    // 1.
    if (className.empty() || devName.empty()) {
        return SYSFS_CLASS_UNAVAILABLE;
    }
    // 2.
    if (CheckandMountSysfs() == SYSFS_MOUNT_FAILED) {
        return SYSFS_MOUNT_FAILED;
    }
    // 3.
    sysfs_class* opened = sysfs_open_class(className.c_str());
    if (opened == nullptr) {
        return SYSFS_CLASS_UNAVAILABLE;
    }
    // 4.
    struct dlist* devices = sysfs_get_class_devices(opened);
    if (devices == nullptr) {
        sysfs_close_class(opened);
        return SYSFS_NOT_FOUND;
    }
    // 5.
    sysfs_class_device* classDevice = nullptr;
    walk<sysfs_class_device>(devices, [&](sysfs_class_device* device) {
        if (devName == device->name) {
            classDevice = device;
            return false;
        }
        return true;
    });
    if (classDevice == nullptr) {
        sysfs_close_class(opened);
        return SYSFS_NOT_FOUND;
    }
    // 6.
    struct dlist* classAttributes = sysfs_get_classdev_attributes(classDevice);
    if (classAttributes != nullptr) {
        setAttributes(*this, classAttributes, classAttrs);
    }
    // 7.
    sysfs_device* device = sysfs_get_classdev_device(classDevice);
    if (device != nullptr) {
        // 8. The five facts first: an attribute of the same name loses to them.
        deviceAttrs.insert(StrMap::value_type("bus_id", device->bus_id));
        deviceAttrs.insert(StrMap::value_type("bus", device->bus));
        deviceAttrs.insert(StrMap::value_type("driver_name", device->driver_name));
        deviceAttrs.insert(StrMap::value_type("path", device->path));
        deviceAttrs.insert(StrMap::value_type("name", device->name));
        struct dlist* deviceAttributes = sysfs_get_device_attributes(device);
        if (deviceAttributes != nullptr) {
            setAttributes(*this, deviceAttributes, deviceAttrs);
        }
    }
    // 9.
    sysfs_close_class(opened);
    return SYSFS_OK;
}

} // namespace Ostrand
} // namespace Vantrel

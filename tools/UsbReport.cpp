#include "tools/UsbReport.h"

#include "host/Host.h"
#include "usb/USBDeviceFinder.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>

using Vantrel::Ostrand::USBDeviceFinder;
namespace host = Vantrel::Ostrand::host;

namespace ostrand_tool {

namespace {

const int kHubClass = 9;
// A port table holds no more.
const int kMaxPorts = 127;

bool isHub(const Usb_Device& device) { return device.deviceClass == kHubClass; }

// Asks each port of one hub, from port 1 on, with the hub's node open.
UsbHubPorts askPorts(USBDeviceFinder& finder, const Usb_Device& hub)
{
    UsbHubPorts result;
    result.hubPath = hub.devicePath;
    int count = hub.numOfPorts;
    if (count <= 0 || count > kMaxPorts) {
        return result;
    }
    int fd = host::open(hub.devicePath.c_str(), O_RDWR);
    if (fd < 0) {
        result.error = std::string("cannot open ") + hub.devicePath + ": " + std::strerror(errno);
        return result;
    }
    usbdevfs_hub_portinfo table;
    std::memset(&table, 0, sizeof table);
    try {
        for (int port = 1; port <= count; ++port) {
            UsbPort state;
            state.port = port;
            state.busy = finder.isPortBusy(hub.devicePath, port, state.device, fd);
            state.overCurrent = finder.checkforOCState(hub.devicePath, port, table, fd);
            result.ports.push_back(state);
        }
    } catch (const std::exception& e) {
        result.error = e.what();
    }
    host::close(fd);
    return result;
}

} // namespace

UsbReport readUsb()
{
    UsbReport report;
    USBDeviceFinder finder(nullptr);
    try {
        report.walked = finder.getAllUSBDevices();
    } catch (const std::string& text) {
        report.error = text;
    } catch (const std::exception& e) {
        report.error = e.what();
    }
    Usb_Device* next = nullptr;
    while (finder.Next(&next)) {
        report.devices.push_back(*next);
        delete next;
    }
    for (const auto& device : report.devices) {
        if (isHub(device) && device.nodeKind != 0) {
            report.hubs.push_back(askPorts(finder, device));
        }
    }
    return report;
}

// --- The tree ---------------------------------------------------------------------

namespace {

std::string hex4(int number)
{
    char text[16];
    std::snprintf(text, sizeof text, "%04x", number & 0xffff);
    return text;
}

std::string overCurrentText(int state)
{
    switch (state) {
    case -1: return "no device";
    case 0: return "no over-current";
    case 2: return "OVER-CURRENT or fault";
    default: return std::string("node does not open: ") + std::strerror(state);
    }
}

std::string describeDevice(const Usb_Device& d)
{
    std::string name = !d.displayName.empty() ? d.displayName : !d.productName.empty() ? d.productName : d.modelName;
    std::string text = "device " + d.deviceNum + " " + (name.empty() ? "(no name)" : name);
    text += " [" + hex4(d.vendorId) + ":" + hex4(d.productId) + "]";
    if (!d.manufacturer.empty()) {
        text += " by " + d.manufacturer;
    }
    text += ", " + (d.deviceDescription.empty() ? std::string("no class text") : d.deviceDescription);
    text += ", driver " + (d.driverName.empty() ? std::string("none") : d.driverName);
    if (!d.usbSpeed.empty()) {
        text += ", " + d.usbSpeed + " Mb/s";
    }
    if (isHub(d)) {
        text += ", " + std::to_string(d.numOfPorts) + " ports";
    }
    if (d.deviceErrorCode != 0) {
        text += ", error " + std::to_string(d.deviceErrorCode);
    }
    return text;
}

const UsbHubPorts* portsOf(const UsbReport& report, const std::string& hubPath)
{
    for (const auto& hub : report.hubs) {
        if (hub.hubPath == hubPath) {
            return &hub;
        }
    }
    return nullptr;
}

// The port number at the front of a child's location ("Port 3, Device 004").
int portOfLocation(const std::string& location)
{
    int port = 0;
    if (std::sscanf(location.c_str(), "Port %d,", &port) != 1) {
        return 0;
    }
    return port;
}

void drawHub(std::ostream& out, const UsbReport& report, const Usb_Device& hub, const std::string& indent,
             int depth)
{
    const UsbHubPorts* ports = portsOf(report, hub.devicePath);
    if (ports != nullptr && !ports->error.empty()) {
        out << indent << "(ports not read: " << ports->error << ")\n";
    }
    int count = ports != nullptr ? static_cast<int>(ports->ports.size()) : 0;
    // Children that sit on ports the table did not give still show.
    int highest = count;
    for (const auto& d : report.devices) {
        if (d.parentPath == hub.devicePath) {
            highest = std::max(highest, portOfLocation(d.location));
        }
    }
    for (int port = 1; port <= highest; ++port) {
        std::string state;
        if (port <= count) {
            const UsbPort& p = ports->ports[port - 1];
            state = p.busy ? "busy" : "free";
            if (p.overCurrent != -1) {
                state += ", " + overCurrentText(p.overCurrent);
            }
        }
        const Usb_Device* child = nullptr;
        for (const auto& d : report.devices) {
            if (d.parentPath == hub.devicePath && portOfLocation(d.location) == port) {
                child = &d;
            }
        }
        out << indent << "port " << port;
        if (!state.empty()) {
            out << " (" << state << ")";
        }
        if (child == nullptr) {
            out << ": empty\n";
            continue;
        }
        out << ": " << describeDevice(*child) << "\n";
        if (isHub(*child) && depth < kMaxPorts) {
            drawHub(out, report, *child, indent + "    ", depth + 1);
        }
    }
}

} // namespace

void printUsbTree(std::ostream& out, const UsbReport& report)
{
    bool any = false;
    for (const auto& d : report.devices) {
        if (d.nodeKind != 1) {
            continue;
        }
        any = true;
        out << d.parentLocation << "!" << d.location << "  (" << d.controllerVendor << ")\n";
        out << "  root hub " << d.devicePath << ": " << describeDevice(d) << "\n";
        drawHub(out, report, d, "    ", 0);
    }
    bool header = false;
    for (const auto& d : report.devices) {
        if (d.nodeKind != 0) {
            continue;
        }
        if (!header) {
            out << (any ? "\n" : "") << "Not placed in the tree:\n";
            header = true;
        }
        out << "  " << d.devicePath << ": " << describeDevice(d) << "\n";
    }
    if (report.devices.empty()) {
        out << "No USB devices.\n";
    }
}

// --- JSON -----------------------------------------------------------------------

void printUsbJson(std::ostream& out, const UsbReport& report)
{
    nlohmann::ordered_json devices = nlohmann::ordered_json::array();
    for (const auto& d : report.devices) {
        nlohmann::ordered_json o;
        o["deviceClass"] = d.deviceClass;
        o["deviceSubClass"] = d.deviceSubClass;
        o["deviceErrorCode"] = d.deviceErrorCode;
        o["nodeKind"] = d.nodeKind;
        o["numOfPorts"] = d.numOfPorts;
        o["selfPowered"] = d.selfPowered;
        o["vendorId"] = d.vendorId;
        o["productId"] = d.productId;
        o["spareInt1"] = d.spareInt1;
        o["spareInt2"] = d.spareInt2;
        o["endDevice"] = d.endDevice;
        o["spareFlag"] = d.spareFlag;
        o["deviceNum"] = d.deviceNum;
        o["devicePath"] = d.devicePath;
        o["driverName"] = d.driverName;
        o["classText"] = d.classText;
        o["subClassText"] = d.subClassText;
        o["usbSpec"] = d.usbSpec;
        o["firmwareRev"] = d.firmwareRev;
        o["serialNo"] = d.serialNo;
        o["manufacturerIndex"] = d.manufacturerIndex;
        o["manufacturer"] = d.manufacturer;
        o["vendorName"] = d.vendorName;
        o["productName"] = d.productName;
        o["modelName"] = d.modelName;
        o["usbSpeed"] = d.usbSpeed;
        o["controllerVendor"] = d.controllerVendor;
        o["deviceDescription"] = d.deviceDescription;
        o["slotName"] = d.slotName;
        o["displayName"] = d.displayName;
        o["addlHWInfo"] = d.addlHWInfo;
        o["spareText"] = d.spareText;
        o["parentPath"] = d.parentPath;
        o["location"] = d.location;
        o["parentLocation"] = d.parentLocation;
        o["productIdText"] = d.productIdText;
        o["vendorIdText"] = d.vendorIdText;
        const UsbHubPorts* ports = portsOf(report, d.devicePath);
        if (ports != nullptr) {
            nlohmann::ordered_json list = nlohmann::ordered_json::array();
            for (const auto& p : ports->ports) {
                nlohmann::ordered_json port;
                port["port"] = p.port;
                port["busy"] = p.busy;
                port["device"] = p.device;
                port["overCurrent"] = p.overCurrent;
                list.push_back(port);
            }
            o["ports"] = list;
            if (!ports->error.empty()) {
                o["portsError"] = ports->error;
            }
        }
        devices.push_back(o);
    }
    nlohmann::ordered_json root;
    root["devices"] = devices;
    if (!report.error.empty()) {
        root["error"] = report.error;
    }
    out << root.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
}

} // namespace ostrand_tool

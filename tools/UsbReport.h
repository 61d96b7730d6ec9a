// The USB tree as the framework reads it: USBDeviceFinder's walk, every
// record that Next hands out, and the state of each port of each hub, asked
// port by port from port 1 as the framework asks.
#pragma once

#include "usb/Usb_Device.h"

#include <ostream>
#include <string>
#include <vector>

namespace ostrand_tool {

struct UsbPort {
    int port = 0;
    bool busy = false;
    std::string device;  // what isPortBusy says of the device on it
    int overCurrent = 0; // what checkforOCState says: -1, 0, 2 or an errno value
};

struct UsbHubPorts {
    std::string hubPath;
    std::string error; // why the ports could not be asked, if they could not
    std::vector<UsbPort> ports;
};

struct UsbReport {
    std::vector<Usb_Device> devices; // in the order of Next
    std::vector<UsbHubPorts> hubs;
    bool walked = false;             // what getAllUSBDevices returned
    std::string error;               // what it threw, if it threw
};

// Runs the walk on the machine in use. Never throws: a thrown text ends up
// in `error`, with the records read until then.
UsbReport readUsb();

// The tree: each root hub under its controller, each device under its hub
// and port, and each port's state.
void printUsbTree(std::ostream& out, const UsbReport& report);
// Every record with every field by its name, and the port states of hubs.
void printUsbJson(std::ostream& out, const UsbReport& report);

} // namespace ostrand_tool

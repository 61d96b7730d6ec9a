// The USB walk of a fake machine with n devices on one bus: a root hub with
// a hub of eight ports on each of its ports, end devices on the hubs' ports.
// The flat pass reads sysfs through libsysfs (real files in a temporary
// folder); the walk asks each node through the usbfs models.
#include "host/fake/FakeMachine.h"
#include "host/models/UsbfsModel.h"
#include "tests/support/Machines.h"
#include "tests/support/SysfsTree.h"
#include "usb/USBDeviceFinder.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::SysfsTree;

namespace {

const char* const kController = "pci0000:00/0000:00:01.2";
const int kHubPorts = 8;

std::string number(const char* format, int value)
{
    char text[16];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// A device on the bus: its sysfs folder and attributes, and its usbfs node.
std::shared_ptr<host::UsbfsModel> addDevice(host::FakeMachine& machine, SysfsTree& tree, const std::string& folder,
                                            int devnum, bool hub)
{
    tree.device(folder, {{"devnum", number("%d", devnum) + "\n"},
                         {"bDeviceClass", hub ? "09\n" : "00\n"},
                         {"bDeviceSubClass", "00\n"},
                         {"idVendor", "0627\n"},
                         {"idProduct", "0001\n"},
                         {"product", hub ? "Hub\n" : "Device\n"},
                         {"manufacturer", "Maker\n"},
                         {"serial", number("%d", devnum) + "\n"},
                         {"maxchild", hub ? "8\n" : "0\n"},
                         {"speed", "12\n"},
                         {"version", " 2.00\n"},
                         {"bcdDevice", "0100\n"},
                         {"bMaxPower", "100mA\n"},
                         {"bmAttributes", "a0\n"}})
        .onBus("usb", folder);
    auto model = std::make_shared<host::UsbfsModel>();
    model->setDeviceDescriptor(std::string("\x12\x01\x10\x01", 4) + std::string(hub ? "\x09" : "\x00", 1) +
                               std::string(13, '\0'));
    model->addConfiguration(std::string("\x09\x02\x19\x00\x01\x01\x00\xe0\x00", 9));
    model->setDriver(0, hub ? "hub" : "usbhid");
    if (hub) {
        model->setHubDescriptor(std::string("\x09\x29\x08\x0a\x00\x01\x00\x00\xff", 9));
    }
    machine.addNode("/dev/bus/usb/001/" + number("%03d", devnum), 'c', model);
    return model;
}

struct Bus {
    host::FakeMachine machine;
    SysfsTree tree;
};

// n devices: the root hub, then hubs on its ports, each filled with end
// devices before the next hub comes.
std::unique_ptr<Bus> makeBus(int devices)
{
    auto bus = std::make_unique<Bus>();
    bus->machine.setUname("2.6.16", "x86_64");
    ostrand_test::addLabServerLspci(bus->machine);
    bus->machine.setSysfs(bus->tree.root());
    std::string root = std::string(kController) + "/usb1";
    auto rootModel = addDevice(bus->machine, bus->tree, root, 1, true);
    std::vector<int> rootPorts;
    int next = 2;
    int hubs = 0;
    while (next <= devices) {
        ++hubs;
        int hubNumber = next++;
        rootPorts.push_back(hubNumber);
        std::string hub = root + "/1-" + std::to_string(hubs);
        auto hubModel = addDevice(bus->machine, bus->tree, hub, hubNumber, true);
        std::vector<int> ports;
        for (int port = 1; port <= kHubPorts && next <= devices; ++port) {
            int deviceNumber = next++;
            ports.push_back(deviceNumber);
            addDevice(bus->machine, bus->tree, hub + "/1-" + std::to_string(hubs) + "." + std::to_string(port),
                      deviceNumber, false);
        }
        hubModel->setPortInfo(ports);
    }
    rootModel->setPortInfo(rootPorts);
    return bus;
}

void BM_UsbWalk(benchmark::State& state)
{
    int devices = static_cast<int>(state.range(0));
    std::unique_ptr<Bus> bus = makeBus(devices);
    host::ScopedMachine scope{bus->machine};
    size_t placed = 0;
    for (auto _ : state) {
        USBDeviceFinder finder(nullptr);
        finder.getAllUSBDevices();
        placed = 0;
        Usb_Device* next = nullptr;
        while (finder.Next(&next)) {
            placed += next->nodeKind != 0 ? 1 : 0;
            delete next;
        }
        benchmark::ClobberMemory();
    }
    if (placed != static_cast<size_t>(devices)) {
        state.SkipWithError("not every device was placed in the tree");
    }
    state.SetItemsProcessed(state.iterations() * devices);
    state.SetComplexityN(devices);
}
BENCHMARK(BM_UsbWalk)->RangeMultiplier(2)->Range(4, 127)->Unit(benchmark::kMillisecond)->Complexity();

} // namespace

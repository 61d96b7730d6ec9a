// The PCI inventory and the PCI device finder on a large machine: 256
// functions on eight buses, seven of them behind bridges, read from lspci
// texts made here.
#include "finders/PCIDeviceFinder.h"
#include "frame/IWbemClassObject.h"
#include "host/fake/FakeMachine.h"
#include "probes/PCIUtil.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

const int kBuses = 8;
const int kFunctionsPerBus = 32;
const int kDevices = kBuses * kFunctionsPerBus;

struct Kind {
    const char* classCode;
    const char* className;
    const char* progIf;
};

// The classes that fill the buses: controllers the finder reports, and end
// devices that only contribute their bus.
const Kind kKinds[] = {
    {"0200", "Ethernet controller", "00"},     {"0100", "SCSI storage controller", "00"},
    {"0104", "RAID bus controller", "00"},     {"0c03", "USB controller", "20"},
    {"0101", "IDE interface", "8a"},           {"0780", "Communication controller", "00"},
    {"0703", "Modem", "00"},                   {"0880", "System peripheral", "00"},
    {"0300", "VGA compatible controller", "00"}, {"0c03", "USB controller", "10"},
};
const int kKindCount = sizeof kKinds / sizeof kKinds[0];

const char* const kVendors[][2] = {
    {"8086", "Intel Corporation"},
    {"1000", "Broadcom / LSI"},
    {"14e4", "Broadcom Inc. and subsidiaries"},
    {"10de", "NVIDIA Corporation"},
};

struct Lspci {
    std::string n;
    std::string m;
    std::string v;
};

void appendFunction(Lspci& out, int bus, int index, const Kind& kind, int secondary)
{
    char slot[16];
    std::snprintf(slot, sizeof slot, "%02x:%02x.%x", bus, index / 2, index % 2);
    const char* const* vendor = kVendors[(bus + index) % 4];
    int deviceId = 0x1000 + bus * kFunctionsPerBus + index;
    char line[512];

    std::snprintf(line, sizeof line, "%s %s: %s:%04x (rev %02x)\n", slot, kind.classCode, vendor[0], deviceId,
                  index % 16);
    out.n += line;

    std::snprintf(line, sizeof line, "%s \"%s\" \"%s\" \"Model %04x & Co <%d>\" -r%02x -p%s \"%s\" \"Board %d\"\n",
                  slot, kind.className, vendor[1], deviceId, index, index % 16, kind.progIf, vendor[1], bus);
    out.m += line;

    std::snprintf(line, sizeof line,
                  "%s %s: %s Model %04x (rev %02x)\n"
                  "\tSubsystem: %s Board %d\n"
                  "\tFlags: bus master, fast devsel, latency 0, IRQ %d\n"
                  "\tMemory at fe%02x%02x00 (32-bit, non-prefetchable) [size=4K]\n"
                  "\tI/O ports at %02x%02x [size=64]\n",
                  slot, kind.className, vendor[1], deviceId, index % 16, vendor[1], bus, 16 + index % 8, bus, index,
                  0xc0 + bus, index * 4);
    out.v += line;
    if (secondary > 0) {
        std::snprintf(line, sizeof line, "\tBus: primary=00, secondary=%02x, subordinate=%02x, sec-latency=0\n",
                      secondary, secondary);
        out.v += line;
    }
    out.v += "\tKernel driver in use: generic\n\n";
}

// Bus 0 holds the host bridge, the ISA bridge and the seven bridges to buses
// 1 to 7; every bus is filled up to 32 functions.
Lspci makeLspci()
{
    const Kind hostBridge = {"0600", "Host bridge", "00"};
    const Kind isaBridge = {"0601", "ISA bridge", "00"};
    const Kind pciBridge = {"0604", "PCI bridge", "00"};
    Lspci out;
    for (int bus = 0; bus < kBuses; ++bus) {
        for (int index = 0; index < kFunctionsPerBus; ++index) {
            if (bus == 0 && index == 0) {
                appendFunction(out, bus, index, hostBridge, 0);
            } else if (bus == 0 && index == 1) {
                appendFunction(out, bus, index, isaBridge, 0);
            } else if (bus == 0 && index < 2 + kBuses - 1) {
                appendFunction(out, bus, index, pciBridge, index - 1);
            } else {
                appendFunction(out, bus, index, kKinds[(bus * kFunctionsPerBus + index) % kKindCount], 0);
            }
        }
    }
    return out;
}

void describe(host::FakeMachine& machine)
{
    static const Lspci lspci = makeLspci();
    machine.addCommand("/sbin/lspci -n 2>&1", lspci.n);
    machine.addCommand("/sbin/lspci -m 2>&1", lspci.m);
    machine.addCommand("/sbin/lspci -v 2>&1", lspci.v);
}

void BM_InitPciUtil(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    describe(machine);
    size_t devices = 0;
    for (auto _ : state) {
        PCIUtil pci;
        pci.initPciUtil();
        std::vector<pci_device> all;
        pci.getAllPCIDevices(all);
        devices = all.size();
        benchmark::DoNotOptimize(devices);
    }
    if (devices != static_cast<size_t>(kDevices)) {
        state.SkipWithError("the inventory does not hold 256 devices");
    }
    state.counters["devices"] = static_cast<double>(devices);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(devices));
}
BENCHMARK(BM_InitPciUtil)->Unit(benchmark::kMicrosecond);

void BM_PciDeviceFinderGetAllObjects(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    describe(machine);
    PCIUtil pci;
    pci.initPciUtil();
    std::vector<IWbemClassObject> objects;
    for (auto _ : state) {
        // A fresh finder each time: a finder reports each bus once in its life.
        PCIDeviceFinder finder;
        finder.getAllObjects(&pci, objects);
        benchmark::DoNotOptimize(objects.data());
    }
    std::vector<pci_device> all;
    pci.getAllPCIDevices(all);
    state.counters["devices"] = static_cast<double>(all.size());
    state.counters["records"] = static_cast<double>(objects.size());
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}
BENCHMARK(BM_PciDeviceFinderGetAllObjects)->Unit(benchmark::kMicrosecond);

} // namespace

// The PCI inventory and the PCI, network and remote access controller
// finders on machines of 16 to 1024 functions: 32 functions a bus, every bus
// but the first behind a bridge on bus 0, read from lspci texts made here.
#include "finders/NetworkDeviceFinder.h"
#include "finders/PCIDeviceFinder.h"
#include "finders/RACDeviceFinder.h"
#include "frame/IWbemClassObject.h"
#include "host/fake/FakeMachine.h"
#include "probes/PCIUtil.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

const int kFunctionsPerBus = 32;
const int kFewest = 16;
const int kMost = 1024;

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
    {"ff00", "Unassigned class [ff00]", "00"},
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
    // The unassigned class is the remote access controllers' family.
    if (std::string(kind.classCode) == "ff00") {
        static const char* const kFamily[2] = {"1f3b", "Remote Access Family"};
        vendor = kFamily;
        deviceId = 0x0007;
    }
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

// Bus 0 holds the host bridge, the ISA bridge and the bridges to the other
// buses; the functions fill the buses 32 at a time.
Lspci makeLspci(int functions)
{
    const Kind hostBridge = {"0600", "Host bridge", "00"};
    const Kind isaBridge = {"0601", "ISA bridge", "00"};
    const Kind pciBridge = {"0604", "PCI bridge", "00"};
    const int buses = (functions + kFunctionsPerBus - 1) / kFunctionsPerBus;
    Lspci out;
    for (int n = 0; n < functions; ++n) {
        int bus = n / kFunctionsPerBus;
        int index = n % kFunctionsPerBus;
        if (bus == 0 && index == 0) {
            appendFunction(out, bus, index, hostBridge, 0);
        } else if (bus == 0 && index == 1) {
            appendFunction(out, bus, index, isaBridge, 0);
        } else if (bus == 0 && index < 2 + buses - 1) {
            appendFunction(out, bus, index, pciBridge, index - 1);
        } else {
            appendFunction(out, bus, index, kKinds[n % kKindCount], 0);
        }
    }
    return out;
}

void describe(host::FakeMachine& machine, int functions)
{
    static std::map<int, Lspci> made;
    auto found = made.find(functions);
    if (found == made.end()) {
        found = made.emplace(functions, makeLspci(functions)).first;
    }
    machine.addCommand("/sbin/lspci -n 2>&1", found->second.n);
    machine.addCommand("/sbin/lspci -m 2>&1", found->second.m);
    machine.addCommand("/sbin/lspci -v 2>&1", found->second.v);
}

void BM_InitPciUtil(benchmark::State& state)
{
    const int functions = static_cast<int>(state.range(0));
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    describe(machine, functions);
    size_t devices = 0;
    for (auto _ : state) {
        PCIUtil pci;
        pci.initPciUtil();
        std::vector<pci_device> all;
        pci.getAllPCIDevices(all);
        devices = all.size();
        benchmark::DoNotOptimize(all.data());
    }
    if (devices != static_cast<size_t>(functions)) {
        state.SkipWithError("the inventory does not hold every function");
    }
    state.counters["devices"] = static_cast<double>(devices);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(devices));
    state.SetComplexityN(functions);
}
BENCHMARK(BM_InitPciUtil)->RangeMultiplier(4)->Range(kFewest, kMost)->Unit(benchmark::kMicrosecond)->Complexity();

// A finder on an inventory read once: a fresh finder each time, since a PCI
// device finder reports each bus once in its life.
template <typename Finder>
void runFinder(benchmark::State& state)
{
    const int functions = static_cast<int>(state.range(0));
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    describe(machine, functions);
    PCIUtil pci;
    pci.initPciUtil();
    std::vector<IWbemClassObject> objects;
    for (auto _ : state) {
        Finder finder;
        finder.getAllObjects(&pci, objects);
        benchmark::DoNotOptimize(objects.data());
    }
    state.counters["records"] = static_cast<double>(objects.size());
    state.SetItemsProcessed(state.iterations() * functions);
    state.SetComplexityN(functions);
}

void BM_PciDeviceFinderGetAllObjects(benchmark::State& state) { runFinder<PCIDeviceFinder>(state); }
BENCHMARK(BM_PciDeviceFinderGetAllObjects)
    ->RangeMultiplier(4)
    ->Range(kFewest, kMost)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

void BM_NetworkDeviceFinderGetAllObjects(benchmark::State& state) { runFinder<NetworkDeviceFinder>(state); }
BENCHMARK(BM_NetworkDeviceFinderGetAllObjects)
    ->RangeMultiplier(4)
    ->Range(kFewest, kMost)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

void BM_RACDeviceFinderGetAllObjects(benchmark::State& state) { runFinder<RACDeviceFinder>(state); }
BENCHMARK(BM_RACDeviceFinderGetAllObjects)
    ->RangeMultiplier(4)
    ->Range(kFewest, kMost)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

} // namespace

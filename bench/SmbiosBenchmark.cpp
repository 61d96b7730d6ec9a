// The cost of the SMBIOS table for 10 to 1000 structures: parsing it, reading
// it from a fake machine's sysfs files, and the memory device finder on it.
#include "finders/MemoryDeviceFinder.h"
#include "frame/IWbemClassObject.h"
#include "host/fake/FakeMachine.h"
#include "platform/smbios/ISmbiosTable.h"
#include "platform/smbios/SmbiosFactory.h"
#include "platform/smbios/SmbiosItemAccess.h"
#include "platform/smbios/SmbiosTable.h"
#include "probes/LinuxUtils.h"
#include "tests/support/Firmware.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

const int kFewest = 10;
const int kMost = 1000;

// n structures as a server has them: a system, a third of them memory
// devices (every fourth slot empty), a fifth port connectors, slots, and the
// end.
ostrand_test::SmbiosBuilder serverTable(int structures)
{
    const int memories = structures / 3;
    const int ports = structures / 5;
    ostrand_test::SmbiosBuilder builder;
    std::vector<uint8_t> system(0x1B - 4, 0);
    system[0] = 1;
    system[1] = 2;
    builder.add(1, system, {"Bench Systems", "BenchServer 7301", "A01", "SN0001"});
    for (int i = 0; i < memories; ++i) {
        std::vector<uint8_t> memory(0x28 - 4, 0);
        uint16_t size = (i % 4 == 3) ? 0 : 4096;
        memory[12 - 4] = static_cast<uint8_t>(size & 0xFF);
        memory[13 - 4] = static_cast<uint8_t>(size >> 8);
        memory[16 - 4] = 1;
        memory[17 - 4] = 2;
        memory[23 - 4] = 3;
        builder.add(17, memory, {"DIMM_" + std::to_string(i), "BANK " + std::to_string(i / 8), "Bench Memory"});
    }
    for (int i = 0; i < ports; ++i) {
        builder.port(static_cast<uint8_t>(i % 2 ? 8 : 0), static_cast<uint8_t>(i < 4 ? 9 : 0x10));
    }
    while (builder.count() < structures) {
        std::vector<uint8_t> slot(0x11 - 4, 0);
        slot[0] = 1;
        builder.add(9, slot, {"PCIe Slot " + std::to_string(builder.count())});
    }
    return builder; // count() includes the end-of-table structure that table() adds
}

void installServer(host::FakeMachine& machine, int structures) { serverTable(structures).installSysfs(machine, 3); }

int structuresOf(const benchmark::State& state) { return static_cast<int>(state.range(0)); }

// Parsing the bytes of the table.
void BM_ParseTable(benchmark::State& state)
{
    std::string bytes = serverTable(structuresOf(state)).table();
    for (auto _ : state) {
        smbios::SmbiosTable table(bytes);
        benchmark::DoNotOptimize(table.getNumberOfItems());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes.size()));
    state.counters["structures"] = structuresOf(state);
    state.SetComplexityN(structuresOf(state));
}
BENCHMARK(BM_ParseTable)->RangeMultiplier(10)->Range(kFewest, kMost)->Complexity();

// Walking all memory devices of the parsed table and reading their fields.
void BM_WalkMemoryDevices(benchmark::State& state)
{
    smbios::SmbiosTable table(serverTable(structuresOf(state)).table());
    for (auto _ : state) {
        unsigned int total = 0;
        for (auto it = table[17]; it != table.end(); ++it) {
            total += smbios::getU16_FromItem(*it, 12);
            benchmark::DoNotOptimize(smbios::getString_FromItem(*it, 16));
        }
        benchmark::DoNotOptimize(total);
    }
    state.SetComplexityN(structuresOf(state));
}
BENCHMARK(BM_WalkMemoryDevices)->RangeMultiplier(10)->Range(kFewest, kMost)->Complexity();

// Reading the table from a fake machine's sysfs files and parsing it.
void BM_ReadTableFromSysfs(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    installServer(machine, structuresOf(state));
    for (auto _ : state) {
        smbios::SmbiosFactory::reset();
        benchmark::DoNotOptimize(smbios::SmbiosFactory::getFactory()->getSingleton());
    }
    smbios::SmbiosFactory::reset();
    state.SetComplexityN(structuresOf(state));
}
BENCHMARK(BM_ReadTableFromSysfs)->RangeMultiplier(10)->Range(kFewest, kMost)->Complexity();

// The memory device finder on the table already read: a record a filled slot.
void BM_MemoryDeviceFinder(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    installServer(machine, structuresOf(state));
    smbios::SmbiosFactory::reset();
    MemoryDeviceFinder finder;
    std::vector<IWbemClassObject> records;
    for (auto _ : state) {
        finder.getAllObjects(nullptr, records);
        benchmark::DoNotOptimize(records.data());
    }
    state.counters["records"] = static_cast<double>(records.size());
    smbios::SmbiosFactory::reset();
    state.SetComplexityN(structuresOf(state));
}
BENCHMARK(BM_MemoryDeviceFinder)->RangeMultiplier(10)->Range(kFewest, kMost)->Complexity();

// The memory device finder with the table read anew each time, as in a fresh process.
void BM_MemoryDeviceFinderColdTable(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    installServer(machine, structuresOf(state));
    std::vector<IWbemClassObject> records;
    for (auto _ : state) {
        smbios::SmbiosFactory::reset();
        MemoryDeviceFinder finder;
        finder.getAllObjects(nullptr, records);
        benchmark::DoNotOptimize(records.data());
    }
    smbios::SmbiosFactory::reset();
    state.SetComplexityN(structuresOf(state));
}
BENCHMARK(BM_MemoryDeviceFinderColdTable)->RangeMultiplier(10)->Range(kFewest, kMost)->Complexity();

// Counting the serial ports of the table.
void BM_CountSerialPorts(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    installServer(machine, structuresOf(state));
    smbios::SmbiosFactory::reset();
    LinuxUtils utils;
    for (auto _ : state) {
        benchmark::DoNotOptimize(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL));
    }
    smbios::SmbiosFactory::reset();
    state.SetComplexityN(structuresOf(state));
}
BENCHMARK(BM_CountSerialPorts)->RangeMultiplier(10)->Range(kFewest, kMost)->Complexity();

} // namespace

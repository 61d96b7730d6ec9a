// The cost of the SMBIOS table: parsing a table of 200 structures, reading it
// from a fake machine's sysfs files, and the memory device finder on it.
#include "finders/MemoryDeviceFinder.h"
#include "frame/IWbemClassObject.h"
#include "host/FakeMachine.h"
#include "platform/smbios/ISmbiosTable.h"
#include "platform/smbios/SmbiosFactory.h"
#include "platform/smbios/SmbiosItemAccess.h"
#include "platform/smbios/SmbiosTable.h"
#include "probes/LinuxUtils.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

const int kStructures = 200;

void put16(std::string& s, size_t at, uint16_t v)
{
    s[at] = static_cast<char>(v & 0xFF);
    s[at + 1] = static_cast<char>(v >> 8);
}

// One structure: header, formatted bytes behind it, strings.
std::string structure(uint8_t type, uint16_t handle, const std::string& formatted, const std::vector<std::string>& strings)
{
    std::string s(4, '\0');
    s[0] = static_cast<char>(type);
    s[1] = static_cast<char>(4 + formatted.size());
    put16(s, 2, handle);
    s += formatted;
    if (strings.empty()) {
        s.append(2, '\0');
    } else {
        for (const auto& text : strings) {
            s += text;
            s += '\0';
        }
        s += '\0';
    }
    return s;
}

// 200 structures as a server has them: a system, 64 memory devices (every
// fourth slot empty), 40 port connectors, slots and others, and the end.
std::string serverTable()
{
    std::string table;
    uint16_t handle = 0;
    std::string system(0x1B - 4, '\0');
    system[0] = 1;
    system[1] = 2;
    table += structure(1, handle++, system, {"Bench Systems", "BenchServer 7301", "A01", "SN0001"});
    for (int i = 0; i < 64; ++i) {
        std::string memory(0x28 - 4, '\0');
        uint16_t size = (i % 4 == 3) ? 0 : 4096;
        put16(memory, 12 - 4, size);
        memory[16 - 4] = 1;
        memory[17 - 4] = 2;
        memory[23 - 4] = 3;
        table += structure(17, handle++, memory,
                           {"DIMM_" + std::to_string(i), "BANK " + std::to_string(i / 8), "Bench Memory"});
    }
    for (int i = 0; i < 40; ++i) {
        std::string port = {1, 0, 2, static_cast<char>(i % 2 ? 8 : 0), static_cast<char>(i < 4 ? 9 : 0x10)};
        table += structure(8, handle++, port, {"J" + std::to_string(i), "PORT" + std::to_string(i)});
    }
    while (handle < kStructures - 1) {
        std::string slot(0x11 - 4, '\0');
        slot[0] = 1;
        table += structure(9, handle++, slot, {"PCIe Slot " + std::to_string(handle)});
    }
    table += structure(127, handle++, "", {});
    return table;
}

// A 3.x entry point for the table, with its checksum.
std::string entryPoint30(size_t tableSize)
{
    std::string e(0x18, '\0');
    e.replace(0, 5, "_SM3_");
    e[6] = 0x18;
    e[7] = 3;
    e[8] = 2;
    e[10] = 1;
    for (int i = 0; i < 4; ++i) {
        e[0x0C + i] = static_cast<char>((tableSize >> (8 * i)) & 0xFF);
    }
    unsigned sum = 0;
    for (char c : e) {
        sum += static_cast<unsigned char>(c);
    }
    e[5] = static_cast<char>((0x100 - (sum & 0xFF)) & 0xFF);
    return e;
}

void installServer(host::FakeMachine& machine)
{
    std::string table = serverTable();
    machine.addFile("/sys/firmware/dmi/tables/smbios_entry_point", entryPoint30(table.size()));
    machine.addFile("/sys/firmware/dmi/tables/DMI", table);
}

// Parsing the bytes of a 200-structure table.
void BM_ParseTable(benchmark::State& state)
{
    std::string bytes = serverTable();
    for (auto _ : state) {
        smbios::SmbiosTable table(bytes);
        benchmark::DoNotOptimize(table.getNumberOfItems());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes.size()));
    state.counters["structures"] = kStructures;
}
BENCHMARK(BM_ParseTable);

// Walking all memory devices of the parsed table and reading their fields.
void BM_WalkMemoryDevices(benchmark::State& state)
{
    smbios::SmbiosTable table(serverTable());
    for (auto _ : state) {
        unsigned int total = 0;
        for (auto it = table[17]; it != table.end(); ++it) {
            total += smbios::getU16_FromItem(*it, 12);
            benchmark::DoNotOptimize(smbios::getString_FromItem(*it, 16));
        }
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_WalkMemoryDevices);

// Reading the table from a fake machine's sysfs files and parsing it.
void BM_ReadTableFromSysfs(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    installServer(machine);
    for (auto _ : state) {
        smbios::SmbiosFactory::reset();
        benchmark::DoNotOptimize(smbios::SmbiosFactory::getFactory()->getSingleton());
    }
    smbios::SmbiosFactory::reset();
}
BENCHMARK(BM_ReadTableFromSysfs);

// The memory device finder on the table already read: 48 records.
void BM_MemoryDeviceFinder(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    installServer(machine);
    smbios::SmbiosFactory::reset();
    MemoryDeviceFinder finder;
    std::vector<IWbemClassObject> records;
    for (auto _ : state) {
        finder.getAllObjects(nullptr, records);
        benchmark::DoNotOptimize(records.data());
    }
    state.counters["records"] = static_cast<double>(records.size());
    smbios::SmbiosFactory::reset();
}
BENCHMARK(BM_MemoryDeviceFinder);

// The memory device finder with the table read anew each time, as in a fresh process.
void BM_MemoryDeviceFinderColdTable(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    installServer(machine);
    std::vector<IWbemClassObject> records;
    for (auto _ : state) {
        smbios::SmbiosFactory::reset();
        MemoryDeviceFinder finder;
        finder.getAllObjects(nullptr, records);
        benchmark::DoNotOptimize(records.data());
    }
    smbios::SmbiosFactory::reset();
}
BENCHMARK(BM_MemoryDeviceFinderColdTable);

// Counting the serial ports of the table (40 port connectors).
void BM_CountSerialPorts(benchmark::State& state)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    installServer(machine);
    smbios::SmbiosFactory::reset();
    LinuxUtils utils;
    for (auto _ : state) {
        benchmark::DoNotOptimize(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL));
    }
    smbios::SmbiosFactory::reset();
}
BENCHMARK(BM_CountSerialPorts);

} // namespace

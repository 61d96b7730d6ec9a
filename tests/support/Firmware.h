// Firmware tables built in code for fake machines: SMBIOS tables with their
// entry points, and BIOS areas holding a PCI interrupt routing table.
#pragma once

#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ostrand_test {

class SmbiosBuilder {
public:
    // A structure: its type, the bytes of its formatted area behind the
    // four-byte header (the length byte is computed), and its strings.
    SmbiosBuilder& add(uint8_t type, const std::vector<uint8_t>& formatted, const std::vector<std::string>& strings);
    // Raw bytes appended as they are, for broken tables.
    SmbiosBuilder& raw(const std::string& bytes);
    // Type 1 with the product name at offset 5 (string 2; manufacturer is string 1).
    SmbiosBuilder& system(const std::string& product);
    // Type 8: external connector type at offset 7, port type at offset 8.
    SmbiosBuilder& port(uint8_t externalConnector, uint8_t portType);
    // Type 17: size at offset 12, device locator at 16, bank locator at 17
    // (string 0 where the text is empty).
    SmbiosBuilder& memory(uint16_t size, const std::string& deviceLocator, const std::string& bankLocator);

    std::string table() const; // the structures and the end-of-table structure (type 127)
    int count() const { return m_count + 1; }
    std::string entryPoint21(uint32_t tableAddress) const; // "_SM_" with "_DMI_"
    std::string entryPoint30(uint64_t tableAddress) const; // "_SM3_"

    // The sysfs files /sys/firmware/dmi/tables/{smbios_entry_point,DMI}.
    void installSysfs(Vantrel::Ostrand::host::FakeMachine& machine, int version = 2) const;
    // The entry point in the BIOS area of /dev/mem (at 0xF0000 + offset),
    // the table at tableAddress.
    void installMemory(Vantrel::Ostrand::host::FakeMachine& machine, uint32_t entryOffset = 0x100,
                       uint32_t tableAddress = 0x000E0000, int version = 2) const;

private:
    std::string m_structures;
    int m_count = 0;
    uint16_t m_nextHandle = 0;
};

// SMBIOS dumps in the layout of tests/captures/smbios/*/dump.bin: the entry
// point at offset 0, the table at 0x20, which is the address the entry point states.
std::string dumpEntryPoint(const std::string& dump); // cut at the length it states
std::string dumpTable(const std::string& dump);
// As the sysfs files /sys/firmware/dmi/tables/{smbios_entry_point,DMI}.
void installDumpSysfs(Vantrel::Ostrand::host::FakeMachine& machine, const std::string& dump);
// In /dev/mem: the whole dump at physical address 0 (so the table lies where
// the entry point says), and the entry point again in the BIOS area at 0xF0000 + entryOffset.
void installDumpMemory(Vantrel::Ostrand::host::FakeMachine& machine, const std::string& dump,
                       uint32_t entryOffset = 0x100);
// The lab server's real sysfs files (lab-server/smbios_entry_point.bin and DMI.bin).
void installLabServerSmbios(Vantrel::Ostrand::host::FakeMachine& machine);

class PirBuilder {
public:
    PirBuilder& entry(uint8_t bus, uint8_t device, uint8_t slot, uint8_t function = 0);
    std::string table() const;
    // A 64 KiB BIOS area with the table at the offset (a multiple of 16).
    std::string area(uint32_t offset = 0x5C80) const;
    // Places the area at 0xF0000 in /dev/mem.
    void install(Vantrel::Ostrand::host::FakeMachine& machine, uint32_t offset = 0x5C80) const;

private:
    std::vector<std::string> m_entries;
};

} // namespace ostrand_test

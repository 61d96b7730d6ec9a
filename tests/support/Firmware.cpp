#include "tests/support/Firmware.h"

#include "tests/support/Machines.h"

#include <memory>

namespace ostrand_test {

using Vantrel::Ostrand::host::FakeMachine;
using Vantrel::Ostrand::host::MemoryModel;

namespace {

void put16(std::string& s, size_t at, uint16_t v)
{
    s[at] = static_cast<char>(v & 0xFF);
    s[at + 1] = static_cast<char>(v >> 8);
}

void put32(std::string& s, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i) {
        s[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
    }
}

void checksum(std::string& s, size_t from, size_t length, size_t at)
{
    s[at] = 0;
    unsigned sum = 0;
    for (size_t i = from; i < from + length; ++i) {
        sum += static_cast<unsigned char>(s[i]);
    }
    s[at] = static_cast<char>((0x100 - (sum & 0xFF)) & 0xFF);
}

std::shared_ptr<MemoryModel> memoryOf(FakeMachine& machine)
{
    auto model = std::dynamic_pointer_cast<MemoryModel>(machine.model("/dev/mem"));
    if (!model) {
        model = std::make_shared<MemoryModel>();
        machine.addNode("/dev/mem", 'c', model);
    }
    return model;
}

} // namespace

SmbiosBuilder& SmbiosBuilder::add(uint8_t type, const std::vector<uint8_t>& formatted,
                                  const std::vector<std::string>& strings)
{
    std::string s(4, '\0');
    s[0] = static_cast<char>(type);
    s[1] = static_cast<char>(4 + formatted.size());
    put16(s, 2, m_nextHandle++);
    s.append(formatted.begin(), formatted.end());
    if (strings.empty()) {
        s.append(2, '\0');
    } else {
        for (const auto& text : strings) {
            s += text;
            s += '\0';
        }
        s += '\0';
    }
    m_structures += s;
    ++m_count;
    return *this;
}

SmbiosBuilder& SmbiosBuilder::raw(const std::string& bytes)
{
    m_structures += bytes;
    ++m_count;
    return *this;
}

SmbiosBuilder& SmbiosBuilder::system(const std::string& product)
{
    // Offsets 4..7: manufacturer, product, version, serial (string numbers).
    std::vector<uint8_t> f(0x1B - 4, 0);
    f[0] = 1; // manufacturer
    f[1] = 2; // product name, at offset 5
    return add(1, f, {"Fake Maker", product});
}

SmbiosBuilder& SmbiosBuilder::port(uint8_t externalConnector, uint8_t portType)
{
    // Offsets 4..8: internal designator, internal type, external designator,
    // external connector type (7), port type (8).
    std::vector<uint8_t> f = {1, 0, 2, externalConnector, portType};
    return add(8, f, {"J1", "PORT"});
}

SmbiosBuilder& SmbiosBuilder::memory(uint16_t size, const std::string& deviceLocator, const std::string& bankLocator)
{
    // Type 17 of SMBIOS 2.3: formatted length 0x1B.
    std::vector<uint8_t> f(0x1B - 4, 0);
    std::vector<std::string> strings;
    auto stringNumber = [&strings](const std::string& text) -> uint8_t {
        if (text.empty()) {
            return 0;
        }
        strings.push_back(text);
        return static_cast<uint8_t>(strings.size());
    };
    f[12 - 4] = static_cast<uint8_t>(size & 0xFF);
    f[13 - 4] = static_cast<uint8_t>(size >> 8);
    f[16 - 4] = stringNumber(deviceLocator);
    f[17 - 4] = stringNumber(bankLocator);
    return add(17, f, strings);
}

std::string SmbiosBuilder::table() const
{
    std::string end = {'\x7f', '\x04', '\xff', '\xfe', '\0', '\0'};
    return m_structures + end;
}

std::string SmbiosBuilder::entryPoint21(uint32_t tableAddress) const
{
    std::string e(0x1F, '\0');
    e.replace(0, 4, "_SM_");
    e[5] = 0x1F;
    e[6] = 2;
    e[7] = 8;
    e.replace(0x10, 5, "_DMI_");
    put16(e, 0x16, static_cast<uint16_t>(table().size()));
    put32(e, 0x18, tableAddress);
    put16(e, 0x1C, static_cast<uint16_t>(count()));
    e[0x1E] = 0x28;
    checksum(e, 0x10, 0x0F, 0x15);
    checksum(e, 0, 0x1F, 4);
    return e;
}

std::string SmbiosBuilder::entryPoint30(uint64_t tableAddress) const
{
    std::string e(0x18, '\0');
    e.replace(0, 5, "_SM3_");
    e[6] = 0x18;
    e[7] = 3;
    e[8] = 2;
    e[10] = 1;
    put32(e, 0x0C, static_cast<uint32_t>(table().size()));
    put32(e, 0x10, static_cast<uint32_t>(tableAddress & 0xFFFFFFFF));
    put32(e, 0x14, static_cast<uint32_t>(tableAddress >> 32));
    checksum(e, 0, 0x18, 5);
    return e;
}

void SmbiosBuilder::installSysfs(FakeMachine& machine, int version) const
{
    machine.addFile("/sys/firmware/dmi/tables/smbios_entry_point",
                    version == 3 ? entryPoint30(0) : entryPoint21(0));
    machine.addFile("/sys/firmware/dmi/tables/DMI", table());
}

void SmbiosBuilder::installMemory(FakeMachine& machine, uint32_t entryOffset, uint32_t tableAddress,
                                  int version) const
{
    auto memory = memoryOf(machine);
    memory->place(0xF0000 + entryOffset, version == 3 ? entryPoint30(tableAddress) : entryPoint21(tableAddress));
    memory->place(tableAddress, table());
}

std::string dumpEntryPoint(const std::string& dump)
{
    size_t length = 0;
    if (dump.compare(0, 5, "_SM3_") == 0 && dump.size() > 6) {
        length = static_cast<unsigned char>(dump[6]);
    } else if (dump.compare(0, 4, "_SM_") == 0 && dump.size() > 5) {
        length = static_cast<unsigned char>(dump[5]);
    }
    return dump.substr(0, length);
}

std::string dumpTable(const std::string& dump) { return dump.size() > 0x20 ? dump.substr(0x20) : std::string(); }

void installDumpSysfs(FakeMachine& machine, const std::string& dump)
{
    machine.addFile("/sys/firmware/dmi/tables/smbios_entry_point", dumpEntryPoint(dump));
    machine.addFile("/sys/firmware/dmi/tables/DMI", dumpTable(dump));
}

void installDumpMemory(FakeMachine& machine, const std::string& dump, uint32_t entryOffset)
{
    auto memory = memoryOf(machine);
    memory->place(0, dump);
    memory->place(0xF0000 + entryOffset, dumpEntryPoint(dump));
}

void installLabServerSmbios(FakeMachine& machine)
{
    machine.addFile("/sys/firmware/dmi/tables/smbios_entry_point", capture("lab-server/smbios_entry_point.bin"));
    machine.addFile("/sys/firmware/dmi/tables/DMI", capture("lab-server/DMI.bin"));
}

PirBuilder& PirBuilder::entry(uint8_t bus, uint8_t device, uint8_t slot, uint8_t function)
{
    std::string e(16, '\0');
    e[0] = static_cast<char>(bus);
    e[1] = static_cast<char>((device << 3) | (function & 7));
    e[14] = static_cast<char>(slot);
    m_entries.push_back(e);
    return *this;
}

std::string PirBuilder::table() const
{
    std::string t(32, '\0');
    t.replace(0, 4, "$PIR");
    t[4] = 0;
    t[5] = 1;
    put16(t, 6, static_cast<uint16_t>(32 + 16 * m_entries.size()));
    for (const auto& e : m_entries) {
        t += e;
    }
    checksum(t, 0, t.size(), 31);
    return t;
}

std::string PirBuilder::area(uint32_t offset) const
{
    std::string a(0x10000, '\0');
    std::string t = table();
    a.replace(offset, t.size(), t);
    return a;
}

void PirBuilder::install(FakeMachine& machine, uint32_t offset) const { memoryOf(machine)->place(0xF0000, area(offset)); }

} // namespace ostrand_test

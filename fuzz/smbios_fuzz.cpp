// The SMBIOS table reader over arbitrary bytes. The input is laid out as the
// dumps of tests/captures/smbios are: the entry point in the first 0x20 bytes,
// the table behind it. Byte 0x1F (behind every entry point) picks the route:
// the sysfs files, /dev/mem (entry point in the BIOS area, table where the
// entry point says), both, or neither. Then every structure and field is read
// through the interface, the ports of both kinds are counted, the raw table is
// counted by readDmiTable, and the memory finder runs. Only the interface's own
// exception may leave; descriptors and mappings must all be given back.
#include "finders/MemoryDeviceFinder.h"
#include "finders/ParallelPortFinder.h"
#include "finders/SerialPortFinder.h"
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"
#include "platform/smbios/ISmbiosTable.h"
#include "platform/smbios/SmbiosException.h"
#include "platform/smbios/SmbiosFactory.h"
#include "platform/smbios/SmbiosItemAccess.h"
#include "probes/LinuxUtils.h"

#include <fcntl.h>

#include <cstring>
#include <memory>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

const size_t kEntryArea = 0x20;
const char* const kEntryPointFile = "/sys/firmware/dmi/tables/smbios_entry_point";
const char* const kTableFile = "/sys/firmware/dmi/tables/DMI";
const uint64_t kBiosArea = 0xF0000;
// Where the entry point lies in the BIOS area: the start, an ordinary place,
// and two places where it is cut by the end of the area.
const uint32_t kEntryOffsets[] = {0x0, 0x100, 0xFFE0, 0xFFF0};

uint64_t little(const std::string& bytes, size_t at, size_t width)
{
    uint64_t value = 0;
    for (size_t i = 0; i < width && at + i < bytes.size(); ++i) {
        value |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    }
    return value;
}

// The table address an entry point states, read without the library.
uint64_t statedAddress(const std::string& entry)
{
    if (entry.compare(0, 5, "_SM3_") == 0) {
        return little(entry, 0x10, 8);
    }
    if (entry.compare(0, 4, "_SM_") == 0) {
        return little(entry, 0x18, 4);
    }
    return kEntryArea;
}

void installMemory(host::FakeMachine& machine, const std::string& input, const std::string& entry,
                   const std::string& table, uint32_t entryOffset)
{
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0, input);
    uint64_t address = statedAddress(entry);
    if (address < (uint64_t(1) << 40)) {
        memory->place(address, table);
    }
    memory->place(kBiosArea + entryOffset, entry);
    machine.addNode("/dev/mem", 'c', memory);
}

// True if the body threw the interface's own exception; any other exception
// is a finding.
template <typename Body>
bool throws(Body body)
{
    bool thrown = true;
    ostrand_fuzz::allowingOnly<smbios::SmbiosException>([&] {
        body();
        thrown = false;
    });
    return thrown;
}

// Every access of the item interface: each field inside the formatted area
// must be read without complaint and give the bytes of the area, each one
// outside it must be refused. The refusals are costly, so each kind of them
// is tried a few times per structure, and only on the first structures of
// the table (`refusals`).
void readItem(const smbios::ISmbiosItem& item, bool refusals)
{
    const unsigned int length = item.getLength();
    ostrand_fuzz::check(length >= 4, "a structure shorter than its header");
    const uint8_t* area = item.getFormattedArea();
    ostrand_fuzz::check(item.getType() == area[0], "the type is not the first byte");
    ostrand_fuzz::check(item.getHandle() == (area[2] | (area[3] << 8)), "the handle is not at 2");
    const unsigned int strings = item.getStringCount();
    for (unsigned int number = 1; number <= strings; ++number) {
        (void)std::strlen(item.getStringByNumber(number));
    }
    bool noStringTried = !refusals;
    for (unsigned int offset = 0; offset < length; ++offset) {
        ostrand_fuzz::check(smbios::getU8_FromItem(item, offset) == area[offset], "getU8 reads another byte");
        if (offset + 2 <= length) {
            ostrand_fuzz::check(smbios::getU16_FromItem(item, offset) == (area[offset] | (area[offset + 1] << 8)),
                                "getU16 reads other bytes");
        }
        if (offset + 4 <= length) {
            smbios::getU32_FromItem(item, offset);
        }
        unsigned int number = area[offset];
        if (number >= 1 && number <= strings) {
            ostrand_fuzz::check(smbios::getString_FromItem(item, offset) == item.getStringByNumber(number),
                                "getString gives another string");
        } else if (!noStringTried) {
            noStringTried = true;
            ostrand_fuzz::check(throws([&] { smbios::getString_FromItem(item, offset); }),
                                "a string number that names no string gives a text");
        }
    }
    if (!refusals) {
        return;
    }
    ostrand_fuzz::check(throws([&] { item.getStringByNumber(0); }), "string 0 gives a text");
    ostrand_fuzz::check(throws([&] { item.getStringByNumber(strings + 1); }), "a string beyond the last");
    for (unsigned int offset : {length, length + 1, 0xFFFFFFFFu}) {
        ostrand_fuzz::check(throws([&] { smbios::getU8_FromItem(item, offset); }), "getU8 outside the area");
        ostrand_fuzz::check(throws([&] { smbios::getString_FromItem(item, offset); }), "getString outside");
    }
    for (unsigned int offset : {length - 1, 0xFFFFFFFFu}) {
        ostrand_fuzz::check(throws([&] { smbios::getU16_FromItem(item, offset); }), "getU16 across the end");
    }
    for (unsigned int offset : {length - 3, 0xFFFFFFFEu}) {
        ostrand_fuzz::check(throws([&] { smbios::getU32_FromItem(item, offset); }), "getU32 across the end");
    }
}

void readTable()
{
    smbios::ISmbiosTable* table = smbios::SmbiosFactory::getFactory()->getSingleton();
    ostrand_fuzz::check(table != nullptr, "a null table");
    table->getMajorVersion();
    table->getMinorVersion();
    size_t items = table->getNumberOfItems();

    // All structures, counting them by type.
    std::vector<size_t> perType(256, 0);
    size_t walked = 0;
    for (smbios::SmbiosTableIterator it = table->begin(); it != table->end(); ++it) {
        ostrand_fuzz::check(walked < items, "the iterator walks past the items");
        const smbios::ISmbiosItem& item = *it;
        ostrand_fuzz::check(&item == &table->getItem(walked), "the iterator and getItem disagree");
        readItem(item, walked < 4 || walked + 1 == items);
        ++perType[item.getType()];
        ++walked;
    }
    ostrand_fuzz::check(walked == items, "the iterator misses items");
    for (size_t index : {items, items + 1, static_cast<size_t>(-1)}) {
        ostrand_fuzz::allowingOnly<smbios::SmbiosException>([&] { table->getItem(index); });
    }

    // The walk of one type visits exactly the structures of that type: the
    // types that occur, those the library asks for, and some that cannot.
    std::vector<int> types = {-1, 1, 8, 17, 127, 256, 1000};
    for (int type = 0; type <= 255; ++type) {
        if (perType[type] != 0 && types.size() < 40) {
            types.push_back(type);
        }
    }
    for (int type : types) {
        size_t seen = 0;
        smbios::SmbiosTableIterator it = (*table)[type];
        for (; it != table->end(); ++it) {
            ostrand_fuzz::check(static_cast<int>(it->getType()) == type, "a structure of another type");
            ++seen;
        }
        size_t expected = type >= 0 && type <= 255 ? perType[type] : 0;
        ostrand_fuzz::check(seen == expected, "a typed walk misses structures");
        // The end iterator stays at the end, and cannot be dereferenced.
        ++it;
        ostrand_fuzz::allowingOnly<smbios::SmbiosException>([&] { *it; });
    }
}

// readDmiTable over the sysfs copy of the table, if there is one, with the
// entry point's structure count (or another) and both kinds.
void readRawTable(const std::string& table, uint16_t count)
{
    int fd = host::open(kTableFile, O_RDONLY);
    if (fd < 0) {
        return;
    }
    unsigned short length = static_cast<unsigned short>(table.size() > 0xFFFF ? 0xFFFF : table.size());
    // Only the two kinds: the enum has no room for other values (0 and 1 are its range).
    for (LinuxUtils::PortType type : {LinuxUtils::PORT_TYPE_PARALLEL, LinuxUtils::PORT_TYPE_SERIAL}) {
        for (unsigned short structures : {count, static_cast<unsigned short>(0xFFFF)}) {
            ostrand_fuzz::allowingNothing([&] {
                LinuxUtils utils;
                utils.readDmiTable(fd, 0, length, structures, type);
            });
        }
    }
    host::close(fd);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string input = ostrand_fuzz::text(data, size);
    std::string entry = input.substr(0, kEntryArea);
    std::string table = input.size() > kEntryArea ? input.substr(kEntryArea) : std::string();
    uint8_t route = size >= kEntryArea ? data[kEntryArea - 1] : 0;

    host::FakeMachine machine;
    switch (route & 3) {
    case 0:
        machine.addFile(kEntryPointFile, entry);
        machine.addFile(kTableFile, table);
        break;
    case 1:
        installMemory(machine, input, entry, table, kEntryOffsets[(route >> 2) & 3]);
        break;
    case 2:
        machine.addFile(kEntryPointFile, entry);
        machine.addFile(kTableFile, table);
        installMemory(machine, input, entry, table, kEntryOffsets[(route >> 2) & 3]);
        break;
    default:
        // No table anywhere; /dev/mem refuses as it does without root.
        machine.denyOpen("/dev/mem", 13);
        break;
    }
    host::ScopedMachine scope{machine};

    smbios::SmbiosFactory::reset();
    ostrand_fuzz::allowingOnly<smbios::SmbiosException>(readTable);

    for (LinuxUtils::PortType type : {LinuxUtils::PORT_TYPE_PARALLEL, LinuxUtils::PORT_TYPE_SERIAL}) {
        ostrand_fuzz::allowingOnly<smbios::SmbiosException>([&] {
            LinuxUtils utils;
            int count = utils.getNumOfPorts(type);
            ostrand_fuzz::check(count >= 0, "a negative port count");
            if (count > 0) {
                std::string key = utils.getDeviceDescription();
                ostrand_fuzz::check(key.find("PORT_DESC") != std::string::npos, "a counted port without its key");
            }
        });
    }

    // The port finders on a machine without nodes: every serial port the
    // table promises is a placeholder (32 at most), every parallel one a record.
    ostrand_fuzz::allowingOnly<smbios::SmbiosException>([&] {
        LinuxUtils utils;
        int serialPorts = utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL);
        int parallelPorts = utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL);
        std::vector<IWbemClassObject> records;
        SerialPortFinder serial;
        serial.getAllObjects(nullptr, records);
        ostrand_fuzz::check(records.size() == static_cast<size_t>(serialPorts < 32 ? serialPorts : 32),
                            "serial placeholders other than the ports promised");
        ParallelPortFinder parallel;
        parallel.getAllObjects(nullptr, records);
        ostrand_fuzz::check(records.size() == static_cast<size_t>(parallelPorts), "parallel records other than the ports");
    });

    ostrand_fuzz::allowingOnly<smbios::SmbiosException>([&] {
        MemoryDeviceFinder finder;
        std::vector<IWbemClassObject> records;
        finder.getAllObjects(nullptr, records);
        finder.getAllObjects(nullptr, records);
    });

    readRawTable(table, static_cast<uint16_t>(little(entry, 0x1C, 2)));

    smbios::SmbiosFactory::reset();
    ostrand_fuzz::check(machine.openDescriptors().empty(), "a descriptor left open");
    ostrand_fuzz::check(machine.openMappings() == 0, "a mapping left in place");
    return 0;
}

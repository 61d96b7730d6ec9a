#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"
#include "platform/smbios/ISmbiosTable.h"
#include "platform/smbios/SmbiosEntryPoint.h"
#include "platform/smbios/SmbiosException.h"
#include "platform/smbios/SmbiosFactory.h"
#include "platform/smbios/SmbiosItemAccess.h"
#include "platform/smbios/SmbiosTable.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::capture;
using ostrand_test::SmbiosBuilder;

namespace {

const char* const kEntryPointFile = "/sys/firmware/dmi/tables/smbios_entry_point";
const char* const kTableFile = "/sys/firmware/dmi/tables/DMI";

class SmbiosTest : public ::testing::Test {
protected:
    void SetUp() override { smbios::SmbiosFactory::reset(); }
    void TearDown() override { smbios::SmbiosFactory::reset(); }

    smbios::ISmbiosTable* table() { return smbios::SmbiosFactory::getFactory()->getSingleton(); }

    // The types of all structures, in table order.
    std::vector<int> types()
    {
        std::vector<int> result;
        for (auto it = table()->begin(); it != table()->end(); ++it) {
            result.push_back(it->getType());
        }
        return result;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
};

// A small table: a system, two ports, a memory device.
SmbiosBuilder smallTable()
{
    SmbiosBuilder b;
    b.system("Model 7").port(8, 9).port(0, 5).memory(1024, "DIMM_A1", "BANK 0");
    return b;
}

std::string bytes(std::initializer_list<int> values)
{
    std::string s;
    for (int v : values) {
        s += static_cast<char>(v);
    }
    return s;
}

// Makes the checksum byte at `at` right again over `length` bytes from `from`.
void fixChecksum(std::string& s, size_t from, size_t length, size_t at)
{
    s[at] = 0;
    unsigned sum = 0;
    for (size_t i = from; i < from + length; ++i) {
        sum += static_cast<unsigned char>(s[i]);
    }
    s[at] = static_cast<char>((0x100 - (sum & 0xFF)) & 0xFF);
}

// One block of a decoded dump: "Handle 0x0006, DMI type 17, 34 bytes" and its
// "Key: Value" lines.
struct DecodedStructure {
    int handle = 0;
    int type = 0;
    int length = 0;
    std::map<std::string, std::string> values;
};

std::vector<DecodedStructure> parseDecoded(const std::string& text)
{
    std::vector<DecodedStructure> result;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        int handle = 0;
        int type = 0;
        int length = 0;
        if (std::sscanf(line.c_str(), "Handle 0x%x, DMI type %d, %d bytes", &handle, &type, &length) == 3) {
            DecodedStructure s;
            s.handle = handle;
            s.type = type;
            s.length = length;
            result.push_back(s);
            continue;
        }
        size_t colon = line.find(": ");
        if (!result.empty() && line.size() > 1 && line[0] == '\t' && colon != std::string::npos) {
            result.back().values[line.substr(1, colon - 1)] = line.substr(colon + 2);
        }
    }
    return result;
}

const char* const kDumps[] = {"smbios/fwupd-test-tables", "smbios/go-smbios-SuperMicro-Dual-Xeon",
                              "smbios/u-root-smbios_table"};

} // namespace

// --- Entry points and where the table comes from --------------------------

TEST_F(SmbiosTest, ReadsTableOfA21EntryPointFromSysfs)
{
    smallTable().installSysfs(machine, 2);
    EXPECT_EQ(types(), (std::vector<int>{1, 8, 8, 17, 127}));
    EXPECT_EQ(table()->getMajorVersion(), 2);
    EXPECT_EQ(table()->getMinorVersion(), 8);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "Model 7");
}

TEST_F(SmbiosTest, ReadsTableOfA30EntryPointFromSysfs)
{
    smallTable().installSysfs(machine, 3);
    EXPECT_EQ(types(), (std::vector<int>{1, 8, 8, 17, 127}));
    EXPECT_EQ(table()->getMajorVersion(), 3);
    EXPECT_EQ(table()->getMinorVersion(), 2);
}

TEST_F(SmbiosTest, FallsBackToTheBiosAreaOfPhysicalMemoryWith21EntryPoint)
{
    smallTable().installMemory(machine, 0x100, 0x000E0000, 2);
    EXPECT_EQ(types(), (std::vector<int>{1, 8, 8, 17, 127}));
    EXPECT_EQ(table()->getMajorVersion(), 2);
    EXPECT_EQ(machine.opens(), (std::vector<std::string>{kEntryPointFile, "/dev/mem"}));
}

TEST_F(SmbiosTest, FallsBackToTheBiosAreaOfPhysicalMemoryWith30EntryPoint)
{
    smallTable().installMemory(machine, 0xA0, 0x7FFF0000, 3);
    EXPECT_EQ(types(), (std::vector<int>{1, 8, 8, 17, 127}));
    EXPECT_EQ(table()->getMajorVersion(), 3);
}

TEST_F(SmbiosTest, FindsEntryPointAtTheFirstAndLastBoundariesOfTheBiosArea)
{
    smallTable().installMemory(machine, 0x0, 0x1000, 2);
    EXPECT_EQ(table()->getNumberOfItems(), 5u);
    smbios::SmbiosFactory::reset();

    host::FakeMachine other;
    host::ScopedMachine otherScope{other};
    SmbiosBuilder().system("Last").installMemory(other, 0xFFE0, 0x1000, 2); // 0x1F bytes end at 0xFFFF
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "Last");
}

TEST_F(SmbiosTest, EntryPointOffTheSixteenByteBoundaryIsNotFound)
{
    smallTable().installMemory(machine, 0x108, 0x1000, 2);
    EXPECT_THROW(table(), smbios::SmbiosException);
}

TEST_F(SmbiosTest, PhysicalMemoryPrefers30EntryPointOver21)
{
    SmbiosBuilder().system("Old").installMemory(machine, 0x100, 0x1000, 2);
    SmbiosBuilder().system("New").installMemory(machine, 0x200, 0x2000, 3);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "New");
}

TEST_F(SmbiosTest, SysfsIsPreferredOverPhysicalMemory)
{
    SmbiosBuilder().system("Sysfs").installSysfs(machine);
    SmbiosBuilder().system("Memory").installMemory(machine);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "Sysfs");
    EXPECT_EQ(machine.opens(), (std::vector<std::string>{kEntryPointFile, kTableFile}));
}

TEST_F(SmbiosTest, SysfsEntryPointWithBadChecksumFallsBackToPhysicalMemory)
{
    SmbiosBuilder sysfs;
    sysfs.system("Sysfs");
    std::string entry = sysfs.entryPoint21(0);
    entry[4] = static_cast<char>(entry[4] + 1);
    machine.addFile(kEntryPointFile, entry);
    machine.addFile(kTableFile, sysfs.table());
    SmbiosBuilder().system("Memory").installMemory(machine);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "Memory");
}

TEST_F(SmbiosTest, BadIntermediateChecksumOf21EntryPointIsRejected)
{
    SmbiosBuilder b;
    b.system("Sysfs");
    std::string entry = b.entryPoint21(0);
    entry[0x15] = static_cast<char>(entry[0x15] + 1);
    fixChecksum(entry, 0, 0x1F, 4); // the outer checksum is right, the inner one is not
    machine.addFile(kEntryPointFile, entry);
    machine.addFile(kTableFile, b.table());
    EXPECT_THROW(table(), smbios::SmbiosException);
}

TEST_F(SmbiosTest, SysfsEntryPointWithoutTableFileFallsBackToPhysicalMemory)
{
    machine.addFile(kEntryPointFile, SmbiosBuilder().entryPoint21(0));
    SmbiosBuilder().system("Memory").installMemory(machine);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "Memory");
}

TEST_F(SmbiosTest, EmptySysfsTableFileFallsBackToPhysicalMemory)
{
    machine.addFile(kEntryPointFile, SmbiosBuilder().entryPoint21(0));
    machine.addFile(kTableFile, "");
    SmbiosBuilder().system("Memory").installMemory(machine);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "Memory");
}

TEST_F(SmbiosTest, TruncatedEntryPointIsRejected)
{
    SmbiosBuilder b;
    b.system("Sysfs");
    machine.addFile(kEntryPointFile, b.entryPoint21(0).substr(0, 0x1C));
    machine.addFile(kTableFile, b.table());
    EXPECT_THROW(table(), smbios::SmbiosException);

    std::string entry30 = b.entryPoint30(0);
    smbios::SmbiosEntryPoint parsed;
    EXPECT_TRUE(smbios::SmbiosEntryPoint::parse(reinterpret_cast<const uint8_t*>(entry30.data()), 0x18, parsed));
    EXPECT_FALSE(smbios::SmbiosEntryPoint::parse(reinterpret_cast<const uint8_t*>(entry30.data()), 0x17, parsed));
}

TEST_F(SmbiosTest, EntryPointStatingALengthBeyondItsBytesIsRejected)
{
    SmbiosBuilder b;
    std::string entry = b.entryPoint30(0);
    entry[6] = 0x40;
    fixChecksum(entry, 0, 0x18, 5);
    smbios::SmbiosEntryPoint parsed;
    EXPECT_FALSE(smbios::SmbiosEntryPoint::parse(reinterpret_cast<const uint8_t*>(entry.data()), entry.size(), parsed));
}

TEST_F(SmbiosTest, EntryPointFieldsAreRead)
{
    SmbiosBuilder b;
    b.system("X").port(1, 9);
    std::string e21 = b.entryPoint21(0x000E1230);
    smbios::SmbiosEntryPoint parsed;
    ASSERT_TRUE(smbios::SmbiosEntryPoint::parse(reinterpret_cast<const uint8_t*>(e21.data()), e21.size(), parsed));
    EXPECT_EQ(parsed.majorVersion, 2);
    EXPECT_EQ(parsed.minorVersion, 8);
    EXPECT_EQ(parsed.tableAddress, 0x000E1230u);
    EXPECT_EQ(parsed.tableLength, b.table().size());
    EXPECT_TRUE(parsed.hasStructureCount);
    EXPECT_EQ(parsed.structureCount, 3);

    std::string e30 = b.entryPoint30(0x123456789ULL);
    ASSERT_TRUE(smbios::SmbiosEntryPoint::parse(reinterpret_cast<const uint8_t*>(e30.data()), e30.size(), parsed));
    EXPECT_EQ(parsed.majorVersion, 3);
    EXPECT_EQ(parsed.minorVersion, 2);
    EXPECT_EQ(parsed.tableAddress, 0x123456789ULL);
    EXPECT_EQ(parsed.tableLength, b.table().size());
    EXPECT_FALSE(parsed.hasStructureCount);
}

TEST_F(SmbiosTest, TableIsReadOnFirstAccessAndKept)
{
    smallTable().installSysfs(machine);
    smbios::SmbiosFactory* factory = smbios::SmbiosFactory::getFactory();
    EXPECT_EQ(factory, smbios::SmbiosFactory::getFactory());
    EXPECT_TRUE(machine.opens().empty());
    smbios::ISmbiosTable* first = table();
    size_t opens = machine.opens().size();
    EXPECT_EQ(opens, 2u);
    EXPECT_EQ(table(), first);
    EXPECT_EQ(machine.opens().size(), opens);
}

TEST_F(SmbiosTest, ResetReadsTheMachineAnew)
{
    SmbiosBuilder().system("First").installSysfs(machine);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "First");
    SmbiosBuilder().system("Second").installSysfs(machine);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "First");
    smbios::SmbiosFactory::reset();
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "Second");
}

TEST_F(SmbiosTest, MakeNewGivesAFreshTableOwnedByTheCaller)
{
    smallTable().installSysfs(machine);
    std::unique_ptr<smbios::ISmbiosTable> fresh(smbios::SmbiosFactory::getFactory()->makeNew());
    EXPECT_NE(fresh.get(), table());
    EXPECT_EQ(fresh->getNumberOfItems(), table()->getNumberOfItems());
}

TEST_F(SmbiosTest, LeavesNoDescriptorOrMappingOpen)
{
    smallTable().installMemory(machine);
    table();
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.openMappings(), 0u);
}

// --- Absent tables ----------------------------------------------------------

TEST_F(SmbiosTest, AbsentTableThrows)
{
    EXPECT_THROW(table(), smbios::SmbiosException);
    EXPECT_THROW(smbios::SmbiosFactory::getFactory()->makeNew(), smbios::SmbiosException);
}

TEST_F(SmbiosTest, AbsentTableExceptionIsAStdException)
{
    try {
        table();
        FAIL() << "no exception";
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "no SMBIOS table can be read on this machine");
    }
}

TEST_F(SmbiosTest, PhysicalMemoryWithoutEntryPointThrows)
{
    machine.addNode("/dev/mem", 'c', std::make_shared<host::MemoryModel>());
    EXPECT_THROW(table(), smbios::SmbiosException);
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.openMappings(), 0u);
}

TEST_F(SmbiosTest, PhysicalMemoryThatCannotBeOpenedThrows)
{
    smallTable().installMemory(machine);
    machine.denyOpen("/dev/mem", EACCES);
    EXPECT_THROW(table(), smbios::SmbiosException);
}

TEST_F(SmbiosTest, PhysicalMemoryThatCannotBeMappedThrowsAndIsClosed)
{
    machine.addNode("/dev/mem", 'c', nullptr);
    EXPECT_THROW(table(), smbios::SmbiosException);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(SmbiosTest, FailedReadIsNotKeptAndTheNextAccessTriesAgain)
{
    EXPECT_THROW(table(), smbios::SmbiosException);
    smallTable().installSysfs(machine);
    EXPECT_EQ(table()->getNumberOfItems(), 5u);
}

// --- Iterators --------------------------------------------------------------

TEST_F(SmbiosTest, IteratorByTypeVisitsOnlyThatTypeInTableOrder)
{
    SmbiosBuilder().port(1, 9).system("S").port(2, 5).memory(1, "A", "").port(3, 6).installSysfs(machine);
    std::vector<int> connectors;
    for (smbios::SmbiosTableIterator it = (*table())[8]; it != table()->end(); ++it) {
        EXPECT_EQ((*it).getType(), 8);
        connectors.push_back(smbios::getU8_FromItem(*it, 7));
    }
    EXPECT_EQ(connectors, (std::vector<int>{1, 2, 3}));
}

TEST_F(SmbiosTest, IteratorOverAbsentTypeIsTheEnd)
{
    smallTable().installSysfs(machine);
    EXPECT_FALSE((*table())[4] != table()->end());
    EXPECT_TRUE((*table())[4] == table()->end());
    EXPECT_TRUE((*table())[4].atEnd());
}

TEST_F(SmbiosTest, TypesOutsideAByteGiveTheEnd)
{
    smallTable().installSysfs(machine);
    EXPECT_FALSE((*table())[-1] != table()->end());
    EXPECT_FALSE((*table())[256] != table()->end());
    EXPECT_FALSE((*table())[8 + 256] != table()->end());
}

TEST_F(SmbiosTest, DereferencingTheEndThrows)
{
    smallTable().installSysfs(machine);
    smbios::SmbiosTableIterator end = table()->end();
    EXPECT_THROW(*end, smbios::SmbiosException);
    EXPECT_THROW(end.operator->(), smbios::SmbiosException);
    EXPECT_THROW(*smbios::SmbiosTableIterator(), smbios::SmbiosException);
}

TEST_F(SmbiosTest, IncrementAtTheEndStaysThere)
{
    smallTable().installSysfs(machine);
    smbios::SmbiosTableIterator it = (*table())[1];
    ++it;
    EXPECT_FALSE(it != table()->end());
    ++it;
    EXPECT_FALSE(it != table()->end());
}

TEST_F(SmbiosTest, PostIncrementGivesThePreviousPosition)
{
    smallTable().installSysfs(machine);
    smbios::SmbiosTableIterator it = (*table())[8];
    smbios::SmbiosTableIterator before = it++;
    EXPECT_EQ(smbios::getU8_FromItem(*before, 8), 9);
    EXPECT_EQ(smbios::getU8_FromItem(*it, 8), 5);
}

TEST_F(SmbiosTest, IteratorsOnTheSameStructureAreEqualAndOthersNot)
{
    smallTable().installSysfs(machine);
    EXPECT_TRUE((*table())[8] == (*table())[8]);
    EXPECT_TRUE(table()->begin() != (*table())[8]);
    EXPECT_TRUE(smbios::SmbiosTableIterator() == table()->end());
}

TEST_F(SmbiosTest, GetItemBeyondTheTableThrows)
{
    smallTable().installSysfs(machine);
    EXPECT_EQ(table()->getItem(4).getType(), 127);
    EXPECT_THROW(table()->getItem(5), smbios::SmbiosException);
}

// --- Field access -----------------------------------------------------------

TEST_F(SmbiosTest, HeaderFieldsAreReadableAtTheirOffsets)
{
    smallTable().installSysfs(machine);
    const smbios::ISmbiosItem& port = *(*table())[8];
    EXPECT_EQ(smbios::getU8_FromItem(port, 0), 8);
    EXPECT_EQ(smbios::getU8_FromItem(port, 1), 9);
    EXPECT_EQ(smbios::getU16_FromItem(port, 2), 1);
    EXPECT_EQ(port.getHandle(), 1);
    EXPECT_EQ(port.getLength(), 9u);
    EXPECT_EQ(port.getStringCount(), 2u);
    EXPECT_STREQ(port.getStringByNumber(1), "J1");
    EXPECT_STREQ(port.getStringByNumber(2), "PORT");
}

TEST_F(SmbiosTest, U8OffsetAtOrBeyondTheFormattedLengthThrows)
{
    smallTable().installSysfs(machine);
    const smbios::ISmbiosItem& port = *(*table())[8];
    EXPECT_EQ(smbios::getU8_FromItem(port, 8), 9);
    EXPECT_THROW(smbios::getU8_FromItem(port, 9), smbios::SmbiosException);
    EXPECT_THROW(smbios::getU8_FromItem(port, 0xFFFFFFFFu), smbios::SmbiosException);
}

TEST_F(SmbiosTest, U16NeedsBothBytesInsideTheFormattedArea)
{
    smallTable().installSysfs(machine);
    const smbios::ISmbiosItem& port = *(*table())[8];
    EXPECT_EQ(smbios::getU16_FromItem(port, 7), 0x0908);
    EXPECT_THROW(smbios::getU16_FromItem(port, 8), smbios::SmbiosException);
    EXPECT_THROW(smbios::getU16_FromItem(port, 0xFFFFFFFFu), smbios::SmbiosException);
}

TEST_F(SmbiosTest, U32NeedsAllFourBytesInsideTheFormattedArea)
{
    smallTable().installSysfs(machine);
    const smbios::ISmbiosItem& port = *(*table())[8];
    EXPECT_EQ(smbios::getU32_FromItem(port, 5), 0x09080200u);
    EXPECT_THROW(smbios::getU32_FromItem(port, 6), smbios::SmbiosException);
    EXPECT_THROW(smbios::getU32_FromItem(port, 0xFFFFFFFEu), smbios::SmbiosException);
}

TEST_F(SmbiosTest, StringNumberZeroThrows)
{
    smallTable().installSysfs(machine);
    const smbios::ISmbiosItem& port = *(*table())[8];
    EXPECT_THROW(smbios::getString_FromItem(port, 5), smbios::SmbiosException); // internal type byte 0
    EXPECT_THROW(port.getStringByNumber(0), smbios::SmbiosException);
}

TEST_F(SmbiosTest, StringNumberBeyondTheStringsThrows)
{
    SmbiosBuilder().add(8, {1, 0, 3, 0, 9}, {"J1", "PORT"}).installSysfs(machine);
    const smbios::ISmbiosItem& port = *(*table())[8];
    EXPECT_STREQ(smbios::getString_FromItem(port, 4), "J1");
    EXPECT_THROW(smbios::getString_FromItem(port, 6), smbios::SmbiosException);
    EXPECT_THROW(port.getStringByNumber(3), smbios::SmbiosException);
}

TEST_F(SmbiosTest, StringOffsetBeyondTheFormattedAreaThrows)
{
    smallTable().installSysfs(machine);
    const smbios::ISmbiosItem& port = *(*table())[8];
    EXPECT_THROW(smbios::getString_FromItem(port, 9), smbios::SmbiosException);
}

TEST_F(SmbiosTest, StructureWithoutStringsHasNone)
{
    SmbiosBuilder().add(32, {0, 0, 0, 0, 0, 0, 0}, {}).add(2, {1}, {"Board"}).installSysfs(machine);
    EXPECT_EQ((*(*table())[32]).getStringCount(), 0u);
    EXPECT_THROW(smbios::getString_FromItem(*(*table())[32], 4), smbios::SmbiosException);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[2], 4), "Board");
}

// --- Broken tables ----------------------------------------------------------

TEST_F(SmbiosTest, TableCutInsideAFormattedAreaKeepsTheWholeStructures)
{
    std::string whole = smallTable().table();
    SmbiosBuilder b;
    b.system("Model 7");
    size_t firstLength = b.table().size() - 6; // without the end structure
    machine.addFile(kEntryPointFile, smallTable().entryPoint21(0));
    machine.addFile(kTableFile, whole.substr(0, firstLength + 5));
    EXPECT_EQ(types(), (std::vector<int>{1}));
}

TEST_F(SmbiosTest, StructureWithoutDoubleZeroIsLeftOut)
{
    SmbiosBuilder b;
    b.system("Model 7").raw(bytes({8, 9, 0, 0, 1, 0, 2, 0, 9}) + "J1");
    std::string t = b.table();
    t = t.substr(0, t.size() - 6); // no end structure: the strings of the port run to the end
    machine.addFile(kEntryPointFile, b.entryPoint21(0));
    machine.addFile(kTableFile, t);
    EXPECT_EQ(types(), (std::vector<int>{1}));
}

TEST_F(SmbiosTest, SingleTrailingZeroIsNoTerminator)
{
    SmbiosBuilder b;
    b.system("Model 7");
    std::string t = b.table().substr(0, b.table().size() - 6) + bytes({8, 9, 0, 0, 1, 0, 2, 0, 9}) + "J1";
    t += '\0';
    machine.addFile(kEntryPointFile, b.entryPoint30(0));
    machine.addFile(kTableFile, t);
    EXPECT_EQ(types(), (std::vector<int>{1}));
}

TEST_F(SmbiosTest, LengthByteBelowFourStopsTheWalk)
{
    SmbiosBuilder b;
    b.system("Model 7").raw(bytes({8, 3, 0, 0, 0, 0})).port(1, 9);
    b.installSysfs(machine);
    EXPECT_EQ(types(), (std::vector<int>{1}));
}

TEST_F(SmbiosTest, LengthByteZeroStopsTheWalk)
{
    SmbiosBuilder b;
    b.raw(bytes({8, 0, 0, 0, 0, 0})).port(1, 9);
    b.installSysfs(machine, 3);
    EXPECT_EQ(table()->getNumberOfItems(), 0u);
    EXPECT_FALSE((*table())[8] != table()->end());
}

TEST_F(SmbiosTest, LengthByteBeyondTheTableStopsTheWalk)
{
    SmbiosBuilder b;
    b.system("Model 7").raw(bytes({8, 200, 0, 0, 1, 0, 0, 0}));
    std::string t = b.table();
    t = t.substr(0, t.size() - 6);
    machine.addFile(kEntryPointFile, b.entryPoint21(0));
    machine.addFile(kTableFile, t);
    EXPECT_EQ(types(), (std::vector<int>{1}));
}

TEST_F(SmbiosTest, HeaderCutShortStopsTheWalk)
{
    SmbiosBuilder b;
    b.system("Model 7");
    std::string t = b.table().substr(0, b.table().size() - 6) + bytes({8, 9, 0});
    machine.addFile(kEntryPointFile, b.entryPoint21(0));
    machine.addFile(kTableFile, t);
    EXPECT_EQ(types(), (std::vector<int>{1}));
}

TEST_F(SmbiosTest, StructureCountOf21EntryPointLimitsTheWalk)
{
    SmbiosBuilder b;
    b.system("Model 7").port(1, 9).port(2, 9);
    std::string entry = b.entryPoint21(0);
    entry[0x1C] = 2;
    entry[0x1D] = 0;
    fixChecksum(entry, 0x10, 0x0F, 0x15);
    fixChecksum(entry, 0, 0x1F, 4);
    machine.addFile(kEntryPointFile, entry);
    machine.addFile(kTableFile, b.table());
    EXPECT_EQ(types(), (std::vector<int>{1, 8}));
}

TEST_F(SmbiosTest, StructureCountAboveTheTableStopsAtTheEndStructure)
{
    SmbiosBuilder b;
    b.system("Model 7");
    std::string entry = b.entryPoint21(0);
    entry[0x1C] = 50;
    fixChecksum(entry, 0x10, 0x0F, 0x15);
    fixChecksum(entry, 0, 0x1F, 4);
    machine.addFile(kEntryPointFile, entry);
    machine.addFile(kTableFile, b.table() + SmbiosBuilder().port(1, 9).table());
    EXPECT_EQ(types(), (std::vector<int>{1, 127}));
}

TEST_F(SmbiosTest, NothingBehindTheEndStructureIsRead)
{
    SmbiosBuilder b;
    b.system("Model 7");
    std::string t = b.table() + SmbiosBuilder().port(1, 9).table();
    machine.addFile(kEntryPointFile, SmbiosBuilder().entryPoint30(0)); // a maximum size large enough
    std::string entry = SmbiosBuilder().entryPoint30(0);
    entry[0x0C] = static_cast<char>(t.size());
    fixChecksum(entry, 0, 0x18, 5);
    machine.addFile(kEntryPointFile, entry);
    machine.addFile(kTableFile, t);
    EXPECT_EQ(types(), (std::vector<int>{1, 127}));
}

TEST_F(SmbiosTest, SysfsTableLongerThanTheEntryPointStatesIsCut)
{
    SmbiosBuilder b;
    b.system("Model 7");
    std::string entry = b.entryPoint30(0);
    std::string withoutEnd = b.table().substr(0, b.table().size() - 6);
    entry[0x0C] = static_cast<char>(withoutEnd.size());
    entry[0x0D] = 0;
    fixChecksum(entry, 0, 0x18, 5);
    machine.addFile(kEntryPointFile, entry);
    machine.addFile(kTableFile, b.table());
    EXPECT_EQ(types(), (std::vector<int>{1}));
}

TEST_F(SmbiosTest, HugeMaximumSizeOfA30EntryPointReadsOnlyWhatIsThere)
{
    SmbiosBuilder b;
    b.system("Model 7").port(1, 9);
    std::string entry = b.entryPoint30(0x2000);
    entry[0x0C] = entry[0x0D] = entry[0x0E] = entry[0x0F] = static_cast<char>(0xFF);
    fixChecksum(entry, 0, 0x18, 5);
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0xF0000 + 0x40, entry);
    memory->place(0x2000, b.table());
    machine.addNode("/dev/mem", 'c', memory);
    EXPECT_EQ(types(), (std::vector<int>{1, 8, 127}));
}

TEST_F(SmbiosTest, TableAddressBeyondPhysicalMemoryOffsetsThrows)
{
    SmbiosBuilder b;
    b.system("Model 7");
    b.installMemory(machine, 0x100, 0, 3);
    // Point the 3.x entry point above what an offset can reach.
    std::string entry = b.entryPoint30(0xFFFFFFFFFFFFF000ULL);
    auto memory = std::dynamic_pointer_cast<host::MemoryModel>(machine.model("/dev/mem"));
    memory->place(0xF0000 + 0x100, entry);
    EXPECT_THROW(table(), smbios::SmbiosException);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(SmbiosTest, EveryPrefixOfARealTableParsesInsideItsBytes)
{
    std::string whole = capture("lab-server/DMI.bin");
    size_t previous = 0;
    for (size_t cut = 0; cut <= whole.size(); ++cut) {
        smbios::SmbiosTable t(whole.substr(0, cut));
        EXPECT_GE(t.getNumberOfItems(), previous) << cut;
        previous = t.getNumberOfItems();
        for (auto it = t.begin(); it != t.end(); ++it) {
            for (unsigned int s = 1; s <= it->getStringCount(); ++s) {
                std::string text = it->getStringByNumber(s); // read to its terminator
                EXPECT_LE(text.size(), cut);
            }
            if (it->getLength() > 8) {
                smbios::getU8_FromItem(*it, it->getLength() - 1);
            }
        }
    }
    EXPECT_EQ(previous, 16u);
}

TEST_F(SmbiosTest, RandomBytesNeverReadOutsideTheTable)
{
    unsigned int seed = 12345;
    for (int round = 0; round < 300; ++round) {
        std::string noise;
        size_t size = round % 97;
        for (size_t i = 0; i < size; ++i) {
            seed = seed * 1103515245u + 12345u;
            // Many zeros and small lengths, so that structures come out whole now and then.
            unsigned int v = (seed >> 16) & 0xFF;
            noise += static_cast<char>(v < 96 ? 0 : v < 160 ? v % 12 : v);
        }
        smbios::SmbiosTable t(noise);
        for (auto it = t.begin(); it != t.end(); ++it) {
            EXPECT_GE(it->getLength(), 4u);
            for (unsigned int s = 1; s <= it->getStringCount(); ++s) {
                EXPECT_LE(std::string(it->getStringByNumber(s)).size(), noise.size());
            }
        }
    }
}

// --- Real tables ------------------------------------------------------------

TEST_F(SmbiosTest, LabServerTableMatchesItsDecodedListing)
{
    ostrand_test::installLabServerSmbios(machine);
    EXPECT_EQ(table()->getMajorVersion(), 2);
    EXPECT_EQ(table()->getMinorVersion(), 8);
    // "type   8 handle 0x0800 len   9 ..." for each structure, in table order.
    std::istringstream lines(capture("lab-server/dmi-decoded.txt"));
    std::string line;
    size_t index = 0;
    while (std::getline(lines, line)) {
        int type = 0;
        int handle = 0;
        int length = 0;
        if (std::sscanf(line.c_str(), "type %d handle 0x%x len %d", &type, &handle, &length) != 3) {
            continue;
        }
        ASSERT_LT(index, table()->getNumberOfItems());
        const smbios::ISmbiosItem& item = table()->getItem(index++);
        EXPECT_EQ(item.getType(), type) << line;
        EXPECT_EQ(item.getHandle(), handle) << line;
        EXPECT_EQ(item.getLength(), static_cast<unsigned int>(length)) << line;
    }
    EXPECT_EQ(index, 16u);
    EXPECT_EQ(table()->getNumberOfItems(), 16u);
}

TEST_F(SmbiosTest, LabServerFieldsAsDecoded)
{
    ostrand_test::installLabServerSmbios(machine);
    const smbios::ISmbiosItem& system = *(*table())[1];
    EXPECT_STREQ(smbios::getString_FromItem(system, 4), "Lab Systems");
    EXPECT_STREQ(smbios::getString_FromItem(system, 5), "LabServer 2900");

    std::vector<std::string> ports;
    for (auto it = (*table())[8]; it != table()->end(); ++it) {
        ports.push_back(std::string(smbios::getString_FromItem(*it, 4)) + "|" + smbios::getString_FromItem(*it, 6) + "|" +
                        std::to_string(smbios::getU8_FromItem(*it, 7)) + "|" +
                        std::to_string(smbios::getU8_FromItem(*it, 8)));
    }
    EXPECT_EQ(ports, (std::vector<std::string>{"J1 COM1|COM1|8|9", "J2 COM2|COM2|8|9", "J3 LPT1|LPT1|5|5"}));

    std::vector<std::string> modules;
    for (auto it = (*table())[17]; it != table()->end(); ++it) {
        modules.push_back(std::to_string(smbios::getU16_FromItem(*it, 12)) + "|" +
                          smbios::getString_FromItem(*it, 16) + "|" + smbios::getString_FromItem(*it, 17));
    }
    EXPECT_EQ(modules, (std::vector<std::string>{"1024|DIMM_A1|BANK 0", "0|DIMM_A2|BANK 0", "1024|DIMM_B1|BANK 1",
                                                 "0|DIMM_B2|BANK 1"}));
}

TEST_F(SmbiosTest, LabServerTableFromItsRealBiosAreaAndAddress)
{
    // The real BIOS area holds the entry point at 0xF5B50 (and the text
    // "_SM3_" off the 16-byte boundaries, inside the firmware's code).
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0xF0000, capture("lab-server/f-segment.bin"));
    memory->place(0x7FFFFD10, capture("lab-server/DMI.bin"));
    machine.addNode("/dev/mem", 'c', memory);
    EXPECT_EQ(table()->getNumberOfItems(), 16u);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "LabServer 2900");
}

class SmbiosDumpTest : public SmbiosTest, public ::testing::WithParamInterface<const char*> {
protected:
    // Compares every structure of the decoded listing, in order, with the
    // structures of the same types in the table: handle, type, length and the
    // strings the listing shows.
    void compareWithDecoded()
    {
        std::vector<DecodedStructure> decoded = parseDecoded(capture(std::string(GetParam()) + "/decoded.txt"));
        ASSERT_FALSE(decoded.empty());
        std::vector<const smbios::ISmbiosItem*> items;
        for (auto it = table()->begin(); it != table()->end(); ++it) {
            if (it->getType() == 1 || it->getType() == 8 || it->getType() == 17) {
                items.push_back(&*it);
            }
        }
        ASSERT_EQ(items.size(), decoded.size());
        for (size_t i = 0; i < decoded.size(); ++i) {
            const DecodedStructure& d = decoded[i];
            const smbios::ISmbiosItem& item = *items[i];
            EXPECT_EQ(item.getHandle(), d.handle) << i;
            EXPECT_EQ(item.getType(), d.type) << i;
            EXPECT_EQ(item.getLength(), static_cast<unsigned int>(d.length)) << i;
            std::map<std::string, unsigned int> offsets;
            if (d.type == 1) {
                offsets = {{"Manufacturer", 4}, {"Product Name", 5}, {"Version", 6}};
            } else if (d.type == 8) {
                offsets = {{"Internal Reference Designator", 4}, {"External Reference Designator", 6}};
            } else {
                offsets = {{"Locator", 16}, {"Bank Locator", 17}, {"Manufacturer", 23}};
            }
            for (const auto& field : offsets) {
                auto value = d.values.find(field.first);
                ASSERT_NE(value, d.values.end()) << field.first;
                if (value->second == "Not Specified") {
                    EXPECT_EQ(smbios::getU8_FromItem(item, field.second), 0) << field.first;
                    EXPECT_THROW(smbios::getString_FromItem(item, field.second), smbios::SmbiosException);
                } else {
                    EXPECT_STREQ(smbios::getString_FromItem(item, field.second), value->second.c_str())
                        << field.first;
                }
            }
            if (d.type == 8) {
                static const std::map<std::string, int> kPortTypes = {
                    {"Serial Port 16550A Compatible", 0x09}, {"Keyboard Port", 0x0D}, {"Mouse Port", 0x0E},
                    {"USB", 0x10},  {"Video Port", 0x1C}, {"Audio Port", 0x1D}, {"Network Port", 0x1F},
                    {"Other", 0xFF}};
                ASSERT_EQ(kPortTypes.count(d.values.at("Port Type")), 1u) << d.values.at("Port Type");
                EXPECT_EQ(smbios::getU8_FromItem(item, 8), kPortTypes.at(d.values.at("Port Type")));
            }
            if (d.type == 17) {
                int gigabytes = std::stoi(d.values.at("Size"));
                int megabytes = gigabytes * 1024;
                // Sizes of 32 GB and more stand in the extended size; the 16 bits say 0x7FFF.
                EXPECT_EQ(smbios::getU16_FromItem(item, 12), megabytes < 0x7FFF ? megabytes : 0x7FFF);
            }
        }
    }
};

TEST_P(SmbiosDumpTest, RealDumpThroughSysfsMatchesItsDecodedListing)
{
    ostrand_test::installDumpSysfs(machine, capture(std::string(GetParam()) + "/dump.bin"));
    compareWithDecoded();
    EXPECT_EQ(table()->getItem(table()->getNumberOfItems() - 1).getType(), 127);
}

TEST_P(SmbiosDumpTest, RealDumpThroughPhysicalMemoryMatchesItsDecodedListing)
{
    ostrand_test::installDumpMemory(machine, capture(std::string(GetParam()) + "/dump.bin"));
    compareWithDecoded();
}

INSTANTIATE_TEST_SUITE_P(Captures, SmbiosDumpTest, ::testing::ValuesIn(kDumps),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string name = info.param;
                             std::string out;
                             for (char c : name.substr(name.find('/') + 1)) {
                                 out += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             }
                             return out;
                         });

TEST_F(SmbiosTest, StructureCountOfTheLaptopDumpIsReachedExactly)
{
    // The 2.7 laptop states 62 structures; the walk must find all of them.
    ostrand_test::installDumpSysfs(machine, capture("smbios/fwupd-test-tables/dump.bin"));
    EXPECT_EQ(table()->getNumberOfItems(), 62u);
}

TEST_F(SmbiosTest, DualSocketServerHasSixteenMemoryDevicesAndOneSerialPort)
{
    ostrand_test::installDumpSysfs(machine, capture("smbios/go-smbios-SuperMicro-Dual-Xeon/dump.bin"));
    int memory = 0;
    for (auto it = (*table())[17]; it != table()->end(); ++it) {
        ++memory;
        EXPECT_EQ(smbios::getU16_FromItem(*it, 12), 4096);
    }
    EXPECT_EQ(memory, 16);
    std::map<int, int> portTypes;
    for (auto it = (*table())[8]; it != table()->end(); ++it) {
        ++portTypes[smbios::getU8_FromItem(*it, 8)];
    }
    EXPECT_EQ(portTypes[0x09], 1);
    EXPECT_EQ(portTypes[0xFF], 14);
    EXPECT_STREQ(smbios::getString_FromItem(*(*table())[1], 5), "SYS-1027R-WRF");
}

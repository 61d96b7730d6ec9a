#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"
#include "platform/smbios/SmbiosException.h"
#include "platform/smbios/SmbiosFactory.h"
#include "probes/LinuxUtils.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::capture;
using ostrand_test::PirBuilder;
using ostrand_test::SmbiosBuilder;

namespace {

class FirmwareTest : public ::testing::Test {
protected:
    void SetUp() override { smbios::SmbiosFactory::reset(); }
    void TearDown() override { smbios::SmbiosFactory::reset(); }

    std::string slot(unsigned int bus, unsigned int device) { return utils.getSlotInfo(bus, device); }

    // /dev/mem with these bytes as the BIOS area at 0xF0000.
    void installBiosArea(const std::string& area)
    {
        auto memory = std::make_shared<host::MemoryModel>();
        memory->place(0xF0000, area);
        machine.addNode("/dev/mem", 'c', memory);
    }

    bool allReleased() const { return machine.openDescriptors().empty() && machine.openMappings() == 0; }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    LinuxUtils utils;
};

using SlotInfoTest = FirmwareTest;
using PortCountTest = FirmwareTest;
using DmiTableTest = FirmwareTest;

std::string bytes(std::initializer_list<int> values)
{
    std::string s;
    for (int v : values) {
        s += static_cast<char>(v);
    }
    return s;
}

// A BIOS area with "$PIR" at `offset` and a size field of `size`, followed by
// the entries given as they are.
std::string pirArea(uint32_t offset, uint16_t size, const std::string& entries)
{
    std::string area(0x10000, '\0');
    std::string header(32, '\0');
    header.replace(0, 4, "$PIR");
    header[6] = static_cast<char>(size & 0xFF);
    header[7] = static_cast<char>(size >> 8);
    std::string table = header + entries;
    area.replace(offset, std::min<size_t>(table.size(), 0x10000 - offset), table.substr(0, 0x10000 - offset));
    return area;
}

std::string pirEntry(int bus, int device, int slot)
{
    std::string e(16, '\0');
    e[0] = static_cast<char>(bus);
    e[1] = static_cast<char>(device << 3);
    e[14] = static_cast<char>(slot);
    return e;
}

} // namespace

// --- getSlotInfo ------------------------------------------------------------

TEST_F(SlotInfoTest, NumberedSlotGivesPciSlotText)
{
    PirBuilder().entry(2, 3, 4).install(machine);
    EXPECT_EQ(slot(2, 3), "PCI Slot 4");
    EXPECT_TRUE(allReleased());
}

TEST_F(SlotInfoTest, SlotNumberZeroIsEmbedded)
{
    PirBuilder().entry(2, 3, 0).install(machine);
    EXPECT_EQ(slot(2, 3), "Embedded");
}

TEST_F(SlotInfoTest, DeviceWithoutEntryGivesEmptyText)
{
    PirBuilder().entry(2, 3, 4).entry(0, 1, 0).install(machine);
    EXPECT_EQ(slot(2, 4), "");
    EXPECT_EQ(slot(3, 3), "");
    EXPECT_EQ(slot(0, 2), "");
}

TEST_F(SlotInfoTest, LaterOfTwoEntriesForOneDeviceStands)
{
    PirBuilder().entry(2, 3, 4).entry(2, 3, 0).install(machine);
    EXPECT_EQ(slot(2, 3), "Embedded");

    host::FakeMachine other;
    host::ScopedMachine otherScope{other};
    PirBuilder().entry(2, 3, 0).entry(2, 3, 7).install(other);
    EXPECT_EQ(slot(2, 3), "PCI Slot 7");
}

TEST_F(SlotInfoTest, FunctionBitsOfTheEntryAreNotCompared)
{
    PirBuilder().entry(1, 5, 6, 3).install(machine);
    EXPECT_EQ(slot(1, 5), "PCI Slot 6");
}

TEST_F(SlotInfoTest, LargeSlotAndBusNumbers)
{
    PirBuilder().entry(255, 31, 255).install(machine);
    EXPECT_EQ(slot(255, 31), "PCI Slot 255");
}

TEST_F(SlotInfoTest, TableAnywhereOnASixteenByteBoundaryIsFound)
{
    PirBuilder().entry(0, 2, 9).install(machine, 0x0);
    EXPECT_EQ(slot(0, 2), "PCI Slot 9");

    host::FakeMachine other;
    host::ScopedMachine otherScope{other};
    PirBuilder().entry(0, 2, 8).install(other, 0xFFC0);
    EXPECT_EQ(slot(0, 2), "PCI Slot 8");
}

TEST_F(SlotInfoTest, SignatureOffTheSixteenByteBoundaryIsNotFound)
{
    PirBuilder p;
    p.entry(0, 2, 9);
    std::string area(0x10000, '\0');
    area.replace(0x5C88, p.table().size(), p.table());
    installBiosArea(area);
    EXPECT_EQ(slot(0, 2), "");
    EXPECT_TRUE(allReleased());
}

TEST_F(SlotInfoTest, FirmwareWithoutTableGivesEmptyText)
{
    installBiosArea(std::string(0x10000, '\0'));
    EXPECT_EQ(slot(0, 1), "");
    EXPECT_TRUE(allReleased());
}

TEST_F(SlotInfoTest, TableThatListsNothingGivesEmptyText)
{
    PirBuilder().install(machine);
    EXPECT_EQ(slot(0, 0), "");
}

TEST_F(SlotInfoTest, SizeBelowTheHeaderGivesNoEntries)
{
    installBiosArea(pirArea(0x100, 16, pirEntry(0, 0, 3)));
    EXPECT_EQ(slot(0, 0), "");
}

TEST_F(SlotInfoTest, EntryCountComesFromTheSizeField)
{
    // Three entries in memory, the size admits two.
    installBiosArea(pirArea(0x100, 32 + 2 * 16, pirEntry(0, 1, 1) + pirEntry(0, 2, 2) + pirEntry(0, 3, 3)));
    EXPECT_EQ(slot(0, 2), "PCI Slot 2");
    EXPECT_EQ(slot(0, 3), "");
}

TEST_F(SlotInfoTest, SizeOnlyPartlyCoveringAnEntryIgnoresThatEntry)
{
    installBiosArea(pirArea(0x100, 32 + 16 + 15, pirEntry(0, 1, 1) + pirEntry(0, 2, 2)));
    EXPECT_EQ(slot(0, 1), "PCI Slot 1");
    EXPECT_EQ(slot(0, 2), "");
}

TEST_F(SlotInfoTest, SizePointingPastTheMappedAreaReadsOnlyEntriesInsideIt)
{
    // The table at 0xFFC0: its header ends at 0xFFE0, two entries fit behind it.
    installBiosArea(pirArea(0xFFC0, 0xFFFF, pirEntry(0, 1, 1) + pirEntry(0, 2, 2)));
    EXPECT_EQ(slot(0, 1), "PCI Slot 1");
    EXPECT_EQ(slot(0, 2), "PCI Slot 2");
    EXPECT_EQ(slot(0, 0), ""); // the bytes behind the area are never taken for an entry
    EXPECT_TRUE(allReleased());
}

TEST_F(SlotInfoTest, TableHeaderCutByTheEndOfTheAreaGivesEmptyText)
{
    installBiosArea(pirArea(0xFFF0, 0xFFFF, ""));
    EXPECT_EQ(slot(0, 0), "");
    EXPECT_TRUE(allReleased());
}

TEST_F(SlotInfoTest, MemoryThatCannotBeOpenedGivesEmptyText)
{
    PirBuilder().entry(2, 3, 4).install(machine);
    machine.denyOpen("/dev/mem", EACCES);
    EXPECT_EQ(slot(2, 3), "");
    EXPECT_EQ(machine.opens(), std::vector<std::string>{"/dev/mem"});
}

TEST_F(SlotInfoTest, MissingMemoryNodeGivesEmptyText) { EXPECT_EQ(slot(2, 3), ""); }

TEST_F(SlotInfoTest, FailedMappingIsTakenAsFailedOpenAndCloses)
{
    machine.addNode("/dev/mem", 'c', nullptr); // opens, refuses the mapping
    EXPECT_EQ(slot(2, 3), "");
    EXPECT_TRUE(allReleased());
}

TEST_F(SlotInfoTest, NothingIsCachedBetweenCalls)
{
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0xF0000, PirBuilder().entry(0, 4, 1).area());
    machine.addNode("/dev/mem", 'c', memory);
    EXPECT_EQ(slot(0, 4), "PCI Slot 1");
    memory->place(0xF0000, PirBuilder().entry(0, 4, 2).area());
    EXPECT_EQ(slot(0, 4), "PCI Slot 2");
    EXPECT_EQ(machine.opens().size(), 2u);
    EXPECT_TRUE(allReleased());
}

TEST_F(SlotInfoTest, LabServerDevicesFromTheRealBiosArea)
{
    installBiosArea(capture("lab-server/f-segment.bin"));
    EXPECT_EQ(slot(0, 0), "");           // host bridge
    EXPECT_EQ(slot(0, 1), "Embedded");   // ISA bridge, IDE, USB UHCI, ACPI
    EXPECT_EQ(slot(0, 2), "PCI Slot 1"); // e1000, eth0
    EXPECT_EQ(slot(0, 3), "PCI Slot 2"); // e1000, eth1
    EXPECT_EQ(slot(0, 4), "PCI Slot 3"); // USB EHCI
    EXPECT_EQ(slot(0, 5), "PCI Slot 4"); // SCSI controller
    EXPECT_EQ(slot(0, 6), "PCI Slot 5"); // PCI-to-PCI bridge
    EXPECT_EQ(slot(0, 7), "");           // RAID controller
    EXPECT_EQ(slot(1, 1), "");           // e1000 behind the bridge, eth2
    EXPECT_TRUE(allReleased());
}

// --- getNumOfPorts and getDeviceDescription ---------------------------------

TEST_F(PortCountTest, TwoSerialPortsAndNoParallelOne)
{
    SmbiosBuilder().system("Board").port(8, 9).port(8, 9).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 2);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC3");
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 0);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC3"); // the port type is left as it was
}

TEST_F(PortCountTest, DescriptionBeforeAnyPortIsCountedIsEmpty)
{
    SmbiosBuilder().system("Board").installSysfs(machine);
    EXPECT_EQ(utils.getDeviceDescription(), "");
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 0);
    EXPECT_EQ(utils.getDeviceDescription(), "");
}

TEST_F(PortCountTest, LastCountedPortTypeDescribesAllPorts)
{
    SmbiosBuilder().system("Board").port(1, 6).port(1, 9).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 2);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC3");
}

TEST_F(PortCountTest, LastCountedPortTypeDecidesInTheOtherOrderToo)
{
    SmbiosBuilder().system("Board").port(1, 9).port(1, 6).port(1, 3).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 2);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC0");
}

TEST_F(PortCountTest, SerialPortTypesAreSixToNine)
{
    SmbiosBuilder b;
    b.system("Board");
    for (int type : {0, 5, 6, 7, 8, 9, 10, 0x10, 0xFF}) {
        b.port(1, static_cast<uint8_t>(type));
    }
    b.installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 4);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC3");
}

TEST_F(PortCountTest, ParallelPortTypesAreOneToFive)
{
    SmbiosBuilder b;
    b.system("Board");
    for (int type : {0, 1, 2, 3, 4, 5, 6, 0xFF}) {
        b.port(1, static_cast<uint8_t>(type));
    }
    b.installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 5);
    EXPECT_EQ(utils.getDeviceDescription(), "PARALLEL_PORT_DESC4");
}

TEST_F(PortCountTest, EachParallelTypeHasItsDescription)
{
    SmbiosBuilder().system("Board").port(0, 2).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 1);
    EXPECT_EQ(utils.getDeviceDescription(), "PARALLEL_PORT_DESC1");
}

TEST_F(PortCountTest, PortType255MatchesNeitherKind)
{
    SmbiosBuilder().system("Board").port(1, 0xFF).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 0);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 0);
    EXPECT_EQ(utils.getDeviceDescription(), "");
}

TEST_F(PortCountTest, OtherKindCountsNothing)
{
    SmbiosBuilder().system("Board").port(1, 9).port(1, 5).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(static_cast<LinuxUtils::PortType>(2)), 0);
    EXPECT_EQ(utils.getNumOfPorts(static_cast<LinuxUtils::PortType>(-1)), 0);
    EXPECT_EQ(utils.getDeviceDescription(), "");
}

TEST_F(PortCountTest, On7301SerialPortWithoutExternalConnectorIsNotCounted)
{
    SmbiosBuilder().system("PowerEdge 7301").port(0, 7).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 0);
    EXPECT_EQ(utils.getDeviceDescription(), "");
}

TEST_F(PortCountTest, On7301SerialPortWithExternalConnectorIsCounted)
{
    SmbiosBuilder().system("PowerEdge 7301").port(0, 7).port(8, 7).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC1");
}

TEST_F(PortCountTest, On7302TheExternalConnectorRuleAppliesToo)
{
    SmbiosBuilder().system("X7302Y").port(0, 9).port(1, 6).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC0");
}

TEST_F(PortCountTest, OnOtherModelsSerialPortWithoutExternalConnectorIsCounted)
{
    SmbiosBuilder().system("PowerEdge 7300").port(0, 7).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
}

TEST_F(PortCountTest, ExternalConnectorRuleDoesNotApplyToParallelPorts)
{
    SmbiosBuilder().system("7301").port(0, 5).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 1);
}

TEST_F(PortCountTest, OnlyTheFirstSystemStructureGivesTheProductName)
{
    SmbiosBuilder().system("Other").system("7301").port(0, 9).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
}

TEST_F(PortCountTest, TableWithoutSystemStructureCountsWithAnEmptyProductName)
{
    SmbiosBuilder().port(0, 9).port(0, 5).installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 1);
}

TEST_F(PortCountTest, UnreadableProductNameIsNotCaught)
{
    // A System Information structure whose product string number is 0.
    SmbiosBuilder().add(1, std::vector<uint8_t>(0x1B - 4, 0), {}).port(0, 9).installSysfs(machine);
    EXPECT_THROW(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), smbios::SmbiosException);
}

TEST_F(PortCountTest, PortStructureTooShortForThePortTypeIsPassedOver)
{
    SmbiosBuilder()
        .system("Board")
        .add(8, {1, 0, 2, 8}, {"J1", "SHORT"}) // ends before offset 8
        .port(8, 9)
        .installSysfs(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 0);
}

TEST_F(PortCountTest, AbsentTableReachesTheCaller)
{
    EXPECT_THROW(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), smbios::SmbiosException);
    EXPECT_EQ(utils.getDeviceDescription(), "");
}

TEST_F(PortCountTest, TableFromPhysicalMemoryCountsTheSame)
{
    SmbiosBuilder().system("Board").port(8, 9).port(8, 5).installMemory(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 1);
    EXPECT_EQ(utils.getDeviceDescription(), "PARALLEL_PORT_DESC4");
}

TEST_F(PortCountTest, LabServerHasTwoSerialPortsAndOneParallel)
{
    ostrand_test::installLabServerSmbios(machine);
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 2);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC3");
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 1);
    EXPECT_EQ(utils.getDeviceDescription(), "PARALLEL_PORT_DESC4");
}

TEST_F(PortCountTest, DualSocketServerHasOneSerialPortAndFourteenOthers)
{
    ostrand_test::installDumpSysfs(machine, capture("smbios/go-smbios-SuperMicro-Dual-Xeon/dump.bin"));
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
    EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC3");
    EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 0);
}

TEST_F(PortCountTest, LaptopsHaveNoLegacyPorts)
{
    for (const char* dump : {"smbios/fwupd-test-tables/dump.bin", "smbios/u-root-smbios_table/dump.bin"}) {
        smbios::SmbiosFactory::reset();
        host::FakeMachine laptop;
        host::ScopedMachine laptopScope{laptop};
        ostrand_test::installDumpSysfs(laptop, capture(dump));
        EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 0) << dump;
        EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL), 0) << dump;
    }
    EXPECT_EQ(utils.getDeviceDescription(), "");
}

// --- readDmiTable -------------------------------------------------------------

namespace {

// Opens a fake file holding `bytes` and gives its descriptor.
int openFile(host::FakeMachine& machine, const std::string& bytes)
{
    machine.addFile("/tmp/dmi-table", bytes);
    return host::open("/tmp/dmi-table", O_RDONLY);
}

int structures(const SmbiosBuilder& b) { return b.count(); }

} // namespace

TEST_F(DmiTableTest, CountsSerialAndParallelPortsOfARawTable)
{
    SmbiosBuilder b;
    b.system("Board").port(8, 9).port(8, 6).port(8, 5).port(8, 0xFF);
    std::string t = b.table();
    int fd = openFile(machine, t);
    ASSERT_GE(fd, 0);
    auto length = static_cast<unsigned short>(t.size());
    auto count = static_cast<unsigned short>(structures(b));
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, count, LinuxUtils::PORT_TYPE_SERIAL), 2);
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, count, LinuxUtils::PORT_TYPE_PARALLEL), 1);
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, count, static_cast<LinuxUtils::PortType>(5)), 0);
    host::close(fd);
}

TEST_F(DmiTableTest, DoesNotChangeTheDescriptionOfTheLastCountedPort)
{
    SmbiosBuilder b;
    b.port(8, 6);
    int fd = openFile(machine, b.table());
    EXPECT_EQ(utils.readDmiTable(fd, 0, static_cast<unsigned short>(b.table().size()), 2,
                                 LinuxUtils::PORT_TYPE_SERIAL),
              1);
    EXPECT_EQ(utils.getDeviceDescription(), "");
    host::close(fd);
}

TEST_F(DmiTableTest, ReadsFromTheOffsetGiven)
{
    SmbiosBuilder b;
    b.port(8, 9);
    std::string t = b.table();
    int fd = openFile(machine, std::string(100, 'x') + t);
    EXPECT_EQ(utils.readDmiTable(fd, 100, static_cast<unsigned short>(t.size()), 2, LinuxUtils::PORT_TYPE_SERIAL), 1);
    host::close(fd);
}

TEST_F(DmiTableTest, StructureCountLimitsTheWalk)
{
    SmbiosBuilder b;
    b.port(8, 9).port(8, 9).port(8, 9);
    std::string t = b.table();
    int fd = openFile(machine, t);
    auto length = static_cast<unsigned short>(t.size());
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 2, LinuxUtils::PORT_TYPE_SERIAL), 2);
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 1, LinuxUtils::PORT_TYPE_SERIAL), 1);
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 60000, LinuxUtils::PORT_TYPE_SERIAL), 3);
    host::close(fd);
}

TEST_F(DmiTableTest, CountZeroGivesZero)
{
    SmbiosBuilder b;
    b.port(8, 9);
    int fd = openFile(machine, b.table());
    EXPECT_EQ(utils.readDmiTable(fd, 0, static_cast<unsigned short>(b.table().size()), 0,
                                 LinuxUtils::PORT_TYPE_SERIAL),
              0);
    host::close(fd);
}

TEST_F(DmiTableTest, LengthZeroGivesZero)
{
    SmbiosBuilder b;
    b.port(8, 9);
    int fd = openFile(machine, b.table());
    EXPECT_EQ(utils.readDmiTable(fd, 0, 0, 2, LinuxUtils::PORT_TYPE_SERIAL), 0);
    host::close(fd);
}

TEST_F(DmiTableTest, ShortReadGivesZero)
{
    SmbiosBuilder b;
    b.port(8, 9);
    std::string t = b.table();
    int fd = openFile(machine, t);
    EXPECT_EQ(utils.readDmiTable(fd, 0, static_cast<unsigned short>(t.size() + 1), 2, LinuxUtils::PORT_TYPE_SERIAL),
              0);
    EXPECT_EQ(utils.readDmiTable(fd, 1, static_cast<unsigned short>(t.size()), 2, LinuxUtils::PORT_TYPE_SERIAL), 0);
    host::close(fd);
}

TEST_F(DmiTableTest, FailedSeekGivesZero)
{
    SmbiosBuilder b;
    b.port(8, 9);
    int fd = openFile(machine, b.table());
    EXPECT_EQ(utils.readDmiTable(fd, -1, static_cast<unsigned short>(b.table().size()), 2,
                                 LinuxUtils::PORT_TYPE_SERIAL),
              0);
    host::close(fd);
    EXPECT_EQ(utils.readDmiTable(fd, 0, static_cast<unsigned short>(b.table().size()), 2,
                                 LinuxUtils::PORT_TYPE_SERIAL),
              0);
    EXPECT_EQ(utils.readDmiTable(-1, 0, 10, 2, LinuxUtils::PORT_TYPE_SERIAL), 0);
}

TEST_F(DmiTableTest, PortType255ReadsAsMinusOneAndCountsForNeither)
{
    SmbiosBuilder b;
    b.port(8, 0xFF).port(8, 0x80);
    std::string t = b.table();
    int fd = openFile(machine, t);
    auto length = static_cast<unsigned short>(t.size());
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 3, LinuxUtils::PORT_TYPE_SERIAL), 0);
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 3, LinuxUtils::PORT_TYPE_PARALLEL), 0);
    host::close(fd);
}

TEST_F(DmiTableTest, BoundsAreExclusive)
{
    SmbiosBuilder b;
    for (int type : {0, 1, 5, 6, 9, 10}) {
        b.port(8, static_cast<uint8_t>(type));
    }
    std::string t = b.table();
    int fd = openFile(machine, t);
    auto length = static_cast<unsigned short>(t.size());
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 7, LinuxUtils::PORT_TYPE_PARALLEL), 2); // 1 and 5
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 7, LinuxUtils::PORT_TYPE_SERIAL), 2);   // 6 and 9
    host::close(fd);
}

TEST_F(DmiTableTest, StructureWithoutDoubleZeroEndsTheWalkInsideTheData)
{
    SmbiosBuilder b;
    b.port(8, 9);
    std::string t = b.table();
    t = t.substr(0, t.size() - 6) + bytes({8, 9, 0, 0, 1, 0, 2, 8, 9}) + "J1";
    int fd = openFile(machine, t);
    EXPECT_EQ(utils.readDmiTable(fd, 0, static_cast<unsigned short>(t.size()), 10, LinuxUtils::PORT_TYPE_SERIAL), 2);
    host::close(fd);
}

TEST_F(DmiTableTest, StructureCutBeforeItsPortTypeIsNotCounted)
{
    SmbiosBuilder b;
    b.port(8, 9);
    std::string t = b.table();
    t = t.substr(0, t.size() - 6) + bytes({8, 9, 0, 0, 1, 0, 2, 8});
    int fd = openFile(machine, t);
    EXPECT_EQ(utils.readDmiTable(fd, 0, static_cast<unsigned short>(t.size()), 10, LinuxUtils::PORT_TYPE_SERIAL), 1);
    host::close(fd);
}

TEST_F(DmiTableTest, LengthByteZeroStillMovesOn)
{
    // A type 8 structure stating length 0: the walk looks for the double zero
    // from its first byte, finds it at 3 and goes on with the port at 5.
    std::string t = bytes({8, 0, 5, 0, 0}) + SmbiosBuilder().port(8, 9).table();
    int fd = openFile(machine, t);
    EXPECT_EQ(utils.readDmiTable(fd, 0, static_cast<unsigned short>(t.size()), 10, LinuxUtils::PORT_TYPE_SERIAL), 1);
    host::close(fd);
}

TEST_F(DmiTableTest, LabServerTableThroughAFileDescriptor)
{
    std::string t = capture("lab-server/DMI.bin");
    int fd = openFile(machine, t);
    auto length = static_cast<unsigned short>(t.size());
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 16, LinuxUtils::PORT_TYPE_SERIAL), 2);
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 16, LinuxUtils::PORT_TYPE_PARALLEL), 1);
    EXPECT_EQ(utils.readDmiTable(fd, 0, length, 2, LinuxUtils::PORT_TYPE_PARALLEL), 0);
    host::close(fd);
}

TEST_F(DmiTableTest, LabServerTableInPhysicalMemoryAtItsAddress)
{
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0x7FFFFD10, capture("lab-server/DMI.bin"));
    machine.addNode("/dev/mem", 'c', memory);
    int fd = host::open("/dev/mem", O_RDONLY);
    EXPECT_EQ(utils.readDmiTable(fd, 0x7FFFFD10, 750, 16, LinuxUtils::PORT_TYPE_SERIAL), 2);
    host::close(fd);
}

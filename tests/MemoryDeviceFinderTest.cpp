#include "finders/MemoryDeviceFinder.h"
#include "frame/CWmiInfo.h"
#include "host/fake/FakeMachine.h"
#include "platform/smbios/SmbiosException.h"
#include "platform/smbios/SmbiosFactory.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::capture;
using ostrand_test::field;
using ostrand_test::fields;
using ostrand_test::SmbiosBuilder;

namespace {

class MemoryDeviceFinderTest : public ::testing::Test {
protected:
    void SetUp() override { smbios::SmbiosFactory::reset(); }
    void TearDown() override
    {
        if (CWmiInfo::_CWmiInfoInstance != nullptr) {
            CWmiInfo::_CWmiInfoInstance->freeEnumerateDeviceHandle();
        }
        smbios::SmbiosFactory::reset();
    }

    std::vector<IWbemClassObject> find()
    {
        std::vector<IWbemClassObject> records;
        finder.getAllObjects(nullptr, records);
        return records;
    }

    // The "DeviceAdditionalHWInfo" of each record, in order.
    static std::vector<std::string> texts(std::vector<IWbemClassObject>& records)
    {
        std::vector<std::string> result;
        for (auto& r : records) {
            result.push_back(field(r, "DeviceAdditionalHWInfo"));
        }
        return result;
    }

    static std::vector<std::string> names(std::vector<IWbemClassObject>& records)
    {
        std::vector<std::string> result;
        for (auto& r : records) {
            result.push_back(field(r, "DeviceName"));
        }
        return result;
    }

    // The thirteen values a module's record must have.
    static std::vector<std::string> expected(const std::string& name, const std::string& text)
    {
        return {name, "DIMMDevice", "", "MEM_DIMM_DEV_DESC", name, name, "System Board!Memory", "MEMORY_DIMM",
                "", "", "", "", text};
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    MemoryDeviceFinder finder;
};

} // namespace

TEST_F(MemoryDeviceFinderTest, RecordOfAModuleFieldByField)
{
    SmbiosBuilder().memory(1024, "DIMM_A1", "BANK 0").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), expected("Memory Device 0", "BANK 0 DIMM_A1 : 1024 MB"));
    EXPECT_EQ(records[0].getValue(), 0);
}

TEST_F(MemoryDeviceFinderTest, ModulesAreNumberedInTableOrder)
{
    SmbiosBuilder()
        .memory(512, "DIMM_3", "B")
        .system("Board")
        .memory(256, "DIMM_1", "A")
        .port(1, 9)
        .memory(128, "DIMM_2", "C")
        .installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(fields(records[0]), expected("Memory Device 0", "B DIMM_3 : 512 MB"));
    EXPECT_EQ(fields(records[1]), expected("Memory Device 1", "A DIMM_1 : 256 MB"));
    EXPECT_EQ(fields(records[2]), expected("Memory Device 2", "C DIMM_2 : 128 MB"));
    for (auto& r : records) {
        EXPECT_EQ(r.getValue(), 0);
    }
}

TEST_F(MemoryDeviceFinderTest, AllSlotsEmptyGiveNoRecords)
{
    SmbiosBuilder().memory(0, "DIMM_A1", "BANK 0").memory(0, "DIMM_A2", "BANK 0").installSysfs(machine);
    EXPECT_TRUE(find().empty());
}

TEST_F(MemoryDeviceFinderTest, TableWithoutMemoryDevicesGivesNoRecords)
{
    SmbiosBuilder().system("Board").port(1, 9).installSysfs(machine);
    EXPECT_TRUE(find().empty());
}

TEST_F(MemoryDeviceFinderTest, UnknownSizeGivesNoRecordAndTakesNoNumber)
{
    SmbiosBuilder().memory(0xFFFF, "DIMM_A1", "BANK 0").memory(2048, "DIMM_A2", "BANK 0").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), expected("Memory Device 0", "BANK 0 DIMM_A2 : 2048 MB"));
}

TEST_F(MemoryDeviceFinderTest, EmptySlotTakesNoNumber)
{
    SmbiosBuilder().memory(0, "DIMM_A1", "BANK 0").memory(4096, "DIMM_A2", "BANK 0").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceName"), "Memory Device 0");
}

TEST_F(MemoryDeviceFinderTest, SizeWithBit15IsInKilobytes)
{
    SmbiosBuilder().memory(0x8200, "DIMM_A1", "BANK 0").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "BANK 0 DIMM_A1 : 512 KB");
}

TEST_F(MemoryDeviceFinderTest, SizeWithoutBit15IsInMegabytes)
{
    SmbiosBuilder().memory(0x0800, "DIMM_A1", "BANK 0").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "BANK 0 DIMM_A1 : 2048 MB");
}

TEST_F(MemoryDeviceFinderTest, SizeFFFEIsNotSpecialAndReads32766KB)
{
    SmbiosBuilder().memory(0xFFFE, "DIMM_A1", "").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "DIMM_A1 : 32766 KB");
}

TEST_F(MemoryDeviceFinderTest, SizeBoundaries)
{
    SmbiosBuilder()
        .memory(1, "A", "")
        .memory(0x7FFF, "B", "")
        .memory(0x8000, "C", "")
        .memory(0x8001, "D", "")
        .installSysfs(machine);
    auto records = find();
    EXPECT_EQ(texts(records),
              (std::vector<std::string>{"A : 1 MB", "B : 32767 MB", "C : 0 KB", "D : 1 KB"}));
}

TEST_F(MemoryDeviceFinderTest, EmptyBankLocatorGivesTextStartingWithTheDeviceLocator)
{
    SmbiosBuilder().memory(1024, "DIMM_A1", "").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "DIMM_A1 : 1024 MB");
}

TEST_F(MemoryDeviceFinderTest, EmptyDeviceLocatorKeepsTheBlankBehindTheBank)
{
    SmbiosBuilder().memory(1024, "", "BANK 0").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "BANK 0  : 1024 MB");
}

TEST_F(MemoryDeviceFinderTest, UnreadableStringsGiveTextStartingWithTheSeparator)
{
    // String numbers 0 and 5 with no strings at all.
    std::vector<uint8_t> f(0x1B - 4, 0);
    f[12 - 4] = 0x00;
    f[13 - 4] = 0x02;
    f[16 - 4] = 0;
    f[17 - 4] = 5;
    SmbiosBuilder().add(17, f, {}).installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), expected("Memory Device 0", " : 512 MB"));
}

TEST_F(MemoryDeviceFinderTest, StructureTooShortForTheLocatorsGivesTheSizeAlone)
{
    // Formatted area up to offset 13: the size is there, the locators are not.
    std::vector<uint8_t> f(14 - 4, 0);
    f[12 - 4] = 0x00;
    f[13 - 4] = 0x04;
    SmbiosBuilder().add(17, f, {"DIMM_A1"}).installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), " : 1024 MB");
}

TEST_F(MemoryDeviceFinderTest, StructureTooShortForTheSizeIsPassedOverWithoutANumber)
{
    SmbiosBuilder()
        .add(17, std::vector<uint8_t>(13 - 4, 0xFF), {}) // ends before the second byte of the size
        .memory(1024, "DIMM_B1", "BANK 1")
        .installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), expected("Memory Device 0", "BANK 1 DIMM_B1 : 1024 MB"));
}

TEST_F(MemoryDeviceFinderTest, SecondPassHoldsOnlyItsRecordsAndNumbersGoOn)
{
    SmbiosBuilder().memory(1024, "DIMM_A1", "BANK 0").memory(1024, "DIMM_B1", "BANK 1").installSysfs(machine);
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(nullptr, records);
    EXPECT_EQ(names(records), (std::vector<std::string>{"Memory Device 0", "Memory Device 1"}));
    finder.getAllObjects(nullptr, records);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(names(records), (std::vector<std::string>{"Memory Device 2", "Memory Device 3"}));
    EXPECT_EQ(fields(records[0]), expected("Memory Device 2", "BANK 0 DIMM_A1 : 1024 MB"));
}

TEST_F(MemoryDeviceFinderTest, RecordsAlreadyInTheVectorAreDestroyed)
{
    SmbiosBuilder().memory(1024, "DIMM_A1", "BANK 0").installSysfs(machine);
    std::vector<IWbemClassObject> records;
    records.emplace_back("x", "", "", "", "", "", "", "", "", "", "", "", "", 7);
    finder.getAllObjects(nullptr, records);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceName"), "Memory Device 0");
}

TEST_F(MemoryDeviceFinderTest, AbsentTableReachesTheCallerWithTheVectorEmptied)
{
    std::vector<IWbemClassObject> records;
    records.emplace_back("x", "", "", "", "", "", "", "", "", "", "", "", "", 7);
    EXPECT_THROW(finder.getAllObjects(nullptr, records), smbios::SmbiosException);
    EXPECT_TRUE(records.empty());
}

TEST_F(MemoryDeviceFinderTest, CreateMemoryDevicesReturnsOne)
{
    SmbiosBuilder().memory(1024, "DIMM_A1", "BANK 0").installSysfs(machine);
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(nullptr, records);
    EXPECT_EQ(finder.createMemoryDevices(), 1);
    EXPECT_EQ(names(records), (std::vector<std::string>{"Memory Device 0", "Memory Device 1"}));
}

TEST_F(MemoryDeviceFinderTest, UpdateMemoryInfoAppendsARecordWithTheNextNumber)
{
    SmbiosBuilder().memory(1024, "DIMM_A1", "BANK 0").installSysfs(machine);
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(nullptr, records);
    finder.updateMemoryInfo("any text");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(fields(records[1]), expected("Memory Device 1", "any text"));
}

TEST_F(MemoryDeviceFinderTest, UpdateMemoryInfoBeforeAnyVectorDoesNothing)
{
    finder.updateMemoryInfo("lost");
    SmbiosBuilder().memory(1024, "DIMM_A1", "BANK 0").installSysfs(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceName"), "Memory Device 0");
}

TEST_F(MemoryDeviceFinderTest, TableFromPhysicalMemoryGivesTheSameRecords)
{
    SmbiosBuilder().memory(1024, "DIMM_A1", "BANK 0").installMemory(machine, 0x100, 0xE0000, 3);
    auto records = find();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), expected("Memory Device 0", "BANK 0 DIMM_A1 : 1024 MB"));
}

TEST_F(MemoryDeviceFinderTest, LabServerGivesTwoModules)
{
    ostrand_test::installLabServerSmbios(machine);
    auto records = find();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(fields(records[0]), expected("Memory Device 0", "BANK 0 DIMM_A1 : 1024 MB"));
    EXPECT_EQ(fields(records[1]), expected("Memory Device 1", "BANK 1 DIMM_B1 : 1024 MB"));
    EXPECT_EQ(records[0].getValue(), 0);
    EXPECT_EQ(records[1].getValue(), 0);
}

TEST_F(MemoryDeviceFinderTest, LabServerThroughTheFacade)
{
    ostrand_test::addLabServerLspci(machine);
    ostrand_test::installLabServerSmbios(machine);
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    info->getEnumerateDeviceHandle(&finder);
    std::vector<std::string> got;
    IWbemClassObject* record = nullptr;
    while (info->Next(0, 0, record) != 0) {
        got.push_back(field(*record, "DeviceName") + "|" + field(*record, "DeviceAdditionalHWInfo"));
    }
    EXPECT_EQ(got, (std::vector<std::string>{"Memory Device 0|BANK 0 DIMM_A1 : 1024 MB",
                                             "Memory Device 1|BANK 1 DIMM_B1 : 1024 MB"}));
}

TEST_F(MemoryDeviceFinderTest, DualSocketServerGivesSixteenModules)
{
    ostrand_test::installDumpSysfs(machine, capture("smbios/go-smbios-SuperMicro-Dual-Xeon/dump.bin"));
    auto records = find();
    ASSERT_EQ(records.size(), 16u);
    const char* const sockets[] = {"A", "B", "C", "D", "E", "F", "G", "H"};
    for (size_t i = 0; i < 16; ++i) {
        int processor = static_cast<int>(i / 8);
        int channel = static_cast<int>((i % 8) / 2);
        int dimm = static_cast<int>(i % 2);
        std::string bank = "P" + std::to_string(processor) + "_Node" + std::to_string(processor) + "_Channel" +
                           std::to_string(channel) + "_Dimm" + std::to_string(dimm);
        std::string locator = "P" + std::to_string(processor + 1) + "-DIMM" + sockets[i / 2] + std::to_string(dimm + 1);
        EXPECT_EQ(fields(records[i]),
                  expected("Memory Device " + std::to_string(i), bank + " " + locator + " : 4096 MB"))
            << i;
    }
    EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "P0_Node0_Channel0_Dimm0 P1-DIMMA1 : 4096 MB");
    EXPECT_EQ(field(records[15], "DeviceAdditionalHWInfo"), "P1_Node1_Channel3_Dimm1 P2-DIMMH2 : 4096 MB");
}

TEST_F(MemoryDeviceFinderTest, LaptopDumpsGiveTheirModules)
{
    ostrand_test::installDumpSysfs(machine, capture("smbios/fwupd-test-tables/dump.bin"));
    auto records = find();
    EXPECT_EQ(texts(records),
              (std::vector<std::string>{"BANK 0 ChannelA : 4096 MB", "BANK 2 ChannelB-DIMM0 : 8192 MB"}));
}

TEST_F(MemoryDeviceFinderTest, ModuleOf32GBShowsTheSixteenBitSizeOnly)
{
    // The 32 GB module states 0x7FFF and its real size in the extended field,
    // which this finder does not read.
    ostrand_test::installDumpSysfs(machine, capture("smbios/u-root-smbios_table/dump.bin"));
    auto records = find();
    EXPECT_EQ(texts(records),
              (std::vector<std::string>{"BANK 0 ChannelA-DIMM0 : 8192 MB", "BANK 2 ChannelB-DIMM0 : 32767 MB"}));
}

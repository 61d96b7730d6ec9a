#include "finders/RACDeviceFinder.h"
#include "frame/CWmiInfo.h"
#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"
#include "probes/PCIUtil.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"
#include "tests/support/PciLines.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace Vantrel::Ostrand;
using ostrand_test::PciLine;
using ostrand_test::field;
using ostrand_test::fields;

namespace {

using Fields = std::vector<std::string>;

const char* const kVendor = "Tollbridge Systems";

// A controller of the first pass's class, 0xFF00.
PciLine otherClass(const std::string& slot, const std::string& vendorId, const std::string& deviceId)
{
    return {slot, "ff00", vendorId, deviceId, "Unassigned class [ff00]", kVendor, "Remote Access Card"};
}

// A device of the second pass's class, 0x0880.
PciLine peripheral(const std::string& slot, const std::string& vendorId, const std::string& deviceId)
{
    return {slot, "0880", vendorId, deviceId, "System peripheral", kVendor, "Remote Access Controller"};
}

class RACDeviceFinderTest : public ::testing::Test {
protected:
    std::vector<IWbemClassObject> enumerate()
    {
        pci.initPciUtil();
        std::vector<IWbemClassObject> objects;
        finder.getAllObjects(&pci, objects);
        return objects;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    PCIUtil pci;
    RACDeviceFinder finder;
};

} // namespace

TEST_F(RACDeviceFinderTest, Device0007IsTlbx3WithItsSlot)
{
    ostrand_test::addPciLines(machine, {otherClass("00:09.0", "1f3b", "0007")});
    ostrand_test::PirBuilder().entry(0, 9, 3).install(machine);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"TLBX3", "", "1", "TLBX3", "PCI Bus 0, Device 9, Function 0", "PCI Bus 0, Device 9, Function 0",
                      "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "", "", "PCI Slot 3"}));
    EXPECT_EQ(records[0].getValue(), 0);
}

TEST_F(RACDeviceFinderTest, Device000CInANumberedSlotIsTlbxiiiXt)
{
    ostrand_test::addPciLines(machine, {otherClass("00:0a.0", "1f3b", "000c")});
    ostrand_test::PirBuilder().entry(0, 10, 5).install(machine);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"TLBXIII_XT", "", "1", "TLBXIII_XT", "PCI Bus 0, Device 10, Function 0",
                      "PCI Bus 0, Device 10, Function 0", "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "",
                      "", "PCI Slot 5"}));
    EXPECT_EQ(records[0].getValue(), 0);
}

TEST_F(RACDeviceFinderTest, Device000CEmbeddedIsGnw4)
{
    ostrand_test::addPciLines(machine, {otherClass("00:0a.0", "1f3b", "000c")});
    ostrand_test::PirBuilder().entry(0, 10, 0).install(machine);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"GNW4", "", "1", "GNW4", "PCI Bus 0, Device 10, Function 0", "PCI Bus 0, Device 10, Function 0",
                      "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "", "", "Embedded"}));
}

TEST_F(RACDeviceFinderTest, Device000CWithoutSlotTextIsGnw4)
{
    ostrand_test::addPciLines(machine, {otherClass("00:0a.0", "1f3b", "000c")});

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"GNW4", "", "1", "GNW4", "PCI Bus 0, Device 10, Function 0", "PCI Bus 0, Device 10, Function 0",
                      "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "", "", ""}));
}

TEST_F(RACDeviceFinderTest, Device0011WithoutSlotTextIsEmbedded)
{
    ostrand_test::addPciLines(machine, {otherClass("00:0b.0", "1f3b", "0011")});
    // The table knows other devices only.
    ostrand_test::PirBuilder().entry(0, 2, 1).install(machine);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"TLBX4", "", "1", "TLBX4", "PCI Bus 0, Device 11, Function 0", "PCI Bus 0, Device 11, Function 0",
                      "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "", "", "Embedded"}));
}

TEST_F(RACDeviceFinderTest, Device0011InANumberedSlotKeepsTheSlot)
{
    ostrand_test::addPciLines(machine, {otherClass("00:0b.0", "1f3b", "0011")});
    ostrand_test::PirBuilder().entry(0, 11, 2).install(machine);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"TLBX4", "", "1", "TLBX4", "PCI Bus 0, Device 11, Function 0", "PCI Bus 0, Device 11, Function 0",
                      "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "", "", "PCI Slot 2"}));
}

TEST_F(RACDeviceFinderTest, Device0010WithoutSlotTextKeepsTheEmptyText)
{
    ostrand_test::addPciLines(machine, {otherClass("00:0c.0", "1f3b", "0010")});
    machine.denyOpen("/dev/mem", EACCES);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"TLBX4", "", "1", "TLBX4", "PCI Bus 0, Device 12, Function 0", "PCI Bus 0, Device 12, Function 0",
                      "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "", "", ""}));
}

TEST_F(RACDeviceFinderTest, Device0010InASlotGivesThatSlot)
{
    ostrand_test::addPciLines(machine, {otherClass("00:0c.0", "1f3b", "0010")});
    ostrand_test::PirBuilder().entry(0, 12, 6).install(machine);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(field(records[0], "DeviceName"), "TLBX4");
    EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "PCI Slot 6");
}

TEST_F(RACDeviceFinderTest, AnotherVendorOrAnUnknownDeviceOfTheClassGivesNoRecord)
{
    ostrand_test::addPciLines(machine, {otherClass("00:09.0", "8086", "0007"), otherClass("00:0a.0", "1f3b", "0008"),
                                        otherClass("00:0b.0", "1f3b", "0000"), otherClass("00:0c.0", "9063", "101e")});

    auto records = enumerate();
    EXPECT_TRUE(records.empty());
    // The devices are there; the table just does not know them.
    EXPECT_EQ(finder.getNumberofDevices(), 4);
}

TEST_F(RACDeviceFinderTest, FamilyIdsInClass0880GiveNoRecord)
{
    ostrand_test::addPciLines(machine, {peripheral("00:09.0", "1f3b", "0007"), peripheral("00:0a.0", "1f3b", "0011")});

    EXPECT_TRUE(enumerate().empty());
}

TEST_F(RACDeviceFinderTest, Class0880Vendor9063Device101EIsTlbx2WithoutDescriptor)
{
    ostrand_test::addPciLines(machine, {peripheral("03:0d.1", "9063", "101e")});
    ostrand_test::PirBuilder().entry(3, 13, 7).install(machine);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"TLBX2", "", "", "TLBX2", "PCI Bus 3, Device 13, Function 1", "PCI Bus 3, Device 13, Function 1",
                      "System Board!PCI Bus 3", "", "Tollbridge Systems", "", "", "", "PCI Slot 7"}));
    EXPECT_EQ(records[0].getValue(), 0);
}

TEST_F(RACDeviceFinderTest, SwappedIdsInClass0880GiveNoRecord)
{
    ostrand_test::addPciLines(machine, {peripheral("00:09.0", "101e", "9063"), peripheral("00:0a.0", "9063", "101f"),
                                        peripheral("00:0b.0", "9064", "101e")});

    EXPECT_TRUE(enumerate().empty());
}

TEST_F(RACDeviceFinderTest, RecordsComeFromPassOneThenPassTwo)
{
    // The older controller comes first in lspci order, but its pass is second.
    ostrand_test::addPciLines(machine, {peripheral("00:08.0", "9063", "101e"), otherClass("00:09.0", "1f3b", "0010"),
                                        otherClass("00:0a.0", "8086", "0010"), otherClass("1a:00.0", "1f3b", "0007")});
    ostrand_test::PirBuilder().entry(0, 8, 1).entry(0, 9, 0).entry(0x1a, 0, 4).install(machine);

    auto records = enumerate();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"TLBX4", "", "1", "TLBX4", "PCI Bus 0, Device 9, Function 0", "PCI Bus 0, Device 9, Function 0",
                      "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "", "", "Embedded"}));
    EXPECT_EQ(fields(records[1]),
              (Fields{"TLBX3", "", "1", "TLBX3", "PCI Bus 26, Device 0, Function 0", "PCI Bus 26, Device 0, Function 0",
                      "System Board!PCI Bus 26", "", "Tollbridge Systems", "", "", "", "PCI Slot 4"}));
    EXPECT_EQ(fields(records[2]),
              (Fields{"TLBX2", "", "", "TLBX2", "PCI Bus 0, Device 8, Function 0", "PCI Bus 0, Device 8, Function 0",
                      "System Board!PCI Bus 0", "", "Tollbridge Systems", "", "", "", "PCI Slot 1"}));
    for (auto& record : records) {
        EXPECT_EQ(record.getValue(), 0);
    }
}

TEST_F(RACDeviceFinderTest, LabServerHasNoController)
{
    ostrand_test::addLabServerLspci(machine);
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0xF0000, ostrand_test::capture("lab-server/f-segment.bin"));
    machine.addNode("/dev/mem", 'c', memory);

    EXPECT_TRUE(enumerate().empty());
    EXPECT_EQ(finder.getNumberofDevices(), 0);
}

TEST_F(RACDeviceFinderTest, ThroughTheFacade)
{
    ostrand_test::addPciLines(machine, {otherClass("00:09.0", "1f3b", "000c"), peripheral("00:0a.0", "9063", "101e")});
    ostrand_test::PirBuilder().entry(0, 9, 2).install(machine);

    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    ASSERT_NE(info->getEnumerateDeviceHandle(&finder), nullptr);
    std::vector<Fields> records;
    IWbemClassObject* object = nullptr;
    while (info->Next(0, 0, object) == 1) {
        records.push_back(fields(*object));
        EXPECT_EQ(object->getValue(), 0);
    }
    info->freeEnumerateDeviceHandle();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0], (Fields{"TLBXIII_XT", "", "1", "TLBXIII_XT", "PCI Bus 0, Device 9, Function 0",
                                  "PCI Bus 0, Device 9, Function 0", "System Board!PCI Bus 0", "",
                                  "Tollbridge Systems", "", "", "", "PCI Slot 2"}));
    EXPECT_EQ(records[1], (Fields{"TLBX2", "", "", "TLBX2", "PCI Bus 0, Device 10, Function 0",
                                  "PCI Bus 0, Device 10, Function 0", "System Board!PCI Bus 0", "",
                                  "Tollbridge Systems", "", "", "", ""}));
}

TEST_F(RACDeviceFinderTest, TheVectorIsClearedFirst)
{
    ostrand_test::addPciLines(machine, {otherClass("00:09.0", "1f3b", "0007")});
    pci.initPciUtil();
    std::vector<IWbemClassObject> objects = {
        IWbemClassObject("old", "", "", "", "", "", "", "", "", "", "", "", "", 0)};
    finder.getAllObjects(&pci, objects);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(field(objects[0], "DeviceName"), "TLBX3");

    // Run again on the same vector: replaced, not appended.
    finder.getAllObjects(&pci, objects);
    ASSERT_EQ(objects.size(), 1u);
}

TEST_F(RACDeviceFinderTest, ANullInventoryGivesAnEmptyVector)
{
    std::vector<IWbemClassObject> objects = {
        IWbemClassObject("old", "", "", "", "", "", "", "", "", "", "", "", "", 0)};
    finder.getAllObjects(nullptr, objects);
    EXPECT_TRUE(objects.empty());
    EXPECT_EQ(finder.getNumberofDevices(), 0);
}

TEST_F(RACDeviceFinderTest, GetNumberofDevicesCountsClassFF00AndReplacesTheSelection)
{
    ostrand_test::addPciLines(machine, {otherClass("00:09.0", "1f3b", "0007"), otherClass("00:0a.0", "8086", "1234"),
                                        peripheral("00:0b.0", "9063", "101e")});
    enumerate();
    // getAllObjects leaves the selection of its second pass behind.
    const int first = 0;
    EXPECT_EQ(pci.getDevAttribute(first, PCIUtil::PCI_ATTR_LOCATION), "PCI Bus 0, Device 11, Function 0");

    EXPECT_EQ(finder.getNumberofDevices(), 2);
    EXPECT_EQ(pci.getDevAttribute(first, PCIUtil::PCI_ATTR_LOCATION), "PCI Bus 0, Device 9, Function 0");
}

TEST_F(RACDeviceFinderTest, GetNumberofDevicesBeforeAnyEnumerationIsZero)
{
    ostrand_test::addPciLines(machine, {otherClass("00:09.0", "1f3b", "0007")});
    EXPECT_EQ(finder.getNumberofDevices(), 0);
    EXPECT_TRUE(machine.commands().empty());
}

TEST_F(RACDeviceFinderTest, GetNodeMakesTheNodeOfEachKind)
{
    std::string node;
    finder.getNode(node, 'a', "Ide");
    EXPECT_EQ(node, "/dev/hda");
    finder.getNode(node, 'b', "USB CD");
    EXPECT_EQ(node, "/dev/scdb");
    finder.getNode(node, '0', "CD-ROM");
    EXPECT_EQ(node, "/dev/scd0");
    finder.getNode(node, 'c', "Floppy");
    EXPECT_EQ(node, "/dev/sdc");
    finder.getNode(node, '1', "SR");
    EXPECT_EQ(node, "/dev/sr1");
}

TEST_F(RACDeviceFinderTest, GetNodeTestsIdeBeforeCd)
{
    std::string node;
    finder.getNode(node, 'a', "CD on Ide");
    EXPECT_EQ(node, "/dev/hda");
    finder.getNode(node, 'b', "Floppy and CD");
    EXPECT_EQ(node, "/dev/scdb");
    finder.getNode(node, 'c', "SR Floppy");
    EXPECT_EQ(node, "/dev/sdc");
}

TEST_F(RACDeviceFinderTest, GetNodeWithNoKnownWordLeavesTheNode)
{
    std::string node = "/dev/unchanged";
    finder.getNode(node, 'a', "Tape");
    EXPECT_EQ(node, "/dev/unchanged");
    // The tests are case-sensitive.
    finder.getNode(node, 'a', "ide cd floppy sr");
    EXPECT_EQ(node, "/dev/unchanged");
    finder.getNode(node, 'a', "");
    EXPECT_EQ(node, "/dev/unchanged");
}

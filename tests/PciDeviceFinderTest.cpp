// Records of PCI buses and bus controllers, directly and through the facade.
#include "finders/PCIDeviceFinder.h"
#include "frame/CWmiInfo.h"
#include "host/fake/FakeMachine.h"
#include "probes/PCIUtil.h"
#include "tests/support/Machines.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::addLspci;
using ostrand_test::capture;
using ostrand_test::fields;

namespace {

using Fields = std::vector<std::string>;

Fields busRecord(int bus)
{
    std::string n = std::to_string(bus);
    return {"PCI_BUS_" + n, "", "", "PCI_BUS_DEV_DESC", "PCI Bus " + n, "PCI Bus " + n, "System Board", "PCI_BUS",
            "", "", "", "", ""};
}

Fields isaRecord(const std::string& description)
{
    return {"Isa_BUS", "", "", description, "ISA Bus", "ISA Bus", "System Board", "PCI_TO_ISA_BRIDGE",
            "", "", "", "", ""};
}

Fields controllerRecord(const std::string& name, const std::string& deviceClass, const std::string& description,
                        int bus, int device, int function)
{
    std::string location = "PCI Bus " + std::to_string(bus) + ", Device " + std::to_string(device) + ", Function " +
                           std::to_string(function);
    return {name, "", "", description, location, location, "System Board!PCI Bus " + std::to_string(bus),
            deviceClass, "", "", "", "", ""};
}

Fields ideRecord(const std::string& description, int b, int d, int f)
{
    return controllerRecord("IDE_BUS_CONTROLLER_NAME", "IDE_BUS_CONTROLLER", description, b, d, f);
}
Fields usbRecord(const std::string& description, int b, int d, int f)
{
    return controllerRecord("USB_BUS_CONTROLLER_NAME", "USB_BUS_CONTROLLER", description, b, d, f);
}
Fields scsiRecord(const std::string& description, int b, int d, int f)
{
    return controllerRecord("SCSI_BUS_CHANNEL_NAME", "SCSI_BUS", description, b, d, f);
}
Fields raidRecord(const std::string& description, int b, int d, int f)
{
    return controllerRecord("RAID_BUS_CONTROLLER_NAME", "RAID_DEVICE_CONTROLLER", description, b, d, f);
}

// The records of the lab server, in the order the walk gives them: bus 0 from
// the host bridge, the ISA bus, the IDE and first USB controllers, the
// second USB controller, the SCSI controller, bus 1 from the bridge, the
// RAID controller. The network adapters and the ACPI bridge give nothing
// but their bus, which is known by then.
std::vector<Fields> labServerRecords()
{
    return {
        busRecord(0),
        isaRecord("Intel Corporation 82371SB PIIX3 ISA [Natoma/Triton II]"),
        ideRecord("Intel Corporation 82371SB PIIX3 IDE [Natoma/Triton II]", 0, 1, 1),
        usbRecord("Intel Corporation 82371SB PIIX3 USB [Natoma/Triton II]", 0, 1, 2),
        usbRecord("Intel Corporation 82801DB/DBM (ICH4/ICH4-M) USB2 EHCI Controller", 0, 4, 0),
        scsiRecord("Broadcom / LSI 53c895a", 0, 5, 0),
        busRecord(1),
        raidRecord("Broadcom / LSI MegaRAID SAS 1078", 0, 7, 0),
    };
}

// One PCI function of a hand-made machine.
struct Function {
    std::string slot;      // as lspci prints it, bus:device.function in hexadecimal
    std::string classCode; // four hexadecimal digits
    std::string ids;       // vendor:device
    std::string name;      // the device name of the -m line
    std::string buses;     // primary, secondary, subordinate of a bridge, as "00,01,03"; empty for none
    std::string vendor = "Acme";
};

void addFunctions(host::FakeMachine& machine, const std::vector<Function>& functions)
{
    std::string n, m, v;
    for (const Function& f : functions) {
        n += f.slot + " " + f.classCode + ": " + f.ids + "\n";
        m += f.slot + " \"Class " + f.classCode + "\" \"" + f.vendor + "\" \"" + f.name + "\" -p00 \"\" \"\"\n";
        v += f.slot + " Class " + f.classCode + ": " + f.vendor + " " + f.name + "\n";
        v += "\tFlags: bus master, fast devsel, latency 0\n";
        if (!f.buses.empty()) {
            v += "\tBus: primary=" + f.buses.substr(0, 2) + ", secondary=" + f.buses.substr(3, 2) +
                 ", subordinate=" + f.buses.substr(6, 2) + ", sec-latency=0\n";
        }
        v += "\n";
    }
    addLspci(machine, n, m, v);
}

std::vector<Fields> allFields(std::vector<IWbemClassObject>& objects)
{
    std::vector<Fields> result;
    for (IWbemClassObject& object : objects) {
        result.push_back(fields(object));
    }
    return result;
}

class PciDeviceFinderTest : public ::testing::Test {
protected:
    // The records of a finder run on the hand-made machine.
    std::vector<Fields> run(const std::vector<Function>& functions)
    {
        addFunctions(machine, functions);
        pci.initPciUtil();
        finder.getAllObjects(&pci, objects);
        for (IWbemClassObject& object : objects) {
            EXPECT_EQ(object.getValue(), 0);
        }
        return allFields(objects);
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    PCIUtil pci;
    PCIDeviceFinder finder;
    std::vector<IWbemClassObject> objects;
};

class PciDeviceFinderFacadeTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        if (CWmiInfo::_CWmiInfoInstance != nullptr) {
            CWmiInfo::_CWmiInfoInstance->freeEnumerateDeviceHandle();
        }
    }

    // Every record that Next hands out, with its integer checked.
    std::vector<Fields> enumerate(PCIDeviceFinder& finder)
    {
        CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
        IWbemClassObject* handle = info->getEnumerateDeviceHandle(&finder);
        std::vector<Fields> records;
        IWbemClassObject* object = nullptr;
        while (info->Next(0, 0, object) == 1) {
            if (records.empty()) {
                EXPECT_EQ(object, handle);
            }
            EXPECT_EQ(object->getValue(), 0);
            records.push_back(fields(*object));
        }
        EXPECT_EQ(object, nullptr);
        return records;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
};

} // namespace

// --- Through the facade, on the real captures ----------------------------------------------

TEST_F(PciDeviceFinderFacadeTest, LabServerRecordsFieldByFieldInOrder)
{
    ostrand_test::addLabServerLspci(machine);
    PCIDeviceFinder finder;
    std::vector<Fields> records = enumerate(finder);
    std::vector<Fields> wanted = labServerRecords();
    ASSERT_EQ(records.size(), wanted.size());
    for (size_t i = 0; i < wanted.size(); ++i) {
        EXPECT_EQ(records[i], wanted[i]) << "record " << i;
    }
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciN), 1);
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(PciDeviceFinderFacadeTest, LabServerRecordValuesReadOneByOne)
{
    ostrand_test::addLabServerLspci(machine);
    PCIDeviceFinder finder;
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    info->getEnumerateDeviceHandle(&finder);
    IWbemClassObject* object = nullptr;
    ASSERT_EQ(info->Next(0, 0, object), 1);
    ASSERT_EQ(info->Next(0, 0, object), 1);
    std::string value;
    object->getValue("DeviceName", value);
    EXPECT_EQ(value, "Isa_BUS");
    object->getValue("DeviceClass", value);
    EXPECT_EQ(value, "PCI_TO_ISA_BRIDGE");
    object->getValue("DeviceresourceTag", value);
    EXPECT_EQ(value, "ISA Bus");
    EXPECT_EQ(object->getValue(), 0);
}

TEST_F(PciDeviceFinderFacadeTest, VirtioVmGivesOnlyBusZero)
{
    // The virtio functions are of classes the finder does not know; all sit on bus 0.
    addLspci(machine, capture("virtio-vm/lspci-n.txt"), capture("virtio-vm/lspci-m.txt"),
             capture("virtio-vm/lspci-v.txt"));
    PCIDeviceFinder finder;
    EXPECT_EQ(enumerate(finder), std::vector<Fields>{busRecord(0)});
}

TEST_F(PciDeviceFinderFacadeTest, SecondFinderOnTheSameInventoryReportsTheBusesAgain)
{
    ostrand_test::addLabServerLspci(machine);
    PCIDeviceFinder first;
    PCIDeviceFinder second;
    EXPECT_EQ(enumerate(first), labServerRecords());
    EXPECT_EQ(enumerate(second), labServerRecords());
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciN), 1);
}

TEST_F(PciDeviceFinderFacadeTest, SameFinderTwiceThroughTheFacadeLosesTheBuses)
{
    ostrand_test::addLabServerLspci(machine);
    PCIDeviceFinder finder;
    enumerate(finder);
    std::vector<Fields> wanted;
    for (const Fields& record : labServerRecords()) {
        if (record[7] != "PCI_BUS") {
            wanted.push_back(record);
        }
    }
    EXPECT_EQ(enumerate(finder), wanted);
}

TEST_F(PciDeviceFinderFacadeTest, MissingLspciGivesTheBusOfTheShellComplaint)
{
    // The one device made of the shell's line has bus 0 and class 0.
    PCIDeviceFinder finder;
    EXPECT_EQ(enumerate(finder), std::vector<Fields>{busRecord(0)});
}

TEST_F(PciDeviceFinderFacadeTest, EmptyInventoryGivesNoRecord)
{
    addLspci(machine, "", "", "");
    PCIDeviceFinder finder;
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    EXPECT_EQ(info->getEnumerateDeviceHandle(&finder), nullptr);
    IWbemClassObject* object = nullptr;
    EXPECT_EQ(info->Next(0, 0, object), 0);
}

TEST_F(PciDeviceFinderFacadeTest, MalformedLspciLineLeavesTheFacadeUnbuilt)
{
    // The exception goes up through the constructor; the singleton stays
    // null, and the pipes of the failed read stay open.
    addLspci(machine, "garbage\n", "00:00.0 \"A\" \"B\" \"C\"\n", "");
    EXPECT_THROW(CWmiInfo::getCWMIInfoInstance(), std::out_of_range);
    EXPECT_EQ(CWmiInfo::_CWmiInfoInstance, nullptr);
    EXPECT_EQ(machine.openStreams(), 2u);
    ostrand_test::addLabServerLspci(machine);
    PCIDeviceFinder finder;
    EXPECT_EQ(enumerate(finder), labServerRecords());
}

// --- The walk ---------------------------------------------------------------------------

TEST_F(PciDeviceFinderTest, HostBridgeAloneGivesBusZero)
{
    std::vector<Fields> records = run({{"00:00.0", "0600", "8086:1237", "440FX", ""}});
    EXPECT_EQ(records, std::vector<Fields>{busRecord(0)});
    EXPECT_EQ(records[0][0], "PCI_BUS_0");
}

TEST_F(PciDeviceFinderTest, UnknownClassOnBusFiveGivesOnlyBusFive)
{
    std::vector<Fields> records = run({{"05:00.0", "0200", "14e4:1659", "NetXtreme", ""}});
    EXPECT_EQ(records, std::vector<Fields>{busRecord(5)});
    EXPECT_EQ(records[0][0], "PCI_BUS_5");
}

TEST_F(PciDeviceFinderTest, BridgeGivesItsBusesInOrderAndEachBusOnce)
{
    std::vector<Fields> records = run({
        {"00:1e.0", "0604", "8086:244e", "Bridge", "00,01,03"},
        {"00:1f.0", "0601", "8086:2640", "LPC", ""},
        {"02:00.0", "0200", "8086:1076", "Gigabit", ""},
        {"00:02.0", "0300", "1002:5159", "Rage", ""},
        {"01:00.0", "0200", "8086:1076", "Gigabit", ""},
    });
    std::vector<Fields> wanted = {busRecord(0), busRecord(1), busRecord(3), isaRecord("Acme LPC"), busRecord(2)};
    EXPECT_EQ(records, wanted);
}

TEST_F(PciDeviceFinderTest, ControllerRecordComesBeforeItsNewBus)
{
    std::vector<Fields> records = run({
        {"03:00.0", "0c03", "1033:0035", "USB", ""},
        {"03:00.1", "0c03", "1033:00e0", "USB 2.0", ""},
    });
    std::vector<Fields> wanted = {usbRecord("Acme USB", 3, 0, 0), busRecord(3), usbRecord("Acme USB 2.0", 3, 0, 1)};
    EXPECT_EQ(records, wanted);
}

TEST_F(PciDeviceFinderTest, EachControllerClassGivesItsRecord)
{
    std::vector<Fields> records = run({
        {"00:00.0", "0600", "8086:3590", "Host", ""},
        {"00:1f.1", "0101", "8086:24db", "IDE", ""},
        {"00:1d.7", "0c03", "8086:24dd", "EHCI", ""},
        {"0a:0e.1", "0100", "1000:0030", "53c1030", ""},
        {"0b:02.0", "0104", "1028:0013", "PERC 4e/Di", ""},
    });
    std::vector<Fields> wanted = {
        busRecord(0),
        ideRecord("Acme IDE", 0, 31, 1),
        usbRecord("Acme EHCI", 0, 29, 7),
        scsiRecord("Acme 53c1030", 10, 14, 1),
        busRecord(10),
        raidRecord("Acme PERC 4e/Di", 11, 2, 0),
        busRecord(11),
    };
    EXPECT_EQ(records, wanted);
}

TEST_F(PciDeviceFinderTest, FibreChannelScsiOfVendor1077AloneOnItsBusGivesNothing)
{
    EXPECT_TRUE(run({{"04:00.0", "0100", "1077:2432", "ISP2432", ""}}).empty());
}

TEST_F(PciDeviceFinderTest, Vendor1077WithAnotherClassIsTreatedAsUsual)
{
    std::vector<Fields> records = run({
        {"04:00.0", "0c04", "1077:2532", "ISP2532", ""},
        {"05:00.0", "0c03", "1077:9999", "USB", ""},
    });
    std::vector<Fields> wanted = {busRecord(4), usbRecord("Acme USB", 5, 0, 0), busRecord(5)};
    EXPECT_EQ(records, wanted);
}

TEST_F(PciDeviceFinderTest, Vendor1077IsComparedOnTheLow16Bits)
{
    // A vendor text of five digits reads as 0x11077, whose low 16 bits are 0x1077.
    EXPECT_TRUE(run({{"04:00.0", "0100", "11077:2432", "ISP2432", ""}}).empty());
}

TEST_F(PciDeviceFinderTest, TwoIsaBridgesGiveTwoEqualRecords)
{
    std::vector<Fields> records = run({
        {"00:07.0", "0601", "8086:7110", "PIIX4 ISA", ""},
        {"00:07.0", "0601", "8086:7110", "PIIX4 ISA", ""},
    });
    std::vector<Fields> wanted = {isaRecord("Acme PIIX4 ISA"), busRecord(0), isaRecord("Acme PIIX4 ISA")};
    EXPECT_EQ(records, wanted);
}

TEST_F(PciDeviceFinderTest, TheSameFinderAskedTwiceGivesNoBusTheSecondTime)
{
    std::vector<Function> functions = {
        {"00:1f.1", "0101", "8086:24db", "IDE", ""},
        {"00:1e.0", "0604", "8086:244e", "Bridge", "00,02,02"},
    };
    std::vector<Fields> first = run(functions);
    std::vector<Fields> wanted = {ideRecord("Acme IDE", 0, 31, 1), busRecord(0), busRecord(2)};
    EXPECT_EQ(first, wanted);
    finder.getAllObjects(&pci, objects);
    EXPECT_EQ(allFields(objects), std::vector<Fields>{ideRecord("Acme IDE", 0, 31, 1)});
}

TEST_F(PciDeviceFinderTest, AFreshFinderReportsTheBusesAgain)
{
    run({{"00:1f.1", "0101", "8086:24db", "IDE", ""}});
    PCIDeviceFinder fresh;
    fresh.getAllObjects(&pci, objects);
    std::vector<Fields> wanted = {ideRecord("Acme IDE", 0, 31, 1), busRecord(0)};
    EXPECT_EQ(allFields(objects), wanted);
}

TEST_F(PciDeviceFinderTest, GetAllObjectsDestroysWhatTheVectorHeld)
{
    objects.push_back(IWbemClassObject("old", "", "", "", "", "", "", "", "", "", "", "", "", 9));
    EXPECT_EQ(run({{"00:00.0", "0600", "8086:1237", "440FX", ""}}), std::vector<Fields>{busRecord(0)});
}

TEST_F(PciDeviceFinderTest, EmptyInventoryGivesAnEmptyVector)
{
    objects.push_back(IWbemClassObject("old", "", "", "", "", "", "", "", "", "", "", "", "", 9));
    EXPECT_TRUE(run({}).empty());
}

TEST_F(PciDeviceFinderTest, HiddenControllersOfTheClassQueriesAreReportedHere)
{
    std::vector<Fields> records = run({
        {"00:1f.2", "0101", "8086:27c0", "ICH7 SATA", ""},
        {"00:1f.1", "0101", "8086:24d1", "ICH5 IDE", ""},
        {"00:1f.5", "0101", "8086:1d3a", "C600 IDE", ""},
        {"00:1f.6", "0101", "8086:1d3b", "C600 IDE 2", ""},
    });
    std::vector<Fields> wanted = {
        ideRecord("Acme ICH7 SATA", 0, 31, 2), busRecord(0),
        ideRecord("Acme ICH5 IDE", 0, 31, 1),  ideRecord("Acme C600 IDE", 0, 31, 5),
        ideRecord("Acme C600 IDE 2", 0, 31, 6),
    };
    EXPECT_EQ(records, wanted);
    EXPECT_EQ(pci.getNumofDeviceWithClass(0x0101), 0);
}

TEST_F(PciDeviceFinderTest, TwoControllersOfOneModelShareTheFirstText)
{
    std::vector<Fields> records = run({
        {"00:1d.0", "0c03", "8086:24c2", "UHCI first", ""},
        {"00:1d.1", "0c03", "8086:24c2", "UHCI second", ""},
    });
    std::vector<Fields> wanted = {usbRecord("Acme UHCI first", 0, 29, 0), busRecord(0),
                                  usbRecord("Acme UHCI first", 0, 29, 1)};
    EXPECT_EQ(records, wanted);
}

TEST_F(PciDeviceFinderTest, DescriptionIsCleanedOfSpecialCharacters)
{
    // A double quote cannot stand inside a quoted -m field; it is cleaned below.
    Function f{"00:05.0", "0100", "9005:8000", "ASC-29320A <U320> 'x' \\ R&D", ""};
    f.vendor = "Adaptec & Co";
    std::vector<Fields> records = run({f});
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0][3], "Adaptec  AND  Co ASC-29320A ~U320~ ~x~ ~ R AND D");
}

TEST_F(PciDeviceFinderTest, BridgeWithoutBusLineAddsBusZero)
{
    // With no "Bus: " line the three bridge numbers keep their initial zero.
    std::vector<Fields> records = run({{"02:00.0", "0604", "10b5:8111", "PEX8111", ""}});
    std::vector<Fields> wanted = {busRecord(0), busRecord(2)};
    EXPECT_EQ(records, wanted);
}

TEST_F(PciDeviceFinderTest, BusNumbersAreDecimal)
{
    std::vector<Fields> records = run({{"1a:0f.3", "0c03", "8086:3a34", "UHCI", ""}});
    std::vector<Fields> wanted = {usbRecord("Acme UHCI", 26, 15, 3), busRecord(26)};
    EXPECT_EQ(records, wanted);
}

TEST_F(PciDeviceFinderTest, AllPossibleBusNumbersDoNotOverflowTheList)
{
    // 255 numbers are remembered; the 256th still gets its record, and is
    // reported again when it is met again.
    std::vector<Function> functions;
    for (int bus = 0; bus < 256; ++bus) {
        char slot[16];
        std::snprintf(slot, sizeof slot, "%02x:00.0", bus);
        functions.push_back({slot, "0200", "8086:100e", "e1000", ""});
    }
    functions.push_back({"ff:01.0", "0200", "8086:100e", "e1000", ""});
    functions.push_back({"00:01.0", "0200", "8086:100e", "e1000", ""});
    std::vector<Fields> records = run(functions);
    ASSERT_EQ(records.size(), 257u);
    for (int bus = 0; bus < 256; ++bus) {
        EXPECT_EQ(records[bus], busRecord(bus));
    }
    EXPECT_EQ(records[256], busRecord(255));
}

// --- checkForDuplicateBusAndAdd and ParseAndRemoveSpecialChars -------------------

TEST_F(PciDeviceFinderTest, CheckForDuplicateBusAndAddDuringAWalk)
{
    run({{"00:00.0", "0600", "8086:1237", "440FX", ""}});
    // The walk's vector is still the finder's output.
    EXPECT_FALSE(finder.checkForDuplicateBusAndAdd(0));
    EXPECT_TRUE(finder.checkForDuplicateBusAndAdd(7));
    EXPECT_FALSE(finder.checkForDuplicateBusAndAdd(7));
    std::vector<Fields> wanted = {busRecord(0), busRecord(7)};
    EXPECT_EQ(allFields(objects), wanted);
}

TEST_F(PciDeviceFinderTest, CheckForDuplicateBusAndAddBeforeAnyWalkOnlyRemembers)
{
    PCIDeviceFinder fresh;
    EXPECT_TRUE(fresh.checkForDuplicateBusAndAdd(4));
    EXPECT_FALSE(fresh.checkForDuplicateBusAndAdd(4));
    addFunctions(machine, {{"04:00.0", "0200", "8086:100e", "e1000", ""}});
    pci.initPciUtil();
    fresh.getAllObjects(&pci, objects);
    EXPECT_TRUE(objects.empty());
}

TEST(PciDeviceFinderCleaningTest, AmpersandBecomesAndWithItsBlanks)
{
    PCIDeviceFinder finder;
    std::string text = "Tom & Jerry";
    finder.ParseAndRemoveSpecialChars(text);
    EXPECT_EQ(text, "Tom  AND  Jerry");
    text = "R&D";
    finder.ParseAndRemoveSpecialChars(text);
    EXPECT_EQ(text, "R AND D");
}

TEST(PciDeviceFinderCleaningTest, BracketsQuotesAndBackslashesBecomeOneTildeEach)
{
    PCIDeviceFinder finder;
    std::string text = "<a> \"b\" 'c' d\\e";
    finder.ParseAndRemoveSpecialChars(text);
    EXPECT_EQ(text, "~a~ ~b~ ~c~ d~e");
}

TEST(PciDeviceFinderCleaningTest, OtherCharactersAreKeptAndEmptyStaysEmpty)
{
    PCIDeviceFinder finder;
    std::string text = "Broadcom / LSI 53c895a [Natoma/Triton II] (ICH4) -_+=;:,.!?#$%*|`~";
    std::string before = text;
    finder.ParseAndRemoveSpecialChars(text);
    EXPECT_EQ(text, before);
    std::string empty;
    finder.ParseAndRemoveSpecialChars(empty);
    EXPECT_EQ(empty, "");
}

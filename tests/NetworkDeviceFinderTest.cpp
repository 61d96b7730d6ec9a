#include "finders/NetworkDeviceFinder.h"
#include "frame/CWmiInfo.h"
#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"
#include "probes/PCIUtil.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"
#include "tests/support/PciLines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>

using namespace Vantrel::Ostrand;
using ostrand_test::PciLine;
using ostrand_test::capture;
using ostrand_test::field;
using ostrand_test::fields;

namespace {

using Fields = std::vector<std::string>;

const char* const kIntelName = "Intel Corporation 82540EM Gigabit Ethernet Controller";

// Ends the child process of a scenario: its failures go to stderr, which the
// parent shows, and the exit code says whether there were any.
[[noreturn]] void exitWithScenarioResult()
{
    const ::testing::TestResult* result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result->total_part_count(); ++i) {
        const ::testing::TestPartResult& part = result->GetTestPartResult(i);
        if (part.failed()) {
            std::fprintf(stderr, "%s:%d: %s\n", part.file_name() != nullptr ? part.file_name() : "?",
                         part.line_number(), part.message());
        }
    }
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
}

// The interface list belongs to the process and is consumed as names are
// handed out. Each scenario therefore runs in a new process: the threadsafe
// death-test style executes this binary again for the one test, so the child
// meets the list unread whatever ran before it here.
template <typename Scenario>
void inFreshProcess(Scenario scenario)
{
    const std::string style = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            scenario();
            exitWithScenarioResult();
        },
        ::testing::ExitedWithCode(0), "");
    GTEST_FLAG_SET(death_test_style, style);
}

PciLine adapter(const std::string& slot)
{
    return {slot, "0200", "8086", "100e", "Ethernet controller", "Intel Corporation",
            "82540EM Gigabit Ethernet Controller"};
}

// The record of an Intel adapter on bus 0 at the device number.
Fields intelRecord(const std::string& descriptor, int device, const std::string& slot, int bus = 0,
                   int function = 0)
{
    std::ostringstream location;
    location << "PCI Bus " << bus << ", Device " << device << ", Function " << function;
    std::ostringstream parent;
    parent << "System Board!PCI Bus " << bus;
    return {kIntelName,     "", descriptor, kIntelName, location.str(), location.str(), parent.str(),
            "Ethernet controller", "Intel Corporation", "", "", "", slot};
}

std::vector<std::string> descriptors(std::vector<IWbemClassObject>& records)
{
    std::vector<std::string> result;
    for (auto& record : records) {
        result.push_back(field(record, "DeviceDescriptor"));
    }
    return result;
}

void addInterfaces(host::FakeMachine& machine, const std::vector<std::string>& names)
{
    machine.addDirectory("/sys/class/net");
    for (const auto& name : names) {
        machine.addLink("/sys/class/net/" + name);
    }
}

int scansOfNetDirectory(const host::FakeMachine& machine)
{
    const auto& opens = machine.opens();
    return static_cast<int>(std::count(opens.begin(), opens.end(), "/sys/class/net"));
}

class NetworkDeviceFinderTest : public ::testing::Test {
protected:
    // Reads the inventory of the machine and runs one enumeration on it.
    std::vector<IWbemClassObject> enumerate()
    {
        PCIUtil pci;
        pci.initPciUtil();
        NetworkDeviceFinder finder;
        std::vector<IWbemClassObject> objects;
        finder.getAllObjects(&pci, objects);
        return objects;
    }

    void addLabServerFirmware()
    {
        auto memory = std::make_shared<host::MemoryModel>();
        memory->place(0xF0000, capture("lab-server/f-segment.bin"));
        machine.addNode("/dev/mem", 'c', memory);
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
};

} // namespace

TEST_F(NetworkDeviceFinderTest, LabServerGivesItsThreeAdaptersWithNamesAndSlots)
{
    inFreshProcess([this] {
        ostrand_test::addLabServerLspci(machine);
        addLabServerFirmware();
        addInterfaces(machine, {"eth0", "eth1", "eth2", "lo"});

        auto records = enumerate();
        ASSERT_EQ(records.size(), 3u);
        EXPECT_EQ(fields(records[0]),
                  (Fields{"Intel Corporation 82540EM Gigabit Ethernet Controller", "", "eth0",
                          "Intel Corporation 82540EM Gigabit Ethernet Controller", "PCI Bus 0, Device 2, Function 0",
                          "PCI Bus 0, Device 2, Function 0", "System Board!PCI Bus 0", "Ethernet controller",
                          "Intel Corporation", "", "", "", "PCI Slot 1"}));
        EXPECT_EQ(fields(records[1]),
                  (Fields{"Intel Corporation 82540EM Gigabit Ethernet Controller", "", "eth1",
                          "Intel Corporation 82540EM Gigabit Ethernet Controller", "PCI Bus 0, Device 3, Function 0",
                          "PCI Bus 0, Device 3, Function 0", "System Board!PCI Bus 0", "Ethernet controller",
                          "Intel Corporation", "", "", "", "PCI Slot 2"}));
        // Behind the bridge: the routing table has no entry for bus 1.
        EXPECT_EQ(fields(records[2]),
                  (Fields{"Intel Corporation 82540EM Gigabit Ethernet Controller", "", "eth2",
                          "Intel Corporation 82540EM Gigabit Ethernet Controller", "PCI Bus 1, Device 1, Function 0",
                          "PCI Bus 1, Device 1, Function 0", "System Board!PCI Bus 1", "Ethernet controller",
                          "Intel Corporation", "", "", "", ""}));
        for (auto& record : records) {
            EXPECT_EQ(record.getValue(), 0);
        }
    });
}

TEST_F(NetworkDeviceFinderTest, LabServerPairsByOrderWhateverTheDirectoryOrder)
{
    inFreshProcess([this] {
        ostrand_test::addLabServerLspci(machine);
        addLabServerFirmware();
        addInterfaces(machine, {"lo", "eth2", "eth0", "eth1"});

        auto records = enumerate();
        EXPECT_EQ(descriptors(records), (Fields{"eth0", "eth1", "eth2"}));
        ASSERT_EQ(records.size(), 3u);
        EXPECT_EQ(field(records[2], "DeviceLocation"), "PCI Bus 1, Device 1, Function 0");
    });
}

TEST_F(NetworkDeviceFinderTest, LabServerThroughTheFacadeAndASecondEnumerationAfterTheFree)
{
    inFreshProcess([this] {
        ostrand_test::addLabServerLspci(machine);
        addLabServerFirmware();
        addInterfaces(machine, {"eth0", "eth1", "eth2", "lo"});

        CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
        NetworkDeviceFinder finder;
        ASSERT_NE(info->getEnumerateDeviceHandle(&finder), nullptr);
        std::vector<Fields> first;
        IWbemClassObject* object = nullptr;
        while (info->Next(0, 0, object) == 1) {
            first.push_back(fields(*object));
            EXPECT_EQ(object->getValue(), 0);
        }
        ASSERT_EQ(first.size(), 3u);
        EXPECT_EQ(first[0], intelRecord("eth0", 2, "PCI Slot 1"));
        EXPECT_EQ(first[1], intelRecord("eth1", 3, "PCI Slot 2"));
        EXPECT_EQ(first[2], intelRecord("eth2", 1, "", 1));
        info->freeEnumerateDeviceHandle();

        // A new instance reads the bus again, but the names stay consumed.
        info = CWmiInfo::getCWMIInfoInstance();
        NetworkDeviceFinder another;
        info->getEnumerateDeviceHandle(&another);
        std::vector<Fields> second;
        while (info->Next(0, 0, object) == 1) {
            second.push_back(fields(*object));
        }
        ASSERT_EQ(second.size(), 3u);
        EXPECT_EQ(second[0], intelRecord("", 2, "PCI Slot 1"));
        EXPECT_EQ(second[1], intelRecord("", 3, "PCI Slot 2"));
        EXPECT_EQ(second[2], intelRecord("", 1, "", 1));
        EXPECT_EQ(scansOfNetDirectory(machine), 1);
        info->freeEnumerateDeviceHandle();
    });
}

TEST_F(NetworkDeviceFinderTest, VirtioVmGivesItsOneAdapterEth0AndNoIfbName)
{
    inFreshProcess([this] {
        ostrand_test::addLspci(machine, capture("virtio-vm/lspci-n.txt"), capture("virtio-vm/lspci-m.txt"),
                               capture("virtio-vm/lspci-v.txt"));
        std::vector<std::string> names;
        std::istringstream listing(capture("virtio-vm/sys-class-net.txt"));
        for (std::string name; std::getline(listing, name);) {
            names.push_back(name);
        }
        ASSERT_EQ(names, (Fields{"eth0", "ifb0", "ifb1", "lo"}));
        addInterfaces(machine, names);

        auto records = enumerate();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(fields(records[0]),
                  (Fields{"Red Hat, Inc. Virtio 1.0 network device", "", "eth0",
                          "Red Hat, Inc. Virtio 1.0 network device", "PCI Bus 0, Device 3, Function 0",
                          "PCI Bus 0, Device 3, Function 0", "System Board!PCI Bus 0", "Ethernet controller",
                          "Red Hat, Inc.", "", "", "", ""}));
        EXPECT_EQ(records[0].getValue(), 0);
        // ifb0 and ifb1 were never collected.
        NetworkDeviceFinder finder;
        EXPECT_EQ(finder.getDeviceDescriptor(0, 0), "");
    });
}

TEST_F(NetworkDeviceFinderTest, TwoAdaptersTakeEth0ThenEth1FromUnsortedEntries)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0"), adapter("00:03.0")});
        addInterfaces(machine, {"eth1", "lo", "eth0", "sit0"});

        auto records = enumerate();
        ASSERT_EQ(records.size(), 2u);
        EXPECT_EQ(fields(records[0]), intelRecord("eth0", 2, ""));
        EXPECT_EQ(fields(records[1]), intelRecord("eth1", 3, ""));
    });
}

TEST_F(NetworkDeviceFinderTest, EmNamesSortBeforeSlotNames)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine,
                                  {adapter("00:02.0"), adapter("00:03.0"), adapter("00:04.0"), adapter("00:05.0")});
        addInterfaces(machine, {"p3p2", "em2", "lo", "p3p1", "em1"});

        auto records = enumerate();
        EXPECT_EQ(descriptors(records), (Fields{"em1", "em2", "p3p1", "p3p2"}));
    });
}

TEST_F(NetworkDeviceFinderTest, Eth10SortsBeforeEth2AndTheSurplusGoesToTheNextEnumeration)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0"), adapter("00:03.0"), adapter("00:04.0")});
        addInterfaces(machine, {"eth2", "eth10", "eth1", "eth0"});

        auto first = enumerate();
        EXPECT_EQ(descriptors(first), (Fields{"eth0", "eth1", "eth10"}));
        auto second = enumerate();
        EXPECT_EQ(descriptors(second), (Fields{"eth2", "", ""}));
    });
}

TEST_F(NetworkDeviceFinderTest, AVirtualInterfaceWithEthInItsNameShiftsThePairing)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0"), adapter("00:03.0")});
        addInterfaces(machine, {"eth0", "eth1", "br-eth0"});

        auto records = enumerate();
        EXPECT_EQ(descriptors(records), (Fields{"br-eth0", "eth0"}));
    });
}

TEST_F(NetworkDeviceFinderTest, ANameMeetingBothRulesOccupiesTwoPlaces)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0"), adapter("00:03.0"), adapter("00:04.0")});
        addInterfaces(machine, {"p2em1", "eth0"});

        auto records = enumerate();
        EXPECT_EQ(descriptors(records), (Fields{"eth0", "p2em1", "p2em1"}));
    });
}

TEST_F(NetworkDeviceFinderTest, OnlyNamesWithEthOrEmOrPAndADigitAreCollected)
{
    inFreshProcess([this] {
        // Neither ".", "..", lo, sit0, ppp0 ("p" and no digit), wlan0, a lone "p",
        // nor pX1; but any name holding "em" or "eth" anywhere.
        addInterfaces(machine, {"lo", "sit0", "ppp0", "wlan0", "p", "pX1", "p7p1", "system0", "veth1a2b", "P1p1"});

        NetworkDeviceFinder finder;
        Fields handedOut;
        for (std::string name = finder.getDeviceDescriptor(0, 0); !name.empty();
             name = finder.getDeviceDescriptor(0, 0)) {
            handedOut.push_back(name);
        }
        EXPECT_EQ(handedOut, (Fields{"p7p1", "system0", "veth1a2b"}));
    });
}

TEST_F(NetworkDeviceFinderTest, SecondEnumerationInOneProcessKeepsTheRecordsButNotTheNames)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0"), adapter("00:03.0")});
        ostrand_test::PirBuilder().entry(0, 2, 1).entry(0, 3, 2).install(machine);
        addInterfaces(machine, {"eth0", "eth1"});

        PCIUtil pci;
        pci.initPciUtil();
        NetworkDeviceFinder finder;
        std::vector<IWbemClassObject> objects;
        finder.getAllObjects(&pci, objects);
        ASSERT_EQ(objects.size(), 2u);
        EXPECT_EQ(fields(objects[0]), intelRecord("eth0", 2, "PCI Slot 1"));
        EXPECT_EQ(fields(objects[1]), intelRecord("eth1", 3, "PCI Slot 2"));

        // The same finder again: the vector is replaced, the names are gone.
        finder.getAllObjects(&pci, objects);
        ASSERT_EQ(objects.size(), 2u);
        EXPECT_EQ(fields(objects[0]), intelRecord("", 2, "PCI Slot 1"));
        EXPECT_EQ(fields(objects[1]), intelRecord("", 3, "PCI Slot 2"));

        // A new finder object shares the list of the process.
        NetworkDeviceFinder another;
        another.getAllObjects(&pci, objects);
        EXPECT_EQ(descriptors(objects), (Fields{"", ""}));
        EXPECT_EQ(scansOfNetDirectory(machine), 1);
    });
}

TEST_F(NetworkDeviceFinderTest, TheDirectoryIsReadOnceAndLaterInterfacesAreNotSeen)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0")});
        addInterfaces(machine, {"eth0"});

        auto first = enumerate();
        EXPECT_EQ(descriptors(first), (Fields{"eth0"}));
        machine.addLink("/sys/class/net/eth1");
        auto second = enumerate();
        EXPECT_EQ(descriptors(second), (Fields{""}));
        EXPECT_EQ(scansOfNetDirectory(machine), 1);
    });
}

TEST_F(NetworkDeviceFinderTest, ClassesOtherThanEthernetAreNotReported)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(
            machine, {{"00:02.0", "0280", "8086", "4222", "Network controller", "Intel Corporation", "Wireless 3945ABG"},
                      adapter("00:03.0"),
                      {"00:04.0", "0c03", "8086", "24cd", "USB controller", "Intel Corporation", "USB2 EHCI"},
                      {"00:05.0", "0201", "1011", "0009", "Token ring network controller", "Tok", "Ring"}});
        addInterfaces(machine, {"eth0", "eth1"});

        auto records = enumerate();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(fields(records[0]), intelRecord("eth0", 3, ""));
    });
}

TEST_F(NetworkDeviceFinderTest, NoAdapterGivesNoRecordAndLeavesTheNamesUnread)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(
            machine, {{"00:02.0", "0280", "8086", "4222", "Network controller", "Intel Corporation", "Wireless"}});
        addInterfaces(machine, {"eth0", "wlan0"});

        std::vector<IWbemClassObject> objects = {
            IWbemClassObject("old", "", "", "", "", "", "", "", "", "", "", "", "", 0)};
        PCIUtil pci;
        pci.initPciUtil();
        NetworkDeviceFinder finder;
        finder.getAllObjects(&pci, objects);
        EXPECT_TRUE(objects.empty());
        EXPECT_EQ(scansOfNetDirectory(machine), 0);

        // The scan is still to come: a machine with an adapter gets the name.
        host::FakeMachine withAdapter;
        host::ScopedMachine other{withAdapter};
        ostrand_test::addPciLines(withAdapter, {adapter("00:02.0")});
        addInterfaces(withAdapter, {"eth5"});
        auto records = enumerate();
        EXPECT_EQ(descriptors(records), (Fields{"eth5"}));
    });
}

TEST_F(NetworkDeviceFinderTest, MissingNetDirectoryGivesEmptyNamesAndALaterCallTriesAgain)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0"), adapter("00:03.0")});

        auto records = enumerate();
        ASSERT_EQ(records.size(), 2u);
        EXPECT_EQ(fields(records[0]), intelRecord("", 2, ""));
        EXPECT_EQ(fields(records[1]), intelRecord("", 3, ""));

        addInterfaces(machine, {"eth0", "eth1"});
        auto again = enumerate();
        EXPECT_EQ(descriptors(again), (Fields{"eth0", "eth1"}));
    });
}

TEST_F(NetworkDeviceFinderTest, FewerNamesThanAdaptersLeaveTheLaterOnesEmptyButReported)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0"), adapter("00:03.0"), adapter("00:04.0")});
        addInterfaces(machine, {"lo", "eth0"});

        auto records = enumerate();
        ASSERT_EQ(records.size(), 3u);
        EXPECT_EQ(fields(records[0]), intelRecord("eth0", 2, ""));
        EXPECT_EQ(fields(records[1]), intelRecord("", 3, ""));
        EXPECT_EQ(fields(records[2]), intelRecord("", 4, ""));
    });
}

TEST_F(NetworkDeviceFinderTest, OneNameLeavesTheListPerAdapter)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0"), adapter("00:03.0")});
        addInterfaces(machine, {"eth0", "eth1", "eth2"});

        auto records = enumerate();
        EXPECT_EQ(descriptors(records), (Fields{"eth0", "eth1"}));
        NetworkDeviceFinder finder;
        EXPECT_EQ(finder.getDeviceDescriptor(0, 0), "eth2");
        EXPECT_EQ(finder.getDeviceDescriptor(0, 0), "");
    });
}

TEST_F(NetworkDeviceFinderTest, GetDeviceDescriptorIgnoresItsArgumentsAndIsSharedByAllFinders)
{
    inFreshProcess([this] {
        addInterfaces(machine, {"eth1", "eth0"});

        NetworkDeviceFinder first;
        NetworkDeviceFinder second;
        EXPECT_EQ(first.getDeviceDescriptor(5, 9), "eth0");
        EXPECT_EQ(second.getDeviceDescriptor(-1, 0), "eth1");
        EXPECT_EQ(first.getDeviceDescriptor(0, 0), "");
        EXPECT_EQ(scansOfNetDirectory(machine), 1);
    });
}

TEST_F(NetworkDeviceFinderTest, SlotTextComesFromTheRoutingTableForEachAdapter)
{
    inFreshProcess([this] {
        // A dual-port card on device 2 (the functions share the entry), an
        // embedded adapter on device 3, and one on device 4 without an entry.
        ostrand_test::addPciLines(machine,
                                  {adapter("00:02.0"), adapter("00:02.1"), adapter("00:03.0"), adapter("00:04.0")});
        ostrand_test::PirBuilder().entry(0, 2, 1).entry(0, 3, 0).install(machine);
        addInterfaces(machine, {"eth0", "eth1", "eth2", "eth3"});

        auto records = enumerate();
        ASSERT_EQ(records.size(), 4u);
        EXPECT_EQ(fields(records[0]), intelRecord("eth0", 2, "PCI Slot 1"));
        EXPECT_EQ(fields(records[1]), intelRecord("eth1", 2, "PCI Slot 1", 0, 1));
        EXPECT_EQ(fields(records[2]), intelRecord("eth2", 3, "Embedded"));
        EXPECT_EQ(fields(records[3]), intelRecord("eth3", 4, ""));
    });
}

TEST_F(NetworkDeviceFinderTest, UnreadableFirmwareGivesAnEmptySlotText)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("00:02.0")});
        ostrand_test::PirBuilder().entry(0, 2, 1).install(machine);
        machine.denyOpen("/dev/mem", EACCES);
        addInterfaces(machine, {"eth0"});

        auto records = enumerate();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(fields(records[0]), intelRecord("eth0", 2, ""));
    });
}

TEST_F(NetworkDeviceFinderTest, LocationNumbersAreDecimal)
{
    inFreshProcess([this] {
        ostrand_test::addPciLines(machine, {adapter("0a:1f.3")});
        addInterfaces(machine, {"eth0"});

        auto records = enumerate();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(fields(records[0]), intelRecord("eth0", 31, "", 10, 3));
        EXPECT_EQ(field(records[0], "DeviceLocation"), "PCI Bus 10, Device 31, Function 3");
        EXPECT_EQ(field(records[0], "DeviceParentLocation"), "System Board!PCI Bus 10");
    });
}

TEST_F(NetworkDeviceFinderTest, ANullInventoryGivesAnEmptyVector)
{
    inFreshProcess([this] {
        addInterfaces(machine, {"eth0"});
        std::vector<IWbemClassObject> objects = {
            IWbemClassObject("old", "", "", "", "", "", "", "", "", "", "", "", "", 0)};
        NetworkDeviceFinder finder;
        finder.getAllObjects(nullptr, objects);
        EXPECT_TRUE(objects.empty());
        EXPECT_EQ(scansOfNetDirectory(machine), 0);
    });
}

#include "usb/USBDeviceFinder.h"

#include "host/fake/FakeMachine.h"
#include "probes/SCSIGeneric.h"
#include "tests/support/ScsiNodes.h"
#include "tests/support/SysfsTree.h"
#include "tests/support/UsbRecords.h"
#include "usb/LsusbText.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::addSgNode;
using ostrand_test::describe;
using ostrand_test::SysfsTree;

namespace {

using Lines = std::vector<std::string>;

const char* const kSgNode = "/dev/sg6";
const char* const kFindHost6 = "find /sys/devices/pci0000:00/ -name host6";
// A drive on port 1 of root hub 2, its controller at 00:1d.0.
const std::string kPort1 = "/sys/devices/pci0000:00/0000:00:1d.0/usb2/2-1";

std::string cat(const std::string& path) { return "cat " + path + " > /dev/null 2>&1"; }

class StorageLocationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        node = addSgNode(machine, kSgNode, 6, 0, 0, 0, 0);
        machine.setSysfs(tree.root());
    }

    void TearDown() override
    {
        delete device;
        if (fd >= 0 && fdOpen()) {
            host::close(fd);
        }
    }

    // The tools as they answer for a USB drive whose SCSI host is host6 and
    // whose interface folder is interfacePath (its name the last component).
    // Each cat of a devnum file prints nothing: its output goes to the null
    // device.
    void drive(const std::string& interfacePath, const Lines& cats)
    {
        std::string hostPath = interfacePath + "/host6";
        machine.addCommand(kFindHost6, hostPath + "\n");
        machine.addCommand("dirname " + hostPath, interfacePath + "\n");
        std::string name = interfacePath.substr(interfacePath.rfind('/') + 1);
        machine.addCommand("basename " + interfacePath, name + "\n");
        std::string above = interfacePath.substr(0, interfacePath.rfind('/'));
        machine.addCommand("dirname " + interfacePath, above + "\n");
        for (const auto& path : cats) {
            machine.addCommand(cat(path), "");
        }
    }

    bool lookUp()
    {
        fd = host::open(kSgNode, O_RDONLY | O_NONBLOCK);
        EXPECT_GE(fd, 0);
        return finder.getMyUSBInformation(&device, fd);
    }

    bool fdOpen() const
    {
        for (const auto& path : machine.openDescriptors()) {
            if (path == kSgNode) {
                return true;
            }
        }
        return false;
    }

    SysfsTree tree;
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    std::shared_ptr<host::SgModel> node;
    USBDeviceFinder finder{nullptr};
    Usb_Device* device = nullptr;
    int fd = -1;
};

// The record that a drive with no readable attributes gets: the three bare
// labels, the power source, and the two locations.
Usb_Device bareRecord(const std::string& location, const std::string& parentLocation)
{
    Usb_Device expected;
    expected.addlHWInfo = kUsbReleaseLabel + std::string(", Rev:, Power: Bus");
    expected.location = location;
    expected.parentLocation = parentLocation;
    return expected;
}

} // namespace

// --- getMyUSBInformation ----------------------------------------------------------

TEST_F(StorageLocationTest, ADriveOnARootHubPortGetsEveryFieldFromItsPathAndAttributes)
{
    const std::string usbDevice = "pci0000:00/0000:00:1d.0/usb2/2-1";
    tree.device(usbDevice, {{"version", " 2.00\n"},
                            {"bcdDevice", "0100\n"},
                            {"serial", "LAB0001\n"},
                            {"bMaxPower", "100mA\n"},
                            {"bmAttributes", "c0\n"},
                            {"devnum", "3\n"},
                            {"product", "USB FLOPPY\n"}})
        .onBus("usb", usbDevice);
    drive(kPort1 + "/2-1:1.0", {kPort1 + "/devnum"});

    ASSERT_TRUE(lookUp());
    ASSERT_NE(device, nullptr);

    Usb_Device expected;
    expected.selfPowered = 1;
    expected.usbSpec = "2.00";
    expected.firmwareRev = "1.00";
    expected.serialNo = "LAB0001";
    expected.addlHWInfo = kUsbReleaseLabel + std::string("2.00, Rev:1.00, Power:100mA Self");
    // The device number is read through cat into the null device: 000.
    expected.location = "Port 1, Device 000";
    expected.parentLocation = "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 0";
    EXPECT_EQ(describe(*device), describe(expected));
}

TEST_F(StorageLocationTest, TheToolsRunInOrderWithTheirExactCommandLines)
{
    drive(kPort1 + "/2-1:1.0", {kPort1 + "/devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(machine.commands(),
              (Lines{kFindHost6, "dirname " + kPort1 + "/2-1:1.0/host6", "basename " + kPort1 + "/2-1:1.0",
                     "dirname " + kPort1 + "/2-1:1.0", "cat " + kPort1 + "/devnum > /dev/null 2>&1"}));
}

TEST_F(StorageLocationTest, OnA26KernelTheSgObjectLoadsTheModuleFirst)
{
    machine.setUname("2.6.16.60-0.21-smp", "x86_64");
    drive(kPort1 + "/2-1:1.0", {kPort1 + "/devnum"});
    machine.addCommand("modprobe -v sg 2>&1", "");
    ASSERT_TRUE(lookUp());
    ASSERT_EQ(machine.commands().size(), 6u);
    EXPECT_EQ(machine.commands()[0], "modprobe -v sg 2>&1");
    EXPECT_EQ(machine.commands()[1], kFindHost6);
}

TEST_F(StorageLocationTest, TheCallersDescriptorIsClosedOnSuccess)
{
    drive(kPort1 + "/2-1:1.0", {kPort1 + "/devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_FALSE(fdOpen());
    EXPECT_EQ(machine.ioctlNames(kSgNode), Lines{"SG_GET_SCSI_ID"});
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(StorageLocationTest, TheSemaphoreIsSetBackToOneEvenWhileTheCallerHoldsIt)
{
    SCSIGeneric caller;
    ASSERT_EQ(caller.sempahore_lock(), 0);
    ASSERT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 0);
    drive(kPort1 + "/2-1:1.0", {kPort1 + "/devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
    caller.sempahore_unlock();
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 2);
}

TEST_F(StorageLocationTest, ADriveOnPortOneOfRootHubTwo)
{
    const std::string port = "/sys/devices/pci0000:00/0000:00:1d.1/usb2/2-1";
    drive(port + "/2-1:1.0", {port + "/devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(describe(*device),
              describe(bareRecord("Port 1, Device 000", "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 1")));
}

TEST_F(StorageLocationTest, BehindOneHubTheHubLeavesNoTrace)
{
    const std::string root = "/sys/devices/pci0000:00/0000:00:1d.7/usb1/";
    // The hub level and the last port, each read as usbPath, "/" and devnum.
    drive(root + "1-4/1-4.2/1-4.2:1.0", {root + "1-4//devnum", root + "1-4/1-4.2//devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(describe(*device),
              describe(bareRecord("Port 2, Device 000", "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 7")));
    EXPECT_EQ(machine.commands(),
              (Lines{kFindHost6, "dirname " + root + "1-4/1-4.2/1-4.2:1.0/host6",
                     "basename " + root + "1-4/1-4.2/1-4.2:1.0", cat(root + "1-4//devnum"),
                     cat(root + "1-4/1-4.2//devnum")}));
}

TEST_F(StorageLocationTest, BehindTwoHubsOnlyThePciPartIsTheParent)
{
    const std::string root = "/sys/devices/pci0000:00/0000:00:1d.7/usb1/";
    drive(root + "1-4/1-4.2/1-4.2.3/1-4.2.3:1.0",
          {root + "1-4//devnum", root + "1-4/1-4.2//devnum", root + "1-4/1-4.2/1-4.2.3//devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(device->location, "Port 3, Device 000");
    EXPECT_EQ(device->parentLocation, "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 7");
    EXPECT_EQ(machine.commands(),
              (Lines{kFindHost6, "dirname " + root + "1-4/1-4.2/1-4.2.3/1-4.2.3:1.0/host6",
                     "basename " + root + "1-4/1-4.2/1-4.2.3/1-4.2.3:1.0", cat(root + "1-4//devnum"),
                     cat(root + "1-4/1-4.2//devnum"), cat(root + "1-4/1-4.2/1-4.2.3//devnum")}));
}

TEST_F(StorageLocationTest, AHubPortNumberedTwelveGivesNoLocation)
{
    const std::string root = "/sys/devices/pci0000:00/0000:00:1d.7/usb1/";
    drive(root + "1-4/1-4.12/1-4.12:1.0", {root + "1-4//devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(device->location, "");
    EXPECT_EQ(device->parentLocation, "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 7");
    // The walk stops after the hub: the two-digit port is never read.
    EXPECT_EQ(machine.commands().back(), cat(root + "1-4//devnum"));
    EXPECT_FALSE(fdOpen());
}

TEST_F(StorageLocationTest, ARootPortNumberedTwelveKeepsSixCharacters)
{
    const std::string port = "/sys/devices/pci0000:00/0000:00:1d.7/usb1/1-12";
    drive(port + "/1-12:1.0", {port + "/devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(device->location, "Port 1, Device 000");
    EXPECT_EQ(device->parentLocation, "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 7");
}

TEST_F(StorageLocationTest, AControllerBehindABridgeGivesItsOwnBusInDecimal)
{
    const std::string root = "/sys/devices/pci0000:00/0000:00:1e.0/0000:0a:03.1/usb3/";
    drive(root + "3-2/3-2:1.0", {root + "3-2/devnum"});
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(device->location, "Port 2, Device 000");
    EXPECT_EQ(device->parentLocation, "System Board!PCI Bus 10!PCI Bus 10, Device 3, Function 1");
}

TEST_F(StorageLocationTest, AHostThatFindDoesNotPrintThrowsFromTheAddressCut)
{
    machine.addCommand(kFindHost6, "");
    machine.addCommand("dirname ", "");
    machine.addCommand("basename ", "");
    machine.addCommand(cat("/devnum"), "");
    try {
        lookUp();
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_NE(std::string(e.what()).find("basic_string::substr"), std::string::npos) << e.what();
    }
    EXPECT_EQ(device, nullptr);
    EXPECT_TRUE(fdOpen());
    EXPECT_EQ(machine.commands(), (Lines{kFindHost6, "dirname ", "basename ", "dirname ", cat("/devnum")}));
}

TEST_F(StorageLocationTest, ARefusedScsiIdGivesFalseAndLeavesEverythingAsItWas)
{
    node->refuse(SG_GET_SCSI_ID, EINVAL);
    EXPECT_FALSE(lookUp());
    EXPECT_EQ(device, nullptr);
    EXPECT_TRUE(fdOpen());
    EXPECT_TRUE(machine.commands().empty());
}

TEST_F(StorageLocationTest, ANewerKernelListsTheHostsClassFolderLastAndThePortsComeOutWrong)
{
    // find prints the host folder and then its scsi_host class folder; the
    // last line is the one kept, so the "interface" is scsi_host.
    const std::string host = "/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host6";
    machine.addCommand(kFindHost6, host + "\n" + host + "/scsi_host/host6\n");
    machine.addCommand("dirname " + host + "/scsi_host/host6", host + "/scsi_host\n");
    machine.addCommand("basename " + host + "/scsi_host", "scsi_host\n");
    machine.addCommand("dirname " + host + "/scsi_host", host + "\n");
    machine.addCommand(cat(host + "/devnum"), "");
    ASSERT_TRUE(lookUp());
    EXPECT_EQ(device->location, "Port s, Device 000");
    EXPECT_EQ(device->parentLocation, "System Board!PCI Bus 0!PCI Bus 0, Device 1, Function 2");
}

// --- getLocationInfo --------------------------------------------------------------

TEST(StorageLocationTextTest, ASegmentWithTwoCommasBehindItGoesToTheParent)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    USBDeviceFinder finder(nullptr);
    std::string location;
    std::string parent = "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 7";
    finder.getLocationInfo("USB 1, Root Hub 1, Port 4, Device 002, Port 2", "005", location, parent);
    EXPECT_EQ(location, "Port 2, Device 005");
    EXPECT_EQ(parent, "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 7!Port 4, Device 002");
}

TEST(StorageLocationTextTest, WithoutAPortTheLocationIsUntouched)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    USBDeviceFinder finder(nullptr);
    std::string location = "as it was";
    std::string parent = "parent";
    finder.getLocationInfo("USB 1, Root Hub 1, ", "000", location, parent);
    EXPECT_EQ(location, "as it was");
    EXPECT_EQ(parent, "parent");
}

TEST(StorageLocationTextTest, OnlySixCharactersOfTheLastPortAreKept)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    USBDeviceFinder finder(nullptr);
    std::string location, parent;
    finder.getLocationInfo("Port 12", "007", location, parent);
    EXPECT_EQ(location, "Port 1, Device 007");
    EXPECT_EQ(parent, "");
}

TEST(StorageLocationTextTest, WhatStandsBeforeTheFirstPortPlaysNoPart)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    USBDeviceFinder finder(nullptr);
    std::string location, parent;
    finder.getLocationInfo("anything, at all, Port 3, Device 004, Port 7, Device 009, Port 1", "011", location, parent);
    EXPECT_EQ(location, "Port 1, Device 011");
    EXPECT_EQ(parent, "!Port 3, Device 004!Port 7, Device 009");
}

TEST(StorageLocationTextTest, ASegmentWithOneCommaOnlyTakesTheRestAndEnds)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    USBDeviceFinder finder(nullptr);
    std::string location = "kept", parent;
    finder.getLocationInfo("USB 1, Port 4, Device 002", "000", location, parent);
    EXPECT_EQ(location, "kept");
    EXPECT_EQ(parent, "!Port 4, Device 002");
}

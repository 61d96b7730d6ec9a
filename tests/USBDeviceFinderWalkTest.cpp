// The USB walk: the flat pass over sysfs, each root hub matched with a USB
// controller by position, the tree below it port by port, and Next handing
// out copies. The tree here is the lab server's, written in code; the
// sample machines' own walks are in UsbSampleTest.
#include "usb/USBDeviceFinder.h"
#include "usb/LsusbText.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/models/UsbfsModel.h"
#include "tests/support/Machines.h"
#include "tests/support/SysfsTree.h"
#include "tests/support/UsbRecords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using host::UsbfsModel;
using ostrand_test::Attributes;
using ostrand_test::SysfsTree;

namespace {

// The label in front of the USB release in addlHWInfo.
std::string release() { return kUsbReleaseLabel; }

const char* const kFolder = "tests/captures/lab-server/usbfs";
const char* const kUhci = "pci0000:00/0000:00:01.2";
const char* const kEhci = "pci0000:00/0000:00:04.0";

// The attributes of a USB device as sysfs writes them.
Attributes usbAttributes(const std::string& devnum, const std::string& cls, const std::string& vendor,
                         const std::string& product, const std::string& name, const std::string& maker,
                         const std::string& serial, const std::string& maxchild, const std::string& speed,
                         const std::string& bcd, const std::string& power, const std::string& attributes)
{
    return {{"devnum", devnum + "\n"},       {"bDeviceClass", cls + "\n"},  {"bDeviceSubClass", "00\n"},
            {"idVendor", vendor + "\n"},     {"idProduct", product + "\n"}, {"product", name + "\n"},
            {"manufacturer", maker + "\n"},  {"serial", serial + "\n"},     {"maxchild", maxchild + "\n"},
            {"speed", speed + "\n"},         {"version", " 2.00\n"},        {"bcdDevice", bcd + "\n"},
            {"bMaxPower", power + "\n"},     {"bmAttributes", attributes + "\n"}};
}

class USBDeviceFinderWalkTest : public ::testing::Test {
protected:
    USBDeviceFinderWalkTest()
    {
        machine.setUname("2.6.16.21-0.8-smp", "x86_64");
        ostrand_test::addLabServerLspci(machine);
        machine.setSysfs(tree.root());
        host::loadMachineText(machine, ostrand_test::sourceFile(std::string(kFolder) + "/machine-fragment.txt"),
                              std::string(OSTRAND_SOURCE_DIR) + "/" + kFolder);
    }

    void device(const std::string& path, const Attributes& attributes)
    {
        tree.device(path, attributes).onBus("usb", path);
    }

    // The lab server's USB devices: bus 1 behind the EHCI controller, bus 2
    // behind the UHCI one, each with its interfaces.
    void addLabTree(bool withHub = true)
    {
        std::string bus1 = std::string(kEhci) + "/usb1";
        std::string bus2 = std::string(kUhci) + "/usb2";
        device(bus1, usbAttributes("1", "09", "1d6b", "0002", "EHCI Host Controller",
                                   "Linux 6.1.0-56-amd64 ehci_hcd", "0000:00:04.0", "6", "480", "0601", "0mA", "e0"));
        device(bus1 + "/1-0:1.0", {{"bInterfaceClass", "09\n"}});
        device(bus1 + "/1-1", usbAttributes("2", "00", "46f4", "0001", "QEMU USB HARDDRIVE", "QEMU",
                                            "1-0000:00:04.0-1", "0", "480", "0000", "500mA", "c0"));
        device(bus1 + "/1-1/1-1:1.0", {{"bInterfaceClass", "08\n"}});
        device(bus2, usbAttributes("1", "09", "1d6b", "0001", "UHCI Host Controller",
                                   "Linux 6.1.0-56-amd64 uhci_hcd", "0000:00:01.2", "2", "12", "0601", "0mA", "e0"));
        device(bus2 + "/2-0:1.0", {{"bInterfaceClass", "09\n"}});
        if (withHub) {
            device(bus2 + "/2-1", usbAttributes("2", "09", "0409", "55aa", "QEMU USB Hub", "QEMU",
                                                "314159-0000:00:01.2-1", "8", "12", "0101", "0mA", "e0"));
            device(bus2 + "/2-1/2-1:1.0", {{"bInterfaceClass", "09\n"}});
        }
        device(bus2 + "/2-1/2-1.1", usbAttributes("4", "00", "0627", "0001", "QEMU USB Keyboard", "QEMU",
                                                  "68284-0000:00:01.2-1.1", "0", "12", "0000", "100mA", "a0"));
        device(bus2 + "/2-1/2-1.1/2-1.1:1.0", {{"bInterfaceClass", "03\n"}});
        device(bus2 + "/2-1/2-1.2", usbAttributes("5", "00", "0627", "0001", "QEMU USB Tablet", "QEMU",
                                                  "28754-0000:00:01.2-1.2", "0", "12", "0000", "100mA", "a0"));
        device(bus2 + "/2-1/2-1.2/2-1.2:1.0", {{"bInterfaceClass", "03\n"}});
        device(bus2 + "/2-2", usbAttributes("3", "00", "46f4", "0001", "QEMU USB HARDDRIVE", "QEMU",
                                            "1-0000:00:01.2-2", "0", "12", "0000", "500mA", "c0"));
        device(bus2 + "/2-2/2-2:1.0", {{"bInterfaceClass", "08\n"}});
    }

    std::shared_ptr<UsbfsModel> model(const std::string& path)
    {
        return std::dynamic_pointer_cast<UsbfsModel>(machine.model(path));
    }

    // Every record that Next hands out, each deleted after it is copied.
    std::vector<Usb_Device> drain()
    {
        std::vector<Usb_Device> records;
        Usb_Device* next = nullptr;
        while (finder.Next(&next)) {
            records.push_back(*next);
            delete next;
        }
        return records;
    }

    const Usb_Device& byPath(const std::vector<Usb_Device>& records, const std::string& path)
    {
        for (const auto& record : records) {
            if (record.devicePath == path) {
                return record;
            }
        }
        static Usb_Device none;
        ADD_FAILURE() << "no record of " << path;
        return none;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    SysfsTree tree;
    USBDeviceFinder finder{nullptr};
};

} // namespace

// --- The whole tree -------------------------------------------------------------

TEST_F(USBDeviceFinderWalkTest, LabTreeComesOutInPathOrder)
{
    addLabTree();
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<std::string> paths;
    for (const auto& record : drain()) {
        paths.push_back(record.devicePath);
    }
    EXPECT_EQ(paths, (std::vector<std::string>{"/dev/bus/usb/001/001", "/dev/bus/usb/001/002",
                                                "/dev/bus/usb/002/001", "/dev/bus/usb/002/002",
                                                "/dev/bus/usb/002/003", "/dev/bus/usb/002/004",
                                                "/dev/bus/usb/002/005"}));
}

TEST_F(USBDeviceFinderWalkTest, RootHubOfBusOneTakesTheFirstControllerEvenThoughItIsTheOther)
{
    addLabTree();
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    // Bus 1 is the EHCI controller's (00:04.0), but the first root hub by
    // path gets the first USB controller of the PCI list: the UHCI at 00:01.2.
    Usb_Device expected;
    expected.deviceClass = 9;
    expected.nodeKind = 1;
    expected.numOfPorts = 6;
    expected.vendorId = 0x1d6b;
    expected.productId = 2;
    expected.deviceNum = "001";
    expected.devicePath = "/dev/bus/usb/001/001";
    expected.driverName = "hub";
    expected.classText = "09";
    expected.subClassText = "00";
    expected.usbSpec = "2.00";
    expected.firmwareRev = "6.01";
    expected.serialNo = "0000:00:04.0";
    expected.vendorName = "";
    expected.productName = "EHCI Host Controller";
    expected.modelName = "EHCI Host Controller";
    expected.usbSpeed = "480";
    expected.controllerVendor = "Intel Corporation";
    expected.deviceDescription = "Intel Corporation 82371SB PIIX3 USB [Natoma/Triton II]";
    expected.displayName = "EHCI Host Controller";
    expected.addlHWInfo = std::string(", Number of Ports:6, ") + release() + "2.00, Rev:6.01, Power:0mA Self";
    expected.location = "PCI Bus 0, Device 1, Function 2";
    expected.parentLocation = "System Board!PCI Bus 0";
    expected.selfPowered = 1;
    expected.productIdText = "0002";
    expected.vendorIdText = "1d6b";
    EXPECT_EQ(ostrand_test::describe(byPath(records, "/dev/bus/usb/001/001")), ostrand_test::describe(expected));
}

TEST_F(USBDeviceFinderWalkTest, HubBehindARootHubAndItsDevices)
{
    addLabTree();
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    const Usb_Device& root = byPath(records, "/dev/bus/usb/002/001");
    EXPECT_EQ(root.location, "PCI Bus 0, Device 4, Function 0");
    EXPECT_EQ(root.controllerVendor, "Intel Corporation");
    EXPECT_EQ(root.deviceDescription, "Intel Corporation 82801DB/DBM (ICH4/ICH4-M) USB2 EHCI Controller");

    Usb_Device hub;
    hub.deviceClass = 9;
    hub.nodeKind = 2;
    hub.numOfPorts = 8;
    hub.vendorId = 0x409;
    hub.productId = 0x55aa;
    hub.selfPowered = 1;
    hub.deviceNum = "002";
    hub.devicePath = "/dev/bus/usb/002/002";
    hub.driverName = "hub";
    hub.classText = "09";
    hub.subClassText = "00";
    hub.usbSpec = "2.00";
    hub.firmwareRev = "1.01";
    hub.serialNo = "314159-0000:00:01.2-1";
    hub.manufacturer = "";
    hub.productName = "QEMU USB Hub";
    hub.modelName = "QEMU USB Hub";
    hub.usbSpeed = "12";
    hub.deviceDescription = "USB Hub";
    hub.addlHWInfo = std::string("Number of Ports:8, ") + release() + "2.00, Rev:1.01, Power:0mA Self";
    hub.parentPath = "/dev/bus/usb/002/001";
    hub.location = "Port 1, Device 002";
    hub.parentLocation = "System Board!PCI Bus 0!PCI Bus 0, Device 4, Function 0";
    hub.productIdText = "55aa";
    hub.vendorIdText = "0409";
    // The manufacturer "QEMU" became the vendor name in the flat pass, and
    // the controller lookup emptied that again; the walk then gave the empty
    // vendor name to the manufacturer, whose text was longer than one.
    hub.manufacturer = "QEMU";
    EXPECT_EQ(ostrand_test::describe(byPath(records, "/dev/bus/usb/002/002")), ostrand_test::describe(hub));

    const Usb_Device& keyboard = byPath(records, "/dev/bus/usb/002/004");
    EXPECT_EQ(keyboard.location, "Port 1, Device 004");
    EXPECT_EQ(keyboard.parentLocation,
              "System Board!PCI Bus 0!PCI Bus 0, Device 4, Function 0!Port 1, Device 002");
    EXPECT_EQ(keyboard.parentPath, "/dev/bus/usb/002/002");
    EXPECT_EQ(keyboard.nodeKind, 3);
    EXPECT_TRUE(keyboard.endDevice);
    EXPECT_EQ(keyboard.driverName, "usbhid");
    EXPECT_EQ(keyboard.deviceErrorCode, 0);
    // A bound driver makes the interface request fail: class 0, "USB Device".
    EXPECT_EQ(keyboard.deviceClass, 0);
    EXPECT_EQ(keyboard.deviceDescription, "USB Device");
    EXPECT_EQ(byPath(records, "/dev/bus/usb/002/005").location, "Port 2, Device 005");
}

TEST_F(USBDeviceFinderWalkTest, AClassZeroStorageDeviceKeepsUsbDeviceForTheTableHasNoUnknownText)
{
    addLabTree();
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    const Usb_Device& disk = byPath(records, "/dev/bus/usb/002/003");
    EXPECT_EQ(disk.driverName, "usb-storage");
    EXPECT_EQ(disk.deviceClass, 0);
    EXPECT_EQ(disk.deviceSubClass, 0);
    // The driver's name would stand in for a description that says
    // "Unknown"; no row of the class table does.
    EXPECT_EQ(disk.deviceDescription, "USB Device");
    EXPECT_EQ(disk.location, "Port 2, Device 003");
}

TEST_F(USBDeviceFinderWalkTest, AClassZeroDeviceGetsItsInterfaceClassAndItsDescription)
{
    addLabTree();
    // A device with no driver that answers the interface request in full.
    std::string text = ostrand_test::sourceFile(std::string(kFolder) + "/002-003.usb");
    text.replace(text.find("driver 0 usb-storage"), 20, "");
    std::shared_ptr<UsbfsModel> disk = UsbfsModel::parse(text);
    disk->setReply("USBDEVFS_CONTROL GET_INTERFACE(interface 0)",
                   std::string("\x09\x04\x00\x00\x02\x08\x06\x50\x00", 9));
    machine.addNode("/dev/bus/usb/002/003", 'c', disk);
    ASSERT_EQ(model("/dev/bus/usb/002/003"), disk);
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    const Usb_Device& record = byPath(records, "/dev/bus/usb/002/003");
    EXPECT_EQ(record.deviceClass, 8);
    EXPECT_EQ(record.deviceSubClass, 6);
    EXPECT_EQ(record.deviceDescription, "USB Mass Storage SCSI Device");
}

TEST_F(USBDeviceFinderWalkTest, OneCharacterManufacturerIsReplacedTwoCharactersAreNot)
{
    addLabTree();
    tree.file(std::string("devices/") + kUhci + "/usb2/2-1/2-1.1/manufacturer", "Q\n");
    tree.file(std::string("devices/") + kUhci + "/usb2/2-1/2-1.2/manufacturer", "QE\n");
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    // The vendor name is empty after the controller lookup.
    EXPECT_EQ(byPath(records, "/dev/bus/usb/002/004").manufacturer, "");
    EXPECT_EQ(byPath(records, "/dev/bus/usb/002/005").manufacturer, "QE");
}

TEST_F(USBDeviceFinderWalkTest, AModelNameWithErrorBecomesTheVendorName)
{
    addLabTree();
    tree.file(std::string("devices/") + kUhci + "/usb2/2-1/2-1.1/product", "read error\n");
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    const Usb_Device& keyboard = byPath(records, "/dev/bus/usb/002/004");
    EXPECT_EQ(keyboard.productName, "read error");
    EXPECT_EQ(keyboard.modelName, "");
}

TEST_F(USBDeviceFinderWalkTest, ADeviceWithoutDriverGets28AndNoPowerRemark)
{
    addLabTree();
    model("/dev/bus/usb/002/005")->setDriver(0, "");
    model("/dev/bus/usb/002/005")->fail("USBDEVFS_CONTROL GET_STATUS(device)", EPROTO);
    model("/dev/bus/usb/002/004")->fail("USBDEVFS_CONTROL GET_STATUS(device)", EPROTO);
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    const Usb_Device& tablet = byPath(records, "/dev/bus/usb/002/005");
    EXPECT_EQ(tablet.deviceErrorCode, 28);
    EXPECT_EQ(tablet.addlHWInfo, release() + "2.00, Power:100mA Bus");
    const Usb_Device& keyboard = byPath(records, "/dev/bus/usb/002/004");
    EXPECT_EQ(keyboard.deviceErrorCode, 10);
    EXPECT_EQ(keyboard.addlHWInfo, release() + "2.00, Power:100mA Bus, Device not getting enough power.");
}

TEST_F(USBDeviceFinderWalkTest, ARootHubWhoseNodeDoesNotOpenCountsTheErrnoAsPorts)
{
    addLabTree();
    machine.denyOpen("/dev/bus/usb/001/001", EACCES);
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    const Usb_Device& root = byPath(records, "/dev/bus/usb/001/001");
    EXPECT_EQ(root.numOfPorts, EACCES);
    EXPECT_EQ(root.addlHWInfo, std::string(", Number of Ports:13, ") + release() + "2.00, Rev:6.01, Power:0mA Self");
    EXPECT_EQ(root.deviceErrorCode, 28);
    // Nothing below it was reached.
    const Usb_Device& disk = byPath(records, "/dev/bus/usb/001/002");
    EXPECT_EQ(disk.nodeKind, 0);
    EXPECT_EQ(disk.location, "");
}

TEST_F(USBDeviceFinderWalkTest, DevicesBelowAHubMissingFromSysfsAreNeverReached)
{
    addLabTree(false);
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    ASSERT_EQ(records.size(), 6u);
    const Usb_Device& keyboard = byPath(records, "/dev/bus/usb/002/004");
    EXPECT_EQ(keyboard.nodeKind, 0);
    EXPECT_EQ(keyboard.location, "");
    EXPECT_EQ(keyboard.parentLocation, "");
    EXPECT_EQ(keyboard.driverName, "");
}

TEST_F(USBDeviceFinderWalkTest, ChildrenOfAHubNotInTheMapArePlacedButKeepKindZero)
{
    addLabTree(false);
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::string hubPath = "/dev/bus/usb/002/002";
    finder.getMyChildrenfromUsbIoctls(hubPath);
    std::vector<Usb_Device> records = drain();
    const Usb_Device& keyboard = byPath(records, "/dev/bus/usb/002/004");
    EXPECT_EQ(keyboard.location, "Port 1, Device 004");
    EXPECT_EQ(keyboard.driverName, "usbhid");
    EXPECT_EQ(keyboard.nodeKind, 0);
    EXPECT_EQ(keyboard.parentLocation, "");
    EXPECT_EQ(keyboard.parentPath, "");
    EXPECT_EQ(keyboard.deviceDescription, "");
}

TEST_F(USBDeviceFinderWalkTest, ADeviceNumberAbove127PrintsNegativeAndIsPassedOver)
{
    addLabTree();
    model("/dev/bus/usb/002/002")->setPortInfo({200, 5});
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    EXPECT_EQ(byPath(records, "/dev/bus/usb/002/004").nodeKind, 0);
    EXPECT_EQ(byPath(records, "/dev/bus/usb/002/005").location, "Port 2, Device 005");
    std::vector<std::string> opens = machine.opens();
    EXPECT_EQ(std::count(opens.begin(), opens.end(), "/dev/bus/usb/002/-56"), 0);
}

TEST_F(USBDeviceFinderWalkTest, AHubListedBelowItselfEndsTheWalkInsteadOfTheStack)
{
    addLabTree();
    model("/dev/bus/usb/002/002")->setPortInfo({2, 5});
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    EXPECT_EQ(byPath(records, "/dev/bus/usb/002/002").nodeKind, 2);
    EXPECT_EQ(byPath(records, "/dev/bus/usb/002/005").location, "Port 2, Device 005");
}

TEST_F(USBDeviceFinderWalkTest, RootHubsOfBuses2And10GoInTextOrderOfTheirPaths)
{
    device(std::string(kUhci) + "/usb10", usbAttributes("1", "09", "1d6b", "0001", "Ten", "", "ten", "0", "12",
                                                         "0601", "0mA", "e0"));
    device(std::string(kEhci) + "/usb2", usbAttributes("1", "09", "1d6b", "0002", "Two", "", "two", "0", "480",
                                                        "0601", "0mA", "e0"));
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].devicePath, "/dev/bus/usb/002/001");
    EXPECT_EQ(records[0].location, "PCI Bus 0, Device 1, Function 2");
    EXPECT_EQ(records[1].devicePath, "/dev/bus/usb/010/001");
    EXPECT_EQ(records[1].location, "PCI Bus 0, Device 4, Function 0");
}

// --- Next ------------------------------------------------------------------------------

TEST_F(USBDeviceFinderWalkTest, NextBeforeTheWalkIsFalse)
{
    Usb_Device* next = nullptr;
    EXPECT_FALSE(finder.Next(&next));
    EXPECT_EQ(next, nullptr);
}

TEST_F(USBDeviceFinderWalkTest, NextHandsOutCopiesWithoutSlotNameAndThenFalse)
{
    addLabTree();
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    EXPECT_EQ(records.size(), 7u);
    for (const auto& record : records) {
        EXPECT_EQ(record.slotName, "");
    }
    Usb_Device* next = nullptr;
    EXPECT_FALSE(finder.Next(&next));
    EXPECT_EQ(next, nullptr);
}

// --- Failures ---------------------------------------------------------------------------

TEST_F(USBDeviceFinderWalkTest, NoUsbControllerIsFalseAndSysfsIsNotTouched)
{
    host::FakeMachine bare;
    host::ScopedMachine inner(bare);
    ostrand_test::addLspci(bare, "00:00.0 0600: 8086:1237 (rev 02)\n",
                           "00:00.0 \"Host bridge\" \"Intel Corporation\" \"440FX\" -r02 \"\" \"\"\n", "");
    bare.setUname("6.1.0-56-amd64", "x86_64");
    EXPECT_FALSE(finder.getAllUSBDevices());
    for (const auto& command : bare.commands()) {
        EXPECT_EQ(command.find("mount"), std::string::npos) << command;
    }
}

TEST_F(USBDeviceFinderWalkTest, AKernelBefore26IsFalse)
{
    addLabTree();
    machine.setUname("2.4.21-40.ELsmp", "x86_64");
    EXPECT_FALSE(finder.getAllUSBDevices());
    Usb_Device* next = nullptr;
    EXPECT_FALSE(finder.Next(&next));
}

TEST_F(USBDeviceFinderWalkTest, NoUsbFileSystemMountedThrowsTheTextAsAString)
{
    addLabTree();
    machine.setUname("6.1.0-56-amd64", "x86_64");
    machine.addCommand("mount 2>&1", "sysfs on /sys type sysfs (rw,nosuid,nodev,noexec,relatime)\n");
    try {
        finder.getAllUSBDevices();
        FAIL() << "no exception";
    } catch (const std::string& text) {
        EXPECT_EQ(text, "usbdevfs not mounted, cannot enumerate!");
    }
}

TEST_F(USBDeviceFinderWalkTest, NoSysfsUsbBusIsFalse)
{
    EXPECT_FALSE(finder.getAllUSBDevices());
}

TEST_F(USBDeviceFinderWalkTest, Release31WithUsbfsMountedWalksUnderProcBusUsbByTheTextRoute)
{
    addLabTree();
    machine.setUname("3.1.0", "x86_64");
    machine.addCommand("mount 2>&1", "usbfs on /proc/bus/usb type usbfs (rw)\n");
    EXPECT_TRUE(finder.getAllUSBDevices());
    std::vector<Usb_Device> records = drain();
    EXPECT_EQ(records.front().devicePath, "/proc/bus/usb/001/001");
    // The port table of each root hub came from grep.
    EXPECT_EQ(machine.timesRun("grep \"T:  Bus=01 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1"), 1);
    EXPECT_EQ(machine.timesRun("grep \"T:  Bus=02 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1"), 1);
}

// --- Port state for the framework ---------------------------------------------------------

TEST_F(USBDeviceFinderWalkTest, PortBusyUsesTheFindersOwnMap)
{
    addLabTree();
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::string info;
    EXPECT_TRUE(finder.isPortBusy("/dev/bus/usb/002/002", 1, info, -1));
    EXPECT_EQ(info, "00:00!0627[0001]68284-0000:00:01.2-1.1!!1");
    EXPECT_TRUE(finder.isPortBusy("/dev/bus/usb/002/002", 2, info, -1));
    EXPECT_EQ(info, "00:00!0627[0001]28754-0000:00:01.2-1.2!!2");
    EXPECT_FALSE(finder.isPortBusy("/dev/bus/usb/002/002", 3, info, -1));
}

TEST_F(USBDeviceFinderWalkTest, PortStatusAndOverCurrentPassThrough)
{
    addLabTree();
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    int status = -1;
    EXPECT_EQ(finder.getPortStatus(fd, 1, status), 0);
    EXPECT_EQ(status, 0x0103);
    usbdevfs_hub_portinfo table;
    std::memset(&table, 0, sizeof table);
    EXPECT_EQ(finder.checkforOCState("/dev/bus/usb/002/001", 1, table, fd), 0);
    host::close(fd);
}

TEST_F(USBDeviceFinderWalkTest, PciBdfByProgrammingInterfaceOfTheFirstController)
{
    addLabTree();
    ASSERT_TRUE(finder.getAllUSBDevices());
    std::string busDevFn;
    int index = -5;
    // The UHCI controller's programming interface is 0; no text matches.
    EXPECT_TRUE(finder.getPciBdf("nothing", 0, 2, busDevFn, index));
    EXPECT_EQ(index, 0);
    std::string address = "0000:00:04.0";
    EXPECT_TRUE(finder.getPciVectorIndex(2, address, index));
    EXPECT_EQ(index, 1);
}

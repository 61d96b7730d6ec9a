// One USB device's sysfs attributes into a record: each getter, the full and
// the short extraction, the node path, the PCI facts that sysfs cannot give,
// the usbfs root by kernel release, and the PCI lookups.
#include "usb/USBDeviceFinder.h"
#include "usb/LsusbText.h"

#include "host/fake/FakeMachine.h"
#include "probes/LinuxUtils.h"
#include "tests/support/Machines.h"
#include "tests/support/SysfsTree.h"
#include "tests/support/UsbRecords.h"

#include <gtest/gtest.h>

#include <string>

using namespace Vantrel::Ostrand;
using ostrand_test::SysfsTree;

namespace {

// The label in front of the USB release in addlHWInfo.
std::string release() { return kUsbReleaseLabel; }

class USBDeviceFinderAttributesTest : public ::testing::Test {
protected:
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    USBDeviceFinder finder{nullptr};
    Usb_Device device;
};

// The attributes of the lab server's USB tablet, as sysfs gives them.
StrMap tabletAttributes()
{
    return {{"bDeviceClass", "00"},    {"bDeviceSubClass", "00"}, {"devnum", "5"},
            {"idProduct", "0001"},     {"idVendor", "0627"},      {"manufacturer", "QEMU"},
            {"maxchild", "0"},         {"speed", "12"},           {"product", "QEMU USB Tablet"},
            {"serial", "28754-0000:00:04.0-1.2"}, {"version", " 2.00"}, {"bMaxPower", "100mA"},
            {"bcdDevice", "0000"},     {"bmAttributes", "a0"}};
}

} // namespace

// --- The getters -----------------------------------------------------------

TEST_F(USBDeviceFinderAttributesTest, ClassAndSubclassKeepTheirTextAndReadItAsHexadecimal)
{
    StrMap attrs = {{"bDeviceClass", "09"}, {"bDeviceSubClass", "0a"}};
    finder.getDeviceClass(attrs, &device);
    finder.getDeviceSubClass(attrs, &device);
    EXPECT_EQ(device.classText, "09");
    EXPECT_EQ(device.deviceClass, 9);
    EXPECT_EQ(device.subClassText, "0a");
    EXPECT_EQ(device.deviceSubClass, 10);
}

TEST_F(USBDeviceFinderAttributesTest, AnAbsentAttributeLeavesTheFieldAsItWas)
{
    StrMap attrs;
    device.classText = "ff";
    device.deviceClass = 255;
    device.usbSpeed = "480";
    device.manufacturer = "Maker";
    finder.getDeviceClass(attrs, &device);
    finder.getUsbSpeed(attrs, &device);
    finder.getManufacturer(attrs, &device);
    std::string power = "kept";
    finder.getMaxPower(attrs, power);
    EXPECT_EQ(device.classText, "ff");
    EXPECT_EQ(device.deviceClass, 255);
    EXPECT_EQ(device.usbSpeed, "480");
    EXPECT_EQ(device.manufacturer, "Maker");
    EXPECT_EQ(power, "kept");
}

TEST_F(USBDeviceFinderAttributesTest, DevnumTwoGives002AndDevnum128Gives128)
{
    std::string number;
    StrMap two = {{"devnum", "2"}};
    finder.getDeviceNum(two, number);
    EXPECT_EQ(number, "002");
    StrMap big = {{"devnum", "128"}};
    finder.getDeviceNum(big, number);
    EXPECT_EQ(number, "128");
}

TEST_F(USBDeviceFinderAttributesTest, VendorIdOf0000GivesEmptyTextAndLeavesTheNumberAtZero)
{
    StrMap attrs = {{"idVendor", "0000"}, {"idProduct", "0001"}};
    finder.getVID(attrs, &device);
    finder.getPID(attrs, &device);
    EXPECT_EQ(device.vendorIdText, "");
    EXPECT_EQ(device.vendorId, 0);
    EXPECT_EQ(device.productIdText, "0001");
    EXPECT_EQ(device.productId, 1);
}

TEST_F(USBDeviceFinderAttributesTest, AnIdContaining0000KeepsTheNumberItHad)
{
    device.productId = 0x1234;
    StrMap attrs = {{"idProduct", "00000"}};
    finder.getPID(attrs, &device);
    EXPECT_EQ(device.productIdText, "");
    EXPECT_EQ(device.productId, 0x1234);
}

TEST_F(USBDeviceFinderAttributesTest, TheKernelsOwnManufacturerTextOfRootHubsIsDropped)
{
    StrMap root = {{"manufacturer", "Linux 6.1.0-56-amd64 uhci_hcd"}};
    finder.getManufacturer(root, &device);
    EXPECT_EQ(device.manufacturer, "");
    StrMap maker = {{"manufacturer", "QEMU"}};
    finder.getManufacturer(maker, &device);
    EXPECT_EQ(device.manufacturer, "QEMU");
}

TEST_F(USBDeviceFinderAttributesTest, ProductFillsProductAndAnEmptyModelName)
{
    StrMap attrs = {{"product", "QEMU USB Hub"}};
    finder.getDeviceName(attrs, &device);
    EXPECT_EQ(device.productName, "QEMU USB Hub");
    EXPECT_EQ(device.modelName, "QEMU USB Hub");
    EXPECT_FALSE(device.endDevice);

    Usb_Device named;
    named.modelName = "Own model";
    finder.getDeviceName(attrs, &named);
    EXPECT_EQ(named.modelName, "Own model");
}

TEST_F(USBDeviceFinderAttributesTest, AProductContainingRdxOrKx7700IsAnEndDeviceBeforeAnyWalk)
{
    StrMap rdx = {{"product", "RDX Removable Disk"}};
    finder.getDeviceName(rdx, &device);
    EXPECT_TRUE(device.endDevice);
    Usb_Device other;
    StrMap kx = {{"product", "Dock KX7700"}};
    finder.getDeviceName(kx, &other);
    EXPECT_TRUE(other.endDevice);
}

TEST_F(USBDeviceFinderAttributesTest, VersionLosesOneLeadingBlankOnce)
{
    StrMap one = {{"version", " 2.00"}};
    finder.getUsbSpec(one, &device);
    EXPECT_EQ(device.usbSpec, "2.00");
    StrMap two = {{"version", "  2.00"}};
    finder.getUsbSpec(two, &device);
    EXPECT_EQ(device.usbSpec, " 2.00");
    StrMap none = {{"version", "1.10"}};
    finder.getUsbSpec(none, &device);
    EXPECT_EQ(device.usbSpec, "1.10");
    StrMap empty = {{"version", ""}};
    finder.getUsbSpec(empty, &device);
    EXPECT_EQ(device.usbSpec, "");
}

TEST_F(USBDeviceFinderAttributesTest, MaxPowerLosesLeadingBlanksAndKeepsItsUnit)
{
    std::string power;
    StrMap attrs = {{"bMaxPower", "  100mA"}};
    finder.getMaxPower(attrs, power);
    EXPECT_EQ(power, "100mA");
    std::string kept = "kept";
    StrMap empty = {{"bMaxPower", ""}};
    finder.getMaxPower(empty, kept);
    EXPECT_EQ(kept, "kept");
}

TEST_F(USBDeviceFinderAttributesTest, RevisionDigitsReadAsDecimalHundredths)
{
    StrMap attrs = {{"bcdDevice", "0206"}};
    finder.getFrwRev(attrs, &device);
    EXPECT_EQ(device.firmwareRev, "2.06");
    // Hexadecimal digits are not BCD here: the reading stops at the letter.
    StrMap hex = {{"bcdDevice", "02a0"}};
    finder.getFrwRev(hex, &device);
    EXPECT_EQ(device.firmwareRev, "0.02");
}

TEST_F(USBDeviceFinderAttributesTest, Revision0000GivesEmptyText)
{
    device.firmwareRev = "9.99";
    StrMap attrs = {{"bcdDevice", "0000"}};
    finder.getFrwRev(attrs, &device);
    EXPECT_EQ(device.firmwareRev, "");
}

TEST_F(USBDeviceFinderAttributesTest, ARevisionBeyondAFloatIsInfinityNotUndefined)
{
    StrMap attrs = {{"bcdDevice", "1e300"}};
    finder.getFrwRev(attrs, &device);
    EXPECT_EQ(device.firmwareRev, "inf");
}

TEST_F(USBDeviceFinderAttributesTest, PowerTypeIsSelfWhenBit0x40IsSet)
{
    StrMap self = {{"bmAttributes", "e0"}};
    finder.getDevPowerType(self, &device);
    EXPECT_EQ(device.selfPowered, 1);
    StrMap bus = {{"bmAttributes", "a0"}};
    finder.getDevPowerType(bus, &device);
    EXPECT_EQ(device.selfPowered, 0);
    StrMap garbage = {{"bmAttributes", "zz"}};
    finder.getDevPowerType(garbage, &device);
    EXPECT_EQ(device.selfPowered, 0);
}

TEST_F(USBDeviceFinderAttributesTest, MaxchildIsThePortCount)
{
    StrMap attrs = {{"maxchild", "8"}};
    finder.getNumOfPorts(attrs, &device);
    EXPECT_EQ(device.numOfPorts, 8);
}

TEST_F(USBDeviceFinderAttributesTest, SetAddlHWInfoSeparatesItemsWithACommaAndABlank)
{
    finder.setAddlHWInfo(release(), "2.00", &device);
    EXPECT_EQ(device.addlHWInfo, release() + "2.00");
    finder.setAddlHWInfo("Power:", "100mA", &device);
    EXPECT_EQ(device.addlHWInfo, release() + "2.00, Power:100mA");
}

// --- The full extraction -------------------------------------------------------

TEST_F(USBDeviceFinderAttributesTest, ParseDevAttrFillsTheTabletFieldByField)
{
    StrMap attrs = tabletAttributes();
    EXPECT_TRUE(finder.parseDevAttr("2-1.2", attrs, &device));
    Usb_Device expected;
    expected.classText = "00";
    expected.subClassText = "00";
    expected.deviceNum = "005";
    expected.productIdText = "0001";
    expected.productId = 1;
    expected.vendorIdText = "0627";
    expected.vendorId = 0x627;
    expected.manufacturer = "QEMU";
    expected.vendorName = "QEMU";
    expected.usbSpeed = "12";
    expected.productName = "QEMU USB Tablet";
    expected.modelName = "QEMU USB Tablet";
    expected.serialNo = "28754-0000:00:04.0-1.2";
    expected.usbSpec = "2.00";
    // No revision, so no "Rev:" item.
    expected.addlHWInfo = release() + "2.00, Power:100mA Bus";
    EXPECT_EQ(ostrand_test::describe(device), ostrand_test::describe(expected));
}

TEST_F(USBDeviceFinderAttributesTest, ParseDevAttrAddsRevisionAndSelfPower)
{
    StrMap attrs = {{"version", " 1.10"}, {"bcdDevice", "0601"}, {"bMaxPower", "0mA"}, {"bmAttributes", "e0"}};
    finder.parseDevAttr("usb1", attrs, &device);
    EXPECT_EQ(device.addlHWInfo, release() + "1.10, Rev:6.01, Power:0mA Self");
}

TEST_F(USBDeviceFinderAttributesTest, ParseDevAttrKeepsAVendorNameAlreadyThere)
{
    device.vendorName = "Earlier";
    StrMap attrs = {{"manufacturer", "QEMU"}};
    finder.parseDevAttr("1-1", attrs, &device);
    EXPECT_EQ(device.vendorName, "Earlier");
}

TEST_F(USBDeviceFinderAttributesTest, ParseDevAttrOfNothingGivesTheBareLabels)
{
    StrMap attrs;
    EXPECT_TRUE(finder.parseDevAttr("1-1", attrs, &device));
    EXPECT_EQ(device.addlHWInfo, release() + ", Power: Bus");
}

// --- The short extraction --------------------------------------------------------

TEST_F(USBDeviceFinderAttributesTest, OneUsbDeviceInfoWithNoAttributesHoldsTheThreeBareLabels)
{
    std::string busId = "1-1";
    finder.getOneUSBDeviceInfo(busId, &device);
    EXPECT_EQ(device.addlHWInfo, release() + ", Rev:, Power: Bus");
}

TEST_F(USBDeviceFinderAttributesTest, OneUsbDeviceInfoReadsReleaseRevisionSerialAndPowerOnly)
{
    SysfsTree tree;
    tree.device("pci0000:00/0000:00:01.2/usb1/1-1",
                {{"version", " 1.10\n"}, {"bcdDevice", "0000\n"}, {"serial", "42\n"}, {"bMaxPower", "500mA\n"},
                 {"bmAttributes", "80\n"}, {"product", "Drive\n"}, {"devnum", "2\n"}})
        .onBus("usb", "pci0000:00/0000:00:01.2/usb1/1-1");
    machine.setSysfs(tree.root());
    std::string busId = "1-1";
    finder.getOneUSBDeviceInfo(busId, &device);
    EXPECT_EQ(device.addlHWInfo, release() + "1.10, Rev:, Power:500mA Bus");
    EXPECT_EQ(device.serialNo, "42");
    EXPECT_EQ(device.usbSpec, "1.10");
    EXPECT_EQ(device.productName, "");
    EXPECT_EQ(device.deviceNum, "");
}

// --- The node path and the PCI facts -----------------------------------------------

TEST_F(USBDeviceFinderAttributesTest, DeviceDescrBuildsThePathFromRootBusAndNumber)
{
    machine.setUname("2.6.16", "x86_64");
    ASSERT_TRUE(finder.getMountPath());
    device.deviceNum = "002";
    device.devicePath = "old";
    finder.getDeviceDescr("1-1", &device);
    EXPECT_EQ(device.devicePath, "/dev/bus/usb/001/002");
    device.deviceNum = "001";
    finder.getDeviceDescr("usb12", &device);
    EXPECT_EQ(device.devicePath, "/dev/bus/usb/012/001");
}

TEST_F(USBDeviceFinderAttributesTest, DeviceDescrBeforeTheRootIsKnownGivesARelativePath)
{
    device.deviceNum = "003";
    finder.getDeviceDescr("2-1.1", &device);
    EXPECT_EQ(device.devicePath, "002/003");
}

TEST_F(USBDeviceFinderAttributesTest, DeviceLocationFindsNoControllerAndEmptiesVendorName)
{
    ostrand_test::addLabServerLspci(machine);
    SysfsTree tree;
    machine.setSysfs(tree.root());
    device.vendorName = "QEMU";
    device.deviceDescription = "before";
    device.slotName = "before";
    CSysfsReader reader(nullptr);
    int count = 0;
    finder.getDeviceLocation(&reader, "2-1", &device, count);
    EXPECT_EQ(device.vendorName, "");
    EXPECT_EQ(device.deviceDescription, "");
    // The slot of bus 0, device 0: no firmware table here, so none.
    EXPECT_EQ(device.slotName, LinuxUtils().getSlotInfo(0, 0));
}

TEST_F(USBDeviceFinderAttributesTest, IsUsbDeviceTakesDevicesAndRootHubsButNoInterfaces)
{
    EXPECT_TRUE(finder.isUsbDevice("usb1"));
    EXPECT_TRUE(finder.isUsbDevice("1-4.2"));
    EXPECT_FALSE(finder.isUsbDevice("1-4:1.0"));
    EXPECT_TRUE(finder.isUsbDevice("usb1:odd"));
}

// --- The usbfs root ------------------------------------------------------------------

TEST_F(USBDeviceFinderAttributesTest, MountPathOn2421IsFalseWithoutAnyTool)
{
    machine.setUname("2.4.21-40.EL", "x86_64");
    EXPECT_FALSE(finder.getMountPath());
    EXPECT_TRUE(machine.commands().empty());
}

TEST_F(USBDeviceFinderAttributesTest, MountPathOn2616IsDevBusUsbWithoutAnyTool)
{
    machine.setUname("2.6.16.21-0.8-smp", "x86_64");
    EXPECT_TRUE(finder.getMountPath());
    EXPECT_TRUE(machine.commands().empty());
    Usb_Device hub;
    hub.deviceNum = "001";
    finder.getDeviceDescr("usb1", &hub);
    EXPECT_EQ(hub.devicePath, "/dev/bus/usb/001/001");
}

TEST_F(USBDeviceFinderAttributesTest, MountPathOn304IsDevBusUsbAndOn303ScansTheMounts)
{
    machine.setUname("3.0.4", "x86_64");
    EXPECT_TRUE(finder.getMountPath());
    EXPECT_TRUE(machine.commands().empty());
    machine.setUname("3.0.3", "x86_64");
    machine.addCommand("mount 2>&1", "usbfs on /proc/bus/usb type usbfs (rw)\n");
    EXPECT_TRUE(finder.getMountPath());
    EXPECT_EQ(machine.commands(), std::vector<std::string>{"mount 2>&1"});
}

TEST_F(USBDeviceFinderAttributesTest, MountPathOn2614FindsUsbfsInTheMounts)
{
    machine.setUname("2.6.14", "x86_64");
    machine.addCommand("mount 2>&1", "proc on /proc type proc (rw)\n\nnone on /proc/bus/usb type usbfs (rw)\n");
    EXPECT_TRUE(finder.getMountPath());
    device.deviceNum = "002";
    finder.getDeviceDescr("1-1", &device);
    EXPECT_EQ(device.devicePath, "/proc/bus/usb/001/002");
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(USBDeviceFinderAttributesTest, MountPathFindsUsbdevfsToo)
{
    machine.setUname("2.6.9-22.ELsmp", "x86_64");
    machine.addCommand("mount 2>&1", "none on /proc/bus/usb type usbdevfs (rw)\n");
    EXPECT_TRUE(finder.getMountPath());
}

TEST_F(USBDeviceFinderAttributesTest, MountPathOn310ScansTheMountsAndThrowsWhenNoneIsThere)
{
    machine.setUname("3.1.0", "x86_64");
    machine.addCommand("mount 2>&1", "sysfs on /sys type sysfs (rw)\n");
    try {
        finder.getMountPath();
        FAIL() << "no exception";
    } catch (char* text) {
        EXPECT_STREQ(text, "usbdevfs not mounted, cannot enumerate!");
    }
    EXPECT_EQ(machine.commands(), std::vector<std::string>{"mount 2>&1"});
    // The stream was closed before the throw.
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(USBDeviceFinderAttributesTest, MountPathIsFalseWhenMountCannotStart)
{
    class NoShell : public host::FakeMachine {
    public:
        FILE* popen(const char*, const char*) override { return nullptr; }
    } noShell;
    host::ScopedMachine inner(noShell);
    noShell.setUname("6.1.0-56-amd64", "x86_64");
    EXPECT_FALSE(finder.getMountPath());
}

// --- PCI lookups -----------------------------------------------------------------------

TEST_F(USBDeviceFinderAttributesTest, PciVectorIndexWithCountZeroIsFalseAndIndexZero)
{
    std::string address = "00:04.0";
    int index = 7;
    EXPECT_FALSE(finder.getPciVectorIndex(0, address, index));
    EXPECT_EQ(index, 0);
}

TEST_F(USBDeviceFinderAttributesTest, PciBdfWithCountZeroEmptiesTheAddressAndGivesMinusOne)
{
    std::string busDevFn = "kept";
    int index = 5;
    EXPECT_FALSE(finder.getPciBdf("text", 0, 0, busDevFn, index));
    EXPECT_EQ(busDevFn, "");
    EXPECT_EQ(index, -1);
}

TEST_F(USBDeviceFinderAttributesTest, FirstAlphaNumChar)
{
    EXPECT_EQ(finder.getFirstAlphaNumChar("   ", 0), -1);
    EXPECT_EQ(finder.getFirstAlphaNumChar("", 0), -1);
    EXPECT_EQ(finder.getFirstAlphaNumChar("  a1", 0), 2);
    EXPECT_EQ(finder.getFirstAlphaNumChar("a  b", 1), 3);
    EXPECT_EQ(finder.getFirstAlphaNumChar("ab", 2), -1);
    EXPECT_EQ(finder.getFirstAlphaNumChar(nullptr, 0), -1);
    EXPECT_EQ(finder.getFirstAlphaNumChar("ab", -1), -1);
}

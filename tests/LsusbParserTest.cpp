// The lsusb parser: the root of the USB file system, the "lsusb -v" run over
// the real captures, the filtered "lsusb -D" run, and the line scanner key by
// key with its quirks.
#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "tests/support/Machines.h"
#include "tests/support/UsbRecords.h"
#include "usb/LsusbText.h"
#include "usb/lsusbParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::capture;
using ostrand_test::describe;

namespace {

const char* const kLsusbV = "lsusb -v 2>&1";
const char* const kMount = "mount 2>&1";
const char* const kDevRoot = "/dev/bus/usb/";
const char* const kProcRoot = "/proc/bus/usb/";
// A kernel whose nodes are under /dev/bus/usb/: mount is not asked.
const char* const kNewKernel = "2.6.18-8.el5";
const char* const kNotMounted = "usbdevfs not mounted, cannot enumerate!";

// A fake machine that cannot start some command lines: popen gives null.
class RefusingMachine : public host::FakeMachine {
public:
    void refuse(const std::string& commandLine) { m_refused.insert(commandLine); }
    FILE* popen(const char* command, const char* mode) override
    {
        if (command != nullptr && m_refused.count(command) != 0) {
            errno = EMFILE;
            return nullptr;
        }
        return host::FakeMachine::popen(command, mode);
    }

private:
    std::set<std::string> m_refused;
};

std::vector<std::string> keysOf(const UsbMap& devices)
{
    std::vector<std::string> keys;
    for (const auto& entry : devices) {
        keys.push_back(entry.first);
    }
    return keys;
}

// What the lsusb route writes into a record; every other field keeps its default.
struct Expect {
    const char* bus;
    const char* device;
    const char* modelName;
    const char* vendorIdText;
    int vendorId;
    const char* vendorName;
    const char* productIdText;
    int productId;
    const char* usbSpec;
    const char* firmwareRev;
    const char* addlAfterRelease; // addlHWInfo behind its release label
    const char* manufacturerIndex;
    const char* manufacturer;
    const char* productName;
    const char* serialNo;
    int selfPowered;
    const char* classText;
    int deviceClass;
    const char* subClassText;
    int deviceSubClass;
    bool endDevice;
};

// addlHWInfo as the reader starts it: the release label, then the rest.
std::string release(const std::string& rest) { return kUsbReleaseLabel + rest; }

Usb_Device record(const std::string& root, const Expect& e)
{
    Usb_Device d;
    d.devicePath = root + e.bus + "/" + e.device;
    d.deviceNum = e.device;
    d.modelName = e.modelName;
    d.vendorIdText = e.vendorIdText;
    d.vendorId = e.vendorId;
    d.vendorName = e.vendorName;
    d.productIdText = e.productIdText;
    d.productId = e.productId;
    d.usbSpec = e.usbSpec;
    d.firmwareRev = e.firmwareRev;
    d.addlHWInfo = kUsbReleaseLabel + std::string(e.addlAfterRelease);
    d.manufacturerIndex = e.manufacturerIndex;
    d.manufacturer = e.manufacturer;
    d.productName = e.productName;
    d.serialNo = e.serialNo;
    d.selfPowered = e.selfPowered;
    d.classText = e.classText;
    d.deviceClass = e.deviceClass;
    d.subClassText = e.subClassText;
    d.deviceSubClass = e.deviceSubClass;
    d.endDevice = e.endDevice;
    return d;
}

// The map holds exactly these records, field by field, in this order.
void expectDevices(const UsbMap& devices, const std::string& root, const std::vector<Expect>& wanted)
{
    std::vector<std::string> paths;
    for (const Expect& e : wanted) {
        paths.push_back(root + e.bus + "/" + e.device);
    }
    ASSERT_EQ(keysOf(devices), paths);
    for (const Expect& e : wanted) {
        Usb_Device expected = record(root, e);
        EXPECT_EQ(describe(devices.at(expected.devicePath)), describe(expected)) << expected.devicePath;
    }
}

// Runs the parser over an lsusb -v text on a machine whose kernel keeps the
// nodes under /dev/bus/usb/.
UsbMap parse(const std::string& text, host::FakeMachine& machine)
{
    machine.setUname(kNewKernel, "x86_64");
    machine.addCommand(kLsusbV, text);
    host::ScopedMachine scope{machine};
    UsbMap devices;
    lsusbParser parser(nullptr);
    EXPECT_TRUE(parser.getlsusbOutput(devices));
    return devices;
}

UsbMap parse(const std::string& text)
{
    host::FakeMachine machine;
    return parse(text, machine);
}

// The root the parser settled on, as a device line shows it.
std::string rootOf(lsusbParser& parser)
{
    Usb_Device d;
    parser.parseBuffer("Bus 004 Device 001: ID 1d6b:0001", &d);
    return d.devicePath.substr(0, d.devicePath.size() - std::strlen("004/001"));
}

// Applies lines to a fresh record with a parser whose root is empty.
Usb_Device scan(const std::vector<std::string>& lines)
{
    lsusbParser parser(nullptr);
    Usb_Device d;
    for (const std::string& line : lines) {
        parser.parseBuffer(line, &d);
    }
    return d;
}

// --- Real captures, field by field ---------------------------------------

// Columns: bus, device, modelName, vendorIdText, vendorId, vendorName,
// productIdText, productId, usbSpec, firmwareRev, addlHWInfo behind its label,
// manufacturerIndex, manufacturer, productName, serialNo, selfPowered,
// classText, deviceClass, subClassText, deviceSubClass, endDevice.
const std::vector<Expect> kLabServer = {
    {"001", "001", "2.0 root hub", "0x1d6b", 0x1d6b, "Linux Foundation", "0x0002", 2, "2.00", "6.01",
     "2.00, Rev:6.01, Power:0mA Self", "3", "Linux 6.1.0-56-amd64 ehci_hcd", "EHCI Host Controller",
     "0000:00:04.0", 1, "9", 9, "0", 0, false},
    // The device qualifier's bcdUSB comes last and starts addlHWInfo anew.
    {"001", "002", " QEMU QEMU USB HARDDRIVE", "0x46f4", 0x46f4, "QEMU", "0x0001", 1, "2.00", "0.00", "2.00",
     "1", "QEMU", "QEMU USB HARDDRIVE", "1-0000:00:04.0-1", 1, "8", 8, "6", 6, false},
    {"002", "001", "1.1 root hub", "0x1d6b", 0x1d6b, "Linux Foundation", "0x0001", 1, "1.10", "6.01",
     "1.10, Rev:6.01, Power:0mA Self", "3", "Linux 6.1.0-56-amd64 uhci_hcd", "UHCI Host Controller",
     "0000:00:01.2", 1, "9", 9, "0", 0, false},
    {"002", "002", " NEC Corp. Hub", "0x0409", 0x0409, "NEC Corp.", "0x55aa", 0x55aa, "1.10", "1.01",
     "1.10, Rev:1.01, Power:0mA Self", "1", "QEMU", "QEMU USB Hub", "314159-0000:00:01.2-1", 1, "9", 9, "0", 0,
     false},
    {"002", "003", " QEMU QEMU USB HARDDRIVE", "0x46f4", 0x46f4, "QEMU", "0x0001", 1, "2.00", "0.00", "2.00",
     "1", "QEMU", "QEMU USB HARDDRIVE", "1-0000:00:01.2-2", 1, "8", 8, "6", 6, false},
    {"002", "004", " Adomax Technology Co., Ltd QEMU Tablet", "0x0627", 0x0627, "Adomax Technology Co., Ltd",
     "0x0001", 1, "2.00", "0.00", "2.00", "1", "QEMU", "QEMU USB Keyboard", "68284-0000:00:01.2-1.1", 0, "3", 3,
     "1", 1, false},
    {"002", "005", " Adomax Technology Co., Ltd QEMU Tablet", "0x0627", 0x0627, "Adomax Technology Co., Ltd",
     "0x0001", 1, "2.00", "0.00", "2.00", "1", "QEMU", "QEMU USB Tablet", "28754-0000:00:01.2-1.2", 0, "3", 3,
     "0", 0, false},
};

Expect ibmEhciRootHub(const char* bus)
{
    return {bus, "001", "2.0 root hub", "0x1d6b", 0x1d6b, "Linux Foundation", "0x0002", 2, "2.00", "5.13",
            "2.00, Rev:5.13, Power:0mA Self", "3", "Linux 5.13.0-41-generic ehci_hcd", "EHCI Host Controller",
            "1", 1, "9", 9, "0", 0, false};
}

// "iSerial 1 --": no letter or digit behind the index, which stays.
Expect ibmUhciRootHub(const char* bus)
{
    return {bus, "001", "1.1 root hub", "0x1d6b", 0x1d6b, "Linux Foundation", "0x0001", 1, "1.10", "5.13",
            "1.10, Rev:5.13, Power:0mA Self", "3", "Linux 5.13.0-41-generic uhci_hcd", "UHCI Host Controller",
            "1", 1, "9", 9, "0", 0, false};
}

const std::vector<Expect> kIbmServer = {
    ibmEhciRootHub("001"),
    ibmEhciRootHub("002"),
    ibmUhciRootHub("003"),
    ibmUhciRootHub("004"),
    ibmUhciRootHub("005"),
    // Two configurations: two power lines. The last interface's class.
    {"005", "002", " IBM Corp. RNDIS/CDC ETHER", "0x04b3", 0x04b3, "IBM Corp.", "0x4010", 0x4010, "2.00", "2.15",
     "2.00, Rev:2.15, Power:100mA Self, Power:100mA Self", "1", "IBM", "RNDIS/CDC ETHER", "0", 1, "10", 10, "0",
     0, false},
    ibmUhciRootHub("006"),
    ibmUhciRootHub("007"),
    // No vendor name on the idVendor line: the manufacturer's string.
    {"007", "002", " SZH usb keyboard", "0xc0f4", 0xc0f4, "SZH", "0x04c0", 0x04c0, "1.10", "1.10",
     "1.10, Rev:1.10, Power:98mA Bus", "1", "SZH", "usb keyboard", "0", 0, "3", 3, "0", 0, false},
    // Vendor id 0x0000: no vendor line at all. Three blanks before the name.
    {"007", "003", "   USB OPTICAL MOUSE", "", 0, "", "0x3825", 0x3825, "1.10", "1.00",
     "1.10, Rev:1.00, Power:100mA Bus", "0", "", "USB OPTICAL MOUSE", "0", 0, "3", 3, "1", 1, false},
};

const std::vector<Expect> kOld2003 = {
    // A root hub of ids 0000:0000: the vendor line is skipped, the product
    // line has no name, and the product string becomes the model; the
    // manufacturer's string becomes the vendor name.
    {"001", "001", "EHCI Host Controller", "", 0, "Linux 2.6.0-test3 ehci_hcd", "0x0000", 0, "2.00", "2.06",
     "2.00, Rev:2.06, Power:0mA Self", "3", "Linux 2.6.0-test3 ehci_hcd", "EHCI Host Controller",
     "0000:02:0d.3", 1, "9", 9, "0", 0, false},
    // A trailing blank behind the name stays in the model.
    {"001", "002", " ALi Corp. ", "0x0402", 0x0402, "ALi Corp.", "0x5621", 0x5621, "2.00", "1.03",
     "2.00, Rev:1.03, Power:0mA Self", "0", "", "USB 2.0 Storage Device", "00042222200000019862", 1, "8", 8, "6",
     6, false},
};

} // namespace

// --- The root of the USB file system ------------------------------------------

TEST(LsusbParserTest, Release2616UsesDevBusUsbAndDoesNotRunMount)
{
    host::FakeMachine machine;
    machine.setUname("2.6.16.21-0.8-smp", "x86_64");
    machine.addCommand(kLsusbV, "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(machine.commands(), std::vector<std::string>{kLsusbV});
    EXPECT_EQ(rootOf(parser), kDevRoot);
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST(LsusbParserTest, Release2615IsTheFirstWithDevBusUsb)
{
    host::FakeMachine machine;
    machine.setUname("2.6.15-1-686", "i686");
    machine.addCommand(kLsusbV, "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(machine.commands(), std::vector<std::string>{kLsusbV});
    EXPECT_EQ(rootOf(parser), kDevRoot);
}

TEST(LsusbParserTest, LabServerUnderThe26PersonalityUsesDevBusUsb)
{
    host::FakeMachine machine;
    machine.setUname(capture("lab-server/uname-2.6.txt").substr(0, std::strlen("2.6.61-56-amd64")), "x86_64");
    machine.addCommand(kLsusbV, "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(machine.commands(), std::vector<std::string>{kLsusbV});
    EXPECT_EQ(rootOf(parser), kDevRoot);
}

TEST(LsusbParserTest, Release2614RunsMountAndAUsbfsLineGivesProcBusUsb)
{
    host::FakeMachine machine;
    machine.setUname("2.6.14-1.1637_FC4", "i686");
    machine.addCommand(kMount, "proc on /proc type proc (rw)\nusbfs on /proc/bus/usb type usbfs (rw)\n");
    machine.addCommand(kLsusbV, "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(machine.commands(), (std::vector<std::string>{kMount, kLsusbV}));
    EXPECT_EQ(rootOf(parser), kProcRoot);
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST(LsusbParserTest, OtherKernelsRunMountSeries3AndLaterIncluded)
{
    const char* const releases[] = {"3.10.0-1160.21.1.el7.x86_64", "4.18.0-513.el8.x86_64", "5.13.0-41-generic",
                                    "6.1.0-56-amd64", "2.4.21-4.ELsmp", "2.5.8", "1.2.13"};
    for (const char* release : releases) {
        host::FakeMachine machine;
        machine.setUname(release, "x86_64");
        machine.addCommand(kMount, capture("mount/fedora-core2-2.6.5-usbfs.txt"));
        machine.addCommand(kLsusbV, "");
        host::ScopedMachine scope{machine};
        lsusbParser parser(nullptr);
        UsbMap devices;
        EXPECT_TRUE(parser.getlsusbOutput(devices)) << release;
        EXPECT_EQ(machine.commands(), (std::vector<std::string>{kMount, kLsusbV})) << release;
        EXPECT_EQ(rootOf(parser), kProcRoot) << release;
    }
}

TEST(LsusbParserTest, AReleaseThatDoesNotReadAsNumbersRunsMount)
{
    const char* const releases[] = {"", "linux", "2.6", "2.x.20"};
    for (const char* release : releases) {
        host::FakeMachine machine;
        machine.setUname(release, "x86_64");
        machine.addCommand(kMount, capture("mount/redhat-2.4-usbdevfs-server.txt"));
        machine.addCommand(kLsusbV, "");
        host::ScopedMachine scope{machine};
        lsusbParser parser(nullptr);
        UsbMap devices;
        EXPECT_TRUE(parser.getlsusbOutput(devices)) << release;
        EXPECT_EQ(machine.commands(), (std::vector<std::string>{kMount, kLsusbV})) << release;
    }
}

TEST(LsusbParserTest, RealMountOutputsWithUsbfsOrUsbdevfsGiveProcBusUsb)
{
    const char* const files[] = {"mount/fedora-core2-2.6.5-usbfs.txt", "mount/redhat-2.4-usbdevfs-server.txt",
                                 "mount/ubuntu-gutsy-two-usbfs-lines.txt"};
    for (const char* file : files) {
        host::FakeMachine machine;
        machine.setUname("2.4.21-4.ELsmp", "i686");
        machine.addCommand(kMount, capture(file));
        machine.addCommand(kLsusbV, "");
        host::ScopedMachine scope{machine};
        lsusbParser parser(nullptr);
        UsbMap devices;
        EXPECT_TRUE(parser.getlsusbOutput(devices)) << file;
        EXPECT_EQ(rootOf(parser), kProcRoot) << file;
        EXPECT_EQ(machine.openStreams(), 0u) << file;
    }
}

TEST(LsusbParserTest, NoUsbfsInTheMountTableThrowsTheMessageAndLeavesMountOpen)
{
    const char* const files[] = {"mount/centos5-no-usbfs.txt", "lab-server/mount.txt", "virtio-vm/mount.txt"};
    for (const char* file : files) {
        host::FakeMachine machine;
        machine.setUname("6.1.0-56-amd64", "x86_64");
        machine.addCommand(kMount, capture(file));
        machine.addCommand(kLsusbV, capture("lab-server/lsusb-v.txt"));
        host::ScopedMachine scope{machine};
        lsusbParser parser(nullptr);
        UsbMap devices;
        Usb_Device before;
        before.devicePath = "/dev/bus/usb/009/009";
        devices.insert(UsbMap::value_type(before.devicePath, before));
        std::string thrown;
        try {
            parser.getlsusbOutput(devices);
        } catch (char* text) {
            thrown = text;
        }
        EXPECT_EQ(thrown, kNotMounted) << file;
        EXPECT_EQ(machine.commands(), std::vector<std::string>{kMount}) << file;
        EXPECT_EQ(machine.openStreams(), 1u) << file;
        EXPECT_EQ(keysOf(devices), std::vector<std::string>{"/dev/bus/usb/009/009"}) << file;
        // No root was settled on.
        EXPECT_EQ(rootOf(parser), "") << file;
    }
}

TEST(LsusbParserTest, AnEmptyMountTableThrowsTheMessage)
{
    host::FakeMachine machine;
    machine.setUname("2.6.9-89.ELsmp", "x86_64");
    machine.addCommand(kMount, "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_THROW(parser.getlsusbOutput(devices), char*);
}

TEST(LsusbParserTest, TheLastCharacterOfAMountLineIsCutWhateverItIs)
{
    // No newline at the end: the "s" of "usbfs" is cut, and nothing matches.
    host::FakeMachine machine;
    machine.setUname("2.6.9-89.ELsmp", "x86_64");
    machine.addCommand(kMount, "proc on /proc type proc (rw)\nnone on /proc/bus/usb type usbfs");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    std::string thrown;
    try {
        parser.getlsusbOutput(devices);
    } catch (char* text) {
        thrown = text;
    }
    EXPECT_EQ(thrown, kNotMounted);
}

TEST(LsusbParserTest, AnyMountLineThatNamesUsbfsCounts)
{
    // The word is sought anywhere in the line; the mount point is not read.
    host::FakeMachine machine;
    machine.setUname("2.6.9-89.ELsmp", "x86_64");
    machine.addCommand(kMount, "/dev/sdb1 on /mnt/usbfs-backup type ext3 (rw)\n");
    machine.addCommand(kLsusbV, "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(rootOf(parser), kProcRoot);
}

TEST(LsusbParserTest, MountThatCannotStartGivesFalseAndLeavesTheMapAlone)
{
    RefusingMachine machine;
    machine.setUname("2.6.9-89.ELsmp", "x86_64");
    machine.refuse(kMount);
    machine.addCommand(kLsusbV, capture("lab-server/lsusb-v.txt"));
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_FALSE(parser.getlsusbOutput(devices));
    EXPECT_TRUE(devices.empty());
    EXPECT_TRUE(machine.commands().empty());
    EXPECT_EQ(rootOf(parser), "");
}

TEST(LsusbParserTest, LsusbThatCannotStartGivesFalseAndLeavesTheMapAlone)
{
    RefusingMachine machine;
    machine.setUname(kNewKernel, "x86_64");
    machine.refuse(kLsusbV);
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_FALSE(parser.getlsusbOutput(devices));
    EXPECT_TRUE(devices.empty());
    // The root is settled all the same.
    EXPECT_EQ(rootOf(parser), kDevRoot);
}

TEST(LsusbParserTest, TheRootIsEmptyUntilTheFirstRun)
{
    lsusbParser parser(nullptr);
    EXPECT_EQ(rootOf(parser), "");
}

TEST(LsusbParserTest, TheRootStandsUntilTheNextRun)
{
    host::FakeMachine machine;
    machine.setUname("2.6.9-89.ELsmp", "x86_64");
    machine.addCommand(kMount, capture("mount/fedora-core2-2.6.5-usbfs.txt"));
    machine.addCommand(kLsusbV, "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    ASSERT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(rootOf(parser), kProcRoot);
    machine.setUname("2.6.32-754.el6.x86_64", "x86_64");
    EXPECT_EQ(rootOf(parser), kProcRoot);
    ASSERT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(rootOf(parser), kDevRoot);
}

TEST(LsusbParserTest, TheLogStreamIsNeverWrittenTo)
{
    std::string path = ::testing::TempDir() + "lsusb-parser-log.txt";
    {
        std::ofstream log(path.c_str(), std::ios::trunc);
        ASSERT_TRUE(log.is_open());
        host::FakeMachine machine;
        machine.setUname("2.4.21-4.ELsmp", "i686");
        machine.addCommand(kMount, capture("mount/redhat-2.4-usbdevfs-server.txt"));
        machine.addCommand(kLsusbV, capture("lab-server/lsusb-v.txt"));
        machine.addCommand("lsusb -D /proc/bus/usb/001/002 | grep iSerial 2>&1", "  iSerial                 3 X\n");
        host::ScopedMachine scope{machine};
        lsusbParser parser(&log);
        UsbMap devices;
        ASSERT_TRUE(parser.getlsusbOutput(devices));
        Usb_Device d;
        EXPECT_TRUE(parser.getInfoforOneUsbDev("/dev/bus/usb/001/002", "iSerial", &d));
        EXPECT_EQ(devices.size(), 7u);
        EXPECT_EQ(log.tellp(), std::streampos(0));
    }
    EXPECT_EQ(host::readWholeFile(path), "");
}

// --- The lsusb -v run ---------------------------------------------------------

TEST(LsusbParserTest, LabServerEveryDeviceFieldByField)
{
    host::FakeMachine machine;
    UsbMap devices = parse(capture("lab-server/lsusb-v.txt"), machine);
    expectDevices(devices, kDevRoot, kLabServer);
    EXPECT_EQ(machine.commands(), std::vector<std::string>{kLsusbV});
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST(LsusbParserTest, LabServerUnderUsbfsTakesTheProcRoot)
{
    host::FakeMachine machine;
    machine.setUname("2.6.5-1.358", "i686");
    machine.addCommand(kMount, capture("mount/fedora-core2-2.6.5-usbfs.txt"));
    machine.addCommand(kLsusbV, capture("lab-server/lsusb-v.txt"));
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    ASSERT_TRUE(parser.getlsusbOutput(devices));
    expectDevices(devices, kProcRoot, kLabServer);
    EXPECT_EQ(machine.commands(), (std::vector<std::string>{kMount, kLsusbV}));
}

TEST(LsusbParserTest, IbmServerEveryDeviceFieldByField)
{
    UsbMap devices = parse(capture("lsusb/server-ibm-x3650m3-vendor0000-mouse.txt"));
    expectDevices(devices, kDevRoot, kIbmServer);
}

TEST(LsusbParserTest, Old2003OutputEveryDeviceFieldByField)
{
    UsbMap devices = parse(capture("lsusb/old-2003-lkml-usb-dvd-burner.txt"));
    expectDevices(devices, kDevRoot, kOld2003);
}

TEST(LsusbParserTest, CiscoServerCountsAndSpotChecks)
{
    UsbMap devices = parse(capture("lsusb/server-cisco-ucsc-c220m4.txt"));
    EXPECT_EQ(keysOf(devices),
              (std::vector<std::string>{"/dev/bus/usb/001/001", "/dev/bus/usb/001/002", "/dev/bus/usb/002/001",
                                        "/dev/bus/usb/002/002", "/dev/bus/usb/002/003", "/dev/bus/usb/002/004",
                                        "/dev/bus/usb/002/005", "/dev/bus/usb/002/006"}));
    // "bcdDevice b.b3": the first digit behind the column is the 3.
    const Usb_Device& hub = devices.at("/dev/bus/usb/002/005");
    EXPECT_EQ(hub.firmwareRev, "3");
    EXPECT_EQ(hub.addlHWInfo, release("2.00"));
    EXPECT_EQ(hub.productName, "0");
    EXPECT_EQ(hub.serialNo, "0");
    EXPECT_EQ(hub.manufacturerIndex, "0");
    EXPECT_EQ(hub.manufacturer, "");
    EXPECT_EQ(hub.modelName, " Microchip Technology, Inc. (formerly SMSC) USB 2.0 Hub");
    EXPECT_EQ(hub.vendorName, "Microchip Technology, Inc. (formerly SMSC)");
    EXPECT_EQ(hub.deviceClass, 9);
    // 64.00 holds no "0.00": it is added.
    const Usb_Device& keyboard = devices.at("/dev/bus/usb/002/004");
    EXPECT_EQ(keyboard.firmwareRev, "64.00");
    EXPECT_EQ(keyboard.addlHWInfo, release("1.10, Rev:64.00, Power:90mA Bus"));
    EXPECT_EQ(keyboard.selfPowered, 0);
    EXPECT_EQ(keyboard.productName, "USB Keyboard");
    EXPECT_EQ(keyboard.modelName, " Logitech, Inc. Keyboard K120");
    EXPECT_EQ(keyboard.subClassText, "0");
    const Usb_Device& kvm = devices.at("/dev/bus/usb/002/006");
    EXPECT_EQ(kvm.serialNo, "3");
    EXPECT_EQ(kvm.productName, "Cisco USB Composite Device-0");
    EXPECT_EQ(kvm.vendorIdText, "0x0624");
    EXPECT_EQ(kvm.productId, 0x0402);
    EXPECT_EQ(kvm.addlHWInfo, release("2.00, Power:0mA Self"));
    const Usb_Device& internalHub = devices.at("/dev/bus/usb/002/002");
    EXPECT_EQ(internalHub.firmwareRev, "0.05");
    EXPECT_EQ(internalHub.addlHWInfo, release("2.00"));
    EXPECT_EQ(devices.at("/dev/bus/usb/002/001").manufacturer, "Linux 5.19.0-38-generic ehci_hcd");
}

TEST(LsusbParserTest, LenovoServerCountsAndSpotChecks)
{
    UsbMap devices = parse(capture("lsusb/server-lenovo-sr650-centos7-xcc.txt"));
    EXPECT_EQ(keysOf(devices), (std::vector<std::string>{"/dev/bus/usb/001/001", "/dev/bus/usb/001/002",
                                                         "/dev/bus/usb/001/003", "/dev/bus/usb/002/001"}));
    const Usb_Device& xhci = devices.at("/dev/bus/usb/002/001");
    EXPECT_EQ(xhci.usbSpec, "3.00");
    EXPECT_EQ(xhci.productId, 3);
    EXPECT_EQ(xhci.modelName, "3.0 root hub");
    EXPECT_EQ(xhci.manufacturer, "Linux 3.10.0-1160.21.1.el7.x86_64 xhci-hcd");
    EXPECT_EQ(xhci.serialNo, "1");
    EXPECT_EQ(xhci.subClassText, "0");
    const Usb_Device& controller = devices.at("/dev/bus/usb/001/003");
    EXPECT_EQ(controller.modelName, " IBM Corp. ");
    EXPECT_EQ(controller.productName, "XClarity Controller");
    EXPECT_EQ(controller.addlHWInfo, release("2.00"));
    EXPECT_EQ(controller.classText, "10");
    EXPECT_EQ(controller.deviceClass, 10);
    const Usb_Device& hub = devices.at("/dev/bus/usb/001/002");
    EXPECT_EQ(hub.addlHWInfo, release("2.00, Rev:1.00, Power:100mA Self"));
    EXPECT_EQ(hub.vendorName, "EMULEX Corporation");
    EXPECT_EQ(hub.manufacturer, "Emulex Communications");
    EXPECT_EQ(hub.serialNo, "3");
}

TEST(LsusbParserTest, SupermicroWithoutStringsCountsAndSpotChecks)
{
    UsbMap devices = parse(capture("lsusb/server-supermicro-x9drw-nonroot-nostrings.txt"));
    EXPECT_EQ(keysOf(devices),
              (std::vector<std::string>{"/dev/bus/usb/001/001", "/dev/bus/usb/001/002", "/dev/bus/usb/001/003",
                                        "/dev/bus/usb/002/001", "/dev/bus/usb/002/002"}));
    // Without root, the tool prints the indices alone.
    const Usb_Device& rootHub = devices.at("/dev/bus/usb/002/001");
    EXPECT_EQ(rootHub.manufacturerIndex, "3");
    EXPECT_EQ(rootHub.manufacturer, "");
    EXPECT_EQ(rootHub.vendorName, "Linux Foundation");
    EXPECT_EQ(rootHub.productName, "2");
    EXPECT_EQ(rootHub.modelName, "2.0 root hub");
    EXPECT_EQ(rootHub.serialNo, "1");
    const Usb_Device& kvm = devices.at("/dev/bus/usb/001/003");
    EXPECT_EQ(kvm.productName, "2");
    EXPECT_EQ(kvm.modelName, " American Megatrends, Inc. Virtual Keyboard and Mouse");
    EXPECT_EQ(kvm.manufacturerIndex, "1");
    EXPECT_EQ(kvm.vendorName, "American Megatrends, Inc.");
    const Usb_Device& hub = devices.at("/dev/bus/usb/002/002");
    EXPECT_EQ(hub.productName, "0");
    EXPECT_EQ(hub.firmwareRev, "0.00");
    EXPECT_EQ(hub.addlHWInfo, release("2.00, Power:0mA Self"));
    EXPECT_EQ(hub.modelName, " Intel Corp. Integrated Rate Matching Hub");
}

TEST(LsusbParserTest, EveryCaptureGivesOneEntryPerDeviceLineUnderItsOwnPath)
{
    struct Count {
        const char* file;
        size_t devices;
    };
    const Count counts[] = {{"lab-server/lsusb-v.txt", 7},
                            {"lsusb/old-2003-lkml-usb-dvd-burner.txt", 2},
                            {"lsusb/server-cisco-ucsc-c220m4.txt", 8},
                            {"lsusb/server-ibm-x3650m3-vendor0000-mouse.txt", 10},
                            {"lsusb/server-lenovo-sr650-centos7-xcc.txt", 4},
                            {"lsusb/server-supermicro-x9drw-nonroot-nostrings.txt", 5}};
    for (const Count& count : counts) {
        UsbMap devices = parse(capture(count.file));
        EXPECT_EQ(devices.size(), count.devices) << count.file;
        for (const auto& entry : devices) {
            const Usb_Device& d = entry.second;
            EXPECT_EQ(entry.first, d.devicePath) << count.file;
            EXPECT_EQ(d.devicePath, kDevRoot + d.devicePath.substr(13, 3) + "/" + d.deviceNum) << count.file;
            EXPECT_EQ(d.deviceNum.size(), 3u) << count.file;
            EXPECT_EQ(d.usbSpec.size(), 4u) << count.file << " " << d.devicePath;
            EXPECT_EQ(d.addlHWInfo.compare(0, std::strlen(kUsbReleaseLabel), kUsbReleaseLabel), 0)
                << count.file << " " << d.devicePath;
            EXPECT_FALSE(d.classText.empty()) << count.file << " " << d.devicePath;
            EXPECT_FALSE(d.productIdText.empty()) << count.file << " " << d.devicePath;
            EXPECT_FALSE(d.modelName.empty()) << count.file << " " << d.devicePath;
            EXPECT_FALSE(d.endDevice) << count.file;
            // Fields of other routes stay as they were.
            EXPECT_EQ(d.nodeKind, 0);
            EXPECT_EQ(d.numOfPorts, 0);
            EXPECT_EQ(d.deviceErrorCode, 0);
            EXPECT_EQ(d.driverName, "");
            EXPECT_EQ(d.location, "");
            EXPECT_EQ(d.usbSpeed, "");
        }
    }
}

TEST(LsusbParserTest, AMachineWithoutUsbGivesTrueAndAnUnchangedMap)
{
    host::FakeMachine machine;
    machine.setUname(kNewKernel, "x86_64");
    machine.addCommand(kLsusbV, "\n");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    Usb_Device kept;
    kept.devicePath = "/proc/bus/usb/001/001";
    devices.insert(UsbMap::value_type(kept.devicePath, kept));
    EXPECT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(keysOf(devices), std::vector<std::string>{"/proc/bus/usb/001/001"});
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST(LsusbParserTest, TextWithoutDeviceLinesGivesNoRecord)
{
    // Keys before any device line have no record to go to, and change nothing.
    UsbMap devices = parse("  idVendor           0x8087 Intel Corp.\n  iSerial                 1 x\n"
                           "  bInterfaceClass         9 Hub\n  MaxPower                0mA\n");
    EXPECT_TRUE(devices.empty());
}

TEST(LsusbParserTest, TheLastDeviceIsInsertedAtTheEndOfTheText)
{
    UsbMap devices = parse("Bus 003 Device 002: ID 0624:0248 Avocent Corp. Virtual Hub\n"
                           "  idVendor           0x0624 Avocent Corp.\n"
                           "Bus 003 Device 004: ID 0624:0249 Avocent Corp. Virtual Keyboard/Mouse\n"
                           "  iSerial                 3 20120430\n");
    ASSERT_EQ(keysOf(devices), (std::vector<std::string>{"/dev/bus/usb/003/002", "/dev/bus/usb/003/004"}));
    EXPECT_EQ(devices.at("/dev/bus/usb/003/004").serialNo, "20120430");
    EXPECT_EQ(devices.at("/dev/bus/usb/003/004").modelName, " Avocent Corp. Virtual Keyboard/Mouse");
    EXPECT_EQ(devices.at("/dev/bus/usb/003/002").serialNo, "");
    EXPECT_EQ(devices.at("/dev/bus/usb/003/002").vendorIdText, "0x0624");
}

TEST(LsusbParserTest, ALastLineWithoutNewlineLosesItsLastCharacter)
{
    UsbMap devices = parse("Bus 003 Device 004: ID 0624:0249 Avocent Corp. Virtual Keyboard/Mouse\n"
                           "  iSerial                 3 20120430");
    EXPECT_EQ(devices.at("/dev/bus/usb/003/004").serialNo, "2012043");
}

TEST(LsusbParserTest, TwoDeviceLinesOfOneBusAndDeviceGiveOneEntryTheFirst)
{
    UsbMap devices = parse("Bus 001 Device 003: ID 0781:5567 SanDisk Corp. Cruzer Blade\n"
                           "  iSerial                 3 FIRST\n"
                           "Bus 001 Device 003: ID 0930:6545 Toshiba Corp. Kingston DataTraveler\n"
                           "  iSerial                 3 SECOND\n");
    ASSERT_EQ(devices.size(), 1u);
    const Usb_Device& d = devices.at("/dev/bus/usb/001/003");
    EXPECT_EQ(d.modelName, " SanDisk Corp. Cruzer Blade");
    EXPECT_EQ(d.serialNo, "FIRST");
}

TEST(LsusbParserTest, AnEntryAlreadyInTheMapStays)
{
    host::FakeMachine machine;
    machine.setUname(kNewKernel, "x86_64");
    machine.addCommand(kLsusbV, capture("lab-server/lsusb-v.txt"));
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    Usb_Device earlier;
    earlier.devicePath = "/dev/bus/usb/002/002";
    earlier.modelName = "from sysfs";
    devices.insert(UsbMap::value_type(earlier.devicePath, earlier));
    ASSERT_TRUE(parser.getlsusbOutput(devices));
    EXPECT_EQ(devices.size(), 7u);
    EXPECT_EQ(devices.at("/dev/bus/usb/002/002").modelName, "from sysfs");
    EXPECT_EQ(devices.at("/dev/bus/usb/002/002").vendorIdText, "");
}

TEST(LsusbParserTest, AMissingToolThrowsTheShellsLineAndLeavesTheStreamOpen)
{
    host::FakeMachine machine; // no lsusb: the shell answers
    machine.setUname(kNewKernel, "x86_64");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    std::string thrown;
    try {
        parser.getlsusbOutput(devices);
    } catch (char* text) {
        thrown = text;
    }
    EXPECT_EQ(thrown, "sh: lsusb: command not found");
    EXPECT_TRUE(devices.empty());
    EXPECT_EQ(machine.commands(), std::vector<std::string>{kLsusbV});
    EXPECT_EQ(machine.openStreams(), 1u);
}

TEST(LsusbParserTest, CommandNotFoundAfterDevicesKeepsTheRecordsAlreadyInserted)
{
    host::FakeMachine machine;
    machine.setUname(kNewKernel, "x86_64");
    machine.addCommand(kLsusbV, "Bus 001 Device 002: ID 8087:0024 Intel Corp. Integrated Rate Matching Hub\n"
                                "Bus 001 Device 003: ID 046b:ff10 American Megatrends, Inc. Virtual Keyboard\n"
                                "/usr/bin/env: line 1: lsusb.real: command not found\n"
                                "Bus 001 Device 004: ID 046b:ff01 American Megatrends, Inc. Virtual Hub\n");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    std::string thrown;
    try {
        parser.getlsusbOutput(devices);
    } catch (char* text) {
        thrown = text;
    }
    EXPECT_EQ(thrown, "/usr/bin/env: line 1: lsusb.real: command not found");
    // The device in hand when the line came (003) never reaches the map.
    EXPECT_EQ(keysOf(devices), std::vector<std::string>{"/dev/bus/usb/001/002"});
    EXPECT_EQ(machine.openStreams(), 1u);
}

TEST(LsusbParserTest, ALineOfBusPoweredThatHoldsBus0BeginsNoDevice)
{
    UsbMap devices = parse("Bus 002 Device 003: ID 046d:c077 Logitech, Inc. M105 Optical Mouse\n"
                           "      (Bus Powered) Bus 005 Device 007:\n"
                           "  iSerial                 0 \n");
    ASSERT_EQ(keysOf(devices), std::vector<std::string>{"/dev/bus/usb/002/003"});
    EXPECT_EQ(devices.at("/dev/bus/usb/002/003").serialNo, "0");
    EXPECT_EQ(devices.at("/dev/bus/usb/002/003").deviceNum, "003");
}

TEST(LsusbParserTest, ALongLineArrivesInPiecesEachTreatedAsALine)
{
    // 255 characters fill the buffer: the first piece loses its last
    // character, and the rest of the line comes as a line of its own.
    std::string head = "  iSerial                 3 ";
    std::string serial(255 - head.size(), 'A');
    std::string tail = "bInterfaceClass        7 Printer";
    UsbMap devices = parse("Bus 001 Device 005: ID 04b8:0005 Seiko Epson Corp. Printer\n" + head + serial + tail +
                           "\n");
    const Usb_Device& d = devices.at("/dev/bus/usb/001/005");
    EXPECT_EQ(d.serialNo, serial.substr(0, serial.size() - 1));
    EXPECT_EQ(d.classText, "7");
    EXPECT_EQ(d.deviceClass, 7);
}

TEST(LsusbParserTest, ALineOfExactly255CharactersLosesItsLastOneAndTheNewlineIsPassedOver)
{
    std::string head = "  iProduct                2 ";
    std::string name(255 - head.size(), 'B');
    UsbMap devices = parse("Bus 001 Device 005: ID 04b8:0005 Seiko Epson Corp. Printer\n" + head + name +
                           "\n  iSerial                 3 S1\n");
    const Usb_Device& d = devices.at("/dev/bus/usb/001/005");
    EXPECT_EQ(d.productName, name.substr(0, name.size() - 1));
    EXPECT_EQ(d.serialNo, "S1");
}

TEST(LsusbParserTest, ADeviceLineWithoutBlankBehindTheIdsThrowsOutOfRangeThroughTheRun)
{
    host::FakeMachine machine;
    machine.setUname(kNewKernel, "x86_64");
    machine.addCommand(kLsusbV, "Bus 001 Device 002: ID 8087:0024 Intel Corp. Hub\n"
                                "Bus 001 Device 003: ID 8087:0025\n");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    EXPECT_THROW(parser.getlsusbOutput(devices), std::out_of_range);
    EXPECT_EQ(keysOf(devices), std::vector<std::string>{"/dev/bus/usb/001/002"});
    EXPECT_EQ(machine.openStreams(), 1u);
}

// --- The lsusb -D run ----------------------------------------------------------

TEST(LsusbParserTest, OneDeviceUnderDevIsAskedUnderProcAndOnlyTheKeyChanges)
{
    host::FakeMachine machine;
    machine.addCommand("lsusb -D /proc/bus/usb/001/002 | grep iSerial 2>&1",
                       "  iSerial                 3 1-0000:00:04.0-1\n");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices = parse(capture("lab-server/lsusb-v.txt"));
    Usb_Device d(devices.at("/dev/bus/usb/001/002"));
    d.serialNo = "";
    Usb_Device before(d);

    EXPECT_TRUE(parser.getInfoforOneUsbDev("/dev/bus/usb/001/002", "iSerial", &d));
    EXPECT_EQ(machine.commands(),
              std::vector<std::string>{"lsusb -D /proc/bus/usb/001/002 | grep iSerial 2>&1"});
    EXPECT_EQ(machine.openStreams(), 0u);
    before.serialNo = "1-0000:00:04.0-1";
    EXPECT_EQ(describe(d), describe(before));
}

TEST(LsusbParserTest, OneDeviceUnderProcIsAskedAsItStands)
{
    host::FakeMachine machine;
    machine.addCommand("lsusb -D /proc/bus/usb/002/003 | grep iProduct 2>&1",
                       "  iProduct                2 QEMU USB HARDDRIVE\n");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    Usb_Device d;
    EXPECT_TRUE(parser.getInfoforOneUsbDev("/proc/bus/usb/002/003", "iProduct", &d));
    EXPECT_EQ(machine.commands(),
              std::vector<std::string>{"lsusb -D /proc/bus/usb/002/003 | grep iProduct 2>&1"});
    EXPECT_EQ(d.productName, "QEMU USB HARDDRIVE");
    EXPECT_EQ(d.modelName, "QEMU USB HARDDRIVE");
}

TEST(LsusbParserTest, OneDeviceWithAPathOfNoKnownRootIsAskedAsItStands)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    Usb_Device d;
    parser.getInfoforOneUsbDev("002/003", "bcdUSB", &d);
    EXPECT_EQ(machine.commands(), std::vector<std::string>{"lsusb -D 002/003 | grep bcdUSB 2>&1"});
}

TEST(LsusbParserTest, OneDeviceTakesEveryLineThatTheFilterLetsThrough)
{
    host::FakeMachine machine;
    machine.addCommand("lsusb -D /proc/bus/usb/002/001 | grep Class 2>&1",
                       "  bDeviceClass            9 Hub\n      bInterfaceClass         9 Hub\n"
                       "      bInterfaceClass         3 Human Interface Device\n");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    Usb_Device d;
    EXPECT_TRUE(parser.getInfoforOneUsbDev("/dev/bus/usb/002/001", "Class", &d));
    EXPECT_EQ(d.classText, "3");
    EXPECT_EQ(d.deviceClass, 3);
}

TEST(LsusbParserTest, OneDeviceWithOnlyEmptyLinesOrNoOutputGivesFalse)
{
    host::FakeMachine machine;
    machine.addCommand("lsusb -D /proc/bus/usb/001/002 | grep iSerial 2>&1", "\n\n\n");
    machine.addCommand("lsusb -D /proc/bus/usb/001/003 | grep iSerial 2>&1", "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    Usb_Device d;
    EXPECT_FALSE(parser.getInfoforOneUsbDev("/dev/bus/usb/001/002", "iSerial", &d));
    EXPECT_FALSE(parser.getInfoforOneUsbDev("/dev/bus/usb/001/003", "iSerial", &d));
    EXPECT_EQ(describe(d), describe(Usb_Device()));
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST(LsusbParserTest, OneDeviceWithALineThatMatchesNoKeyStillGivesTrue)
{
    host::FakeMachine machine;
    machine.addCommand("lsusb -D /proc/bus/usb/001/002 | grep iSerial 2>&1", "x\n");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    Usb_Device d;
    EXPECT_TRUE(parser.getInfoforOneUsbDev("/dev/bus/usb/001/002", "iSerial", &d));
    EXPECT_EQ(describe(d), describe(Usb_Device()));
}

TEST(LsusbParserTest, OneDeviceThatCannotStartGivesFalse)
{
    RefusingMachine machine;
    machine.refuse("lsusb -D /proc/bus/usb/001/002 | grep iSerial 2>&1");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    Usb_Device d;
    EXPECT_FALSE(parser.getInfoforOneUsbDev("/dev/bus/usb/001/002", "iSerial", &d));
    EXPECT_EQ(d.serialNo, "");
}

TEST(LsusbParserTest, OneDeviceUsesTheRootAsItStandsEmptyBeforeTheFirstRun)
{
    host::FakeMachine machine;
    machine.addCommand("lsusb -D /proc/bus/usb/001/002 | grep Bus 2>&1",
                       "Bus 001 Device 002: ID 46f4:0001 QEMU QEMU USB HARDDRIVE\n");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    Usb_Device d;
    EXPECT_TRUE(parser.getInfoforOneUsbDev("/dev/bus/usb/001/002", "Bus", &d));
    EXPECT_EQ(d.devicePath, "001/002");
    EXPECT_EQ(d.modelName, " QEMU QEMU USB HARDDRIVE");
}

// --- The search operations ------------------------------------------------------

TEST(LsusbParserTest, GetFirstDigitFindsTheFirstDigitAtOrBehindStart)
{
    lsusbParser parser(nullptr);
    EXPECT_EQ(parser.getFirstDigit("  bcdUSB               2.00", 8), 23);
    EXPECT_EQ(parser.getFirstDigit("ab1cd2", 0), 2);
    EXPECT_EQ(parser.getFirstDigit("ab1cd2", 2), 2);
    EXPECT_EQ(parser.getFirstDigit("ab1cd2", 3), 5);
    EXPECT_EQ(parser.getFirstDigit("abcdef", 0), -1);
    EXPECT_EQ(parser.getFirstDigit("", 0), -1);
    EXPECT_EQ(parser.getFirstDigit("ab1", 3), -1);
    EXPECT_EQ(parser.getFirstDigit("ab1", 40), -1);
    // A start before the text, or no text: nothing is read and nothing found.
    EXPECT_EQ(parser.getFirstDigit("123", -1), -1);
    EXPECT_EQ(parser.getFirstDigit(nullptr, 0), -1);
    // Bytes above 127 are no digits.
    EXPECT_EQ(parser.getFirstDigit("\xb2\xb3" "4", 0), 2);
}

TEST(LsusbParserTest, GetFirstAlphaNumCharFindsTheFirstLetterOrDigitAtOrBehindStart)
{
    lsusbParser parser(nullptr);
    EXPECT_EQ(parser.getFirstAlphaNumChar("0x1d6b Linux Foundation", 6), 7);
    EXPECT_EQ(parser.getFirstAlphaNumChar("3 --(x)", 1), 5);
    EXPECT_EQ(parser.getFirstAlphaNumChar("3 -- ", 1), -1);
    EXPECT_EQ(parser.getFirstAlphaNumChar("a", 0), 0);
    EXPECT_EQ(parser.getFirstAlphaNumChar("", 0), -1);
    EXPECT_EQ(parser.getFirstAlphaNumChar("abc", 3), -1);
    EXPECT_EQ(parser.getFirstAlphaNumChar("abc", 100), -1);
    EXPECT_EQ(parser.getFirstAlphaNumChar("abc", -5), -1);
    EXPECT_EQ(parser.getFirstAlphaNumChar(nullptr, 0), -1);
    EXPECT_EQ(parser.getFirstAlphaNumChar("\xe9" "e", 0), 1);
}

TEST(LsusbParserTest, IsContrlCharReportsTheLowestCodePresentNotTheLeftmost)
{
    lsusbParser parser(nullptr);
    int position = -7;
    std::string line = "ab\x05" "cdefg\x02xyz";
    EXPECT_TRUE(parser.isContrlChar(line, position));
    EXPECT_EQ(position, 8);
}

TEST(LsusbParserTest, IsContrlCharTriesCodes1To30ButTabNewlineAndReturn)
{
    lsusbParser parser(nullptr);
    for (int code = 0; code < 128; ++code) {
        std::string line = "abc";
        line += static_cast<char>(code);
        line += "def";
        int position = -7;
        bool found = parser.isContrlChar(line, position);
        bool wanted = code >= 1 && code <= 30 && code != 9 && code != 10 && code != 13;
        EXPECT_EQ(found, wanted) << code;
        EXPECT_EQ(position, wanted ? 3 : -7) << code;
    }
}

TEST(LsusbParserTest, IsContrlCharFindsTheFirstOccurrenceOfItsCode)
{
    lsusbParser parser(nullptr);
    int position = 0;
    EXPECT_TRUE(parser.isContrlChar(std::string("\x1e" "a\x1e"), position));
    EXPECT_EQ(position, 0);
    EXPECT_FALSE(parser.isContrlChar("", position));
    EXPECT_EQ(position, 0);
}

// --- The line scanner, key by key -------------------------------------------------

TEST(LsusbParserTest, DeviceLineWithANameGivesPathNumberAndAModelWithALeadingBlank)
{
    host::FakeMachine machine;
    machine.setUname(kNewKernel, "x86_64");
    machine.addCommand(kLsusbV, "");
    host::ScopedMachine scope{machine};
    lsusbParser parser(nullptr);
    UsbMap devices;
    ASSERT_TRUE(parser.getlsusbOutput(devices));
    Usb_Device d;
    parser.parseBuffer("Bus 001 Device 003: ID 0624:0248 Avocent Corp. Virtual Hub", &d);
    EXPECT_EQ(d.devicePath, "/dev/bus/usb/001/003");
    EXPECT_EQ(d.deviceNum, "003");
    EXPECT_EQ(d.modelName, " Avocent Corp. Virtual Hub");
    // Nothing else.
    Usb_Device expected;
    expected.devicePath = d.devicePath;
    expected.deviceNum = d.deviceNum;
    expected.modelName = d.modelName;
    EXPECT_EQ(describe(d), describe(expected));
}

TEST(LsusbParserTest, DeviceLineOfDevice001GivesNoModelWhateverFollowsTheIds)
{
    Usb_Device d = scan({"Bus 002 Device 001: ID 1d6b:0002 Linux Foundation 2.0 root hub"});
    EXPECT_EQ(d.devicePath, "002/001");
    EXPECT_EQ(d.deviceNum, "001");
    EXPECT_EQ(d.modelName, "");
    // Even with nothing behind the ids, where another device would throw.
    Usb_Device bare = scan({"Bus 002 Device 001: ID 1d6b:0002"});
    EXPECT_EQ(bare.deviceNum, "001");
    EXPECT_EQ(bare.modelName, "");
}

TEST(LsusbParserTest, DeviceLineEndingInABlankBehindTheIdsLeavesTheModelEmpty)
{
    Usb_Device d = scan({"Bus 001 Device 003: ID 04b3:4010 "});
    EXPECT_EQ(d.deviceNum, "003");
    EXPECT_EQ(d.modelName, "");
}

TEST(LsusbParserTest, DeviceLineNeedsFiveCharactersFromTheBlankOn)
{
    EXPECT_EQ(scan({"Bus 001 Device 003: ID 04b3:4010 IBM"}).modelName, "");
    EXPECT_EQ(scan({"Bus 001 Device 003: ID 04b3:4010 IBMx"}).modelName, " IBMx");
}

TEST(LsusbParserTest, DeviceLineWithoutBlankBehindTheIdsThrowsOutOfRange)
{
    lsusbParser parser(nullptr);
    Usb_Device d;
    try {
        parser.parseBuffer("Bus 001 Device 003: ID 04b3:4010", &d);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_THAT(e.what(), ::testing::HasSubstr("basic_string::substr"));
    }
}

TEST(LsusbParserTest, DeviceLineAppendsToThePathItFinds)
{
    Usb_Device d = scan({"Bus 001 Device 003: ID 04b3:4010 IBM Corp.", "Bus 004 Device 009: ID 04b3:4010 IBM Corp."});
    EXPECT_EQ(d.devicePath, "001/003004/009");
    EXPECT_EQ(d.deviceNum, "009");
}

TEST(LsusbParserTest, DeviceLineTakesTheBusFromIndex4AndTheNumberUpToTheFirstColon)
{
    Usb_Device d = scan({"Bus 0012 Device 0123: ID 04b3:4010 IBM Corp."});
    EXPECT_EQ(d.devicePath, "0012/0123");
    EXPECT_EQ(d.deviceNum, "0123");
}

TEST(LsusbParserTest, UsbReleaseReplacesTheAdditionalInformation)
{
    Usb_Device d;
    d.addlHWInfo = release("1.10, Rev:1.00, Power:100mA Bus");
    lsusbParser parser(nullptr);
    parser.parseBuffer("  bcdUSB               2.00", &d);
    EXPECT_EQ(d.usbSpec, "2.00");
    EXPECT_EQ(d.addlHWInfo, release("2.00"));
}

TEST(LsusbParserTest, UsbReleaseIsSoughtFromIndex8)
{
    // The 2 of "bcdUSB2" lies before the column.
    Usb_Device d = scan({"bcdUSB2 3.00"});
    EXPECT_EQ(d.usbSpec, "3.00");
    EXPECT_EQ(scan({"  bcdUSB  none"}).usbSpec, "");
    EXPECT_EQ(scan({"  bcdUSB  none"}).addlHWInfo, "");
}

TEST(LsusbParserTest, VendorLineGivesIdTextNumberAndName)
{
    Usb_Device d = scan({"  idVendor           0x8087 Intel Corp."});
    EXPECT_EQ(d.vendorIdText, "0x8087");
    EXPECT_EQ(d.vendorId, 0x8087);
    EXPECT_EQ(d.vendorName, "Intel Corp.");
}

TEST(LsusbParserTest, VendorLineWithoutNameKeepsTheName)
{
    Usb_Device d;
    d.vendorName = "SZH";
    lsusbParser parser(nullptr);
    parser.parseBuffer("  idVendor           0xc0f4 ", &d);
    EXPECT_EQ(d.vendorIdText, "0xc0f4");
    EXPECT_EQ(d.vendorId, 0xc0f4);
    EXPECT_EQ(d.vendorName, "SZH");
    parser.parseBuffer("  idVendor           0x0ab1", &d);
    EXPECT_EQ(d.vendorIdText, "0x0ab1");
    EXPECT_EQ(d.vendorName, "SZH");
}

TEST(LsusbParserTest, VendorLineNameStartsAtTheFirstLetterOrDigit)
{
    EXPECT_EQ(scan({"  idVendor           0x0424 (formerly SMSC)"}).vendorName, "formerly SMSC)");
}

TEST(LsusbParserTest, VendorLineHolding0x0000LeavesTheVendorUntouched)
{
    Usb_Device d;
    d.vendorId = 0x1234;
    d.vendorIdText = "0x1234";
    d.vendorName = "kept";
    lsusbParser parser(nullptr);
    parser.parseBuffer("  idVendor           0x0000 ", &d);
    EXPECT_EQ(d.vendorId, 0x1234);
    EXPECT_EQ(d.vendorIdText, "0x1234");
    EXPECT_EQ(d.vendorName, "kept");
    // "0x0000" anywhere in the line, even inside a longer id.
    parser.parseBuffer("  idVendor           0x00001", &d);
    EXPECT_EQ(d.vendorIdText, "0x1234");
}

TEST(LsusbParserTest, VendorLineHolding0x0000GoesOnToTheLaterKeys)
{
    Usb_Device d = scan({"  idVendor           0x0000 Self Powered"});
    EXPECT_EQ(d.selfPowered, 1);
    EXPECT_EQ(d.vendorIdText, "");
    Usb_Device product = scan({"  idVendor 0x0000 idProduct   0x0001 x"});
    EXPECT_EQ(product.productIdText, "0x0000");
    EXPECT_EQ(product.productId, 0);
}

TEST(LsusbParserTest, ProductLineHolding0x0000SetsTheProductTo0)
{
    Usb_Device d;
    d.productId = 0x55aa;
    lsusbParser parser(nullptr);
    parser.parseBuffer("  idProduct          0x0000 ", &d);
    EXPECT_EQ(d.productId, 0);
    EXPECT_EQ(d.productIdText, "0x0000");
    EXPECT_EQ(d.modelName, "");
}

TEST(LsusbParserTest, ProductLineNamesTheModelOnlyWhenItIsEmpty)
{
    Usb_Device d = scan({"  idProduct          0x0002 2.0 root hub"});
    EXPECT_EQ(d.productIdText, "0x0002");
    EXPECT_EQ(d.productId, 2);
    EXPECT_EQ(d.modelName, "2.0 root hub");
    Usb_Device named = scan({"Bus 001 Device 002: ID 8087:0024 Intel Corp. Integrated Rate Matching Hub",
                             "  idProduct          0x0024 Integrated Rate Matching Hub"});
    EXPECT_EQ(named.productId, 0x24);
    EXPECT_EQ(named.modelName, " Intel Corp. Integrated Rate Matching Hub");
}

TEST(LsusbParserTest, ProductLineIsSoughtFromIndex11)
{
    // Digits before the column do not count.
    Usb_Device d = scan({"idProduct1 0x00ff x"});
    EXPECT_EQ(d.productIdText, "0x00ff");
    EXPECT_EQ(d.productId, 0xff);
}

TEST(LsusbParserTest, DeviceReleaseAddsItsRevisionUnlessItHolds0Point00)
{
    Usb_Device d = scan({"  bcdUSB               2.00", "  bcdDevice            5.04"});
    EXPECT_EQ(d.firmwareRev, "5.04");
    EXPECT_EQ(d.addlHWInfo, release("2.00, Rev:5.04"));
}

TEST(LsusbParserTest, DeviceReleaseOf0Point00IsKeptButAddsNothing)
{
    Usb_Device d = scan({"  bcdUSB               2.00", "  bcdDevice            0.00"});
    EXPECT_EQ(d.firmwareRev, "0.00");
    EXPECT_EQ(d.addlHWInfo, release("2.00"));
}

TEST(LsusbParserTest, DeviceReleaseOf10Point00HoldsTheTextAndAddsNothing)
{
    Usb_Device d = scan({"  bcdUSB               2.00", "  bcdDevice           10.00"});
    EXPECT_EQ(d.firmwareRev, "10.00");
    EXPECT_EQ(d.addlHWInfo, release("2.00"));
}

TEST(LsusbParserTest, ManufacturerLineGivesIndexAndStringAndTheVendorNameWhenItIsEmpty)
{
    Usb_Device d = scan({"  iManufacturer           3 Linux 2.6.32 ehci_hcd"});
    EXPECT_EQ(d.manufacturerIndex, "3");
    EXPECT_EQ(d.manufacturer, "Linux 2.6.32 ehci_hcd");
    EXPECT_EQ(d.vendorName, "Linux 2.6.32 ehci_hcd");
    Usb_Device named = scan({"  idVendor           0x1d6b Linux Foundation",
                             "  iManufacturer           3 Linux 2.6.32 ehci_hcd"});
    EXPECT_EQ(named.vendorName, "Linux Foundation");
}

TEST(LsusbParserTest, ManufacturerLineWithIndex0AndNoStringGivesTheIndexOnly)
{
    Usb_Device d = scan({"  iManufacturer           0 "});
    EXPECT_EQ(d.manufacturerIndex, "0");
    EXPECT_EQ(d.manufacturer, "");
    EXPECT_EQ(d.vendorName, "");
}

TEST(LsusbParserTest, ManufacturerLineWithoutDigitStillCopiesTheManufacturer)
{
    Usb_Device d;
    d.manufacturer = "Avocent";
    lsusbParser parser(nullptr);
    parser.parseBuffer("  iManufacturer  none", &d);
    EXPECT_EQ(d.manufacturerIndex, "");
    EXPECT_EQ(d.vendorName, "Avocent");
}

TEST(LsusbParserTest, ProductLineWithIndex0AndNoTextSetsTheProductNameTo0)
{
    Usb_Device d = scan({"  iProduct                0 "});
    EXPECT_EQ(d.productName, "0");
    EXPECT_EQ(d.modelName, "0");
    Usb_Device bare = scan({"  iProduct                0"});
    EXPECT_EQ(bare.productName, "0");
}

TEST(LsusbParserTest, ProductLineGivesTheStringAndTheModelWhenItIsEmpty)
{
    Usb_Device d = scan({"  iProduct                1  USB OPTICAL MOUSE"});
    EXPECT_EQ(d.productName, "USB OPTICAL MOUSE");
    EXPECT_EQ(d.modelName, "USB OPTICAL MOUSE");
    Usb_Device named = scan({"  idProduct          0x0002 2.0 root hub", "  iProduct                2 EHCI"});
    EXPECT_EQ(named.productName, "EHCI");
    EXPECT_EQ(named.modelName, "2.0 root hub");
    EXPECT_FALSE(named.endDevice);
}

TEST(LsusbParserTest, ProductLineNamingKX7700OrRDXMarksAnEndDevice)
{
    EXPECT_TRUE(scan({"  iProduct                2 DAT KX7700 USB"}).endDevice);
    EXPECT_TRUE(scan({"  iProduct                2 RDX Removable Disk"}).endDevice);
    EXPECT_TRUE(scan({"  iProduct                2 USB-RDX"}).endDevice);
    // Case counts.
    EXPECT_FALSE(scan({"  iProduct                2 rdx drive"}).endDevice);
    EXPECT_FALSE(scan({"  iProduct                2 KX770"}).endDevice);
}

TEST(LsusbParserTest, EndDeviceStaysWhenTheDeviceTurnsOutToBeAHub)
{
    Usb_Device d = scan({"Bus 001 Device 004: ID 1234:5678 Vendor RDX dock", "  bDeviceClass            9 Hub",
                         "  iProduct                2 RDX dock", "      bInterfaceClass         9 Hub",
                         "  iProduct                0 "});
    EXPECT_EQ(d.deviceClass, 9);
    EXPECT_EQ(d.productName, "0");
    EXPECT_TRUE(d.endDevice);
}

TEST(LsusbParserTest, SerialLineGivesTheStringOrTheIndexAlone)
{
    EXPECT_EQ(scan({"  iSerial                 1 0000:00:1d.7"}).serialNo, "0000:00:1d.7");
    EXPECT_EQ(scan({"  iSerial                 0 "}).serialNo, "0");
    EXPECT_EQ(scan({"  iSerial                 1 --"}).serialNo, "1");
    EXPECT_EQ(scan({"  iSerial                10 28754-0000:00:01.2-1.2"}).serialNo, "28754-0000:00:01.2-1.2");
}

TEST(LsusbParserTest, SerialLineChangesNothingElse)
{
    Usb_Device d = scan({"  iSerial                 3 ABC"});
    Usb_Device expected;
    expected.serialNo = "ABC";
    EXPECT_EQ(describe(d), describe(expected));
}

TEST(LsusbParserTest, PowerLinesGiveTheDrawAndTheSourceSetBeforeThem)
{
    EXPECT_EQ(scan({"    MaxPower              100mA"}).addlHWInfo, ", Power:100mA Bus");
    EXPECT_EQ(scan({"      Self Powered", "    MaxPower                0mA"}).addlHWInfo, ", Power:0mA Self");
    // Self Powered after the power line comes too late for it.
    Usb_Device late = scan({"    MaxPower                2mA", "  Self Powered"});
    EXPECT_EQ(late.addlHWInfo, ", Power:2mA Bus");
    EXPECT_EQ(late.selfPowered, 1);
}

TEST(LsusbParserTest, PowerLineWithoutMaGetsItsUnitAdded)
{
    EXPECT_EQ(scan({"    MaxPower              100"}).addlHWInfo, ", Power:100mA Bus");
    EXPECT_EQ(scan({"    MaxPower                 "}).addlHWInfo, "");
}

TEST(LsusbParserTest, AFullDeviceRunsReleaseRevisionPowerSource)
{
    Usb_Device d = scan({"  bcdUSB               2.00", "  bcdDevice            1.03", "      Self Powered",
                         "    MaxPower                0mA"});
    EXPECT_EQ(d.addlHWInfo, release("2.00, Rev:1.03, Power:0mA Self"));
}

TEST(LsusbParserTest, InterfaceClassAndSubClassTakeTheDigitsUpToTheBlankTheLastOneWins)
{
    Usb_Device d = scan({"      bInterfaceClass         2 Communications", "      bInterfaceSubClass      2 Abstract",
                         "      bInterfaceClass       255 Vendor Specific Class",
                         "      bInterfaceSubClass     66 "});
    EXPECT_EQ(d.classText, "255");
    EXPECT_EQ(d.deviceClass, 255);
    EXPECT_EQ(d.subClassText, "66");
    EXPECT_EQ(d.deviceSubClass, 66);
}

TEST(LsusbParserTest, InterfaceClassWithoutBlankRunsToTheEnd)
{
    Usb_Device d = scan({"      bInterfaceClass         8"});
    EXPECT_EQ(d.classText, "8");
    EXPECT_EQ(d.deviceClass, 8);
    // Digits beyond an int are held at its limit.
    EXPECT_EQ(scan({"      bInterfaceClass         99999999999999999999"}).deviceClass, 2147483647);
}

TEST(LsusbParserTest, DeviceClassLinesAreNoInterfaceClass)
{
    Usb_Device d = scan({"  bDeviceClass            9 Hub", "  bDeviceSubClass         0 Unused"});
    EXPECT_EQ(describe(d), describe(Usb_Device()));
}

TEST(LsusbParserTest, LinesThatMatchNoKeyChangeNothing)
{
    lsusbParser parser(nullptr);
    Usb_Device d;
    const char* const lines[] = {"Device Descriptor:", "  bLength                18", "  bMaxPacketSize0        64",
                                 "   Port 1: 0000.0503 highspeed power enable connect", "Device Status:     0x0001",
                                 "      (Bus Powered)", "        wMaxPacketSize     0x0200  1x 512 bytes", ""};
    for (const char* line : lines) {
        parser.parseBuffer(line, &d);
    }
    EXPECT_EQ(describe(d), describe(Usb_Device()));
}

TEST(LsusbParserTest, TheFirstKeyInOrderTakesTheLine)
{
    Usb_Device d = scan({"  bcdUSB 2.00 idVendor 0x8087 iSerial 3 x"});
    EXPECT_EQ(d.usbSpec, "2.00 idVendor 0x8087 iSerial 3 x");
    EXPECT_EQ(d.vendorIdText, "");
    EXPECT_EQ(d.serialNo, "");
    Usb_Device product = scan({"  iProduct                2 iSerial 5"});
    EXPECT_EQ(product.productName, "iSerial 5");
    EXPECT_EQ(product.serialNo, "");
}

TEST(LsusbParserTest, ALineWithAControlCharacterAtIndex10ContinuesAsItsFirst9Characters)
{
    // "bcdUSB  12" with the control character after the 2: the 2 goes too.
    Usb_Device d = scan({std::string("bcdUSB  12\x01tail")});
    EXPECT_EQ(d.usbSpec, "1");
    EXPECT_EQ(d.addlHWInfo, release("1"));
}

TEST(LsusbParserTest, ALineIsCutAtTheLowestControlCodeNotTheLeftmost)
{
    // Code 2 at index 18 decides, not code 5 at index 15.
    Usb_Device d = scan({std::string("  iSerial  3 AB\x05" "CD\x02" "EF")});
    EXPECT_EQ(d.serialNo, "AB\x05" "C");
}

TEST(LsusbParserTest, AControlCharacterAtIndex0CutsNothing)
{
    Usb_Device d = scan({std::string("\x01  iSerial  3 AB")});
    EXPECT_EQ(d.serialNo, "AB");
}

TEST(LsusbParserTest, TabsAndCarriageReturnsAreNoControlCharacters)
{
    EXPECT_EQ(scan({std::string("  iSerial  3 A\tB\rC")}).serialNo, "A\tB\rC");
}

TEST(LsusbParserTest, ACutLineCanLoseItsKey)
{
    Usb_Device d = scan({std::string("  iSerial\x07 3 AB")});
    EXPECT_EQ(describe(d), describe(Usb_Device()));
}

TEST(LsusbParserTest, ALineForNoRecordIsDropped)
{
    lsusbParser parser(nullptr);
    parser.parseBuffer("  iSerial                 3 ABC", nullptr);
    EXPECT_NO_THROW(parser.parseBuffer("Bus 001 Device 003: ID 04b3:4010", nullptr));
}

// The ports of a hub: the port table by ioctl or rebuilt from the text of
// /proc/bus/usb/devices (chosen by kernel release and machine), the device
// on a port, and the over-current state of a port and what hangs below it.
#include "usb/UsbIoctls.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/models/UsbfsModel.h"
#include "tests/support/Machines.h"
#include "tests/support/SysfsTree.h"
#include "usb/UsbDevicesText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <sstream>
#include <stdexcept>

using namespace Vantrel::Ostrand;
using host::UsbfsModel;
using ostrand_test::SysfsTree;

namespace {

const char* const kFolder = "tests/captures/lab-server/usbfs";

// The topology lines of the lab server's /proc/bus/usb/devices.
const char* const kLabTopology =
    "T:  Bus=01 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=480  MxCh= 6\n"
    "T:  Bus=01 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=480  MxCh= 0\n"
    "T:  Bus=02 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=12   MxCh= 2\n"
    "T:  Bus=02 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=12   MxCh= 8\n"
    "T:  Bus=02 Lev=02 Prnt=02 Port=00 Cnt=01 Dev#=  4 Spd=12   MxCh= 0\n"
    "T:  Bus=02 Lev=02 Prnt=02 Port=01 Cnt=02 Dev#=  5 Spd=12   MxCh= 0\n"
    "T:  Bus=02 Lev=01 Prnt=01 Port=01 Cnt=02 Dev#=  3 Spd=12   MxCh= 0\n";

// The lines of `text` that a grep pattern of letters, digits, blanks and
// wildcard dots matches.
std::string grep(const std::string& text, const std::string& pattern)
{
    std::regex expression(pattern);
    std::istringstream lines(text);
    std::string line;
    std::string out;
    while (std::getline(lines, line)) {
        if (std::regex_search(line, expression)) {
            out += line + "\n";
        }
    }
    return out;
}

class UsbPortStateTest : public ::testing::Test {
protected:
    // The lab server's seven usbfs nodes under `root` ("/dev/bus/usb" or
    // "/proc/bus/usb").
    void loadLabNodes(const std::string& root)
    {
        std::string text = ostrand_test::sourceFile(std::string(kFolder) + "/machine-fragment.txt");
        for (std::string::size_type at = text.find("/dev/bus/usb"); at != std::string::npos;
             at = text.find("/dev/bus/usb", at + root.size())) {
            text.replace(at, 12, root);
        }
        host::loadMachineText(machine, text, std::string(OSTRAND_SOURCE_DIR) + "/" + kFolder);
    }

    // The grep runs of the text route for the hub with this bus and device
    // text, answered from `topology` as grep would.
    void addTextRoute(const std::string& topology, const std::string& bus, const std::string& device, int ports)
    {
        std::string hubLine = hubLineCommand(bus, device);
        int number = std::stoi(device);
        std::string out = grep(topology, "T:  Bus=" + bus + " Lev=...Prnt=" + (number == 1 ? "00" : "..."));
        if (number != 1) {
            out = grep(out, "Dev#=  " + std::to_string(number));
        }
        machine.addCommand(hubLine, out);
        for (int port = 0; port < ports; ++port) {
            char index[16];
            std::snprintf(index, sizeof index, "%02d", port);
            machine.addCommand(portLineCommand(bus, device, port),
                               grep(topology, "T:  Bus=" + bus + " Lev=...Prnt=" + device + " Port=" + index));
        }
    }

    std::shared_ptr<UsbfsModel> model(const std::string& path)
    {
        return std::dynamic_pointer_cast<UsbfsModel>(machine.model(path));
    }

    std::vector<int> table(const usbdevfs_hub_portinfo& info, int entries)
    {
        std::vector<int> out;
        out.push_back(static_cast<signed char>(info.nports));
        for (int i = 0; i < entries; ++i) {
            out.push_back(static_cast<signed char>(info.port[i]));
        }
        return out;
    }

    bool allZero(const usbdevfs_hub_portinfo& info)
    {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&info);
        for (size_t i = 0; i < sizeof info; ++i) {
            if (bytes[i] != 0) {
                return false;
            }
        }
        return true;
    }

    usbdevfs_hub_portinfo filled()
    {
        usbdevfs_hub_portinfo info;
        std::memset(&info, 0x55, sizeof info);
        return info;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    UsbIoctls usb{nullptr};
};

struct RouteCase {
    const char* release;
    const char* machine;
    bool ioctl;
};

class UsbPortRouteTest : public UsbPortStateTest, public ::testing::WithParamInterface<RouteCase> {};

} // namespace

// --- The two routes --------------------------------------------------------------

TEST_P(UsbPortRouteTest, TheRouteFollowsReleaseAndMachine)
{
    const RouteCase& c = GetParam();
    machine.setUname(c.release, c.machine);
    loadLabNodes("/proc/bus/usb");
    addTextRoute(kLabTopology, "02", "02", 8);
    usbdevfs_hub_portinfo info = filled();
    EXPECT_TRUE(usb.getHubPortInfo("/proc/bus/usb/002/002", &info, -1));
    // Both routes give the hub's eight ports, the keyboard on the first
    // and the tablet on the second.
    EXPECT_EQ(table(info, 8), (std::vector<int>{8, 4, 5, 0, 0, 0, 0, 0, 0}));
    if (c.ioctl) {
        EXPECT_TRUE(machine.commands().empty());
        EXPECT_EQ(machine.ioctlNames("/proc/bus/usb/002/002"),
                  std::vector<std::string>{"USBDEVFS_IOCTL HUB_PORTINFO"});
        EXPECT_EQ(model("/proc/bus/usb/002/002")->openFlags(), std::vector<int>{O_RDWR});
    } else {
        EXPECT_EQ(machine.commands().size(), 9u);
        EXPECT_TRUE(machine.ioctls().empty());
        EXPECT_TRUE(machine.opens().empty());
    }
    EXPECT_TRUE(machine.openDescriptors().empty());
}

INSTANTIATE_TEST_SUITE_P(Releases, UsbPortRouteTest,
                         ::testing::Values(RouteCase{"2.6.5-7.244-smp", "x86_64", false},
                                           RouteCase{"2.6.16", "x86_64", true},
                                           RouteCase{"2.6.9-34.ELsmp", "x86_64", true},
                                           RouteCase{"2.6.9-33.ELsmp", "x86_64", false},
                                           RouteCase{"2.4.21-40.ELsmp", "x86_64", true},
                                           RouteCase{"2.4.21-39.ELsmp", "x86_64", false},
                                           RouteCase{"3.0.4", "x86_64", true},
                                           RouteCase{"3.0.3", "x86_64", false},
                                           RouteCase{"3.1.0", "x86_64", false},
                                           RouteCase{"2.6.61-56-amd64", "x86_64", true},
                                           RouteCase{"6.1.0-56-amd64", "x86_64", false},
                                           RouteCase{"6.1.0-56-amd64", "i686", true},
                                           RouteCase{"2.6.5-7.244-smp", "ppc64", true},
                                           RouteCase{"3.1.0", "aarch64", true}),
                         [](const ::testing::TestParamInfo<RouteCase>& info) {
                             std::string name = std::string(info.param.release) + "_" + info.param.machine;
                             for (char& c : name) {
                                 if (std::isalnum(static_cast<unsigned char>(c)) == 0) {
                                     c = '_';
                                 }
                             }
                             return name;
                         });

TEST_F(UsbPortStateTest, TextRouteRunsTheHubsGrepThenOneGrepAPort)
{
    machine.setUname("6.1.0-56-amd64", "x86_64");
    addTextRoute(kLabTopology, "02", "01", 2);
    usbdevfs_hub_portinfo info = filled();
    EXPECT_TRUE(usb.getHubPortInfo("/proc/bus/usb/002/001", &info, -1));
    EXPECT_EQ(machine.commands(),
              (std::vector<std::string>{
                  "grep \"T:  Bus=02 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1",
                  "grep \"T:  Bus=02 Lev=...Prnt=01 Port=00\" /proc/bus/usb/devices 2>&1",
                  "grep \"T:  Bus=02 Lev=...Prnt=01 Port=01\" /proc/bus/usb/devices 2>&1"}));
    EXPECT_EQ(table(info, 3), (std::vector<int>{2, 2, 3, 0}));
    // The table was cleared first: nothing of the old bytes stays.
    EXPECT_EQ(info.port[100], 0);
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(UsbPortStateTest, TextRouteFindsAHubBelowARootHubByItsOneDigitNumber)
{
    machine.setUname("6.1.0-56-amd64", "x86_64");
    addTextRoute(kLabTopology, "02", "02", 8);
    usbdevfs_hub_portinfo info;
    usb.getHubPortInfo("/proc/bus/usb/002/002", &info, -1);
    EXPECT_EQ(machine.commands().front(),
              "grep \"T:  Bus=02 Lev=...Prnt=...\" /proc/bus/usb/devices|grep \"Dev#=  2\" 2>&1");
    EXPECT_EQ(machine.commands()[1], "grep \"T:  Bus=02 Lev=...Prnt=02 Port=00\" /proc/bus/usb/devices 2>&1");
    EXPECT_EQ(machine.commands().back(), "grep \"T:  Bus=02 Lev=...Prnt=02 Port=07\" /proc/bus/usb/devices 2>&1");
}

TEST_F(UsbPortStateTest, TextRouteWithPortCountZeroIsTrueAndAllZero)
{
    machine.setUname("6.1.0-56-amd64", "x86_64");
    addTextRoute(kLabTopology, "01", "02", 0);
    usbdevfs_hub_portinfo info = filled();
    EXPECT_TRUE(usb.getHubPortInfo("/proc/bus/usb/001/002", &info, -1));
    EXPECT_TRUE(allZero(info));
    EXPECT_EQ(machine.commands().size(), 1u);
}

TEST_F(UsbPortStateTest, TextRouteFindsNoLineForDeviceNumberTwelve)
{
    machine.setUname("6.1.0-56-amd64", "x86_64");
    std::string topology = "T:  Bus=01 Lev=01 Prnt=01 Port=03 Cnt=01 Dev#= 12 Spd=480  MxCh= 4\n";
    addTextRoute(topology, "01", "12", 0);
    usbdevfs_hub_portinfo info = filled();
    EXPECT_TRUE(usb.getHubPortInfo("/proc/bus/usb/001/012", &info, -1));
    EXPECT_EQ(machine.commands(), std::vector<std::string>{
                                      "grep \"T:  Bus=01 Lev=...Prnt=...\" /proc/bus/usb/devices|grep \"Dev#=  12\" 2>&1"});
    EXPECT_TRUE(allZero(info));
}

TEST_F(UsbPortStateTest, TextRouteGivesNoPortsToAHubOfTenOrMore)
{
    machine.setUname("6.1.0-56-amd64", "x86_64");
    std::string topology = "T:  Bus=03 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=480  MxCh=10\n";
    addTextRoute(topology, "03", "01", 0);
    usbdevfs_hub_portinfo info = filled();
    EXPECT_TRUE(usb.getHubPortInfo("/proc/bus/usb/003/001", &info, -1));
    EXPECT_TRUE(allZero(info));
}

TEST_F(UsbPortStateTest, TextRouteWithoutTheDevicesFileGetsGrepsErrorAndAnEmptyTable)
{
    machine.setUname("6.1.0-56-amd64", "x86_64");
    machine.addCommand("grep \"T:  Bus=02 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1",
                       "grep: /proc/bus/usb/devices: No such file or directory\n");
    usbdevfs_hub_portinfo info = filled();
    EXPECT_TRUE(usb.getHubPortInfo("/proc/bus/usb/002/001", &info, -1));
    EXPECT_TRUE(allZero(info));
}

TEST_F(UsbPortStateTest, TextRouteTakesTheLastLineWhenSeveralMatch)
{
    machine.setUname("6.1.0-56-amd64", "x86_64");
    // Device 2 of every parent on bus 2: both lines pass the second grep.
    machine.addCommand("grep \"T:  Bus=02 Lev=...Prnt=...\" /proc/bus/usb/devices|grep \"Dev#=  2\" 2>&1",
                       "T:  Bus=02 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=12   MxCh= 8\n"
                       "T:  Bus=02 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=12   MxCh= 1\n");
    usbdevfs_hub_portinfo info = filled();
    EXPECT_TRUE(usb.getHubPortInfo("/proc/bus/usb/002/002", &info, -1));
    EXPECT_EQ(table(info, 1), (std::vector<int>{1, 0}));
}

TEST_F(UsbPortStateTest, TextRouteOnAPathTooShortThrowsOutOfRange)
{
    machine.setUname("6.1.0-56-amd64", "x86_64");
    usbdevfs_hub_portinfo info;
    try {
        usb.getHubPortInfo("/dev/usb/1", &info, -1);
        FAIL() << "no exception";
    } catch (const std::out_of_range& error) {
        EXPECT_NE(std::string(error.what()).find("basic_string::substr"), std::string::npos) << error.what();
    }
    EXPECT_TRUE(machine.commands().empty());
}

TEST_F(UsbPortStateTest, TextRouteIsFalseWhenGrepCannotStart)
{
    class NoShell : public host::FakeMachine {
    public:
        FILE* popen(const char*, const char*) override { return nullptr; }
    } noShell;
    host::ScopedMachine inner(noShell);
    noShell.setUname("6.1.0-56-amd64", "x86_64");
    usbdevfs_hub_portinfo info;
    EXPECT_FALSE(usb.getHubPortInfo("/proc/bus/usb/002/001", &info, -1));
}

TEST_F(UsbPortStateTest, IoctlRouteOnAMissingNodeIsFalse)
{
    machine.setUname("2.6.16", "x86_64");
    usbdevfs_hub_portinfo info = filled();
    EXPECT_FALSE(usb.getHubPortInfo("/dev/bus/usb/009/001", &info, -1));
    EXPECT_EQ(info.nports, 0x55);
}

TEST_F(UsbPortStateTest, IoctlRouteUsesAnOpenDescriptorAndNeverClosesIt)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    ASSERT_GE(fd, 0);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    // The path is not looked at: the open descriptor is.
    EXPECT_TRUE(usb.getHubPortInfo("/dev/bus/usb/002/002", &info, fd));
    EXPECT_EQ(table(info, 2), (std::vector<int>{2, 2, 3}));
    EXPECT_EQ(machine.opens().size(), 1u);
    EXPECT_EQ(machine.openDescriptors().size(), 1u);
    host::close(fd);
}

TEST_F(UsbPortStateTest, IoctlRouteIsTrueWhenTheIoctlFails)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    usbdevfs_hub_portinfo info = filled();
    // The tablet has no hub driver: the ioctl fails, the table stays.
    EXPECT_TRUE(usb.getHubPortInfo("/dev/bus/usb/002/005", &info, -1));
    EXPECT_EQ(info.nports, 0x55);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

// --- Text of a line ------------------------------------------------------------------

TEST(UsbDevicesTextTest, PortCountAndDeviceNumberOfALine)
{
    std::string hub = "T:  Bus=02 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=12   MxCh= 8\n";
    EXPECT_EQ(portCountOfLine(hub), 8);
    EXPECT_EQ(deviceNumberOfLine(hub), 2);
    EXPECT_EQ(deviceNumberOfLine("T:  Bus=01 Lev=01 Prnt=01 Port=03 Cnt=01 Dev#=127 Spd=480  MxCh= 0\n"), 127);
    // The last character is cut whatever it is.
    EXPECT_EQ(portCountOfLine("T:  Bus=01 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=480  MxCh= 64"), 6);
}

TEST(UsbDevicesTextTest, ALineWithoutTheKeyIsReadFromItsFifthCharacter)
{
    EXPECT_EQ(portCountOfLine("grep: /proc/bus/usb/devices: No such file or directory\n"), 0);
    EXPECT_EQ(portCountOfLine("abcd12 and more\n"), 12);
    EXPECT_EQ(deviceNumberOfLine("abcd345\n"), 345);
    EXPECT_EQ(portCountOfLine("abcd\n"), 0);
}

TEST(UsbDevicesTextTest, ALineShorterThanFiveCharactersThrows)
{
    EXPECT_THROW(portCountOfLine("abc\n"), std::out_of_range);
    EXPECT_THROW(deviceNumberOfLine("ab\n"), std::out_of_range);
    EXPECT_THROW(portCountOfLine(""), std::out_of_range);
}

TEST(UsbDevicesTextTest, CommandLines)
{
    EXPECT_EQ(hubLineCommand("01", "01"), "grep \"T:  Bus=01 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1");
    EXPECT_EQ(hubLineCommand("01", "07"),
              "grep \"T:  Bus=01 Lev=...Prnt=...\" /proc/bus/usb/devices|grep \"Dev#=  7\" 2>&1");
    EXPECT_EQ(portLineCommand("02", "02", 11),
              "grep \"T:  Bus=02 Lev=...Prnt=02 Port=11\" /proc/bus/usb/devices 2>&1");
}

TEST(UsbDevicesTextTest, TheLabServersTopologyLinesAreTheCapturedOnes)
{
    std::string text = ostrand_test::sourceFile("tests/captures/lab-server/usb-devices-debugfs.txt");
    std::istringstream lines(text);
    std::string line;
    std::string topology;
    while (std::getline(lines, line)) {
        if (line.rfind("T:", 0) == 0) {
            topology += line + "\n";
        }
    }
    EXPECT_EQ(topology, kLabTopology);
}

// --- The device on a port ---------------------------------------------------------------

TEST_F(UsbPortStateTest, PortBusyForPortThreeOfAHubWithDevicesAtEntriesZeroAndTwo)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    model("/dev/bus/usb/002/002")->setPortInfo({4, 0, 5, 0});
    UsbMap devices;
    Usb_Device tablet;
    tablet.classText = "00";
    tablet.subClassText = "00";
    tablet.vendorIdText = "0627";
    tablet.productIdText = "0001";
    tablet.serialNo = "28754-0000:00:01.2-1.2";
    tablet.firmwareRev = "";
    devices.insert(UsbMap::value_type("/dev/bus/usb/002/005", tablet));
    devices.insert(UsbMap::value_type("/dev/bus/usb/002/004", Usb_Device()));

    std::string info = "untouched";
    EXPECT_TRUE(usb.isPortBusy("/dev/bus/usb/002/002", 1, info, devices, -1));
    EXPECT_EQ(info, ":![]!!1");
    info = "untouched";
    EXPECT_FALSE(usb.isPortBusy("/dev/bus/usb/002/002", 2, info, devices, -1));
    EXPECT_EQ(info, "untouched");
    EXPECT_TRUE(usb.isPortBusy("/dev/bus/usb/002/002", 3, info, devices, -1));
    EXPECT_EQ(info, "00:00!0627[0001]28754-0000:00:01.2-1.2!!3");
    // Only port 1 read the table.
    EXPECT_EQ(machine.ioctlNames("/dev/bus/usb/002/002"), std::vector<std::string>{"USBDEVFS_IOCTL HUB_PORTINFO"});
}

TEST_F(UsbPortStateTest, PortBusyBeforePortOneFindsNothing)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    UsbMap devices;
    devices.insert(UsbMap::value_type("/dev/bus/usb/002/005", Usb_Device()));
    std::string info;
    EXPECT_FALSE(usb.isPortBusy("/dev/bus/usb/002/002", 2, info, devices, -1));
    EXPECT_TRUE(machine.ioctls().empty());
    EXPECT_FALSE(usb.isPortBusy("/dev/bus/usb/002/002", 0, info, devices, -1));
    EXPECT_FALSE(usb.isPortBusy("/dev/bus/usb/002/002", 500, info, devices, -1));
}

TEST_F(UsbPortStateTest, PortBusyWithAMapLackingThePathIsFalseWithoutALookAtSysfs)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    SysfsTree tree;
    tree.device("pci0000:00/0000:00:01.2/usb2/2-1/2-1.1", {{"devnum", "4\n"}, {"bDeviceClass", "00\n"}})
        .onBus("usb", "pci0000:00/0000:00:01.2/usb2/2-1/2-1.1");
    machine.setSysfs(tree.root());
    UsbMap devices;
    devices.insert(UsbMap::value_type("/dev/bus/usb/002/009", Usb_Device()));
    std::string info = "untouched";
    EXPECT_FALSE(usb.isPortBusy("/dev/bus/usb/002/002", 1, info, devices, -1));
    EXPECT_EQ(info, "untouched");
}

TEST_F(UsbPortStateTest, PortBusyWithAnEmptyMapReadsTheDeviceFromSysfs)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    SysfsTree tree;
    tree.device("pci0000:00/0000:00:01.2/usb2", {{"devnum", "1\n"}, {"bDeviceClass", "09\n"}})
        .onBus("usb", "pci0000:00/0000:00:01.2/usb2")
        .device("pci0000:00/0000:00:01.2/usb2/2-1/2-1.1",
                {{"devnum", "4\n"}, {"bDeviceClass", "00\n"}, {"bDeviceSubClass", "00\n"}, {"idVendor", "0627\n"},
                 {"idProduct", "0001\n"}, {"serial", "68284-0000:00:01.2-1.1\n"}, {"bcdDevice", "0000\n"}})
        .onBus("usb", "pci0000:00/0000:00:01.2/usb2/2-1/2-1.1")
        .device("pci0000:00/0000:00:01.2/usb2/2-1/2-1.1/2-1.1:1.0", {{"bInterfaceClass", "03\n"}})
        .onBus("usb", "pci0000:00/0000:00:01.2/usb2/2-1/2-1.1/2-1.1:1.0");
    machine.setSysfs(tree.root());
    UsbMap devices;
    std::string info;
    EXPECT_TRUE(usb.isPortBusy("/dev/bus/usb/002/002", 1, info, devices, -1));
    EXPECT_EQ(info, "00:00!0627[0001]68284-0000:00:01.2-1.1!!1");
    // Device 5 is not in this sysfs.
    EXPECT_FALSE(usb.isPortBusy("/dev/bus/usb/002/002", 2, info, devices, -1));
}

TEST_F(UsbPortStateTest, OneUsbDeviceInfoOfAPathWithoutUsbIsFalse)
{
    Usb_Device device;
    EXPECT_FALSE(usb.getOneUsbDeviceInfo("/dev/sg0", &device));
    EXPECT_FALSE(usb.getOneUsbDeviceInfo("/dev/bus/usb", &device));
}

// --- Over-current ---------------------------------------------------------------------------

TEST_F(UsbPortStateTest, OverCurrentOfTheLabServersPortsIsNone)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    // Port 1: the hub, whose two devices are well; port 2: the disk.
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 1, info, fd), 0);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 2, info, fd), 0);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 3, info, fd), -1);
    host::close(fd);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbPortStateTest, OverCurrentOfAPortWithStatus257IsTrouble)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    model("/dev/bus/usb/002/001")->setPort(2, 257, 0);
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 1, info, fd), 0);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 2, info, fd), 2);
    host::close(fd);
}

TEST_F(UsbPortStateTest, OverCurrentOfAHealthyDeviceThatIsNoHubIsNone)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    int fd = host::open("/dev/bus/usb/002/002", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/002", 1, info, fd), 0);
    // The keyboard was asked for its status and its configuration.
    std::vector<std::string> names = machine.ioctlNames("/dev/bus/usb/002/004");
    EXPECT_NE(std::find(names.begin(), names.end(), "USBDEVFS_CONTROL GET_STATUS(device)"), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), "USBDEVFS_CONTROL GET_DESCRIPTOR(config)"), names.end());
    host::close(fd);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbPortStateTest, OverCurrentBelowAHubIsTroubleOfThePort)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    // Port 2 of the hub below root port 1 is connected but not enabled.
    model("/dev/bus/usb/002/002")->setPort(2, 257, 0);
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 1, info, fd), 2);
    host::close(fd);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbPortStateTest, OverCurrentWhenThePortStatusCannotBeReadIsNone)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    model("/dev/bus/usb/002/001")->fail("USBDEVFS_CONTROL GET_STATUS(port 1)", EPIPE);
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 1, info, fd), 0);
    host::close(fd);
}

TEST_F(UsbPortStateTest, OverCurrentOfADeviceWhoseStatusFailsIsTrouble)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    model("/dev/bus/usb/002/003")->fail("USBDEVFS_CONTROL GET_STATUS(device)", EPROTO);
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    // The table as port 1 would have read it.
    usb.getHubPortInfo("/dev/bus/usb/002/001", &info, fd);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 2, info, fd), 2);
    host::close(fd);
}

TEST_F(UsbPortStateTest, OverCurrentOfADeviceThatDoesNotOpenIsTheErrno)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    // The table as port 1 would have read it.
    usb.getHubPortInfo("/dev/bus/usb/002/001", &info, fd);
    // The status request opens the node without O_NONBLOCK; it gets EACCES
    // too, and 13 is neither 0 nor 6.
    machine.denyOpen("/dev/bus/usb/002/003", EACCES);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 2, info, fd), 2);
    host::close(fd);
}

TEST_F(UsbPortStateTest, OverCurrentAfterStatusSixLeavesTheNodeOpenAndGivesSix)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    model("/dev/bus/usb/002/003")->fail("USBDEVFS_CONTROL GET_STATUS(device)", ENXIO);
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    // The table as port 1 would have read it.
    usb.getHubPortInfo("/dev/bus/usb/002/001", &info, fd);
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 2, info, fd), ENXIO);
    // The disk's node stays open: the caller's hub descriptor and it.
    EXPECT_EQ(machine.openDescriptors().size(), 2u);
    EXPECT_EQ(model("/dev/bus/usb/002/003")->openFlags().back(), O_RDWR | O_NONBLOCK);
    host::close(fd);
}

TEST_F(UsbPortStateTest, OverCurrentOnPortOneReadsTheTableOnlyWhenItIsEmpty)
{
    machine.setUname("2.6.16", "x86_64");
    loadLabNodes("/dev/bus/usb");
    int fd = host::open("/dev/bus/usb/002/001", O_RDWR);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0, sizeof info);
    info.nports = 1;
    // A table that the caller filled is used as it is: no device on port 1.
    EXPECT_EQ(usb.checkforOCState("/dev/bus/usb/002/001", 1, info, fd), -1);
    EXPECT_TRUE(machine.ioctlNames("/dev/bus/usb/002/001").empty());
    host::close(fd);
}

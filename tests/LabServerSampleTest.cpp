// The lab server's samples as the USB routes meet them: its real sysfs with
// the USB bus, its usbfs nodes under /dev/bus/usb and through the links of
// the legacy /proc/bus/usb, the devices text that the hub port text route
// greps, the find, dirname and basename of the storage location code, the
// mount output and lsusb -v; and the same server under the 2.6 personality,
// a sample that includes the first.
#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "probes/CSysfsReader.h"
#include "tests/support/Machines.h"
#include "usb/UsbIoctls.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <memory>
#include <set>
#include <string>
#include <sys/utsname.h>
#include <vector>

using namespace Vantrel::Ostrand;
using Lines = std::vector<std::string>;

namespace {

const std::string kLabServer = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server";
const std::string kLabServer26 = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server-2.6";

// What popen gives for a line on the installed machine.
std::string shell(const std::string& line)
{
    FILE* stream = host::popen(line.c_str(), "r");
    if (stream == nullptr) {
        return "<popen failed>";
    }
    std::string text;
    char buffer[256];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, stream)) > 0) {
        text.append(buffer, n);
    }
    host::pclose(stream);
    return text;
}

// The lines of the devices text that begin with a prefix, each with its newline.
std::string devicesLines(const std::vector<std::string>& prefixes)
{
    const std::string text = ostrand_test::capture("lab-server/usb-devices-debugfs.txt");
    std::string lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end - start);
        start = end + 1;
        for (const auto& prefix : prefixes) {
            if (line.compare(0, prefix.size(), prefix) == 0) {
                lines += line + "\n";
            }
        }
    }
    return lines;
}

class LabServerSampleTest : public ::testing::Test {
protected:
    std::unique_ptr<host::FakeMachine> machine = host::loadMachine(kLabServer);
    host::ScopedMachine scope{*machine};
};

// --- sysfs ---------------------------------------------------------------------

TEST_F(LabServerSampleTest, TheUsbBusListsDevicesAndInterfacesByBusId)
{
    CSysfsReader reader(nullptr);
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_USB, devices), 0);
    std::set<std::string> keys;
    for (const auto& device : devices) {
        keys.insert(device.first);
    }
    EXPECT_EQ(keys, (std::set<std::string>{"1-0:1.0", "1-1", "1-1:1.0", "2-0:1.0", "2-1", "2-1.1", "2-1.1:1.0",
                                           "2-1.2", "2-1.2:1.0", "2-1:1.0", "2-2", "2-2:1.0", "usb1", "usb2"}));
    const std::string devicesRoot = std::string(machine->sysfsRoot()) + "/devices/pci0000:00/";
    EXPECT_EQ(devices.at("2-1.2"), (StrMap{{"name", "2-1.2"},
                                          {"bus", ""},
                                          {"driver_name", "usb"},
                                          {"path", devicesRoot + "0000:00:01.2/usb2/2-1/2-1.2"}}));
    EXPECT_EQ(devices.at("usb1").at("path"), devicesRoot + "0000:00:04.0/usb1");
    EXPECT_EQ(devices.at("1-1:1.0").at("driver_name"), "usb-storage");
    EXPECT_EQ(devices.at("2-2:1.0").at("driver_name"), "usb-storage");
    EXPECT_EQ(devices.at("2-1:1.0").at("driver_name"), "hub");
    EXPECT_EQ(devices.at("2-1.1:1.0").at("driver_name"), "usbhid");
}

TEST_F(LabServerSampleTest, TheUsbAttributesOfTheCdromsDevice)
{
    CSysfsReader reader(nullptr);
    StrMap attributes;
    ASSERT_EQ(reader.GetDeviceAttr("1-1", BUS_TYPE_USB, attributes), 0);
    EXPECT_EQ(attributes.at("devnum"), "2");
    EXPECT_EQ(attributes.at("idVendor"), "46f4");
    EXPECT_EQ(attributes.at("idProduct"), "0001");
    EXPECT_EQ(attributes.at("product"), "QEMU USB HARDDRIVE");
    EXPECT_EQ(attributes.at("serial"), "1-0000:00:04.0-1");
    EXPECT_EQ(attributes.at("version"), " 2.00");
    EXPECT_EQ(attributes.at("maxchild"), "0");
    StrMap hub;
    ASSERT_EQ(reader.GetDeviceAttr("2-1", BUS_TYPE_USB, hub), 0);
    EXPECT_EQ(hub.at("maxchild"), "8");
    EXPECT_EQ(hub.at("bDeviceClass"), "09");
}

// --- usbfs ---------------------------------------------------------------------

TEST_F(LabServerSampleTest, TheUsbfsNodesAnswerThroughTheProcLinks)
{
    UsbIoctls usb(nullptr);
    EXPECT_EQ(usb.getDriver("/proc/bus/usb/001/002"), "usb-storage");
    EXPECT_EQ(usb.getDriver("/proc/bus/usb/002/004"), "usbhid");
    int ports = 0;
    EXPECT_TRUE(usb.getNumofPorts("/proc/bus/usb/002/002", ports));
    EXPECT_EQ(ports, 8);
    int fd = host::open("/proc/bus/usb/002/001", O_RDWR);
    ASSERT_GE(fd, 0);
    usbdevfs_hub_portinfo info = {};
    EXPECT_TRUE(usb.getHubPortInfo(fd, &info));
    host::close(fd);
    EXPECT_EQ(info.nports, 2);
    EXPECT_EQ(info.port[0], 2);
    EXPECT_EQ(info.port[1], 3);
    // The ioctls are recorded on the path that was opened.
    EXPECT_EQ(machine->ioctlNames("/proc/bus/usb/002/001"), Lines{"USBDEVFS_IOCTL HUB_PORTINFO"});
    EXPECT_TRUE(machine->ioctlNames("/dev/bus/usb/002/001").empty());
    // Every link reaches the model of its node.
    for (const char* node : {"001/001", "001/002", "002/001", "002/002", "002/003", "002/004", "002/005"}) {
        const host::FakeFileTree::Entry* linked = machine->fileTree().follow(std::string("/proc/bus/usb/") + node);
        ASSERT_NE(linked, nullptr) << node;
        EXPECT_EQ(linked->model, machine->model(std::string("/dev/bus/usb/") + node)) << node;
        EXPECT_NE(linked->model, nullptr) << node;
    }
    EXPECT_EQ(host::open("/proc/bus/usb/002/006", O_RDWR), -1);
}

// --- The hub port text route ------------------------------------------------------

TEST_F(LabServerSampleTest, TheGrepLinesOfTheTextRouteGiveTheDevicesLines)
{
    // A root hub: its own line.
    EXPECT_EQ(shell("grep \"T:  Bus=01 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1"),
              devicesLines({"T:  Bus=01 Lev=00"}));
    EXPECT_EQ(shell("grep \"T:  Bus=02 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1"),
              "T:  Bus=02 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=12   MxCh= 2\n");
    // Another device: the lines of all children, narrowed to its number.
    EXPECT_EQ(shell("grep \"T:  Bus=02 Lev=...Prnt=...\" /proc/bus/usb/devices|grep \"Dev#=  2\" 2>&1"),
              "T:  Bus=02 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=12   MxCh= 8\n");
    // The ports of root hub 2 and of the hub behind it.
    EXPECT_EQ(shell("grep \"T:  Bus=02 Lev=...Prnt=01 Port=00\" /proc/bus/usb/devices 2>&1"),
              "T:  Bus=02 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=12   MxCh= 8\n");
    EXPECT_EQ(shell("grep \"T:  Bus=02 Lev=...Prnt=01 Port=01\" /proc/bus/usb/devices 2>&1"),
              "T:  Bus=02 Lev=01 Prnt=01 Port=01 Cnt=02 Dev#=  3 Spd=12   MxCh= 0\n");
    EXPECT_EQ(shell("grep \"T:  Bus=02 Lev=...Prnt=02 Port=01\" /proc/bus/usb/devices 2>&1"),
              "T:  Bus=02 Lev=02 Prnt=02 Port=01 Cnt=02 Dev#=  5 Spd=12   MxCh= 0\n");
    EXPECT_EQ(shell("grep \"T:  Bus=01 Lev=...Prnt=01 Port=05\" /proc/bus/usb/devices 2>&1"), "");
    EXPECT_EQ(shell("grep \"T:  Bus=0\" /proc/bus/usb/devices 2>&1"), devicesLines({"T:  "}));
    EXPECT_TRUE(machine->shellErrors().empty());
}

TEST_F(LabServerSampleTest, TheMountOutputHasTheLegacyUsbfsLineAtItsEnd)
{
    const std::string real = ostrand_test::capture("lab-server/mount.txt");
    EXPECT_EQ(shell("mount 2>&1"), real + "usbfs on /proc/bus/usb type tmpfs (rw,relatime,mode=755,inode64)\n");
    EXPECT_EQ(shell("lsusb -v 2>&1"), ostrand_test::capture("lab-server/lsusb-v.txt"));
}

// --- The storage location tools ---------------------------------------------------------

TEST_F(LabServerSampleTest, FindGivesEachHostAndItsClassFolders)
{
    const std::string pci = "/sys/devices/pci0000:00/";
    EXPECT_EQ(shell("find /sys/devices/pci0000:00/ -name host4"),
              pci + "0000:00:04.0/usb1/1-1/1-1:1.0/host4\n" + pci + "0000:00:04.0/usb1/1-1/1-1:1.0/host4/scsi_host/host4\n");
    EXPECT_EQ(shell("find /sys/devices/pci0000:00/ -name host5"),
              pci + "0000:00:01.2/usb2/2-2/2-2:1.0/host5\n" + pci + "0000:00:01.2/usb2/2-2/2-2:1.0/host5/scsi_host/host5\n");
    EXPECT_EQ(shell("find /sys/devices/pci0000:00/ -name host2"),
              pci + "0000:00:05.0/host2\n" + pci + "0000:00:05.0/host2/scsi_host/host2\n" + pci +
                  "0000:00:05.0/host2/spi_host/host2\n");
    EXPECT_EQ(shell("find /sys/devices/pci0000:00/ -name host6"), "");
    EXPECT_TRUE(machine->shellErrors().empty());
}

TEST_F(LabServerSampleTest, TheToolWrappersOnTheUsbDisk)
{
    UsbIoctls usb(nullptr);
    std::string host, interface, name, devnum = "unchanged";
    ASSERT_TRUE(usb.getFindCmdOutput("/sys/devices/pci0000:00/", "host5", host));
    // The last line is the class folder of the host.
    EXPECT_EQ(host, "/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host5/scsi_host/host5");
    ASSERT_TRUE(usb.getDirnameCmdOutput("/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host5", interface));
    EXPECT_EQ(interface, "/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0");
    ASSERT_TRUE(usb.getBasenameCmdOutput(interface, name));
    EXPECT_EQ(name, "2-2:1.0");
    ASSERT_TRUE(usb.getCatCmdOutput("/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/devnum", devnum));
    EXPECT_EQ(devnum, "unchanged");
    EXPECT_EQ(machine->commands(),
              (Lines{"find /sys/devices/pci0000:00/ -name host5",
                     "dirname /sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host5",
                     "basename /sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0",
                     "cat /sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/devnum > /dev/null 2>&1"}));
    EXPECT_EQ(shell("cat /sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/devnum"), "3\n");
}

// --- The 2.6 personality ---------------------------------------------------------------

TEST(LabServer26SampleTest, TheSameServerWithTheOtherRelease)
{
    auto machine = host::loadMachine(kLabServer26);
    host::ScopedMachine scope{*machine};
    struct utsname name;
    ASSERT_EQ(host::uname(&name), 0);
    EXPECT_STREQ(name.release, "2.6.61-56-amd64");
    EXPECT_STREQ(name.machine, "x86_64");
    // The first line of the capture is `uname -r` under the personality.
    const std::string captured = ostrand_test::capture("lab-server/uname-2.6.txt");
    EXPECT_EQ(captured.substr(0, captured.find('\n')), name.release);
    // Everything else is the lab server's, its data files read from its folder.
    EXPECT_EQ(shell("lsusb -v 2>&1"), ostrand_test::capture("lab-server/lsusb-v.txt"));
    EXPECT_EQ(machine->tools().size(), 5u);
    EXPECT_EQ(machine->sysfsFolder(), kLabServer + "/sysfs");
    UsbIoctls usb(nullptr);
    EXPECT_EQ(usb.getDriver("/dev/bus/usb/001/002"), "usb-storage");
    CSysfsReader reader(nullptr);
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_USB, devices), 0);
    EXPECT_EQ(devices.size(), 14u);
}

} // namespace

// The ostrand command, run as a support engineer runs it.
#include "tests/support/CommandRun.h"
#include "tests/support/ReleaseLabel.h"

#include <gtest/gtest.h>

#include <string>

#ifdef OSTRAND_COMMAND

namespace {

using Result = ostrand_test::CommandRun;
using ostrand_test::countLines;

// Runs the command with the arguments; stderr is kept apart unless asked for.
Result run(const std::string& arguments, bool withStderr = false)
{
    return ostrand_test::runCommand(arguments + (withStderr ? " 2>&1" : " 2>/dev/null"));
}

const std::string kLab = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server";

} // namespace

TEST(CommandTest, ListShowsThePciRecordsOfTheSample)
{
    Result r = run("list --machine " + kLab);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("NAME", 0), 0u);
    EXPECT_NE(r.out.find("PCI_BUS_0"), std::string::npos);
    EXPECT_NE(r.out.find("PCI_BUS_1"), std::string::npos);
    EXPECT_NE(r.out.find("Isa_BUS"), std::string::npos);
    EXPECT_NE(r.out.find("IDE_BUS_CONTROLLER_NAME"), std::string::npos);
    EXPECT_NE(r.out.find("RAID_DEVICE_CONTROLLER"), std::string::npos);
    EXPECT_NE(r.out.find("PCI Bus 0, Device 1, Function 1"), std::string::npos);
    EXPECT_NE(r.out.find("System Board!PCI Bus 0"), std::string::npos);
}

TEST(CommandTest, JsonHasTheThirteenKeysAndTheInteger)
{
    Result r = run("list --json --class pci --machine " + kLab);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out.front(), '[');
    for (const char* key : {"\"DeviceName\"", "\"DisableDeviceName\"", "\"DeviceDescriptor\"", "\"DeviceDescription\"",
                            "\"DeviceLocation\"", "\"DeviceresourceTag\"", "\"DeviceParentLocation\"",
                            "\"DeviceClass\"", "\"DeviceManufacturerName\"", "\"DeviceModelNumber\"",
                            "\"DeviceFirmwareRevisionLevel\"", "\"DeviceSerialNumber\"",
                            "\"DeviceAdditionalHWInfo\"", "\"value\""}) {
        EXPECT_NE(r.out.find(key), std::string::npos) << key;
    }
    EXPECT_NE(r.out.find("\"DeviceName\": \"PCI_BUS_0\""), std::string::npos);
}

TEST(CommandTest, TreeHangsTheBusesFromTheSystemBoard)
{
    Result r = run("tree --machine " + kLab);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("System Board", 0), 0u);
    EXPECT_NE(r.out.find("── PCI Bus 0  [PCI_BUS_0, PCI_BUS]"), std::string::npos);
    EXPECT_NE(r.out.find("── PCI Bus 0, Device 7, Function 0  [RAID_BUS_CONTROLLER_NAME, RAID_DEVICE_CONTROLLER]"),
              std::string::npos);
    EXPECT_NE(r.out.find("── ISA Bus  [Isa_BUS, PCI_TO_ISA_BRIDGE]"), std::string::npos);
}

TEST(CommandTest, AllClassesShowTheBoardFinders)
{
    Result r = run("list --class all --machine " + kLab);
    ASSERT_EQ(r.status, 0);
    for (const char* text : {"PCI_BUS_0", "Ethernet controller", "Memory Device 0", "SERIAL_PORT_0",
                             "PARALLEL_PORT_0", "EXTERNAL_MODEM", "TLBX4"}) {
        EXPECT_NE(r.out.find(text), std::string::npos) << text;
    }
}

TEST(CommandTest, TheCdDvdClassListsTheLabServersThreeDrives)
{
    Result r = run("list --class cddvd --machine " + kLab);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(countLines(r.out), 4);
    EXPECT_NE(r.out.find("QEMU QEMU DVD-ROM    DVD_ROM  SCSI Bus 1, Target 0, LUN 0  "
                         "System Board!PCI Bus 10!PCI Bus 10, Device 10, Function 10"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("LABSCSI SCSI CD-ROM  CDROM    SCSI Bus 2, Target 2, LUN 0  "
                         "System Board!PCI Bus 0!PCI Bus 0, Device 5, Function 0"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("LABUSB USB CD-ROM    CDROM    SCSI Bus 4, Target 0, LUN 0  "
                         "System Board!PCI Bus 1!PCI Bus 1, Device 1, Function 0"),
              std::string::npos)
        << r.out;
}

TEST(CommandTest, AllClassesIncludeTheCdDvdDrives)
{
    Result r = run("list --class all --json --machine " + kLab);
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\"finder\": \"cddvd\""), std::string::npos);
    EXPECT_NE(r.out.find("\"DeviceAdditionalHWInfo\": \"/dev/sg3:/dev/sr2\""), std::string::npos);
}

TEST(CommandTest, TheIdeServerShowsItsPureIdeAndIdeScsiDrivesOnTheirChannel)
{
    Result r = run("tree --class cddvd --machine " + std::string(OSTRAND_SOURCE_DIR) + "/samples/ide-server");
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Location 0  [QEMU QEMU DVD-ROM, CDR, /dev/hdc]"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Location 1  [LABIDE ATAPI CDRW 52X, CDRW, /dev/scd0]"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Secondary IDE Channel"), std::string::npos) << r.out;
}

TEST(CommandTest, FloppyShowsDriveAOfTheSample)
{
    Result r = run("list --class floppy --machine " + kLab);
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("FLOPPY_NAME  144FLOPPY_DRIVE  Floppy Drive 1  System Board!ISA Bus  FLOPPY_H1440_DESCR"),
              std::string::npos)
        << r.out;
    Result tree = run("tree --class floppy --machine " + kLab);
    ASSERT_EQ(tree.status, 0);
    EXPECT_NE(tree.out.find("Floppy Drive 1  [FLOPPY_NAME, 144FLOPPY_DRIVE, /dev/fd0]"), std::string::npos) << tree.out;
    Result all = run("tree --class all --machine " + kLab);
    EXPECT_NE(all.out.find("Floppy Drive 1  [FLOPPY_NAME, 144FLOPPY_DRIVE, /dev/fd0]"), std::string::npos);
}

TEST(CommandTest, AnUnknownClassIsOneLineAndStatusTwo)
{
    Result r = run("list --class toaster --machine " + kLab, true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.out), 1);
    EXPECT_NE(r.out.find("unknown class 'toaster'"), std::string::npos);
}

TEST(CommandTest, AMissingMachineIsOneLineAndStatusTwo)
{
    Result r = run("list --machine /no/such/machine", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "ostrand: machine /no/such/machine: no such directory\n");
}

TEST(CommandTest, AMalformedMachineIsOneLineAndStatusTwo)
{
    // The captures folder is a directory, but no machine.
    Result r = run(std::string("list --machine ") + OSTRAND_SOURCE_DIR + "/tests/captures", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.out), 1);
    EXPECT_NE(r.out.find("no file 'machine'"), std::string::npos);
}

TEST(CommandTest, BadUseOfTheOptionsIsOneLineAndStatusTwo)
{
    Result r = run("list --frobnicate", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.out), 1);
    r = run("", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.out), 1);
}

// --- ostrand usb -----------------------------------------------------------------

namespace {

std::string captured(const std::string& name)
{
    FILE* file = std::fopen((std::string(OSTRAND_SOURCE_DIR) + "/tests/captures/lab-server/" + name).c_str(), "rb");
    std::string text;
    if (file == nullptr) {
        return text;
    }
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, n);
    }
    std::fclose(file);
    return ostrand_test::withReleaseLabel(text);
}

const std::string kLab26 = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server-2.6";

} // namespace

// The samples replay to exactly what the command printed inside the lab
// guest, on the text route (usbfs on /proc/bus/usb, kernel 6.1) and on the
// ioctl route (release 2.6.61, nodes under /dev/bus/usb).
TEST(CommandTest, UsbTreeOfTheLabServerIsWhatTheLabPrinted)
{
    Result r = run("usb --machine " + kLab);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, captured("ostrand-usb-6.1-legacy-usbfs.txt"));
}

TEST(CommandTest, UsbJsonOfTheLabServerIsWhatTheLabPrinted)
{
    Result r = run("usb --json --machine " + kLab);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, captured("ostrand-usb-6.1-legacy-usbfs.json"));
}

TEST(CommandTest, UsbTreeUnderThe26PersonalityIsWhatTheLabPrinted)
{
    Result r = run("usb --machine " + kLab26);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, captured("ostrand-usb-2.6.txt"));
    r = run("usb --json --machine " + kLab26);
    EXPECT_EQ(r.out, captured("ostrand-usb-2.6.json"));
}

TEST(CommandTest, UsbWithoutAUsbFileSystemIsOneLineOnStderrAndStatusOne)
{
    std::string machine = std::string(OSTRAND_SOURCE_DIR) + "/tests/machines/lab-server-without-usbfs";
    Result r = run("usb --machine " + machine + " 2>&1 >/dev/null", false);
    EXPECT_EQ(r.status, 1);
    Result both = run("usb --machine " + machine, true);
    EXPECT_EQ(both.out, "No USB devices.\nostrand: usbdevfs not mounted, cannot enumerate!\n");
    Result json = run("usb --json --machine " + machine);
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(json.out, "{\n  \"devices\": [],\n  \"error\": \"usbdevfs not mounted, cannot enumerate!\"\n}\n");
}

TEST(CommandTest, UsbBadUseIsOneLineAndStatusTwo)
{
    Result r = run("usb --class pci --machine " + kLab, true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.out), 1);
    r = run("usb --machine /no/such/machine", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "ostrand: machine /no/such/machine: no such directory\n");
}

// The optical and floppy drives of the samples are what the command listed
// inside the lab guest, on kernel 6.1 and under the 2.6 personality.
TEST(CommandTest, DrivesOfTheLabServerAreWhatTheLabListed)
{
    Result r = run("list --class cddvd --json --machine " + kLab);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, captured("ostrand-list-cddvd.json"));
    r = run("list --class floppy --json --machine " + kLab);
    EXPECT_EQ(r.out, captured("ostrand-list-floppy.json"));
    r = run("list --class cddvd --json --machine " + kLab26);
    EXPECT_EQ(r.out, captured("ostrand-list-cddvd-2.6.json"));
}

#endif

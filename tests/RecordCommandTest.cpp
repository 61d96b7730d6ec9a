// `ostrand record`: a machine recorded through the recorder replays to the
// records of the machine itself, and the command guards its folder.
#include "host/fake/MachineDirectory.h"
#include "tests/support/CommandRun.h"
#include "tests/support/ReleaseLabel.h"
#include "tests/support/ScratchFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#ifdef OSTRAND_COMMAND

namespace {

namespace fs = std::filesystem;

struct Result {
    int status;
    std::string out;
    std::string err;
};

std::string readFile(const fs::path& path) { return Vantrel::Ostrand::host::readWholeFile(path.string()); }

// A fresh folder for one test, removed with it.
class Scratch : public ostrand_test::ScratchFolder {
public:
    Scratch() : ScratchFolder("ostrand-record-test") {}
};

Result run(const std::string& arguments, const fs::path& scratch)
{
    fs::path err = scratch / "stderr.txt";
    ostrand_test::CommandRun ran = ostrand_test::runCommand(arguments + " 2>" + err.string());
    return Result{ran.status, ran.out, readFile(err)};
}

using ostrand_test::countLines;

const std::string kSource = OSTRAND_SOURCE_DIR;

// --- Round trips ---------------------------------------------------------------------

class RecordRoundTrip : public ::testing::TestWithParam<const char*> {};

// Every class (modem included, as `all` records it) and the USB tree give
// byte for byte the same output, status and messages from the recording
// as from the machine it was made from.
TEST_P(RecordRoundTrip, ReplaysToTheSameRecordsAsTheMachineItself)
{
    Scratch scratch;
    std::string original = kSource + "/" + GetParam();
    fs::path recorded = scratch.path() / "recorded";
    Result made = run("record " + recorded.string() + " --class all --machine " + original, scratch.path());
    ASSERT_EQ(made.status, 0) << made.err;
    ASSERT_TRUE(fs::exists(recorded / "machine"));
    for (const char* command : {"list --class all --json", "usb --json", "usb", "tree --class all"}) {
        Result want = run(std::string(command) + " --machine " + original, scratch.path());
        Result got = run(std::string(command) + " --machine " + recorded.string(), scratch.path());
        EXPECT_EQ(got.status, want.status) << command;
        EXPECT_EQ(got.out, want.out) << command;
        EXPECT_EQ(got.err, want.err) << command;
    }
}

// lab-server: sg, scsi-block, floppy, serial with a modem, memory, firmware
// files, usbfs, and the text route of the USB ports (/proc/bus/usb on 6.1);
// lab-server-2.6: the ioctl route; ide-server: ide nodes and ide-scsi;
// virtio-vm: /dev/mem refused; without usbfs: the walk that throws.
INSTANTIATE_TEST_SUITE_P(EverySample, RecordRoundTrip,
                         ::testing::Values("samples/lab-server", "samples/lab-server-2.6", "samples/ide-server",
                                           "samples/virtio-vm", "samples/lab-server-recorded",
                                           "tests/machines/lab-server-without-usbfs"));

TEST(RecordCommandTest, ARecordingOfARecordingIsTheSameMachineFile)
{
    Scratch scratch;
    std::string original = kSource + "/samples/lab-server";
    Result first = run("record " + (scratch.path() / "a").string() + " --class all --machine " + original,
                       scratch.path());
    ASSERT_EQ(first.status, 0);
    Result second = run("record " + (scratch.path() / "b").string() + " --class all --machine " +
                            (scratch.path() / "a").string(),
                        scratch.path());
    ASSERT_EQ(second.status, 0);
    auto withoutHeader = [](const std::string& text) { return text.substr(text.find("\nuname ")); };
    EXPECT_EQ(withoutHeader(readFile(scratch.path() / "b" / "machine")),
              withoutHeader(readFile(scratch.path() / "a" / "machine")));
    EXPECT_EQ(readFile(scratch.path() / "b" / "usbfs" / "002-002.usb"),
              readFile(scratch.path() / "a" / "usbfs" / "002-002.usb"));
}

// --- What a recording holds ------------------------------------------------------------

TEST(RecordCommandTest, ByDefaultEveryClassButModemIsRecordedAndNoSerialLineIsWritten)
{
    Scratch scratch;
    fs::path recorded = scratch.path() / "m";
    Result made = run("record " + recorded.string() + " --machine " + kSource + "/samples/lab-server", scratch.path());
    ASSERT_EQ(made.status, 0);
    EXPECT_EQ(made.err.find("modem"), std::string::npos) << made.err;
    EXPECT_FALSE(fs::exists(recorded / "modems"));
    std::string machine = readFile(recorded / "machine");
    EXPECT_NE(machine.find("# Classes: pci network memory serial parallel rac floppy cddvd, and the USB walk."),
              std::string::npos);
    EXPECT_NE(machine.find("\nserial /dev/ttyS0 type=4 port=0x3f8 irq=4 line=0\n"), std::string::npos);
    // Without the dialogue the modem finder finds nothing; every other class is there.
    Result modems = run("list --class modem --json --machine " + recorded.string(), scratch.path());
    EXPECT_EQ(modems.out, "[]\n");
    Result serial = run("list --class serial --json --machine " + recorded.string(), scratch.path());
    Result want = run("list --class serial --json --machine " + kSource + "/samples/lab-server", scratch.path());
    EXPECT_EQ(serial.out, want.out);
}

TEST(RecordCommandTest, ModemIsRecordedWhenAskedForAndSaysSo)
{
    Scratch scratch;
    fs::path recorded = scratch.path() / "m";
    Result made = run("record " + recorded.string() + " --class modem --machine " + kSource + "/samples/lab-server",
                      scratch.path());
    ASSERT_EQ(made.status, 0);
    EXPECT_NE(made.err.find("ostrand: recording modems: AT commands are written to every serial port"),
              std::string::npos);
    std::string dialogue = readFile(recorded / "modems" / "ttyS0.txt");
    EXPECT_NE(dialogue.find("> ATI3\\r\n< \\r\\nLabModem 56K V.92 External\\r\\n\\r\\nOK\\r\\n\n"), std::string::npos)
        << dialogue;
    Result modems = run("list --class modem --json --machine " + recorded.string(), scratch.path());
    Result want = run("list --class modem --json --machine " + kSource + "/samples/lab-server", scratch.path());
    EXPECT_EQ(modems.out, want.out);
}

TEST(RecordCommandTest, TheRecordingListsItsDataWithTheirLengthsAndSaysWhatItHolds)
{
    Scratch scratch;
    fs::path recorded = scratch.path() / "m";
    ASSERT_EQ(run("record " + recorded.string() + " --machine " + kSource + "/samples/lab-server", scratch.path()).status,
              0);
    std::string machine = readFile(recorded / "machine");
    EXPECT_NE(machine.find("# Recorded by `ostrand record` on "), std::string::npos);
    EXPECT_NE(machine.find("it holds serial numbers, MAC"), std::string::npos);
    EXPECT_NE(machine.find("\nuname 6.1.0-56-amd64 x86_64\n"), std::string::npos);
    EXPECT_NE(machine.find("\nsize tools/lspci-n.txt 384\nrun tools/lspci-n.txt /sbin/lspci -n 2>&1\n"),
              std::string::npos);
    EXPECT_EQ(readFile(recorded / "tools" / "lspci-n.txt"),
              readFile(kSource + "/samples/lab-server/tools/lspci-n.txt"));
    EXPECT_NE(machine.find("\nmemory /dev/mem 0xF0000 memory/mem-0xF0000.bin\n"), std::string::npos);
    EXPECT_EQ(readFile(recorded / "memory" / "mem-0xF0000.bin"),
              readFile(kSource + "/samples/lab-server/firmware/f-segment.bin"));
    EXPECT_EQ(readFile(recorded / "files" / "sys" / "firmware" / "dmi" / "tables" / "DMI"),
              readFile(kSource + "/samples/lab-server/firmware/DMI.bin"));
    EXPECT_NE(machine.find("\nsg-probe-host /dev/sg0 ata_piix\nsg-pci /dev/sg0 ata2\n"), std::string::npos);
    EXPECT_NE(machine.find("\nsg-reply /dev/sg2 read-capacity good 01FFFFFF00000200\n"), std::string::npos);
    EXPECT_NE(machine.find("\nfloppy /dev/fd0 type=H1440 "), std::string::npos);
    EXPECT_NE(machine.find("\nscsi-block /dev/sr1 host=2 channel=0 id=2 lun=0 unique-id=53248"), std::string::npos);
    EXPECT_NE(machine.find("\nlink /sys/class/net/eth0\n"), std::string::npos);
    EXPECT_NE(machine.find("\nsysfs sysfs\n"), std::string::npos);
    EXPECT_NE(machine.find("Their values are not kept: a replay starts fresh."), std::string::npos);
    // Links of sysfs stay links.
    EXPECT_TRUE(fs::is_symlink(recorded / "sysfs" / "bus" / "usb" / "devices" / "1-1"));
    EXPECT_EQ(fs::read_symlink(recorded / "sysfs" / "bus" / "usb" / "devices" / "1-1"),
              fs::read_symlink(kSource + "/samples/lab-server/sysfs/bus/usb/devices/1-1"));
}

// --- The folder ----------------------------------------------------------------------------

TEST(RecordCommandTest, AFolderThatIsNotEmptyIsRefusedAndLeftAsItWas)
{
    Scratch scratch;
    fs::path target = scratch.path() / "taken";
    fs::create_directories(target);
    std::ofstream(target / "notes.txt") << "mine\n";
    Result r = run("record " + target.string() + " --machine " + kSource + "/samples/virtio-vm", scratch.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.err), 1);
    EXPECT_EQ(r.err, "ostrand: " + target.string() +
                         " exists and is not empty; a recording goes into a new or empty folder\n");
    EXPECT_EQ(readFile(target / "notes.txt"), "mine\n");
    EXPECT_FALSE(fs::exists(target / "machine"));
}

TEST(RecordCommandTest, AFileInTheWayIsRefused)
{
    Scratch scratch;
    std::ofstream(scratch.path() / "file") << "x";
    Result r = run("record " + (scratch.path() / "file").string() + " --machine " + kSource + "/samples/virtio-vm",
                   scratch.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("exists and is not a folder"), std::string::npos);
}

TEST(RecordCommandTest, AnEmptyFolderIsFilledAndNothingIsLeftBeside)
{
    Scratch scratch;
    fs::path target = scratch.path() / "empty";
    fs::create_directories(target);
    Result r = run("record " + target.string() + " --machine " + kSource + "/samples/virtio-vm", scratch.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::exists(target / "machine"));
    int entries = 0;
    for (const auto& entry : fs::directory_iterator(scratch.path())) {
        EXPECT_EQ(entry.path().filename().string().find(".partial"), std::string::npos) << entry.path();
        ++entries;
    }
    EXPECT_EQ(entries, 2); // the recording and this test's stderr file
    EXPECT_NE(r.err.find("into " + target.string() + " (review it before sharing"), std::string::npos);
    EXPECT_EQ(countLines(r.err), 1);
}

TEST(RecordCommandTest, AMachineThatCannotBeReadIsBadUseAndNothingIsWritten)
{
    Scratch scratch;
    Result r = run("record " + (scratch.path() / "m").string() + " --machine " + (scratch.path() / "none").string(),
                   scratch.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.err), 1);
    EXPECT_FALSE(fs::exists(scratch.path() / "m"));
}

TEST(RecordCommandTest, AnUnknownClassAndAMissingFolderAreBadUse)
{
    Scratch scratch;
    Result unknown = run("record " + (scratch.path() / "m").string() + " --class disks", scratch.path());
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("unknown class 'disks'"), std::string::npos);
    Result missing = run("record", scratch.path());
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(countLines(missing.err), 1);
    EXPECT_FALSE(fs::exists(scratch.path() / "m"));
}

// --- A recording edited by hand ---------------------------------------------------------------

class EditedRecording : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_recorded = m_scratch.path() / "m";
        ASSERT_EQ(run("record " + m_recorded.string() + " --machine " + kSource + "/samples/lab-server",
                      m_scratch.path())
                      .status,
                  0);
    }
    // The line number of the first line of `machine` that begins with `start`.
    int lineOf(const std::string& start)
    {
        std::istringstream in(readFile(m_recorded / "machine"));
        std::string line;
        for (int number = 1; std::getline(in, line); ++number) {
            if (line.rfind(start, 0) == 0) {
                return number;
            }
        }
        return 0;
    }
    Result replay() { return run("list --class all --json --machine " + m_recorded.string(), m_scratch.path()); }

    Scratch m_scratch;
    fs::path m_recorded;
};

TEST_F(EditedRecording, AMissingDataFileNamesTheFileAndTheLine)
{
    int line = lineOf("size tools/lspci-v.txt ");
    ASSERT_GT(line, 0);
    fs::remove(m_recorded / "tools" / "lspci-v.txt");
    Result r = replay();
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ostrand: machine " + m_recorded.string() + ", line " + std::to_string(line) +
                         ": cannot read data file tools/lspci-v.txt\n");
}

TEST_F(EditedRecording, AnOutputCutShortNamesTheFileAndTheLine)
{
    int line = lineOf("size tools/lspci-m.txt ");
    ASSERT_GT(line, 0);
    fs::resize_file(m_recorded / "tools" / "lspci-m.txt", 100);
    Result r = replay();
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "ostrand: machine " + m_recorded.string() + ", line " + std::to_string(line) +
                         ": tools/lspci-m.txt holds 100 bytes, not the 1536 that were recorded (cut short or "
                         "edited)\n");
}

TEST_F(EditedRecording, AnUnknownDirectiveNamesTheLine)
{
    std::string machine = readFile(m_recorded / "machine");
    std::ofstream(m_recorded / "machine", std::ios::binary) << machine << "teleport /dev/sg9 far away\n";
    Result r = replay();
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.err), 1);
    EXPECT_NE(r.err.find("machine " + m_recorded.string() + ", line " + std::to_string(countLines(machine) + 1) + ": "),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("teleport"), std::string::npos) << r.err;
}

TEST_F(EditedRecording, ACutUsbDeviceFileNamesBothFilesAndLines)
{
    int line = lineOf("usbfs /proc/bus/usb/002/002 ");
    ASSERT_GT(line, 0);
    std::string device = readFile(m_recorded / "usbfs" / "002-002.usb");
    // The sizes are checked first: cut the file and mend its size line, as a hand edit might.
    std::string cut = device.substr(0, device.find("config ")) + "config 09 02 zz\n";
    std::ofstream(m_recorded / "usbfs" / "002-002.usb", std::ios::binary) << cut;
    std::string machine = readFile(m_recorded / "machine");
    std::string sizeLine = "size usbfs/002-002.usb " + std::to_string(device.size());
    ASSERT_NE(machine.find(sizeLine), std::string::npos);
    machine.replace(machine.find(sizeLine), sizeLine.size(), "size usbfs/002-002.usb " + std::to_string(cut.size()));
    std::ofstream(m_recorded / "machine", std::ios::binary) << machine;
    Result r = run("usb --json --machine " + m_recorded.string(), m_scratch.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(countLines(r.err), 1);
    EXPECT_NE(r.err.find(", line " + std::to_string(line) + ": usbfs/002-002.usb, line "), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("zz"), std::string::npos) << r.err;
}

} // namespace

#endif

#ifdef OSTRAND_COMMAND

namespace {

// What the command printed live inside the lab guest that the recording was
// made in, with the USB release label held as a mark.
std::string livePrinted(const std::string& name)
{
    return ostrand_test::withReleaseLabel(readFile(kSource + "/tests/captures/lab-server-recorded/" + name));
}

const char* const kRecordedClasses[] = {"pci", "network", "memory", "serial", "parallel", "rac", "floppy", "cddvd"};

TEST(RecordedLabServerTest, EveryClassReplaysToWhatTheGuestListedLive)
{
    Scratch scratch;
    for (const char* name : kRecordedClasses) {
        Result r = run(std::string("list --class ") + name + " --json --machine " + kSource +
                           "/samples/lab-server-recorded",
                       scratch.path());
        EXPECT_EQ(r.status, 0) << name;
        EXPECT_EQ(r.err, "") << name;
        std::string want = livePrinted(std::string("ostrand-list-") + name + ".json");
        ASSERT_FALSE(want.empty()) << name;
        EXPECT_EQ(r.out, want) << name;
    }
}

TEST(RecordedLabServerTest, TheUsbTreeReplaysToWhatTheGuestPrintedLive)
{
    Scratch scratch;
    Result json = run("usb --json --machine " + kSource + "/samples/lab-server-recorded", scratch.path());
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.out, livePrinted("ostrand-usb.json"));
    Result tree = run("usb --machine " + kSource + "/samples/lab-server-recorded", scratch.path());
    EXPECT_EQ(tree.status, 0);
    EXPECT_EQ(tree.out, livePrinted("ostrand-usb.txt"));
}

TEST(RecordedLabServerTest, TheLiveRecordsAreThoseOfTheLabServer)
{
    // A few records, field by field, so that a recording that replays to
    // nothing cannot pass as one that replays to the same.
    std::string cddvd = livePrinted("ostrand-list-cddvd.json");
    EXPECT_NE(cddvd.find("\"DeviceDescriptor\": \"/dev/sr1\""), std::string::npos);
    EXPECT_NE(cddvd.find("\"DeviceManufacturerName\": \"LABSCSI\""), std::string::npos);
    std::string floppy = livePrinted("ostrand-list-floppy.json");
    EXPECT_NE(floppy.find("\"DeviceDescriptor\": \"/dev/fd0\""), std::string::npos);
    std::string network = livePrinted("ostrand-list-network.json");
    EXPECT_NE(network.find("eth2"), std::string::npos);
    EXPECT_EQ(livePrinted("ostrand-list-rac.json"), "[]\n");
}

} // namespace

#endif

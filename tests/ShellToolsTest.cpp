// The shell tools of fake machines: grep, find, dirname, basename and cat
// answering command lines from the machine's file tree and sysfs folder,
// what reaches popen and what goes to the shell's standard error, exact
// `run` lines before them, the `tools` directive, and the record of commands.
#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/fake/ShellTools.h"
#include "tests/support/SysfsTree.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using Lines = std::vector<std::string>;

namespace {

const char* const kDevices = "\n"
                             "T:  Bus=01 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=480  MxCh= 6\n"
                             "D:  Ver= 2.00 Cls=09(hub  ) Sub=00 Prot=00 MxPS=64 #Cfgs=  1\n"
                             "\n"
                             "T:  Bus=01 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=480  MxCh= 0\n"
                             "\n"
                             "T:  Bus=02 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=12   MxCh= 2\n"
                             "\n"
                             "T:  Bus=02 Lev=02 Prnt=02 Port=00 Cnt=01 Dev#= 14 Spd=12   MxCh= 0\n";

// Runs a line as the library does and gives what popen delivered.
std::string run(host::FakeMachine& machine, const std::string& line)
{
    FILE* stream = machine.popen(line.c_str(), "r");
    if (stream == nullptr) {
        return "<popen failed>";
    }
    std::string text;
    char buffer[256];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, stream)) > 0) {
        text.append(buffer, n);
    }
    machine.pclose(stream);
    return text;
}

class ShellToolsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        machine.addTools({"grep", "find", "dirname", "basename", "cat"});
        machine.addFile("/proc/bus/usb/devices", kDevices);
        machine.addFile("/etc/no-newline", "alpha\nbeta");
        machine.addLink("/proc/bus/usb/001/001", "/dev/bus/usb/001/001");
        machine.addLink("/etc/devices-link", "../proc/bus/usb/devices");
    }
    host::FakeMachine machine;
};

// --- grep ---------------------------------------------------------------------

TEST_F(ShellToolsTest, GrepGivesTheMatchingLinesOfAFile)
{
    EXPECT_EQ(run(machine, "grep \"T:  Bus=01 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1"),
              "T:  Bus=01 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=480  MxCh= 6\n");
    // The dots are wildcards: any level, any parent.
    EXPECT_EQ(run(machine, "grep \"T:  Bus=02 Lev=...Prnt=...\" /proc/bus/usb/devices 2>&1"),
              "T:  Bus=02 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=12   MxCh= 2\n"
              "T:  Bus=02 Lev=02 Prnt=02 Port=00 Cnt=01 Dev#= 14 Spd=12   MxCh= 0\n");
    EXPECT_EQ(run(machine, "grep \"Bus=03\" /proc/bus/usb/devices 2>&1"), "");
    EXPECT_TRUE(machine.shellErrors().empty());
}

TEST_F(ShellToolsTest, GrepInAPipelineReadsTheStageBefore)
{
    EXPECT_EQ(run(machine, "grep \"T:  Bus=01 Lev=...Prnt=...\" /proc/bus/usb/devices|grep \"Dev#=  2\" 2>&1"),
              "T:  Bus=01 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=480  MxCh= 0\n");
    // Two blanks after the key: a two-digit device is not found.
    EXPECT_EQ(run(machine, "grep \"T:  Bus=02 Lev=...Prnt=...\" /proc/bus/usb/devices|grep \"Dev#=  14\" 2>&1"), "");
    EXPECT_EQ(run(machine, "grep \"T:  Bus=02 Lev=...Prnt=...\" /proc/bus/usb/devices | grep \"Dev#= 14\""),
              "T:  Bus=02 Lev=02 Prnt=02 Port=00 Cnt=01 Dev#= 14 Spd=12   MxCh= 0\n");
}

TEST_F(ShellToolsTest, GrepOnAMissingFilePrintsGrepsErrorWhereTheLineSendsIt)
{
    EXPECT_EQ(run(machine, "grep \"MxCh\" /proc/bus/usb/nothing 2>&1"),
              "grep: /proc/bus/usb/nothing: No such file or directory\n");
    EXPECT_TRUE(machine.shellErrors().empty());
    // Without 2>&1 the error goes past popen.
    EXPECT_EQ(run(machine, "grep \"MxCh\" /proc/bus/usb/nothing"), "");
    EXPECT_EQ(machine.shellErrors(), Lines{"grep: /proc/bus/usb/nothing: No such file or directory\n"});
    // In a pipeline, 2>&1 belongs to the last grep: the first one's error
    // is not read, and the second reads nothing.
    EXPECT_EQ(run(machine, "grep \"T:  Bus=01\" /proc/bus/usb/nothing|grep \"Dev#=  2\" 2>&1"), "");
    EXPECT_EQ(machine.shellErrors().size(), 2u);
    EXPECT_EQ(machine.shellErrors()[1], "grep: /proc/bus/usb/nothing: No such file or directory\n");
    EXPECT_EQ(run(machine, "grep \"x\" /proc/bus/usb 2>&1"), "grep: /proc/bus/usb: Is a directory\n");
}

TEST_F(ShellToolsTest, GrepFollowsLinksAndEndsTheLastLine)
{
    EXPECT_EQ(run(machine, "grep Dev#=..2 /etc/devices-link"),
              "T:  Bus=01 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=480  MxCh= 0\n");
    EXPECT_EQ(run(machine, "grep 'ta$' /etc/no-newline"), "beta\n");
    EXPECT_EQ(run(machine, "grep \"^al\" /etc/no-newline /etc/no-newline"),
              "/etc/no-newline:alpha\n/etc/no-newline:alpha\n");
}

TEST_F(ShellToolsTest, GrepWithABadPatternSaysSo)
{
    EXPECT_EQ(run(machine, "grep \"Dev\\(\" /proc/bus/usb/devices 2>&1"), "grep: Unmatched ( or \\(\n");
    EXPECT_EQ(run(machine, "grep 2>&1"),
              "Usage: grep [OPTION]... PATTERNS [FILE]...\nTry 'grep --help' for more information.\n");
}

// --- find ---------------------------------------------------------------------

class ShellFindTest : public ShellToolsTest {
protected:
    void SetUp() override
    {
        ShellToolsTest::SetUp();
        sysfs.folder("devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4/target4:0:0")
            .folder("devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host5")
            .folder("devices/pci0000:00/0000:00:01.1/ata2/host1")
            .folder("devices/pci0000:00/0000:00:01.1/ata1/host0")
            .file("devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum", "2\n")
            .link("bus/scsi/devices/host4", "devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4")
            .link("class/scsi_host/host4", "devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4");
        machine.setSysfs(sysfs.root());
    }
    ostrand_test::SysfsTree sysfs;
};

TEST_F(ShellFindTest, FindWalksTheSysfsFolderUnderSys)
{
    EXPECT_EQ(run(machine, "find /sys/devices/pci0000:00/ -name host4"),
              "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4\n");
    EXPECT_EQ(run(machine, "find /sys/devices/pci0000:00 -name host5"),
              "/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host5\n");
    EXPECT_EQ(run(machine, "find /sys/devices/pci0000:00/ -name host9"), "");
    EXPECT_TRUE(machine.shellErrors().empty());
}

TEST_F(ShellFindTest, FindGivesEveryMatchDepthFirstInTheOrderOfNames)
{
    EXPECT_EQ(run(machine, "find /sys -name 'host*'"),
              "/sys/bus/scsi/devices/host4\n"
              "/sys/class/scsi_host/host4\n"
              "/sys/devices/pci0000:00/0000:00:01.1/ata1/host0\n"
              "/sys/devices/pci0000:00/0000:00:01.1/ata2/host1\n"
              "/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host5\n"
              "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4\n");
    // Links are named, not entered.
    EXPECT_EQ(run(machine, "find /sys/bus -name 'target*'"), "");
    EXPECT_EQ(run(machine, "find /sys/class/scsi_host/host4/ -name 'target*'"),
              "/sys/class/scsi_host/host4/target4:0:0\n");
}

TEST_F(ShellFindTest, FindJoinsTheFileTreeAndTheFolder)
{
    machine.addFile("/sys/firmware/dmi/tables/DMI", "x");
    machine.addLink("/sys/class/net/eth0");
    EXPECT_EQ(run(machine, "find /sys -name DMI"), "/sys/firmware/dmi/tables/DMI\n");
    EXPECT_EQ(run(machine, "find /sys/class -name '*'"),
              "/sys/class\n/sys/class/net\n/sys/class/net/eth0\n/sys/class/scsi_host\n/sys/class/scsi_host/host4\n");
    EXPECT_EQ(run(machine, "find /proc -name 001"), "/proc/bus/usb/001\n/proc/bus/usb/001/001\n");
    // From the top: the folder is there as /sys, beside the tree's own entries.
    EXPECT_EQ(run(machine, "find / -name 'host[45]'"),
              "/sys/bus/scsi/devices/host4\n/sys/class/scsi_host/host4\n"
              "/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host5\n"
              "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4\n");
    EXPECT_EQ(run(machine, "find . -name devices"), "./proc/bus/usb/devices\n./sys/bus/scsi/devices\n./sys/devices\n");
}

TEST_F(ShellFindTest, FindPrintsPathsAsTheStartIsWritten)
{
    EXPECT_EQ(run(machine, "find /sys//devices -name host1"), "/sys//devices/pci0000:00/0000:00:01.1/ata2/host1\n");
    EXPECT_EQ(run(machine, "find /sys/devices/pci0000:00/ -name pci0000:00"), "/sys/devices/pci0000:00/\n");
}

TEST_F(ShellFindTest, FindOnAMissingDirectoryPrintsItsError)
{
    EXPECT_EQ(run(machine, "find /sys/devices/pci0000:01/ -name host4"), "");
    EXPECT_EQ(machine.shellErrors(),
              Lines{"find: \xE2\x80\x98/sys/devices/pci0000:01/\xE2\x80\x99: No such file or directory\n"});
    EXPECT_EQ(run(machine, "find /sys/devices/pci0000:01/ -name host4 2>&1"),
              "find: \xE2\x80\x98/sys/devices/pci0000:01/\xE2\x80\x99: No such file or directory\n");
    EXPECT_EQ(run(machine, "find /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum/ -name x 2>&1"),
              "find: \xE2\x80\x98/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum/\xE2\x80\x99: Not a directory\n");
}

TEST(ShellToolsNoSysfsTest, FindWithoutASysfsFolderFindsNoSys)
{
    host::FakeMachine machine;
    machine.addTools({"find"});
    EXPECT_EQ(run(machine, "find /sys/devices/pci0000:00/ -name host2 2>&1"),
              "find: \xE2\x80\x98/sys/devices/pci0000:00/\xE2\x80\x99: No such file or directory\n");
}

// --- dirname, basename, cat ---------------------------------------------------------

TEST_F(ShellFindTest, CatToTheNullDeviceGivesNothing)
{
    EXPECT_EQ(run(machine, "cat /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum > /dev/null 2>&1"), "");
    EXPECT_EQ(run(machine, "cat /sys/devices/nothing/devnum > /dev/null 2>&1"), "");
    EXPECT_TRUE(machine.shellErrors().empty());
    // Without the redirections it is an ordinary cat.
    EXPECT_EQ(run(machine, "cat /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum"), "2\n");
    EXPECT_EQ(run(machine, "cat /etc/no-newline /sys/nothing 2>&1"),
              "alpha\nbetacat: /sys/nothing: No such file or directory\n");
    // 2>&1 before the redirection of 1 keeps errors on the pipe.
    EXPECT_EQ(run(machine, "cat /sys/nothing 2>&1 >/dev/null"), "cat: /sys/nothing: No such file or directory\n");
}

TEST_F(ShellToolsTest, DirnameAndBasenameAreText)
{
    struct Row {
        const char* path;
        const char* dirname;
        const char* basename;
    };
    const Row rows[] = {
        {"/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4", "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0",
         "host4"},
        {"/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0", "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1",
         "1-1:1.0"},
        {"/a/b/", "/a", "b"},
        {"a", ".", "a"},
        {"a//", ".", "a"},
        {"/", "/", "/"},
        {"//a", "/", "a"},
        {"///", "/", "/"},
        {"/a//b", "/a", "b"},
        {"no/such/place", "no/such", "place"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(run(machine, std::string("dirname ") + row.path), std::string(row.dirname) + "\n") << row.path;
        EXPECT_EQ(run(machine, std::string("basename ") + row.path), std::string(row.basename) + "\n") << row.path;
        EXPECT_EQ(host::dirnameOf(row.path), row.dirname);
        EXPECT_EQ(host::basenameOf(row.path), row.basename);
    }
    EXPECT_EQ(run(machine, "dirname \"\""), ".\n");
    EXPECT_EQ(run(machine, "basename \"\""), "\n");
    EXPECT_EQ(run(machine, "basename a/b.txt .txt"), "b\n");
    EXPECT_EQ(run(machine, "basename .txt .txt"), ".txt\n");
    EXPECT_EQ(run(machine, "dirname a/b c/d"), "a\nc\n");
    EXPECT_EQ(run(machine, "dirname 2>&1"), "dirname: missing operand\nTry 'dirname --help' for more information.\n");
    EXPECT_EQ(run(machine, "basename a b c 2>&1"),
              "basename: extra operand \xE2\x80\x98" "c\xE2\x80\x99\nTry 'basename --help' for more information.\n");
}

// --- The machine around the tools ---------------------------------------------

TEST_F(ShellToolsTest, AnExactRunLineComesFirst)
{
    machine.addCommand("grep \"T:  Bus=01 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1", "from the run line\n");
    machine.addCommand("dirname /a/b", "");
    EXPECT_EQ(run(machine, "grep \"T:  Bus=01 Lev=...Prnt=00\" /proc/bus/usb/devices 2>&1"), "from the run line\n");
    EXPECT_EQ(run(machine, "dirname /a/b"), "");
    // Any other line, even one blank apart, goes to the tools.
    EXPECT_EQ(run(machine, "grep \"T:  Bus=01 Lev=...Prnt=00\" /proc/bus/usb/devices  2>&1"),
              "T:  Bus=01 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=480  MxCh= 6\n");
}

TEST_F(ShellToolsTest, TheRecordOfCommandsIsTheSame)
{
    run(machine, "dirname /a/b");
    run(machine, "grep \"x\" /proc/bus/usb/devices|grep \"y\" 2>&1");
    run(machine, "lsusb -v 2>&1");
    EXPECT_EQ(machine.commands(),
              (Lines{"dirname /a/b", "grep \"x\" /proc/bus/usb/devices|grep \"y\" 2>&1", "lsusb -v 2>&1"}));
    EXPECT_EQ(machine.timesRun("dirname /a/b"), 1);
    EXPECT_TRUE(machine.opens().empty());
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST(ShellToolsMachineTest, ToolsThatAreNotGivenAreMissingCommands)
{
    host::FakeMachine machine;
    machine.addFile("/f", "a\n");
    EXPECT_EQ(run(machine, "grep a /f"), "sh: grep: command not found\n");
    machine.addTools({"grep"});
    EXPECT_EQ(run(machine, "grep a /f"), "a\n");
    EXPECT_EQ(run(machine, "find / -name f"), "sh: find: command not found\n");
    // A stage of a pipeline that is no given tool: the shell's complaint on
    // its standard error.
    EXPECT_EQ(run(machine, "grep a /f|sort 2>&1"), "sh: sort: command not found\n");
    EXPECT_EQ(run(machine, "grep a /f|sort"), "");
    EXPECT_EQ(machine.shellErrors(), Lines{"sh: sort: command not found\n"});
    EXPECT_THROW(machine.addTools({"sort"}), std::invalid_argument);
    EXPECT_EQ(machine.tools(), (std::set<std::string>{"grep"}));
}

TEST_F(ShellToolsTest, ALineTheToolsCannotTakeApartPrintsNothing)
{
    const char* const lines[] = {"grep -c T /proc/bus/usb/devices", "grep T $HOME", "grep T /proc/bus/usb/devices; ls",
                                 "cat /etc/no-newline > /tmp/copy", "find / -type f", "grep \"T /proc/bus/usb/devices",
                                 "grep T /proc/bus/usb/devices 3>&1", "cat /proc/bus/usb/*"};
    for (const char* line : lines) {
        EXPECT_EQ(run(machine, line), "") << line;
    }
    ASSERT_EQ(machine.shellErrors().size(), 8u);
    EXPECT_EQ(machine.shellErrors()[0], "sh: the fake machine's tools cannot run: grep -c T /proc/bus/usb/devices\n");
}

TEST(ShellToolsMachineTest, TheToolsDirective)
{
    host::FakeMachine machine;
    host::loadMachineText(machine, "tools grep find\ntools cat\n", "/m");
    EXPECT_EQ(machine.tools(), (std::set<std::string>{"cat", "find", "grep"}));
    try {
        host::loadMachineText(machine, "\ntools grep sed\n", "/m");
        FAIL() << "no exception";
    } catch (const host::MachineDirectoryError& e) {
        EXPECT_STREQ(e.what(), "machine /m, line 2: no such tool: sed; the tools are basename cat dirname find grep");
    }
    try {
        host::loadMachineText(machine, "tools\n", "/m");
        FAIL() << "no exception";
    } catch (const host::MachineDirectoryError& e) {
        EXPECT_STREQ(e.what(), "machine /m, line 1: expected: tools NAME...");
    }
}

TEST(ShellToolsMachineTest, ADeviceNodeReadsAsItsModelAnswers)
{
    host::FakeMachine machine;
    machine.addTools({"cat"});
    machine.addNode("/dev/sg9", 'c', nullptr);
    machine.denyOpen("/dev/secret", EACCES);
    EXPECT_EQ(run(machine, "cat /dev/sg9 2>&1"), "cat: /dev/sg9: Invalid argument\n");
    EXPECT_EQ(run(machine, "cat /dev/secret 2>&1"), "cat: /dev/secret: Permission denied\n");
}

} // namespace

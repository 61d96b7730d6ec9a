#include "host/fake/FakeMachine.h"
#include "host/models/MemoryModel.h"
#include "host/models/Models.h"
#include "host/fake/MachineDirectory.h"
#include "tests/support/Machines.h"
#include "tests/support/SysfsTree.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/serial.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

std::string readAll(FILE* stream)
{
    std::string text;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, stream) != nullptr) {
        text += buffer;
    }
    return text;
}

} // namespace

TEST(FakeMachineTest, PopenGivesTheOutputOfTheExactCommandLine)
{
    host::FakeMachine machine;
    machine.addCommand("/sbin/lspci -n 2>&1", "00:00.0 0600: 8086:1237\n");
    host::ScopedMachine scope{machine};
    FILE* stream = host::popen("/sbin/lspci -n 2>&1", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readAll(stream), "00:00.0 0600: 8086:1237\n");
    EXPECT_TRUE(std::feof(stream));
    EXPECT_EQ(host::pclose(stream), 0);
    EXPECT_EQ(machine.commands(), std::vector<std::string>{"/sbin/lspci -n 2>&1"});
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST(FakeMachineTest, AnUnknownCommandGetsTheShellsComplaint)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    FILE* stream = host::popen("lsusb -v 2>&1", "r");
    EXPECT_EQ(readAll(stream), "sh: lsusb: command not found\n");
    host::pclose(stream);
}

TEST(FakeMachineTest, AStreamLeftOpenIsCountedAndClosedWithTheMachine)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    host::popen("true", "r");
    EXPECT_EQ(machine.openStreams(), 1u);
}

TEST(FakeMachineTest, ScandirListsDotEntriesFiltersAndSorts)
{
    host::FakeMachine machine;
    machine.addNode("/dev/sdb", 'b', nullptr);
    machine.addNode("/dev/sda", 'b', nullptr);
    machine.addLink("/dev/cdrom");
    host::ScopedMachine scope{machine};
    struct dirent** list = nullptr;
    int count = host::scandir("/dev/", &list, nullptr, alphasort);
    ASSERT_EQ(count, 5);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.push_back(list[i]->d_name);
        std::free(list[i]);
    }
    std::free(list);
    EXPECT_EQ(names, (std::vector<std::string>{".", "..", "cdrom", "sda", "sdb"}));
}

TEST(FakeMachineTest, ReaddirKeepsTheOrderOfAdding)
{
    host::FakeMachine machine;
    machine.addLink("/sys/class/net/eth1");
    machine.addLink("/sys/class/net/lo");
    machine.addLink("/sys/class/net/eth0");
    host::ScopedMachine scope{machine};
    host::Dir* dir = host::opendir("/sys/class/net/");
    ASSERT_NE(dir, nullptr);
    std::vector<std::string> names;
    while (struct dirent* entry = host::readdir(dir)) {
        names.push_back(entry->d_name);
    }
    host::closedir(dir);
    EXPECT_EQ(names, (std::vector<std::string>{".", "..", "eth1", "lo", "eth0"}));
    EXPECT_EQ(host::opendir("/sys/class/none"), nullptr);
}

TEST(FakeMachineTest, DescriptorsAreAboveZeroAndRecordedUntilClosed)
{
    host::FakeMachine machine;
    machine.addNode("/dev/ttyS0", 'c', std::make_shared<host::SerialModel>(4, 0x3f8, 4));
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/ttyS0", O_RDWR | O_NONBLOCK);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(machine.openDescriptors(), std::vector<std::string>{"/dev/ttyS0"});
    EXPECT_EQ(host::close(fd), 0);
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(host::close(fd), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(FakeMachineTest, OpeningWhatIsNotThereOrIsDeniedFails)
{
    host::FakeMachine machine;
    machine.denyOpen("/dev/mem", EACCES);
    machine.addLink("/dev/cdrom");
    host::ScopedMachine scope{machine};
    EXPECT_EQ(host::open("/dev/nothing", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(host::open("/dev/mem", O_RDONLY), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(host::open("/dev/cdrom", O_RDONLY), -1);
}

TEST(FakeMachineTest, SerialPortAnswersTiocgserialAndKeepsSettings)
{
    host::FakeMachine machine;
    machine.addNode("/dev/ttyS1", 'c', std::make_shared<host::SerialModel>(4, 0x2f8, 3, 1));
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/ttyS1", O_RDWR);
    struct serial_struct serial;
    std::memset(&serial, 0, sizeof serial);
    ASSERT_EQ(host::ioctl(fd, TIOCGSERIAL, &serial), 0);
    EXPECT_EQ(serial.type, 4);
    EXPECT_EQ(serial.port, 0x2f8u);
    EXPECT_EQ(serial.irq, 3);
    EXPECT_EQ(serial.line, 1);
    struct termios settings;
    std::memset(&settings, 0, sizeof settings);
    settings.c_cflag = CLOCAL | CREAD;
    EXPECT_EQ(host::tcsetattr(fd, TCSANOW, &settings), 0);
    struct termios back;
    EXPECT_EQ(host::tcgetattr(fd, &back), 0);
    EXPECT_EQ(back.c_cflag, static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_EQ(host::ioctl(fd, 0x5401, nullptr), -1);
    EXPECT_EQ(errno, ENOTTY);
    ASSERT_EQ(machine.ioctls().size(), 2u);
    EXPECT_EQ(machine.ioctls()[0].path, "/dev/ttyS1");
    EXPECT_EQ(machine.ioctls()[0].request, static_cast<unsigned long>(TIOCGSERIAL));
    host::close(fd);
}

TEST(FakeMachineTest, AModemAnswersInPiecesAndSilenceCostsFakeTime)
{
    host::FakeMachine machine;
    auto port = std::make_shared<host::SerialModel>(4, 0x3f8, 4);
    port->attachModem(host::ModemScript::parse("> ATI3\\r\n< \\r\\nWord\\r\\n\n< OK\\r\\n\n"));
    machine.addNode("/dev/ttyS0", 'c', port);
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/ttyS0", O_RDWR | O_NONBLOCK);
    char buffer[100];
    int64_t before = machine.clock().elapsed();
    EXPECT_EQ(host::read(fd, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(machine.clock().elapsed() - before, host::SerialModel::kIdleReadMicros);
    EXPECT_EQ(host::write(fd, "ATI3\r", 5), 5);
    ASSERT_EQ(host::read(fd, buffer, sizeof buffer), 8);
    EXPECT_EQ(std::string(buffer, 8), "\r\nWord\r\n");
    ASSERT_EQ(host::read(fd, buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "OK\r\n");
    EXPECT_EQ(host::read(fd, buffer, sizeof buffer), -1);
    ASSERT_EQ(machine.writes().size(), 1u);
    EXPECT_EQ(machine.writes()[0].bytes, "ATI3\r");
    host::close(fd);
}

TEST(FakeMachineTest, SleepsMoveOnlyTheFakeClock)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    time_t start = host::time(nullptr);
    host::sleep(10);
    host::usleep(3000);
    host::sleepForSeconds(2);
    EXPECT_EQ(host::time(nullptr) - start, 12);
    EXPECT_EQ(machine.clock().elapsed(), 12003000);
    ASSERT_EQ(machine.sleeps().size(), 3u);
    EXPECT_EQ(machine.sleeps()[0].call, "sleep");
    EXPECT_EQ(machine.sleeps()[1].microseconds, 3000);
    EXPECT_EQ(machine.sleeps()[2].call, "sleepForSeconds");
}

TEST(FakeMachineTest, PhysicalMemoryMapsAreasAndZeros)
{
    host::FakeMachine machine;
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0xF0010, "$PIR");
    machine.addNode("/dev/mem", 'c', memory);
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/mem", O_RDONLY);
    auto* area = static_cast<unsigned char*>(host::mmap(nullptr, 0x10000, PROT_READ, MAP_SHARED, fd, 0xF0000));
    ASSERT_NE(area, MAP_FAILED);
    EXPECT_EQ(std::memcmp(area + 0x10, "$PIR", 4), 0);
    EXPECT_EQ(area[0], 0);
    EXPECT_EQ(machine.openMappings(), 1u);
    EXPECT_EQ(host::munmap(area, 0x10000), 0);
    EXPECT_EQ(machine.openMappings(), 0u);
    char bytes[4];
    EXPECT_EQ(host::lseek(fd, 0xF0010, SEEK_SET), 0xF0010);
    EXPECT_EQ(host::read(fd, bytes, 4), 4);
    EXPECT_EQ(std::string(bytes, 4), "$PIR");
    host::close(fd);
}

TEST(FakeMachineTest, AReadOnlyMappingOfOneAreaShowsTheSameBytesEachTime)
{
    host::FakeMachine machine;
    auto memory = std::make_shared<host::MemoryModel>();
    std::string bios(0x10000, '\0');
    bios.replace(0x10, 4, "$PIR");
    memory->place(0xF0000, bios);
    machine.addNode("/dev/mem", 'c', memory);
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/mem", O_RDONLY);
    auto* first = static_cast<unsigned char*>(host::mmap(nullptr, 0x10000, PROT_READ, MAP_SHARED, fd, 0xF0000));
    auto* second = static_cast<unsigned char*>(host::mmap(nullptr, 0x100, PROT_READ, MAP_SHARED, fd, 0xF0010));
    ASSERT_NE(first, MAP_FAILED);
    ASSERT_NE(second, MAP_FAILED);
    // Both show the area itself: no copy is made for either.
    EXPECT_EQ(second, first + 0x10);
    EXPECT_EQ(std::memcmp(second, "$PIR", 4), 0);
    EXPECT_EQ(machine.openMappings(), 2u);
    // The same bytes mapped twice at once are two mappings, unmapped one by one.
    auto* again = static_cast<unsigned char*>(host::mmap(nullptr, 0x10000, PROT_READ, MAP_SHARED, fd, 0xF0000));
    EXPECT_EQ(again, first);
    EXPECT_EQ(machine.openMappings(), 3u);
    EXPECT_EQ(host::munmap(first, 0x10000), 0);
    EXPECT_EQ(host::munmap(again, 0x10000), 0);
    EXPECT_EQ(host::munmap(again, 0x10000), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(host::munmap(second, 0x100), 0);
    EXPECT_EQ(machine.openMappings(), 0u);
    host::close(fd);
}

TEST(FakeMachineTest, AWritableMappingOrOneThatRunsIntoZerosIsACopy)
{
    host::FakeMachine machine;
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0xF0000, "ABCD");
    memory->place(0xF0008, "EFGH");
    machine.addNode("/dev/mem", 'c', memory);
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/mem", O_RDWR);
    // Writable: a copy of its own, which the area does not see.
    auto* writable = static_cast<char*>(host::mmap(nullptr, 4, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0xF0000));
    ASSERT_NE(writable, MAP_FAILED);
    writable[0] = 'X';
    auto* shown = static_cast<char*>(host::mmap(nullptr, 4, PROT_READ, MAP_SHARED, fd, 0xF0000));
    ASSERT_NE(shown, MAP_FAILED);
    EXPECT_NE(shown, writable);
    EXPECT_EQ(std::string(shown, 4), "ABCD");
    // Past the end of the area, and over the next area: zeros and both areas.
    auto* wide = static_cast<char*>(host::mmap(nullptr, 12, PROT_READ, MAP_SHARED, fd, 0xF0000));
    ASSERT_NE(wide, MAP_FAILED);
    EXPECT_EQ(std::string(wide, 12), std::string("ABCD\0\0\0\0EFGH", 12));
    // A range inside the first area that the next area, placed above, overlays.
    memory->place(0xF0002, "yz");
    auto* overlaid = static_cast<char*>(host::mmap(nullptr, 4, PROT_READ, MAP_SHARED, fd, 0xF0000));
    ASSERT_NE(overlaid, MAP_FAILED);
    EXPECT_EQ(std::string(overlaid, 4), "AByz");
    EXPECT_EQ(machine.openMappings(), 4u);
    for (void* area : {static_cast<void*>(writable), static_cast<void*>(shown), static_cast<void*>(wide),
                       static_cast<void*>(overlaid)}) {
        EXPECT_EQ(host::munmap(area, 4), 0);
    }
    EXPECT_EQ(machine.openMappings(), 0u);
    host::close(fd);
}

TEST(FakeMachineTest, AFileIsMappedInPlaceWhileItHoldsTheRange)
{
    host::FakeMachine machine;
    machine.addFile("/sys/firmware/dmi/tables/DMI", "0123456789");
    host::ScopedMachine scope{machine};
    int fd = host::open("/sys/firmware/dmi/tables/DMI", O_RDONLY);
    auto* inside = static_cast<char*>(host::mmap(nullptr, 4, PROT_READ, MAP_SHARED, fd, 6));
    auto* beyond = static_cast<char*>(host::mmap(nullptr, 8, PROT_READ, MAP_SHARED, fd, 6));
    ASSERT_NE(inside, MAP_FAILED);
    ASSERT_NE(beyond, MAP_FAILED);
    EXPECT_EQ(std::string(inside, 4), "6789");
    EXPECT_NE(beyond, inside);
    EXPECT_EQ(std::string(beyond, 8), std::string("6789\0\0\0\0", 8));
    EXPECT_EQ(host::munmap(inside, 4), 0);
    EXPECT_EQ(host::munmap(beyond, 8), 0);
    host::close(fd);
}

TEST(FakeMachineTest, AListingKeepsTheOrderOfAddingAndTheTypeOfAReplacedEntry)
{
    host::FakeMachine machine;
    machine.addFile("/dev/zz", "");
    machine.addNode("/dev/sg0", 'c', nullptr);
    machine.addLink("/dev/cdrom", "sg0");
    // Added again: the same place, the new type.
    machine.addDirectory("/dev/zz");
    host::ScopedMachine scope{machine};
    host::Dir* dir = host::opendir("/dev");
    ASSERT_NE(dir, nullptr);
    std::vector<std::pair<std::string, unsigned char>> seen;
    while (struct dirent* entry = host::readdir(dir)) {
        seen.emplace_back(entry->d_name, entry->d_type);
    }
    host::closedir(dir);
    std::vector<std::pair<std::string, unsigned char>> expected = {
        {".", DT_DIR}, {"..", DT_DIR}, {"zz", DT_DIR}, {"sg0", DT_CHR}, {"cdrom", DT_LNK}};
    EXPECT_EQ(seen, expected);
}

TEST(FakeMachineTest, LinesAndWordsAreCutAsAStreamCutsThem)
{
    std::vector<std::string> lines;
    host::eachLine("one\n\ntwo\r\nlast", [&](std::string& line) { lines.push_back(line); });
    EXPECT_EQ(lines, (std::vector<std::string>{"one", "", "two\r", "last"}));
    lines.clear();
    host::eachLine("end\n", [&](std::string& line) { lines.push_back(line); });
    EXPECT_EQ(lines, std::vector<std::string>{"end"});
    lines.clear();
    host::eachLine("", [&](std::string& line) { lines.push_back(line); });
    EXPECT_TRUE(lines.empty());
    std::vector<std::string> words;
    host::splitWords(" \tusbfs\v/dev/bus/usb/001/001\f\r x ", words);
    EXPECT_EQ(words, (std::vector<std::string>{"usbfs", "/dev/bus/usb/001/001", "x"}));
    // A zero byte is no white space.
    words.clear();
    host::splitWords(std::string("a\0b c", 5), words);
    EXPECT_EQ(words, (std::vector<std::string>{std::string("a\0b", 3), "c"}));
}

TEST(FakeMachineTest, AWholeFileIsReadAtItsSizeAndAFolderReadsAsNothing)
{
    const std::string path = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server/firmware/f-segment.bin";
    std::string bytes = host::readWholeFile(path);
    EXPECT_EQ(bytes.size(), 65536u);
    EXPECT_EQ(host::readWholeFile(std::string(OSTRAND_SOURCE_DIR) + "/samples"), "");
    EXPECT_THROW(host::readWholeFile(std::string(OSTRAND_SOURCE_DIR) + "/no/such/file"), host::MachineDirectoryError);
}

TEST(FakeMachineTest, SemaphoresKeepTheirValue)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    int id = host::semget(0x1FE101F, 1, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    EXPECT_EQ(host::semctl(id, 0, SETVAL, 1), 0);
    struct sembuf down = {0, -1, 0};
    EXPECT_EQ(host::semop(id, &down, 1), 0);
    EXPECT_EQ(machine.semaphoreValue(0x1FE101F), 0);
    EXPECT_EQ(host::semop(id, &down, 1), -1);
    EXPECT_EQ(host::semget(0x1FE101F, 1, 0), id);
}

TEST(FakeMachineTest, UnameAnswersTheDescribedRelease)
{
    host::FakeMachine machine;
    machine.setUname("2.6.61-56-amd64", "x86_64");
    host::ScopedMachine scope{machine};
    struct utsname name;
    ASSERT_EQ(host::uname(&name), 0);
    EXPECT_STREQ(name.release, "2.6.61-56-amd64");
    EXPECT_STREQ(name.machine, "x86_64");
}

TEST(FakeMachineTest, WithoutAnInstalledMachineTheLiveOneAnswers)
{
    EXPECT_EQ(&host::machine(), &host::liveMachine());
    {
        host::FakeMachine machine;
        host::ScopedMachine scope{machine};
        EXPECT_EQ(&host::machine(), &machine);
    }
    EXPECT_EQ(&host::machine(), &host::liveMachine());
}

TEST(MachineDirectoryTest, LoadsTheLabServerSample)
{
    auto machine = host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server");
    host::ScopedMachine scope{*machine};
    FILE* stream = host::popen("/sbin/lspci -n 2>&1", "r");
    ASSERT_NE(stream, nullptr);
    std::string text = readAll(stream);
    host::pclose(stream);
    EXPECT_EQ(text.substr(0, 32), "00:00.0 0600: 8086:1237 (rev 02)");
    EXPECT_NE(std::dynamic_pointer_cast<host::SerialModel>(machine->model("/dev/ttyS0")), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<host::MemoryModel>(machine->model("/dev/mem")), nullptr);
    EXPECT_NE(machine->model("/dev/sg0"), nullptr);
    struct utsname name;
    host::uname(&name);
    EXPECT_STREQ(name.release, "6.1.0-56-amd64");
}

TEST(MachineDirectoryTest, AnIncludedMachineLoadsInPlaceWithItsOwnDataFiles)
{
    ostrand_test::SysfsTree folders;
    folders.file("base/machine", "uname 2.6.16 i686\nrun out.txt lsusb -v 2>&1\nrun out.txt mount 2>&1\nfile /etc/a a.txt\n")
        .file("base/out.txt", "from base\n")
        .file("base/a.txt", "a of base\n")
        .file("common/more.machine", "file /etc/b b.txt\ntools dirname\n")
        .file("common/b.txt", "b of common\n")
        .file("top/machine", "uname 9.9 x86_64\ninclude ../base\nuname 2.6.61-56-amd64 x86_64\n"
                             "run mine.txt mount 2>&1\ninclude " + folders.root() + "/common/more.machine\n")
        .file("top/mine.txt", "from top\n");
    auto machine = host::loadMachine(folders.root() + "/top");
    host::ScopedMachine scope{*machine};
    struct utsname name;
    host::uname(&name);
    // Lines after the include override it, lines before it are overridden.
    EXPECT_STREQ(name.release, "2.6.61-56-amd64");
    EXPECT_STREQ(name.machine, "x86_64");
    FILE* stream = host::popen("lsusb -v 2>&1", "r");
    EXPECT_EQ(readAll(stream), "from base\n");
    host::pclose(stream);
    stream = host::popen("mount 2>&1", "r");
    EXPECT_EQ(readAll(stream), "from top\n");
    host::pclose(stream);
    // Data files are read from the folder of the file that names them.
    EXPECT_NE(machine->model("/etc/a"), nullptr);
    int fd = host::open("/etc/b", O_RDONLY);
    char text[32] = {};
    ASSERT_GE(fd, 0);
    EXPECT_EQ(host::read(fd, text, sizeof text - 1), 12);
    host::close(fd);
    EXPECT_STREQ(text, "b of common\n");
    EXPECT_EQ(machine->tools(), std::set<std::string>{"dirname"});
    // The same file may be included twice, one after the other.
    auto twice = host::loadMachine(folders.file("twice/machine", "include ../base\ninclude ../base\n").root() + "/twice");
    EXPECT_NE(twice->model("/etc/a"), nullptr);
}

TEST(MachineDirectoryTest, LoadsTheVirtioSample)
{
    auto machine = host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/virtio-vm");
    host::ScopedMachine scope{*machine};
    EXPECT_EQ(host::open("/dev/mem", O_RDONLY), -1);
    EXPECT_EQ(errno, EACCES);
}

TEST(MachineDirectoryTest, AMissingDirectoryIsOneClearLine)
{
    try {
        host::loadMachine("/no/such/machine");
        FAIL() << "no exception";
    } catch (const host::MachineDirectoryError& e) {
        EXPECT_STREQ(e.what(), "machine /no/such/machine: no such directory");
    }
}

TEST(MachineDirectoryTest, AnUnknownDirectiveNamesItsLine)
{
    host::FakeMachine machine;
    try {
        host::loadMachineText(machine, "uname 6.1 x86_64\n\nfrobnicate /dev/x\n", "/m");
        FAIL() << "no exception";
    } catch (const host::MachineDirectoryError& e) {
        EXPECT_STREQ(e.what(), "machine /m, line 3: unknown directive 'frobnicate'");
    }
}

TEST(MachineDirectoryTest, BadNumbersAndMissingDataFilesAreRefused)
{
    host::FakeMachine machine;
    EXPECT_THROW(host::loadMachineText(machine, "serial /dev/ttyS0 irq=four\n", "/m"), host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "run nothing.txt lsusb\n", "/m"), host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "node /dev/x q\n", "/m"), host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "uname\n", "/m"), host::MachineDirectoryError);
}

TEST(MachineDirectoryTest, RunKeepsTheCommandLineAsWritten)
{
    host::FakeMachine machine;
    host::loadMachineText(machine, "run - /sbin/lspci -v 2>&1\nmissing-command gone\\n\n", "/m");
    host::ScopedMachine scope{machine};
    FILE* stream = host::popen("/sbin/lspci -v 2>&1", "r");
    EXPECT_EQ(readAll(stream), "");
    host::pclose(stream);
    stream = host::popen("lsusb", "r");
    EXPECT_EQ(readAll(stream), "gone\n");
    host::pclose(stream);
}

TEST(FakeMachineTest, ALinkOpensItsTargetAndADanglingOneLeadsNowhere)
{
    host::FakeMachine machine;
    machine.addNode("/dev/sr0", 'b', nullptr);
    machine.addLink("/dev/cdrom", "sr0");
    machine.addLink("/dev/dvd", "/dev/cdrom");
    machine.addLink("/dev/gone", "sr9");
    machine.addLink("/dev/loop", "loop");
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/dvd", O_RDONLY);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(machine.openDescriptors(), std::vector<std::string>{"/dev/dvd"});
    host::close(fd);
    EXPECT_EQ(host::open("/dev/gone", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(host::open("/dev/loop", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FakeMachineTest, ADirectoryReachedThroughALinkIsListed)
{
    host::FakeMachine machine;
    machine.addNode("/devices/pci0000:00/0000:00:05.0/host2/scsi_host", 'c', nullptr);
    machine.addLink("/class/scsi_host/host2", "../../devices/pci0000:00/0000:00:05.0/host2");
    host::ScopedMachine scope{machine};
    host::Dir* dir = host::opendir("/class/scsi_host/host2");
    ASSERT_NE(dir, nullptr);
    std::vector<std::string> names;
    while (struct dirent* entry = host::readdir(dir)) {
        names.push_back(entry->d_name);
    }
    host::closedir(dir);
    EXPECT_EQ(names, (std::vector<std::string>{".", "..", "scsi_host"}));
}

namespace {

// A model of two requests, for the table's sake.
class TwoRequestModel : public host::DeviceModel {
public:
    TwoRequestModel()
    {
        answer(0x1234, "FIRST", [](host::FakeMachine&, void* argument, host::IoctlRecord& event) {
            event.input = "in";
            *static_cast<int*>(argument) = 7;
            return 0;
        });
        answer(0x5678, "SECOND", [](host::FakeMachine&, void*, host::IoctlRecord& event) {
            event.name += " REFINED";
            return 3;
        });
    }
};

} // namespace

TEST(FakeMachineTest, AModelAnswersFromItsTableAndEveryIoctlIsRecordedByName)
{
    host::FakeMachine machine;
    auto model = std::make_shared<TwoRequestModel>();
    machine.addNode("/dev/two", 'c', model);
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/two", O_RDONLY);
    int value = 0;
    EXPECT_EQ(host::ioctl(fd, 0x1234, &value), 0);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(host::ioctl(fd, 0x5678, nullptr), 3);
    EXPECT_EQ(host::ioctl(fd, 0x9abc, nullptr), -1);
    EXPECT_EQ(errno, ENOTTY);
    model->refuse(0x1234, EIO);
    EXPECT_EQ(host::ioctl(fd, 0x1234, &value), -1);
    EXPECT_EQ(errno, EIO);
    host::close(fd);
    EXPECT_EQ(machine.ioctlNames("/dev/two"),
              (std::vector<std::string>{"FIRST", "SECOND REFINED", "ioctl 0x9ABC", "FIRST"}));
    ASSERT_EQ(machine.ioctls().size(), 4u);
    EXPECT_EQ(machine.ioctls()[0].input, "in");
    EXPECT_EQ(machine.ioctls()[0].result, 0);
    EXPECT_EQ(machine.ioctls()[1].result, 3);
    EXPECT_EQ(machine.ioctls()[2].request, 0x9abcul);
    EXPECT_EQ(machine.ioctls()[3].result, -EIO);
}

TEST(FakeMachineTest, SemaphoresRefuseAnExclusiveCreateOfAnExistingSet)
{
    host::FakeMachine machine;
    machine.semaphores().setFirstId(65536);
    host::ScopedMachine scope{machine};
    int id = host::semget(0x1FE101F, 1, IPC_CREAT | IPC_EXCL | 0600);
    EXPECT_EQ(id, 65536);
    EXPECT_EQ(host::semget(0x1FE101F, 1, IPC_CREAT | IPC_EXCL | 0600), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(host::semget(0x1FE101F, 1, 0600), 65536);
    EXPECT_EQ(host::semctl(1, 0, GETVAL), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(FakeMachineTest, SemaphoresKeepTheUndoOfTheirOperations)
{
    host::FakeMachine machine;
    machine.semaphores().preset(0x1FE101F, 1);
    host::ScopedMachine scope{machine};
    int id = host::semget(0x1FE101F, 1, 0600);
    ASSERT_GE(id, 0);
    struct sembuf down = {0, -1, SEM_UNDO};
    EXPECT_EQ(host::semop(id, &down, 1), 0);
    EXPECT_EQ(machine.semaphores().undo(0x1FE101F), 1);
    struct sembuf up = {0, 1, 0};
    EXPECT_EQ(host::semop(id, &up, 1), 0);
    EXPECT_EQ(machine.semaphores().undo(0x1FE101F), 1);
    EXPECT_EQ(host::semctl(id, 0, SETVAL, 1), 0);
    EXPECT_EQ(machine.semaphores().undo(0x1FE101F), 0);
    machine.semaphores().refuse(0x2222, ENOSPC);
    EXPECT_EQ(host::semget(0x2222, 1, IPC_CREAT | 0600), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST(FakeMachineTest, SysfsIsMountedUntilSaidOtherwiseAndAMountOfSysfsMountsIt)
{
    host::FakeMachine machine;
    EXPECT_TRUE(machine.sysfsMounted());
    EXPECT_NE(std::string(machine.sysfsRoot()), "/sys");
    machine.setSysfs("/tmp/some-tree");
    // libsysfs gets a short alias of the folder.
    std::string root = machine.sysfsRoot();
    char target[256] = {};
    ASSERT_GT(::readlink(root.c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "/tmp/some-tree");
    machine.setSysfsMounted(false);
    host::ScopedMachine scope{machine};
    EXPECT_FALSE(host::prepareSysfs());
    EXPECT_EQ(std::getenv("SYSFS_PATH"), root);
    EXPECT_EQ(host::mount("none", "//sys", "sysfs", 0, ""), 0);
    EXPECT_TRUE(host::prepareSysfs());
    EXPECT_EQ(machine.mounts(), std::vector<std::string>{"none //sys sysfs"});
}

TEST(FakeMachineTest, ARefusedMountLeavesSysfsUnmounted)
{
    host::FakeMachine machine;
    machine.setSysfsMounted(false);
    machine.refuseMounts(EPERM);
    host::ScopedMachine scope{machine};
    EXPECT_EQ(host::mount("none", "//sys", "sysfs", 0, ""), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_FALSE(host::prepareSysfs());
}

TEST(FakeMachineTest, BackOnTheLiveMachineLibsysfsIsLeftAsTheProcessHadIt)
{
    const char* before = std::getenv("SYSFS_PATH");
    std::string original = before != nullptr ? before : "";
    bool wasSet = before != nullptr;
    {
        host::FakeMachine machine;
        machine.setSysfs("/tmp/another-tree");
        host::ScopedMachine scope{machine};
        host::prepareSysfs();
        EXPECT_STREQ(std::getenv("SYSFS_PATH"), machine.sysfsRoot());
    }
    EXPECT_TRUE(host::prepareSysfs());
    const char* after = std::getenv("SYSFS_PATH");
    EXPECT_EQ(after != nullptr, wasSet);
    if (after != nullptr) {
        EXPECT_EQ(original, after);
    }
}

TEST(MachineDirectoryTest, LinksSysfsAndMountsAreDescribedByDirectives)
{
    host::FakeMachine machine;
    host::loadMachineText(machine,
                          "node /dev/sr0 b\nlink /dev/cdrom sr0\nsysfs unmounted\nrefuse-mount EPERM\n", "/m");
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/cdrom", O_RDONLY);
    EXPECT_GT(fd, 0);
    host::close(fd);
    EXPECT_FALSE(machine.sysfsMounted());
    EXPECT_EQ(host::mount("none", "//sys", "sysfs", 0, ""), -1);
    EXPECT_THROW(host::loadMachineText(machine, "sysfs no-such-folder\n", "/m"), host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "refuse-mount ESOMETHING\n", "/m"), host::MachineDirectoryError);
}

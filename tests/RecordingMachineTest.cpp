// The recording machine: what it keeps of each call, and the directives the
// writer makes of it, loaded back into a fake machine.
#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/models/MemoryModel.h"
#include "host/models/SerialModel.h"
#include "host/models/SgModel.h"
#include "host/models/UsbfsModel.h"
#include "host/record/MachineText.h"
#include "host/record/RecordingMachine.h"
#include "host/record/RecordingWriter.h"
#include "tests/support/ScratchFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/serial.h>
#include <linux/usbdevice_fs.h>
#include <scsi/sg.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mman.h>

namespace {

using namespace Vantrel::Ostrand;
namespace fs = std::filesystem;

class Folder : public ostrand_test::ScratchFolder {
public:
    Folder() : ScratchFolder("ostrand-recording") {}
    std::string path() const { return ScratchFolder::path().string(); }
};

std::string readFile(const std::string& path) { return host::readWholeFile(path); }

std::string readAll(FILE* stream)
{
    std::string text;
    char buffer[256];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, stream)) > 0) {
        text.append(buffer, n);
    }
    return text;
}

// Sends one SCSI command through SG_IO and gives back the header.
sg_io_hdr_t sendCommand(int fd, unsigned char opcode, unsigned char* data, unsigned int length, unsigned char* sense)
{
    unsigned char command[6] = {opcode, 0, 0, 0, static_cast<unsigned char>(length), 0};
    sg_io_hdr_t header;
    std::memset(&header, 0, sizeof header);
    header.interface_id = 'S';
    header.cmdp = command;
    header.cmd_len = sizeof command;
    header.dxfer_direction = length > 0 ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
    header.dxferp = data;
    header.dxfer_len = length;
    header.sbp = sense;
    header.mx_sb_len = 32;
    host::ioctl(fd, SG_IO, &header);
    header.cmdp = nullptr;
    return header;
}

// Writes the recording and loads it back.
std::unique_ptr<host::FakeMachine> writtenAndLoaded(const host::RecordingMachine& recorder, const Folder& folder,
                                                    std::string* machineText = nullptr)
{
    host::writeRecording(recorder.recording(), folder.path(), host::RecordingHeader{{"A test."}});
    if (machineText != nullptr) {
        *machineText = readFile(folder.path() + "/machine");
    }
    return host::loadMachine(folder.path());
}

TEST(RecordingMachineTest, ACommandIsKeptByItsLineAndTheLibraryReadsTheSameOutput)
{
    host::FakeMachine fake;
    fake.addCommand("/sbin/lspci -n 2>&1", "00:00.0 0600: 8086:1237 (rev 02)\n");
    host::RecordingMachine recorder(fake);
    host::ScopedMachine use(recorder);
    for (int i = 0; i < 2; ++i) {
        FILE* stream = host::popen("/sbin/lspci -n 2>&1", "r");
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(readAll(stream), "00:00.0 0600: 8086:1237 (rev 02)\n");
        EXPECT_EQ(host::pclose(stream), 0);
    }
    ASSERT_EQ(recorder.recording().commands.size(), 1u);
    EXPECT_EQ(recorder.recording().commands[0].line, "/sbin/lspci -n 2>&1");
    EXPECT_EQ(recorder.recording().commands[0].output, "00:00.0 0600: 8086:1237 (rev 02)\n");
    EXPECT_EQ(fake.timesRun("/sbin/lspci -n 2>&1"), 2);
    EXPECT_EQ(fake.openStreams(), 0u);
}

TEST(RecordingMachineTest, AnEmptyOutputIsKeptAndReadsAsEmpty)
{
    host::FakeMachine fake;
    fake.addCommand("lsusb -v 2>&1", "");
    host::RecordingMachine recorder(fake);
    host::ScopedMachine use(recorder);
    FILE* stream = host::popen("lsusb -v 2>&1", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readAll(stream), "");
    host::pclose(stream);
    Folder folder;
    std::string text;
    auto loaded = writtenAndLoaded(recorder, folder, &text);
    EXPECT_NE(text.find("\nsize tools/lsusb-v.txt 0\nrun tools/lsusb-v.txt lsusb -v 2>&1\n"), std::string::npos) << text;
    EXPECT_EQ(loaded->timesRun("lsusb -v 2>&1"), 0);
}

TEST(RecordingMachineTest, ScandirKeepsTheWholeListingAndGivesTheCallerItsFilteredScan)
{
    host::FakeMachine fake;
    fake.addNode("/dev/sg0", 'c', nullptr);
    fake.addNode("/dev/sda", 'b', nullptr);
    fake.addDirectory("/dev/pts");
    fake.addLink("/dev/stdin", "/proc/self/fd/0");
    host::RecordingMachine recorder(fake);
    host::ScopedMachine use(recorder);
    struct dirent** list = nullptr;
    int count = host::scandir(
        "/dev", &list, [](const struct dirent* entry) { return std::strncmp(entry->d_name, "sg", 2) == 0 ? 1 : 0; },
        nullptr);
    ASSERT_EQ(count, 1);
    EXPECT_STREQ(list[0]->d_name, "sg0");
    std::free(list[0]);
    std::free(list);

    Folder folder;
    std::string text;
    writtenAndLoaded(recorder, folder, &text);
    EXPECT_NE(text.find("\nnode /dev/sda b\nnode /dev/sg0 c\nlink /dev/stdin\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\ndir /dev/pts\n"), std::string::npos) << text;
}

TEST(RecordingMachineTest, AnOpenThatWasRefusedIsDeniedAndAMissingPathStaysMissing)
{
    host::FakeMachine fake;
    fake.addNode("/dev/mem", 'c', nullptr);
    fake.denyOpen("/dev/mem", EACCES);
    host::RecordingMachine recorder(fake);
    {
        host::ScopedMachine use(recorder);
        EXPECT_LT(host::open("/dev/mem", O_RDONLY), 0);
        EXPECT_EQ(errno, EACCES);
        EXPECT_LT(host::open("/dev/nothing", O_RDONLY), 0);
        EXPECT_EQ(errno, ENOENT);
    }
    Folder folder;
    std::string text;
    auto loaded = writtenAndLoaded(recorder, folder, &text);
    EXPECT_NE(text.find("\ndeny /dev/mem EACCES\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("/dev/nothing"), std::string::npos) << text;
    host::ScopedMachine use(*loaded);
    EXPECT_LT(host::open("/dev/mem", O_RDONLY), 0);
    EXPECT_EQ(errno, EACCES);
}

TEST(RecordingMachineTest, AnSgCommandKeepsItsBlockDataAndSenseAndReplaysExactly)
{
    host::FakeMachine fake;
    host::ScsiAddress address;
    address.host = 3;
    address.type = 5;
    auto sg = std::make_shared<host::SgModel>(address);
    // Sense data with an information field, which no canned reply writes.
    host::SgReply odd = host::SgReply::check(2, 0x3A, 1);
    odd.sense[3] = 0x12;
    sg->addReply(host::kTestUnitReady, odd);
    sg->addReply(host::kTestUnitReady, host::SgReply::good());
    sg->addReply(host::kReadCapacity10, host::SgReply::good(host::capacityData(0x514C7, 2048)));
    fake.addNode("/dev/sg0", 'c', sg);
    host::RecordingMachine recorder(fake);

    auto exchange = [](std::vector<sg_io_hdr_t>& headers, std::vector<std::string>& senses) {
        int fd = host::open("/dev/sg0", O_RDWR);
        ASSERT_GE(fd, 0);
        for (unsigned char opcode : {0x00, 0x00, 0x25}) {
            unsigned char data[8] = {};
            unsigned char sense[32] = {};
            headers.push_back(sendCommand(fd, opcode, opcode == 0x25 ? data : nullptr, opcode == 0x25 ? 8 : 0, sense));
            senses.push_back(std::string(reinterpret_cast<char*>(sense), headers.back().sb_len_wr) +
                             std::string(reinterpret_cast<char*>(data), 8));
        }
        host::close(fd);
    };
    std::vector<sg_io_hdr_t> live;
    std::vector<std::string> liveBytes;
    {
        host::ScopedMachine use(recorder);
        exchange(live, liveBytes);
    }
    const auto& calls = recorder.recording().paths.at("/dev/sg0").ioctls;
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].input, std::string(6, '\0'));
    EXPECT_EQ(calls[0].status, 2);
    EXPECT_EQ(calls[0].sense.size(), 18u);
    EXPECT_EQ(calls[2].output, host::capacityData(0x514C7, 2048));

    Folder folder;
    std::string text;
    auto loaded = writtenAndLoaded(recorder, folder, &text);
    EXPECT_NE(text.find("\nsg-reply /dev/sg0 test-unit-ready status 02 sense=700002120000000A000000003A0100000000\n"
                        "sg-reply /dev/sg0 test-unit-ready good\n"
                        "sg-reply /dev/sg0 read-capacity good 000514C700000800\n"),
              std::string::npos)
        << text;
    std::vector<sg_io_hdr_t> replayed;
    std::vector<std::string> replayedBytes;
    {
        host::ScopedMachine use(*loaded);
        exchange(replayed, replayedBytes);
    }
    EXPECT_EQ(replayedBytes, liveBytes);
    for (size_t i = 0; i < live.size(); ++i) {
        EXPECT_EQ(replayed[i].status, live[i].status) << i;
        EXPECT_EQ(replayed[i].sb_len_wr, live[i].sb_len_wr) << i;
        EXPECT_EQ(replayed[i].resid, live[i].resid) << i;
    }
}

TEST(RecordingMachineTest, ARefusedIoctlIsRefusedInTheReplayWithItsError)
{
    host::FakeMachine fake;
    fake.addNode("/dev/ttyS5", 'c', std::make_shared<host::SerialModel>(4, 0x3f8, 4));
    fake.model("/dev/ttyS5")->refuse(TIOCGSERIAL, EIO);
    host::RecordingMachine recorder(fake);
    {
        host::ScopedMachine use(recorder);
        int fd = host::open("/dev/ttyS5", O_RDWR);
        struct serial_struct serial;
        EXPECT_LT(host::ioctl(fd, TIOCGSERIAL, &serial), 0);
        host::close(fd);
    }
    Folder folder;
    std::string text;
    auto loaded = writtenAndLoaded(recorder, folder, &text);
    EXPECT_NE(text.find("\nnode /dev/ttyS5 c\nrefuse-ioctl /dev/ttyS5 TIOCGSERIAL EIO\n"), std::string::npos) << text;
    host::ScopedMachine use(*loaded);
    int fd = host::open("/dev/ttyS5", O_RDWR);
    struct serial_struct serial;
    errno = 0;
    EXPECT_LT(host::ioctl(fd, TIOCGSERIAL, &serial), 0);
    EXPECT_EQ(errno, EIO);
    host::close(fd);
}

TEST(RecordingMachineTest, AMappingIsKeptAsMemoryAndTheRecorderWritesNothingItself)
{
    host::FakeMachine fake;
    host::loadMachineText(fake, "", ".");
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0xF5C80, "$PIR");
    fake.addNode("/dev/mem", 'c', memory);
    host::RecordingMachine recorder(fake);
    {
        host::ScopedMachine use(recorder);
        int fd = host::open("/dev/mem", O_RDONLY);
        void* area = host::mmap(nullptr, 0x10000, PROT_READ, MAP_SHARED, fd, 0xF0000);
        ASSERT_NE(area, MAP_FAILED);
        EXPECT_EQ(std::memcmp(static_cast<char*>(area) + 0x5C80, "$PIR", 4), 0);
        host::munmap(area, 0x10000);
        host::close(fd);
    }
    EXPECT_TRUE(fake.writes().empty());
    Folder folder;
    std::string text;
    writtenAndLoaded(recorder, folder, &text);
    EXPECT_NE(text.find("\nsize memory/mem-0xF0000.bin 65536\nmemory /dev/mem 0xF0000 memory/mem-0xF0000.bin\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(readFile(folder.path() + "/memory/mem-0xF0000.bin").substr(0x5C80, 4), "$PIR");
}

TEST(RecordingMachineTest, SemaphoreKeysAreNamedButNotTheirValues)
{
    host::FakeMachine fake;
    host::RecordingMachine recorder(fake);
    {
        host::ScopedMachine use(recorder);
        int id = host::semget(0x1FE101F, 1, IPC_CREAT | 0600);
        ASSERT_GE(id, 0);
        host::semctl(id, 0, SETVAL, 7);
    }
    EXPECT_EQ(recorder.recording().semaphoreKeys, std::set<int>{0x1FE101F});
    Folder folder;
    std::string text;
    writtenAndLoaded(recorder, folder, &text);
    EXPECT_NE(text.find("# Semaphore keys used: 0x1FE101F. Their values are not kept: a replay starts fresh."),
              std::string::npos);
    EXPECT_EQ(text.find("\n7"), std::string::npos);
}

TEST(RecordingMachineTest, AUsbTransferBeyondTheDescriptorsIsWrittenAsAReplyAndAFailureAsAFailure)
{
    auto model = std::make_shared<host::UsbfsModel>();
    model->setDeviceDescriptor(std::string("\x12\x01\x00\x02\x00\x00\x00\x40\x27\x06\x01\x00\x00\x00\x00\x00\x00\x01", 18));
    model->addConfiguration(std::string("\x09\x02\x12\x00\x01\x01\x00\x80\x32\x09\x04\x00\x00\x00\x03\x01\x01\x00", 18));
    model->setReply("USBDEVFS_CONTROL request 0xc0/0x01", "ab");
    model->fail("USBDEVFS_CONTROL GET_STATUS(device)", EPIPE);
    host::FakeMachine fake;
    fake.addNode("/dev/bus/usb/001/002", 'c', model);
    host::RecordingMachine recorder(fake);
    auto transfer = [](int fd, unsigned char type, unsigned char request, unsigned short value, unsigned char* data,
                       unsigned short length) {
        usbdevfs_ctrltransfer t;
        std::memset(&t, 0, sizeof t);
        t.bRequestType = type;
        t.bRequest = request;
        t.wValue = value;
        t.wLength = length;
        t.data = data;
        t.timeout = 1000;
        return host::ioctl(fd, USBDEVFS_CONTROL, &t);
    };
    auto ask = [&](std::vector<std::string>& answers) {
        int fd = host::open("/dev/bus/usb/001/002", O_RDWR);
        unsigned char data[64];
        for (auto setup : {std::make_pair<unsigned char, unsigned short>(0x80, 0x0100),
                           std::make_pair<unsigned char, unsigned short>(0xc0, 0x0000)}) {
            std::memset(data, 0, sizeof data);
            int got = transfer(fd, setup.first, setup.first == 0x80 ? 6 : 1, setup.second, data, 64);
            answers.push_back(std::to_string(got) + ":" + std::string(reinterpret_cast<char*>(data), got > 0 ? got : 0));
        }
        errno = 0;
        int status = transfer(fd, 0x80, 0, 0, data, 2);
        answers.push_back(std::to_string(status) + ":" + std::to_string(errno));
        host::close(fd);
    };
    std::vector<std::string> live;
    {
        host::ScopedMachine use(recorder);
        ask(live);
    }
    Folder folder;
    auto loaded = writtenAndLoaded(recorder, folder);
    std::string device = readFile(folder.path() + "/usbfs/001-002.usb");
    EXPECT_NE(device.find("\ndevice 12 01 00 02 00 00 00 40 27 06 01 00 00 00 00 00 00 01\n"), std::string::npos)
        << device;
    EXPECT_NE(device.find("\nreply 6162 USBDEVFS_CONTROL request 0xc0/0x01\n"), std::string::npos) << device;
    EXPECT_NE(device.find("\nfail EPIPE USBDEVFS_CONTROL GET_STATUS(device)\n"), std::string::npos) << device;
    std::vector<std::string> replayed;
    {
        host::ScopedMachine use(*loaded);
        ask(replayed);
    }
    EXPECT_EQ(replayed, live);
}

// --- The directives recordings use -------------------------------------------------------------

TEST(RecordingDirectivesTest, SizeChecksTheLengthOfADataFile)
{
    Folder folder;
    std::ofstream(folder.path() + "/out.txt") << "12345";
    host::FakeMachine machine;
    EXPECT_NO_THROW(host::loadMachineText(machine, "size out.txt 5\n", folder.path()));
    try {
        host::loadMachineText(machine, "\nsize out.txt 6\n", folder.path());
        FAIL();
    } catch (const host::MachineDirectoryError& e) {
        EXPECT_STREQ(e.what(), ("machine " + folder.path() +
                                ", line 2: out.txt holds 5 bytes, not the 6 that were recorded (cut short or edited)")
                                   .c_str());
    }
    EXPECT_THROW(host::loadMachineText(machine, "size out.txt -1\n", folder.path()), host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "size gone.txt 0\n", folder.path()), host::MachineDirectoryError);
}

TEST(RecordingDirectivesTest, RefuseIoctlNamesTheRequestAndTheError)
{
    host::FakeMachine machine;
    host::loadMachineText(machine, "refuse-ioctl /dev/sr0 HDIO_GET_IDENTITY EINVAL\nrefuse-ioctl /dev/x 0x5401 95\n",
                          ".");
    host::ScopedMachine use(machine);
    int fd = host::open("/dev/sr0", O_RDONLY);
    ASSERT_GE(fd, 0);
    char identity[512];
    errno = 0;
    EXPECT_LT(host::ioctl(fd, 0x030D, identity), 0);
    EXPECT_EQ(errno, EINVAL);
    int other = host::open("/dev/x", O_RDONLY);
    errno = 0;
    EXPECT_LT(host::ioctl(other, 0x5401, nullptr), 0);
    EXPECT_EQ(errno, 95);
    EXPECT_THROW(host::loadMachineText(machine, "refuse-ioctl /dev/sr0 HDIO_SET_MOON EINVAL\n", "."),
                 host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "refuse-ioctl /dev/sr0 SG_IO EWHATEVER\n", "."),
                 host::MachineDirectoryError);
}

TEST(RecordingDirectivesTest, AStatusReplyCarriesItsDataAndSenseAndRefusesOthers)
{
    host::FakeMachine machine;
    host::loadMachineText(machine,
                          "sg /dev/sg0 host=0 channel=0 id=0 lun=0 type=5\n"
                          "sg-reply /dev/sg0 inquiry status 02 data=0102 sense=7000\n",
                          ".");
    host::ScopedMachine use(machine);
    int fd = host::open("/dev/sg0", O_RDWR);
    unsigned char data[8] = {};
    unsigned char sense[32] = {};
    sg_io_hdr_t header = sendCommand(fd, 0x12, data, 8, sense);
    EXPECT_EQ(header.status, 2);
    EXPECT_EQ(header.sb_len_wr, 2);
    EXPECT_EQ(sense[0], 0x70);
    EXPECT_EQ(data[0], 0x01);
    EXPECT_EQ(data[1], 0x02);
    EXPECT_EQ(header.resid, 6);
    for (const char* bad : {"status", "status 1FF", "status 02 data=0", "status 02 data=zz", "status 02 junk=00"}) {
        host::FakeMachine other;
        EXPECT_THROW(host::loadMachineText(other,
                                           std::string("sg /dev/sg0 type=5\nsg-reply /dev/sg0 inquiry ") + bad + "\n",
                                           "."),
                     host::MachineDirectoryError)
            << bad;
    }
}

TEST(RecordingDirectivesTest, AUsbReplyLineTakesHexadecimalBytesOrADash)
{
    auto model = host::UsbfsModel::parse("device 12 01 00 02 00 00 00 40 27 06 01 00 00 00 00 00 00 01\n"
                                         "reply - GET_CONFIGURATION\nreply 0A0B request 0xc0/0x01\n");
    ASSERT_NE(model, nullptr);
    EXPECT_THROW(host::UsbfsModel::parse("reply ABC GET_CONFIGURATION\n"), std::invalid_argument);
    EXPECT_THROW(host::UsbfsModel::parse("reply zz GET_CONFIGURATION\n"), std::invalid_argument);
    EXPECT_THROW(host::UsbfsModel::parse("reply 00\n"), std::invalid_argument);
}

TEST(RecordingTextTest, EscapedTextsAndFileNames)
{
    EXPECT_EQ(host::escaped("usb-storage 1-1:1.0"), "usb-storage 1-1:1.0");
    EXPECT_EQ(host::escaped(" a\tb\r\n\\#\"\x01\xff "), "\\x20a\\x09b\\r\\n\\\\\\x23\\x22\\x01\\xFF\\x20");
    EXPECT_EQ(host::fileNameOf("lspci -n"), "lspci-n");
    EXPECT_EQ(host::fileNameOf("grep \"T:  Bus=01\" /proc/bus/usb/devices"), "grep-T-Bus-01-proc-bus-usb-devices");
    EXPECT_EQ(host::fileNameOf("..."), "data");
    EXPECT_EQ(host::fileNameOf(std::string(100, 'a')).size(), 60u);
    EXPECT_EQ(host::scsiCommandWord(0x25), "read-capacity");
    EXPECT_EQ(host::scsiCommandWord(0x4A), "0x4A");
    EXPECT_EQ(host::hexWord("", true), "-");
    EXPECT_EQ(host::hexPairs(std::string("\x12\x01", 2)), "12 01");
}

} // namespace

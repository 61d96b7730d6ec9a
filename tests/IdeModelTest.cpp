// The IDE and SCSI block node models of fake machines: each ioctl as the
// kernel answers it, the ATAPI packets and their replies, the directives, and
// the lab server's optical block nodes against what its kernel answered
// (ioctls.txt).
#include "host/models/IdeModel.h"
#include "host/models/ScsiBlockModel.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "probes/IdeData.h"
#include "probes/ScsiData.h"
#include "tests/support/Machines.h"
#include "tests/support/OpticalDrives.h"
#include "tests/support/ScsiNodes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/cdrom.h>
#include <linux/hdreg.h>
#include <regex>
#include <scsi/scsi.h>
#include <sstream>

using namespace Vantrel::Ostrand;
using host::IdeModel;
using host::ScsiBlockModel;
using host::SgReply;
using ostrand_test::bytes;

namespace {

using Names = std::vector<std::string>;

// A packet as a caller fills it, with its own buffers.
struct Packet {
    struct cdrom_generic_command command;
    unsigned char data[64];
    unsigned char sense[64];

    explicit Packet(std::initializer_list<int> bytesOfCommand, unsigned int length = 36)
    {
        std::memset(&command, 0, sizeof command);
        std::memset(data, 0xEE, sizeof data);
        std::memset(sense, 0, sizeof sense);
        size_t i = 0;
        // Never more than the packet holds; the bound also keeps the
        // Release build's overflow check quiet.
        for (int value : bytesOfCommand) {
            if (i == sizeof command.cmd) {
                break;
            }
            command.cmd[i++] = static_cast<unsigned char>(value);
        }
        command.buffer = data;
        command.buflen = length;
        command.sense = reinterpret_cast<struct request_sense*>(sense);
        command.data_direction = CGC_DATA_READ;
        command.timeout = 5;
    }
};

class IdeModelTest : public ::testing::Test {
protected:
    int openNode(const std::string& path) { return host::open(path.c_str(), O_RDONLY | O_NONBLOCK); }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
};

std::unique_ptr<host::FakeMachine> labServer()
{
    return host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server");
}

} // namespace

TEST_F(IdeModelTest, TheIdentityIsTheWholeBlock)
{
    std::string block = ostrand_test::paddedIdentityBlock(0x85C0, "QM00003", "2.5+", "QEMU DVD-ROM");
    ostrand_test::addIdeNode(machine, "/dev/hdc", block);
    int fd = openNode("/dev/hdc");
    struct hd_driveid id;
    std::memset(&id, 0xAA, sizeof id);
    EXPECT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, &id), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&id), sizeof id), block);
    EXPECT_EQ(machine.ioctlNames("/dev/hdc"), (Names{"HDIO_GET_IDENTITY"}));
    host::close(fd);
}

TEST_F(IdeModelTest, AShortIdentityIsPaddedWithZerosAndALongOneCut)
{
    auto model = std::make_shared<IdeModel>();
    model->setIdentity("\xC0\x85");
    machine.addNode("/dev/hdc", 'b', model);
    int fd = openNode("/dev/hdc");
    unsigned char id[512];
    std::memset(id, 0xAA, sizeof id);
    EXPECT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    EXPECT_EQ(id[0], 0xC0);
    EXPECT_EQ(id[1], 0x85);
    EXPECT_EQ(id[511], 0);
    model->setIdentity(std::string(600, 'x'));
    EXPECT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    EXPECT_EQ(id[511], 'x');
    host::close(fd);
}

TEST_F(IdeModelTest, WithoutIdentityTheIoctlIsInvalid)
{
    machine.addNode("/dev/hdc", 'b', std::make_shared<IdeModel>());
    int fd = openNode("/dev/hdc");
    unsigned char id[512] = {};
    EXPECT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), -1);
    EXPECT_EQ(errno, EINVAL);
    host::close(fd);
}

TEST_F(IdeModelTest, EachPacketIsNamedAndItsBytesKept)
{
    auto model = ostrand_test::addIdeNode(machine, "/dev/hdc", std::string(512, '\0'));
    model->addReply(0x5A, SgReply::good(ostrand_test::capabilityPage(1, 0)));
    int fd = openNode("/dev/hdc");
    Packet inquiry({0x12, 0, 0, 0, 36, 0, 0, 0, 36, 0, 0, 0});
    Packet modeSense({0x5A, 0, 0x2A, 0, 0x18, 0, 0, 0, 0x18, 0, 0, 0}, 24);
    Packet other({0x4A, 1});
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &inquiry.command), 0);
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &modeSense.command), 0);
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &other.command), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(machine.ioctlNames("/dev/hdc"),
              (Names{"CDROM_SEND_PACKET INQUIRY", "CDROM_SEND_PACKET MODE SENSE(10)", "CDROM_SEND_PACKET opcode 0x4A"}));
    EXPECT_EQ(machine.ioctls()[0].input, bytes({0x12, 0, 0, 0, 36, 0, 0, 0, 36, 0, 0, 0}));
    ASSERT_EQ(model->packets().size(), 3u);
    EXPECT_EQ(model->packets()[1].buflen, 24u);
    EXPECT_EQ(model->packets()[1].timeout, 5);
    EXPECT_EQ(model->packets()[1].dataDirection, CGC_DATA_READ);
    EXPECT_EQ(model->timesSent(0x12), 1);
    EXPECT_EQ(model->timesSent(0x5A), 1);
    host::close(fd);
}

TEST_F(IdeModelTest, InquiryAnswersFromItsFieldsAndDataAreCutToTheBuffer)
{
    auto model = ostrand_test::addIdeNode(machine, "/dev/hdc", std::string(512, '\0'));
    int fd = openNode("/dev/hdc");
    Packet blank({0x12, 0, 0, 0, 36});
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &blank.command), 0);
    InquiryReading reading = readInquiry(blank.data, 36);
    EXPECT_EQ(reading.peripheralType, 5);
    EXPECT_EQ(reading.vendor, "        ");
    EXPECT_EQ(blank.data[36], 0xEE);

    model->setInquiry(ostrand_test::inquiryAnswer("QEMU", "QEMU DVD-ROM", "2.5+"));
    Packet cut({0x12, 0, 0, 0, 10}, 10);
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &cut.command), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(cut.data) + 8, 2), "QE");
    EXPECT_EQ(cut.data[10], 0xEE);
    host::close(fd);
}

TEST_F(IdeModelTest, ACheckConditionHandsBackStatusAndSenseAndNoData)
{
    auto model = ostrand_test::addIdeNode(machine, "/dev/hdc", std::string(512, '\0'));
    model->addReply(0x5A, SgReply::check(2, 0x3A, 0x01));
    int fd = openNode("/dev/hdc");
    Packet packet({0x5A, 0, 0x2A, 0, 0x18, 0, 0, 0, 0x18}, 24);
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &packet.command), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(packet.command.stat, 2);
    EXPECT_EQ(packet.sense[0], 0x70);
    EXPECT_EQ(packet.sense[2], 0x02);
    EXPECT_EQ(packet.sense[12], 0x3A);
    EXPECT_EQ(packet.sense[13], 0x01);
    // The reply's 18 bytes; the kernel's request_sense has room for 64.
    EXPECT_EQ(sizeof(struct request_sense), 64u);
    EXPECT_EQ(packet.sense[18], 0);
    EXPECT_EQ(packet.data[0], 0xEE);
    host::close(fd);
}

TEST_F(IdeModelTest, RepliesFormASequenceWhoseLastOneStaysAndAFailureFailsTheIoctl)
{
    auto model = ostrand_test::addIdeNode(machine, "/dev/hdc", std::string(512, '\0'));
    model->addReply(0x12, SgReply::failure(ENOMEDIUM));
    model->addReply(0x12, SgReply::good("\x05"));
    int fd = openNode("/dev/hdc");
    Packet first({0x12});
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &first.command), -1);
    EXPECT_EQ(errno, ENOMEDIUM);
    for (int i = 0; i < 2; ++i) {
        Packet next({0x12});
        EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &next.command), 0);
        EXPECT_EQ(next.data[0], 0x05);
        EXPECT_EQ(next.data[1], 0xEE);
    }
    host::close(fd);
}

TEST_F(IdeModelTest, ANodeWithoutPacketsRefusesEveryOneAndStillGivesItsIdentity)
{
    auto model = ostrand_test::addIdeNode(machine, "/dev/hdd", std::string(512, '\x01'));
    model->setPackets(false);
    int fd = openNode("/dev/hdd");
    Packet packet({0x12});
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &packet.command), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(machine.ioctlNames("/dev/hdd"), (Names{"CDROM_SEND_PACKET"}));
    EXPECT_TRUE(model->packets().empty());
    unsigned char id[512];
    EXPECT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    host::close(fd);
}

TEST_F(IdeModelTest, TheScsiAddressIsPackedAsTheKernelPacksIt)
{
    host::ScsiAddress address;
    address.host = 200;
    address.channel = 2;
    address.id = 3;
    address.lun = 1;
    machine.addNode("/dev/sr0", 'b', std::make_shared<ScsiBlockModel>(address, 53248));
    int fd = openNode("/dev/sr0");
    int block[2] = {-1, -1};
    EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_GET_IDLUN, block), 0);
    EXPECT_EQ(static_cast<unsigned int>(block[0]), 0xC8020103u);
    EXPECT_EQ(block[1], 53248);
    EXPECT_EQ(machine.ioctlNames("/dev/sr0"), (Names{"SCSI_IOCTL_GET_IDLUN"}));
    host::close(fd);
}

TEST_F(IdeModelTest, TheParentNameIsAtMostTwentyCharactersWithoutNul)
{
    auto model = ostrand_test::addScsiBlockNode(machine, "/dev/sr0", 0, 0, 0, 0);
    int fd = openNode("/dev/sr0");
    char text[32];
    EXPECT_EQ(host::ioctl(fd, host::kScsiIoctlGetPci, text), -1);
    EXPECT_EQ(errno, ENXIO);
    model->setPci("0000:00:05.0-and-more-than-twenty");
    std::memset(text, '#', sizeof text);
    EXPECT_EQ(host::ioctl(fd, host::kScsiIoctlGetPci, text), 0);
    EXPECT_EQ(std::string(text, 21), "0000:00:05.0-and-mor#");
    // The IDE side: no identity, packets answered.
    unsigned char id[512];
    EXPECT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), -1);
    EXPECT_EQ(errno, EINVAL);
    Packet packet({0x12});
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &packet.command), 0);
    host::close(fd);
}

TEST(IdeDirectiveTest, DescribeNodesLineByLine)
{
    host::FakeMachine machine;
    std::string directory = ::testing::TempDir() + "ide-directive-test";
    std::string identity = ostrand_test::paddedIdentityBlock(0x85C0, "QM00003", "2.5+", "QEMU DVD-ROM");
    {
        std::filesystem::create_directories(directory);
        FILE* file = std::fopen((directory + "/id.bin").c_str(), "wb");
        ASSERT_NE(file, nullptr);
        std::fwrite(identity.data(), 1, identity.size(), file);
        std::fclose(file);
    }
    host::loadMachineText(machine,
                          "ide /dev/hdc identity=id.bin\n"
                          "ide-inquiry /dev/hdc type=5 rmb=1 vendor=\"QEMU\" product=\"QEMU DVD-ROM\" rev=\"2.5+\"\n"
                          "ide-packet /dev/hdc mode-sense good 0000 00 00 0000 0000 2A 18 1F 00\n"
                          "ide-packet /dev/hdc 0x4A check 6 28\n"
                          "ide /dev/hdd identity=id.bin packets=0\n"
                          "ide /dev/hde\n"
                          "node /dev/sr1 b\n"
                          "scsi-block /dev/sr1 host=2 channel=0 id=2 lun=0 unique-id=53248\n"
                          "scsi-block-pci /dev/sr1 0000:00:05.0\n"
                          "ide-packet /dev/sr1 inquiry fail EIO\n"
                          "scsi-block /dev/sr0 host=1 identity=id.bin\n",
                          directory);
    host::ScopedMachine scope{machine};
    auto hdc = std::dynamic_pointer_cast<IdeModel>(machine.model("/dev/hdc"));
    ASSERT_NE(hdc, nullptr);
    EXPECT_TRUE(hdc->hasIdentity());
    EXPECT_EQ(hdc->inquiry().vendor, "QEMU");
    EXPECT_EQ(hdc->inquiry().product, "QEMU DVD-ROM");
    int fd = host::open("/dev/hdc", O_RDONLY | O_NONBLOCK);
    Packet modeSense({0x5A}, 24);
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &modeSense.command), 0);
    EXPECT_EQ(modeSense.data[10], 0x1F);
    Packet other({0x4A});
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &other.command), -1);
    EXPECT_EQ(other.sense[2], 0x06);
    unsigned char id[512];
    EXPECT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(id), 512), identity);
    host::close(fd);

    fd = host::open("/dev/hdd", O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &other.command), -1);
    EXPECT_EQ(errno, EINVAL);
    host::close(fd);
    EXPECT_FALSE(std::dynamic_pointer_cast<IdeModel>(machine.model("/dev/hde"))->hasIdentity());

    // The scsi-block line replaced the plain node.
    auto sr1 = std::dynamic_pointer_cast<ScsiBlockModel>(machine.model("/dev/sr1"));
    ASSERT_NE(sr1, nullptr);
    EXPECT_EQ(sr1->address().host, 2);
    EXPECT_EQ(sr1->address().id, 2);
    fd = host::open("/dev/sr1", O_RDONLY | O_NONBLOCK);
    int block[2] = {};
    EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_GET_IDLUN, block), 0);
    EXPECT_EQ(block[0], 0x02000002);
    EXPECT_EQ(block[1], 53248);
    char text[21] = {};
    EXPECT_EQ(host::ioctl(fd, host::kScsiIoctlGetPci, text), 0);
    EXPECT_STREQ(text, "0000:00:05.0");
    Packet inquiry({0x12});
    EXPECT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &inquiry.command), -1);
    EXPECT_EQ(errno, EIO);
    host::close(fd);
    EXPECT_TRUE(std::dynamic_pointer_cast<ScsiBlockModel>(machine.model("/dev/sr0"))->hasIdentity());
    std::filesystem::remove_all(directory);
}

TEST(IdeDirectiveTest, BadLinesNameTheirFault)
{
    const std::pair<const char*, const char*> cases[] = {
        {"ide-packet /dev/hdc inquiry good\n", "no ide or scsi-block node /dev/hdc"},
        {"node /dev/hdc b\nide-inquiry /dev/hdc vendor=\"A\"\n", "no ide or scsi-block node /dev/hdc"},
        {"ide /dev/hdc\nscsi-block-pci /dev/hdc ata2\n", "no scsi-block node /dev/hdc"},
        {"sg /dev/sg0\nide-packet /dev/sg0 inquiry good\n", "no ide or scsi-block node /dev/sg0"},
        {"ide /dev/hdc packets=2\n", "'packets' is 0 or 1"},
        {"ide /dev/hdc identity=no-such-file\n", "no-such-file"},
        {"scsi-block /dev/sr0 host=x\n", "'host' is a number from 0 to 255: x"},
        {"ide /dev/hdc\nide-packet /dev/hdc eject good\n", "unknown SCSI command eject"},
        {"ide /dev/hdc\nide-packet /dev/hdc inquiry check 2\n", "expected: ide-packet"},
        {"ide /dev/hdc\nide-packet /dev/hdc inquiry maybe\n", "expected: ide-packet"},
        {"ide /dev/hdc\nide-inquiry /dev/hdc colour=\"red\"\n", "unknown INQUIRY field colour"},
        {"scsi-block /dev/sr0\nscsi-block-pci /dev/sr0\n", "expected: scsi-block-pci"},
    };
    for (const auto& c : cases) {
        host::FakeMachine machine;
        try {
            host::loadMachineText(machine, c.first, "/m");
            ADD_FAILURE() << "no error for: " << c.first;
        } catch (const host::MachineDirectoryError& e) {
            EXPECT_NE(std::string(e.what()).find(c.second), std::string::npos) << e.what();
        }
    }
}

TEST(IdeDirectiveTest, AnIdentityFileOfAnotherSizeIsRefused)
{
    std::string directory = ::testing::TempDir() + "ide-directive-size";
    std::filesystem::create_directories(directory);
    FILE* file = std::fopen((directory + "/short.bin").c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fputs("short", file);
    std::fclose(file);
    host::FakeMachine machine;
    try {
        host::loadMachineText(machine, "ide /dev/hdc identity=short.bin\n", directory);
        ADD_FAILURE() << "no error";
    } catch (const host::MachineDirectoryError& e) {
        EXPECT_NE(std::string(e.what()).find("short.bin holds 5 bytes, not the 512 of an identity block"),
                  std::string::npos)
            << e.what();
    }
    std::filesystem::remove_all(directory);
}

// --- The lab server -------------------------------------------------------------------------

TEST(LabServerOpticalTest, TheOpticalBlockNodesAnswerAsTheKernelDid)
{
    static const std::regex idlun(
        R"re((/dev/sr\d): SCSI_IOCTL_GET_IDLUN dev_id=0x([0-9a-f]+) .* host_unique_id=(\d+))re");
    static const std::regex pci(R"re((/dev/sr\d): SCSI_IOCTL_GET_PCI "(.*)")re");
    static const std::regex noIdentity(R"re((/dev/sr\d): HDIO_GET_IDENTITY: Invalid argument)re");
    static const std::regex identity(
        R"re((/dev/sr\d): HDIO_GET_IDENTITY word0=0x([0-9a-f]+) \(ATAPI=1\) model="(.*)" serial="(.*)" fw="(.*)")re");
    static const std::regex inquiry(
        R"re((/dev/sr\d): CDROM_SEND_PACKET INQUIRY type=(\d+) vendor="(.*)" product="(.*)" rev="(.*)")re");
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    std::istringstream lines(ostrand_test::capture("lab-server/ioctls.txt"));
    std::string line;
    std::smatch m;
    int checked = 0;
    while (std::getline(lines, line)) {
        if (!std::regex_match(line, m, idlun) && !std::regex_match(line, m, pci) &&
            !std::regex_match(line, m, noIdentity) && !std::regex_match(line, m, identity) &&
            !std::regex_match(line, m, inquiry)) {
            continue;
        }
        std::string path = m[1];
        int fd = host::open(path.c_str(), O_RDONLY | O_NONBLOCK);
        ASSERT_GT(fd, 0) << path;
        if (std::regex_match(line, m, idlun)) {
            int block[2] = {};
            ASSERT_EQ(host::ioctl(fd, SCSI_IOCTL_GET_IDLUN, block), 0);
            EXPECT_EQ(static_cast<unsigned int>(block[0]), std::stoul(m[2], nullptr, 16)) << line;
            EXPECT_EQ(block[1], std::stoi(m[3])) << line;
        } else if (std::regex_match(line, m, pci)) {
            char text[21] = {};
            ASSERT_EQ(host::ioctl(fd, host::kScsiIoctlGetPci, text), 0);
            EXPECT_EQ(std::string(text), m[2].str()) << line;
        } else if (std::regex_match(line, m, noIdentity)) {
            unsigned char id[512];
            EXPECT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), -1) << line;
            EXPECT_EQ(errno, EINVAL);
        } else if (std::regex_match(line, m, identity)) {
            unsigned char id[512] = {};
            ASSERT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), 0);
            EXPECT_EQ(id[0] | (id[1] << 8), std::stoi(m[2], nullptr, 16)) << line;
            EXPECT_EQ(std::string(reinterpret_cast<char*>(id) + 54, 40), m[3].str()) << line;
            EXPECT_EQ(std::string(reinterpret_cast<char*>(id) + 20, 20), m[4].str()) << line;
            EXPECT_EQ(std::string(reinterpret_cast<char*>(id) + 46, 8), m[5].str()) << line;
        } else if (std::regex_match(line, m, inquiry)) {
            Packet packet({0x12, 0, 0, 0, 36, 0, 0, 0, 36});
            ASSERT_EQ(host::ioctl(fd, CDROM_SEND_PACKET, &packet.command), 0);
            InquiryReading reading = readInquiry(packet.data, 36);
            EXPECT_EQ(reading.peripheralType, std::stoi(m[2])) << line;
            EXPECT_EQ(reading.vendor, (m[3].str() + "        ").substr(0, 8)) << line;
            EXPECT_EQ(reading.product, (m[4].str() + std::string(16, ' ')).substr(0, 16)) << line;
            EXPECT_EQ(reading.revision, m[5].str()) << line;
        }
        host::close(fd);
        ++checked;
    }
    // Four lines for each of sr0, sr1 and sr2; hdc is sr0's alias, not a node of the machine.
    EXPECT_EQ(checked, 12);
}

TEST(LabServerOpticalTest, TheIdeDrivesIdentityReadsAsTheFinderReadsIt)
{
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    int fd = host::open("/dev/sr0", O_RDONLY | O_NONBLOCK);
    unsigned char id[512] = {};
    ASSERT_EQ(host::ioctl(fd, HDIO_GET_IDENTITY, id), 0);
    host::close(fd);
    IdentityReading reading = readIdentity(id, sizeof id);
    EXPECT_TRUE(reading.removable);
    EXPECT_EQ(reading.serial, "QM00003             ");
    // Eight characters of firmware run on into the model.
    EXPECT_EQ(reading.firmware, "2.5+    QEMU DVD-ROM                            ");
    EXPECT_EQ(reading.model, "QEMU DVD-ROM                            ");
}

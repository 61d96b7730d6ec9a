// The sg node model of fake machines: each ioctl as the kernel answers it,
// the replies of the device, the directives, and the lab server's five sg
// nodes against what its kernel answered (ioctls.txt, sysfs-scsi.txt).
#include "host/models/SgModel.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "probes/SCSIGeneric.h"
#include "probes/ScsiData.h"
#include "tests/support/Machines.h"
#include "tests/support/ScsiNodes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <scsi/scsi.h>
#include <sstream>

using namespace Vantrel::Ostrand;
using host::SgModel;
using host::SgReply;
using ostrand_test::addSgNode;
using ostrand_test::bytes;

namespace {

// An SG_IO header as a caller fills it, with its own buffers.
struct Command {
    sg_io_hdr_t header;
    unsigned char block[32];
    unsigned char data[64];
    unsigned char sense[64];

    explicit Command(std::initializer_list<int> command, unsigned int dataLength = 36, unsigned char senseLength = 32)
    {
        std::memset(&header, 0, sizeof header);
        std::memset(block, 0, sizeof block);
        std::memset(data, 0xEE, sizeof data);
        std::memset(sense, 0xEE, sizeof sense);
        unsigned char length = 0;
        for (int byte : command) {
            block[length++] = static_cast<unsigned char>(byte);
        }
        header.interface_id = 'S';
        header.dxfer_direction = SG_DXFER_FROM_DEV;
        header.cmd_len = length;
        header.cmdp = block;
        header.dxfer_len = dataLength;
        header.dxferp = data;
        header.mx_sb_len = senseLength;
        header.sbp = sense;
        header.timeout = 1000;
    }

    std::string dataBytes(size_t count) const { return std::string(reinterpret_cast<const char*>(data), count); }
    std::string senseBytes(size_t count) const { return std::string(reinterpret_cast<const char*>(sense), count); }
};

class SgModelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        model = addSgNode(machine, "/dev/sg0", 2, 1, 3, 4, 5);
        fd = host::open("/dev/sg0", O_RDWR | O_NONBLOCK);
        ASSERT_GT(fd, 0);
    }

    int send(Command& command) { return host::ioctl(fd, SG_IO, &command.header); }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    std::shared_ptr<SgModel> model;
    int fd = -1;
};

std::unique_ptr<host::FakeMachine> labServer()
{
    return host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server");
}

std::shared_ptr<SgModel> sgModel(host::FakeMachine& machine, const std::string& path)
{
    return std::dynamic_pointer_cast<SgModel>(machine.model(path));
}

} // namespace

// --- The ioctls ----------------------------------------------------------------------

TEST_F(SgModelTest, GetScsiIdFillsTheWholeRecord)
{
    model->setQueue(3, 64);
    sg_scsi_id record;
    std::memset(&record, 0xEE, sizeof record);
    EXPECT_EQ(host::ioctl(fd, SG_GET_SCSI_ID, &record), 0);
    EXPECT_EQ(record.host_no, 2);
    EXPECT_EQ(record.channel, 1);
    EXPECT_EQ(record.scsi_id, 3);
    EXPECT_EQ(record.lun, 4);
    EXPECT_EQ(record.scsi_type, 5);
    EXPECT_EQ(record.h_cmd_per_lun, 3);
    EXPECT_EQ(record.d_queue_depth, 64);
    EXPECT_EQ(record.unused[0], 0);
    EXPECT_EQ(record.unused[1], 0);
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"), std::vector<std::string>{"SG_GET_SCSI_ID"});
}

TEST_F(SgModelTest, EmulatedHostGivesTheFlag)
{
    int flag = 7;
    EXPECT_EQ(host::ioctl(fd, SG_EMULATED_HOST, &flag), 0);
    EXPECT_EQ(flag, 0);
    model->setEmulated(true);
    EXPECT_EQ(host::ioctl(fd, SG_EMULATED_HOST, &flag), 0);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(machine.ioctlNames("/dev/sg0").back(), "SG_EMULATED_HOST");
}

TEST_F(SgModelTest, ProbeHostFollowsTheKernelsLengthConvention)
{
    model->setProbeHost("sym-2.2.3");
    unsigned char buffer[64];

    // Room enough: the text with its NUL, nothing behind it touched.
    std::memset(buffer, 0xEE, sizeof buffer);
    unsigned int room = 250;
    std::memcpy(buffer, &room, sizeof room);
    EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_PROBE_HOST, buffer), 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 10), std::string("sym-2.2.3\0", 10));
    EXPECT_EQ(buffer[10], 0xEE);
    EXPECT_EQ(machine.ioctls().back().input, std::string(reinterpret_cast<char*>(&room), sizeof room));
    EXPECT_EQ(machine.ioctls().back().name, "SCSI_IOCTL_PROBE_HOST");

    // Too little room: cut to it, no NUL.
    std::memset(buffer, 0xEE, sizeof buffer);
    room = 5;
    std::memcpy(buffer, &room, sizeof room);
    EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_PROBE_HOST, buffer), 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 5), "sym-2");
    EXPECT_EQ(buffer[5], 0xEE);

    // Exactly the text's length: still no NUL.
    room = 9;
    std::memset(buffer, 0xEE, sizeof buffer);
    std::memcpy(buffer, &room, sizeof room);
    EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_PROBE_HOST, buffer), 1);
    EXPECT_EQ(buffer[9], 0xEE);

    // No room: nothing copied.
    std::memset(buffer, 0, sizeof buffer);
    EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_PROBE_HOST, buffer), 1);
    EXPECT_EQ(buffer[0], 0);
}

TEST_F(SgModelTest, ProbeHostWithoutATextLeavesTheBuffer)
{
    unsigned char buffer[16];
    std::memset(buffer, 0, sizeof buffer);
    buffer[0] = 250;
    EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_PROBE_HOST, buffer), 1);
    EXPECT_EQ(buffer[0], 250);
    EXPECT_EQ(buffer[1], 0);
}

TEST_F(SgModelTest, GetPciCopiesAtMostTwentyCharactersWithoutNul)
{
    char buffer[32];
    EXPECT_EQ(host::ioctl(fd, host::kScsiIoctlGetPci, buffer), -1);
    EXPECT_EQ(errno, ENXIO);
    model->setPci("0000:00:05.0");
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(host::ioctl(fd, host::kScsiIoctlGetPci, buffer), 0);
    EXPECT_EQ(std::string(buffer, 13), "0000:00:05.0z");
    model->setPci("a-very-long-parent-device-name");
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(host::ioctl(fd, host::kScsiIoctlGetPci, buffer), 0);
    EXPECT_EQ(std::string(buffer, 21), "a-very-long-parent-dz");
    EXPECT_EQ(machine.ioctlNames("/dev/sg0").back(), "SCSI_IOCTL_GET_PCI");
}

TEST_F(SgModelTest, TheDriverRefusesABadInterfaceAndMissingOrOddBlocks)
{
    Command wrongInterface({0x12, 0, 0, 0, 36, 0});
    wrongInterface.header.interface_id = 'Q';
    EXPECT_EQ(send(wrongInterface), -1);
    EXPECT_EQ(errno, ENOSYS);
    Command noBlock({});
    EXPECT_EQ(send(noBlock), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    Command shortBlock({0x12, 0, 0, 0, 36});
    EXPECT_EQ(send(shortBlock), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    Command longBlock({0x12, 0, 0, 0, 36, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(send(longBlock), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    for (const auto& event : machine.ioctls()) {
        EXPECT_EQ(event.name, "SG_IO");
        EXPECT_EQ(event.input, "");
    }
    EXPECT_EQ(model->timesSent(0x12), 0);
    EXPECT_EQ(model->headers().size(), 4u);
}

TEST_F(SgModelTest, EachCommandIsNamedAndItsBlockKept)
{
    const std::pair<int, const char*> commands[] = {{0x00, "SG_IO TEST UNIT READY"},
                                                    {0x12, "SG_IO INQUIRY"},
                                                    {0x1A, "SG_IO MODE SENSE(6)"},
                                                    {0x25, "SG_IO READ CAPACITY"},
                                                    {0x5A, "SG_IO MODE SENSE(10)"},
                                                    {0x4A, "SG_IO opcode 0x4A"}};
    for (const auto& c : commands) {
        Command command({c.first, 1, 2, 3, 4, 5});
        EXPECT_EQ(send(command), 0);
        EXPECT_EQ(machine.ioctls().back().name, c.second);
        EXPECT_EQ(machine.ioctls().back().input, bytes({c.first, 1, 2, 3, 4, 5}));
        EXPECT_EQ(model->timesSent(c.first), 1);
    }
}

TEST_F(SgModelTest, RepliesFormASequenceWhoseLastOneStays)
{
    model->addReply(0x00, SgReply::check(6, 0x28));
    model->addReply(0x00, SgReply::check(2, 0x04, 0x01));
    model->addReply(0x00, SgReply::good());
    std::vector<int> statuses;
    for (int i = 0; i < 5; ++i) {
        Command command({0, 0, 0, 0, 0, 0});
        EXPECT_EQ(send(command), 0);
        statuses.push_back(command.header.status);
    }
    EXPECT_EQ(statuses, (std::vector<int>{2, 2, 0, 0, 0}));
    EXPECT_EQ(model->timesSent(0x00), 5);
}

TEST_F(SgModelTest, DataAreCutToTheTransferLengthAndTheRestIsResid)
{
    model->addReply(0x12, SgReply::good(std::string(40, 'd')));
    model->addReply(0x12, SgReply::good("abc"));
    Command cut({0x12, 0, 0, 0, 36, 0}, 36);
    EXPECT_EQ(send(cut), 0);
    EXPECT_EQ(cut.dataBytes(37), std::string(36, 'd') + "\xEE");
    EXPECT_EQ(cut.header.resid, 0);
    Command shortReply({0x12, 0, 0, 0, 36, 0}, 36);
    EXPECT_EQ(send(shortReply), 0);
    EXPECT_EQ(shortReply.dataBytes(4), "abc\xEE");
    EXPECT_EQ(shortReply.header.resid, 33);
    EXPECT_EQ(shortReply.header.status, 0);
    EXPECT_EQ(shortReply.header.sb_len_wr, 0);
    EXPECT_EQ(shortReply.header.info, static_cast<unsigned int>(SG_INFO_OK));
}

TEST_F(SgModelTest, NoDataMoveUnlessTheyComeFromTheDevice)
{
    model->addReply(0x12, SgReply::good("abc"));
    Command none({0x12, 0, 0, 0, 36, 0});
    none.header.dxfer_direction = SG_DXFER_NONE;
    EXPECT_EQ(send(none), 0);
    EXPECT_EQ(none.data[0], 0xEE);
    EXPECT_EQ(none.header.resid, 36);
    Command nowhere({0x12, 0, 0, 0, 36, 0});
    nowhere.header.dxferp = nullptr;
    EXPECT_EQ(send(nowhere), -1);
    EXPECT_EQ(errno, EFAULT);
}

TEST_F(SgModelTest, SenseIsCutToTheSenseBufferAndTheStatusesFollow)
{
    model->addReply(0x25, SgReply::check(2, 0x3A, 0x01));
    Command small({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 8, 16);
    EXPECT_EQ(send(small), 0);
    EXPECT_EQ(small.header.status, 2);
    EXPECT_EQ(small.header.masked_status, CHECK_CONDITION);
    EXPECT_EQ(small.header.driver_status, 0x08);
    EXPECT_EQ(small.header.info & SG_INFO_CHECK, static_cast<unsigned int>(SG_INFO_CHECK));
    EXPECT_EQ(small.header.sb_len_wr, 16);
    EXPECT_EQ(small.senseBytes(17), bytes({0x70, 0, 2, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x3A, 0x01, 0, 0, 0xEE}));
    EXPECT_EQ(small.data[0], 0xEE);
    EXPECT_EQ(small.header.resid, 8);
}

TEST_F(SgModelTest, TheReportedSenseLengthCanBeSetApart)
{
    SgReply reply = SgReply::check(2, 0x3A);
    reply.senseLength = 200;
    model->addReply(0x00, reply);
    Command command({0, 0, 0, 0, 0, 0}, 8, 64);
    EXPECT_EQ(send(command), 0);
    EXPECT_EQ(command.header.sb_len_wr, 200);
    EXPECT_EQ(command.sense[18], 0xEE);
}

TEST_F(SgModelTest, AReplyCanFailTheIoctl)
{
    model->addReply(0x25, SgReply::failure(EIO));
    Command command({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(send(command), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(machine.ioctls().back().name, "SG_IO READ CAPACITY");
    EXPECT_EQ(machine.ioctls().back().result, -EIO);
}

TEST_F(SgModelTest, WithoutRepliesInquiryAnswersFromItsFieldsAndTestUnitReadyIsGood)
{
    Command inquiry({0x12, 0, 0, 0, 36, 0});
    EXPECT_EQ(send(inquiry), 0);
    InquiryReading reading = readInquiry(inquiry.data, 36);
    EXPECT_EQ(reading.peripheralType, 5);
    EXPECT_EQ(reading.vendor, "        ");
    Command ready({0, 0, 0, 0, 0, 0});
    EXPECT_EQ(send(ready), 0);
    EXPECT_EQ(ready.header.status, 0);
    Command capacity({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(send(capacity), 0);
    EXPECT_EQ(capacity.header.status, 2);
    SenseReading sense = readSense(capacity.sense, sizeof capacity.sense, capacity.header.sb_len_wr);
    EXPECT_EQ(sense.key, 5);
    EXPECT_EQ(sense.code, 0x20);
}

TEST_F(SgModelTest, RefusingAnIoctlLeavesTheOthers)
{
    model->refuse(SG_IO, EPERM);
    Command command({0x12, 0, 0, 0, 36, 0});
    EXPECT_EQ(send(command), -1);
    EXPECT_EQ(errno, EPERM);
    sg_scsi_id record;
    EXPECT_EQ(host::ioctl(fd, SG_GET_SCSI_ID, &record), 0);
    EXPECT_EQ(model->headers().size(), 0u);
}

TEST_F(SgModelTest, EachOpenIsNoted)
{
    host::open("/dev/sg0", O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(model->openFlags(), (std::vector<int>{O_RDWR | O_NONBLOCK, O_RDONLY | O_NONBLOCK}));
}

// --- Reply bytes ------------------------------------------------------------------------

TEST(SgReplyTest, InquiryDataByteForByte)
{
    host::InquiryFields fields;
    fields.type = 5;
    fields.removable = true;
    fields.vendor = "LABSCSI";
    fields.product = "SCSI CD-ROM";
    fields.revision = "1.00";
    EXPECT_EQ(host::inquiryData(fields),
              bytes({5, 0x80, 5, 2, 31, 0, 0, 0}) + "LABSCSI " + "SCSI CD-ROM     " + "1.00");
    fields.type = 0x65; // a qualifier beside the type is not kept
    fields.removable = false;
    fields.vendor = "MUCH TOO LONG";
    fields.product = "";
    fields.revision = "12345";
    EXPECT_EQ(host::inquiryData(fields),
              bytes({5, 0, 5, 2, 31, 0, 0, 0}) + "MUCH TOO" + std::string(16, ' ') + "1234");
}

TEST(SgReplyTest, CapacityDataIsBigEndian)
{
    EXPECT_EQ(host::capacityData(2879, 512), bytes({0, 0, 0x0B, 0x3F, 0, 0, 2, 0}));
    EXPECT_EQ(host::capacityData(0xFFFFFFFF, 2048), bytes({0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 8, 0}));
}

TEST(SgReplyTest, SenseBuildersByteForByte)
{
    SgReply fixed = SgReply::check(6, 0x28, 0x01);
    EXPECT_EQ(fixed.status, 2);
    EXPECT_EQ(fixed.sense, bytes({0x70, 0, 6, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x28, 0x01, 0, 0, 0, 0}));
    SgReply descriptor = SgReply::checkDescriptor(2, 0x3A, 0x02);
    EXPECT_EQ(descriptor.sense, bytes({0x72, 2, 0x3A, 2, 0, 0, 0, 0}));
    EXPECT_EQ(SgReply::failure(EIO).error, EIO);
    EXPECT_EQ(SgReply::good("x").data, "x");
    EXPECT_EQ(SgReply::good().status, 0);
}

// --- Directives ----------------------------------------------------------------------------

TEST(SgDirectiveTest, DescribeANodeLineByLine)
{
    host::FakeMachine machine;
    host::loadMachineText(machine,
                          "sg /dev/sg7 host=1 channel=2 id=3 lun=4 type=5 emulated=1 cmd-per-lun=2 queue-depth=8\n"
                          "sg-probe-host /dev/sg7   Avago SAS based MegaRAID driver\\x21\n"
                          "sg-pci /dev/sg7 0000:00:07.0\n"
                          "sg-inquiry /dev/sg7 type=0x05 rmb=1 vendor=\"A B\" product=\"say \\\"hi\\\"\" rev=R1\n"
                          "sg-reply /dev/sg7 test-unit-ready check 6 28\n"
                          "sg-reply /dev/sg7 test-unit-ready good\n"
                          "sg-reply /dev/sg7 read-capacity good 00000B3F 00 00 02 00\n"
                          "sg-reply /dev/sg7 0x4A check-descriptor 5 24 00\n"
                          "sg-reply /dev/sg7 inquiry fail EIO\n",
                          "/m");
    auto model = sgModel(machine, "/dev/sg7");
    ASSERT_NE(model, nullptr);
    host::ScopedMachine scope{machine};
    int fd = host::open("/dev/sg7", O_RDONLY);

    sg_scsi_id record;
    host::ioctl(fd, SG_GET_SCSI_ID, &record);
    EXPECT_EQ(record.host_no, 1);
    EXPECT_EQ(record.channel, 2);
    EXPECT_EQ(record.scsi_id, 3);
    EXPECT_EQ(record.lun, 4);
    EXPECT_EQ(record.scsi_type, 5);
    EXPECT_EQ(record.h_cmd_per_lun, 2);
    EXPECT_EQ(record.d_queue_depth, 8);
    int flag = 0;
    host::ioctl(fd, SG_EMULATED_HOST, &flag);
    EXPECT_EQ(flag, 1);
    char probe[264] = {};
    probe[0] = static_cast<char>(250);
    host::ioctl(fd, SCSI_IOCTL_PROBE_HOST, probe);
    EXPECT_STREQ(probe, "Avago SAS based MegaRAID driver!");
    char pci[32] = {};
    host::ioctl(fd, host::kScsiIoctlGetPci, pci);
    EXPECT_STREQ(pci, "0000:00:07.0");

    EXPECT_EQ(model->inquiry().type, 5);
    EXPECT_TRUE(model->inquiry().removable);
    EXPECT_EQ(model->inquiry().vendor, "A B");
    EXPECT_EQ(model->inquiry().product, "say \"hi\"");
    EXPECT_EQ(model->inquiry().revision, "R1");

    SCSIGeneric sg(0);
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(model->timesSent(0x00), 2);
    int blocks = 0;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 2880);
    unsigned char buffer[36];
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), -1);
    EXPECT_EQ(errno, EIO);
}

TEST(SgDirectiveTest, ANodeWithTheAddressAloneAnswersWithDefaults)
{
    host::FakeMachine machine;
    host::loadMachineText(machine, "sg /dev/sg0 type=5\n", "/m");
    auto model = sgModel(machine, "/dev/sg0");
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->address().host, 0);
    EXPECT_EQ(model->address().type, 5);
    EXPECT_EQ(model->inquiry().type, 5);
    EXPECT_EQ(model->inquiry().vendor, "");
}

TEST(SgDirectiveTest, ABusyNodeIsAnSgLineAndADenyLine)
{
    host::FakeMachine machine;
    host::loadMachineText(machine, "sg /dev/sg0 host=1 type=5\ndeny /dev/sg0 EBUSY\n", "/m");
    EXPECT_NE(sgModel(machine, "/dev/sg0"), nullptr);
    host::ScopedMachine scope{machine};
    EXPECT_EQ(host::open("/dev/sg0", O_RDONLY | O_NONBLOCK), -1);
    EXPECT_EQ(errno, EBUSY);
}

TEST(SgDirectiveTest, BadLinesNameTheirFault)
{
    const std::pair<const char*, const char*> cases[] = {
        {"sg-reply /dev/sg0 inquiry good\n", "no sg node /dev/sg0"},
        {"node /dev/sg0 c\nsg-pci /dev/sg0 ata2\n", "no sg node /dev/sg0"},
        {"sg /dev/sg0 host=x\n", "'host' is not a number"},
        {"sg /dev/sg0 emulated=2\n", "'emulated' is 0 or 1"},
        {"sg /dev/sg0\nsg-reply /dev/sg0 eject good\n", "unknown SCSI command eject"},
        {"sg /dev/sg0\nsg-reply /dev/sg0 0x100 good\n", "unknown SCSI command 0x100"},
        {"sg /dev/sg0\nsg-reply /dev/sg0 inquiry good 123\n", "odd number of hexadecimal digits"},
        {"sg /dev/sg0\nsg-reply /dev/sg0 inquiry good zz\n", "not hexadecimal"},
        {"sg /dev/sg0\nsg-reply /dev/sg0 inquiry check 2\n", "expected: sg-reply"},
        {"sg /dev/sg0\nsg-reply /dev/sg0 inquiry check 2 3A0\n", "not a hexadecimal byte"},
        {"sg /dev/sg0\nsg-reply /dev/sg0 inquiry fail EWHAT\n", "unknown error name EWHAT"},
        {"sg /dev/sg0\nsg-reply /dev/sg0 inquiry maybe\n", "expected: sg-reply"},
        {"sg /dev/sg0\nsg-inquiry /dev/sg0 vendor=\"QEMU\n", "no closing quote for vendor"},
        {"sg /dev/sg0\nsg-inquiry /dev/sg0 colour=\"red\"\n", "unknown INQUIRY field colour"},
        {"sg /dev/sg0\nsg-inquiry /dev/sg0 rmb=2\n", "'rmb' is a number from 0 to 1"},
        {"sg /dev/sg0\nsg-inquiry /dev/sg0 QEMU\n", "expected key=value"},
        {"sg /dev/sg0\nsg-probe-host /dev/sg0\n", "expected: sg-probe-host"},
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

// --- The lab server -----------------------------------------------------------------------

TEST(LabServerSgTest, FiveSgNodesAnswerAsTheKernelDid)
{
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    auto captures = ostrand_test::labServerSgCaptures();
    ASSERT_EQ(captures.size(), 5u);
    SCSIGeneric sg(0);
    for (const auto& node : captures) {
        const std::string& path = node.first;
        const ostrand_test::SgCapture& want = node.second;
        ASSERT_NE(sgModel(*machine, path), nullptr) << path;
        int fd = host::open(path.c_str(), O_RDWR | O_NONBLOCK);
        ASSERT_GT(fd, 0) << path;

        sg_scsi_id record;
        ASSERT_EQ(host::ioctl(fd, SG_GET_SCSI_ID, &record), 0);
        EXPECT_EQ(record.host_no, want.address.host) << path;
        EXPECT_EQ(record.channel, want.address.channel) << path;
        EXPECT_EQ(record.scsi_id, want.address.id) << path;
        EXPECT_EQ(record.lun, want.address.lun) << path;
        EXPECT_EQ(record.scsi_type, want.address.type) << path;

        int emulated = -1;
        ASSERT_EQ(host::ioctl(fd, SG_EMULATED_HOST, &emulated), 0);
        EXPECT_EQ(emulated, want.emulated) << path;

        char probe[264] = {};
        int room = 250;
        std::memcpy(probe, &room, sizeof room);
        EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_PROBE_HOST, probe), 1);
        EXPECT_EQ(std::string(probe), want.probeHost) << path;

        unsigned char inquiry[36] = {};
        ASSERT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, inquiry, 36), 0);
        InquiryReading reading = readInquiry(inquiry, sizeof inquiry);
        EXPECT_EQ(reading.peripheralType, want.inquiry.type) << path;
        EXPECT_EQ(reading.removable, want.inquiry.removable) << path;
        EXPECT_EQ(reading.vendor, (want.inquiry.vendor + "        ").substr(0, 8)) << path;
        EXPECT_EQ(reading.product, (want.inquiry.product + std::string(16, ' ')).substr(0, 16)) << path;
        EXPECT_EQ(reading.revision, want.inquiry.revision) << path;
        host::close(fd);
    }
}

TEST(LabServerSgTest, TheSgNodesMatchTheSysfsViewOfTheScsiDevices)
{
    // "1:0:0:0 type=5 vendor=[QEMU    ] model=[QEMU DVD-ROM    ] ... sg=sg0 removable=1"
    static const std::regex line(
        R"re((\d+):(\d+):(\d+):(\d+) type=(\d+) vendor=\[(.{8})\] model=\[(.{16})\] rev=\[(.{4})\] )re"
        R"re(block=\S+ sg=(sg\d+) removable=(\d))re");
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    std::istringstream lines(ostrand_test::capture("lab-server/sysfs-scsi.txt"));
    std::string text;
    std::smatch m;
    int seen = 0;
    SCSIGeneric sg(0);
    while (std::getline(lines, text)) {
        if (!std::regex_search(text, m, line)) {
            continue;
        }
        ++seen;
        std::string path = "/dev/" + m[9].str();
        auto model = sgModel(*machine, path);
        ASSERT_NE(model, nullptr) << path;
        EXPECT_EQ(model->address().host, std::stoi(m[1]));
        EXPECT_EQ(model->address().channel, std::stoi(m[2]));
        EXPECT_EQ(model->address().id, std::stoi(m[3]));
        EXPECT_EQ(model->address().lun, std::stoi(m[4]));
        EXPECT_EQ(model->address().type, std::stoi(m[5]));
        int fd = host::open(path.c_str(), O_RDWR | O_NONBLOCK);
        unsigned char inquiry[36] = {};
        ASSERT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, inquiry, 36), 0);
        InquiryReading reading = readInquiry(inquiry, sizeof inquiry);
        // The kernel shows the fields as the device padded them.
        EXPECT_EQ(reading.vendor, m[6].str());
        EXPECT_EQ(reading.product, m[7].str());
        EXPECT_EQ(reading.revision, m[8].str());
        EXPECT_EQ(reading.removable, m[10] == "1");
        host::close(fd);
    }
    EXPECT_EQ(seen, 5);
}

TEST(LabServerSgTest, TheParentDevicesAreThoseOfTheBlockTwins)
{
    // SCSI_IOCTL_GET_PCI of sr0, sr1 and sr2 in ioctls.txt; the others from
    // the hosts' paths in sysfs-scsi.txt.
    const std::pair<const char*, const char*> parents[] = {{"/dev/sg0", "ata2"},
                                                           {"/dev/sg1", "0000:00:05.0"},
                                                           {"/dev/sg2", "0000:00:07.0"},
                                                           {"/dev/sg3", "1-1:1.0"},
                                                           {"/dev/sg4", "2-2:1.0"}};
    std::string ioctls = ostrand_test::capture("lab-server/ioctls.txt");
    EXPECT_NE(ioctls.find("/dev/sr0: SCSI_IOCTL_GET_PCI \"ata2\""), std::string::npos);
    EXPECT_NE(ioctls.find("/dev/sr1: SCSI_IOCTL_GET_PCI \"0000:00:05.0\""), std::string::npos);
    EXPECT_NE(ioctls.find("/dev/sr2: SCSI_IOCTL_GET_PCI \"1-1:1.0\""), std::string::npos);
    std::string sysfs = ostrand_test::capture("lab-server/sysfs-scsi.txt");
    EXPECT_NE(sysfs.find("0000:00:07.0/host3/target3:2:0/3:2:0:0"), std::string::npos);
    EXPECT_NE(sysfs.find("2-2:1.0/host5/target5:0:0/5:0:0:0"), std::string::npos);
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    for (const auto& p : parents) {
        int fd = host::open(p.first, O_RDWR | O_NONBLOCK);
        char name[32] = {};
        EXPECT_EQ(host::ioctl(fd, host::kScsiIoctlGetPci, name), 0) << p.first;
        EXPECT_STREQ(name, p.second);
        host::close(fd);
    }
}

TEST(LabServerSgTest, TheCdDrivesGiveTheCapabilitiesPageOfADvdRomDrive)
{
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    SCSIGeneric sg(0);
    for (const char* path : {"/dev/sg0", "/dev/sg1", "/dev/sg3"}) {
        int fd = host::open(path, O_RDWR | O_NONBLOCK);
        unsigned char page[36] = {};
        EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x5A, page, 36), 0) << path;
        // Header: the length of what follows it, no block descriptors.
        int modeDataLength = (page[0] << 8) | page[1];
        EXPECT_EQ(modeDataLength, 32) << path;
        EXPECT_EQ((page[6] << 8) | page[7], 0) << path;
        const unsigned char* p = page + 8;
        EXPECT_EQ(p[0] & 0x3F, 0x2A) << path;
        EXPECT_EQ(8 + 2 + p[1], modeDataLength + 2) << path;
        EXPECT_EQ(p[2] & 0x08, 0x08) << path; // reads DVD-ROM
        EXPECT_EQ(p[2] & 0x01, 0x01) << path; // reads CD-R
        EXPECT_EQ(p[3], 0) << path;           // writes nothing
        EXPECT_EQ((p[8] << 8) | p[9], 8448) << path;
        EXPECT_EQ((p[12] << 8) | p[13], 512) << path;
        EXPECT_EQ((p[18] << 8) | p[19], 0) << path;
        EXPECT_EQ(page[34], 0) << path;
        host::close(fd);
    }
    // The disk and the USB disk have no such page; the command still counts
    // as success, since the sense key is not NOT READY.
    for (const char* path : {"/dev/sg2", "/dev/sg4"}) {
        int fd = host::open(path, O_RDWR | O_NONBLOCK);
        unsigned char page[36] = {};
        EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x5A, page, 36), 0) << path;
        EXPECT_EQ(page[0], 0) << path;
        host::close(fd);
    }
}

TEST(LabServerSgTest, TheMediaOfTheLabServer)
{
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    SCSIGeneric sg(0);
    struct Medium {
        const char* path;
        int ready;
        int capacity;
        int blocks;
    };
    const Medium media[] = {
        {"/dev/sg0", 0, 0, 2295104},  // a DVD in the IDE drive
        {"/dev/sg1", 123, 0x3A, -7},  // no disc in the SCSI drive
        {"/dev/sg2", 0, 0, 33554432}, // the RAID disk, 16 GiB
        {"/dev/sg3", 0, 0, 333000},   // a CD just put into the USB drive
        {"/dev/sg4", 0, 0, 2880},     // the USB disk of a 1.44 MB floppy's size
    };
    for (const auto& medium : media) {
        int fd = host::open(medium.path, O_RDONLY | O_NONBLOCK);
        EXPECT_EQ(sg.doTestUnitReady(fd), medium.ready) << medium.path;
        int blocks = -7;
        EXPECT_EQ(sg.doReadCapacity(fd, blocks), medium.capacity) << medium.path;
        EXPECT_EQ(blocks, medium.blocks) << medium.path;
        host::close(fd);
    }
    // The USB drive reported the change once to each command, and each was repeated.
    EXPECT_EQ(sgModel(*machine, "/dev/sg3")->timesSent(0x00), 2);
    EXPECT_EQ(sgModel(*machine, "/dev/sg3")->timesSent(0x25), 2);
}

TEST(LabServerSgTest, TheHostTextsOfTheLabServerAreAllOtherHosts)
{
    // Today's kernels name the adapters "ata_piix" and "usb-storage ...":
    // no "IDE", no upper-case "USB".
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    SCSIGeneric sg(0);
    for (const char* path : {"/dev/sg0", "/dev/sg1", "/dev/sg2", "/dev/sg3", "/dev/sg4"}) {
        int fd = host::open(path, O_RDONLY | O_NONBLOCK);
        EXPECT_EQ(sg.isEmulated(fd), SG_HOST_OTHER) << path;
        host::close(fd);
    }
}

TEST(LabServerSgTest, TheRestOfDevIsAsItWas)
{
    auto machine = labServer();
    for (const char* path : {"/dev/sr0", "/dev/sr1", "/dev/sr2", "/dev/sda", "/dev/sdb", "/dev/fd0"}) {
        EXPECT_NE(machine->model(path), nullptr) << path;
        EXPECT_EQ(sgModel(*machine, path), nullptr) << path;
    }
}

// The CD/DVD finder's pure IDE walk on fake machines: each record field by
// field, the identity test, the packets byte for byte, and every way out of
// the walk (no node, no identity, not removable, virtual media, no packets,
// no INQUIRY data), with the descriptors each leaves open.
#include "finders/CDDVDDeviceFinder.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/models/IdeModel.h"
#include "probes/PCIUtil.h"
#include "tests/support/Machines.h"
#include "tests/support/OpticalDrives.h"
#include "tests/support/ScsiNodes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <linux/cdrom.h>
#include <memory>
#include <regex>
#include <sstream>

using namespace Vantrel::Ostrand;
using host::SgReply;
using ostrand_test::addIdeNode;
using ostrand_test::addPciLines;
using ostrand_test::bytes;
using ostrand_test::capabilityPage;
using ostrand_test::identityBlock;
using ostrand_test::inquiryAnswer;
using ostrand_test::paddedIdentityBlock;
using ostrand_test::piix3;
using ostrand_test::Record;
using ostrand_test::recordsOf;

namespace {

using Names = std::vector<std::string>;
using Records = std::vector<Record>;

const std::string kSecondary = "System Board!PCI Bus 0!PCI Bus 0, Device 1, Function 1!Secondary IDE Channel";
const std::string kPrimary = "System Board!PCI Bus 0!PCI Bus 0, Device 1, Function 1!Primary IDE Channel";

// The identity block that the lab server's hdc answers with, from its
// capture: the configuration word, serial, firmware and model as captured;
// words the capture does not show are zero.
std::string labHdcIdentity()
{
    static const std::regex line(
        R"re(/dev/hdc: HDIO_GET_IDENTITY word0=0x([0-9a-f]+) \(ATAPI=1\) model="(.*)" serial="(.*)" fw="(.*)")re");
    std::istringstream lines(ostrand_test::capture("lab-server/ioctls.txt"));
    std::string text;
    std::smatch m;
    while (std::getline(lines, text)) {
        if (std::regex_match(text, m, line)) {
            return identityBlock(std::stoi(m[1], nullptr, 16), m[3], m[4], m[2]);
        }
    }
    ADD_FAILURE() << "no identity of /dev/hdc in the capture";
    return std::string(512, '\0');
}

class CDDVDIdeTest : public ::testing::Test {
protected:
    void SetUp() override { addPciLines(machine, {piix3()}); }

    // The lab server's DVD drive at this node: identity, INQUIRY data, and
    // the answer to MODE SENSE (by default its page 2A: reads CD-R, CD-RW,
    // DVD-ROM and DVD-R, writes nothing).
    std::shared_ptr<host::IdeModel> labDrive(const std::string& path,
                                             const SgReply& modeSense = SgReply::good(capabilityPage(0x1F, 0x00)))
    {
        auto model = addIdeNode(machine, path, labHdcIdentity());
        model->setInquiry(inquiryAnswer("QEMU", "QEMU DVD-ROM", "2.5+"));
        model->addReply(0x5A, modeSense);
        return model;
    }

    Records run()
    {
        pci = std::make_unique<PCIUtil>();
        pci->initPciUtil();
        std::vector<IWbemClassObject> objects;
        finder = std::make_unique<CDDVDDeviceFinder>();
        finder->getAllObjects(pci.get(), objects);
        return recordsOf(objects);
    }

    ostrand_test::RecordingMachine machine;
    host::ScopedMachine scope{machine};
    std::unique_ptr<PCIUtil> pci;
    std::unique_ptr<CDDVDDeviceFinder> finder;
};

Record labHdc(const std::string& deviceClass = "CDR")
{
    return Record{{"QEMU QEMU DVD-ROM", "", "/dev/hdc", deviceClass, "Location 0", "Location 0", kSecondary,
                   deviceClass, "QEMU", "QEMU DVD-ROM", "2.5+", "QM00003             ", "/dev/hdc"},
                  0};
}

} // namespace

TEST_F(CDDVDIdeTest, ThePureIdeDriveOfTheLabServerGivesItsRecordFieldByField)
{
    labDrive("/dev/hdc");
    EXPECT_EQ(run(), (Records{labHdc()}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDIdeTest, TheIdentityThenMediumThenInquiryPacketsByteForByte)
{
    auto model = labDrive("/dev/hdc");
    run();
    EXPECT_EQ(machine.ioctlNames("/dev/hdc"),
              (Names{"HDIO_GET_IDENTITY", "CDROM_SEND_PACKET MODE SENSE(10)", "CDROM_SEND_PACKET INQUIRY"}));
    std::vector<std::string> inputs;
    for (const auto& event : machine.ioctls()) {
        if (event.path == "/dev/hdc") {
            inputs.push_back(event.input);
        }
    }
    ASSERT_EQ(inputs.size(), 3u);
    // Both lengths stand in bytes 4 and 8, whichever command it is.
    EXPECT_EQ(inputs[1], bytes({0x5A, 0, 0x2A, 0, 0x18, 0, 0, 0, 0x18, 0, 0, 0}));
    EXPECT_EQ(inputs[2], bytes({0x12, 0, 0, 0, 36, 0, 0, 0, 36, 0, 0, 0}));
    ASSERT_EQ(model->packets().size(), 2u);
    EXPECT_EQ(model->packets()[0].buflen, 24u);
    EXPECT_EQ(model->packets()[1].buflen, 36u);
    for (const auto& packet : model->packets()) {
        EXPECT_EQ(packet.dataDirection, CGC_DATA_READ);
        EXPECT_EQ(packet.timeout, 5);
        EXPECT_TRUE(packet.withBuffer);
        EXPECT_TRUE(packet.withSense);
    }
    EXPECT_EQ(model->openFlags(), (std::vector<int>{O_RDONLY | O_NONBLOCK}));
}

TEST_F(CDDVDIdeTest, TheWalkTakesNoLock)
{
    labDrive("/dev/hdc");
    run();
    // The constructor's pair only: no SCSI walk without sg nodes.
    EXPECT_EQ(machine.semaphoreCalls.size(), 5u);
}

TEST_F(CDDVDIdeTest, ASlaveOnThePrimaryChannel)
{
    labDrive("/dev/hdb");
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[2], "/dev/hdb");
    EXPECT_EQ(records[0].values[4], "Location 1");
    EXPECT_EQ(records[0].values[5], "Location 1");
    EXPECT_EQ(records[0].values[6], kPrimary);
    EXPECT_EQ(records[0].values[12], "/dev/hdb");
}

TEST_F(CDDVDIdeTest, ANodeThatCannotBeOpenedGivesNothingAndIsNotRemembered)
{
    labDrive("/dev/hdc");
    machine.denyOpen("/dev/hdc", EACCES);
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.ioctlNames("/dev/hdc").empty());
    EXPECT_EQ(machine.opens(), (Names{"/dev/hda", "/dev/hdb", "/dev/hdc", "/dev/hdd"}));
}

TEST_F(CDDVDIdeTest, ANodeWithoutIdentityIsClosedAndGivesNothing)
{
    auto model = std::make_shared<host::IdeModel>();
    machine.addNode("/dev/hdc", 'b', model);
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/hdc"), (Names{"HDIO_GET_IDENTITY"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDIdeTest, ANodeThatAnswersNoIoctlIsClosedAndGivesNothing)
{
    machine.addNode("/dev/hdc", 'b', nullptr);
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDIdeTest, AFixedDiskIsClosedWithoutAPacket)
{
    addIdeNode(machine, "/dev/hda", paddedIdentityBlock(0x0040, "QM00001", "2.5+", "QEMU HARDDISK"));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/hda"), (Names{"HDIO_GET_IDENTITY"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDIdeTest, OnlyBit7OfTheFirstByteMakesADriveRemovable)
{
    // The high byte of the word with all bits set, the low byte's bit 7 clear.
    auto model = addIdeNode(machine, "/dev/hda", paddedIdentityBlock(0xFF7F, "S", "1", "M"));
    model->addReply(0x5A, SgReply::good(capabilityPage(0x01, 0x00)));
    EXPECT_TRUE(run().empty());
    auto removable = addIdeNode(machine, "/dev/hdb", paddedIdentityBlock(0x0080, "S", "1", "M"));
    removable->addReply(0x5A, SgReply::good(capabilityPage(0x01, 0x00)));
    EXPECT_EQ(run().size(), 1u);
}

TEST_F(CDDVDIdeTest, AVirtualCdromIsSkippedAndItsDescriptorStaysOpen)
{
    auto model = addIdeNode(machine, "/dev/hda", paddedIdentityBlock(0x85C0, "VS0001", "1.0", "IPMI VIRTUALCDROM"));
    model->addReply(0x5A, SgReply::good(capabilityPage(0x01, 0x00)));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/hda"), (Names{"HDIO_GET_IDENTITY"}));
    EXPECT_EQ(machine.openDescriptors(), (Names{"/dev/hda"}));
}

TEST_F(CDDVDIdeTest, TheVirtualWordIsLookedForInTheIdentitysModelOnly)
{
    // The same word in the INQUIRY product does not hide the drive.
    auto model = labDrive("/dev/hdc");
    model->setInquiry(inquiryAnswer("QEMU", "VIRTUALCDROM", "2.5+"));
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[9], "VIRTUALCDROM");
}

TEST_F(CDDVDIdeTest, ADriveWithoutPacketsIsClosedAndRememberedForTheScsiWalk)
{
    auto model = addIdeNode(machine, "/dev/hdd", paddedIdentityBlock(0x85C0, "QM00004", "1.00", "CDRW"));
    model->setPackets(false);
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/hdd"), (Names{"HDIO_GET_IDENTITY", "CDROM_SEND_PACKET"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDIdeTest, AMediumCommandThatFailsWithCheckConditionAlsoMeansIdeScsi)
{
    auto model = labDrive("/dev/hdc", SgReply::check(5, 0x24));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(model->timesSent(0x12), 0);
}

TEST(CDDVDIdeScsiTest, TheDriveOnIdeScsiGetsItsRecordFromTheScsiWalkWithItsIdeLocation)
{
    auto machine = host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/ide-server");
    host::ScopedMachine scope{*machine};
    PCIUtil pci;
    pci.initPciUtil();
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(&pci, objects);
    EXPECT_EQ(recordsOf(objects),
              (Records{labHdc(),
                       Record{{"LABIDE ATAPI CDRW 52X", "", "/dev/scd0", "CDRW", "Location 1", "Location 1", kSecondary,
                               "CDRW", "LABIDE", "ATAPI CDRW 52X", "1.00", "", "/dev/sg0:/dev/scd0"},
                              0}}));
    // The hd node of the ide-scsi drive was asked for its identity and one packet only.
    EXPECT_EQ(machine->ioctlNames("/dev/hdd"), (Names{"HDIO_GET_IDENTITY", "CDROM_SEND_PACKET"}));
    EXPECT_EQ(machine->ioctlNames("/dev/hda"), (Names{"HDIO_GET_IDENTITY"}));
    EXPECT_TRUE(machine->openDescriptors().empty());
    // The inventory first, then the finder: on a 2.6 kernel its SCSIGeneric loads the sg module.
    EXPECT_EQ(machine->commands(), (Names{"/sbin/lspci -n 2>&1", "/sbin/lspci -m 2>&1", "/sbin/lspci -v 2>&1",
                                          "modprobe -v sg 2>&1", "lsb_release -d 2>&1"}));
}

TEST_F(CDDVDIdeTest, WithoutInquiryDataTheIdentityGivesModelAndFirmwareAndTheNameABlankInFront)
{
    auto model = labDrive("/dev/hdc");
    model->addReply(0x12, SgReply::check(5, 0x20));
    // The firmware fills its eight bytes and runs on into the model, which is
    // not trimmed in this field.
    EXPECT_EQ(run(), (Records{Record{{" QEMU DVD-ROM", "", "/dev/hdc", "CDR", "Location 0", "Location 0", kSecondary,
                                      "CDR", "", "QEMU DVD-ROM", "2.5+    QEMU DVD-ROM                            ",
                                      "QM00003             ", "/dev/hdc"},
                                     0}}));
}

TEST_F(CDDVDIdeTest, AnInquiryRefusedByTheDriverCountsAsNone)
{
    auto model = labDrive("/dev/hdc");
    model->addReply(0x12, SgReply::failure(EIO));
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[0], " QEMU DVD-ROM");
    EXPECT_EQ(records[0].values[8], "");
}

TEST_F(CDDVDIdeTest, AShortFirmwareEndsAtItsZero)
{
    auto model = addIdeNode(machine, "/dev/hdc", identityBlock(0x85C0, "SN1", "1.2", "DRIVE"));
    model->addReply(0x5A, SgReply::good(capabilityPage(0x01, 0x00)));
    model->addReply(0x12, SgReply::failure(EIO));
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[10], "1.2");
    EXPECT_EQ(records[0].values[11], "SN1");
    EXPECT_EQ(records[0].values[9], "DRIVE");
}

TEST_F(CDDVDIdeTest, TheSerialRunsOnIntoTheWordsBehindItUpToTheFirstZero)
{
    // A drive that fills its serial and says buffer type 3 in the word behind it.
    std::string block = paddedIdentityBlock(0x85C0, "QM00003", "2.5+", "QEMU DVD-ROM");
    block[40] = 0x03;
    auto model = addIdeNode(machine, "/dev/hdc", block);
    model->setInquiry(inquiryAnswer("QEMU", "QEMU DVD-ROM", "2.5+"));
    model->addReply(0x5A, SgReply::good(capabilityPage(0x1F, 0x00)));
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[11], std::string("QM00003             \x03"));
}

TEST_F(CDDVDIdeTest, InquiryTextsAreCutToTheirWidthsAndTrimmed)
{
    auto model = labDrive("/dev/hdc");
    // Texts that fill their fields: no NUL between them.
    std::string data = std::string("\x05\x80\x05\x02\x1F\x00\x00\x00", 8) + "VENDOR12" + "PRODUCT-TEXT-16C" + "REV4";
    model->addReply(0x12, SgReply::good(data));
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[0], "VENDOR12 PRODUCT-TEXT-16C");
    EXPECT_EQ(records[0].values[8], "VENDOR12");
    EXPECT_EQ(records[0].values[9], "PRODUCT-TEXT-16C");
    EXPECT_EQ(records[0].values[10], "REV4");
}

TEST_F(CDDVDIdeTest, TheFirmwareOfInquiryDataIsNotTrimmed)
{
    auto model = labDrive("/dev/hdc");
    model->setInquiry(inquiryAnswer("AB", "CD", "1"));
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[0], "AB CD");
    EXPECT_EQ(records[0].values[10], "1   ");
}

TEST_F(CDDVDIdeTest, AQovaVendorWithAVcdModelIsSkippedAndItsDescriptorStaysOpen)
{
    auto model = labDrive("/dev/hdc");
    model->setInquiry(inquiryAnswer("QOVA", "VCD DRIVE", "1.0"));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.openDescriptors(), (Names{"/dev/hdc"}));
}

TEST_F(CDDVDIdeTest, TheQovaTestNeedsBothWordsInTheirOwnFields)
{
    auto qovaOnly = labDrive("/dev/hda");
    qovaOnly->setInquiry(inquiryAnswer("QOVA", "DVD DRIVE", "1.0"));
    auto vcdOnly = labDrive("/dev/hdb");
    vcdOnly->setInquiry(inquiryAnswer("LAB", "VCD DRIVE", "1.0"));
    auto bothInProduct = labDrive("/dev/hdc");
    bothInProduct->setInquiry(inquiryAnswer("LAB", "QOVA VCD", "1.0"));
    EXPECT_EQ(run().size(), 3u);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDIdeTest, ADriveWhoseCapabilityBitsAreAllClearHasAnEmptyClass)
{
    labDrive("/dev/hdc", SgReply::good(capabilityPage(0x00, 0x00)));
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[3], "");
    EXPECT_EQ(records[0].values[7], "");
    EXPECT_EQ(records[0].values[0], "QEMU QEMU DVD-ROM");
}

TEST_F(CDDVDIdeTest, AShortMediumReplyLeavesTheCapabilityBytesZero)
{
    labDrive("/dev/hdc", SgReply::good(capabilityPage(0x1F, 0x01).substr(0, 10)));
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[3], "");
}

TEST_F(CDDVDIdeTest, ADriveOnTheThirdControllerHasNoLocationAndNoChannel)
{
    addPciLines(machine, {piix3(), ostrand_test::ideController("00:02.0", "1106", "0571"),
                          ostrand_test::ideController("00:03.0", "10b9", "5229")});
    labDrive("/dev/hdj");
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[2], "/dev/hdj");
    EXPECT_EQ(records[0].values[4], "");
    EXPECT_EQ(records[0].values[5], "");
    EXPECT_EQ(records[0].values[6], "System Board!PCI Bus 0!PCI Bus 0, Device 1, Function 1");
}

TEST_F(CDDVDIdeTest, AllFourLettersOfOneControllerInOrder)
{
    for (const char* node : {"/dev/hdd", "/dev/hdb", "/dev/hda", "/dev/hdc"}) {
        labDrive(node);
    }
    Records records = run();
    ASSERT_EQ(records.size(), 4u);
    Names where;
    for (const auto& record : records) {
        where.push_back(record.values[2] + " " + record.values[4] + " " + record.values[6]);
    }
    EXPECT_EQ(where, (Names{"/dev/hda Location 0 " + kPrimary, "/dev/hdb Location 1 " + kPrimary,
                            "/dev/hdc Location 0 " + kSecondary, "/dev/hdd Location 1 " + kSecondary}));
}

TEST(CDDVDLabHdAliasTest, WithItsHdAliasTheLabServersIdeDriveIsSeenByBothWalks)
{
    // LAB_HD_ALIASES=1: /dev/hdc is a second node of sr0, which libata lets
    // answer both the identity and the packets. So the pure IDE test passes,
    // and the SCSI walk meets the same drive again through sr0.
    auto machine = host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server");
    machine->addNode("/dev/hdc", 'b', machine->model("/dev/sr0"));
    host::ScopedMachine scope{*machine};
    PCIUtil pci;
    pci.initPciUtil();
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(&pci, objects);
    Records records = recordsOf(objects);
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0], labHdc());
    EXPECT_EQ(records[1].values[2], "/dev/sr0");
    EXPECT_EQ(records[1].values[4], "SCSI Bus 1, Target 0, LUN 0");
}

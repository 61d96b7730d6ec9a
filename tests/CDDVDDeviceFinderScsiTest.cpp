// The CD/DVD finder's SCSI walk on fake machines: the lab server's drives
// field by field, the commands byte for byte, the filters, every failure of
// the walk with the descriptors and the semaphore it leaves, and the location
// by host adapter: IDE (remembered nodes, or sysfs), USB on 2.4 and later
// kernels, and SCSI with the channel behind ", LUN ".
#include "finders/CDDVDDeviceFinder.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "probes/PCIUtil.h"
#include "probes/SCSIGeneric.h"
#include "tests/support/Machines.h"
#include "tests/support/OpticalDrives.h"
#include "tests/support/ScsiNodes.h"
#include "tests/support/SysfsTree.h"
#include "usb/LsusbText.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <scsi/sg.h>
#include <stdexcept>

using namespace Vantrel::Ostrand;
using host::SgModel;
using host::SgReply;
using ostrand_test::addPciLines;
using ostrand_test::addScsiBlockNode;
using ostrand_test::addSgNode;
using ostrand_test::bytes;
using ostrand_test::inquiryAnswer;
using ostrand_test::piix3;
using ostrand_test::Record;
using ostrand_test::recordsOf;
using ostrand_test::RecordingMachine;

namespace {

using Names = std::vector<std::string>;
using Records = std::vector<Record>;

const char* const kLsbRelease = "lsb_release -d 2>&1";
const std::string kPiix = "System Board!PCI Bus 0!PCI Bus 0, Device 1, Function 1";
const std::string kLabServer = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server";

Record labSr0()
{
    return Record{{"QEMU QEMU DVD-ROM", "", "/dev/sr0", "DVD_ROM", "SCSI Bus 1, Target 0, LUN 0",
                   "SCSI Bus 1, Target 0, LUN 0", "System Board!PCI Bus 10!PCI Bus 10, Device 10, Function 10",
                   "DVD_ROM", "QEMU", "QEMU DVD-ROM", "2.5+", "", "/dev/sg0:/dev/sr0"},
                  0};
}

Record labSr1()
{
    return Record{{"LABSCSI SCSI CD-ROM", "", "/dev/sr1", "CDROM", "SCSI Bus 2, Target 2, LUN 0",
                   "SCSI Bus 2, Target 2, LUN 0", "System Board!PCI Bus 0!PCI Bus 0, Device 5, Function 0", "CDROM",
                   "LABSCSI", "SCSI CD-ROM", "1.00", "", "/dev/sg1:/dev/sr1"},
                  0};
}

Record labSr2()
{
    return Record{{"LABUSB USB CD-ROM", "", "/dev/sr2", "CDROM", "SCSI Bus 4, Target 0, LUN 0",
                   "SCSI Bus 4, Target 0, LUN 0", "System Board!PCI Bus 1!PCI Bus 1, Device 1, Function 0", "CDROM",
                   "LABUSB", "USB CD-ROM", "1.00", "", "/dev/sg3:/dev/sr2"},
                  0};
}

// A block node that notes the semaphore's value at each open.
class WatchedBlockNode : public host::ScsiBlockModel {
public:
    WatchedBlockNode(host::FakeMachine& machine, const host::ScsiAddress& address)
        : ScsiBlockModel(address, 0), m_machine(machine)
    {
    }
    int open(int flags) override
    {
        valuesAtOpen.push_back(m_machine.semaphoreValue(SCSI_GENERIC_SEM_KEY));
        return ScsiBlockModel::open(flags);
    }
    std::vector<int> valuesAtOpen;

private:
    host::FakeMachine& m_machine;
};

// An sg node that does the same.
class WatchedSgNode : public SgModel {
public:
    WatchedSgNode(host::FakeMachine& machine, const host::ScsiAddress& address) : SgModel(address), m_machine(machine)
    {
    }
    int open(int flags) override
    {
        valuesAtOpen.push_back(m_machine.semaphoreValue(SCSI_GENERIC_SEM_KEY));
        return SgModel::open(flags);
    }
    std::vector<int> valuesAtOpen;

private:
    host::FakeMachine& m_machine;
};

class CDDVDScsiTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        addPciLines(machine, {piix3()});
        machine.addCommand(kLsbRelease, "Description:\tDebian GNU/Linux 12 (bookworm)\n");
    }

    // A drive: block node and sg twin with the same address, INQUIRY data
    // and a host adapter text.
    std::shared_ptr<SgModel> drive(const std::string& node, const std::string& sg, int host, int channel, int id,
                                   int lun, const std::string& vendor, const std::string& product,
                                   const std::string& adapter = "sym-2.2.3")
    {
        addScsiBlockNode(machine, node, host, channel, id, lun);
        auto model = addSgNode(machine, sg, host, channel, id, lun, 5);
        model->setInquiry(inquiryAnswer(vendor, product, "1.00"));
        model->setProbeHost(adapter);
        model->setPci("0000:00:05.0");
        return model;
    }

    Records run()
    {
        if (!finder) {
            finder = std::make_unique<CDDVDDeviceFinder>();
        }
        pci = std::make_unique<PCIUtil>();
        pci->initPciUtil();
        std::vector<IWbemClassObject> objects;
        finder->getAllObjects(pci.get(), objects);
        return recordsOf(objects);
    }

    // The one record of a run, or a record of empty fields.
    Record only()
    {
        Records records = run();
        EXPECT_EQ(records.size(), 1u);
        return records.empty() ? Record{} : records[0];
    }

    RecordingMachine machine;
    host::ScopedMachine scope{machine};
    std::unique_ptr<PCIUtil> pci;
    std::unique_ptr<CDDVDDeviceFinder> finder;
};

} // namespace

// --- The lab server -------------------------------------------------------------

TEST(CDDVDLabServerTest, TheThreeDrivesOfTheLabServerFieldByField)
{
    auto machine = host::loadMachine(kLabServer);
    host::ScopedMachine scope{*machine};
    PCIUtil pci;
    pci.initPciUtil();
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(&pci, objects);
    EXPECT_EQ(recordsOf(objects), (Records{labSr0(), labSr1(), labSr2()}));
    // No IDE node, no scd node: the scan with "sr" found them.
    EXPECT_EQ(machine->timesRun(kLsbRelease), 1);
    EXPECT_TRUE(machine->openDescriptors().empty());
    EXPECT_EQ(machine->semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST(CDDVDLabServerTest, EachDriveIsAskedThroughItsBlockNodeAndItsSgTwin)
{
    auto machine = host::loadMachine(kLabServer);
    host::ScopedMachine scope{*machine};
    PCIUtil pci;
    pci.initPciUtil();
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(&pci, objects);
    EXPECT_EQ(machine->ioctlNames("/dev/sr0"), (Names{"SCSI_IOCTL_GET_IDLUN"}));
    EXPECT_EQ(machine->ioctlNames("/dev/sg0"),
              (Names{"SG_GET_SCSI_ID", "SG_IO MODE SENSE(10)", "SG_IO INQUIRY", "SG_EMULATED_HOST",
                     "SCSI_IOCTL_PROBE_HOST", "SCSI_IOCTL_GET_PCI"}));
    // The RAID disk and the USB disk are no CD/DVD drives: only scanned.
    EXPECT_EQ(machine->ioctlNames("/dev/sg2"), (Names{"SG_GET_SCSI_ID"}));
    EXPECT_EQ(machine->ioctlNames("/dev/sg4"), (Names{"SG_GET_SCSI_ID"}));
    std::vector<std::string> blocks;
    for (const auto& event : machine->ioctls()) {
        if (event.path == "/dev/sg1" && event.name.rfind("SG_IO", 0) == 0) {
            blocks.push_back(event.input);
        }
    }
    EXPECT_EQ(blocks, (Names{bytes({0x5A, 0x08, 0x2A, 0, 0, 0, 0, 0, 36, 0}), bytes({0x12, 0, 0, 0, 36, 0})}));
}

TEST(CDDVDLabServerTest, UnderThe26PersonalityTheRecordsAreTheSameAndItsUsbDriveIsNoUsbHostHere)
{
    // The USB drive's adapter says "usb-storage", and the test for "USB" is
    // case-sensitive: the drive keeps its SCSI address.
    auto machine = host::loadMachine(kLabServer);
    machine->setUname(ostrand_test::capture("lab-server/uname-2.6.txt").substr(0, 15), "x86_64");
    host::ScopedMachine scope{*machine};
    PCIUtil pci;
    pci.initPciUtil();
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(&pci, objects);
    EXPECT_EQ(recordsOf(objects), (Records{labSr0(), labSr1(), labSr2()}));
    EXPECT_EQ(machine->timesRun("modprobe -v sg 2>&1"), 1);
}

// --- Records ----------------------------------------------------------------------

TEST_F(CDDVDScsiTest, ADvdRomProductGivesDvdRomAndTheNameOfTrimmedTexts)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "DVD-ROM GDR8164B");
    EXPECT_EQ(only(), (Record{{"LAB DVD-ROM GDR8164B", "", "/dev/sr0", "DVD_ROM", "SCSI Bus 2, Target 0, LUN 0",
                               "SCSI Bus 2, Target 0, LUN 0", "System Board!PCI Bus 0!PCI Bus 0, Device 5, Function 0",
                               "DVD_ROM", "LAB", "DVD-ROM GDR8164B", "1.00", "", "/dev/sg0:/dev/sr0"},
                              0}));
}

TEST_F(CDDVDScsiTest, AProductWithNoneOfTheClassWordsIsCdr)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "BD-RE BH16NS40");
    Record record = only();
    EXPECT_EQ(record.values[3], "CDR");
    EXPECT_EQ(record.values[7], "CDR");
}

TEST_F(CDDVDScsiTest, CdRomWinsOverCdrw)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM CDRW");
    EXPECT_EQ(only().values[3], "CDROM");
}

TEST_F(CDDVDScsiTest, TheClassIsTakenBeforeTheProductIsTrimmedAndTheRevisionIsNotTrimmed)
{
    auto model = drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CDRW");
    model->setInquiry(inquiryAnswer("LAB", "CDRW", "7"));
    Record record = only();
    EXPECT_EQ(record.values[9], "CDRW");
    EXPECT_EQ(record.values[10], "7   ");
}

TEST_F(CDDVDScsiTest, TheChannelStandsBehindLunAndTheLunIsNotShown)
{
    // Host 2, target 3, channel 0, LUN 1.
    drive("/dev/sr0", "/dev/sg0", 2, 0, 3, 1, "LAB", "SCSI CD-ROM");
    Record record = only();
    EXPECT_EQ(record.values[4], "SCSI Bus 2, Target 3, LUN 0");
    EXPECT_EQ(record.values[5], "SCSI Bus 2, Target 3, LUN 0");
}

TEST_F(CDDVDScsiTest, ADriveOnChannel1ShowsLun1)
{
    drive("/dev/sr0", "/dev/sg0", 4, 1, 6, 0, "LAB", "SCSI CD-ROM");
    EXPECT_EQ(only().values[4], "SCSI Bus 4, Target 6, LUN 1");
}

TEST_F(CDDVDScsiTest, AHostNumberAbove127IsReadAsTheByteItIs)
{
    drive("/dev/sr0", "/dev/sg0", 200, 0, 1, 0, "LAB", "SCSI CD-ROM");
    EXPECT_EQ(only().values[4], "SCSI Bus 200, Target 1, LUN 0");
}

TEST_F(CDDVDScsiTest, TheSemaphoreIsHeldFromTheNodesOpenToTheEnd)
{
    host::ScsiAddress address;
    address.host = 2;
    address.type = 5;
    auto block = std::make_shared<WatchedBlockNode>(machine, address);
    machine.addNode("/dev/sr0", 'b', block);
    auto sg = std::make_shared<WatchedSgNode>(machine, address);
    sg->setInquiry(inquiryAnswer("LAB", "SCSI CD-ROM", "1.00"));
    sg->setProbeHost("sym-2.2.3");
    machine.addNode("/dev/sg0", 'c', sg);
    only();
    EXPECT_EQ(block->valuesAtOpen, (std::vector<int>{0}));
    // The constructor's scan, then the walk.
    EXPECT_EQ(sg->valuesAtOpen, (std::vector<int>{0, 0}));
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
    EXPECT_EQ(machine.semaphoreCalls.size(), 7u);
    EXPECT_EQ(machine.semaphoreCalls[5], "semop id=0 {num=0 op=-1 flg=0x1000} -> 0");
    EXPECT_EQ(machine.semaphoreCalls[6], "semop id=0 {num=0 op=1 flg=0x1000} -> 0");
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(sg->openFlags().back(), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(block->openFlags(), (std::vector<int>{O_RDONLY | O_NONBLOCK}));
}

// --- Filters ----------------------------------------------------------------------

TEST_F(CDDVDScsiTest, ASanDiskDeviceOfType5GivesNoRecord)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "SanDisk", "Cruzer CD-ROM");
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(CDDVDScsiTest, VirtualAndEmulatedMediaAreLeftOut)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "QOVA VCD");
    drive("/dev/sr1", "/dev/sg1", 3, 0, 0, 0, "AMI", "Virtual CDROM0");
    drive("/dev/sr2", "/dev/sg2", 4, 0, 0, 0, "kvm", "CD-ROM");
    drive("/dev/sr3", "/dev/sg3", 5, 0, 0, 0, "KVM", "CD-ROM");
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(CDDVDScsiTest, TheFiltersLookForTheirWordsInTheirFieldsOnly)
{
    // QOVA in the vendor (the IDE walk's field), virtual in lower case,
    // VIRTUALCDROM (the IDE walk's word), Kvm in mixed case.
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "QOVA", "VCD");
    drive("/dev/sr1", "/dev/sg1", 3, 0, 0, 0, "LAB", "virtual cd");
    drive("/dev/sr2", "/dev/sg2", 4, 0, 0, 0, "LAB", "VIRTUALCDROM");
    drive("/dev/sr3", "/dev/sg3", 5, 0, 0, 0, "Kvm", "CD-ROM");
    drive("/dev/sr4", "/dev/sg4", 6, 0, 0, 0, "LAB", "SanDisk CD");
    EXPECT_EQ(run().size(), 5u);
}

TEST_F(CDDVDScsiTest, AnInquiryTypeOtherThan5IsLeftOutEvenWhenTheNodeSaysCdDvd)
{
    auto model = drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    model->setInquiry(inquiryAnswer("LAB", "CD-ROM", "1.00", 0));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"), (Names{"SG_GET_SCSI_ID", "SG_IO MODE SENSE(10)", "SG_IO INQUIRY"}));
}

// --- Failures -----------------------------------------------------------------------

TEST_F(CDDVDScsiTest, AFailedLockPassesOverTheNodeAndTheWalkGoesOn)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "FIRST CD-ROM");
    drive("/dev/sr1", "/dev/sg1", 3, 0, 0, 0, "LAB", "SECOND CD-ROM");
    // The constructor's pair goes through, the walk's first lock fails.
    machine.failures["semop"] = {0, 0, EINVAL};
    Records records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].values[2], "/dev/sr1");
    EXPECT_TRUE(machine.ioctlNames("/dev/sr0").empty());
    // Nothing to unlock after the failed lock.
    EXPECT_EQ(machine.semaphoreCalls.size(), 8u);
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(CDDVDScsiTest, ANodeThatCannotBeOpenedIsUnlockedAndGivesNothing)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    machine.denyOpen("/dev/sr0", EACCES);
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
    EXPECT_EQ(machine.semaphoreCalls.size(), 7u);
}

TEST_F(CDDVDScsiTest, ANodeThatIsNoScsiDeviceIsClosedAndUnlocked)
{
    addSgNode(machine, "/dev/sg0", 2, 0, 0, 0, 5);
    machine.addNode("/dev/sr0", 'b', nullptr);
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/sr0"), (Names{"ioctl 0x5382"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(CDDVDScsiTest, ANodeWithoutSgTwinOfTypeFiveIsLeftOut)
{
    // An sg node at the address, but of type 0; and one of type 5 elsewhere.
    addScsiBlockNode(machine, "/dev/sr0", 2, 0, 0, 0);
    addSgNode(machine, "/dev/sg0", 2, 0, 0, 0, 0);
    addSgNode(machine, "/dev/sg1", 2, 0, 1, 0, 5);
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"), (Names{"SG_GET_SCSI_ID"}));
    EXPECT_EQ(machine.ioctlNames("/dev/sg1"), (Names{"SG_GET_SCSI_ID"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDScsiTest, AnSgNodeBusyAtTheScanHidesItsDrive)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    // A disk's sg node that is free, so that there is a walk at all.
    addSgNode(machine, "/dev/sg1", 3, 0, 0, 0, 0);
    machine.denyOpen("/dev/sg0", EBUSY);
    finder = std::make_unique<CDDVDDeviceFinder>();
    // Free again by the time of the walk: too late.
    machine.denyOpen("/dev/sg0", 0);
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/sr0"), (Names{"SCSI_IOCTL_GET_IDLUN"}));
}

TEST_F(CDDVDScsiTest, AnSgNodeThatCannotBeOpenedInTheWalkClosesTheNodeAndUnlocks)
{
    drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    finder = std::make_unique<CDDVDDeviceFinder>();
    machine.denyOpen("/dev/sg0", EBUSY);
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(CDDVDScsiTest, MediumCommandNotReadyRejectsTheDrive)
{
    auto model = drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    model->addReply(0x5A, SgReply::check(2, 0x3A));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(model->timesSent(0x12), 0);
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(CDDVDScsiTest, AnIllegalRequestForTheMediumCommandCountsAsSuccess)
{
    // Its sense key is not NOT READY: the command passes as the filter it is.
    auto model = drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    model->addReply(0x5A, SgReply::check(5, 0x24));
    EXPECT_EQ(run().size(), 1u);
}

TEST_F(CDDVDScsiTest, AFailedMediumIoctlRejectsTheDrive)
{
    auto model = drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    model->addReply(0x5A, SgReply::failure(EIO));
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDScsiTest, AnInquiryNotReadyRejectsTheDrive)
{
    auto model = drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    model->addReply(0x12, SgReply::check(2, 0x04));
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(CDDVDScsiTest, AHostAdapterThatCannotBeAskedLeavesTheLocationsEmpty)
{
    auto model = drive("/dev/sr0", "/dev/sg0", 2, 0, 0, 0, "LAB", "CD-ROM");
    model->refuse(SG_EMULATED_HOST, EINVAL);
    EXPECT_EQ(only(), (Record{{"LAB CD-ROM", "", "/dev/sr0", "CDROM", "", "", "", "CDROM", "LAB", "CD-ROM", "1.00", "",
                               "/dev/sg0:/dev/sr0"},
                              0}));
}

TEST_F(CDDVDScsiTest, AnAdapterWithoutParentHasAnEmptyParentLocation)
{
    addScsiBlockNode(machine, "/dev/sr0", 2, 0, 0, 0);
    auto model = addSgNode(machine, "/dev/sg0", 2, 0, 0, 0, 5);
    model->setInquiry(inquiryAnswer("LAB", "CD-ROM", "1.00"));
    Record record = only();
    EXPECT_EQ(record.values[4], "SCSI Bus 2, Target 0, LUN 0");
    EXPECT_EQ(record.values[6], "");
}

// --- IDE hosts ----------------------------------------------------------------------

TEST_F(CDDVDScsiTest, AnIdeHostWithoutRememberedNodeAndWithoutSysfsHasNoLetter)
{
    drive("/dev/sr0", "/dev/sg0", 0, 0, 0, 0, "LAB", "CDRW", "SCSI host adapter emulation for IDE ATAPI devices");
    Record record = only();
    EXPECT_EQ(record.values[4], "");
    EXPECT_EQ(record.values[5], "");
    EXPECT_EQ(record.values[6], kPiix);
}

TEST_F(CDDVDScsiTest, AnIdeHostWithoutRememberedNodeTakesItsLetterFromSysfs)
{
    ostrand_test::SysfsTree sysfs;
    const std::string disk = "pci0000:00/0000:00:01.1/ide0/0.0";
    const std::string writer = "pci0000:00/0000:00:01.1/ide0/0.1";
    const std::string other = "pci0000:00/0000:00:01.1/ide1/1.0";
    sysfs.device(disk, {{"drivename", "hda\n"}})
        .onBus("ide", disk)
        .bind("ide", "ide-disk", disk)
        .device(writer, {{"drivename", "hdb\n"}})
        .onBus("ide", writer)
        .bind("ide", "ide-scsi", writer)
        .device(other, {{"drivename", "hdc\n"}})
        .onBus("ide", other)
        .bind("ide", "ide-scsi", other);
    machine.setSysfs(sysfs.root());
    drive("/dev/sr0", "/dev/sg0", 0, 0, 0, 0, "LAB", "CDRW", "SCSI host adapter emulation for IDE ATAPI devices");
    Record record = only();
    // The first device bound to ide-scsi, in key order: 0.1, hdb.
    EXPECT_EQ(record.values[4], "Location 1");
    EXPECT_EQ(record.values[5], "Location 1");
    EXPECT_EQ(record.values[6], kPiix + "!Primary IDE Channel");
}

TEST_F(CDDVDScsiTest, EmulatedDrivesArePairedWithTheRememberedNodesByOrderAlone)
{
    for (const char* node : {"/dev/hdb", "/dev/hdc"}) {
        auto ide = ostrand_test::addIdeNode(machine, node, ostrand_test::paddedIdentityBlock(0x85C0, "S", "1", "M"));
        ide->setPackets(false);
    }
    const char* adapter = "SCSI host adapter emulation for IDE ATAPI devices";
    drive("/dev/sr0", "/dev/sg0", 0, 0, 0, 0, "LAB", "FIRST CDRW", adapter);
    drive("/dev/sr1", "/dev/sg1", 0, 0, 1, 0, "LAB", "SECOND CDRW", adapter);
    // A third beyond the remembered ones: no letter.
    drive("/dev/sr2", "/dev/sg2", 0, 0, 2, 0, "LAB", "THIRD CDRW", adapter);
    Records records = run();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].values[4], "Location 1");
    EXPECT_EQ(records[0].values[6], kPiix + "!Primary IDE Channel");
    EXPECT_EQ(records[1].values[4], "Location 0");
    EXPECT_EQ(records[1].values[6], kPiix + "!Secondary IDE Channel");
    EXPECT_EQ(records[2].values[4], "");
    EXPECT_EQ(records[2].values[5], "");
    EXPECT_EQ(records[2].values[6], kPiix);
}

TEST_F(CDDVDScsiTest, ASecondEnumerationGoesOnWithTheRememberedNodes)
{
    auto ide = ostrand_test::addIdeNode(machine, "/dev/hdd", ostrand_test::paddedIdentityBlock(0x85C0, "S", "1", "M"));
    ide->setPackets(false);
    drive("/dev/sr0", "/dev/sg0", 0, 0, 0, 0, "LAB", "CDRW", "IDE emulation");
    EXPECT_EQ(only().values[4], "Location 1");
    // The IDE walk remembers hdd again, and the index goes on to that second entry.
    EXPECT_EQ(only().values[4], "Location 1");
}

// --- USB hosts -----------------------------------------------------------------------

TEST_F(CDDVDScsiTest, OnA24KernelUsbDrivesAreNumberedOnTheUsbBus)
{
    machine.setUname("2.4.21-4.ELsmp", "i686");
    drive("/dev/sr0", "/dev/sg0", 4, 0, 0, 0, "LABUSB", "USB CD-ROM", "USB Mass Storage");
    drive("/dev/sr1", "/dev/sg1", 5, 0, 0, 0, "LABUSB", "USB DVD-ROM", "USB Mass Storage");
    EXPECT_EQ(run(), (Records{Record{{"LABUSB USB CD-ROM", "", "/dev/sr0", "CDROM", "USB Bus, CD-DVD 1", "",
                                      "System Board!USB Bus", "CDROM", "LABUSB", "USB CD-ROM", "1.00", "",
                                      "/dev/sg0:/dev/sr0"},
                               0},
                              Record{{"LABUSB USB DVD-ROM", "", "/dev/sr1", "DVD_ROM", "USB Bus, CD-DVD 2", "",
                                      "System Board!USB Bus", "DVD_ROM", "LABUSB", "USB DVD-ROM", "1.00", "",
                                      "/dev/sg1:/dev/sr1"},
                               0}}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDScsiTest, TheUsbNumberGoesOnInASecondEnumeration)
{
    machine.setUname("2.4.21-4.ELsmp", "i686");
    drive("/dev/sr0", "/dev/sg0", 4, 0, 0, 0, "LABUSB", "USB CD-ROM", "USB Mass Storage");
    EXPECT_EQ(only().values[4], "USB Bus, CD-DVD 1");
    EXPECT_EQ(only().values[4], "USB Bus, CD-DVD 2");
}

TEST_F(CDDVDScsiTest, OnLaterKernelsAUsbDriveHasNoLocationAtAll)
{
    for (const char* release : {"3.0.13-0.27-default", "6.1.0-56-amd64"}) {
        machine.setUname(release, "x86_64");
        finder.reset();
        drive("/dev/sr0", "/dev/sg0", 4, 0, 0, 0, "LABUSB", "USB CD-ROM", "USB Mass Storage");
        EXPECT_EQ(only(), (Record{{"LABUSB USB CD-ROM", "", "/dev/sr0", "CDROM", "", "", "", "CDROM", "LABUSB",
                                   "USB CD-ROM", "1.00", "", "/dev/sg0:/dev/sr0"},
                                  0}))
            << release;
    }
}

TEST_F(CDDVDScsiTest, IdeIsAskedBeforeUsb)
{
    drive("/dev/sr0", "/dev/sg0", 0, 0, 0, 0, "LAB", "CDRW", "USB bridge to IDE");
    EXPECT_EQ(only().values[6], kPiix);
}

// --- The parts alone ------------------------------------------------------------------

TEST_F(CDDVDScsiTest, TheSgDescriptorWritesTheAddressOnlyWhenTheKernelAnswers)
{
    addScsiBlockNode(machine, "/dev/sr0", 3, 1, 4, 2);
    addSgNode(machine, "/dev/sg7", 3, 1, 4, 2, 5);
    machine.addNode("/dev/sr1", 'b', nullptr);
    CDDVDDeviceFinder cd;
    int hostNumber = -7, target = -7, channel = -7;
    int fd = host::open("/dev/sr1", O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(cd.getSgDeviceDescriptor(fd, hostNumber, target, channel), "");
    EXPECT_EQ(hostNumber, -7);
    EXPECT_EQ(target, -7);
    EXPECT_EQ(channel, -7);
    host::close(fd);
    fd = host::open("/dev/sr0", O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(cd.getSgDeviceDescriptor(fd, hostNumber, target, channel), "/dev/sg7");
    EXPECT_EQ(hostNumber, 3);
    EXPECT_EQ(target, 4);
    EXPECT_EQ(channel, 1);
    host::close(fd);
}

TEST_F(CDDVDScsiTest, TheSgDescriptorOfAnAddressWithoutSgNodeIsEmptyButTheAddressIsWritten)
{
    addScsiBlockNode(machine, "/dev/sr0", 3, 1, 4, 2);
    CDDVDDeviceFinder cd;
    int hostNumber = -7, target = -7, channel = -7;
    int fd = host::open("/dev/sr0", O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(cd.getSgDeviceDescriptor(fd, hostNumber, target, channel), "");
    EXPECT_EQ(hostNumber, 3);
    EXPECT_EQ(target, 4);
    EXPECT_EQ(channel, 1);
    host::close(fd);
}

TEST_F(CDDVDScsiTest, TheLetterFromSysfs)
{
    CDDVDDeviceFinder cd;
    char drivename[] = "drivename";
    char media[] = "media";
    // No sysfs at all: no device on the bus.
    EXPECT_EQ(cd.getDeviceNodeFromSysfs(BUS_TYPE_IDE, drivename), -1);

    ostrand_test::SysfsTree sysfs;
    const std::string disk = "pci0000:00/0000:00:01.1/ide0/0.0";
    sysfs.device(disk, {{"drivename", "hda\n"}}).onBus("ide", disk).bind("ide", "ide-disk", disk);
    machine.setSysfs(sysfs.root());
    // Devices, but none bound to ide-scsi.
    EXPECT_EQ(cd.getDeviceNodeFromSysfs(BUS_TYPE_IDE, drivename), -1);

    const std::string cdrw = "pci0000:00/0000:00:01.1/ide1/1.1";
    sysfs.device(cdrw, {{"drivename", "hdd\n"}, {"media", "cdrom\n"}})
        .onBus("ide", cdrw)
        .bind("ide", "ide-scsi", cdrw);
    EXPECT_EQ(cd.getDeviceNodeFromSysfs(BUS_TYPE_IDE, drivename), 'd');
    // Any attribute: its third character.
    EXPECT_EQ(cd.getDeviceNodeFromSysfs(BUS_TYPE_IDE, media), 'r');
    char missing[] = "model";
    EXPECT_EQ(cd.getDeviceNodeFromSysfs(BUS_TYPE_IDE, missing), -1);
    // Another bus.
    EXPECT_EQ(cd.getDeviceNodeFromSysfs(BUS_TYPE_SCSI, drivename), -1);
}

TEST_F(CDDVDScsiTest, AShortValueFromSysfsGivesNoLetter)
{
    ostrand_test::SysfsTree sysfs;
    const std::string cdrw = "pci0000:00/0000:00:01.1/ide1/1.1";
    sysfs.device(cdrw, {{"drivename", "hd\n"}, {"media", "\n"}}).onBus("ide", cdrw).bind("ide", "ide-scsi", cdrw);
    machine.setSysfs(sysfs.root());
    CDDVDDeviceFinder cd;
    char drivename[] = "drivename";
    char media[] = "media";
    EXPECT_EQ(cd.getDeviceNodeFromSysfs(BUS_TYPE_IDE, drivename), 0);
    EXPECT_EQ(cd.getDeviceNodeFromSysfs(BUS_TYPE_IDE, media), 0);
}

TEST_F(CDDVDScsiTest, TheUsbFieldsOnA24KernelAlone)
{
    machine.setUname("2.4.21-4.ELsmp", "i686");
    CDDVDDeviceFinder cd;
    std::string location = "l", parent = "p", serial = "s", info = "i", tag = "t";
    EXPECT_TRUE(cd.getUSBCDLoc_ParentLoc(12, -1, location, parent, serial, info, tag));
    EXPECT_EQ(location, "USB Bus, CD-DVD 12");
    EXPECT_EQ(parent, "System Board!USB Bus");
    EXPECT_EQ(serial, "s");
    EXPECT_EQ(info, "i");
    EXPECT_EQ(tag, "t");
}

TEST_F(CDDVDScsiTest, TheUsbFieldsOnA3KernelAreNotWritten)
{
    machine.setUname("3.0.13-0.27-default", "x86_64");
    CDDVDDeviceFinder cd;
    std::string location = "l", parent = "p", serial = "s", info = "i", tag = "t";
    EXPECT_FALSE(cd.getUSBCDLoc_ParentLoc(1, -1, location, parent, serial, info, tag));
    EXPECT_EQ(location + parent + serial + info + tag, "lpsit");
}

// --- USB hosts on a 2.6 kernel: the USB storage location --------------------------------

namespace {

// The lab server under the 2.6 personality, its USB CD-ROM drive's adapter
// named as usb-storage named itself on 2.6 kernels (the lab's 6.1 kernel says
// "usb-storage 1-1:1.0", which holds no "USB" in capitals).
std::unique_ptr<host::FakeMachine> labServer26WithUsbHost()
{
    auto machine = host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server-2.6");
    std::dynamic_pointer_cast<SgModel>(machine->model("/dev/sg3"))
        ->setProbeHost("SCSI emulation for USB Mass Storage devices");
    return machine;
}

const char* const kFindHost4 = "find /sys/devices/pci0000:00/ -name host4";

Records labRecords(host::FakeMachine& machine, CDDVDDeviceFinder* finder = nullptr)
{
    host::ScopedMachine scope{machine};
    PCIUtil pci;
    pci.initPciUtil();
    std::unique_ptr<CDDVDDeviceFinder> own;
    if (finder == nullptr) {
        own = std::make_unique<CDDVDDeviceFinder>();
        finder = own.get();
    }
    std::vector<IWbemClassObject> objects;
    finder->getAllObjects(&pci, objects);
    return recordsOf(objects);
}

} // namespace

TEST(CDDVDUsbLocationTest, AUsbDriveOnA26KernelIsPlacedInTheUsbTree)
{
    auto machine = labServer26WithUsbHost();
    // Where a 2.6 kernel's sysfs has the host: the one folder of that name.
    machine->addCommand(kFindHost4, "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4\n");
    Records records = labRecords(*machine);
    ASSERT_EQ(records.size(), 3u);
    // The tag is 32 characters of the parent from position 23; the serial,
    // release, power and power source are the USB device's own (sysfs).
    EXPECT_EQ(records[2], (Record{{"LABUSB USB CD-ROM", "", "/dev/sr2", "CDROM", "Port 1, Device 000",
                                   "PCI Bus 0, Device 4, Function 0",
                                   "System Board!PCI Bus 0!PCI Bus 0, Device 4, Function 0", "CDROM", "LABUSB",
                                   "USB CD-ROM", "1.00", "1-0000:00:04.0-1",
                                   std::string("/dev/sg3:/dev/sr2, ") + kUsbReleaseLabel + "2.00, Rev:, Power:0mA Self"},
                                  0}));
    EXPECT_EQ(records[0], labSr0());
    EXPECT_EQ(records[1], labSr1());
    EXPECT_EQ(machine->commands(),
              (Names{"/sbin/lspci -n 2>&1", "/sbin/lspci -m 2>&1", "/sbin/lspci -v 2>&1", "modprobe -v sg 2>&1",
                     kLsbRelease, "modprobe -v sg 2>&1", kFindHost4,
                     "dirname /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4",
                     "basename /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0",
                     "dirname /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0",
                     "cat /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum > /dev/null 2>&1"}));
    // The lookup closed the sg descriptor; the finder's second close failed unseen.
    EXPECT_EQ(machine->ioctlNames("/dev/sg3"), (Names{"SG_GET_SCSI_ID", "SG_IO MODE SENSE(10)", "SG_IO INQUIRY",
                                                      "SG_EMULATED_HOST", "SCSI_IOCTL_PROBE_HOST", "SG_GET_SCSI_ID"}));
    EXPECT_TRUE(machine->openDescriptors().empty());
    // Set to 1 by the lookup's own sg object inside the hold, then given back: 2.
    EXPECT_EQ(machine->semaphoreValue(SCSI_GENERIC_SEM_KEY), 2);
}

TEST(CDDVDUsbLocationTest, OnTheLabServersOwnSysfsFindNamesTheScsiHostClassFolderLast)
{
    // Kernel 6.1 has a second folder named host4 below the first (its
    // scsi_host class device), and the last line of find is taken: the
    // "interface" is scsi_host, whose "port" is the letter s.
    auto machine = labServer26WithUsbHost();
    Records records = labRecords(*machine);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[2].values[4], "Port s, Device 000");
    EXPECT_EQ(records[2].values[5], "PCI Bus 0, Device 4, Function 0");
    EXPECT_EQ(records[2].values[6], "System Board!PCI Bus 0!PCI Bus 0, Device 4, Function 0");
    EXPECT_EQ(records[2].values[11], "");
    EXPECT_EQ(records[2].values[12], std::string("/dev/sg3:/dev/sr2, ") + kUsbReleaseLabel + ", Rev:, Power: Bus");
}

TEST(CDDVDUsbLocationTest, AUsbDriveThatTheLookupCannotPlaceHasTheBoardAsParentAndIsStillReported)
{
    auto machine = labServer26WithUsbHost();
    host::ScopedMachine scope{*machine};
    CDDVDDeviceFinder finder;
    // Known to the scan, refused to the lookup.
    std::dynamic_pointer_cast<SgModel>(machine->model("/dev/sg3"))->refuse(SG_GET_SCSI_ID, EIO);
    Records records = labRecords(*machine, &finder);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[2], (Record{{"LABUSB USB CD-ROM", "", "/dev/sr2", "CDROM", "", "", "System Board", "CDROM",
                                   "LABUSB", "USB CD-ROM", "1.00", "", "/dev/sg3:/dev/sr2"},
                                  0}));
    EXPECT_TRUE(machine->openDescriptors().empty());
    EXPECT_EQ(machine->timesRun(kFindHost4), 0);
}

TEST(CDDVDUsbLocationTest, AHostThatFindCannotFindThrowsWithTheSemaphoreHeldAndBothDescriptorsOpen)
{
    auto machine = labServer26WithUsbHost();
    machine->addCommand(kFindHost4, "");
    host::ScopedMachine scope{*machine};
    PCIUtil pci;
    pci.initPciUtil();
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> objects;
    try {
        finder.getAllObjects(&pci, objects);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_NE(std::string(e.what()).find("basic_string::substr"), std::string::npos) << e.what();
    }
    // The records of sr0 and sr1 were made before; the vector is the caller's.
    EXPECT_EQ(objects.size(), 2u);
    EXPECT_EQ(machine->openDescriptors(), (Names{"/dev/sr2", "/dev/sg3"}));
    // Reset to 1 by the lookup while held, and never given back.
    EXPECT_EQ(machine->semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

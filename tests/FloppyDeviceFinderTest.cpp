#include "finders/FloppyDeviceFinder.h"

#include "host/fake/MachineDirectory.h"
#include "host/models/FloppyModel.h"
#include "host/models/ScsiBlockModel.h"
#include "host/models/SgModel.h"
#include "probes/PCIUtil.h"
#include "probes/SCSIGeneric.h"
#include "tests/support/Machines.h"
#include "tests/support/PciLines.h"
#include "tests/support/ScsiNodes.h"
#include "tests/support/SysfsTree.h"
#include "usb/LsusbText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fd.h>
#include <memory>
#include <scsi/scsi.h>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::fields;
using ostrand_test::PciLine;

namespace {

using Fields = std::vector<std::string>;
using Lines = std::vector<std::string>;

const PciLine kIsaBridge = {"00:01.0", "0601", "8086", "7000", "ISA bridge", "Intel Corporation", "PIIX3 ISA"};
const PciLine kUsbController = {"00:1d.7", "0c03", "8086", "24cd", "USB controller", "Intel Corporation", "EHCI"};
const PciLine kIde = {"00:01.1", "0101", "8086", "7010", "IDE interface", "Intel Corporation", "PIIX3 IDE"};

// The adapter text of usb-storage on the kernels of its time; a newer kernel
// says "usb-storage 2-2:1.0", which holds no "USB".
const char* const kUsbStorageHost = "SCSI emulation for USB Mass Storage devices";

Fields controllerDrive(int number)
{
    std::string path = "/dev/fd" + std::to_string(number);
    std::string location = "Floppy Drive " + std::to_string(number + 1);
    return {"FLOPPY_NAME", "", path, "FLOPPY_H1440_DESCR", location, location, "System Board!ISA Bus",
            "144FLOPPY_DRIVE", "", "", "", "", path};
}

// A USB drive as a kernel past 2.6 reports it: no location at all.
Fields unplacedUsbDrive(const std::string& node, const std::string& sg, const std::string& vendor,
                        const std::string& product, const std::string& revision)
{
    return {"FLOPPY_USB_NAME", "", node, "FLOPPY_H1440_USB_DESCR", "", "", "", "144FLOPPY_DRIVE", vendor, product,
            revision, "", sg};
}

class FloppyDeviceFinderTest : public ::testing::Test {
protected:
    void board(const std::vector<PciLine>& functions)
    {
        ostrand_test::addPciLines(machine, functions);
        pci.initPciUtil();
    }

    std::shared_ptr<host::FloppyModel> floppy(const std::string& path, const std::string& type, short track = 1)
    {
        host::FloppyState state;
        state.flags = 0x30;
        state.track = track;
        auto model = std::make_shared<host::FloppyModel>(type, state);
        machine.addNode(path, 'b', model);
        return model;
    }

    // A USB disk: its block node /dev/NAME at host N, 0:0:0, its sg node of
    // type 0 behind the USB host adapter, and READ CAPACITY's first reply.
    std::shared_ptr<host::SgModel> usbDisk(const std::string& name, const std::string& sg, int hostNo,
                                           const host::SgReply& capacity, const std::string& vendor = "LABUSB",
                                           const std::string& product = "USB FLOPPY 1.44")
    {
        host::ScsiAddress address;
        address.host = hostNo;
        machine.addNode("/dev/" + name, 'b', std::make_shared<host::ScsiBlockModel>(address));
        auto model = ostrand_test::addSgNode(machine, sg, hostNo, 0, 0, 0, 0);
        model->setEmulated(true);
        model->setProbeHost(kUsbStorageHost);
        host::InquiryFields inquiry;
        inquiry.removable = true;
        inquiry.vendor = vendor;
        inquiry.product = product;
        inquiry.revision = "1.00";
        model->setInquiry(inquiry);
        model->addReply(host::kReadCapacity10, capacity);
        return model;
    }

    std::vector<IWbemClassObject> run()
    {
        FloppyDeviceFinder finder;
        std::vector<IWbemClassObject> objects;
        finder.getAllObjects(&pci, objects);
        return objects;
    }

    std::vector<std::string> opensOf(const std::string& prefix) const
    {
        std::vector<std::string> result;
        for (const auto& path : machine.opens()) {
            if (path.compare(0, prefix.size(), prefix) == 0) {
                result.push_back(path);
            }
        }
        return result;
    }

    size_t semops() const
    {
        return static_cast<size_t>(std::count_if(machine.semaphoreCalls.begin(), machine.semaphoreCalls.end(),
                                                 [](const std::string& call) { return call.rfind("semop", 0) == 0; }));
    }

    ostrand_test::RecordingMachine machine;
    host::ScopedMachine scope{machine};
    PCIUtil pci;
};

// READ CAPACITY of exactly `blocks` blocks of 512 bytes.
host::SgReply capacity(uint32_t blocks) { return host::SgReply::good(host::capacityData(blocks - 1, 512)); }

} // namespace

// --- The controller's drives ---------------------------------------------------------

TEST_F(FloppyDeviceFinderTest, AControllerDriveGivesItsRecordFieldByField)
{
    board({kIsaBridge});
    floppy("/dev/fd0", "H1440");
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), controllerDrive(0));
    EXPECT_EQ(records[0].getValue(), 0);
    EXPECT_EQ(machine.ioctlNames("/dev/fd0"), (Lines{"FDPOLLDRVSTAT", "FDGETDRVTYP"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(FloppyDeviceFinderTest, WithoutAnIsaBridgeNoFloppyNodeIsTouched)
{
    board({kIde, kUsbController});
    floppy("/dev/fd0", "H1440");
    floppy("/dev/fd1", "H1440");
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(opensOf("/dev/fd").empty());
    EXPECT_TRUE(machine.ioctlNames("/dev/fd0").empty());
}

TEST_F(FloppyDeviceFinderTest, ADriveTypeOfNullEndsTheControllerWalkAndTheUsbSideStillRuns)
{
    board({kIsaBridge, kUsbController});
    floppy("/dev/fd0", "(null)");
    floppy("/dev/fd1", "H1440");
    usbDisk("sdb", "/dev/sg0", 5, capacity(2880));
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              unplacedUsbDrive("/dev/sdb", "/dev/sg0", "LABUSB  ", "USB FLOPPY 1.44 ", "1.00"));
    // The walk stopped at fd0: fd1 was never opened.
    EXPECT_EQ(opensOf("/dev/fd"), Lines{"/dev/fd0"});
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(FloppyDeviceFinderTest, ANegativeTrackGivesNoRecordAndTheWalkGoesOn)
{
    board({kIsaBridge});
    floppy("/dev/fd0", "H1440", -1);
    floppy("/dev/fd1", "H1440");
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), controllerDrive(1));
    // The drive type is not asked of a drive with a negative track.
    EXPECT_EQ(machine.ioctlNames("/dev/fd0"), Lines{"FDPOLLDRVSTAT"});
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(FloppyDeviceFinderTest, ARefusedPollOrDriveTypeLosesThatDriveOnly)
{
    board({kIsaBridge});
    floppy("/dev/fd0", "H1440")->refuse(FDPOLLDRVSTAT, EIO);
    floppy("/dev/fd1", "H1440")->refuse(FDGETDRVTYP, EIO);
    floppy("/dev/fd2", "H1440");
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), controllerDrive(2));
    EXPECT_EQ(opensOf("/dev/fd"), (Lines{"/dev/fd0", "/dev/fd1", "/dev/fd2"}));
}

TEST_F(FloppyDeviceFinderTest, TheNumberOfTheScanEntryIsTheNumberOfTheNode)
{
    // One entry, named fd1: node number 0 is opened, and it is not there.
    board({kIsaBridge});
    floppy("/dev/fd1", "H1440");
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(opensOf("/dev/fd"), Lines{"/dev/fd0"});
}

TEST_F(FloppyDeviceFinderTest, AMissingDriveThrowsTheTextOfNoMoreFloppies)
{
    floppy("/dev/fd0", "(null)");
    FloppyDeviceFinder finder;
    try {
        finder.getISAFloppies(0);
        FAIL() << "no exception";
    } catch (const char* text) {
        EXPECT_STREQ(text, "No more Floppies to enumerate");
    }
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(finder.getISAFloppies(7), nullptr);
}

// --- USB drives ----------------------------------------------------------------------

TEST_F(FloppyDeviceFinderTest, AUsbFloppyOnANewKernelHasNoLocationAndItsTextsUntrimmed)
{
    board({kUsbController});
    auto sg = usbDisk("sdb", "/dev/sg4", 5, capacity(2880));
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              unplacedUsbDrive("/dev/sdb", "/dev/sg4", "LABUSB  ", "USB FLOPPY 1.44 ", "1.00"));
    EXPECT_EQ(records[0].getValue(), 0);
    // The scan of the constructor, then the commands of the walk in order.
    EXPECT_EQ(machine.ioctlNames("/dev/sg4"), (Lines{"SG_GET_SCSI_ID", "SG_IO READ CAPACITY", "SG_EMULATED_HOST",
                                                     "SCSI_IOCTL_PROBE_HOST", "SG_IO INQUIRY"}));
    EXPECT_EQ(machine.ioctlNames("/dev/sdb"), Lines{"SCSI_IOCTL_GET_IDLUN"});
    ASSERT_EQ(sg->openFlags().size(), 2u);
    EXPECT_EQ(sg->openFlags()[1], O_RDONLY | O_NONBLOCK);
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(FloppyDeviceFinderTest, AUsbFloppyWithoutADiskIsAcceptedThroughNoMedium)
{
    board({kUsbController});
    usbDisk("sdb", "/dev/sg4", 5, host::SgReply::check(2, 0x3A));
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0])[2], "/dev/sdb");
}

TEST_F(FloppyDeviceFinderTest, AnIncompatibleOrCorruptedMediumIsAcceptedToo)
{
    board({kUsbController});
    usbDisk("sda", "/dev/sg1", 1, host::SgReply::check(3, 0x30));
    usbDisk("sdb", "/dev/sg2", 2, host::SgReply::check(3, 0x31));
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(fields(records[0])[2], "/dev/sda");
    EXPECT_EQ(fields(records[1])[2], "/dev/sdb");
}

TEST_F(FloppyDeviceFinderTest, TwoThousandEightHundredEightyBlocksAreAFloppyAndOneMoreIsNot)
{
    board({kUsbController});
    usbDisk("sda", "/dev/sg1", 1, capacity(2880));
    usbDisk("sdb", "/dev/sg2", 2, capacity(2881));
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0])[2], "/dev/sda");
    // The larger disk is dropped after its capacity: nothing more is asked.
    EXPECT_EQ(machine.ioctlNames("/dev/sg2"), (Lines{"SG_GET_SCSI_ID", "SG_IO READ CAPACITY"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(FloppyDeviceFinderTest, AUsbDiskOfSixteenGigabytesIsRejected)
{
    board({kUsbController});
    usbDisk("sdc", "/dev/sg3", 3, host::SgReply::good(host::capacityData(0x01FFFFFF, 512)));
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(FloppyDeviceFinderTest, AFailedOrRefusedCapacityIsRejected)
{
    board({kUsbController});
    usbDisk("sda", "/dev/sg1", 1, host::SgReply::failure(EIO));
    usbDisk("sdb", "/dev/sg2", 2, host::SgReply::check(5, 0x20));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/sg1").back(), "SG_IO READ CAPACITY");
    EXPECT_EQ(machine.ioctlNames("/dev/sg2").back(), "SG_IO READ CAPACITY");
}

TEST_F(FloppyDeviceFinderTest, AnyOtherCheckConditionReadsAsOneBlockAndPasses)
{
    // NOT READY, becoming ready: the zeroed reply gives one block.
    board({kUsbController});
    usbDisk("sdb", "/dev/sg4", 5, host::SgReply::check(2, 0x04, 0x01));
    EXPECT_EQ(run().size(), 1u);
}

TEST_F(FloppyDeviceFinderTest, ANodeNameOfFourCharactersIsRejectedWithoutALock)
{
    board({kUsbController});
    usbDisk("sdaa", "/dev/sg1", 1, capacity(2880));
    FloppyDeviceFinder finder;
    size_t before = semops();
    char name[] = "sdaa";
    EXPECT_EQ(finder.getUSBFloppies(name), nullptr);
    EXPECT_EQ(semops(), before);
    EXPECT_TRUE(opensOf("/dev/sdaa").empty());
    // Partitions are passed over the same way by the walk.
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(&pci, records);
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(semops(), before);
}

TEST_F(FloppyDeviceFinderTest, RemoteConsoleFloppiesAreRejected)
{
    board({kUsbController});
    usbDisk("sda", "/dev/sg1", 1, capacity(2880), "zMARL", "Floppy");
    usbDisk("sdb", "/dev/sg2", 2, capacity(2880), "LAB", "Virtual Floppy");
    usbDisk("sdc", "/dev/sg3", 3, capacity(2880), "LAB", "vmDisk-Floppy");
    usbDisk("sdd", "/dev/sg4", 4, capacity(2880), "zmarl", "virtual vmdisk");
    std::vector<IWbemClassObject> records = run();
    // The tests are case-sensitive: only the last one passes.
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0])[2], "/dev/sdd");
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(FloppyDeviceFinderTest, ADiskBehindAnotherAdapterIsRejected)
{
    board({kUsbController});
    usbDisk("sdb", "/dev/sg4", 5, capacity(2880))->setProbeHost("usb-storage 2-2:1.0");
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.ioctlNames("/dev/sg4").back(), "SCSI_IOCTL_PROBE_HOST");
}

TEST_F(FloppyDeviceFinderTest, AFailedInquiryIsRejected)
{
    board({kUsbController});
    usbDisk("sdb", "/dev/sg4", 5, capacity(2880))->addReply(host::kInquiry, host::SgReply::check(2, 0x04));
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(FloppyDeviceFinderTest, ABlockNodeWithoutAnAddressOrSgNodeIsPassedOver)
{
    board({kUsbController});
    machine.addNode("/dev/sda", 'b', nullptr);
    host::ScsiAddress cdrom;
    cdrom.host = 4;
    machine.addNode("/dev/sdb", 'b', std::make_shared<host::ScsiBlockModel>(cdrom));
    // An sg node at the address, but of type 5: no disk.
    ostrand_test::addSgNode(machine, "/dev/sg0", 4, 0, 0, 0, 5);
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.ioctlNames("/dev/sg0") == Lines{"SG_GET_SCSI_ID"});
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(FloppyDeviceFinderTest, AnSgNodeThatDoesNotOpenIsPassedOver)
{
    board({kUsbController});
    usbDisk("sdb", "/dev/sg4", 5, capacity(2880));
    FloppyDeviceFinder finder;
    machine.denyOpen("/dev/sg4", EBUSY);
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(&pci, records);
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST_F(FloppyDeviceFinderTest, OnA24KernelTheDrivesAreNumberedAndASecondWalkStartsAtOneAgain)
{
    machine.setUname("2.4.21-37.ELsmp", "i686");
    board({kUsbController});
    usbDisk("sda", "/dev/sg1", 1, capacity(2880));
    usbDisk("sdb", "/dev/sg2", 2, capacity(1440));
    FloppyDeviceFinder finder;
    for (int walk = 0; walk < 2; ++walk) {
        std::vector<IWbemClassObject> records;
        finder.getAllObjects(&pci, records);
        ASSERT_EQ(records.size(), 2u);
        EXPECT_EQ(fields(records[0]),
                  (Fields{"FLOPPY_USB_NAME", "", "/dev/sda", "FLOPPY_H1440_USB_DESCR", "USB Bus, Floppy Drive 1", "",
                          "System Board!USB Bus", "144FLOPPY_DRIVE", "LABUSB  ", "USB FLOPPY 1.44 ", "1.00", "",
                          "/dev/sg1"}));
        EXPECT_EQ(fields(records[1])[4], "USB Bus, Floppy Drive 2");
    }
}

TEST_F(FloppyDeviceFinderTest, ControllerDrivesComeFirstThenUsbDrivesInScanOrder)
{
    board({kIsaBridge, kUsbController});
    usbDisk("sdb", "/dev/sg2", 2, capacity(2880));
    usbDisk("sda", "/dev/sg1", 1, capacity(2880));
    floppy("/dev/fd0", "H1440");
    floppy("/dev/fd1", "H1440");
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(fields(records[0]), controllerDrive(0));
    EXPECT_EQ(fields(records[1]), controllerDrive(1));
    EXPECT_EQ(fields(records[2])[2], "/dev/sda");
    EXPECT_EQ(fields(records[3])[2], "/dev/sdb");
}

TEST_F(FloppyDeviceFinderTest, GetAllObjectsEmptiesTheVectorFirst)
{
    board({kIsaBridge});
    std::vector<IWbemClassObject> records(3, IWbemClassObject("x", "", "", "", "", "", "", "", "", "", "", "", "", 9));
    FloppyDeviceFinder finder;
    finder.getAllObjects(&pci, records);
    EXPECT_TRUE(records.empty());
}

TEST_F(FloppyDeviceFinderTest, TheConstructorScansTheSgNodesUnderTheSemaphore)
{
    usbDisk("sdb", "/dev/sg4", 5, capacity(2880));
    FloppyDeviceFinder finder;
    EXPECT_EQ(machine.semaphoreCalls,
              (Lines{"semget key=0x1fe101f count=1 flags=0x780 -> 0", "semget key=0x1fe101f count=1 flags=0x180 -> 0",
                     "semctl id=0 num=0 SETVAL value=1 -> 0",
                     "semop id=0 {num=0 op=-1 flg=0x1000} -> 0", "semop id=0 {num=0 op=1 flg=0x1000} -> 0"}));
    EXPECT_EQ(machine.ioctlNames("/dev/sg4"), Lines{"SG_GET_SCSI_ID"});
    EXPECT_TRUE(machine.ioctlNames("/dev/sdb").empty());
}

// --- USB drives on a 2.6 kernel: the USB storage location ----------------------------------

class FloppyUsbLocationTest : public FloppyDeviceFinderTest {
protected:
    void SetUp() override
    {
        machine.setUname("2.6.16.60-0.21-smp", "x86_64");
        machine.addCommand("modprobe -v sg 2>&1", "");
        machine.setSysfs(tree.root());
        board({kUsbController});
    }

    // The drive on port 4 of root hub 1, behind the controller at 00:1d.7.
    void onRootPort()
    {
        const std::string port = "/sys/devices/pci0000:00/0000:00:1d.7/usb1/1-4";
        machine.addCommand("find /sys/devices/pci0000:00/ -name host5", port + "/1-4:1.0/host5\n");
        machine.addCommand("dirname " + port + "/1-4:1.0/host5", port + "/1-4:1.0\n");
        machine.addCommand("basename " + port + "/1-4:1.0", "1-4:1.0\n");
        machine.addCommand("dirname " + port + "/1-4:1.0", port + "\n");
        machine.addCommand("cat " + port + "/devnum > /dev/null 2>&1", "");
    }

    ostrand_test::SysfsTree tree;
};

TEST_F(FloppyUsbLocationTest, TheLocationComesFromTheUsbTreeAndTheTagIsCutFromTheParent)
{
    const std::string device = "pci0000:00/0000:00:1d.7/usb1/1-4";
    tree.device(device, {{"version", " 1.10\n"},
                         {"bcdDevice", "0200\n"},
                         {"serial", "FD0001\n"},
                         {"bMaxPower", "  98mA\n"},
                         {"bmAttributes", "80\n"}})
        .onBus("usb", device);
    onRootPort();
    usbDisk("sdb", "/dev/sg4", 5, capacity(2880));
    std::vector<IWbemClassObject> records = run();
    ASSERT_EQ(records.size(), 1u);
    // 31 characters from position 23: the function number is cut off.
    EXPECT_EQ(fields(records[0]),
              (Fields{"FLOPPY_USB_NAME", "", "/dev/sdb", "FLOPPY_H1440_USB_DESCR", "Port 4, Device 000",
                      "PCI Bus 0, Device 29, Function ", "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 7",
                      "144FLOPPY_DRIVE", "LABUSB  ", "USB FLOPPY 1.44 ", "1.00", "FD0001",
                      std::string("/dev/sg4, ") + kUsbReleaseLabel + "1.10, Rev:2.00, Power:98mA Bus"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(FloppyUsbLocationTest, TheLookupResetsTheSemaphoreWhileTheFinderHoldsIt)
{
    onRootPort();
    usbDisk("sdb", "/dev/sg4", 5, capacity(2880));
    run();
    // Set to 1 inside the hold, then given back: 2.
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 2);
    // The finder's constructor and the lookup's own sg object each load the module.
    EXPECT_EQ(machine.timesRun("modprobe -v sg 2>&1"), 2);
    // The lookup closed the sg descriptor; the finder's second close fails unseen.
    EXPECT_EQ(machine.ioctlNames("/dev/sg4"), (Lines{"SG_GET_SCSI_ID", "SG_IO READ CAPACITY", "SG_EMULATED_HOST",
                                                     "SCSI_IOCTL_PROBE_HOST", "SG_IO INQUIRY", "SG_GET_SCSI_ID"}));
}

TEST_F(FloppyUsbLocationTest, AnUnknownUsbDriveHasSystemBoardAsParentAndIsStillReported)
{
    onRootPort();
    auto sg = usbDisk("sdb", "/dev/sg4", 5, capacity(2880));
    FloppyDeviceFinder finder;
    sg->refuse(SG_GET_SCSI_ID, EIO);
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(&pci, records);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]),
              (Fields{"FLOPPY_USB_NAME", "", "/dev/sdb", "FLOPPY_H1440_USB_DESCR", "", "", "System Board",
                      "144FLOPPY_DRIVE", "LABUSB  ", "USB FLOPPY 1.44 ", "1.00", "", "/dev/sg4"}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(FloppyUsbLocationTest, AHostThatFindCannotFindThrowsWithTheSemaphoreHeldAndDescriptorsOpen)
{
    machine.addCommand("find /sys/devices/pci0000:00/ -name host5", "");
    machine.addCommand("dirname ", "");
    machine.addCommand("basename ", "");
    machine.addCommand("cat /devnum > /dev/null 2>&1", "");
    usbDisk("sdb", "/dev/sg4", 5, capacity(2880));
    FloppyDeviceFinder finder;
    std::vector<IWbemClassObject> records;
    try {
        finder.getAllObjects(&pci, records);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_NE(std::string(e.what()).find("basic_string::substr"), std::string::npos) << e.what();
    }
    EXPECT_EQ(machine.openDescriptors(), (Lines{"/dev/sdb", "/dev/sg4"}));
    // Reset to 1 by the lookup while held, and never given back.
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
    EXPECT_TRUE(records.empty());
}

// --- The lab server -------------------------------------------------------------------------

TEST(FloppyLabServerTest, DriveAIsFoundAndTheUsbDiskFailsTheAdapterTest)
{
    std::unique_ptr<host::FakeMachine> machine =
        host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server");
    host::ScopedMachine scope{*machine};
    PCIUtil pci;
    pci.initPciUtil();
    FloppyDeviceFinder finder;
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(&pci, records);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fields(records[0]), controllerDrive(0));
    // The RAID disk is too large; the 2880-block disk passes its capacity,
    // but its adapter calls itself "usb-storage 2-2:1.0", and the test for
    // "USB" is case-sensitive.
    EXPECT_EQ(machine->ioctlNames("/dev/sg2"), (Lines{"SG_GET_SCSI_ID", "SG_IO READ CAPACITY"}));
    EXPECT_EQ(machine->ioctlNames("/dev/sg4"),
              (Lines{"SG_GET_SCSI_ID", "SG_IO READ CAPACITY", "SG_EMULATED_HOST", "SCSI_IOCTL_PROBE_HOST"}));
    EXPECT_TRUE(machine->openDescriptors().empty());
}

// --- The models -----------------------------------------------------------------------------

TEST(FloppyModelTest, TheDriveStateAndTypeAsTheDriverAnswers)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    host::loadMachineText(machine, "floppy /dev/fd0 type=H1440 flags=0x30 track=1 maxblock=17 maxtrack=2\n", ".");
    int fd = host::open("/dev/fd0", O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    floppy_drive_struct state;
    std::memset(&state, 0xAA, sizeof state);
    EXPECT_EQ(host::ioctl(fd, FDPOLLDRVSTAT, &state), 0);
    EXPECT_EQ(state.flags, 0x30u);
    EXPECT_EQ(state.track, 1);
    EXPECT_EQ(state.maxblock, 17);
    EXPECT_EQ(state.maxtrack, 2);
    EXPECT_EQ(state.generation, 0);
    char name[16];
    std::memset(name, 'x', sizeof name);
    EXPECT_EQ(host::ioctl(fd, FDGETDRVTYP, name), 0);
    EXPECT_STREQ(name, "H1440");
    EXPECT_EQ(name[6], 'x');
    EXPECT_EQ(machine.ioctlNames("/dev/fd0"), (Lines{"FDPOLLDRVSTAT", "FDGETDRVTYP"}));
    host::close(fd);
}

TEST(FloppyModelTest, ALongDriveTypeNameFillsTheBufferWithoutATerminator)
{
    host::FloppyModel model(std::string(20, 'N'), host::FloppyState());
    host::FakeMachine machine;
    host::IoctlRecord event;
    char name[17];
    std::memset(name, 0, sizeof name);
    EXPECT_EQ(model.ioctl(machine, FDGETDRVTYP, name, event), 0);
    EXPECT_EQ(std::string(name), std::string(16, 'N'));
}

TEST(FloppyModelTest, ScsiBlockNodesGiveThePackedAddress)
{
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    host::loadMachineText(machine, "scsi-block /dev/sdb host=5 channel=2 id=3 lun=1 unique-id=53248\n", ".");
    int fd = host::open("/dev/sdb", O_RDONLY | O_NONBLOCK);
    int idLun[2] = {0, 0};
    EXPECT_EQ(host::ioctl(fd, SCSI_IOCTL_GET_IDLUN, idLun), 0);
    EXPECT_EQ(static_cast<unsigned int>(idLun[0]), 0x05020103u);
    EXPECT_EQ(idLun[1], 53248);
    EXPECT_EQ(machine.ioctlNames("/dev/sdb"), Lines{"SCSI_IOCTL_GET_IDLUN"});
    host::close(fd);
}

TEST(FloppyModelTest, BadDirectivesAreRefusedWithTheirLine)
{
    for (const char* text : {"floppy /dev/fd0\n", "floppy /dev/fd0 track=1\n", "floppy /dev/fd0 type=H1440 track=x\n",
                             "floppy /dev/fd0 type=H1440 track=40000\n", "scsi-block\n",
                             "scsi-block /dev/sda host=256\n"}) {
        host::FakeMachine machine;
        EXPECT_THROW(host::loadMachineText(machine, text, "."), host::MachineDirectoryError) << text;
    }
}

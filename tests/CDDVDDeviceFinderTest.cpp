// The CD/DVD finder's frame: the constructor's scan under the semaphore, the
// order of the enumeration, the node prefix by distribution, the classes from
// capability bits and from product texts, the trimming, and the location
// strings of IDE drives (from the PCI inventory) and SCSI drives (from the
// kernel).
#include "finders/CDDVDDeviceFinder.h"

#include "host/fake/FakeMachine.h"
#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"
#include "probes/SCSIGeneric.h"
#include "tests/support/Machines.h"
#include "tests/support/OpticalDrives.h"
#include "tests/support/PciLines.h"
#include "tests/support/ScsiNodes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>

using namespace Vantrel::Ostrand;
using ostrand_test::addIdeNode;
using ostrand_test::addPciLines;
using ostrand_test::addScsiBlockNode;
using ostrand_test::addSgNode;
using ostrand_test::capture;
using ostrand_test::ideController;
using ostrand_test::inquiryAnswer;
using ostrand_test::paddedIdentityBlock;
using ostrand_test::piix3;
using ostrand_test::Record;
using ostrand_test::RecordingMachine;

namespace {

using Calls = std::vector<std::string>;
using Paths = std::vector<std::string>;

const char* const kLsbRelease = "lsb_release -d 2>&1";

// The opens of paths that begin with `prefix`, in order.
Paths opensOf(const host::FakeMachine& machine, const std::string& prefix)
{
    Paths paths;
    for (const std::string& path : machine.opens()) {
        if (path.compare(0, prefix.size(), prefix) == 0) {
            paths.push_back(path);
        }
    }
    return paths;
}

// A machine whose lsb_release cannot be started: popen fails for it.
class NoPipeForLsbRelease : public RecordingMachine {
public:
    FILE* popen(const char* command, const char* mode) override
    {
        if (std::string(command) == kLsbRelease) {
            errno = EMFILE;
            return nullptr;
        }
        return RecordingMachine::popen(command, mode);
    }
};

class CDDVDFrameTest : public ::testing::Test {
protected:
    // The inventory stays with the fixture: the finder keeps pointing at it.
    std::vector<IWbemClassObject> run(CDDVDDeviceFinder& finder)
    {
        pci = std::make_unique<PCIUtil>();
        pci->initPciUtil();
        std::vector<IWbemClassObject> objects;
        finder.getAllObjects(pci.get(), objects);
        return objects;
    }

    // A SCSI drive at host 2, target 0: sr node, sg twin, INQUIRY data.
    void scsiDrive(const std::string& node, const std::string& sg, int host, const std::string& product)
    {
        addScsiBlockNode(machine, node, host, 0, 0, 0);
        auto model = addSgNode(machine, sg, host, 0, 0, 0, 5);
        model->setInquiry(inquiryAnswer("LABSCSI", product, "1.00"));
        model->setProbeHost("sym-2.2.3");
        model->setPci("0000:00:05.0");
    }

    // The parent location of an IDE drive on the letter, with this inventory.
    std::string parentOf(const std::vector<ostrand_test::PciLine>& controllers, char letter)
    {
        addPciLines(machine, controllers);
        CDDVDDeviceFinder finder;
        run(finder);
        return finder.mkDevParentLocationString(letter);
    }

    RecordingMachine machine;
    host::ScopedMachine scope{machine};
    std::unique_ptr<PCIUtil> pci;
};

// The prefix getCDDevNode writes for this lsb_release output.
std::string prefixFor(const std::string& output)
{
    RecordingMachine machine;
    host::ScopedMachine scope{machine};
    machine.addCommand(kLsbRelease, output);
    CDDVDDeviceFinder finder;
    char prefix[5] = {'x', 'x', 'x', 'x', '\0'};
    finder.getCDDevNode(prefix);
    EXPECT_EQ(machine.timesRun(kLsbRelease), 1);
    EXPECT_EQ(machine.openStreams(), 0u);
    return prefix;
}

} // namespace

// --- Construction ------------------------------------------------------------

TEST_F(CDDVDFrameTest, TheConstructorScansTheSgNodesBetweenLockAndUnlock)
{
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    CDDVDDeviceFinder finder;
    EXPECT_EQ(machine.semaphoreCalls,
              (Calls{"semget key=0x1fe101f count=1 flags=0x780 -> 0", "semget key=0x1fe101f count=1 flags=0x180 -> 0",
                     "semctl id=0 num=0 SETVAL value=1 -> 0", "semop id=0 {num=0 op=-1 flg=0x1000} -> 0",
                     "semop id=0 {num=0 op=1 flg=0x1000} -> 0"}));
    EXPECT_EQ(machine.opens(), (Paths{"/dev/sg0"}));
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"), (Paths{"SG_GET_SCSI_ID"}));
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
    EXPECT_TRUE(machine.sleeps().empty());
    // No module is loaded on a 6.1 kernel.
    EXPECT_TRUE(machine.commands().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(CDDVDFrameTest, OnA26KernelTheConstructorLoadsTheSgModule)
{
    machine.setUname("2.6.61-56-amd64", "x86_64");
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    CDDVDDeviceFinder finder;
    EXPECT_EQ(machine.commands(), (Paths{"modprobe -v sg 2>&1"}));
}

TEST_F(CDDVDFrameTest, WithoutSgNodesTheConstructorPausesTenSecondsOnce)
{
    CDDVDDeviceFinder finder;
    ASSERT_EQ(machine.sleeps().size(), 1u);
    EXPECT_EQ(machine.sleeps()[0].call, "sleepForSeconds");
    EXPECT_EQ(machine.sleeps()[0].microseconds, 10000000);
    // The pause lies inside the lock: the unlock comes after it.
    EXPECT_EQ(machine.semaphoreCalls.back(), "semop id=0 {num=0 op=1 flg=0x1000} -> 0");
}

TEST_F(CDDVDFrameTest, TheScanRunsEvenWhenTheLockFails)
{
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    machine.failures["semop"] = {EINVAL};
    CDDVDDeviceFinder finder;
    EXPECT_EQ(machine.opens(), (Paths{"/dev/sg0"}));
    EXPECT_EQ(machine.semaphoreCalls[3], "semop id=0 {num=0 op=-1 flg=0x1000} -> -1");
    EXPECT_EQ(machine.semaphoreCalls[4], "semop id=0 {num=0 op=1 flg=0x1000} -> 0");
}

// --- The enumeration ---------------------------------------------------------

TEST_F(CDDVDFrameTest, WithoutIdeControllerNoHdNodeIsTouchedAndTheScsiSideIsWalked)
{
    addPciLines(machine, {ostrand_test::PciLine{"00:05.0", "0100", "1000", "0012", "SCSI storage controller",
                                                "Broadcom / LSI", "53c895a"}});
    addIdeNode(machine, "/dev/hda", paddedIdentityBlock(0x85C0, "S", "1.0", "M"));
    scsiDrive("/dev/sr0", "/dev/sg0", 2, "SCSI CD-ROM");
    machine.addCommand(kLsbRelease, "Description:\tDebian GNU/Linux 12 (bookworm)\n");
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> records = run(finder);
    EXPECT_TRUE(opensOf(machine, "/dev/hd").empty());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(ostrand_test::field(records[0], "DeviceDescriptor"), "/dev/sr0");
}

TEST_F(CDDVDFrameTest, FourLettersAreOpenedForEachIdeController)
{
    addPciLines(machine, {piix3()});
    CDDVDDeviceFinder finder;
    run(finder);
    EXPECT_EQ(opensOf(machine, "/dev/hd"), (Paths{"/dev/hda", "/dev/hdb", "/dev/hdc", "/dev/hdd"}));
}

TEST_F(CDDVDFrameTest, ThreeIdeControllersOpenTheLettersAToL)
{
    addPciLines(machine, {ideController("00:1f.1", "8086", "7111"), ideController("00:02.0", "1106", "0571"),
                          ideController("00:03.0", "10b9", "5229")});
    CDDVDDeviceFinder finder;
    run(finder);
    EXPECT_EQ(opensOf(machine, "/dev/hd"),
              (Paths{"/dev/hda", "/dev/hdb", "/dev/hdc", "/dev/hdd", "/dev/hde", "/dev/hdf", "/dev/hdg", "/dev/hdh",
                     "/dev/hdi", "/dev/hdj", "/dev/hdk", "/dev/hdl"}));
}

TEST_F(CDDVDFrameTest, WithoutSgNodesThereIsNoScsiWalkAndLsbReleaseIsNotRun)
{
    addPciLines(machine, {piix3()});
    addScsiBlockNode(machine, "/dev/sr0", 2, 0, 0, 0);
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> records = run(finder);
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(machine.timesRun(kLsbRelease), 0);
    EXPECT_TRUE(opensOf(machine, "/dev/sr").empty());
}

TEST_F(CDDVDFrameTest, TheVectorIsEmptiedFirst)
{
    CDDVDDeviceFinder finder;
    PCIUtil pci;
    std::vector<IWbemClassObject> objects(3, IWbemClassObject("x", "", "", "", "", "", "", "", "", "", "", "", "", 7));
    finder.getAllObjects(&pci, objects);
    EXPECT_TRUE(objects.empty());
}

TEST_F(CDDVDFrameTest, IdeDrivesComeFirstInLetterOrderThenScsiNodesInAlphabeticalOrder)
{
    addPciLines(machine, {piix3()});
    for (const char* node : {"/dev/hdd", "/dev/hda"}) {
        auto model = addIdeNode(machine, node, paddedIdentityBlock(0x85C0, "S", "1.0", "IDE DRIVE"));
        model->addReply(0x5A, host::SgReply::good(ostrand_test::capabilityPage(0x01, 0x00)));
    }
    scsiDrive("/dev/sr2", "/dev/sg0", 2, "SECOND");
    scsiDrive("/dev/sr10", "/dev/sg1", 3, "TENTH");
    machine.addCommand(kLsbRelease, "Description:\tSUSE Linux Enterprise Server 11 (x86_64)\n");
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> records = run(finder);
    Paths descriptors;
    for (auto& record : records) {
        descriptors.push_back(ostrand_test::field(record, "DeviceDescriptor"));
    }
    // Node 10 comes before node 2.
    EXPECT_EQ(descriptors, (Paths{"/dev/hda", "/dev/hdd", "/dev/sr10", "/dev/sr2"}));
}

TEST_F(CDDVDFrameTest, SuseWithoutServer10Or11ScansScdAndThenSr)
{
    scsiDrive("/dev/sr0", "/dev/sg0", 2, "SCSI CD-ROM");
    machine.addCommand(kLsbRelease, "Description:\tSUSE Linux Enterprise Server 12 SP5\n");
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> records = run(finder);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(ostrand_test::field(records[0], "DeviceDescriptor"), "/dev/sr0");
    EXPECT_STREQ(c_pNodeStr, "sr");
}

TEST_F(CDDVDFrameTest, ScdNodesAreTakenWhenThereAreAnyAndSrIsNotAskedThen)
{
    scsiDrive("/dev/scd0", "/dev/sg0", 2, "SCSI CD-ROM");
    scsiDrive("/dev/sr1", "/dev/sg1", 3, "OTHER CD-ROM");
    machine.addCommand(kLsbRelease, capture("lsb_release/rhel-5.8-tikanga.txt"));
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> records = run(finder);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(ostrand_test::field(records[0], "DeviceDescriptor"), "/dev/scd0");
    EXPECT_TRUE(opensOf(machine, "/dev/sr").empty());
}

TEST_F(CDDVDFrameTest, AFailedScanOfTheOpticalNodesIsNotRetried)
{
    scsiDrive("/dev/sr0", "/dev/sg0", 2, "SCSI CD-ROM");
    // The constructor's scan goes through; the walk's first scan fails.
    machine.failures["scandir"] = {0, EIO};
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> records = run(finder);
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(opensOf(machine, "/dev/sr").empty());
    EXPECT_STREQ(c_pNodeStr, "scd");
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

TEST(CDDVDFrameEmptyPrefixTest, WithoutLsbReleaseEveryDevEntryIsHandedToTheScsiWalk)
{
    NoPipeForLsbRelease machine;
    host::ScopedMachine scope{machine};
    addSgNode(machine, "/dev/sg0", 2, 0, 0, 0, 5);
    machine.addNode("/dev/null", 'c', nullptr);
    machine.addFile("/dev/notes", "text");
    machine.addLink("/dev/cdrom", "/dev/sr0");
    addScsiBlockNode(machine, "/dev/sr0", 2, 0, 0, 0);
    CDDVDDeviceFinder finder;
    PCIUtil pci;
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(&pci, objects);
    // Every entry that is no link, the directory and its parent too, in alphabetical order.
    Paths opened = opensOf(machine, "/dev/");
    EXPECT_EQ(opened, (Paths{"/dev/sg0", "/dev/.", "/dev/..", "/dev/notes", "/dev/null", "/dev/sg0", "/dev/sr0",
                             "/dev/sg0"}));
    // The ones that are no SCSI device fail at SCSI_IOCTL_GET_IDLUN.
    EXPECT_EQ(machine.ioctlNames("/dev/notes"), (Paths{"ioctl 0x5382"}));
    EXPECT_EQ(machine.ioctlNames("/dev/null"), (Paths{"ioctl 0x5382"}));
    EXPECT_EQ(machine.ioctlNames("/dev/sr0"), (Paths{"SCSI_IOCTL_GET_IDLUN"}));
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(ostrand_test::field(objects[0], "DeviceDescriptor"), "/dev/sr0");
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
}

// --- The node prefix ------------------------------------------------------------

TEST(CDDVDPrefixTest, SuseServer10And11TakeSr)
{
    EXPECT_EQ(prefixFor(capture("lsb_release/sles-10-x86_64.txt")), "sr");
    EXPECT_EQ(prefixFor(capture("lsb_release/sles-11-x86_64.txt")), "sr");
}

TEST(CDDVDPrefixTest, RedHat60And61TakeSr)
{
    EXPECT_EQ(prefixFor("Description:\tRed Hat Enterprise Linux Server release 6.0 (Santiago)\n"), "sr");
    EXPECT_EQ(prefixFor("Description:\tRed Hat Enterprise Linux Server release 6.1 (Santiago)\n"), "sr");
}

TEST(CDDVDPrefixTest, LaterAndEarlierReleasesAndOthersTakeScd)
{
    EXPECT_EQ(prefixFor(capture("lsb_release/rhel-6.5-santiago.txt")), "scd");
    EXPECT_EQ(prefixFor(capture("lsb_release/rhel-5.8-tikanga.txt")), "scd");
    EXPECT_EQ(prefixFor(capture("lsb_release/centos-7.4-trailing-blank.txt")), "scd");
    EXPECT_EQ(prefixFor(capture("lab-server/lsb_release.txt")), "scd");
    EXPECT_EQ(prefixFor("Description:\tSUSE Linux Enterprise Desktop 11 SP4\n"), "scd");
    EXPECT_EQ(prefixFor("Description:\tSUSE Linux Enterprise Server 12 SP5\n"), "scd");
    // Case-sensitive.
    EXPECT_EQ(prefixFor("Description:\tsuse linux enterprise server 10\n"), "scd");
}

TEST(CDDVDPrefixTest, OnlyTheFirstLineIsRead)
{
    EXPECT_EQ(prefixFor("Description:\tDebian\nSUSE Linux Enterprise Server 10\n"), "scd");
}

TEST(CDDVDPrefixTest, AMissingToolGivesTheShellsLineAndScd)
{
    RecordingMachine machine;
    host::ScopedMachine scope{machine};
    CDDVDDeviceFinder finder;
    char prefix[5] = {};
    finder.getCDDevNode(prefix);
    EXPECT_STREQ(prefix, "scd");
    EXPECT_EQ(machine.commands(), (Paths{kLsbRelease}));
}

TEST(CDDVDPrefixTest, AToolThatPrintsNothingGivesScd) { EXPECT_EQ(prefixFor(""), "scd"); }

TEST(CDDVDPrefixTest, AToolThatCannotBeStartedLeavesThePrefixUntouched)
{
    NoPipeForLsbRelease machine;
    host::ScopedMachine scope{machine};
    CDDVDDeviceFinder finder;
    char prefix[5] = {'a', 'b', 'c', 'd', '\0'};
    finder.getCDDevNode(prefix);
    EXPECT_STREQ(prefix, "abcd");
}

// --- Classes --------------------------------------------------------------------

TEST_F(CDDVDFrameTest, TheClassFromCapabilityBitsLooksAtWhatIsWrittenFirst)
{
    CDDVDDeviceFinder finder;
    auto classOf = [&](int reads, int writes) {
        std::string page = ostrand_test::capabilityPage(reads, writes);
        return finder.getDeviceClass(page.data());
    };
    EXPECT_EQ(classOf(0x00, 0x01), "CDRW");
    EXPECT_EQ(classOf(0x00, 0x02), "CDRW");
    // A DVD writer that also writes CDs.
    EXPECT_EQ(classOf(0x3F, 0x33), "CDRW");
    EXPECT_EQ(classOf(0x01, 0x00), "CDR");
    EXPECT_EQ(classOf(0x02, 0x00), "CDR");
    // Every drive that reads CDs is CDR before it can be DVD.
    EXPECT_EQ(classOf(0x3B, 0x30), "CDR");
    EXPECT_EQ(classOf(0x08, 0x00), "DVD");
    EXPECT_EQ(classOf(0x10, 0x00), "DVD");
    EXPECT_EQ(classOf(0x20, 0x00), "DVD");
    EXPECT_EQ(classOf(0x08, 0x30), "DVD");
    EXPECT_EQ(classOf(0x00, 0x10), "DVD_RAM");
    EXPECT_EQ(classOf(0x00, 0x20), "DVD_RAM");
    EXPECT_EQ(classOf(0x00, 0x00), "");
    // Bits outside the masks count for nothing.
    EXPECT_EQ(classOf(0xC4, 0xCC), "");
}

TEST_F(CDDVDFrameTest, TheClassFromTheProductTextHasItsOwnWords)
{
    CDDVDDeviceFinder finder;
    auto classOf = [&](std::string product) { return finder.getDeviceClass(product); };
    EXPECT_EQ(classOf("QEMU DVD-ROM"), "DVD_ROM");
    EXPECT_EQ(classOf("SCSI CD-ROM"), "CDROM");
    EXPECT_EQ(classOf("CDRW 52X"), "CDRW");
    EXPECT_EQ(classOf("DVD-RAM GH22"), "DVD_RAM");
    EXPECT_EQ(classOf("DVD+-RW GT30N"), "CDR");
    EXPECT_EQ(classOf(""), "CDR");
    // "CD-ROM" is asked first.
    EXPECT_EQ(classOf("CD-ROM CDRW"), "CDROM");
    EXPECT_EQ(classOf("CDRW DVD-ROM"), "CDRW");
    EXPECT_EQ(classOf("cd-rom"), "CDR");
}

// --- Trimming -------------------------------------------------------------------

TEST_F(CDDVDFrameTest, TrimmingTrailingBlanksReturnsTheLastKeptIndex)
{
    CDDVDDeviceFinder finder;
    std::string text = "QEMU    ";
    EXPECT_EQ(finder.trimString(text, 't'), 3);
    EXPECT_EQ(text, "QEMU");
    text = " A B  ";
    EXPECT_EQ(finder.trimString(text, 'T'), 3);
    EXPECT_EQ(text, " A B");
    text = "    ";
    EXPECT_EQ(finder.trimString(text, 't'), -1);
    EXPECT_EQ(text, "");
    text = "";
    EXPECT_EQ(finder.trimString(text, 't'), -1);
    // Only the blank: a tab stays.
    text = "A\t";
    EXPECT_EQ(finder.trimString(text, 't'), 1);
    EXPECT_EQ(text, "A\t");
}

TEST_F(CDDVDFrameTest, TrimmingLeadingBlanksNeverLooksAtTheLastCharacter)
{
    CDDVDDeviceFinder finder;
    std::string text = "  QEMU";
    EXPECT_EQ(finder.trimString(text, 'l'), 2);
    EXPECT_EQ(text, "QEMU");
    text = "    ";
    EXPECT_EQ(finder.trimString(text, 'L'), 3);
    EXPECT_EQ(text, " ");
    text = " ";
    EXPECT_EQ(finder.trimString(text, 'l'), 0);
    EXPECT_EQ(text, " ");
    text = "";
    EXPECT_EQ(finder.trimString(text, 'l'), 0);
    EXPECT_EQ(text, "");
}

TEST_F(CDDVDFrameTest, OtherTrimModesChangeNothing)
{
    CDDVDDeviceFinder finder;
    std::string text = "  A  ";
    for (char mode : {'b', 'R', '\0', ' '}) {
        EXPECT_EQ(finder.trimString(text, mode), 0);
        EXPECT_EQ(text, "  A  ");
    }
}

// --- Locations ------------------------------------------------------------------

TEST_F(CDDVDFrameTest, MasterAndSlaveLocations)
{
    CDDVDDeviceFinder finder;
    for (char letter : {'a', 'c', 'e', 'g'}) {
        EXPECT_EQ(finder.mkDevLocationString(letter), "Location 0") << letter;
    }
    for (char letter : {'b', 'd', 'f', 'h'}) {
        EXPECT_EQ(finder.mkDevLocationString(letter), "Location 1") << letter;
    }
    for (char letter : {'i', 'l', 'A', '\0', static_cast<char>(-1)}) {
        EXPECT_EQ(finder.mkDevLocationString(letter), "") << static_cast<int>(letter);
    }
}

TEST_F(CDDVDFrameTest, TheParentOfAnIdeDriveIsItsControllerAndChannel)
{
    addPciLines(machine, {ideController("00:1f.1", "8086", "7111")});
    CDDVDDeviceFinder finder;
    run(finder);
    const std::string controller = "System Board!PCI Bus 0!PCI Bus 0, Device 31, Function 1";
    EXPECT_EQ(finder.mkDevParentLocationString('a'), controller + "!Primary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('b'), controller + "!Primary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('c'), controller + "!Secondary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('d'), controller + "!Secondary IDE Channel");
}

TEST_F(CDDVDFrameTest, TheBusNumberStandsTwiceInDecimal)
{
    EXPECT_EQ(parentOf({ideController("0a:1f.1", "8086", "7111")}, 'a'),
              "System Board!PCI Bus 10!PCI Bus 10, Device 31, Function 1!Primary IDE Channel");
}

TEST_F(CDDVDFrameTest, TheSecondControllerHasTheThirdAndFourthChannels)
{
    std::vector<ostrand_test::PciLine> two = {ideController("00:1f.1", "8086", "7111"),
                                             ideController("02:03.0", "1106", "0571")};
    addPciLines(machine, two);
    CDDVDDeviceFinder finder;
    run(finder);
    const std::string second = "System Board!PCI Bus 2!PCI Bus 2, Device 3, Function 0";
    EXPECT_EQ(finder.mkDevParentLocationString('e'), second + "!Tertiary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('f'), second + "!Tertiary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('g'), second + "!Quaternary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('h'), second + "!Quaternary IDE Channel");
}

TEST_F(CDDVDFrameTest, ThreeControllersLeaveLettersBeyondHWithoutChannelOnTheFirstController)
{
    addPciLines(machine, {ideController("00:1f.1", "8086", "7111"), ideController("00:02.0", "1106", "0571"),
                          ideController("00:03.0", "10b9", "5229")});
    CDDVDDeviceFinder finder;
    run(finder);
    for (char letter : {'i', 'j', 'k', 'l'}) {
        EXPECT_EQ(finder.mkDevLocationString(letter), "");
        EXPECT_EQ(finder.mkDevParentLocationString(letter), "System Board!PCI Bus 0!PCI Bus 0, Device 31, Function 1");
    }
}

TEST_F(CDDVDFrameTest, Two2680ControllersGiveTheLettersEToHTheFirstAddressAndTheOuterChannels)
{
    addPciLines(machine, {ideController("00:1f.1", "8086", "2680"), ideController("00:1f.2", "8086", "2680")});
    CDDVDDeviceFinder finder;
    run(finder);
    const std::string first = "System Board!PCI Bus 0!PCI Bus 0, Device 31, Function 1";
    EXPECT_EQ(finder.mkDevParentLocationString('e'), first + "!Tertiary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('f'), first + "!Tertiary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('g'), first + "!Quaternary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('h'), first + "!Quaternary IDE Channel");
}

TEST_F(CDDVDFrameTest, TheSecondControllerDecidesWhetherItsDrivesMoveToTheFirst)
{
    // A plain first controller, a 2680 of another vendor as the second: the rule holds for any vendor.
    EXPECT_EQ(parentOf({ideController("00:1f.1", "8086", "7111"), ideController("00:1f.2", "1234", "2680")}, 'g'),
              "System Board!PCI Bus 0!PCI Bus 0, Device 31, Function 1!Quaternary IDE Channel");
}

TEST_F(CDDVDFrameTest, Two27C0ControllersAreHiddenByTheInventorySoNoLetterIsWalked)
{
    // The inventory hides 0x27C0 (and 0x24D1) from every class query, so the
    // finder's rule for them never meets one: no IDE controller, no hd node.
    addPciLines(machine, {ideController("00:1f.1", "8086", "27c0"), ideController("00:1f.2", "8086", "27c0")});
    addIdeNode(machine, "/dev/hde", paddedIdentityBlock(0x85C0, "S", "1.0", "M"));
    CDDVDDeviceFinder finder;
    std::vector<IWbemClassObject> records = run(finder);
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(opensOf(machine, "/dev/hd").empty());
    // With nothing selected the lookups are refused: the fixed zeros.
    EXPECT_EQ(finder.mkDevParentLocationString('e'),
              "System Board!PCI Bus 0!PCI Bus 0, Device 0, Function 0!Tertiary IDE Channel");
}

TEST_F(CDDVDFrameTest, Two0680ControllersOfVendor1095GiveTheLettersEToHTheFirstAddressAndTwoChannels)
{
    addPciLines(machine, {ideController("03:01.0", "1095", "0680"), ideController("04:02.0", "1095", "0680")});
    CDDVDDeviceFinder finder;
    run(finder);
    const std::string first = "System Board!PCI Bus 3!PCI Bus 3, Device 1, Function 0";
    EXPECT_EQ(finder.mkDevParentLocationString('a'), first + "!Primary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('b'), first + "!Primary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('c'), first + "!Secondary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('d'), first + "!Secondary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('e'), first + "!Primary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('f'), first + "!Primary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('g'), first + "!Secondary IDE Channel");
    EXPECT_EQ(finder.mkDevParentLocationString('h'), first + "!Secondary IDE Channel");
}

TEST_F(CDDVDFrameTest, A0680OfAnotherVendorIsAPlainController)
{
    EXPECT_EQ(parentOf({ideController("00:1f.1", "8086", "7111"), ideController("04:02.0", "1234", "0680")}, 'f'),
              "System Board!PCI Bus 4!PCI Bus 4, Device 2, Function 0!Tertiary IDE Channel");
}

TEST_F(CDDVDFrameTest, TheParentOfAScsiDriveIsTheKernelsNameOfItsAdapterReadAsAPciAddress)
{
    CDDVDDeviceFinder finder;
    auto parentFor = [&](const std::string& name) {
        auto model = addSgNode(machine, "/dev/sg9", 0, 0, 0, 0, 5);
        model->setPci(name);
        int fd = host::open("/dev/sg9", O_RDWR | O_NONBLOCK);
        std::string parent = finder.mkDevParentLocationString(fd);
        host::close(fd);
        return parent;
    };
    EXPECT_EQ(parentFor("0000:00:05.0"), "System Board!PCI Bus 0!PCI Bus 0, Device 5, Function 0");
    EXPECT_EQ(parentFor("0000:0a:1f.7"), "System Board!PCI Bus 10!PCI Bus 10, Device 31, Function 7");
    EXPECT_EQ(parentFor("00:1d.7"), "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 7");
    // What libata and usb-storage name: read as hexadecimal all the same.
    EXPECT_EQ(parentFor("ata2"), "System Board!PCI Bus 10!PCI Bus 10, Device 10, Function 10");
    EXPECT_EQ(parentFor("1-1:1.0"), "System Board!PCI Bus 1!PCI Bus 1, Device 1, Function 0");
    // Twenty characters and no terminator.
    EXPECT_EQ(parentFor("0000:00:05.0-abcdefgh"), "System Board!PCI Bus 0!PCI Bus 0, Device 5, Function 0");
}

TEST_F(CDDVDFrameTest, AnAdapterWithoutParentGivesAnEmptyParent)
{
    addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    CDDVDDeviceFinder finder;
    int fd = host::open("/dev/sg0", O_RDWR | O_NONBLOCK);
    EXPECT_EQ(finder.mkDevParentLocationString(fd), "");
    host::close(fd);
    EXPECT_EQ(finder.mkDevParentLocationString(-1), "");
}

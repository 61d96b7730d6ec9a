// The PCI inventory: the three lspci passes, the line parsers and the queries.
#include "host/fake/FakeMachine.h"
#include "probes/PCIUtil.h"
#include "tests/support/Machines.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::addLspci;
using ostrand_test::capture;

namespace {

// Every field of a device, named, so that a mismatch says which one.
std::vector<std::string> describe(const pci_device& d)
{
    return {"busDevFn=" + d.busDevFn,
            "className=" + d.className,
            "classCode=" + std::to_string(d.classCode),
            "bus=" + std::to_string(d.bus),
            "device=" + std::to_string(d.device),
            "function=" + std::to_string(d.function),
            "primaryBus=" + std::to_string(d.primaryBus),
            "secondaryBus=" + std::to_string(d.secondaryBus),
            "subordinateBus=" + std::to_string(d.subordinateBus),
            "vendorId=" + std::to_string(d.vendorId),
            "deviceId=" + std::to_string(d.deviceId),
            "irq=" + std::to_string(d.irq),
            "progIf=" + std::to_string(d.progIf),
            "vendorName=" + d.vendorName,
            "deviceName=" + d.deviceName,
            "ioPortsAddr=" + d.ioPortsAddr,
            "revision=" + std::to_string(d.revision),
            "reservedText=" + d.reservedText};
}

struct Buses {
    int primary;
    int secondary;
    int subordinate;
};

pci_device expected(const std::string& busDevFn, const std::string& className, int classCode, int bus, int device,
                    int function, int vendorId, int deviceId, long revision, int progIf, const std::string& vendorName,
                    const std::string& deviceName, int irq, const std::string& ioPortsAddr, Buses buses = {0, 0, 0})
{
    pci_device d;
    d.busDevFn = busDevFn;
    d.className = className;
    d.classCode = classCode;
    d.bus = bus;
    d.device = device;
    d.function = function;
    d.primaryBus = buses.primary;
    d.secondaryBus = buses.secondary;
    d.subordinateBus = buses.subordinate;
    d.vendorId = vendorId;
    d.deviceId = deviceId;
    d.irq = irq;
    d.progIf = progIf;
    d.vendorName = vendorName;
    d.deviceName = deviceName;
    d.ioPortsAddr = ioPortsAddr;
    d.revision = revision;
    return d;
}

std::vector<pci_device> inventoryOf(PCIUtil& pci)
{
    std::vector<pci_device> devices;
    pci.getAllPCIDevices(devices);
    return devices;
}

void expectInventory(const std::vector<pci_device>& actual, const std::vector<pci_device>& wanted)
{
    ASSERT_EQ(actual.size(), wanted.size());
    for (size_t i = 0; i < wanted.size(); ++i) {
        EXPECT_EQ(describe(actual[i]), describe(wanted[i])) << "device " << i;
    }
}

std::vector<pci_device> labServerInventory()
{
    const std::string intel = "Intel Corporation";
    const std::string lsi = "Broadcom / LSI";
    const std::string e1000 = "Intel Corporation 82540EM Gigabit Ethernet Controller";
    return {
        expected("00:00.0", "Host bridge", 0x0600, 0, 0, 0, 0x8086, 0x1237, 2, -1, intel,
                 "Intel Corporation 440FX - 82441FX PMC [Natoma]", 0, ""),
        expected("00:01.0", "ISA bridge", 0x0601, 0, 1, 0, 0x8086, 0x7000, 0, -1, intel,
                 "Intel Corporation 82371SB PIIX3 ISA [Natoma/Triton II]", 0, ""),
        // Of the five I/O port lines the last one stands.
        expected("00:01.1", "IDE interface", 0x0101, 0, 1, 1, 0x8086, 0x7010, 0, -1, intel,
                 "Intel Corporation 82371SB PIIX3 IDE [Natoma/Triton II]", 0, "d2a0"),
        // USB in the line, neither -p10 nor -p20: 0.
        expected("00:01.2", "USB controller", 0x0C03, 0, 1, 2, 0x8086, 0x7020, 1, 0, intel,
                 "Intel Corporation 82371SB PIIX3 USB [Natoma/Triton II]", 11, "d280"),
        expected("00:01.3", "Bridge", 0x0680, 0, 1, 3, 0x8086, 0x7113, 3, -1, intel,
                 "Intel Corporation 82371AB/EB/MB PIIX4 ACPI", 9, ""),
        expected("00:02.0", "Ethernet controller", 0x0200, 0, 2, 0, 0x8086, 0x100E, 3, -1, intel, e1000, 11, "d200"),
        expected("00:03.0", "Ethernet controller", 0x0200, 0, 3, 0, 0x8086, 0x100E, 3, -1, intel, e1000, 10, "d240"),
        // rev 10 is read as decimal ten, not sixteen.
        expected("00:04.0", "USB controller", 0x0C03, 0, 4, 0, 0x8086, 0x24CD, 10, 20, intel,
                 "Intel Corporation 82801DB/DBM (ICH4/ICH4-M) USB2 EHCI Controller", 10, ""),
        expected("00:05.0", "SCSI storage controller", 0x0100, 0, 5, 0, 0x1000, 0x0012, 0, -1, lsi,
                 "Broadcom / LSI 53c895a", 10, "d000"),
        expected("00:06.0", "PCI bridge", 0x0604, 0, 6, 0, 0x1B36, 0x0001, 0, -1, "Red Hat, Inc.",
                 "Red Hat, Inc. QEMU PCI-PCI bridge", 11, "", {0, 1, 1}),
        expected("00:07.0", "RAID bus controller", 0x0104, 0, 7, 0, 0x1000, 0x0060, 0, -1, lsi,
                 "Broadcom / LSI MegaRAID SAS 1078", 10, "d100"),
        expected("01:01.0", "Ethernet controller", 0x0200, 1, 1, 0, 0x8086, 0x100E, 3, -1, intel, e1000, 10, "c000"),
    };
}

std::vector<pci_device> virtioVmInventory()
{
    const std::string redHat = "Red Hat, Inc.";
    return {
        expected("00:00.0", "Host bridge", 0x0600, 0, 0, 0, 0x8086, 0x0D57, 0, -1, "Intel Corporation",
                 "Intel Corporation Device 0d57", 0, ""),
        expected("00:01.0", "Unassigned class [ffff]", 0xFFFF, 0, 1, 0, 0x1AF4, 0x1045, 1, -1, redHat,
                 "Red Hat, Inc. Virtio 1.0 memory balloon", 0, ""),
        expected("00:02.0", "Mass storage controller", 0x0180, 0, 2, 0, 0x1AF4, 0x1042, 1, -1, redHat,
                 "Red Hat, Inc. Virtio 1.0 block device", 0, ""),
        expected("00:03.0", "Ethernet controller", 0x0200, 0, 3, 0, 0x1AF4, 0x1041, 1, -1, redHat,
                 "Red Hat, Inc. Virtio 1.0 network device", 0, ""),
        expected("00:04.0", "Unassigned class [ffff]", 0xFFFF, 0, 4, 0, 0x1AF4, 0x1053, 1, -1, redHat,
                 "Red Hat, Inc. Virtio 1.0 socket", 0, ""),
        expected("00:05.0", "Unassigned class [ffff]", 0xFFFF, 0, 5, 0, 0x1AF4, 0x1044, 1, -1, redHat,
                 "Red Hat, Inc. Virtio 1.0 RNG", 0, ""),
    };
}

// An attribute as the integer the caller holds; above 7 it is no
// enumerator, so it is only ever passed by reference, never loaded.
struct HeldAttribute {
    explicit HeldAttribute(int number)
    {
        static_assert(sizeof value == sizeof number, "the attribute is held as an int");
        std::memcpy(&value, &number, sizeof number);
    }
    PCIUtil::DeviceAttribute value;
};

std::string replaceOnce(std::string text, const std::string& from, const std::string& to)
{
    size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// A hand-made inventory for the selection queries: the four hidden ids (one
// under another vendor), modems and communication controllers mixed.
const char* const kSelectionN = "00:01.1 0101: 8086:7010\n"
                                "00:1f.2 0101: 8086:27c0 (rev 01)\n"
                                "00:1e.3 0703: 8086:2486 (rev 01)\n"
                                "00:1f.1 0101: 8086:24d1 (rev 02)\n"
                                "00:16.1 0780: 8086:1c3d (rev 04)\n"
                                "00:16.0 0780: 8086:1d3a (rev 05)\n"
                                "00:16.3 0703: 10b9:1d3b (rev 05)\n"
                                "00:1e.2 0401: 8086:2485 (rev 01)\n"
                                "02:04.0 0703: 10b9:5457\n";
const char* const kSelectionM =
    "00:01.1 \"IDE interface\" \"Intel Corporation\" \"82371SB PIIX3 IDE\" -p80 \"\" \"\"\n"
    "00:1f.2 \"IDE interface\" \"Intel Corporation\" \"82801GB/GR/GH SATA\" -r01 -p8f \"\" \"\"\n"
    "00:1e.3 \"Modem\" \"Intel Corporation\" \"82801CA/CAM AC'97 Modem\" -r01 -p00 \"\" \"\"\n"
    "00:1f.1 \"IDE interface\" \"Intel Corporation\" \"82801EB/ER IDE\" -r02 -p8a \"\" \"\"\n"
    "00:16.1 \"Communication controller\" \"Intel Corporation\" \"MEI 2\" -r04 -p00 \"\" \"\"\n"
    "00:16.0 \"Communication controller\" \"Intel Corporation\" \"MEI 1\" -r05 -p00 \"\" \"\"\n"
    "00:16.3 \"Modem\" \"ULi Electronics Inc.\" \"Hidden modem\" -r05 -p00 \"\" \"\"\n"
    "00:1e.2 \"Multimedia audio controller\" \"Intel Corporation\" \"AC'97 Audio\" -r01 -p00 \"\" \"\"\n"
    "02:04.0 \"Modem\" \"ULi Electronics Inc.\" \"M5457 AC'97 Modem\" -p00 \"\" \"\"\n";
const char* const kSelectionV = "00:01.1 IDE interface: Intel Corporation 82371SB PIIX3 IDE\n"
                                "\tI/O ports at 0170 [size=8]\n"
                                "\n"
                                "00:1f.2 IDE interface: Intel Corporation 82801GB/GR/GH SATA (rev 01)\n"
                                "\n"
                                "00:1e.3 Modem: Intel Corporation 82801CA/CAM AC'97 Modem (rev 01)\n"
                                "\tFlags: medium devsel, IRQ 5\n"
                                "\tI/O ports at e000 [size=256]\n"
                                "\n"
                                "00:1f.1 IDE interface: Intel Corporation 82801EB/ER IDE (rev 02)\n"
                                "\n"
                                "00:16.1 Communication controller: Intel Corporation MEI 2 (rev 04)\n"
                                "\n"
                                "00:16.0 Communication controller: Intel Corporation MEI 1 (rev 05)\n"
                                "\n"
                                "00:16.3 Modem: ULi Electronics Inc. Hidden modem (rev 05)\n"
                                "\n"
                                "00:1e.2 Multimedia audio controller: Intel Corporation AC'97 Audio (rev 01)\n"
                                "\n"
                                "02:04.0 Modem: ULi Electronics Inc. M5457 AC'97 Modem\n"
                                "\tI/O ports at 1080 [size=128]\n";

class PciInventoryTest : public ::testing::Test {
protected:
    // Runs the three passes on the lspci texts given.
    std::vector<pci_device> read(const std::string& n, const std::string& m, const std::string& v)
    {
        addLspci(machine, n, m, v);
        pci.initPciUtil();
        return inventoryOf(pci);
    }

    std::vector<pci_device> readLabServer()
    {
        return read(capture("lab-server/lspci-n.txt"), capture("lab-server/lspci-m.txt"),
                    capture("lab-server/lspci-v.txt"));
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    PCIUtil pci;
};

} // namespace

// --- The three passes on the real captures -----------------------------------------

TEST_F(PciInventoryTest, LabServerCapturesGiveTwelveDevicesFieldByField)
{
    expectInventory(readLabServer(), labServerInventory());
}

TEST_F(PciInventoryTest, TheThreePassesRunOnceEachInOrderAndClosePipes)
{
    readLabServer();
    std::vector<std::string> wanted = {ostrand_test::kLspciN, ostrand_test::kLspciM, ostrand_test::kLspciV};
    EXPECT_EQ(machine.commands(), wanted);
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(PciInventoryTest, ASecondInitAppendsToTheInventory)
{
    // Once per object: the inventory is not cleared first.
    readLabServer();
    pci.initPciUtil();
    std::vector<pci_device> devices = inventoryOf(pci);
    ASSERT_EQ(devices.size(), 24u);
    EXPECT_EQ(describe(devices[12]), describe(devices[0]));
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciN), 2);
}

TEST_F(PciInventoryTest, ConstructionRunsNoTool)
{
    PCIUtil fresh;
    EXPECT_TRUE(machine.commands().empty());
    EXPECT_TRUE(inventoryOf(fresh).empty());
    EXPECT_EQ(fresh.getNumofDeviceWithClass(0x0600), 0);
}

TEST_F(PciInventoryTest, VirtioVmCapturesGiveSixDevicesFieldByField)
{
    expectInventory(read(capture("virtio-vm/lspci-n.txt"), capture("virtio-vm/lspci-m.txt"),
                         capture("virtio-vm/lspci-v.txt")),
                    virtioVmInventory());
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(PciInventoryTest, VirtioVmWarningLineShiftsTheVerboseBlocksByOne)
{
    // The libkmod warning is no pcilib: line, so it is taken for the first
    // header, and the host bridge's real header moves the pointer on: the
    // host bridge's details land on the balloon.
    std::string v = replaceOnce(capture("virtio-vm/lspci-v.txt"), "\tFlags: fast devsel\n",
                                "\tFlags: fast devsel, IRQ 5\n\tI/O ports at c000 [size=32]\n");
    std::vector<pci_device> devices = read(capture("virtio-vm/lspci-n.txt"), capture("virtio-vm/lspci-m.txt"), v);
    ASSERT_EQ(devices.size(), 6u);
    EXPECT_EQ(devices[0].irq, 0);
    EXPECT_EQ(devices[0].ioPortsAddr, "");
    EXPECT_EQ(devices[1].irq, 5);
    EXPECT_EQ(devices[1].ioPortsAddr, "c000");
}

TEST_F(PciInventoryTest, VirtioVmWithoutTheWarningLineIsNotShifted)
{
    std::string v = replaceOnce(capture("virtio-vm/lspci-v.txt"), "lspci: Unable to load libkmod resources: error -2\n",
                                "");
    v = replaceOnce(v, "\tFlags: fast devsel\n", "\tFlags: fast devsel, IRQ 5\n");
    std::vector<pci_device> devices = read(capture("virtio-vm/lspci-n.txt"), capture("virtio-vm/lspci-m.txt"), v);
    ASSERT_EQ(devices.size(), 6u);
    EXPECT_EQ(devices[0].irq, 5);
    EXPECT_EQ(devices[1].irq, 0);
}

TEST_F(PciInventoryTest, VirtioVmLastBlockFallsBeyondTheInventoryAndIsDropped)
{
    // Shifted by the warning, the RNG's block is a seventh block: nothing
    // receives its details.
    std::string v = capture("virtio-vm/lspci-v.txt");
    size_t rng = v.find("00:05.0 ");
    ASSERT_NE(rng, std::string::npos);
    v.insert(v.find('\n', rng) + 1, "\tFlags: IRQ 7\n\tBus: primary=00, secondary=09, subordinate=09\n"
                                    "\tI/O ports at 9000 [size=8]\n");
    std::vector<pci_device> devices = read(capture("virtio-vm/lspci-n.txt"), capture("virtio-vm/lspci-m.txt"), v);
    expectInventory(devices, virtioVmInventory());
}

// --- pcilib: lines ---------------------------------------------------------------------

TEST_F(PciInventoryTest, PcilibFirstLineInFrontOfAllOutputsIsSkipped)
{
    const std::string warning = "pcilib: Cannot open /proc/bus/pci\n";
    std::vector<pci_device> devices =
        read(warning + capture("lab-server/lspci-n.txt"), warning + capture("lab-server/lspci-m.txt"),
             warning + capture("lab-server/lspci-v.txt"));
    expectInventory(devices, labServerInventory());
}

TEST_F(PciInventoryTest, PcilibLineOnTheMPipeAloneIsParsedAsTheFirstDevicesNames)
{
    // Only the -n line is looked at: the -m pipe's warning pairs with the
    // first device, and every later device gets the names of the one before.
    const std::string warning = "pcilib: Cannot open /proc/bus/pci";
    std::vector<pci_device> devices = read(capture("lab-server/lspci-n.txt"),
                                           warning + "\n" + capture("lab-server/lspci-m.txt"),
                                           capture("lab-server/lspci-v.txt"));
    ASSERT_EQ(devices.size(), 12u);
    EXPECT_EQ(devices[0].busDevFn, "00:00.0");
    EXPECT_EQ(devices[0].classCode, 0x0600);
    EXPECT_EQ(devices[0].className, warning);
    EXPECT_EQ(devices[0].vendorName, warning);
    EXPECT_EQ(devices[0].deviceName, warning + " " + warning);
    EXPECT_EQ(devices[0].progIf, -1);
    EXPECT_EQ(devices[1].busDevFn, "00:01.0");
    EXPECT_EQ(devices[1].className, "Host bridge");
    EXPECT_EQ(devices[11].busDevFn, "01:01.0");
    EXPECT_EQ(devices[11].className, "RAID bus controller");
}

TEST_F(PciInventoryTest, PcilibSkipsOnlyOneLinePerTurn)
{
    // The second warning is parsed as a device, with the second -m line.
    std::vector<pci_device> devices =
        read("pcilib: Cannot open /proc/bus/pci\n"
             "pcilib: sysfs_read_vpd: read failed: No such device\n"
             "00:00.0 0600: 8086:1237 (rev 02)\n",
             "first\nsecond\n"
             "00:00.0 \"Host bridge\" \"Intel Corporation\" \"440FX\" -r02 -p00 \"\" \"\"\n",
             "");
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].busDevFn, "pcilib: sysfs_rea");
    EXPECT_EQ(devices[0].className, "second");
    EXPECT_EQ(devices[1].busDevFn, "00:00.0");
    EXPECT_EQ(devices[1].className, "Host bridge");
    EXPECT_EQ(devices[1].deviceId, 0x1237);
}

TEST_F(PciInventoryTest, PcilibSkipDoesNotTestForTheEndAgain)
{
    // The skip reads past the end: the buffers keep what they held, and the
    // warning itself becomes a device.
    std::vector<pci_device> devices =
        read("pcilib: sysfs_read_vpd: read failed: No such device\n",
             "00:00.0 \"Host bridge\" \"Intel Corporation\" \"440FX\" -r02 -p00 \"\" \"\"\n", "");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].busDevFn, "pcilib: sysfs_rea");
    EXPECT_EQ(devices[0].className, "Host bridge");
    EXPECT_EQ(devices[0].deviceName, "Intel Corporation 440FX");
}

TEST_F(PciInventoryTest, PcilibLineInTheVerboseTextIsSkippedBeforeTheFirstHeader)
{
    // Unlike the virtio warning, a pcilib: line does not shift the blocks.
    std::vector<pci_device> devices = read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n",
                                           "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"\n",
                                           "pcilib: Cannot open /proc/bus/pci\n"
                                           "00:00.0 Host bridge: B C\n"
                                           "\tFlags: IRQ 5\n"
                                           "pcilib: Cannot open /proc/bus/pci\n"
                                           "\n"
                                           "00:01.0 ISA bridge: E F\n"
                                           "\tFlags: IRQ 6\n");
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].irq, 5);
    EXPECT_EQ(devices[1].irq, 6);
}

// --- End of the texts ------------------------------------------------------------------

TEST_F(PciInventoryTest, LastLineWithoutNewlineIsDropped)
{
    std::vector<pci_device> devices = read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000",
                                           "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"\n", "");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].busDevFn, "00:00.0");
}

TEST_F(PciInventoryTest, LastMLineWithoutNewlineIsDroppedToo)
{
    std::vector<pci_device> devices = read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n",
                                           "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"", "");
    ASSERT_EQ(devices.size(), 1u);
}

TEST_F(PciInventoryTest, ShorterNOutputEndsThePass)
{
    std::vector<pci_device> devices = read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n",
                                           "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"\n"
                                           "00:02.0 \"G\" \"H\" \"I\"\n",
                                           "");
    EXPECT_EQ(devices.size(), 2u);
}

TEST_F(PciInventoryTest, ShorterMOutputEndsThePass)
{
    std::vector<pci_device> devices =
        read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n00:02.0 0300: 8086:2572\n",
             "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"\n", "");
    EXPECT_EQ(devices.size(), 2u);
}

TEST_F(PciInventoryTest, LinesArePairedByPositionNotBySlot)
{
    std::vector<pci_device> devices = read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n",
                                           "00:01.0 \"ISA bridge\" \"E\" \"F\"\n00:00.0 \"Host bridge\" \"B\" \"C\"\n",
                                           "");
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].busDevFn, "00:00.0");
    EXPECT_EQ(devices[0].className, "ISA bridge");
    EXPECT_EQ(devices[1].busDevFn, "00:01.0");
    EXPECT_EQ(devices[1].className, "Host bridge");
}

TEST_F(PciInventoryTest, EmptyOutputsGiveAnEmptyInventory)
{
    EXPECT_TRUE(read("", "", "").empty());
    EXPECT_EQ(machine.openStreams(), 0u);
}

// --- Lines longer than 255 characters -------------------------------------------------

TEST_F(PciInventoryTest, LongNLineArrivesInTwoPiecesAndShiftsThePairing)
{
    // 255 characters are read at a time: the rest of the first line is read
    // as a line of its own, paired with the second -m line.
    std::string first = "00:00.0 0600: 8086:1237 (rev 02)";
    first += std::string(255 - first.size(), ' ');
    first += "00:09.0 0200: 8086:100e (rev 03)";
    std::vector<pci_device> devices =
        read(first + "\n00:01.0 0601: 8086:7000\n",
             "00:00.0 \"Host bridge\" \"B\" \"C\"\n00:01.0 \"ISA bridge\" \"E\" \"F\"\n00:09.0 \"Ethernet\" \"H\" \"I\"\n",
             "");
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(devices[0].busDevFn, "00:00.0");
    EXPECT_EQ(devices[0].revision, 2);
    EXPECT_EQ(devices[0].className, "Host bridge");
    EXPECT_EQ(devices[1].busDevFn, "00:09.0");
    EXPECT_EQ(devices[1].deviceId, 0x100E);
    EXPECT_EQ(devices[1].className, "ISA bridge");
    EXPECT_EQ(devices[2].busDevFn, "00:01.0");
    EXPECT_EQ(devices[2].className, "Ethernet");
}

TEST_F(PciInventoryTest, LongMLineArrivesInTwoPiecesAndShiftsThePairing)
{
    std::string longName(300, 'X');
    std::string first = "00:00.0 \"Host bridge\" \"Acme\" \"" + longName + "\" -p00 \"\" \"\"";
    std::vector<pci_device> devices =
        read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n00:02.0 0200: 8086:100e\n",
             first + "\n00:01.0 \"ISA bridge\" \"E\" \"F\"\n00:02.0 \"Ethernet\" \"H\" \"I\"\n", "");
    ASSERT_EQ(devices.size(), 3u);
    // The first piece is 255 characters, whose last is cut: the name has no
    // closing quote and runs to the end of the piece.
    size_t nameStart = first.find(longName);
    EXPECT_EQ(devices[0].className, "Host bridge");
    EXPECT_EQ(devices[0].vendorName, "Acme");
    EXPECT_EQ(devices[0].deviceName, "Acme " + std::string(254 - nameStart, 'X'));
    // The second piece, XXX..." -p00 "" "", is the second device's -m line.
    EXPECT_EQ(devices[1].busDevFn, "00:01.0");
    EXPECT_EQ(devices[1].className, " -p00 ");
    EXPECT_EQ(devices[1].vendorName, " ");
    EXPECT_EQ(devices[1].deviceName, "  ");
    EXPECT_EQ(devices[2].busDevFn, "00:02.0");
    EXPECT_EQ(devices[2].className, "ISA bridge");
}

TEST_F(PciInventoryTest, LongVerboseLineSecondPieceIsAHeaderUnlessItBeginsWithATab)
{
    std::string flags = "\tFlags: " + std::string(260, 'x') + ", IRQ 7";
    std::string tabbed = "\tFlags: bus master";
    tabbed += std::string(255 - tabbed.size(), ' ');
    tabbed += "\tIRQ 9";
    std::vector<pci_device> devices = read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n"
                                           "00:02.0 0200: 8086:100e\n00:03.0 0200: 8086:100e\n",
                                           "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"\n"
                                           "00:02.0 \"G\" \"H\" \"I\"\n00:03.0 \"J\" \"K\" \"L\"\n",
                                           "00:00.0 A: B C\n" + flags +
                                               "\n"
                                               "\tI/O ports at 1000 [size=8]\n"
                                               "\n"
                                               "00:01.0 D: E F\n"
                                               "\tFlags: IRQ 5\n"
                                               "\n"
                                               "00:02.0 G: H I\n" +
                                               tabbed +
                                               "\n"
                                               "\n"
                                               "00:03.0 J: K L\n"
                                               "\tFlags: IRQ 6\n");
    ASSERT_EQ(devices.size(), 4u);
    // The untabbed rest of the long line is taken for the next header.
    EXPECT_EQ(devices[0].irq, 0);
    EXPECT_EQ(devices[0].ioPortsAddr, "");
    EXPECT_EQ(devices[1].irq, 0);
    EXPECT_EQ(devices[1].ioPortsAddr, "1000");
    // The tabbed rest is a detail of the current device.
    EXPECT_EQ(devices[2].irq, 5);
    EXPECT_EQ(devices[3].irq, 9);
}

// --- The -v pass --------------------------------------------------------------------------

TEST_F(PciInventoryTest, EveryDetailLineIsTestedForAllThreeWords)
{
    std::vector<pci_device> devices =
        read("00:00.0 0604: 8086:244e\n", "00:00.0 \"PCI bridge\" \"B\" \"C\"\n",
             "00:00.0 PCI bridge: B C\n"
             "\tI/O ports at 1000 [size=8] IRQ 5 Bus: primary=02, secondary=03, subordinate=04\n");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].irq, 5);
    EXPECT_EQ(devices[0].primaryBus, 2);
    EXPECT_EQ(devices[0].secondaryBus, 3);
    EXPECT_EQ(devices[0].subordinateBus, 4);
    EXPECT_EQ(devices[0].ioPortsAddr, "1000");
}

TEST_F(PciInventoryTest, TheLastIrqAndIoPortLinesOfABlockStand)
{
    std::vector<pci_device> devices = read("00:00.0 0101: 8086:7010\n", "00:00.0 \"IDE interface\" \"B\" \"C\"\n",
                                           "00:00.0 IDE interface: B C\n"
                                           "\tFlags: IRQ 14\n"
                                           "\tI/O ports at 01f0 [size=8]\n"
                                           "\tI/O ports at 03f4\n"
                                           "\tInterrupt: pin A routed to IRQ 15\n");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].irq, 15);
    EXPECT_EQ(devices[0].ioPortsAddr, "03f4");
}

TEST_F(PciInventoryTest, EmptyLinesAreSkippedAndOtherLinesAreHeaders)
{
    // The headers are never read: a line that does not begin with a tab
    // moves on, whatever it says.
    std::vector<pci_device> devices = read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n",
                                           "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"\n",
                                           "anything\n"
                                           "\n"
                                           "\n"
                                           "\tFlags: IRQ 3\n"
                                           "more text\n"
                                           "\tFlags: IRQ 4\n");
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].irq, 3);
    EXPECT_EQ(devices[1].irq, 4);
}

TEST_F(PciInventoryTest, TheFirstVerboseLineIsTakenForTheHeaderWhateverItIs)
{
    // The first-line test comes before the empty-line and tab tests: an
    // empty first line, or a detail line, is taken for the first header.
    std::vector<pci_device> emptyFirst = read("00:00.0 0600: 8086:1237\n00:01.0 0601: 8086:7000\n",
                                              "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"\n",
                                              "\n00:00.0 A: B C\n\tFlags: IRQ 3\n\n00:01.0 D: E F\n\tFlags: IRQ 4\n");
    ASSERT_EQ(emptyFirst.size(), 2u);
    EXPECT_EQ(emptyFirst[0].irq, 0);
    EXPECT_EQ(emptyFirst[1].irq, 3);
}

TEST_F(PciInventoryTest, ADetailLineFirstIsTakenForTheHeader)
{
    std::vector<pci_device> devices = read("00:00.0 0600: 8086:1237\n", "00:00.0 \"A\" \"B\" \"C\"\n",
                                           "\tFlags: IRQ 3\n\tFlags: IRQ 4\n");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].irq, 4);
}

TEST_F(PciInventoryTest, MoreVerboseBlocksThanDevicesWriteNothingPastTheInventory)
{
    std::vector<pci_device> devices =
        read("00:00.0 0600: 8086:1237\n", "00:00.0 \"A\" \"B\" \"C\"\n",
             "00:00.0 A: B C\n\tFlags: IRQ 3\n\n00:01.0 D\n\tFlags: IRQ 4\n\n00:02.0 E\n\tFlags: IRQ 5\n");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].irq, 3);
}

TEST_F(PciInventoryTest, VerboseTextWithAnEmptyInventoryIsHarmless)
{
    EXPECT_TRUE(read("", "", capture("lab-server/lspci-v.txt")).empty());
}

TEST_F(PciInventoryTest, BridgeWithoutBusLineKeepsZeroBuses)
{
    std::vector<pci_device> devices =
        read("00:1e.0 0604: 8086:244e (rev d9)\n", "00:1e.0 \"PCI bridge\" \"Intel Corporation\" \"82801\" \"\" \"\"\n",
             "00:1e.0 PCI bridge: Intel Corporation 82801 (rev d9)\n\tFlags: bus master, fast devsel, latency 0\n");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].primaryBus, 0);
    EXPECT_EQ(devices[0].secondaryBus, 0);
    EXPECT_EQ(devices[0].subordinateBus, 0);
    EXPECT_EQ(devices[0].revision, 0); // d9 read as decimal
}

// --- A missing /sbin/lspci and malformed lines ------------------------------------

TEST_F(PciInventoryTest, MissingLspciGivesOneDeviceMadeOfTheShellComplaint)
{
    // No command is known to the machine: the shell's one line arrives on each
    // pipe and is parsed as a device.
    pci.initPciUtil();
    const std::string line = "sh: /sbin/lspci: command not found";
    pci_device wanted = expected("sh: /sbin/", line, 0, 0, 0, 0,
                                 0xC, // the vendor text is "command not found": its leading c
                                 0, 0, -1, line, line + " " + line, 0, "");
    expectInventory(inventoryOf(pci), {wanted});
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciV), 1);
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(PciInventoryTest, MalformedNLineThrowsOutOfRangeAndLeavesThePipesOpen)
{
    addLspci(machine, "00:00.0 0600: 8086:1237 (rev 02)\ngarbage\n",
             "00:00.0 \"A\" \"B\" \"C\"\n00:01.0 \"D\" \"E\" \"F\"\n", "");
    try {
        pci.initPciUtil();
        FAIL() << "no exception";
    } catch (const std::out_of_range& error) {
        EXPECT_NE(std::string(error.what()).find("basic_string::substr"), std::string::npos) << error.what();
    }
    EXPECT_EQ(machine.openStreams(), 2u);
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciV), 0);
    // The device read before the bad line is kept.
    EXPECT_EQ(inventoryOf(pci).size(), 1u);
}

TEST_F(PciInventoryTest, EmptyNLineThrowsOutOfRange)
{
    addLspci(machine, "\n", "00:00.0 \"A\" \"B\" \"C\"\n", "");
    EXPECT_THROW(pci.initPciUtil(), std::out_of_range);
    EXPECT_EQ(machine.openStreams(), 2u);
}

// --- parseN -----------------------------------------------------------------------------

TEST_F(PciInventoryTest, ParseNOldAndNewShapesGiveTheSameFields)
{
    pci_device old;
    pci_device current;
    pci.parseN("00:02.0 Class 0300: 8086:2572 (rev 02)", &old);
    pci.parseN("00:02.0 0300: 8086:2572 (rev 02)", &current);
    pci_device wanted = expected("00:02.0", "0300", 0x0300, 0, 2, 0, 0x8086, 0x2572, 2, 0, "", "", 0, "");
    EXPECT_EQ(describe(old), describe(wanted));
    EXPECT_EQ(describe(current), describe(wanted));
}

TEST_F(PciInventoryTest, ParseNStripsTheDomainOnTheClassShape)
{
    pci_device withDomain;
    pci_device without;
    pci.parseN("0000:00:1f.2 Class 0101: 8086:27c0 (rev 01)", &withDomain);
    pci.parseN("00:1f.2 Class 0101: 8086:27c0 (rev 01)", &without);
    pci_device wanted = expected("00:1f.2", "0101", 0x0101, 0, 31, 2, 0x8086, 0x27C0, 1, 0, "", "", 0, "");
    EXPECT_EQ(describe(withDomain), describe(wanted));
    EXPECT_EQ(describe(without), describe(wanted));
}

TEST_F(PciInventoryTest, ParseNDomainOnTheNewShapeComesOutWrong)
{
    // The second colon is the slot's own: start and slot end fall inside the
    // slot, and the two shapes are not made equal.
    pci_device d;
    pci.parseN("0000:00:02.0 0300: 8086:2572 (rev 02)", &d);
    pci_device wanted =
        expected("00:02.0 0300: 8086:2572 (rev 02)", "0", 0, 2, 0x8086, 0, 0, 2, 2, 0, "", "", 0, "");
    EXPECT_EQ(describe(d), describe(wanted));
}

TEST_F(PciInventoryTest, ParseNTakesClassZeroOnTheNewShapeForADomain)
{
    // "0000:" anywhere in the line counts as a domain: the class 0000 of an
    // unclassified device makes the slot text start at position 5.
    pci_device d;
    pci.parseN("00:02.0 0000: 8086:1234", &d);
    pci_device wanted = expected(".0", "0000", 0, 0, 0, 0, 0x8086, 0x1234, 0, 0, "", "", 0, "");
    EXPECT_EQ(describe(d), describe(wanted));
}

TEST_F(PciInventoryTest, ParseNWithoutRevisionReadsTheDeviceAndLeavesTheRevisionAlone)
{
    pci_device d;
    d.revision = 77;
    pci.parseN("00:01.0 0601: 8086:7000", &d);
    EXPECT_EQ(d.deviceId, 0x7000);
    EXPECT_EQ(d.vendorId, 0x8086);
    EXPECT_EQ(d.classCode, 0x0601);
    EXPECT_EQ(d.revision, 77);
}

TEST_F(PciInventoryTest, ParseNReadsTheRevisionAsDecimal)
{
    struct Case {
        const char* text;
        long revision;
    };
    for (const Case& c : {Case{"02", 2}, Case{"1a", 1}, Case{"a1", 0}, Case{"10", 10}, Case{"ff", 0}}) {
        pci_device d;
        pci.parseN(std::string("00:02.0 0300: 8086:2572 (rev ") + c.text + ")", &d);
        EXPECT_EQ(d.revision, c.revision) << c.text;
        EXPECT_EQ(d.deviceId, 0x2572) << c.text;
    }
}

TEST_F(PciInventoryTest, ParseNDeviceTextEndsAtAnROrAParenthesis)
{
    // "(" and "r" are a set of characters: a bare r ends the device text too.
    pci_device bare;
    pci.parseN("00:02.0 0300: 8086:2572 rev 07", &bare);
    EXPECT_EQ(bare.deviceId, 0x2572);
    EXPECT_EQ(bare.revision, 7);
    pci_device progIf;
    pci.parseN("00:1f.1 0101: 8086:24db (prog-if 8a)", &progIf);
    EXPECT_EQ(progIf.deviceId, 0x24DB);
    EXPECT_EQ(progIf.revision, 0); // the text behind "(pro" is g-if 8a
}

TEST_F(PciInventoryTest, ParseNStoresTheClassTextUntilParseMOverwritesIt)
{
    pci_device d;
    pci.parseN("00:02.0 0c03: 8086:24cd (rev 10)", &d);
    EXPECT_EQ(d.className, "0c03");
    EXPECT_EQ(d.classCode, 0x0C03);
    pci.parseM("00:02.0 \"USB controller\" \"Intel Corporation\" \"EHCI\" -r10 -p20 \"\" \"\"", &d);
    EXPECT_EQ(d.className, "USB controller");
    EXPECT_EQ(d.classCode, 0x0C03);
}

// --- parseM -----------------------------------------------------------------------------

TEST_F(PciInventoryTest, ParseMTakesTheFirstThreeQuotedFields)
{
    pci_device d;
    pci.parseM("00:07.0 \"RAID bus controller\" \"Broadcom / LSI\" \"MegaRAID SAS 1078\" -p00 \"Broadcom / LSI\" "
               "\"Device 1013\"",
               &d);
    EXPECT_EQ(d.className, "RAID bus controller");
    EXPECT_EQ(d.vendorName, "Broadcom / LSI");
    EXPECT_EQ(d.deviceName, "Broadcom / LSI MegaRAID SAS 1078");
    EXPECT_EQ(d.progIf, -1);
}

TEST_F(PciInventoryTest, ParseMProgrammingInterfaceOfUsbLines)
{
    struct Case {
        const char* line;
        int progIf;
    };
    const Case cases[] = {
        {"00:1d.0 \"USB controller\" \"Intel\" \"UHCI\" -p10 \"\" \"\"", 10},
        {"00:1d.7 \"USB controller\" \"Intel\" \"EHCI\" -r10 -p20 \"\" \"\"", 20},
        {"00:1d.7 \"USB controller\" \"Intel\" \"xHCI\" -p30 \"\" \"\"", 0},
        {"00:1d.0 \"USB controller\" \"Intel\" \"Both\" -p10 -p20 \"\" \"\"", 10},
        // The blanks around the word are part of it.
        {"00:1d.0 \"USB controller\" \"Intel\" \"Tight\" -p20\"\" \"\"", 0},
        // The test is on the whole line: a vendor with USB in its name counts.
        {"01:00.0 \"Serial controller\" \"USB Acme Inc.\" \"Thing\" -p02 \"\" \"\"", 0},
        {"01:00.0 \"Serial controller\" \"Acme Inc.\" \"Thing\" -p10 \"\" \"\"", -1},
    };
    for (const Case& c : cases) {
        pci_device d;
        pci.parseM(c.line, &d);
        EXPECT_EQ(d.progIf, c.progIf) << c.line;
    }
}

TEST_F(PciInventoryTest, ParseMLineWithFewerQuotesDoesNotThrow)
{
    pci_device d;
    EXPECT_NO_THROW(pci.parseM("00:00.0 \"Host bridge\"", &d));
    EXPECT_EQ(d.className, "Host bridge");
    pci_device none;
    EXPECT_NO_THROW(pci.parseM("", &none));
    EXPECT_EQ(none.deviceName, " ");
}

// --- parseBusDetails, parseIRQ, parseIOPortsAddr ----------------------------------------

TEST_F(PciInventoryTest, ParseBusDetailsReadsTwoHexadecimalDigitsBehindEachWord)
{
    int primary = -7, secondary = -7, subordinate = -7;
    pci.parseBusDetails("\tBus: primary=00, secondary=01, subordinate=01, sec-latency=0", primary, secondary,
                        subordinate);
    EXPECT_EQ(primary, 0);
    EXPECT_EQ(secondary, 1);
    EXPECT_EQ(subordinate, 1);
    pci.parseBusDetails("\tBus: primary=02, secondary=1a, subordinate=ff, sec-latency=32", primary, secondary,
                        subordinate);
    EXPECT_EQ(primary, 2);
    EXPECT_EQ(secondary, 26);
    EXPECT_EQ(subordinate, 255);
}

TEST_F(PciInventoryTest, ParseBusDetailsStopsAtTheFirstMissingWord)
{
    int primary = -7, secondary = -7, subordinate = -7;
    pci.parseBusDetails("\tBus: primary=03, subordinate=05", primary, secondary, subordinate);
    EXPECT_EQ(primary, 3);
    EXPECT_EQ(secondary, -7);
    EXPECT_EQ(subordinate, -7); // present, but behind the missing word
    int a = -7, b = -7, c = -7;
    pci.parseBusDetails("\tBus: secondary=01, subordinate=01", a, b, c);
    EXPECT_EQ(a, -7);
    EXPECT_EQ(b, -7);
    EXPECT_EQ(c, -7);
}

TEST_F(PciInventoryTest, ParseIrqReadsTheDecimalNumberBehindTheWord)
{
    EXPECT_EQ(pci.parseIRQ("\tFlags: bus master, fast devsel, latency 0, IRQ 11"), 11);
    EXPECT_EQ(pci.parseIRQ("\tFlags: bus master, fast devsel, latency 0, IRQ 16, IOMMU group 3"), 16);
    EXPECT_EQ(pci.parseIRQ("\tInterrupt: pin A routed to IRQ 10"), 10);
    EXPECT_EQ(pci.parseIRQ("\tFlags: fast devsel"), 0);
    EXPECT_EQ(pci.parseIRQ("\tFlags: IRQ 0a"), 0);
    // Nothing behind the word: 0.
    EXPECT_EQ(pci.parseIRQ("\tFlags: IRQ"), 0);
    EXPECT_EQ(pci.parseIRQ("\tFlags: IRQ "), 0);
}

TEST_F(PciInventoryTest, ParseIoPortsAddrTakesTheTextUpToTheBracket)
{
    EXPECT_EQ(pci.parseIOPortsAddr("\tI/O ports at d2a0 [size=16]"), "d2a0");
    EXPECT_EQ(pci.parseIOPortsAddr("\tI/O ports at 03f4"), "03f4");
    EXPECT_EQ(pci.parseIOPortsAddr("\tI/O ports at 1000 [disabled] [size=128]"), "1000");
}

// --- Selection queries --------------------------------------------------------------------

TEST_F(PciInventoryTest, HiddenDeviceIdsAreInNoSelectionWhateverTheVendor)
{
    read(kSelectionN, kSelectionM, kSelectionV);
    ASSERT_EQ(inventoryOf(pci).size(), 9u);
    EXPECT_EQ(pci.getNumofDeviceWithClass(0x0101), 1);
    int bus = -1, device = -1, function = -1;
    ASSERT_EQ(pci.getPCIBusDevFunction(0, bus, device, function), 1);
    EXPECT_EQ(device, 1);
    EXPECT_EQ(function, 1);
    for (unsigned short classCode : {0x0101, 0x0780, 0x0703, 0x0401, 0x0000}) {
        int count = pci.getNumofDeviceWithClass(classCode);
        for (int i = 0; i < count; ++i) {
            int deviceId = 0, vendorId = 0;
            pci.getDeviceIdVendorId(i, deviceId, vendorId);
            EXPECT_NE(deviceId, 0x27C0);
            EXPECT_NE(deviceId, 0x24D1);
            EXPECT_NE(deviceId, 0x1D3A);
            EXPECT_NE(deviceId, 0x1D3B);
        }
    }
}

TEST_F(PciInventoryTest, HiddenDeviceIsInTheWholeInventoryAndHasAName)
{
    read(kSelectionN, kSelectionM, kSelectionV);
    std::vector<pci_device> all = inventoryOf(pci);
    ASSERT_EQ(all.size(), 9u);
    EXPECT_EQ(all[3].deviceId, 0x24D1);
    EXPECT_EQ(pci.getDeviceName(0x8086, 0x24D1), "Intel Corporation 82801EB/ER IDE");
    EXPECT_EQ(pci.getDeviceName(0x10B9, 0x1D3B), "ULi Electronics Inc. Hidden modem");
}

TEST_F(PciInventoryTest, Selecting0780GivesCommunicationControllersAndModemsInInventoryOrder)
{
    read(kSelectionN, kSelectionM, kSelectionV);
    ASSERT_EQ(pci.getNumofDeviceWithClass(0x0780), 3);
    std::vector<std::string> slots;
    for (int i = 0; i < 3; ++i) {
        slots.push_back(pci.getDevAttribute(i, PCIUtil::PCI_ATTR_BUS_DEV_FN));
    }
    std::vector<std::string> wanted = {"00:1e.3", "00:16.1", "02:04.0"};
    EXPECT_EQ(slots, wanted);
}

TEST_F(PciInventoryTest, Selecting0703GivesOnlyTheModems)
{
    read(kSelectionN, kSelectionM, kSelectionV);
    ASSERT_EQ(pci.getNumofDeviceWithClass(0x0703), 2);
    EXPECT_EQ(pci.getDevAttribute(0, PCIUtil::PCI_ATTR_BUS_DEV_FN), "00:1e.3");
    EXPECT_EQ(pci.getDevAttribute(1, PCIUtil::PCI_ATTR_BUS_DEV_FN), "02:04.0");
}

TEST_F(PciInventoryTest, EachSelectionReplacesTheLast)
{
    readLabServer();
    EXPECT_EQ(pci.getNumofDeviceWithClass(0x0200), 3);
    EXPECT_EQ(pci.getDevAttribute(2, PCIUtil::PCI_ATTR_BUS_DEV_FN), "01:01.0");
    EXPECT_EQ(pci.getNumofDeviceWithClass(0x0C03), 2);
    EXPECT_EQ(pci.getDevAttribute(2, PCIUtil::PCI_ATTR_BUS_DEV_FN), "");
    EXPECT_EQ(pci.getDevAttribute(0, PCIUtil::PCI_ATTR_BUS_DEV_FN), "00:01.2");
    EXPECT_EQ(pci.getNumofDeviceWithClass(0x0999), 0);
    EXPECT_EQ(pci.getDevAttribute(0, PCIUtil::PCI_ATTR_BUS_DEV_FN), "");
}

TEST_F(PciInventoryTest, GetDevAttributeForEveryAttribute)
{
    read(kSelectionN, kSelectionM, kSelectionV);
    ASSERT_EQ(pci.getNumofDeviceWithClass(0x0703), 2);
    const int index = 1;
    EXPECT_EQ(pci.getDevAttribute(index, PCIUtil::PCI_ATTR_NAME), "ULi Electronics Inc. M5457 AC'97 Modem");
    EXPECT_EQ(pci.getDevAttribute(index, PCIUtil::PCI_ATTR_LOCATION), "PCI Bus 2, Device 4, Function 0");
    EXPECT_EQ(pci.getDevAttribute(index, PCIUtil::PCI_ATTR_PARENT_LOCATION), "System Board!PCI Bus 2");
    EXPECT_EQ(pci.getDevAttribute(index, PCIUtil::PCI_ATTR_VENDOR), "ULi Electronics Inc.");
    EXPECT_EQ(pci.getDevAttribute(index, PCIUtil::PCI_ATTR_CLASS), "Modem");
    EXPECT_EQ(pci.getDevAttribute(index, PCIUtil::PCI_ATTR_NONE), "");
    EXPECT_EQ(pci.getDevAttribute(index, PCIUtil::PCI_ATTR_IO_PORTS), "1080");
    EXPECT_EQ(pci.getDevAttribute(index, PCIUtil::PCI_ATTR_BUS_DEV_FN), "02:04.0");
    // Above 7: the empty text.
    EXPECT_EQ(pci.getDevAttribute(index, HeldAttribute(8).value), "");
    EXPECT_EQ(pci.getDevAttribute(index, HeldAttribute(-1).value), "");
    EXPECT_EQ(pci.getDevAttribute(0, PCIUtil::PCI_ATTR_LOCATION), "PCI Bus 0, Device 30, Function 3");
    EXPECT_EQ(pci.getDevAttribute(0, PCIUtil::PCI_ATTR_IO_PORTS), "e000");
}

TEST_F(PciInventoryTest, GetDevAttributeNoneIsEmptyForEveryIndexAndTheSizeToo)
{
    readLabServer();
    int count = pci.getNumofDeviceWithClass(0x0200);
    ASSERT_EQ(count, 3);
    for (int i = 0; i <= count; ++i) {
        EXPECT_EQ(pci.getDevAttribute(i, PCIUtil::PCI_ATTR_NONE), "") << i;
    }
    for (int attribute = 0; attribute <= 8; ++attribute) {
        EXPECT_EQ(pci.getDevAttribute(count, HeldAttribute(attribute).value), "") << attribute;
        EXPECT_EQ(pci.getDevAttribute(-1, HeldAttribute(attribute).value), "") << attribute;
    }
}

TEST_F(PciInventoryTest, IndexQueriesRefuseOnlyAnIndexAboveTheSize)
{
    readLabServer();
    ASSERT_EQ(pci.getNumofDeviceWithClass(0x0200), 3);
    int deviceId = -5, vendorId = -5;
    EXPECT_EQ(pci.getDeviceIdVendorId(2, deviceId, vendorId), 1);
    EXPECT_EQ(deviceId, 0x100E);
    EXPECT_EQ(vendorId, 0x8086);
    int bus = -5, device = -5, function = -5;
    EXPECT_EQ(pci.getPCIBusDevFunction(2, bus, device, function), 1);
    EXPECT_EQ(bus, 1);
    EXPECT_EQ(device, 1);
    EXPECT_EQ(function, 0);

    // The size itself passes the check; the outputs keep their values.
    deviceId = vendorId = bus = device = function = -5;
    EXPECT_EQ(pci.getDeviceIdVendorId(3, deviceId, vendorId), 1);
    EXPECT_EQ(pci.getPCIBusDevFunction(3, bus, device, function), 1);
    EXPECT_EQ(deviceId, -5);
    EXPECT_EQ(vendorId, -5);
    EXPECT_EQ(bus, -5);
    EXPECT_EQ(device, -5);
    EXPECT_EQ(function, -5);

    // Above the size, and negative: 0, outputs untouched.
    EXPECT_EQ(pci.getDeviceIdVendorId(4, deviceId, vendorId), 0);
    EXPECT_EQ(pci.getDeviceIdVendorId(-1, deviceId, vendorId), 0);
    EXPECT_EQ(pci.getPCIBusDevFunction(4, bus, device, function), 0);
    EXPECT_EQ(pci.getPCIBusDevFunction(-1, bus, device, function), 0);
    EXPECT_EQ(deviceId, -5);
    EXPECT_EQ(vendorId, -5);
    EXPECT_EQ(bus, -5);
}

TEST_F(PciInventoryTest, GetProgIntfaceOfTheSelection)
{
    readLabServer();
    ASSERT_EQ(pci.getNumofDeviceWithClass(0x0C03), 2);
    EXPECT_EQ(pci.getProgIntface(0), 0);
    EXPECT_EQ(pci.getProgIntface(1), 20);
    ASSERT_EQ(pci.getNumofDeviceWithClass(0x0200), 3);
    EXPECT_EQ(pci.getProgIntface(0), -1);
}

TEST_F(PciInventoryTest, GetDeviceNameGivesTheFirstOfTheModel)
{
    std::vector<pci_device> devices =
        read("00:02.0 0200: 8086:100e\n00:03.0 0200: 8086:100e\n",
             "00:02.0 \"Ethernet controller\" \"Intel\" \"First\"\n00:03.0 \"Ethernet controller\" \"Intel\" \"Second\"\n",
             "");
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[1].deviceName, "Intel Second");
    EXPECT_EQ(pci.getDeviceName(0x8086, 0x100E), "Intel First");
    EXPECT_EQ(pci.getDeviceName(0x8086, 0x100F), "");
    EXPECT_EQ(pci.getDeviceName(0x100E, 0x8086), "");
}

TEST_F(PciInventoryTest, GetAllPciDevicesReplacesWhatTheVectorHeld)
{
    readLabServer();
    std::vector<pci_device> devices(40);
    pci.getAllPCIDevices(devices);
    EXPECT_EQ(devices.size(), 12u);
    // A copy: changing it leaves the inventory alone.
    devices[0].deviceName = "changed";
    EXPECT_EQ(inventoryOf(pci)[0].deviceName, "Intel Corporation 440FX - 82441FX PMC [Natoma]");
}

TEST_F(PciInventoryTest, SelectionIsACopyIndependentOfTheInventory)
{
    readLabServer();
    ASSERT_EQ(pci.getNumofDeviceWithClass(0x0604), 1);
    std::vector<pci_device> devices;
    pci.getAllPCIDevices(devices);
    EXPECT_EQ(pci.getDevAttribute(0, PCIUtil::PCI_ATTR_NAME), devices[9].deviceName);
    EXPECT_EQ(pci.getDevAttribute(0, PCIUtil::PCI_ATTR_LOCATION), "PCI Bus 0, Device 6, Function 0");
}

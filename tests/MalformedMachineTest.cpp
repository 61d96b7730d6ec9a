// Malformed machines, one row each: missing and broken tools, odd tool output,
// an empty /dev/, unreadable or empty firmware areas, broken SMBIOS tables,
// modems that flood or never stop, broken or missing sysfs trees, floppy,
// disk and optical nodes that are no such thing, identity blocks and INQUIRY
// data cut short or without end, and machine directories whose includes go
// round or lead nowhere. Each row runs the finders it concerns (
// through the facade where the inventory matters) and states what they return,
// which exception (if any) reaches the caller, and which descriptors, streams
// and mappings are still open afterwards. Under the sanitizers each row also
// shows that nothing read out of bounds.
#include "finders/CDDVDDeviceFinder.h"
#include "finders/FloppyDeviceFinder.h"
#include "finders/MemoryDeviceFinder.h"
#include "finders/ModemDeviceFinder.h"
#include "finders/NetworkDeviceFinder.h"
#include "finders/PCIDeviceFinder.h"
#include "finders/ParallelPortFinder.h"
#include "finders/SerialPortFinder.h"
#include "frame/CWmiInfo.h"
#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/models/Models.h"
#include "platform/smbios/SmbiosException.h"
#include "platform/smbios/SmbiosFactory.h"
#include "probes/CSysfsReader.h"
#include "probes/LinuxUtils.h"
#include "probes/PCIUtil.h"
#include "probes/SCSIGeneric.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"
#include "tests/support/Modems.h"
#include "tests/support/OpticalDrives.h"
#include "tests/support/PciLines.h"
#include "tests/support/SysfsTree.h"
#include "tests/support/ScsiNodes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <linux/fd.h>
#include <scsi/sg.h>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::field;
using ostrand_test::fields;
using ostrand_test::SmbiosBuilder;

namespace {

using Fields = std::vector<std::string>;

const char* const kEntryPointFile = "/sys/firmware/dmi/tables/smbios_entry_point";
const char* const kTableFile = "/sys/firmware/dmi/tables/DMI";

// The records of one enumeration through the facade, copied out of it.
std::vector<IWbemClassObject> enumerate(IDeviceFinder& finder)
{
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    info->getEnumerateDeviceHandle(&finder);
    std::vector<IWbemClassObject> records;
    IWbemClassObject* record = nullptr;
    while (info->Next(0, 0, record) != 0) {
        records.push_back(*record);
    }
    return records;
}

// The same without the facade, for the finders that need no inventory.
std::vector<IWbemClassObject> direct(IDeviceFinder& finder)
{
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(nullptr, records);
    return records;
}

std::vector<pci_device> inventory()
{
    PCIUtil pci;
    pci.initPciUtil();
    std::vector<pci_device> devices;
    pci.getAllPCIDevices(devices);
    return devices;
}

Fields pciBus(int bus)
{
    std::string n = std::to_string(bus);
    return {"PCI_BUS_" + n, "", "", "PCI_BUS_DEV_DESC", "PCI Bus " + n, "PCI Bus " + n, "System Board", "PCI_BUS",
            "", "", "", "", ""};
}

Fields serialPlaceholder(int number, const std::string& key)
{
    std::string n = std::to_string(number);
    return {"SERIAL_PORT_" + n, "", "", key, "Serial Port " + n, "Serial Port " + n, "System Board!ISA Bus", "", "", "",
            "", "", "Communication Port"};
}

// A board with two serial connectors of port type 9 and one parallel of type 5.
SmbiosBuilder twoSerialOneParallel()
{
    SmbiosBuilder smbios;
    smbios.system("Lab Board").port(0, 9).port(0, 9).port(0, 5);
    return smbios;
}

// Two populated memory slots behind the system structure.
SmbiosBuilder twoModules()
{
    SmbiosBuilder smbios;
    smbios.system("Lab Board").memory(2048, "DIMM_A1", "BANK 0").memory(0x8200, "DIMM_A2", "BANK 1");
    return smbios;
}

// A board with an ISA bridge and a USB controller, and the floppy finder's
// records on it.
std::vector<IWbemClassObject> floppies()
{
    PCIUtil pci;
    pci.initPciUtil();
    FloppyDeviceFinder finder;
    std::vector<IWbemClassObject> records;
    finder.getAllObjects(&pci, records);
    return records;
}

void floppyBoard(host::FakeMachine& machine)
{
    ostrand_test::addPciLines(
        machine, {{"00:01.0", "0601", "8086", "7000", "ISA bridge", "Intel Corporation", "PIIX3 ISA"},
                  {"00:1d.7", "0c03", "8086", "24cd", "USB controller", "Intel Corporation", "EHCI"}});
}

// Installs a table (as it is, perhaps broken) with a 3.x entry point, which
// has no structure count: the bytes alone decide where the walk ends.
void installTable(host::FakeMachine& machine, const SmbiosBuilder& builder, const std::string& table)
{
    machine.addFile(kEntryPointFile, builder.entryPoint30(0));
    machine.addFile(kTableFile, table);
}

// A serial port whose modem never stops talking: every read delivers a full
// buffer of noise without "OK" and costs 50 ms of the machine's time.
class ChatteringSerial : public host::SerialModel {
public:
    ChatteringSerial() : SerialModel(4, 0x3F8, 4) {}
    ssize_t read(host::FakeMachine& machine, char* buffer, size_t count, off_t) override
    {
        machine.clock().advance(50000);
        for (size_t i = 0; i < count; ++i) {
            buffer[i] = "noise\r\n"[i % 7];
        }
        ++reads;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(host::FakeMachine&, const char*, size_t count, off_t) override { return static_cast<ssize_t>(count); }
    int reads = 0;
};

// The sysfs tree of a row, kept until the row is done.
std::unique_ptr<ostrand_test::SysfsTree> g_sysfs;

ostrand_test::SysfsTree& sysfsOf(host::FakeMachine& machine)
{
    g_sysfs = std::make_unique<ostrand_test::SysfsTree>();
    machine.setSysfs(g_sysfs->root());
    return *g_sysfs;
}

// A folder of machine directories for a row: `files` maps paths relative to
// it to their text. Gives the folder.
std::string machineFolders(const std::vector<std::pair<std::string, std::string>>& files)
{
    g_sysfs = std::make_unique<ostrand_test::SysfsTree>();
    for (const auto& file : files) {
        g_sysfs->file(file.first, file.second);
    }
    return g_sysfs->root();
}

// The message of the error that loading a machine directory throws.
std::string loadError(const std::string& directory)
{
    try {
        host::loadMachine(directory);
    } catch (const host::MachineDirectoryError& e) {
        return e.what();
    }
    return "<loaded>";
}

struct Row {
    const char* name;
    std::function<void(host::FakeMachine&)> build;
    std::function<void(host::FakeMachine&)> check;
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class MalformedMachineTest : public ::testing::TestWithParam<Row> {
protected:
    void SetUp() override { smbios::SmbiosFactory::reset(); }
    void TearDown() override
    {
        g_sysfs.reset();
        if (CWmiInfo::_CWmiInfoInstance != nullptr) {
            CWmiInfo::_CWmiInfoInstance->freeEnumerateDeviceHandle();
        }
        smbios::SmbiosFactory::reset();
    }
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
};

TEST_P(MalformedMachineTest, GivesWhatItShouldAndCrashesNot)
{
    GetParam().build(machine);
    GetParam().check(machine);
}

const Row kRows[] = {
    {"NoLspciAtAll",
     // No command is known: the shell's complaint comes on each pipe.
     [](host::FakeMachine&) {},
     [](host::FakeMachine& machine) {
         PCIDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         // The complaint is one device: its class reads as 0 and its bus as 0.
         ASSERT_EQ(records.size(), 1u);
         EXPECT_EQ(fields(records[0]), pciBus(0));
         EXPECT_EQ(machine.timesRun(ostrand_test::kLspciN), 1);
         EXPECT_EQ(machine.timesRun(ostrand_test::kLspciM), 1);
         EXPECT_EQ(machine.timesRun(ostrand_test::kLspciV), 1);
         std::vector<pci_device> devices = inventory();
         ASSERT_EQ(devices.size(), 1u);
         const std::string complaint = "sh: /sbin/lspci: command not found";
         EXPECT_EQ(devices[0].busDevFn, "sh: /sbin/");
         EXPECT_EQ(devices[0].className, complaint);
         EXPECT_EQ(devices[0].vendorName, complaint);
         EXPECT_EQ(devices[0].deviceName, complaint + " " + complaint);
         EXPECT_EQ(devices[0].classCode, 0);
         EXPECT_EQ(devices[0].progIf, -1);
         EXPECT_EQ(devices[0].irq, 0);
         EXPECT_EQ(machine.openStreams(), 0u);
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"ToolsPrintNothing",
     [](host::FakeMachine& machine) { ostrand_test::addLspci(machine, "", "", ""); },
     [](host::FakeMachine& machine) {
         PCIDeviceFinder pciFinder;
         EXPECT_TRUE(enumerate(pciFinder).empty());
         NetworkDeviceFinder network;
         EXPECT_TRUE(enumerate(network).empty());
         EXPECT_TRUE(inventory().empty());
         EXPECT_EQ(machine.openStreams(), 0u);
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"DashComplaintIsOneDevice",
     [](host::FakeMachine& machine) {
         const std::string complaint = "sh: 1: /sbin/lspci: not found\n";
         ostrand_test::addLspci(machine, complaint, complaint, complaint);
     },
     [](host::FakeMachine& machine) {
         PCIDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         ASSERT_EQ(records.size(), 1u);
         EXPECT_EQ(fields(records[0]), pciBus(0));
         std::vector<pci_device> devices = inventory();
         ASSERT_EQ(devices.size(), 1u);
         // The second colon is the one behind "1": the slot is empty, the
         // "vendor" is the 1.
         EXPECT_EQ(devices[0].busDevFn, "");
         EXPECT_EQ(devices[0].vendorId, 1);
         EXPECT_EQ(devices[0].deviceId, 0);
         EXPECT_EQ(devices[0].className, "sh: 1: /sbin/lspci: not found");
         EXPECT_EQ(machine.openStreams(), 0u);
     }},

    {"ComplaintWithoutColonThrowsOutOfRangeAndLeavesBothPipesOpen",
     [](host::FakeMachine& machine) { ostrand_test::addLspci(machine, "Killed\n", "Killed\n", "Killed\n"); },
     [](host::FakeMachine& machine) {
         try {
             CWmiInfo::getCWMIInfoInstance();
             FAIL() << "no exception";
         } catch (const std::out_of_range& e) {
             // The library's text begins with these words and goes on with the positions.
             EXPECT_EQ(std::string(e.what()).rfind("basic_string::substr", 0), 0u) << e.what();
         }
         EXPECT_EQ(CWmiInfo::_CWmiInfoInstance, nullptr);
         // The -n and -m pipes stay open; the -v pass never ran.
         EXPECT_EQ(machine.openStreams(), 2u);
         EXPECT_EQ(machine.timesRun(ostrand_test::kLspciV), 0);
         // The next call starts over.
         ostrand_test::addLspci(machine, "", "", "");
         PCIDeviceFinder finder;
         EXPECT_TRUE(enumerate(finder).empty());
         EXPECT_EQ(machine.timesRun(ostrand_test::kLspciN), 2);
         EXPECT_EQ(machine.openStreams(), 2u);
     }},

    {"TruncatedLines",
     [](host::FakeMachine& machine) {
         ostrand_test::addLspci(machine, "00:1f.2 0101: 80\n", "00:1f.2 \"IDE inter\n",
                                "00:1f.2 IDE\n\tFlags: bus master, IRQ\n\tI/O ports at d0\n\tBus: primary=0\n");
     },
     [](host::FakeMachine& machine) {
         std::vector<pci_device> devices = inventory();
         ASSERT_EQ(devices.size(), 1u);
         EXPECT_EQ(devices[0].busDevFn, "00:1f.2");
         EXPECT_EQ(devices[0].classCode, 0x0101);
         EXPECT_EQ(devices[0].vendorId, 0x80);
         // No "(" or "r": the device text runs from behind the cut-off
         // vendor's colon, which is none, so from the start: 00 gives 0.
         EXPECT_EQ(devices[0].deviceId, 0);
         // One quote: every later search starts over at the beginning.
         EXPECT_EQ(devices[0].className, "IDE inter");
         EXPECT_EQ(devices[0].vendorName, "IDE inter");
         EXPECT_EQ(devices[0].deviceName, "IDE inter IDE inter");
         EXPECT_EQ(devices[0].irq, 0);
         EXPECT_EQ(devices[0].ioPortsAddr, "d0");
         EXPECT_EQ(devices[0].primaryBus, 0);

         PCIDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         ASSERT_EQ(records.size(), 2u);
         EXPECT_EQ(fields(records[0]),
                   (Fields{"IDE_BUS_CONTROLLER_NAME", "", "", "IDE inter IDE inter", "PCI Bus 0, Device 31, Function 2",
                           "PCI Bus 0, Device 31, Function 2", "System Board!PCI Bus 0", "IDE_BUS_CONTROLLER", "", "",
                           "", "", ""}));
         EXPECT_EQ(fields(records[1]), pciBus(0));
         EXPECT_EQ(machine.openStreams(), 0u);
     }},

    {"OversizedLines",
     [](host::FakeMachine& machine) {
         std::string longName(280, 'X');
         ostrand_test::addLspci(machine, "00:00.0 0600: 8086:1237 (rev 02)\n00:01.2 0c03: 8086:7020 (rev 01)\n",
                                "00:00.0 \"Host bridge\" \"Vendor\" \"" + longName +
                                    "\"\n00:01.2 \"USB controller\" \"Intel\" \"UHCI\" -p00\n",
                                "00:00.0 Host bridge\n\tFlags: IRQ 5 " + std::string(260, 'y') +
                                    "\n\tFlags: IRQ 6\n00:01.2 USB\n\tFlags: IRQ 11\n");
     },
     [](host::FakeMachine& machine) {
         std::vector<pci_device> devices = inventory();
         // The -m line of 300 characters comes in two pieces: the second
         // piece is paired with the second -n line, and the -n text ends first.
         ASSERT_EQ(devices.size(), 2u);
         EXPECT_EQ(devices[0].className, "Host bridge");
         EXPECT_EQ(devices[0].vendorName, "Vendor");
         // 255 bytes arrive, of which the last is cut as if it were the newline.
         const size_t nameStart = std::string("00:00.0 \"Host bridge\" \"Vendor\" \"").size();
         EXPECT_EQ(devices[0].deviceName, "Vendor " + std::string(254 - nameStart, 'X'));
         EXPECT_EQ(devices[1].busDevFn, "00:01.2");
         EXPECT_EQ(devices[1].classCode, 0x0C03);
         EXPECT_EQ(devices[1].className, "");
         EXPECT_EQ(devices[1].deviceName, " ");
         EXPECT_EQ(devices[1].progIf, -1);
         // The long -v line's second piece counts as the next header: the
         // IRQ 6 line goes to the second device, and the real second header
         // moves the pointer past the inventory, where IRQ 11 is dropped.
         EXPECT_EQ(devices[0].irq, 5);
         EXPECT_EQ(devices[1].irq, 6);

         PCIDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         ASSERT_EQ(records.size(), 2u);
         EXPECT_EQ(fields(records[0]), pciBus(0));
         EXPECT_EQ(field(records[1], "DeviceName"), "USB_BUS_CONTROLLER_NAME");
         EXPECT_EQ(field(records[1], "DeviceDescription"), " ");
         EXPECT_EQ(machine.openStreams(), 0u);
     }},

    {"MoreVerboseBlocksThanInventory",
     [](host::FakeMachine& machine) {
         std::string v;
         for (int i = 0; i < 300; ++i) {
             v += "00:0" + std::to_string(i % 10) + ".0 Device\n\tFlags: IRQ " + std::to_string(i + 1) +
                  "\n\tBus: primary=0" + std::to_string(i % 10) + ", secondary=07, subordinate=09\n\n";
         }
         ostrand_test::addLspci(machine, "00:01.2 0c03: 8086:7020 (rev 01)\n",
                                "00:01.2 \"USB controller\" \"Intel\" \"UHCI\" -p00\n", v);
     },
     [](host::FakeMachine& machine) {
         std::vector<pci_device> devices = inventory();
         ASSERT_EQ(devices.size(), 1u);
         EXPECT_EQ(devices[0].irq, 1);
         EXPECT_EQ(devices[0].primaryBus, 0);
         EXPECT_EQ(devices[0].secondaryBus, 7);
         EXPECT_EQ(devices[0].subordinateBus, 9);
         PCIDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         ASSERT_EQ(records.size(), 2u);
         EXPECT_EQ(field(records[0], "DeviceName"), "USB_BUS_CONTROLLER_NAME");
         EXPECT_EQ(fields(records[1]), pciBus(0));
         EXPECT_EQ(machine.openStreams(), 0u);
     }},

    {"VerboseTextWithEmptyInventory",
     [](host::FakeMachine& machine) {
         ostrand_test::addLspci(machine, "", "", ostrand_test::capture("lab-server/lspci-v.txt"));
     },
     [](host::FakeMachine& machine) {
         EXPECT_TRUE(inventory().empty());
         PCIDeviceFinder finder;
         EXPECT_TRUE(enumerate(finder).empty());
         EXPECT_EQ(machine.openStreams(), 0u);
     }},

    {"ThreeHundredBuses",
     // Bus numbers from text are any number: more distinct ones than the
     // finder's list holds.
     [](host::FakeMachine& machine) {
         std::string n;
         std::string m;
         for (int bus = 0; bus < 300; ++bus) {
             char slot[16];
             std::snprintf(slot, sizeof slot, "%x:00.0", bus);
             n += std::string(slot) + " 0200: 8086:100e (rev 03)\n";
             m += std::string(slot) + " \"Ethernet controller\" \"Intel\" \"E1000\"\n";
         }
         ostrand_test::addLspci(machine, n, m, "");
     },
     [](host::FakeMachine& machine) {
         PCIDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         ASSERT_EQ(records.size(), 300u);
         EXPECT_EQ(fields(records[0]), pciBus(0));
         EXPECT_EQ(fields(records[254]), pciBus(254));
         EXPECT_EQ(fields(records[299]), pciBus(299));
         EXPECT_EQ(machine.openStreams(), 0u);
     }},

    {"EmptyDev",
     [](host::FakeMachine& machine) {
         ostrand_test::addLabServerLspci(machine);
         twoSerialOneParallel().installSysfs(machine);
     },
     [](host::FakeMachine& machine) {
         SerialPortFinder serial;
         std::vector<IWbemClassObject> records = enumerate(serial);
         ASSERT_EQ(records.size(), 2u);
         EXPECT_EQ(fields(records[0]), serialPlaceholder(0, "SERIAL_PORT_DESC3"));
         EXPECT_EQ(fields(records[1]), serialPlaceholder(1, "SERIAL_PORT_DESC3"));
         EXPECT_EQ(records[0].getValue(), 1);
         EXPECT_EQ(records[1].getValue(), 1);

         ParallelPortFinder parallel;
         records = enumerate(parallel);
         ASSERT_EQ(records.size(), 1u);
         EXPECT_EQ(fields(records[0]),
                   (Fields{"PARALLEL_PORT_0", "", "/dev/lp0", "PARALLEL_PORT_DESC4", "Parallel Port 0",
                           "Parallel Port 0", "System Board!ISA Bus", "", "", "", "", "", "Embedded"}));

         ModemDeviceFinder modem;
         EXPECT_TRUE(enumerate(modem).empty());
         // Only the pause after the port search: no port was spoken to.
         ASSERT_EQ(machine.sleeps().size(), 1u);
         EXPECT_EQ(machine.sleeps()[0].microseconds, 2000000);
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.openMappings(), 0u);
     }},

    {"FortySerialConnectorsAndEmptyDev",
     [](host::FakeMachine& machine) {
         SmbiosBuilder smbios;
         smbios.system("Lab Board");
         for (int i = 0; i < 40; ++i) {
             smbios.port(0, 6);
         }
         smbios.installSysfs(machine);
     },
     [](host::FakeMachine& machine) {
         SerialPortFinder serial;
         std::vector<IWbemClassObject> records = direct(serial);
         // The placeholders end with the 32 node numbers that were tried.
         ASSERT_EQ(records.size(), 32u);
         EXPECT_EQ(fields(records[0]), serialPlaceholder(0, "SERIAL_PORT_DESC0"));
         EXPECT_EQ(fields(records[31]), serialPlaceholder(31, "SERIAL_PORT_DESC0"));
         size_t nodeOpens = 0;
         for (const std::string& path : machine.opens()) {
             nodeOpens += path.rfind("/dev/ttyS", 0) == 0 ? 1 : 0;
         }
         EXPECT_EQ(nodeOpens, 32u);
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"UnreadableDevMemWithSysfsTable",
     [](host::FakeMachine& machine) {
         ostrand_test::addLabServerLspci(machine);
         twoSerialOneParallel().installSysfs(machine);
         machine.denyOpen("/dev/mem", EACCES);
     },
     [](host::FakeMachine& machine) {
         NetworkDeviceFinder network;
         std::vector<IWbemClassObject> records = enumerate(network);
         ASSERT_EQ(records.size(), 3u);
         for (auto& record : records) {
             EXPECT_EQ(field(record, "DeviceName"), "Intel Corporation 82540EM Gigabit Ethernet Controller");
             EXPECT_EQ(field(record, "DeviceAdditionalHWInfo"), "");
         }
         EXPECT_EQ(field(records[2], "DeviceLocation"), "PCI Bus 1, Device 1, Function 0");
         SerialPortFinder serial;
         EXPECT_EQ(enumerate(serial).size(), 2u);
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.openMappings(), 0u);
     }},

    {"NoSmbiosAnywhereAndUnreadableDevMem",
     [](host::FakeMachine& machine) {
         ostrand_test::addLspci(machine, "", "", "");
         machine.denyOpen("/dev/mem", EACCES);
     },
     [](host::FakeMachine& machine) {
         // The table cannot be had: the interface's exception reaches the caller.
         MemoryDeviceFinder memory;
         EXPECT_THROW(enumerate(memory), smbios::SmbiosException);
         SerialPortFinder serial;
         EXPECT_THROW(enumerate(serial), smbios::SmbiosException);
         ParallelPortFinder parallel;
         EXPECT_THROW(enumerate(parallel), smbios::SmbiosException);
         ModemDeviceFinder modem;
         EXPECT_THROW(enumerate(modem), smbios::SmbiosException);
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.openMappings(), 0u);
     }},

    {"NoPirTable",
     [](host::FakeMachine& machine) {
         ostrand_test::addLabServerLspci(machine);
         // Physical memory that reads as zeros everywhere.
         machine.addNode("/dev/mem", 'c', std::make_shared<host::MemoryModel>());
     },
     [](host::FakeMachine& machine) {
         NetworkDeviceFinder network;
         std::vector<IWbemClassObject> records = enumerate(network);
         ASSERT_EQ(records.size(), 3u);
         for (auto& record : records) {
             EXPECT_EQ(field(record, "DeviceAdditionalHWInfo"), "");
         }
         LinuxUtils utils;
         EXPECT_EQ(utils.getSlotInfo(0, 2), "");
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.openMappings(), 0u);
     }},

    {"PirTableCutByTheEndOfTheArea",
     [](host::FakeMachine& machine) {
         // The table's last place in the area, with a size field that claims
         // many entries beyond it.
         ostrand_test::PirBuilder pir;
         pir.entry(0, 2, 1).entry(0, 3, 2);
         std::string area = pir.area(0xFFE0);
         area[0xFFE0 + 6] = static_cast<char>(0xFF);
         area[0xFFE0 + 7] = static_cast<char>(0x7F);
         auto memory = std::make_shared<host::MemoryModel>();
         memory->place(0xF0000, area.substr(0, 0x10000));
         machine.addNode("/dev/mem", 'c', memory);
     },
     [](host::FakeMachine& machine) {
         LinuxUtils utils;
         // Only the header fits: no entry is read.
         EXPECT_EQ(utils.getSlotInfo(0, 2), "");
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.openMappings(), 0u);
     }},

    {"TruncatedSmbiosTable",
     [](host::FakeMachine& machine) {
         SmbiosBuilder smbios = twoModules();
         std::string table = smbios.table();
         // Cut inside the strings of the second memory structure.
         size_t second = table.find("DIMM_A2");
         ASSERT_NE(second, std::string::npos);
         installTable(machine, smbios, table.substr(0, second + 3));
     },
     [](host::FakeMachine& machine) {
         MemoryDeviceFinder memory;
         std::vector<IWbemClassObject> records = direct(memory);
         ASSERT_EQ(records.size(), 1u);
         EXPECT_EQ(fields(records[0]),
                   (Fields{"Memory Device 0", "DIMMDevice", "", "MEM_DIMM_DEV_DESC", "Memory Device 0", "Memory Device 0",
                           "System Board!Memory", "MEMORY_DIMM", "", "", "", "", "BANK 0 DIMM_A1 : 2048 MB"}));
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"SmbiosStructureWithLengthBelowItsHeader",
     [](host::FakeMachine& machine) {
         SmbiosBuilder smbios;
         smbios.system("Lab Board").memory(2048, "DIMM_A1", "BANK 0");
         smbios.raw(std::string("\x11\x02\x30\x00\x00\x00", 6));
         smbios.memory(1024, "DIMM_A2", "BANK 1").port(0, 9);
         smbios.installSysfs(machine, 3);
     },
     [](host::FakeMachine& machine) {
         MemoryDeviceFinder memory;
         std::vector<IWbemClassObject> records = direct(memory);
         // The walk ends at the broken structure: what lies behind is lost.
         ASSERT_EQ(records.size(), 1u);
         EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "BANK 0 DIMM_A1 : 2048 MB");
         LinuxUtils utils;
         EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 0);
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"SmbiosStructureLongerThanTheTable",
     [](host::FakeMachine& machine) {
         SmbiosBuilder smbios;
         smbios.system("Lab Board").port(0, 9);
         std::string table = smbios.table();
         // A memory structure whose formatted area claims 200 bytes, at the end.
         std::string broken = std::string("\x11\xC8\x40\x00", 4) + std::string(20, '\x01');
         installTable(machine, smbios, table.substr(0, table.size() - 6) + broken);
     },
     [](host::FakeMachine& machine) {
         MemoryDeviceFinder memory;
         EXPECT_TRUE(direct(memory).empty());
         LinuxUtils utils;
         EXPECT_EQ(utils.getNumOfPorts(LinuxUtils::PORT_TYPE_SERIAL), 1);
         EXPECT_EQ(utils.getDeviceDescription(), "SERIAL_PORT_DESC3");
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"SmbiosStringsOutOfRange",
     [](host::FakeMachine& machine) {
         SmbiosBuilder smbios;
         smbios.system("Lab Board");
         // Size 2048 MB; device locator string 5 and bank locator string 1 of one string.
         std::vector<uint8_t> formatted(0x1B - 4, 0);
         formatted[12 - 4] = 0x00;
         formatted[13 - 4] = 0x08;
         formatted[16 - 4] = 5;
         formatted[17 - 4] = 1;
         smbios.add(17, formatted, {"BANK 7"});
         // Both strings beyond the structure's none.
         formatted[16 - 4] = 2;
         formatted[17 - 4] = 3;
         smbios.add(17, formatted, {});
         smbios.installSysfs(machine);
     },
     [](host::FakeMachine& machine) {
         MemoryDeviceFinder memory;
         std::vector<IWbemClassObject> records = direct(memory);
         ASSERT_EQ(records.size(), 2u);
         EXPECT_EQ(field(records[0], "DeviceAdditionalHWInfo"), "BANK 7  : 2048 MB");
         EXPECT_EQ(field(records[1], "DeviceAdditionalHWInfo"), " : 2048 MB");
         EXPECT_EQ(field(records[1], "DeviceName"), "Memory Device 1");
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"SmbiosProductNameOutOfRange",
     [](host::FakeMachine& machine) {
         SmbiosBuilder smbios;
         std::vector<uint8_t> formatted(0x1B - 4, 0);
         formatted[0] = 1;
         formatted[1] = 9; // the product name: string 9 of one
         smbios.add(1, formatted, {"Fake Maker"}).port(0, 9).port(0, 5);
         smbios.installSysfs(machine);
     },
     [](host::FakeMachine& machine) {
         // The product name is read uncaught: the interface's exception
         // reaches the caller of either port finder.
         SerialPortFinder serial;
         EXPECT_THROW(direct(serial), smbios::SmbiosException);
         ParallelPortFinder parallel;
         EXPECT_THROW(direct(parallel), smbios::SmbiosException);
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"ModemFloodsItsReplies",
     [](host::FakeMachine& machine) {
         twoSerialOneParallel().installSysfs(machine);
         ostrand_test::addLspci(machine, "", "", "");
         const std::string noise(250, 'x');
         const std::string name(120, 'M');
         std::string script;
         for (const char* command : {"ATZ\\r", "AT&K3\\r", "ATQ0E0V1&C1&D2\\r"}) {
             script += std::string("> ") + command + "\n< " + noise + "\\r\\nOK\\r\\n\n";
         }
         script += "> ATI3\\r\n< \\r\\n" + name + "\\r\\nOK\\r\\n\n";
         ostrand_test::addSerialNode(machine, "/dev/ttyS0", 0x3F8, 4, script);
     },
     [](host::FakeMachine& machine) {
         ModemDeviceFinder modem;
         std::vector<IWbemClassObject> records = enumerate(modem);
         ASSERT_EQ(records.size(), 1u);
         // The identification arrives in two reads of 99 bytes; the second
         // holds the rest of the name and the OK, and that read stands.
         const std::string name(23, 'M');
         EXPECT_EQ(fields(records[0]),
                   (Fields{"EXTERNAL_MODEM", "", "/dev/ttyS0", name, "Serial Port 0, Modem 0",
                           "Serial Port 0/Serial Port 0, Modem 0", "System Board!ISA Bus!Serial Port 0", "", name, "",
                           "", "", "External Modem : " + name}));
         auto port = std::dynamic_pointer_cast<ostrand_test::ProbedSerial>(machine.model("/dev/ttyS0"));
         ASSERT_NE(port, nullptr);
         for (size_t size : port->readSizes()) {
             EXPECT_LT(size, 100u);
         }
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"ModemNeverStopsSending",
     [](host::FakeMachine& machine) {
         twoSerialOneParallel().installSysfs(machine);
         ostrand_test::addLspci(machine, "", "", "");
         machine.addNode("/dev/ttyS0", 'c', std::make_shared<ChatteringSerial>());
     },
     [](host::FakeMachine& machine) {
         ModemDeviceFinder modem;
         EXPECT_TRUE(enumerate(modem).empty());
         auto port = std::dynamic_pointer_cast<ChatteringSerial>(machine.model("/dev/ttyS0"));
         ASSERT_NE(port, nullptr);
         EXPECT_GT(port->reads, 0);
         // The reset times out after 10 s of reading noise; then the cool down.
         EXPECT_GE(machine.clock().elapsed(), 2000000 + 10000000 + 10000000);
         EXPECT_LT(machine.clock().elapsed(), 2000000 + 12000000 + 10000000);
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"InternalModemWithoutPciMatchKeepsItsDescriptor",
     [](host::FakeMachine& machine) {
         // No serial connector in the firmware: every answering node is internal.
         SmbiosBuilder smbios;
         smbios.system("Lab Board");
         smbios.installSysfs(machine);
         ostrand_test::addLspci(machine, "", "", "");
         ostrand_test::addSerialNode(machine, "/dev/ttySL0", 0x2F8, 3,
                                     "> ATZ\\r\n< OK\\r\\n\n> ATI3\\r\n< \\r\\nSoftModem\\r\\nOK\\r\\n\n");
     },
     [](host::FakeMachine& machine) {
         ModemDeviceFinder modem;
         EXPECT_TRUE(enumerate(modem).empty());
         EXPECT_EQ(machine.openDescriptors(), std::vector<std::string>{"/dev/ttySL0"});
     }},

    {"SysfsWithDanglingLinksAndMissingAttributes",
     [](host::FakeMachine& machine) {
         const std::string cdrom = "pci0000:00/0000:00:05.0/host2/target2:0:2/2:0:2:0";
         sysfsOf(machine)
             // A SCSI device with none of its attributes, on the bus and in sg.
             .device(cdrom)
             .onBus("scsi", cdrom)
             .classDevice("scsi_generic", cdrom, "sg1")
             // Its driver link leads nowhere; the driver's link to a device too.
             .link("devices/" + cdrom + "/driver", "bus/scsi/drivers/gone")
             .link("bus/scsi/drivers/sr/9:0:0:0", "devices/pci0000:00/0000:00:05.0/host2/target2:0:9/9:0:0:0")
             // Bus and class links to folders that are not there.
             .link("bus/scsi/devices/3:0:0:0", "devices/pci0000:00/0000:00:07.0/host3/target3:0:0/3:0:0:0")
             .link("class/scsi_generic/sg2", "devices/pci0000:00/0000:00:07.0/host3/target3:0:0/3:0:0:0/scsi_generic/sg2")
             // A class device whose device link leads nowhere.
             .device("virtual/scsi_generic/sg4", {{"dev", "21:4\n"}})
             .link("devices/virtual/scsi_generic/sg4/device", "devices/pci0000:00/0000:00:01.2/usb2/2-2")
             .link("class/scsi_generic/sg4", "devices/virtual/scsi_generic/sg4");
     },
     [](host::FakeMachine& machine) {
         CSysfsReader reader(nullptr);
         StrMapMap devices;
         ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
         ASSERT_EQ(devices.size(), 1u);
         EXPECT_EQ(devices.at("2:0:2:0").at("driver_name"), "gone");
         StrMap attributes;
         EXPECT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_SCSI, attributes), 0);
         EXPECT_TRUE(attributes.empty());
         EXPECT_EQ(reader.GetDeviceAttr("3:0:0:0", BUS_TYPE_SCSI, attributes), 1);
         std::string driver = "x";
         EXPECT_EQ(reader.GetDeviceDriver("2:0:2:0", BUS_TYPE_SCSI, driver), 1);
         EXPECT_EQ(driver, "");
         std::string bus = "b", device = "d", function = "f";
         EXPECT_EQ(reader.GetPCIDeviceBDF(devices.at("2:0:2:0").at("path"), BUS_TYPE_SCSI, bus, device, function), 0);
         EXPECT_EQ(bus + " " + device + " " + function, "00 05 0");
         StrMapMap classDevices;
         ASSERT_EQ(reader.GetClsDeviceList("scsi_generic", classDevices), 0);
         EXPECT_EQ(classDevices.count("sg1"), 1u);
         EXPECT_EQ(classDevices.count("sg4"), 1u);
         StrMap classAttributes, deviceAttributes;
         EXPECT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg1", classAttributes, deviceAttributes), 0);
         EXPECT_TRUE(classAttributes.empty());
         EXPECT_EQ(deviceAttributes.size(), 5u);
         EXPECT_EQ(deviceAttributes.at("bus_id"), "2:0:2:0");
         StrMap sg4Attributes, sg4Device;
         EXPECT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg4", sg4Attributes, sg4Device), 0);
         EXPECT_EQ(sg4Attributes, (StrMap{{"dev", "21:4"}}));
         EXPECT_TRUE(sg4Device.empty());
         EXPECT_TRUE(machine.mounts().empty());
     }},

    {"SysfsOfFilesWhereFoldersBelong",
     [](host::FakeMachine& machine) {
         sysfsOf(machine)
             .file("bus/scsi", "not a folder\n")
             .file("bus/pci/devices", "not a folder\n")
             .file("class/block", "not a folder\n")
             .file("class/scsi_host/host0", "not a folder\n")
             .folder("devices");
     },
     [](host::FakeMachine&) {
         CSysfsReader reader(nullptr);
         StrMapMap devices;
         StrMap a, b;
         std::string driver, bus, device, function;
         EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 3);
         EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_PCI, devices), 1);
         EXPECT_EQ(reader.GetDeviceAttr("0000:00:05.0", BUS_TYPE_PCI, a), 1);
         EXPECT_EQ(reader.GetDeviceDriver("0000:00:05.0", BUS_TYPE_PCI, driver), 1);
         EXPECT_EQ(reader.GetPCIDeviceBDF("/sys/devices/pci0000:00", BUS_TYPE_PCI, bus, device, function), 1);
         EXPECT_EQ(reader.GetClsDeviceList("block", devices), 4);
         EXPECT_EQ(reader.GetClsDeviceAttr("scsi_host", "host0", a, b), 1);
         EXPECT_TRUE(devices.empty());
         EXPECT_TRUE(a.empty());
         EXPECT_TRUE(b.empty());
     }},

    {"SysfsNotMountedAndTheMountRefused",
     [](host::FakeMachine& machine) {
         sysfsOf(machine).device("pci0000:00/0000:00:05.0", {{"vendor", "0x1000\n"}}).onBus("pci", "pci0000:00/0000:00:05.0");
         machine.setSysfsMounted(false);
         machine.refuseMounts(EPERM);
     },
     [](host::FakeMachine& machine) {
         CSysfsReader reader(nullptr);
         StrMapMap devices;
         StrMap a, b;
         std::string driver = "x", bus, device, function;
         EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_PCI, devices), 2);
         EXPECT_EQ(reader.GetDeviceAttr("0000:00:05.0", BUS_TYPE_PCI, a), 2);
         EXPECT_EQ(reader.GetDeviceDriver("0000:00:05.0", BUS_TYPE_PCI, driver), 2);
         EXPECT_EQ(driver, "");
         EXPECT_EQ(reader.GetPCIDeviceBDF("x", BUS_TYPE_PCI, bus, device, function), 2);
         EXPECT_EQ(reader.GetClsDeviceList("block", devices), 2);
         EXPECT_EQ(reader.GetClsDeviceAttr("block", "sda", a, b), 2);
         EXPECT_TRUE(devices.empty() && a.empty() && b.empty());
         EXPECT_EQ(machine.mounts().size(), 6u);
     }},

    {"SgNodesThatAreNoSgNodes",
     // Names that begin with sg, but plain nodes that answer no ioctl.
     [](host::FakeMachine& machine) {
         machine.addNode("/dev/sg0", 'c', nullptr);
         machine.addNode("/dev/sg1", 'b', nullptr);
         machine.addFile("/dev/sgtext", "sg");
     },
     [](host::FakeMachine& machine) {
         SCSIGeneric sg;
         sg.setnumOfValidSgNodes();
         EXPECT_EQ(sg.getNumofActiveSGs(), 0);
         EXPECT_TRUE(machine.sleeps().empty());
         EXPECT_TRUE(machine.openDescriptors().empty());
         int fd = host::open("/dev/sg0", O_RDWR | O_NONBLOCK);
         unsigned char buffer[36] = {};
         int blocks = 77;
         EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), -1);
         EXPECT_EQ(sg.doTestUnitReady(fd), ENOTTY);
         EXPECT_EQ(sg.doReadCapacity(fd, blocks), -1);
         EXPECT_EQ(blocks, 77);
         EXPECT_EQ(sg.isEmulated(fd), -1);
         host::close(fd);
     }},

    {"EverySgNodeBusy",
     [](host::FakeMachine& machine) {
         for (int i = 0; i < 40; ++i) {
             std::string path = "/dev/sg" + std::to_string(i);
             ostrand_test::addSgNode(machine, path, i, 0, 0, 0, 5);
             machine.denyOpen(path, EBUSY);
         }
     },
     [](host::FakeMachine& machine) {
         SCSIGeneric sg;
         EXPECT_EQ(sg.sempahore_lock(), 0);
         sg.setnumOfValidSgNodes();
         EXPECT_EQ(sg.sempahore_unlock(), 0);
         EXPECT_EQ(sg.getNumofActiveSGs(), 0);
         EXPECT_EQ(sg.getSgfromMap(5, 0, 0, 0, 0), "");
         EXPECT_EQ(machine.opens().size(), 40u);
         EXPECT_TRUE(machine.ioctls().empty());
         EXPECT_TRUE(machine.sleeps().empty());
         EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
     }},

    {"SgDeviceAnswersGarbage",
     // Every command: a status that means nothing, sense data of 0xFF with a
     // length far beyond any buffer, and three bytes of data.
     [](host::FakeMachine& machine) {
         auto model = ostrand_test::addSgNode(machine, "/dev/sg0", 255, 255, 255, 255, 31);
         host::SgReply garbage;
         garbage.status = 0xFF;
         garbage.sense = std::string(300, '\xFF');
         garbage.senseLength = 255;
         garbage.data = "\xFF\xFF\xFF";
         for (int opcode : {0x00, 0x12, 0x25, 0x5A}) {
             model->addReply(opcode, garbage);
         }
         model->setProbeHost(std::string(1000, '\xFF'));
     },
     [](host::FakeMachine& machine) {
         SCSIGeneric sg;
         sg.setnumOfValidSgNodes();
         EXPECT_EQ(sg.getNumofActiveSGs(), 1);
         EXPECT_EQ(sg.getSgfromMap(31, 255, 255, 255, 255), "/dev/sg0");
         int fd = host::open("/dev/sg0", O_RDWR | O_NONBLOCK);
         unsigned char buffer[36] = {};
         // Sense key 0xF: not NOT READY, so success.
         EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 0);
         EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x5A, buffer, 36), 0);
         // No CHECK CONDITION: no sense is read.
         EXPECT_EQ(sg.doTestUnitReady(fd), 0);
         int blocks = 0;
         EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
         // FF FF FF and the buffer's zero: 0xFFFFFF00, plus one, as an int.
         EXPECT_EQ(blocks, -255);
         EXPECT_EQ(sg.isEmulated(fd), SG_HOST_OTHER);
         host::close(fd);
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"IdentityBlockWithoutAZeroByte",
     // Every byte 0xFF: removable, and texts that only the block's end stops.
     [](host::FakeMachine& machine) {
         ostrand_test::addPciLines(machine, {ostrand_test::piix3()});
         auto model = ostrand_test::addIdeNode(machine, "/dev/hda", std::string(512, '\xFF'));
         model->addReply(0x5A, host::SgReply::good(ostrand_test::capabilityPage(0x01, 0x00)));
         model->addReply(0x12, host::SgReply::failure(EIO));
     },
     [](host::FakeMachine& machine) {
         CDDVDDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         ASSERT_EQ(records.size(), 1u);
         const std::string model(512 - 54, '\xFF');
         EXPECT_EQ(field(records[0], "DeviceName"), " " + model);
         EXPECT_EQ(field(records[0], "DeviceModelNumber"), model);
         EXPECT_EQ(field(records[0], "DeviceFirmwareRevisionLevel"), std::string(512 - 46, '\xFF'));
         EXPECT_EQ(field(records[0], "DeviceSerialNumber"), std::string(512 - 20, '\xFF'));
         EXPECT_EQ(field(records[0], "DeviceManufacturerName"), "");
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"ShortInquiryData",
     // A drive of each walk whose INQUIRY data end after a few bytes, and one
     // that sends none at all.
     [](host::FakeMachine& machine) {
         ostrand_test::addPciLines(machine, {ostrand_test::piix3()});
         auto ide = ostrand_test::addIdeNode(machine, "/dev/hda",
                                             ostrand_test::paddedIdentityBlock(0x85C0, "SN", "1.0", "IDE DRIVE"));
         ide->addReply(0x5A, host::SgReply::good(ostrand_test::capabilityPage(0x00, 0x01)));
         ide->addReply(0x12, host::SgReply::good("\x05\x80\x05"));
         ostrand_test::addScsiBlockNode(machine, "/dev/sr0", 2, 0, 0, 0);
         auto five = ostrand_test::addSgNode(machine, "/dev/sg0", 2, 0, 0, 0, 5);
         five->addReply(0x12, host::SgReply::good(std::string("\x05\x80\x05\x02\x1F\0\0\0LA", 10)));
         five->setProbeHost("sym-2.2.3");
         ostrand_test::addScsiBlockNode(machine, "/dev/sr1", 3, 0, 0, 0);
         auto none = ostrand_test::addSgNode(machine, "/dev/sg1", 3, 0, 0, 0, 5);
         none->addReply(0x12, host::SgReply::good(""));
     },
     [](host::FakeMachine& machine) {
         CDDVDDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         ASSERT_EQ(records.size(), 2u);
         EXPECT_EQ(fields(records[0]),
                   (Fields{" ", "", "/dev/hda", "CDRW", "Location 0", "Location 0",
                           "System Board!PCI Bus 0!PCI Bus 0, Device 1, Function 1!Primary IDE Channel", "CDRW", "",
                           "", "", "SN                  ", "/dev/hda"}));
         // Ten bytes: the vendor is cut where the data end. With none at all
         // the type reads 0, and the drive is left out.
         EXPECT_EQ(fields(records[1]),
                   (Fields{"LA ", "", "/dev/sr0", "CDR", "SCSI Bus 2, Target 0, LUN 0", "SCSI Bus 2, Target 0, LUN 0",
                           "", "CDR", "LA", "", "", "", "/dev/sg0:/dev/sr0"}));
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
     }},

    {"IncludeCycleThroughAnotherMachine",
     [](host::FakeMachine&) {},
     [](host::FakeMachine&) {
         std::string root = machineFolders({{"a/machine", "uname 6.1.0 x86_64\ninclude ../b\n"},
                                            {"b/machine", "# b includes a\ninclude ../a\n"}});
         EXPECT_EQ(loadError(root + "/a"), "machine " + root + "/b, line 2: include cycle: ../a is being loaded already");
     }},

    {"IncludeOfItself",
     [](host::FakeMachine&) {},
     [](host::FakeMachine&) {
         std::string root = machineFolders({{"a/machine", "include .\n"}, {"b/machine", "\n\ninclude machine\n"}});
         EXPECT_EQ(loadError(root + "/a"), "machine " + root + "/a, line 1: include cycle: . is being loaded already");
         EXPECT_EQ(loadError(root + "/b"),
                   "machine " + root + "/b, line 3: include cycle: machine is being loaded already");
     }},

    {"IncludeOfAMissingMachine",
     [](host::FakeMachine&) {},
     [](host::FakeMachine&) {
         std::string root = machineFolders({{"a/machine", "uname 6.1.0 x86_64\n\ninclude ../nowhere\n"},
                                            {"b/machine", "include ../c\n"},
                                            {"c/data.txt", "no machine file here\n"},
                                            {"d/machine", "include\n"}});
         EXPECT_EQ(loadError(root + "/a"), "machine " + root + "/a, line 3: cannot read included machine ../nowhere");
         EXPECT_EQ(loadError(root + "/b"), "machine " + root + "/b, line 1: cannot read included machine ../c");
         EXPECT_EQ(loadError(root + "/d"), "machine " + root + "/d, line 1: expected: include PATH");
     }},

    {"BadLineInAnIncludedFile",
     // The message names the included file and its own line.
     [](host::FakeMachine&) {},
     [](host::FakeMachine&) {
         std::string root = machineFolders({{"a/machine", "# a\ninclude ../common/base.machine\n"},
                                            {"common/base.machine", "uname 6.1.0 x86_64\nfrobnicate /dev/x\n"},
                                            {"b/machine", "include ../c\n"},
                                            {"c/machine", "uname 6.1.0 x86_64\nfile /etc/x missing.txt\n"}});
         EXPECT_EQ(loadError(root + "/a"),
                   "machine " + root + "/common/base.machine, line 2: unknown directive 'frobnicate'");
         EXPECT_EQ(loadError(root + "/b"), "machine " + root + "/c, line 2: cannot read data file missing.txt");
     }},

    {"FloppyNodesThatAreNoFloppyNodes",
     // fd-named entries: a node that answers no ioctl, a regular file, a
     // drive that answers its state but refuses its type, and a link.
     [](host::FakeMachine& machine) {
         floppyBoard(machine);
         machine.addNode("/dev/fd0", 'b', nullptr);
         machine.addFile("/dev/fd1", "floppy");
         auto refusing = std::make_shared<host::FloppyModel>("H1440", host::FloppyState());
         refusing->refuse(FDGETDRVTYP, EIO);
         machine.addNode("/dev/fd2", 'b', refusing);
         machine.addLink("/dev/fd", "/proc/self/fd");
     },
     [](host::FakeMachine& machine) {
         EXPECT_TRUE(floppies().empty());
         // The link is not counted: three entries, three node numbers.
         Fields opened;
         for (const auto& path : machine.opens()) {
             if (path.compare(0, 7, "/dev/fd") == 0) {
                 opened.push_back(path);
             }
         }
         EXPECT_EQ(opened, (Fields{"/dev/fd0", "/dev/fd1", "/dev/fd2"}));
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"FloppyDriveTypeThatFillsItsBuffer",
     // A type name of 16 characters and more comes without a terminator.
     [](host::FakeMachine& machine) {
         floppyBoard(machine);
         host::FloppyState state;
         state.track = 0;
         machine.addNode("/dev/fd0", 'b', std::make_shared<host::FloppyModel>(std::string(40, 'H'), state));
     },
     [](host::FakeMachine& machine) {
         std::vector<IWbemClassObject> records = floppies();
         ASSERT_EQ(records.size(), 1u);
         EXPECT_EQ(field(records[0], "DeviceLocation"), "Floppy Drive 1");
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"DiskNodesThatAreNoScsiDisks",
     // sd-named entries: a node that answers nothing, a regular file, a block
     // node whose address has no sg node, and one whose sg disk answers
     // garbage (a capacity that reads as negative passes; its adapter text
     // of 0xFF bytes says neither IDE nor USB).
     [](host::FakeMachine& machine) {
         floppyBoard(machine);
         machine.addNode("/dev/sda", 'b', nullptr);
         machine.addFile("/dev/sdb", "disk");
         host::ScsiAddress lonely;
         lonely.host = 9;
         machine.addNode("/dev/sdc", 'b', std::make_shared<host::ScsiBlockModel>(lonely));
         host::ScsiAddress garbled;
         garbled.host = 7;
         machine.addNode("/dev/sdd", 'b', std::make_shared<host::ScsiBlockModel>(garbled));
         auto sg = ostrand_test::addSgNode(machine, "/dev/sg0", 7, 0, 0, 0, 0);
         host::SgReply garbage;
         garbage.status = 0xFF;
         garbage.sense = std::string(300, '\xFF');
         garbage.senseLength = 255;
         garbage.data = "\xFF\xFF\xFF";
         sg->addReply(0x25, garbage);
         sg->addReply(0x12, garbage);
         sg->setProbeHost(std::string(1000, '\xFF'));
     },
     [](host::FakeMachine& machine) {
         EXPECT_TRUE(floppies().empty());
         EXPECT_EQ(machine.ioctlNames("/dev/sg0"),
                   (Fields{"SG_GET_SCSI_ID", "SG_IO READ CAPACITY", "SG_EMULATED_HOST", "SCSI_IOCTL_PROBE_HOST"}));
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
     }},

    {"OpticalNodesThatAreNoDevices",
     // hd and sr names for files, folders, links and nodes that answer nothing.
     [](host::FakeMachine& machine) {
         ostrand_test::addPciLines(machine, {ostrand_test::piix3()});
         machine.addFile("/dev/hda", "not a drive");
         machine.addDirectory("/dev/hdb");
         machine.addLink("/dev/hdc", "/dev/nowhere");
         machine.addNode("/dev/hdd", 'b', nullptr);
         ostrand_test::addSgNode(machine, "/dev/sg0", 2, 0, 0, 0, 5);
         machine.addFile("/dev/sr0", "");
         machine.addDirectory("/dev/sr1");
         machine.addNode("/dev/sr2", 'c', nullptr);
         machine.addLink("/dev/sr3", "/dev/sr2");
     },
     [](host::FakeMachine& machine) {
         CDDVDDeviceFinder finder;
         EXPECT_TRUE(enumerate(finder).empty());
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY), 1);
         // The link is no node of the scan.
         for (const std::string& path : machine.opens()) {
             EXPECT_NE(path, "/dev/sr3");
         }
     }},

    {"AdapterParentNamesOfEveryShape",
     // What SCSI_IOCTL_GET_PCI may say: twenty bytes of noise without a NUL,
     // colons only, a point only, nothing.
     [](host::FakeMachine& machine) {
         const char* names[] = {"\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF",
                                "::::", ".", ""};
         for (int i = 0; i < 4; ++i) {
             std::string n = std::to_string(i);
             ostrand_test::addScsiBlockNode(machine, "/dev/sr" + n, i, 0, 0, 0);
             auto sg = ostrand_test::addSgNode(machine, "/dev/sg" + n, i, 0, 0, 0, 5);
             sg->setPci(names[i]);
             sg->setProbeHost("sym-2.2.3");
         }
     },
     [](host::FakeMachine& machine) {
         CDDVDDeviceFinder finder;
         std::vector<IWbemClassObject> records = enumerate(finder);
         ASSERT_EQ(records.size(), 4u);
         for (auto& record : records) {
             EXPECT_EQ(field(record, "DeviceParentLocation"), "System Board!PCI Bus 0!PCI Bus 0, Device 0, Function 0");
         }
         EXPECT_TRUE(machine.openDescriptors().empty());
     }},

    {"LsbReleaseThatFloods",
     // One line of a thousand characters with no newline: only its first 255
     // are read, and the SUSE words behind them count for nothing.
     [](host::FakeMachine& machine) {
         machine.addCommand("lsb_release -d 2>&1", std::string(1000, 'x') + " SUSE Server 10");
         ostrand_test::addScsiBlockNode(machine, "/dev/sr0", 2, 0, 0, 0);
         ostrand_test::addSgNode(machine, "/dev/sg0", 2, 0, 0, 0, 5)->setProbeHost("sym-2.2.3");
     },
     [](host::FakeMachine& machine) {
         CDDVDDeviceFinder finder;
         char prefix[5] = {};
         finder.getCDDevNode(prefix);
         EXPECT_STREQ(prefix, "scd");
         EXPECT_EQ(enumerate(finder).size(), 1u);
         EXPECT_EQ(machine.openStreams(), 0u);
     }},

    {"UsbFloppyLookupWithoutItsTools",
     // A 2.6 kernel with no find, dirname, basename or cat: every tool line
     // is the shell's complaint, and the lookup reads paths out of them.
     [](host::FakeMachine& machine) {
         floppyBoard(machine);
         machine.setUname("2.6.16.60-0.21-smp", "x86_64");
         host::ScsiAddress address;
         address.host = 5;
         machine.addNode("/dev/sdb", 'b', std::make_shared<host::ScsiBlockModel>(address));
         auto sg = ostrand_test::addSgNode(machine, "/dev/sg4", 5, 0, 0, 0, 0);
         sg->setProbeHost("SCSI emulation for USB Mass Storage devices");
         sg->addReply(0x25, host::SgReply::check(2, 0x3A));
     },
     [](host::FakeMachine& machine) {
         std::vector<IWbemClassObject> records = floppies();
         ASSERT_EQ(records.size(), 1u);
         // The interface's "name" is the complaint of basename: no "-", so
         // its "ports" are "sh"; the "address" is read from behind the
         // complaint of dirname, whose " c" reads as device 12.
         EXPECT_EQ(field(records[0], "DeviceLocation"), "Port s, Device 000");
         EXPECT_EQ(field(records[0], "DeviceParentLocation"),
                   "System Board!PCI Bus 0!PCI Bus 0, Device 12, Function 0");
         EXPECT_EQ(field(records[0], "DeviceresourceTag"), "PCI Bus 0, Device 12, Function ");
         const std::vector<std::string>& commands = machine.commands();
         ASSERT_EQ(commands.size(), 10u);
         EXPECT_EQ(Fields(commands.begin() + 5, commands.end()),
                   (Fields{"find /sys/devices/pci0000:00/ -name host5", "dirname sh: find: command not found",
                           "basename sh: dirname: command not found", "dirname sh: dirname: command not found",
                           "cat sh: dirname: command not found/devnum > /dev/null 2>&1"}));
         EXPECT_TRUE(machine.openDescriptors().empty());
         EXPECT_EQ(machine.openStreams(), 0u);
     }},
};

std::string rowName(const ::testing::TestParamInfo<Row>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Rows, MalformedMachineTest, ::testing::ValuesIn(kRows), rowName);

} // namespace

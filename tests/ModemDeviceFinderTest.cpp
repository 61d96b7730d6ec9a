#include "finders/ModemDeviceFinder.h"
#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"
#include "platform/smbios/SmbiosFactory.h"
#include "probes/PCIUtil.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"
#include "tests/support/Modems.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <termios.h>

using namespace Vantrel::Ostrand;
using ostrand_test::addSerialNode;
using ostrand_test::field;
using ostrand_test::fields;
using ostrand_test::PirBuilder;
using ostrand_test::ProbedSerial;
using ostrand_test::SmbiosBuilder;

namespace {

using Fields = std::vector<std::string>;
using Pause = std::pair<std::string, int64_t>;

const int64_t kSecond = 1000000;

// A modem that answers every command; ATI3 gives `name`.
std::string answering(const std::string& name)
{
    return "> ATZ\\r\n< ATZ\\r\\r\\nOK\\r\\n\n"
           "> AT&K3\\r\n< \\r\\nOK\\r\\n\n"
           "> ATQ0E0V1&C1&D2\\r\n< \\r\\nOK\\r\\n\n"
           "> ATI3\\r\n< \\r\\n" +
           name + "\\r\\n\\r\\nOK\\r\\n\n";
}

const Fields kCommands = {"ATZ\r", "AT&K3\r", "ATQ0E0V1&C1&D2\r", "ATI3\r"};

// The pauses of a port whose modem answers all four commands at once.
const std::vector<Pause> kAnsweredDialogue = {
    {"usleep", 200000}, {"usleep", 3000}, {"usleep", 200000}, {"usleep", 3000},
    {"usleep", 200000}, {"usleep", 3000}, {"usleep", 200000}, {"sleep", 10 * kSecond}};

std::vector<Pause> operator+(std::vector<Pause> a, const std::vector<Pause>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Fields external(const std::string& path, const std::string& digit, int index, const std::string& name)
{
    std::string location = "Serial Port " + digit + ", Modem " + std::to_string(index);
    return {"EXTERNAL_MODEM", "", path, name, location, "Serial Port " + digit + "/" + location,
            "System Board!ISA Bus!Serial Port " + digit, "", name, "", "", "", "External Modem : " + name};
}

Fields internal(const std::string& path, const std::string& location, const std::string& bus, const std::string& slot,
                const std::string& name)
{
    return {"INTERNAL_MODEM", "", path, name, location, location, "System Board!" + bus, "", name, "", "", "",
            slot + " : " + name};
}

Fields unknown(const std::string& location, const std::string& bus, const std::string& slot)
{
    return {"INTERNAL_MODEM", "", "", "INTERNAL_MODEM", location, location, "System Board!" + bus, "",
            "INTERNAL_MODEM", "", "", "", slot};
}

// One PCI function as the three lspci passes print it.
struct PciLine {
    std::string slot;  // "00:0a.0"
    std::string cls;   // "0780"
    std::string ids;   // "14f1:2f10"
};

class ModemDeviceFinderTest : public ::testing::Test {
protected:
    void SetUp() override { smbios::SmbiosFactory::reset(); }
    void TearDown() override { smbios::SmbiosFactory::reset(); }

    // A board with `serial` serial connectors (port type 9).
    void board(int serial)
    {
        SmbiosBuilder builder;
        builder.system("Fake Server 100");
        for (int i = 0; i < serial; ++i) {
            builder.port(8, 9);
        }
        builder.installSysfs(machine);
    }

    void inventory(const std::vector<PciLine>& devices)
    {
        std::string n;
        std::string m;
        std::string v;
        for (const auto& d : devices) {
            n += d.slot + " " + d.cls + ": " + d.ids + " (rev 01)\n";
            m += d.slot + " \"Communication controller\" \"Maker\" \"Modem " + d.ids + "\" -r01 \"\" \"\"\n";
            v += d.slot + " Communication controller: Maker Modem " + d.ids + "\n\tFlags: medium devsel, IRQ 11\n\n";
        }
        ostrand_test::addLspci(machine, n, m, v);
        pci.initPciUtil();
        m_inventoryRead = true;
    }

    std::vector<IWbemClassObject> run()
    {
        if (!m_inventoryRead) {
            inventory({});
        }
        std::vector<IWbemClassObject> objects;
        finder.getAllObjects(&pci, objects);
        return objects;
    }

    std::vector<Pause> pauses() const
    {
        std::vector<Pause> result;
        for (const auto& s : machine.sleeps()) {
            result.emplace_back(s.call, s.microseconds);
        }
        return result;
    }

    // The bytes written, as (path, bytes).
    std::vector<std::pair<std::string, std::string>> writes() const
    {
        std::vector<std::pair<std::string, std::string>> result;
        for (const auto& w : machine.writes()) {
            result.emplace_back(w.path, w.bytes);
        }
        return result;
    }

    std::vector<std::string> ttyOpens() const
    {
        std::vector<std::string> result;
        for (const auto& path : machine.opens()) {
            if (path.find("tty") != std::string::npos) {
                result.push_back(path);
            }
        }
        return result;
    }

    std::vector<std::pair<std::string, std::string>> fullDialogue(const std::string& path) const
    {
        std::vector<std::pair<std::string, std::string>> result;
        for (const auto& command : kCommands) {
            result.emplace_back(path, command);
        }
        return result;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    PCIUtil pci;
    ModemDeviceFinder finder;

private:
    bool m_inventoryRead = false;
};

// A machine whose /dev/ cannot be listed.
class UnlistableMachine : public host::FakeMachine {
public:
    int scandir(const char*, struct dirent***, host::DirentFilter, host::DirentCompare) override
    {
        errno = EACCES;
        return -1;
    }
};

dirent entryNamed(const char* name)
{
    dirent entry;
    std::memset(&entry, 0, sizeof entry);
    std::strncpy(entry.d_name, name, sizeof entry.d_name - 1);
    return entry;
}

} // namespace

// --- The walk -------------------------------------------------------------------

TEST_F(ModemDeviceFinderTest, TwoSilentPortsEachTimeOutAfterTenSecondsThenCoolDownTenSeconds)
{
    board(2);
    auto s0 = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    auto s1 = addSerialNode(machine, "/dev/ttyS1", 0x2f8, 3);
    EXPECT_TRUE(run().empty());

    // Both nodes are found first, then spoken to from the last to the first.
    EXPECT_EQ(ttyOpens(), (Fields{"/dev/ttyS0", "/dev/ttyS1", "/dev/ttyS1", "/dev/ttyS0"}));
    EXPECT_EQ(writes(), (std::vector<std::pair<std::string, std::string>>{{"/dev/ttyS1", "ATZ\r"},
                                                                          {"/dev/ttyS0", "ATZ\r"}}));
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond},
                                            {"usleep", 200000},
                                            {"sleep", 10 * kSecond},
                                            {"usleep", 200000},
                                            {"sleep", 10 * kSecond}}));
    // The reset on ttyS1 starts after the 2 s pause and waits 10 s; the cool
    // down takes 10 s; then ttyS0 the same.
    ASSERT_EQ(s1->arrivals().size(), 1u);
    ASSERT_EQ(s0->arrivals().size(), 1u);
    EXPECT_EQ(s1->arrivals()[0].elapsed, 2 * kSecond);
    EXPECT_EQ(s0->arrivals()[0].elapsed, 22 * kSecond);
    EXPECT_EQ(machine.clock().elapsed(), 42 * kSecond);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(ModemDeviceFinderTest, LabServerModemOnTtyS0WithSilentTtyS1)
{
    ostrand_test::addLabServerSmbios(machine);
    ostrand_test::addLabServerLspci(machine);
    pci.initPciUtil();
    auto ports = ostrand_test::addLabServerSerialPorts(machine);
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(&pci, objects);

    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]),
              external("/dev/ttyS0", "0", 0, "LabModem 56K V.92 External"));
    EXPECT_EQ(objects[0].getValue(), 0);
    EXPECT_EQ(field(objects[0], "DeviceresourceTag"), "Serial Port 0/Serial Port 0, Modem 0");

    // ttyS3 and ttyS2 have no UART and are passed over; ttyS1 is silent; ttyS0 answers.
    auto expectedWrites = fullDialogue("/dev/ttyS0");
    expectedWrites.insert(expectedWrites.begin(), {"/dev/ttyS1", "ATZ\r"});
    EXPECT_EQ(writes(), expectedWrites);
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond}, {"usleep", 200000}, {"sleep", 10 * kSecond}} +
                         kAnsweredDialogue));
    const auto& modem = *ports.at("/dev/ttyS0");
    ASSERT_EQ(modem.arrivals().size(), 4u);
    EXPECT_EQ(modem.arrivals()[0].elapsed, 22 * kSecond);
    EXPECT_EQ(modem.arrivals()[1].elapsed, 22 * kSecond + 203000);
    EXPECT_EQ(modem.arrivals()[2].elapsed, 22 * kSecond + 406000);
    EXPECT_EQ(modem.arrivals()[3].elapsed, 22 * kSecond + 609000);
    EXPECT_EQ(machine.clock().elapsed(), 32 * kSecond + 809000);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(ModemDeviceFinderTest, LabServerScriptIsTheCapturedExchange)
{
    auto scripts = ostrand_test::labServerModemScripts();
    ASSERT_EQ(scripts.size(), 2u);
    const auto& s0 = scripts.at("/dev/ttyS0").exchanges;
    ASSERT_EQ(s0.size(), 4u);
    EXPECT_EQ(s0[0].command, "ATZ\r");
    EXPECT_EQ(s0[0].pieces, (Fields{"ATZ\r\r\nOK\r\n"}));
    EXPECT_EQ(s0[3].command, "ATI3\r");
    EXPECT_EQ(s0[3].pieces, (Fields{"\r\nLabModem 56K V.92 External\r\n\r\nOK\r\n"}));
    for (const auto& exchange : scripts.at("/dev/ttyS1").exchanges) {
        EXPECT_TRUE(exchange.pieces.empty()) << exchange.command;
    }
}

TEST_F(ModemDeviceFinderTest, PortWithIrqZeroIsSkippedWithoutPause)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 0, answering("Modem A"));
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.writes().empty());
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond}}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(ModemDeviceFinderTest, PortWithoutUartIsSkippedWithoutPause)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"), 0);
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.writes().empty());
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond}}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(ModemDeviceFinderTest, NodeThatRefusesTheIoctlIsClosedAndSkipped)
{
    board(1);
    machine.addNode("/dev/ttyS0", 'c', nullptr);
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.writes().empty());
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond}}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(ModemDeviceFinderTest, NodeThatCannotBeOpenedIsSkipped)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"));
    machine.denyOpen("/dev/ttyS0", EACCES);
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(machine.writes().empty());
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond}}));
}

TEST_F(ModemDeviceFinderTest, ExternalModemsAreNumberedInWalkOrderFromTheLastNode)
{
    board(2);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"));
    addSerialNode(machine, "/dev/ttyS1", 0x2f8, 3, answering("Modem B"));
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(fields(objects[0]), external("/dev/ttyS1", "1", 0, "Modem B"));
    EXPECT_EQ(fields(objects[1]), external("/dev/ttyS0", "0", 1, "Modem A"));
    EXPECT_EQ(objects[0].getValue(), 0);
    EXPECT_EQ(objects[1].getValue(), 0);
    auto expectedWrites = fullDialogue("/dev/ttyS1");
    auto second = fullDialogue("/dev/ttyS0");
    expectedWrites.insert(expectedWrites.end(), second.begin(), second.end());
    EXPECT_EQ(writes(), expectedWrites);
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond}} + kAnsweredDialogue + kAnsweredDialogue));
}

TEST_F(ModemDeviceFinderTest, NodeTenGivesDigitOneAndIsExternalThroughNodeOne)
{
    // The firmware counts one port, so only /dev/ttyS1 is in the list; /dev/ttyS10 contains that text.
    board(1);
    addSerialNode(machine, "/dev/ttyS1", 0x2f8, 3, answering("Modem B"));
    addSerialNode(machine, "/dev/ttyS10", 0x3f8, 4, answering("Modem T"));
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    // alphasort puts ttyS1 before ttyS10, so ttyS10 is asked first.
    EXPECT_EQ(fields(objects[0]), external("/dev/ttyS10", "1", 0, "Modem T"));
    EXPECT_EQ(fields(objects[1]), external("/dev/ttyS1", "1", 1, "Modem B"));
}

TEST_F(ModemDeviceFinderTest, ResetAnsweredWithErrorCountsAsAnswered)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4,
                  "> ATZ\\r\n< \\r\\nERROR\\r\\n\n"
                  "> ATI3\\r\n< \\r\\nModem E\\r\\nOK\\r\\n\n");
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), external("/dev/ttyS0", "0", 0, "Modem E"));
    EXPECT_EQ(writes(), fullDialogue("/dev/ttyS0"));
}

TEST_F(ModemDeviceFinderTest, IdentifyAnsweredWithErrorGivesTheNameError)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4,
                  "> ATZ\\r\n< \\r\\nOK\\r\\n\n"
                  "> AT&K3\\r\n< \\r\\nOK\\r\\n\n"
                  "> ATQ0E0V1&C1&D2\\r\n< \\r\\nOK\\r\\n\n"
                  "> ATI3\\r\n< \\r\\nERROR\\r\\n\n");
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), external("/dev/ttyS0", "0", 0, "ERROR"));
    EXPECT_EQ(objects[0].getValue(), 0);
}

TEST_F(ModemDeviceFinderTest, SilentOptionsCostTenSecondsEachAndSilentIdentifyEndsInCoolDown)
{
    board(1);
    auto modem = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, "> ATZ\\r\n< \\r\\nOK\\r\\n\n");
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(writes(), fullDialogue("/dev/ttyS0"));
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond},
                                            {"usleep", 200000},
                                            {"usleep", 3000},
                                            {"usleep", 200000},
                                            {"usleep", 3000},
                                            {"usleep", 200000},
                                            {"usleep", 3000},
                                            {"usleep", 200000},
                                            {"sleep", 10 * kSecond}}));
    // The reset is answered at 2.2 s; each following command waits until
    // time() has moved on by ten whole seconds, then 3 ms pass before the next.
    ASSERT_EQ(modem->arrivals().size(), 4u);
    EXPECT_EQ(modem->arrivals()[0].elapsed, 2 * kSecond);
    EXPECT_EQ(modem->arrivals()[1].elapsed, 2 * kSecond + 203000);
    EXPECT_EQ(modem->arrivals()[2].elapsed, 12 * kSecond + 6000);
    EXPECT_EQ(modem->arrivals()[3].elapsed, 22 * kSecond + 9000);
    EXPECT_EQ(machine.clock().elapsed(), 42 * kSecond + 9000);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(ModemDeviceFinderTest, ReplyInTwoPiecesIsNotJoined)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4,
                  "> ATZ\\r\n< \\r\\nOK\\r\\n\n"
                  "> ATI3\\r\n< \\r\\nLabModem 56K\n< V.92 External\\r\\n\\r\\nOK\\r\\n\n");
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), external("/dev/ttyS0", "0", 0, "V.92 External"));
}

TEST_F(ModemDeviceFinderTest, OkAloneInTheLastPieceGivesAnEmptyName)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4,
                  "> ATZ\\r\n< \\r\\nOK\\r\\n\n"
                  "> ATI3\\r\n< \\r\\nLabModem 56K V.92 External\\r\\n\n< \\r\\nOK\\r\\n\n");
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), external("/dev/ttyS0", "0", 0, ""));
    EXPECT_EQ(field(objects[0], "DeviceAdditionalHWInfo"), "External Modem : ");
}

TEST_F(ModemDeviceFinderTest, FloodingModemIsReadNinetyNineBytesAtATime)
{
    board(1);
    std::string flood(150, 'X');
    auto modem = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4,
                               "> ATZ\\r\n< \\r\\nOK\\r\\n\n"
                               "> ATI3\\r\n< " + flood + "\\r\\nOK\\r\\n\n");
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    // 99 bytes of the flood in the first read, the other 51 and OK in the second.
    EXPECT_EQ(fields(objects[0]), external("/dev/ttyS0", "0", 0, std::string(51, 'X')));
    ASSERT_FALSE(modem->readSizes().empty());
    for (size_t size : modem->readSizes()) {
        EXPECT_EQ(size, 99u);
    }
}

TEST_F(ModemDeviceFinderTest, FailedWriteEndsThePortAtOnceWithTheCoolDown)
{
    board(1);
    auto modem = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"));
    modem->failWrites(EIO);
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(writes(), (std::vector<std::pair<std::string, std::string>>{{"/dev/ttyS0", "ATZ\r"}}));
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond}, {"sleep", 10 * kSecond}}));
    EXPECT_TRUE(modem->readSizes().empty());
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(ModemDeviceFinderTest, FailedReadEndsThePortAtOnceWithTheCoolDown)
{
    board(1);
    auto modem = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"));
    modem->failReads(EIO);
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(modem->readSizes().size(), 1u);
    EXPECT_EQ(pauses(),
              (std::vector<Pause>{{"sleep", 2 * kSecond}, {"usleep", 200000}, {"sleep", 10 * kSecond}}));
    EXPECT_EQ(machine.clock().elapsed(), 12 * kSecond + 200000);
}

TEST_F(ModemDeviceFinderTest, SerialOptionsAreSetOnTheNodeBeforeTheDialogue)
{
    board(1);
    auto modem = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"));
    run();
    const struct termios& settings = modem->settings();
    EXPECT_EQ(settings.c_cflag, static_cast<tcflag_t>(0x880));
    EXPECT_EQ(settings.c_lflag, 0u);
    EXPECT_EQ(settings.c_oflag, 0u);
    EXPECT_EQ(settings.c_cc[VMIN], 0);
    EXPECT_EQ(settings.c_cc[VTIME], 10);
}

// --- PCI modems ------------------------------------------------------------------

TEST_F(ModemDeviceFinderTest, HsfNodeIsMatchedWithTheHsfPciModem)
{
    board(1);
    PirBuilder().entry(0, 10, 3).install(machine);
    inventory({{"00:0a.0", "0780", "14f1:2f10"}});
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    addSerialNode(machine, "/dev/ttySHSF0", 0x2f8, 3, answering("HSF Modem"));
    auto objects = run();
    // The entry leaves the list once matched: no unknown modem follows.
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), internal("/dev/ttySHSF0", "PCI Bus 0, Device 10, Function 0", "PCI Bus 0",
                                           "PCI Slot 3", "HSF Modem"));
    EXPECT_EQ(objects[0].getValue(), 0);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(ModemDeviceFinderTest, HcfNodeIsMatchedWithTheHcfPciModem)
{
    board(0);
    PirBuilder().entry(2, 4, 0).install(machine);
    inventory({{"02:04.1", "0703", "127a:1025"}});
    addSerialNode(machine, "/dev/ttySHCF0", 0x2f8, 3, answering("HCF Modem"));
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), internal("/dev/ttySHCF0", "PCI Bus 2, Device 4, Function 1", "PCI Bus 2",
                                           "Embedded", "HCF Modem"));
}

TEST_F(ModemDeviceFinderTest, MNodeIsMatchedWithTheMPciModem)
{
    board(0);
    inventory({{"00:0c.0", "0780", "14e4:4212"}});
    addSerialNode(machine, "/dev/ttySM0", 0x2f8, 3, answering("Soft Modem"));
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    // No $PIR table on this machine: the slot is empty.
    EXPECT_EQ(fields(objects[0]),
              internal("/dev/ttySM0", "PCI Bus 0, Device 12, Function 0", "PCI Bus 0", "", "Soft Modem"));
}

TEST_F(ModemDeviceFinderTest, PciModemWithoutAnsweringNodeIsAnUnknownModemWithValue50)
{
    board(0);
    PirBuilder().entry(0, 10, 2).install(machine);
    inventory({{"00:0a.0", "0780", "14f1:2f10"}});
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), unknown("PCI Bus 0, Device 10, Function 0", "PCI Bus 0", "PCI Slot 2"));
    EXPECT_EQ(objects[0].getValue(), 50);
}

TEST_F(ModemDeviceFinderTest, UnknownFamilyAlwaysEndsAsUnknownModem)
{
    board(0);
    inventory({{"00:0d.0", "0703", "8086:1080"}});
    addSerialNode(machine, "/dev/ttySHSF0", 0x2f8, 3, answering("HSF Modem"));
    auto objects = run();
    // The HSF node finds no HSF entry, so it gives nothing (and stays open).
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), unknown("PCI Bus 0, Device 13, Function 0", "PCI Bus 0", ""));
    EXPECT_EQ(objects[0].getValue(), 50);
}

TEST_F(ModemDeviceFinderTest, OtherPciClassesAreNoModems)
{
    board(0);
    inventory({{"00:0e.0", "0200", "14f1:2f10"}, {"00:0f.0", "0701", "127a:1025"}});
    EXPECT_TRUE(run().empty());
}

TEST_F(ModemDeviceFinderTest, UnknownModemsFollowTheAnsweredOnesInInventoryOrder)
{
    board(1);
    inventory({{"00:0a.0", "0780", "8086:1080"}, {"00:0b.0", "0703", "14f1:2f10"}, {"01:00.0", "0780", "14e4:4212"}});
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"));
    addSerialNode(machine, "/dev/ttySM0", 0x2f8, 3, answering("Soft Modem"));
    auto objects = run();
    ASSERT_EQ(objects.size(), 4u);
    // Walk order: ttySM0, then ttyS0 (alphasort puts ttyS0 first).
    EXPECT_EQ(fields(objects[0]),
              internal("/dev/ttySM0", "PCI Bus 1, Device 0, Function 0", "PCI Bus 1", "", "Soft Modem"));
    EXPECT_EQ(fields(objects[1]), external("/dev/ttyS0", "0", 0, "Modem A"));
    EXPECT_EQ(fields(objects[2]), unknown("PCI Bus 0, Device 10, Function 0", "PCI Bus 0", ""));
    EXPECT_EQ(fields(objects[3]), unknown("PCI Bus 0, Device 11, Function 0", "PCI Bus 0", ""));
    EXPECT_EQ(objects[2].getValue(), 50);
    EXPECT_EQ(objects[3].getValue(), 50);
}

TEST_F(ModemDeviceFinderTest, TwoModemsOfOneFamilyAreMatchedInListOrder)
{
    board(0);
    inventory({{"00:0a.0", "0780", "14f1:2f10"}, {"00:0b.0", "0780", "14f1:2f10"}});
    addSerialNode(machine, "/dev/ttySHSF0", 0x2f8, 3, answering("First"));
    addSerialNode(machine, "/dev/ttySHSF1", 0x3e8, 4, answering("Second"));
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    // ttySHSF1 is asked first and takes the first entry of the list.
    EXPECT_EQ(fields(objects[0]),
              internal("/dev/ttySHSF1", "PCI Bus 0, Device 10, Function 0", "PCI Bus 0", "", "Second"));
    EXPECT_EQ(fields(objects[1]),
              internal("/dev/ttySHSF0", "PCI Bus 0, Device 11, Function 0", "PCI Bus 0", "", "First"));
}

TEST_F(ModemDeviceFinderTest, FamilyIsFoundByLookingForTheIdTextInsideTheTable)
{
    // 14f1:2f is a piece of "14f1:2f10", and 7a:1025 of "127a:1025".
    board(0);
    inventory({{"00:0a.0", "0780", "14f1:002f"}, {"00:0b.0", "0780", "007a:1025"}});
    addSerialNode(machine, "/dev/ttySHSF0", 0x2f8, 3, answering("Piece H"));
    addSerialNode(machine, "/dev/ttySHCF0", 0x3e8, 4, answering("Piece C"));
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(fields(objects[0]),
              internal("/dev/ttySHSF0", "PCI Bus 0, Device 10, Function 0", "PCI Bus 0", "", "Piece H"));
    EXPECT_EQ(fields(objects[1]),
              internal("/dev/ttySHCF0", "PCI Bus 0, Device 11, Function 0", "PCI Bus 0", "", "Piece C"));
}

TEST_F(ModemDeviceFinderTest, InternalNodeWithoutPciMatchLeavesItsDescriptorOpenAndSkipsThePause)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    addSerialNode(machine, "/dev/ttyS2", 0x3e8, 4, answering("Stray Modem"));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(machine.openDescriptors(), (Fields{"/dev/ttyS2"}));
    // ttyS2 was spoken to in full, then left without the 10 s pause; ttyS0 is silent.
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"sleep", 2 * kSecond},
                                            {"usleep", 200000},
                                            {"usleep", 3000},
                                            {"usleep", 200000},
                                            {"usleep", 3000},
                                            {"usleep", 200000},
                                            {"usleep", 3000},
                                            {"usleep", 200000},
                                            {"usleep", 200000},
                                            {"sleep", 10 * kSecond}}));
}

TEST_F(ModemDeviceFinderTest, WithoutSerialConnectorsEveryModemIsInternal)
{
    board(0);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"));
    EXPECT_TRUE(run().empty());
    // The node was opened by the dialogue only.
    EXPECT_EQ(ttyOpens(), (Fields{"/dev/ttyS0"}));
    EXPECT_EQ(machine.openDescriptors(), (Fields{"/dev/ttyS0"}));
}

TEST_F(ModemDeviceFinderTest, PortListTakesUartsWhateverTheirIrqAndStopsAtTheCount)
{
    // ttyS0 (irq 0) fills the firmware's count of one, so the modem on ttyS1 is not external.
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 0);
    addSerialNode(machine, "/dev/ttyS1", 0x2f8, 3, answering("Modem B"));
    EXPECT_TRUE(run().empty());
    EXPECT_EQ(ttyOpens(), (Fields{"/dev/ttyS0", "/dev/ttyS1", "/dev/ttyS0"}));
    EXPECT_EQ(machine.openDescriptors(), (Fields{"/dev/ttyS1"}));
}

TEST_F(ModemDeviceFinderTest, UnmatchedPciModemsAreKeptBetweenRuns)
{
    board(0);
    inventory({{"00:0a.0", "0780", "14f1:2f10"}});
    auto first = run();
    ASSERT_EQ(first.size(), 1u);
    auto second = run();
    ASSERT_EQ(second.size(), 2u);
    EXPECT_EQ(fields(second[0]), unknown("PCI Bus 0, Device 10, Function 0", "PCI Bus 0", ""));
    EXPECT_EQ(fields(second[1]), unknown("PCI Bus 0, Device 10, Function 0", "PCI Bus 0", ""));
}

TEST_F(ModemDeviceFinderTest, EarlierContentOfTheVectorIsDestroyed)
{
    board(0);
    inventory({});
    std::vector<IWbemClassObject> objects;
    objects.emplace_back("old", "", "", "", "", "", "", "", "", "", "", "", "", 7);
    finder.getAllObjects(&pci, objects);
    EXPECT_TRUE(objects.empty());
}

TEST(ModemDeviceFinderListingTest, FailedListingSkipsTheWalkAndTheUnknownModems)
{
    smbios::SmbiosFactory::reset();
    UnlistableMachine machine;
    host::ScopedMachine scope{machine};
    SmbiosBuilder().system("Fake Server 100").port(8, 9).installSysfs(machine);
    ostrand_test::addLspci(machine, "00:0a.0 0780: 14f1:2f10\n",
                           "00:0a.0 \"Communication controller\" \"Maker\" \"Modem\"\n",
                           "00:0a.0 Communication controller: Maker Modem\n\n");
    PCIUtil pci;
    pci.initPciUtil();
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("Modem A"));
    ModemDeviceFinder finder;
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(&pci, objects);
    EXPECT_TRUE(objects.empty());
    EXPECT_TRUE(machine.writes().empty());
    ASSERT_EQ(machine.sleeps().size(), 1u);
    EXPECT_EQ(machine.sleeps()[0].microseconds, 2 * kSecond);
    smbios::SmbiosFactory::reset();
}

TEST_F(ModemDeviceFinderTest, FilterPassesNamesContainingTtySAnywhere)
{
    dirent plain = entryNamed("ttyS0");
    dirent inside = entryNamed("myttyS5x");
    dirent lower = entryNamed("ttys0");
    dirent other = entryNamed("tty0");
    dirent bare = entryNamed("ttyS");
    EXPECT_EQ(selecString(&plain), 1);
    EXPECT_EQ(selecString(&inside), 1);
    EXPECT_EQ(selecString(&lower), 0);
    EXPECT_EQ(selecString(&other), 0);
    EXPECT_EQ(selecString(&bare), 1);
}

TEST_F(ModemDeviceFinderTest, NodeWithTtySInsideItsNameIsSpokenTo)
{
    board(0);
    addSerialNode(machine, "/dev/myttyS5", 0x3f8, 4);
    machine.addNode("/dev/tty0", 'c', nullptr);
    run();
    EXPECT_EQ(ttyOpens(), (Fields{"/dev/myttyS5"}));
    EXPECT_EQ(writes(), (std::vector<std::pair<std::string, std::string>>{{"/dev/myttyS5", "ATZ\r"}}));
}

// --- The operations one by one -----------------------------------------------------

TEST_F(ModemDeviceFinderTest, SetSerialOptionsSetsLocalAndReadRawAndKeepsTheRest)
{
    static_assert((CLOCAL | CREAD) == 0x880, "flags to set");
    static_assert((ISIG | ICANON | ECHO | ECHOE) == 0x1B, "flags to clear");
    static_assert(OPOST == 1, "output processing");
    auto modem = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    struct termios seed;
    std::memset(&seed, 0, sizeof seed);
    seed.c_iflag = ICRNL | IXON;
    seed.c_oflag = OPOST | ONLCR;
    seed.c_cflag = B9600 | CS8 | HUPCL;
    seed.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
    seed.c_cc[VMIN] = 1;
    seed.c_cc[VTIME] = 0;
    seed.c_cc[VINTR] = 3;
    modem->tcsetattr(TCSANOW, &seed);

    int fd = machine.open("/dev/ttyS0", O_RDWR | O_NONBLOCK, 0);
    EXPECT_EQ(finder.setSerialOptions(fd), 0);
    const struct termios& s = modem->settings();
    EXPECT_EQ(s.c_iflag, static_cast<tcflag_t>(ICRNL | IXON));
    EXPECT_EQ(s.c_oflag, static_cast<tcflag_t>(ONLCR));
    EXPECT_EQ(s.c_cflag, static_cast<tcflag_t>(B9600 | CS8 | HUPCL | CLOCAL | CREAD));
    EXPECT_EQ(s.c_lflag, static_cast<tcflag_t>(ECHOK | IEXTEN));
    EXPECT_EQ(s.c_cc[VMIN], 0);
    EXPECT_EQ(s.c_cc[VTIME], 10);
    EXPECT_EQ(s.c_cc[VINTR], 3);
    EXPECT_EQ(cfgetospeed(&s), static_cast<speed_t>(B9600));
    EXPECT_TRUE(machine.writes().empty());
    machine.close(fd);
}

TEST_F(ModemDeviceFinderTest, SetSerialOptionsGivesTheResultOfTcsetattr)
{
    machine.addNode("/dev/ttyS0", 'c', nullptr);
    int fd = machine.open("/dev/ttyS0", O_RDWR, 0);
    EXPECT_EQ(finder.setSerialOptions(fd), -1);
    machine.close(fd);
}

TEST_F(ModemDeviceFinderTest, QueryModemAnswers)
{
    auto modem = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4,
                               "> ATZ\\r\n< ATZ\\r\\r\\nOK\\r\\n\n"
                               "> ATI3\\r\n< \\r\\nERROR\\r\\n\n"
                               "> ATX\\r\n< garbage\n");
    int fd = machine.open("/dev/ttyS0", O_RDWR | O_NONBLOCK, 0);
    char reply[100];
    EXPECT_EQ(finder.queryModem(fd, "ATZ\r", reply), 0);
    EXPECT_STREQ(reply, "ATZ\r\r\nOK\r\n");
    EXPECT_EQ(finder.queryModem(fd, "ATI3\r", reply), 0);
    EXPECT_STREQ(reply, "\r\nERROR\r\n");
    // Text without OK or ERROR is read over and the wait goes on to the time-out.
    EXPECT_EQ(finder.queryModem(fd, "ATX\r", reply), -1);
    EXPECT_STREQ(reply, "");
    EXPECT_EQ(writes(), (std::vector<std::pair<std::string, std::string>>{
                            {"/dev/ttyS0", "ATZ\r"}, {"/dev/ttyS0", "ATI3\r"}, {"/dev/ttyS0", "ATX\r"}}));
    EXPECT_EQ(modem->arrivals().size(), 3u);
    machine.close(fd);
}

TEST_F(ModemDeviceFinderTest, QueryModemTimeOutHasOneSecondResolution)
{
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    int fd = machine.open("/dev/ttyS0", O_RDWR | O_NONBLOCK, 0);
    char reply[100];
    // Started on a whole second: exactly ten seconds.
    int64_t before = machine.clock().elapsed();
    EXPECT_EQ(finder.queryModem(fd, "ATZ\r", reply), -1);
    EXPECT_EQ(machine.clock().elapsed() - before, 10 * kSecond);
    // Started 0.95 s into a second: time() reaches start + 10 after 9.1 s.
    machine.clock().advance(950000);
    before = machine.clock().elapsed();
    EXPECT_EQ(finder.queryModem(fd, "ATZ\r", reply), -1);
    EXPECT_EQ(machine.clock().elapsed() - before, 9 * kSecond + 100000);
    machine.close(fd);
}

TEST_F(ModemDeviceFinderTest, QueryModemGivesErrnoOfAFailedWriteOrRead)
{
    auto writeFails = addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, answering("A"));
    auto readFails = addSerialNode(machine, "/dev/ttyS1", 0x2f8, 3, answering("B"));
    writeFails->failWrites(EIO);
    readFails->failReads(ENXIO);
    char reply[100];
    int fd0 = machine.open("/dev/ttyS0", O_RDWR | O_NONBLOCK, 0);
    int fd1 = machine.open("/dev/ttyS1", O_RDWR | O_NONBLOCK, 0);
    EXPECT_EQ(finder.queryModem(fd0, "ATZ\r", reply), EIO);
    EXPECT_EQ(finder.queryModem(fd1, "ATZ\r", reply), ENXIO);
    EXPECT_EQ(pauses(), (std::vector<Pause>{{"usleep", 200000}}));
    machine.close(fd0);
    machine.close(fd1);
}

TEST_F(ModemDeviceFinderTest, FilterResponseKeepsTheFirstLine)
{
    auto filtered = [this](const std::string& text) {
        char reply[100];
        std::memset(reply, 0, sizeof reply);
        std::strncpy(reply, text.c_str(), sizeof reply - 1);
        finder.filterResponse(reply);
        return std::string(reply);
    };
    EXPECT_EQ(filtered("\r\nLabModem 56K V.92 External\r\n\r\nOK\r\n"), "LabModem 56K V.92 External");
    EXPECT_EQ(filtered("OK"), "");
    EXPECT_EQ(filtered("\r\nOK\r\n"), "");
    EXPECT_EQ(filtered("\r\n\n\r"), "");
    EXPECT_EQ(filtered(""), "");
    EXPECT_EQ(filtered("Modem"), "Modem");
    EXPECT_EQ(filtered("Modem OK"), "Modem ");
    EXPECT_EQ(filtered("ab\rcd\nef"), "ab");
    EXPECT_EQ(filtered("ab\ncd\ref"), "ab");
    EXPECT_EQ(filtered("ERROR"), "ERROR");
    EXPECT_EQ(filtered(" \r\nModem"), " ");
}

TEST_F(ModemDeviceFinderTest, IsModemExternalTestsContainmentAndIgnoresTheCount)
{
    std::vector<std::string> ports = {"/dev/ttyS1"};
    std::string ten = "/dev/ttyS10";
    std::string one = "/dev/ttyS1";
    std::string two = "/dev/ttyS2";
    std::string hsf = "/dev/ttySHSF1";
    EXPECT_TRUE(finder.isModemExternal(ten, 0, ports));
    EXPECT_TRUE(finder.isModemExternal(one, 99, ports));
    EXPECT_FALSE(finder.isModemExternal(two, 1, ports));
    EXPECT_FALSE(finder.isModemExternal(hsf, 1, ports));
    std::vector<std::string> none;
    EXPECT_FALSE(finder.isModemExternal(one, 5, none));
}

TEST_F(ModemDeviceFinderTest, MatchModemLocationUsesAnEntryOnceAndLeavesSlotAloneWithoutMatch)
{
    board(0);
    PirBuilder().entry(0, 10, 6).install(machine);
    inventory({{"00:0a.0", "0780", "127a:1025"}});
    run(); // leaves the unmatched entry in the list
    std::string slot = "before";
    EXPECT_EQ(finder.matchModemLocation("/dev/ttySHSF0", slot), "");
    EXPECT_EQ(slot, "before");
    EXPECT_EQ(finder.matchModemLocation("/dev/ttySHCF3", slot), "PCI Bus 0, Device 10, Function 0");
    EXPECT_EQ(slot, "PCI Slot 6");
    slot = "again";
    EXPECT_EQ(finder.matchModemLocation("/dev/ttySHCF3", slot), "");
    EXPECT_EQ(slot, "again");
    EXPECT_EQ(finder.getUnknownModem(0), nullptr);
}

TEST_F(ModemDeviceFinderTest, GetUnknownModemBuildsTheRecordOfAnEntry)
{
    board(0);
    PirBuilder().entry(3, 1, 0).install(machine);
    inventory({{"03:01.2", "0703", "14e4:4212"}});
    run();
    IWbemClassObject* record = finder.getUnknownModem(0);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(fields(*record), unknown("PCI Bus 3, Device 1, Function 2", "PCI Bus 3", "Embedded"));
    EXPECT_EQ(record->getValue(), 50);
    delete record;
    EXPECT_EQ(finder.getUnknownModem(1), nullptr);
    EXPECT_EQ(finder.getUnknownModem(-1), nullptr);
}

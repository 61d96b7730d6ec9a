#include "finders/SerialPortFinder.h"
#include "host/fake/FakeMachine.h"
#include "platform/smbios/SmbiosFactory.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"
#include "tests/support/Modems.h"

#include <gtest/gtest.h>

#include <linux/serial.h>
#include <sys/ioctl.h>

using namespace Vantrel::Ostrand;
using ostrand_test::addSerialNode;
using ostrand_test::fields;
using ostrand_test::SmbiosBuilder;

namespace {

using Fields = std::vector<std::string>;

Fields verified(int number, const std::string& path, int port, int irq, const std::string& description)
{
    std::string n = std::to_string(number);
    return {"SERIAL_PORT_" + n, "", path, description, "Serial Port " + n, "Serial Port " + n,
            "System Board!ISA Bus", "", "", "", "", "",
            "Communication Port, " + path + ", Port Addr: " + std::to_string(port) + ", irq: " + std::to_string(irq)};
}

Fields placeholder(int number, const std::string& description)
{
    std::string n = std::to_string(number);
    return {"SERIAL_PORT_" + n, "", "", description, "Serial Port " + n, "Serial Port " + n,
            "System Board!ISA Bus", "", "", "", "", "", "Communication Port"};
}

class SerialPortFinderTest : public ::testing::Test {
protected:
    void SetUp() override { smbios::SmbiosFactory::reset(); }
    void TearDown() override { smbios::SmbiosFactory::reset(); }

    // A board with `serial` connectors of port type 9 and one parallel connector.
    void board(int serial, uint8_t portType = 9)
    {
        SmbiosBuilder builder;
        builder.system("Fake Server 100");
        for (int i = 0; i < serial; ++i) {
            builder.port(8, portType);
        }
        builder.port(5, 5);
        builder.installSysfs(machine);
    }

    std::vector<IWbemClassObject> run()
    {
        std::vector<IWbemClassObject> objects;
        finder.getAllObjects(nullptr, objects);
        return objects;
    }

    // The opens of /dev/ttyS* nodes, in order.
    std::vector<std::string> ttyOpens() const
    {
        std::vector<std::string> result;
        for (const auto& path : machine.opens()) {
            if (path.compare(0, 9, "/dev/ttyS") == 0) {
                result.push_back(path);
            }
        }
        return result;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    SerialPortFinder finder;
};

} // namespace

TEST_F(SerialPortFinderTest, NoSerialConnectorTouchesNoNodeAndGivesNoRecord)
{
    board(0);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    EXPECT_TRUE(run().empty());
    EXPECT_TRUE(ttyOpens().empty());
    EXPECT_TRUE(machine.ioctls().empty());
}

TEST_F(SerialPortFinderTest, TwoLivePortsGiveTwoVerifiedRecordsInNodeOrder)
{
    board(2);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    addSerialNode(machine, "/dev/ttyS1", 0x2f8, 3);
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(fields(objects[0]), verified(0, "/dev/ttyS0", 1016, 4, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(objects[0].getValue(), 0);
    EXPECT_EQ(fields(objects[1]), verified(1, "/dev/ttyS1", 760, 3, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(objects[1].getValue(), 0);
}

TEST_F(SerialPortFinderTest, ExampleTextOfTheAdditionalInfo)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 1016, 4);
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(ostrand_test::field(objects[0], "DeviceAdditionalHWInfo"),
              "Communication Port, /dev/ttyS0, Port Addr: 1016, irq: 4");
}

TEST_F(SerialPortFinderTest, FirstPassStopsWhenTheCountIsReached)
{
    board(2);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    addSerialNode(machine, "/dev/ttyS1", 0x2f8, 3);
    addSerialNode(machine, "/dev/ttyS2", 0x3e8, 4);
    run();
    EXPECT_EQ(ttyOpens(), (std::vector<std::string>{"/dev/ttyS0", "/dev/ttyS1"}));
}

TEST_F(SerialPortFinderTest, NodesAreOpenedNonBlockingAndQueriedWithTiocgserialThenClosed)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    run();
    ASSERT_EQ(machine.ioctls().size(), 1u);
    EXPECT_EQ(machine.ioctls()[0].path, "/dev/ttyS0");
    EXPECT_EQ(machine.ioctls()[0].request, static_cast<unsigned long>(TIOCGSERIAL));
    EXPECT_EQ(machine.ioctls()[0].request, 0x541Eul);
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_TRUE(machine.writes().empty());
}

TEST_F(SerialPortFinderTest, OnlyNodeOneLiveGivesAVerifiedRecordZeroThenPlaceholderOne)
{
    board(2);
    addSerialNode(machine, "/dev/ttyS1", 0x2f8, 3);
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(fields(objects[0]), verified(0, "/dev/ttyS1", 760, 3, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(objects[0].getValue(), 0);
    EXPECT_EQ(fields(objects[1]), placeholder(1, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(objects[1].getValue(), 1);
    // The first pass went through all 32 node numbers looking for the second port.
    EXPECT_EQ(ttyOpens().size(), 32u);
    EXPECT_EQ(ttyOpens().back(), "/dev/ttyS31");
}

TEST_F(SerialPortFinderTest, PortAtIrqFiveIsNotVerifiedButBecomesAPlaceholder)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 5);
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), placeholder(0, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(objects[0].getValue(), 1);
}

TEST_F(SerialPortFinderTest, PortWithUartTypeZeroIsNotVerified)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4, "", 0);
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), placeholder(0, "SERIAL_PORT_DESC3"));
}

TEST_F(SerialPortFinderTest, NodeThatRefusesTheIoctlIsNotVerified)
{
    board(1);
    machine.addNode("/dev/ttyS0", 'c', nullptr);
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].getValue(), 1);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(SerialPortFinderTest, NodeThatCannotBeOpenedIsNotVerified)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    machine.denyOpen("/dev/ttyS0", EACCES);
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), placeholder(0, "SERIAL_PORT_DESC3"));
}

TEST_F(SerialPortFinderTest, ThreePortsAndNoNodesGiveThreePlaceholders)
{
    board(3);
    auto objects = run();
    ASSERT_EQ(objects.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(fields(objects[i]), placeholder(i, "SERIAL_PORT_DESC3"));
        EXPECT_EQ(objects[i].getValue(), 1);
    }
}

TEST_F(SerialPortFinderTest, ThirtyTwoNodesWithWrongIrqAreAllOpenedThenOnePlaceholder)
{
    board(1);
    for (int i = 0; i < 32; ++i) {
        addSerialNode(machine, "/dev/ttyS" + std::to_string(i), 0x100 + i, 7);
    }
    addSerialNode(machine, "/dev/ttyS32", 0x3f8, 4);
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), placeholder(0, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(ttyOpens().size(), 32u);
    EXPECT_EQ(machine.ioctls().size(), 32u);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(SerialPortFinderTest, VerifiedPortsComeFirstThenPlaceholdersNumberedOn)
{
    board(3);
    addSerialNode(machine, "/dev/ttyS0", 0x3e8, 5);
    addSerialNode(machine, "/dev/ttyS4", 0x2e8, 3);
    auto objects = run();
    ASSERT_EQ(objects.size(), 3u);
    EXPECT_EQ(fields(objects[0]), verified(0, "/dev/ttyS4", 744, 3, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(fields(objects[1]), placeholder(1, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(fields(objects[2]), placeholder(2, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(objects[0].getValue(), 0);
    EXPECT_EQ(objects[1].getValue(), 1);
    EXPECT_EQ(objects[2].getValue(), 1);
}

TEST_F(SerialPortFinderTest, AllPortsCarryTheDescriptionOfTheLastConnectorCounted)
{
    SmbiosBuilder().system("Fake Server 100").port(8, 7).port(8, 8).installSysfs(machine);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(fields(objects[0]), verified(0, "/dev/ttyS0", 1016, 4, "SERIAL_PORT_DESC2"));
    EXPECT_EQ(fields(objects[1]), placeholder(1, "SERIAL_PORT_DESC2"));
}

TEST_F(SerialPortFinderTest, MoreConnectorsThanNodeNumbersEndWithThe32Positions)
{
    board(40);
    auto objects = run();
    ASSERT_EQ(objects.size(), 32u);
    EXPECT_EQ(fields(objects[31]), placeholder(31, "SERIAL_PORT_DESC3"));
}

TEST_F(SerialPortFinderTest, EarlierContentOfTheVectorIsReplaced)
{
    board(1);
    addSerialNode(machine, "/dev/ttyS0", 0x3f8, 4);
    std::vector<IWbemClassObject> objects;
    objects.emplace_back("old", "", "", "", "", "", "", "", "", "", "", "", "", 9);
    finder.getAllObjects(nullptr, objects);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), verified(0, "/dev/ttyS0", 1016, 4, "SERIAL_PORT_DESC3"));
    // A second run gives the same again, not more.
    finder.getAllObjects(nullptr, objects);
    ASSERT_EQ(objects.size(), 1u);
}

TEST_F(SerialPortFinderTest, LabServerCapturesGiveTwoVerifiedPorts)
{
    ostrand_test::addLabServerSmbios(machine);
    ostrand_test::addLabServerSerialPorts(machine);
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(fields(objects[0]), verified(0, "/dev/ttyS0", 1016, 4, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(fields(objects[1]), verified(1, "/dev/ttyS1", 760, 3, "SERIAL_PORT_DESC3"));
    EXPECT_EQ(objects[0].getValue(), 0);
    EXPECT_EQ(objects[1].getValue(), 0);
    // The modem on ttyS0 is not spoken to.
    EXPECT_TRUE(machine.writes().empty());
}

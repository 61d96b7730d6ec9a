#include "finders/ParallelPortFinder.h"
#include "host/fake/FakeMachine.h"
#include "platform/smbios/SmbiosFactory.h"
#include "tests/support/Firmware.h"
#include "tests/support/Machines.h"
#include "tests/support/Modems.h"

#include <gtest/gtest.h>

using namespace Vantrel::Ostrand;
using ostrand_test::fields;
using ostrand_test::SmbiosBuilder;

namespace {

using Fields = std::vector<std::string>;

Fields expected(int number, const std::string& description)
{
    std::string n = std::to_string(number);
    return {"PARALLEL_PORT_" + n, "", "/dev/lp" + n, description, "Parallel Port " + n, "Parallel Port " + n,
            "System Board!ISA Bus", "", "", "", "", "", "Embedded"};
}

class ParallelPortFinderTest : public ::testing::Test {
protected:
    void SetUp() override { smbios::SmbiosFactory::reset(); }
    void TearDown() override { smbios::SmbiosFactory::reset(); }

    std::vector<IWbemClassObject> run()
    {
        std::vector<IWbemClassObject> objects;
        finder.getAllObjects(nullptr, objects);
        return objects;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    ParallelPortFinder finder;
};

} // namespace

TEST_F(ParallelPortFinderTest, NoParallelConnectorGivesNoRecord)
{
    SmbiosBuilder().system("Fake Server 100").port(8, 9).port(8, 9).installSysfs(machine);
    std::vector<IWbemClassObject> objects;
    objects.emplace_back("old", "", "", "", "", "", "", "", "", "", "", "", "", 0);
    finder.getAllObjects(nullptr, objects);
    EXPECT_TRUE(objects.empty());
}

TEST_F(ParallelPortFinderTest, TwoPortsGiveTwoRecordsNumberedZeroAndOneWhetherOrNotTheNodesExist)
{
    SmbiosBuilder().system("Fake Server 100").port(5, 5).port(5, 5).installSysfs(machine);
    machine.addNode("/dev/lp0", 'c', nullptr);
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(fields(objects[0]), expected(0, "PARALLEL_PORT_DESC4"));
    EXPECT_EQ(fields(objects[1]), expected(1, "PARALLEL_PORT_DESC4"));
    EXPECT_EQ(objects[0].getValue(), 0);
    EXPECT_EQ(objects[1].getValue(), 0);
    // No node is opened.
    for (const auto& path : machine.opens()) {
        EXPECT_NE(path.compare(0, 7, "/dev/lp"), 0) << path;
    }
    EXPECT_TRUE(machine.ioctls().empty());
}

TEST_F(ParallelPortFinderTest, AdditionalInfoIsAlwaysEmbedded)
{
    SmbiosBuilder().system("Fake Server 100").port(0, 1).port(5, 2).port(5, 3).installSysfs(machine);
    auto objects = run();
    ASSERT_EQ(objects.size(), 3u);
    for (auto& object : objects) {
        EXPECT_EQ(ostrand_test::field(object, "DeviceAdditionalHWInfo"), "Embedded");
    }
}

TEST_F(ParallelPortFinderTest, AllPortsCarryTheDescriptionOfTheLastConnectorCounted)
{
    SmbiosBuilder().system("Fake Server 100").port(5, 1).port(8, 9).port(5, 3).installSysfs(machine);
    auto objects = run();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(fields(objects[0]), expected(0, "PARALLEL_PORT_DESC2"));
    EXPECT_EQ(fields(objects[1]), expected(1, "PARALLEL_PORT_DESC2"));
}

TEST_F(ParallelPortFinderTest, LabServerCaptureGivesOneEcpPort)
{
    ostrand_test::addLabServerSmbios(machine);
    auto objects = run();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), expected(0, "PARALLEL_PORT_DESC4"));
    EXPECT_EQ(objects[0].getValue(), 0);
}

TEST_F(ParallelPortFinderTest, SecondRunReplacesTheFirst)
{
    SmbiosBuilder().system("Fake Server 100").port(5, 5).installSysfs(machine);
    std::vector<IWbemClassObject> objects;
    finder.getAllObjects(nullptr, objects);
    finder.getAllObjects(nullptr, objects);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(fields(objects[0]), expected(0, "PARALLEL_PORT_DESC4"));
}

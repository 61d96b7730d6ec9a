#include "frame/CWmiInfo.h"
#include "host/fake/FakeMachine.h"
#include "tests/support/Machines.h"

#include <gtest/gtest.h>

#include <memory>

using namespace Vantrel::Ostrand;
using ostrand_test::field;
using ostrand_test::fields;

namespace {

IWbemClassObject record(const std::string& name, int value = 0)
{
    return IWbemClassObject(name, "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", value);
}

// A finder that appends the records it was given.
class ListFinder : public IDeviceFinder {
public:
    explicit ListFinder(std::vector<std::string> names) : m_names(std::move(names)) {}
    void getAllObjects(PCIUtil*, std::vector<IWbemClassObject>& objects) override
    {
        objects.clear();
        for (const auto& name : m_names) {
            IWbemClassObject* object = new IWbemClassObject(record(name));
            objects.push_back(*object);
            delete object;
        }
    }

private:
    std::vector<std::string> m_names;
};

class FacadeTest : public ::testing::Test {
protected:
    void SetUp() override { ostrand_test::addLabServerLspci(machine); }
    void TearDown() override
    {
        if (CWmiInfo::_CWmiInfoInstance != nullptr) {
            CWmiInfo::_CWmiInfoInstance->freeEnumerateDeviceHandle();
        }
    }
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
};

} // namespace

TEST(RecordTest, HoldsTheThirteenKeysInConstructorOrder)
{
    IWbemClassObject r("1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", 14);
    std::vector<std::string> expected = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13"};
    EXPECT_EQ(fields(r), expected);
    EXPECT_EQ(r.getValue(), 14);
}

TEST(RecordTest, AllEmptyGivesEmptyValuesAndReplacesWhatValueHeld)
{
    IWbemClassObject r("", "", "", "", "", "", "", "", "", "", "", "", "", 0);
    for (const char* key : ostrand_test::kKeys) {
        std::string value = "previous";
        r.getValue(key, value);
        EXPECT_EQ(value, "") << key;
    }
}

TEST(RecordTest, KeysAreCaseSensitive)
{
    IWbemClassObject r = record("a");
    EXPECT_EQ(field(r, "DeviceresourceTag"), "f");
    EXPECT_EQ(field(r, "DeviceResourceTag"), "");
    EXPECT_EQ(field(r, "devicename"), "");
}

TEST(RecordTest, IntegerSurvivesCopyAndAssignment)
{
    IWbemClassObject a = record("a", 50);
    IWbemClassObject b(a);
    IWbemClassObject c = record("c", 1);
    c = a;
    EXPECT_EQ(b.getValue(), 50);
    EXPECT_EQ(c.getValue(), 50);
    EXPECT_EQ(field(c, "DeviceName"), "a");
}

TEST(RecordTest, CopiesAreIndependent)
{
    std::vector<IWbemClassObject> v;
    {
        auto* source = new IWbemClassObject(record("kept", 7));
        v.push_back(*source);
        delete source;
    }
    EXPECT_EQ(field(v[0], "DeviceName"), "kept");
    EXPECT_EQ(v[0].getValue(), 7);
}

TEST_F(FacadeTest, NextOnAFreshInstanceReturnsZeroAndStoresNull)
{
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    IWbemClassObject* object = reinterpret_cast<IWbemClassObject*>(0x1);
    EXPECT_EQ(info->Next(0, 0, object), 0);
    EXPECT_EQ(object, nullptr);
}

TEST_F(FacadeTest, AFinderThatFindsNothingOnAFreshInstanceGivesANullHandle)
{
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    ListFinder none({});
    EXPECT_EQ(info->getEnumerateDeviceHandle(&none), nullptr);
    IWbemClassObject* object = nullptr;
    EXPECT_EQ(info->Next(0, 0, object), 0);
}

TEST_F(FacadeTest, AFinderThatFindsNothingAfterRecordsGivesAHandleButNoRecord)
{
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    ListFinder some({"a", "b"});
    ListFinder none({});
    info->getEnumerateDeviceHandle(&some);
    EXPECT_NE(info->getEnumerateDeviceHandle(&none), nullptr);
    IWbemClassObject* object = nullptr;
    EXPECT_EQ(info->Next(0, 0, object), 0);
    EXPECT_EQ(object, nullptr);
}

TEST_F(FacadeTest, NextHandsOutTheRecordsInOrderThenStaysAtTheEnd)
{
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    ListFinder finder({"first", "second"});
    IWbemClassObject* handle = info->getEnumerateDeviceHandle(&finder);
    IWbemClassObject* object = nullptr;
    ASSERT_EQ(info->Next(0, 0, object), 1);
    EXPECT_EQ(object, handle);
    EXPECT_EQ(field(*object, "DeviceName"), "first");
    ASSERT_EQ(info->Next(5, 7, object), 1); // the two integers are ignored
    EXPECT_EQ(field(*object, "DeviceName"), "second");
    EXPECT_EQ(info->Next(5, 7, object), 0);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(info->Next(0, 0, object), 0);
}

TEST_F(FacadeTest, NextWithOtherIntegersBehavesAsWithZeros)
{
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    ListFinder finder({"a", "b", "c"});
    std::vector<std::string> withZeros, withOthers;
    IWbemClassObject* object = nullptr;
    info->getEnumerateDeviceHandle(&finder);
    while (info->Next(0, 0, object) == 1) {
        withZeros.push_back(field(*object, "DeviceName"));
    }
    info->getEnumerateDeviceHandle(&finder);
    while (info->Next(5, 7, object) == 1) {
        withOthers.push_back(field(*object, "DeviceName"));
    }
    EXPECT_EQ(withZeros, withOthers);
    EXPECT_EQ(withZeros.size(), 3u);
}

TEST_F(FacadeTest, ASecondEnumerationStartsFromItsOwnFirstRecord)
{
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    ListFinder first({"a", "b", "c"});
    ListFinder second({"x"});
    IWbemClassObject* object = nullptr;
    info->getEnumerateDeviceHandle(&first);
    info->Next(0, 0, object);
    info->getEnumerateDeviceHandle(&second);
    ASSERT_EQ(info->Next(0, 0, object), 1);
    EXPECT_EQ(field(*object, "DeviceName"), "x");
    EXPECT_EQ(info->Next(0, 0, object), 0);
}

TEST_F(FacadeTest, TheSingletonReadsLspciOncePerLife)
{
    CWmiInfo* a = CWmiInfo::getCWMIInfoInstance();
    CWmiInfo* b = CWmiInfo::getCWMIInfoInstance();
    EXPECT_EQ(a, b);
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciN), 1);
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciM), 1);
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciV), 1);
    a->freeEnumerateDeviceHandle();
    EXPECT_EQ(CWmiInfo::_CWmiInfoInstance, nullptr);
    CWmiInfo::getCWMIInfoInstance();
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciN), 2);
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciM), 2);
    EXPECT_EQ(machine.timesRun(ostrand_test::kLspciV), 2);
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(FacadeTest, SetLogFileChangesNoRecordAndWritesNothing)
{
    CWmiInfo* info = CWmiInfo::getCWMIInfoInstance();
    ListFinder finder({"a"});
    std::ofstream log("/dev/null");
    std::ofstream* before = pLogFile;
    info->setLogFile(log);
    EXPECT_EQ(pLogFile, &log);
    info->getEnumerateDeviceHandle(&finder);
    IWbemClassObject* object = nullptr;
    ASSERT_EQ(info->Next(0, 0, object), 1);
    EXPECT_EQ(fields(*object), fields(*std::make_unique<IWbemClassObject>(record("a"))));
    EXPECT_EQ(log.tellp(), 0);
    pLogFile = before;
}

TEST_F(FacadeTest, PLogFileSurvivesIntoTheNextInstance)
{
    std::ofstream log("/dev/null");
    std::ofstream* before = pLogFile;
    CWmiInfo::getCWMIInfoInstance()->setLogFile(log);
    CWmiInfo::getCWMIInfoInstance()->freeEnumerateDeviceHandle();
    CWmiInfo::getCWMIInfoInstance();
    EXPECT_EQ(pLogFile, &log);
    pLogFile = before;
}

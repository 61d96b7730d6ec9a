// The general operations of the toolbox: text building, hexadecimal and PCI
// address reading, device nodes under /dev/, and the port type table.
#include "host/fake/FakeMachine.h"
#include "probes/LinuxUtils.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

struct Address {
    int bus;
    int device;
    int function;
    bool operator==(const Address& other) const
    {
        return bus == other.bus && device == other.device && function == other.function;
    }
};

std::ostream& operator<<(std::ostream& out, const Address& a)
{
    return out << a.bus << "/" << a.device << "/" << a.function;
}

Address extract(const std::string& text)
{
    LinuxUtils utils;
    Address a{-1, -1, -1};
    utils.extractBusDevFn(text, a.bus, a.device, a.function);
    return a;
}

// The names of a scandir list, which is then freed as the caller must.
std::vector<std::string> namesAndFree(dirent** list, int count)
{
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.push_back(list[i]->d_name);
        std::free(list[i]);
    }
    std::free(list);
    return names;
}

dirent entry(const char* name, unsigned char type)
{
    dirent d;
    std::memset(&d, 0, sizeof d);
    std::strncpy(d.d_name, name, sizeof d.d_name - 1);
    d.d_type = type;
    return d;
}

class LinuxUtilsNodesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        machine.addNode("/dev/sda", 'b', nullptr);
        machine.addLink("/dev/sdb");
        machine.addNode("/dev/sg2", 'c', nullptr);
        machine.addNode("/dev/sg10", 'c', nullptr);
        machine.addNode("/dev/sg1", 'c', nullptr);
        machine.addNode("/dev/ttyS0", 'c', nullptr);
        machine.addLink("/dev/cdrom");
        machine.addDirectory("/dev/bus");
        machine.addFile("/dev/sdfile", "");
    }
    void TearDown() override { c_pNodeStr = m_savedPrefix; }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    LinuxUtils utils;
    const char* m_savedPrefix = c_pNodeStr;
};

} // namespace

// --- toString -------------------------------------------------------------------------

TEST(LinuxUtilsTest, ToStringSlotExample)
{
    LinuxUtils utils;
    EXPECT_EQ(utils.toString("sd", "PCI Slot ", 3), "PCI Slot 3");
}

TEST(LinuxUtilsTest, ToStringLiteralsAreArgumentsNotFormatText)
{
    LinuxUtils utils;
    EXPECT_EQ(utils.toString("sdsdsd", "PCI Bus ", 1, ", Device ", 31, ", Function ", 2),
              "PCI Bus 1, Device 31, Function 2");
    // A letter inside a literal argument is no format letter.
    EXPECT_EQ(utils.toString("s", "%d dsc"), "%d dsc");
}

TEST(LinuxUtilsTest, ToStringEveryFormatInUse)
{
    LinuxUtils utils;
    EXPECT_EQ(utils.toString("s", "Embedded"), "Embedded");
    EXPECT_EQ(utils.toString("d", 42), "42");
    EXPECT_EQ(utils.toString("ds", 3, " Ports"), "3 Ports");
    EXPECT_EQ(utils.toString("sc", "/dev/hd", 'a'), "/dev/hda");
    EXPECT_EQ(utils.toString("dc", 7, '!'), "7!");
    EXPECT_EQ(utils.toString("ssc", "/dev/", "sd", 'b'), "/dev/sdb");
    EXPECT_EQ(utils.toString("ssdsd", "USB", " Bus ", 2, ", Port ", 4), "USB Bus 2, Port 4");
    EXPECT_EQ(utils.toString("dsdsdsd", 1, ":", 0, ":", 2, ":", 0), "1:0:2:0");
    EXPECT_EQ(utils.toString("sdsdsdsd", "SCSI Bus ", 0, ", Target ", 2, ", LUN ", 0, ", Host ", 3),
              "SCSI Bus 0, Target 2, LUN 0, Host 3");
}

TEST(LinuxUtilsTest, ToStringNegativeNumbersHaveAMinusSign)
{
    LinuxUtils utils;
    EXPECT_EQ(utils.toString("d", -1), "-1");
    EXPECT_EQ(utils.toString("sd", "x", -2147483647 - 1), "x-2147483648");
}

TEST(LinuxUtilsTest, ToStringOtherLettersTakeNoArgumentAndAddNothing)
{
    LinuxUtils utils;
    EXPECT_EQ(utils.toString("sxd", "a", 5), "a5");
    EXPECT_EQ(utils.toString("x%y d", 9), "9");
    EXPECT_EQ(utils.toString("S", "ignored"), "");
}

TEST(LinuxUtilsTest, ToStringEmptyFormatGivesTheEmptyString)
{
    LinuxUtils utils;
    EXPECT_EQ(utils.toString(""), "");
    EXPECT_EQ(utils.toString("", "unused", 1), "");
}

// --- extractBusDevFn --------------------------------------------------------------------

TEST(LinuxUtilsTest, ExtractBusDevFnReadsHexadecimalParts)
{
    EXPECT_EQ(extract("00:1f.2"), (Address{0, 31, 2}));
    EXPECT_EQ(extract("0000:0a:03.1"), (Address{10, 3, 1}));
    EXPECT_EQ(extract("ff:1f.7"), (Address{255, 31, 7}));
}

TEST(LinuxUtilsTest, ExtractBusDevFnWithAndWithoutDomainGiveTheSameNumbers)
{
    EXPECT_EQ(extract("0000:0a:03.1"), extract("0a:03.1"));
    EXPECT_EQ(extract("0000:00:1f.2"), extract("00:1f.2"));
}

TEST(LinuxUtilsTest, ExtractBusDevFnShortDomainCutsTheWorkingText)
{
    // The working text is as long as the position of the last colon: only a
    // four-digit domain reaches the end. Here it is 0a:0.
    EXPECT_EQ(extract("1:0a:03.1"), (Address{10, 0, 10}));
}

TEST(LinuxUtilsTest, ExtractBusDevFnTakesTheWholeTextWhereAColonOrPointIsMissing)
{
    // No colon: the bus reading takes the whole text.
    EXPECT_EQ(extract("1f.2"), (Address{31, 31, 2}));
    // No point: the function reading takes the whole text.
    EXPECT_EQ(extract("0a:03"), (Address{10, 3, 10}));
}

TEST(LinuxUtilsTest, ExtractBusDevFnOfUnreadableTextDoesNotThrow)
{
    EXPECT_NO_THROW(extract(""));
    EXPECT_NO_THROW(extract(":"));
    EXPECT_NO_THROW(extract("::."));
    EXPECT_NO_THROW(extract("sh: /sbin/"));
}

// --- fromHexToInt ---------------------------------------------------------------------

TEST(LinuxUtilsTest, FromHexToIntReadsAsStreamExtractionDoes)
{
    LinuxUtils utils;
    EXPECT_EQ(utils.fromHexToInt("27c0"), 0x27C0);
    EXPECT_EQ(utils.fromHexToInt("27C0"), 0x27C0);
    EXPECT_EQ(utils.fromHexToInt("0c03"), 0x0C03);
    EXPECT_EQ(utils.fromHexToInt("ffff"), 0xFFFF);
    // Stops at the first character that is no hexadecimal digit.
    EXPECT_EQ(utils.fromHexToInt("1f.2"), 0x1F);
    EXPECT_EQ(utils.fromHexToInt("8086:27c0"), 0x8086);
    // Leading white space is skipped and a 0x prefix is taken.
    EXPECT_EQ(utils.fromHexToInt("  0101"), 0x0101);
    EXPECT_EQ(utils.fromHexToInt("0x1F"), 0x1F);
}

TEST(LinuxUtilsTest, FromHexToIntKeepsTheStreamsAnswerForOddTexts)
{
    LinuxUtils utils;
    // No digits: 0. A sign, then an optional 0x, then digits.
    EXPECT_EQ(utils.fromHexToInt(""), 0);
    EXPECT_EQ(utils.fromHexToInt("zz"), 0);
    EXPECT_EQ(utils.fromHexToInt("0x"), 0);
    EXPECT_EQ(utils.fromHexToInt("-0X1a"), -0x1A);
    EXPECT_EQ(utils.fromHexToInt("+1g"), 1);
    EXPECT_EQ(utils.fromHexToInt("+-1"), 0);
    EXPECT_EQ(utils.fromHexToInt("- 1"), 0);
    EXPECT_EQ(utils.fromHexToInt("00x1"), 0);
    EXPECT_EQ(utils.fromHexToInt("\t\v\f\r\n 7"), 7);
    EXPECT_EQ(utils.fromHexToInt(std::string("1\0" "2", 3)), 1);
    // Outside int: the nearest end of int.
    EXPECT_EQ(utils.fromHexToInt("7fffffff"), INT_MAX);
    EXPECT_EQ(utils.fromHexToInt("80000000"), INT_MAX);
    EXPECT_EQ(utils.fromHexToInt("-80000000"), INT_MIN);
    EXPECT_EQ(utils.fromHexToInt("-80000001"), INT_MIN);
    EXPECT_EQ(utils.fromHexToInt("123456789abcdef0123"), INT_MAX);
    EXPECT_EQ(utils.fromHexToInt("-123456789abcdef0123"), INT_MIN);
}

TEST(LinuxUtilsTest, FromHexToIntAnswersAsAHexStreamForEveryShortText)
{
    // Every text of up to three characters from the ones that matter, and
    // longer mixes, against extraction from a stream in hex mode.
    const std::string letters = std::string(" \t-+0xX19afAFg.:") + std::string(1, '\0') + "\xff";
    LinuxUtils utils;
    auto stream = [](const std::string& text) {
        std::stringstream in;
        in << std::hex << text;
        int value = 0;
        in >> value;
        return value;
    };
    std::vector<std::string> texts = {""};
    for (size_t length = 0; length < 3; ++length) {
        std::vector<std::string> longer;
        for (const std::string& text : texts) {
            for (char c : letters) {
                longer.push_back(text + c);
            }
        }
        for (const std::string& text : longer) {
            ASSERT_EQ(utils.fromHexToInt(text), stream(text)) << "text of " << text.size() << " bytes";
        }
        texts = longer;
    }
    for (const char* text : {"fffffffff", "-ffffffff", "0x7fffffff", "-0x80000000", "0000000000000000000001f"}) {
        EXPECT_EQ(utils.fromHexToInt(text), stream(text)) << text;
    }
}

// --- numofDevNodes and selectNodes ---------------------------------------------------

TEST_F(LinuxUtilsNodesTest, NullPrefixReturnsMinusOneWithoutTouchingThePrefix)
{
    const char* marker = "marker";
    c_pNodeStr = marker;
    dirent** list = nullptr;
    EXPECT_EQ(utils.numofDevNodes(nullptr, &list), -1);
    EXPECT_EQ(c_pNodeStr, marker);
}

TEST_F(LinuxUtilsNodesTest, SymbolicLinksAreLeftOut)
{
    char prefix[] = "sd";
    dirent** list = nullptr;
    int count = utils.numofDevNodes(prefix, &list);
    // sda and the regular file sdfile; sdb is a link.
    ASSERT_EQ(count, 2);
    std::vector<std::string> wanted = {"sda", "sdfile"};
    EXPECT_EQ(namesAndFree(list, count), wanted);
}

TEST_F(LinuxUtilsNodesTest, RegularNodeAndLinkCountOne)
{
    host::FakeMachine bare;
    host::ScopedMachine bareScope{bare};
    bare.addNode("/dev/sda", 'b', nullptr);
    bare.addLink("/dev/sdb");
    char prefix[] = "sd";
    dirent** list = nullptr;
    int count = utils.numofDevNodes(prefix, &list);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(namesAndFree(list, count), std::vector<std::string>{"sda"});
}

TEST_F(LinuxUtilsNodesTest, PrefixIsStoredAndLeftAfterTheCall)
{
    char prefix[] = "tty";
    dirent** list = nullptr;
    int count = utils.numofDevNodes(prefix, &list);
    EXPECT_EQ(c_pNodeStr, prefix);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(namesAndFree(list, count), std::vector<std::string>{"ttyS0"});
}

TEST_F(LinuxUtilsNodesTest, NodesComeInAlphabeticalOrderSoTenBeforeTwo)
{
    char prefix[] = "sg";
    dirent** list = nullptr;
    int count = utils.numofDevNodes(prefix, &list);
    ASSERT_EQ(count, 3);
    std::vector<std::string> wanted = {"sg1", "sg10", "sg2"};
    EXPECT_EQ(namesAndFree(list, count), wanted);
}

TEST_F(LinuxUtilsNodesTest, EmptyPrefixCountsAllNonLinkEntriesWithDotAndDotDot)
{
    char prefix[] = "";
    dirent** list = nullptr;
    int count = utils.numofDevNodes(prefix, &list);
    ASSERT_EQ(count, 9);
    std::vector<std::string> wanted = {".", "..", "bus", "sda", "sdfile", "sg1", "sg10", "sg2", "ttyS0"};
    EXPECT_EQ(namesAndFree(list, count), wanted);
}

TEST_F(LinuxUtilsNodesTest, NoMatchIsAValidCountOfZero)
{
    char prefix[] = "hd";
    dirent** list = nullptr;
    int count = utils.numofDevNodes(prefix, &list);
    EXPECT_EQ(count, 0);
    namesAndFree(list, count);
}

TEST_F(LinuxUtilsNodesTest, SelectNodesWantsThePrefixAtTheStartAndNoLink)
{
    c_pNodeStr = "sd";
    dirent sda = entry("sda", DT_BLK);
    dirent xsda = entry("xsda", DT_BLK);
    dirent link = entry("sdb", DT_LNK);
    dirent directory = entry("sdir", DT_DIR);
    EXPECT_EQ(selectNodes(&sda), 1);
    EXPECT_EQ(selectNodes(&xsda), 0);
    EXPECT_EQ(selectNodes(&link), 0);
    EXPECT_EQ(DT_LNK, 10);
    EXPECT_EQ(selectNodes(&directory), 1);
    c_pNodeStr = "";
    EXPECT_EQ(selectNodes(&xsda), 1);
    EXPECT_EQ(selectNodes(&link), 0);
}

// --- getPortType ---------------------------------------------------------------------------

TEST(LinuxUtilsTest, GetPortTypeTable)
{
    LinuxUtils utils;
    const std::vector<std::string> wanted = {
        "None",
        "PARALLEL_PORT_DESC0", "PARALLEL_PORT_DESC1", "PARALLEL_PORT_DESC2", "PARALLEL_PORT_DESC3",
        "PARALLEL_PORT_DESC4",
        "SERIAL_PORT_DESC0", "SERIAL_PORT_DESC1", "SERIAL_PORT_DESC2", "SERIAL_PORT_DESC3",
        "",
    };
    for (int i = 0; i <= 10; ++i) {
        EXPECT_EQ(utils.getPortType(i), wanted[i]) << i;
    }
}

TEST(LinuxUtilsTest, GetPortTypeOutsideTheTableIsHarmless)
{
    LinuxUtils utils;
    EXPECT_EQ(utils.getPortType(11), "");
    EXPECT_EQ(utils.getPortType(-1), "");
    EXPECT_EQ(utils.getPortType(255), "");
}

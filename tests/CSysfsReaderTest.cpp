// The sysfs reader over the real libsysfs: real trees on disk (the lab
// server's sample and trees built for each case), read through a fake
// machine that points libsysfs at them. Result codes in the order of their
// tests, the maps key by key, attributes byte by byte, the libsysfs calls in
// their order, the mount, and the limits of libsysfs's paths.
#include "probes/CSysfsReader.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/FakeSysfs.h"
#include "host/fake/MachineDirectory.h"
#include "tests/support/SysfsCalls.h"
#include "tests/support/SysfsTree.h"

#include <sysfs/libsysfs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <mntent.h>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

using namespace Vantrel::Ostrand;
using ostrand_test::Attributes;
using ostrand_test::SysfsCalls;
using ostrand_test::SysfsTree;
using Calls = std::vector<std::string>;

namespace {

namespace fs = std::filesystem;

const std::string kLabServer = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server";
const std::string kLabSysfs = kLabServer + "/sysfs";

// The SCSI devices of the lab server and where the kernel put them.
const char* const kCdrom = "pci0000:00/0000:00:05.0/host2/target2:0:2/2:0:2:0";
const char* const kIdeCdrom = "pci0000:00/0000:00:01.1/ata2/host1/target1:0:0/1:0:0:0";
const char* const kRaidDisk = "pci0000:00/0000:00:07.0/host3/target3:2:0/3:2:0:0";
const char* const kUsbCdrom = "pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4/target4:0:0/4:0:0:0";
const char* const kUsbDisk = "pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host5/target5:0:0/5:0:0:0";

// libsysfs's own, in its own order: the paths of the devices of a bus, and
// the drivers of a bus. Only to learn the order in which libsysfs walks.
std::vector<std::string> libsysfsBusDevicePaths(const std::string& bus)
{
    std::vector<std::string> paths;
    host::prepareSysfs();
    sysfs_bus* opened = sysfs_open_bus(bus.c_str());
    if (opened == nullptr) {
        return paths;
    }
    struct dlist* devices = sysfs_get_bus_devices(opened);
    sysfs_device* device;
    if (devices != nullptr) {
        dlist_for_each_data(devices, device, sysfs_device) { paths.push_back(device->path); }
    }
    sysfs_close_bus(opened);
    return paths;
}

std::vector<std::string> libsysfsDrivers(const std::string& bus)
{
    std::vector<std::string> names;
    host::prepareSysfs();
    sysfs_bus* opened = sysfs_open_bus(bus.c_str());
    if (opened == nullptr) {
        return names;
    }
    struct dlist* drivers = sysfs_get_bus_drivers(opened);
    sysfs_driver* driver;
    if (drivers != nullptr) {
        dlist_for_each_data(drivers, driver, sysfs_driver) { names.push_back(driver->name); }
    }
    sysfs_close_bus(opened);
    return names;
}

// A libsysfs attribute built by hand: name, value bytes (a zero is put
// behind them, as libsysfs does) and len.
class Attribute {
public:
    Attribute(const std::string& name, const std::string& value, int len = -1) : m_bytes(value.begin(), value.end())
    {
        m_bytes.push_back('\0');
        std::memset(&m_attribute, 0, sizeof m_attribute);
        std::strncpy(m_attribute.name, name.c_str(), sizeof m_attribute.name - 1);
        m_attribute.value = m_bytes.data();
        m_attribute.len = static_cast<unsigned short>(len < 0 ? static_cast<int>(value.size()) : len);
        m_attribute.method = SYSFS_METHOD_SHOW;
    }
    static Attribute withoutValue(const std::string& name)
    {
        Attribute attribute(name, "");
        attribute.m_attribute.value = nullptr;
        attribute.m_attribute.len = 0;
        return attribute;
    }
    sysfs_attribute* get()
    {
        m_attribute.value = m_attribute.value == nullptr ? nullptr : m_bytes.data();
        return &m_attribute;
    }
    // The value buffer as it is now, without the zero put behind it.
    std::string buffer() const { return std::string(m_bytes.begin(), m_bytes.end() - 1); }

private:
    std::vector<char> m_bytes;
    sysfs_attribute m_attribute;
};

// A file's bytes as the reader hands them on: the last line feed goes, and
// a file that ends in none (the binary inquiry and vpd_pg* of the SCSI
// devices) loses its last byte; one that begins with a zero byte is empty.
std::string asText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    std::string text = bytes.str();
    if (text.empty() || text[0] == '\0') {
        return "";
    }
    text.pop_back();
    return text;
}

// The regular files (links to files too) directly in a folder: its attributes, as on disk.
StrMap attributesOnDisk(const std::string& folder)
{
    StrMap attributes;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            attributes[entry.path().filename().string()] = asText(entry.path().string());
        }
    }
    return attributes;
}

std::set<std::string> keys(const StrMapMap& map)
{
    std::set<std::string> found;
    for (const auto& entry : map) {
        found.insert(entry.first);
    }
    return found;
}

std::set<std::string> keys(const StrMap& map)
{
    std::set<std::string> found;
    for (const auto& entry : map) {
        found.insert(entry.first);
    }
    return found;
}

// A reader on a fake machine whose sysfs is a tree built for the case.
class CSysfsReaderTest : public ::testing::Test {
protected:
    CSysfsReaderTest() { machine.setSysfs(tree.root()); }

    // The path of a device folder as libsysfs reports it.
    std::string devicePath(const std::string& device) { return std::string(machine.sysfsRoot()) + "/devices/" + device; }

    // sysfs not mounted, and mounting it refused.
    void unmountAndRefuse()
    {
        machine.setSysfsMounted(false);
        machine.refuseMounts(EPERM);
    }

    // A SCSI CD-ROM behind a SCSI controller, with its sg and block class devices.
    void scsiCdrom()
    {
        tree.device("pci0000:00/0000:00:05.0", {{"vendor", "0x1000\n"}, {"device", "0x0012\n"}})
            .onBus("pci", "pci0000:00/0000:00:05.0")
            .bind("pci", "sym53c8xx", "pci0000:00/0000:00:05.0")
            .device(kCdrom, {{"type", "5\n"}, {"vendor", "LABSCSI \n"}, {"model", "SCSI CD-ROM     \n"}, {"rev", "1.00\n"}})
            .onBus("scsi", kCdrom)
            .bind("scsi", "sr", kCdrom)
            .classDevice("scsi_generic", kCdrom, "sg1", {{"dev", "21:1\n"}})
            .classDevice("block", kCdrom, "sr1", {{"dev", "11:1\n"}, {"removable", "1\n"}});
    }

    SysfsTree tree;
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    CSysfsReader reader{nullptr};
};

// A reader on the lab server's sample machine.
class LabServerSysfsTest : public ::testing::Test {
protected:
    std::string devicePath(const std::string& device) { return std::string(machine->sysfsRoot()) + "/devices/" + device; }
    std::string onDisk(const std::string& device) { return kLabSysfs + "/devices/" + device; }

    std::unique_ptr<host::FakeMachine> machine = host::loadMachine(kLabServer);
    host::ScopedMachine scope{*machine};
    CSysfsReader reader{nullptr};
};

// --- Data model ---------------------------------------------------------------

TEST(CSysfsReaderModelTest, BusTypesAreTheFixedThirtyTwoBitValues)
{
    static_assert(std::is_same<std::underlying_type<BusType>::type, int>::value, "held as a 32-bit integer");
    static_assert(sizeof(BusType) == 4, "held as a 32-bit integer");
    EXPECT_EQ(BUS_TYPE_IDE, 0);
    EXPECT_EQ(BUS_TYPE_PCI, 1);
    EXPECT_EQ(BUS_TYPE_PCI_EXPRESS, 2);
    EXPECT_EQ(BUS_TYPE_SCSI, 3);
    EXPECT_EQ(BUS_TYPE_USB, 4);
}

TEST(CSysfsReaderModelTest, ResultCodesInTheirOrder)
{
    EXPECT_EQ(CSysfsReader::SYSFS_OK, 0);
    EXPECT_EQ(CSysfsReader::SYSFS_NOT_FOUND, 1);
    EXPECT_EQ(CSysfsReader::SYSFS_MOUNT_FAILED, 2);
    EXPECT_EQ(CSysfsReader::SYSFS_BUS_UNAVAILABLE, 3);
    EXPECT_EQ(CSysfsReader::SYSFS_CLASS_UNAVAILABLE, 4);
}

TEST(CSysfsReaderModelTest, MapsAreOrderedAndKeepTheirFirstValue)
{
    static_assert(std::is_same<StrMap, std::map<std::string, std::string>>::value, "StrMap");
    static_assert(std::is_same<StrMapMap, std::map<std::string, StrMap>>::value, "StrMapMap");
}

TEST(CSysfsReaderModelTest, TheBusMapIsEmptyWhenTheLibraryIsLoaded)
{
    void* library = ::dlopen(OSTRAND_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << ::dlerror();
    auto* initialized =
        static_cast<bool*>(::dlsym(library, "_ZN7Vantrel7Ostrand12CSysfsReader18m_BusMapInitializeE"));
    auto* busMap = static_cast<std::map<BusType, std::string>*>(
        ::dlsym(library, "_ZN7Vantrel7Ostrand12CSysfsReader8m_BusMapB5cxx11E"));
    ASSERT_NE(initialized, nullptr);
    ASSERT_NE(busMap, nullptr);
    EXPECT_FALSE(*initialized);
    EXPECT_TRUE(busMap->empty());
    ::dlclose(library);
}

TEST(CSysfsReaderModelTest, TheFirstReaderFillsTheBusMapOnce)
{
    CSysfsReader::m_BusMap.clear();
    CSysfsReader::m_BusMapInitialize = false;
    CSysfsReader first(nullptr);
    EXPECT_TRUE(CSysfsReader::m_BusMapInitialize);
    std::map<BusType, std::string> expected = {{BUS_TYPE_IDE, "ide"},
                                               {BUS_TYPE_PCI, "pci"},
                                               {BUS_TYPE_PCI_EXPRESS, "pci_express"},
                                               {BUS_TYPE_SCSI, "scsi"},
                                               {BUS_TYPE_USB, "usb"}};
    EXPECT_EQ(CSysfsReader::m_BusMap, expected);

    // With the flag set, later readers leave the map as it is, even emptied.
    CSysfsReader::m_BusMap.clear();
    CSysfsReader second(nullptr);
    EXPECT_TRUE(CSysfsReader::m_BusMap.empty());
    std::string name = "kept";
    EXPECT_EQ(CSysfsReader::Lookup(BUS_TYPE_SCSI, name), 1);
    EXPECT_EQ(name, "kept");

    CSysfsReader::InitializeBusMap();
    EXPECT_EQ(CSysfsReader::m_BusMap, expected);
}

TEST(CSysfsReaderModelTest, InitializeBusMapOverwritesItsKeysAndKeepsOthers)
{
    CSysfsReader reader(nullptr);
    CSysfsReader::m_BusMap[BUS_TYPE_PCI] = "not pci";
    CSysfsReader::m_BusMap[static_cast<BusType>(9)] = "nine";
    CSysfsReader::InitializeBusMap();
    EXPECT_EQ(CSysfsReader::m_BusMap[BUS_TYPE_PCI], "pci");
    EXPECT_EQ(CSysfsReader::m_BusMap.size(), 6u);
    EXPECT_EQ(CSysfsReader::m_BusMap[static_cast<BusType>(9)], "nine");
    CSysfsReader::m_BusMap.erase(static_cast<BusType>(9));
}

TEST(CSysfsReaderModelTest, LookupGivesEachBusName)
{
    CSysfsReader reader(nullptr);
    const std::pair<BusType, const char*> table[] = {{BUS_TYPE_IDE, "ide"},
                                                    {BUS_TYPE_PCI, "pci"},
                                                    {BUS_TYPE_PCI_EXPRESS, "pci_express"},
                                                    {BUS_TYPE_SCSI, "scsi"},
                                                    {BUS_TYPE_USB, "usb"}};
    for (const auto& row : table) {
        std::string name = "old";
        EXPECT_EQ(CSysfsReader::Lookup(row.first, name), 0);
        EXPECT_EQ(name, row.second);
    }
    for (int unknown : {5, -1, 1000}) {
        std::string name = "untouched";
        EXPECT_EQ(CSysfsReader::Lookup(static_cast<BusType>(unknown), name), 1);
        EXPECT_EQ(name, "untouched");
    }
}

TEST_F(CSysfsReaderTest, TheLogStreamIsKeptAndNeverWritten)
{
    scsiCdrom();
    std::string logPath = tree.path("log.txt");
    std::ofstream log(logPath);
    CSysfsReader logged(&log);
    StrMapMap devices;
    StrMap attributes;
    std::string driver;
    EXPECT_EQ(logged.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(logged.GetDeviceAttr("nothing", BUS_TYPE_SCSI, attributes), 1);
    EXPECT_EQ(logged.GetDeviceDriver("2:0:2:0", BUS_TYPE_SCSI, driver), 0);
    EXPECT_EQ(logged.GetDeviceList(static_cast<BusType>(7), devices), 3);
    log.flush();
    EXPECT_EQ(fs::file_size(logPath), 0u);
}

// --- CheckandMountSysfs -----------------------------------------------------------

TEST_F(CSysfsReaderTest, MountedSysfsIsNotMountedAgain)
{
    SysfsCalls calls;
    EXPECT_EQ(reader.CheckandMountSysfs(), 0);
    EXPECT_TRUE(machine.mounts().empty());
    EXPECT_EQ(calls.calls(), Calls{"sysfs_get_mnt_path"});
}

TEST_F(CSysfsReaderTest, UnmountedSysfsIsMountedOnDoubleSlashSys)
{
    scsiCdrom();
    machine.setSysfsMounted(false);
    EXPECT_EQ(reader.CheckandMountSysfs(), 0);
    EXPECT_EQ(machine.mounts(), std::vector<std::string>{"none //sys sysfs"});
    // Mounted now: the next query reads it without mounting again.
    StrMapMap devices;
    EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(keys(devices), std::set<std::string>{"2:0:2:0"});
    EXPECT_EQ(machine.mounts().size(), 1u);
}

TEST_F(CSysfsReaderTest, UnmountedSysfsThatCannotBeMountedIsTwo)
{
    unmountAndRefuse();
    SysfsCalls calls;
    EXPECT_EQ(reader.CheckandMountSysfs(), 2);
    EXPECT_EQ(reader.CheckandMountSysfs(), 2);
    EXPECT_EQ(machine.mounts(), (std::vector<std::string>{"none //sys sysfs", "none //sys sysfs"}));
    // The machine says not mounted: libsysfs is not even asked.
    EXPECT_TRUE(calls.calls().empty());
}

TEST_F(CSysfsReaderTest, AMountThatSucceedsIsTrustedWithoutAnotherLook)
{
    machine.setSysfsMounted(false);
    machine.setSysfs("/no/such/folder");
    EXPECT_EQ(reader.CheckandMountSysfs(), 0);
    StrMapMap devices;
    // Mounted, but there is nothing there: the bus cannot be opened.
    EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 3);
    EXPECT_EQ(machine.mounts().size(), 1u);
}

TEST_F(CSysfsReaderTest, NotMountedAndRefusedEveryQueryButTheSplitIsTwo)
{
    scsiCdrom();
    unmountAndRefuse();
    StrMapMap devices = {{"sentinel", {{"k", "v"}}}};
    StrMap attributes = {{"sentinel", "v"}};
    StrMap more = {{"other", "w"}};
    const StrMapMap devicesBefore = devices;
    const StrMap attributesBefore = attributes;
    const StrMap moreBefore = more;
    std::string driver = "old driver";
    std::string bus = "b", device = "d", function = "f";

    EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 2);
    EXPECT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_SCSI, attributes), 2);
    EXPECT_EQ(reader.GetDeviceDriver("2:0:2:0", BUS_TYPE_SCSI, driver), 2);
    EXPECT_EQ(driver, "");
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(kCdrom), BUS_TYPE_SCSI, bus, device, function), 2);
    EXPECT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 2);
    EXPECT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg1", attributes, more), 2);
    EXPECT_EQ(devices, devicesBefore);
    EXPECT_EQ(attributes, attributesBefore);
    EXPECT_EQ(more, moreBefore);
    EXPECT_EQ(bus + device + function, "bdf");

    std::string c, b, t, l;
    EXPECT_EQ(reader.GetScsiDeviceCBTL("2:0:2:0", c, b, t, l), 0);
    EXPECT_EQ(c + "," + b + "," + t + "," + l, "2,0,2,0");
    EXPECT_EQ(machine.mounts().size(), 6u);
}

TEST_F(CSysfsReaderTest, TheMountComesBeforeEveryOtherTestOfTheBusQueries)
{
    unmountAndRefuse();
    const BusType unknown = static_cast<BusType>(42);
    StrMapMap devices;
    StrMap attributes;
    std::string driver = "x", bus, device, function;
    EXPECT_EQ(reader.GetDeviceList(unknown, devices), 2);
    EXPECT_EQ(reader.GetDeviceAttr("", unknown, attributes), 2);
    EXPECT_EQ(reader.GetDeviceDriver("", unknown, driver), 2);
    EXPECT_EQ(driver, "");
    EXPECT_EQ(reader.GetPCIDeviceBDF("", unknown, bus, device, function), 2);
}

// --- SetAttribute --------------------------------------------------------------

TEST(CSysfsReaderSetAttributeTest, ALineFeedGoesFromTheTextAndFromTheBuffer)
{
    CSysfsReader reader(nullptr);
    Attribute version("version", "1.10\n");
    StrMap out;
    reader.SetAttribute(version.get(), out);
    EXPECT_EQ(out, (StrMap{{"version", "1.10"}}));
    EXPECT_EQ(version.buffer(), std::string("1.10\0", 5));
}

TEST(CSysfsReaderSetAttributeTest, WithoutALineFeedTheLastByteIsLost)
{
    CSysfsReader reader(nullptr);
    Attribute value("value", "abcd", 4);
    StrMap out;
    reader.SetAttribute(value.get(), out);
    EXPECT_EQ(out.at("value"), "abc");
    EXPECT_EQ(value.buffer(), "abcd");
}

TEST(CSysfsReaderSetAttributeTest, NoValueOrAnEmptyOneIsAnEmptyTextWithAnEntry)
{
    CSysfsReader reader(nullptr);
    Attribute none = Attribute::withoutValue("remove");
    Attribute empty("empty", "", 0);
    Attribute zeroFirst("zero", std::string("\0abc\n", 5), 5);
    StrMap out;
    reader.SetAttribute(none.get(), out);
    reader.SetAttribute(empty.get(), out);
    reader.SetAttribute(zeroFirst.get(), out);
    EXPECT_EQ(out, (StrMap{{"remove", ""}, {"empty", ""}, {"zero", ""}}));
}

TEST(CSysfsReaderSetAttributeTest, ALoneLineFeedIsAnEmptyText)
{
    CSysfsReader reader(nullptr);
    Attribute feed("feed", "\n");
    StrMap out;
    reader.SetAttribute(feed.get(), out);
    EXPECT_EQ(out, (StrMap{{"feed", ""}}));
    EXPECT_EQ(feed.buffer(), std::string("\0", 1));
}

TEST(CSysfsReaderSetAttributeTest, TheTextIsLenLessOneBytesWhateverTheyHold)
{
    CSysfsReader reader(nullptr);
    // A zero inside: the line feed is looked for before it, the text runs past it.
    Attribute inner("inner", std::string("ab\0cd\n", 6));
    // len shorter than the text: the line feed still goes, the text is cut.
    Attribute shorter("shorter", "abcdef\n", 3);
    // A binary attribute of a full page, as libsysfs reads config.
    std::string page(4096, '\x7f');
    Attribute config("config", page);
    StrMap out;
    reader.SetAttribute(inner.get(), out);
    reader.SetAttribute(shorter.get(), out);
    reader.SetAttribute(config.get(), out);
    EXPECT_EQ(out.at("inner"), std::string("ab\0cd", 5));
    EXPECT_EQ(out.at("shorter"), "ab");
    EXPECT_EQ(shorter.buffer(), std::string("abcdef\0", 7));
    EXPECT_EQ(out.at("config"), page.substr(0, 4095));
}

TEST(CSysfsReaderSetAttributeTest, ALenOfZeroGivesNoText)
{
    CSysfsReader reader(nullptr);
    Attribute odd("odd", "xyz", 0);
    StrMap out;
    reader.SetAttribute(odd.get(), out);
    EXPECT_EQ(out, (StrMap{{"odd", ""}}));
}

TEST(CSysfsReaderSetAttributeTest, AnExistingKeyKeepsItsValue)
{
    CSysfsReader reader(nullptr);
    StrMap out = {{"type", "first"}};
    Attribute type("type", "5\n");
    reader.SetAttribute(type.get(), out);
    EXPECT_EQ(out, (StrMap{{"type", "first"}}));
    // The buffer loses its line feed all the same.
    EXPECT_EQ(type.buffer(), std::string("5\0", 2));
}

// --- GetScsiDeviceCBTL -------------------------------------------------------------

TEST(CSysfsReaderCbtlTest, FourFieldsAreSplit)
{
    CSysfsReader reader(nullptr);
    std::string c, b, t, l;
    EXPECT_EQ(reader.GetScsiDeviceCBTL("0:0:1:0", c, b, t, l), 0);
    EXPECT_EQ(c, "0");
    EXPECT_EQ(b, "0");
    EXPECT_EQ(t, "1");
    EXPECT_EQ(l, "0");
}

TEST(CSysfsReaderCbtlTest, ManyDigitsAndAnyCharacters)
{
    CSysfsReader reader(nullptr);
    std::string c, b, t, l;
    EXPECT_EQ(reader.GetScsiDeviceCBTL("10:2:300:4095", c, b, t, l), 0);
    EXPECT_EQ(c + "|" + b + "|" + t + "|" + l, "10|2|300|4095");
    std::string c2, b2, t2, l2;
    EXPECT_EQ(reader.GetScsiDeviceCBTL("host a: b :t-1:L 0", c2, b2, t2, l2), 0);
    EXPECT_EQ(c2 + "|" + b2 + "|" + t2 + "|" + l2, "host a| b |t-1|L 0");
}

TEST(CSysfsReaderCbtlTest, ThreeFieldsClearTheOutputsAndAreOne)
{
    CSysfsReader reader(nullptr);
    std::string c = "c", b = "b", t = "t", l = "l";
    EXPECT_EQ(reader.GetScsiDeviceCBTL("0:0:1", c, b, t, l), 1);
    EXPECT_EQ(c + b + t + l, "");
}

TEST(CSysfsReaderCbtlTest, FiveFieldsAreOneToo)
{
    CSysfsReader reader(nullptr);
    std::string c = "c", b = "b", t = "t", l = "l";
    EXPECT_EQ(reader.GetScsiDeviceCBTL("1:2:3:4:5", c, b, t, l), 1);
    EXPECT_EQ(c + b + t + l, "");
}

TEST(CSysfsReaderCbtlTest, ATrailingColonGivesAnEmptyLun)
{
    CSysfsReader reader(nullptr);
    std::string c, b, t, l = "";
    EXPECT_EQ(reader.GetScsiDeviceCBTL("1:2:3:", c, b, t, l), 0);
    EXPECT_EQ(c, "1");
    EXPECT_EQ(b, "2");
    EXPECT_EQ(t, "3");
    EXPECT_EQ(l, "");
    std::string c2, b2, t2, l2;
    EXPECT_EQ(reader.GetScsiDeviceCBTL(":::", c2, b2, t2, l2), 0);
    EXPECT_EQ(c2 + b2 + t2 + l2, "");
}

TEST(CSysfsReaderCbtlTest, AnEmptyIdTouchesNothing)
{
    CSysfsReader reader(nullptr);
    std::string c = "c", b = "b", t = "t", l = "l";
    EXPECT_EQ(reader.GetScsiDeviceCBTL("", c, b, t, l), 1);
    EXPECT_EQ(c + b + t + l, "cbtl");
}

TEST(CSysfsReaderCbtlTest, OutputsAreAppendedTo)
{
    CSysfsReader reader(nullptr);
    std::string c = "c", b = "b", t = "t", l = "l";
    EXPECT_EQ(reader.GetScsiDeviceCBTL("4:0:1:2", c, b, t, l), 0);
    EXPECT_EQ(c + "|" + b + "|" + t + "|" + l, "c4|b0|t1|l2");
}

TEST(CSysfsReaderCbtlTest, NoColonIsOneAndClears)
{
    CSysfsReader reader(nullptr);
    std::string c = "c", b = "b", t = "t", l = "l";
    EXPECT_EQ(reader.GetScsiDeviceCBTL("sg0", c, b, t, l), 1);
    EXPECT_EQ(c + b + t + l, "");
}

TEST_F(CSysfsReaderTest, TheSplitTouchesNeitherSysfsNorTheMount)
{
    unmountAndRefuse();
    SysfsCalls calls;
    std::string c, b, t, l;
    EXPECT_EQ(reader.GetScsiDeviceCBTL("3:2:0:0", c, b, t, l), 0);
    EXPECT_TRUE(calls.calls().empty());
    EXPECT_TRUE(machine.mounts().empty());
}

// --- GetDeviceList -------------------------------------------------------------

TEST_F(LabServerSysfsTest, TheScsiBusListsHostsTargetsAndDevices)
{
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(keys(devices),
              (std::set<std::string>{"1:0:0:0", "2:0:2:0", "3:2:0:0", "4:0:0:0", "5:0:0:0", "host0", "host1",
                                     "host2", "host3", "host4", "host5", "target1:0:0", "target2:0:2", "target3:2:0",
                                     "target4:0:0", "target5:0:0"}));
    // Exactly four keys each; no bus link on a 6.1 kernel, so "bus" is empty.
    EXPECT_EQ(devices.at("2:0:2:0"), (StrMap{{"name", "2:0:2:0"},
                                            {"bus", ""},
                                            {"driver_name", "sr"},
                                            {"path", devicePath(kCdrom)}}));
    EXPECT_EQ(devices.at("4:0:0:0"), (StrMap{{"name", "4:0:0:0"},
                                            {"bus", ""},
                                            {"driver_name", "sr"},
                                            {"path", devicePath(kUsbCdrom)}}));
    EXPECT_EQ(devices.at("5:0:0:0").at("driver_name"), "sd");
    EXPECT_EQ(devices.at("3:2:0:0").at("path"), devicePath(kRaidDisk));
    EXPECT_EQ(devices.at("host0"), (StrMap{{"name", "host0"},
                                          {"bus", ""},
                                          {"driver_name", "unknown"},
                                          {"path", devicePath("pci0000:00/0000:00:01.1/ata1/host0")}}));
    EXPECT_EQ(devices.at("target1:0:0").at("path"),
              devicePath("pci0000:00/0000:00:01.1/ata2/host1/target1:0:0"));
    for (const auto& device : devices) {
        EXPECT_EQ(device.second.size(), 4u) << device.first;
    }
}

TEST_F(LabServerSysfsTest, ThePciBusListsEveryFunction)
{
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_PCI, devices), 0);
    EXPECT_EQ(keys(devices), (std::set<std::string>{"0000:00:00.0", "0000:00:01.0", "0000:00:01.1", "0000:00:01.2",
                                                    "0000:00:01.3", "0000:00:02.0", "0000:00:03.0", "0000:00:04.0",
                                                    "0000:00:05.0", "0000:00:06.0", "0000:00:07.0", "0000:01:01.0"}));
    // The function behind the bridge is listed by its own path.
    EXPECT_EQ(devices.at("0000:01:01.0").at("path"), devicePath("pci0000:00/0000:00:06.0/0000:01:01.0"));
    EXPECT_EQ(devices.at("0000:00:00.0").at("driver_name"), "unknown");
    EXPECT_EQ(devices.at("0000:00:07.0"), (StrMap{{"name", "0000:00:07.0"},
                                                 {"bus", ""},
                                                 {"driver_name", "megaraid_sas"},
                                                 {"path", devicePath("pci0000:00/0000:00:07.0")}}));
    EXPECT_EQ(devices.at("0000:00:04.0").at("driver_name"), "ehci-pci");
}

TEST_F(LabServerSysfsTest, BusesThatA61KernelDoesNotHaveAreThree)
{
    StrMapMap devices;
    EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_IDE, devices), 3);
    EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_PCI_EXPRESS, devices), 3);
    EXPECT_TRUE(devices.empty());
}

TEST_F(CSysfsReaderTest, AnOldBusLinkFillsBus)
{
    scsiCdrom();
    tree.link(std::string("devices/") + kCdrom + "/bus", "bus/scsi");
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(devices.at("2:0:2:0").at("bus"), "scsi");
}

TEST_F(CSysfsReaderTest, DeviceListResultsInTheOrderOfTheirTests)
{
    StrMapMap devices;
    // Bus name before the open: an unknown bus is 3, also with a tree there.
    EXPECT_EQ(reader.GetDeviceList(static_cast<BusType>(5), devices), 3);
    // No such folder under bus/: the open fails.
    EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_USB, devices), 3);
    // A bus without devices: no list.
    tree.folder("bus/usb/devices").folder("bus/usb/drivers");
    EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_USB, devices), 1);
    EXPECT_TRUE(devices.empty());
}

TEST_F(CSysfsReaderTest, TheMapIsAddedToAndAKeyThatIsThereStays)
{
    scsiCdrom();
    StrMapMap devices = {{"2:0:2:0", {{"mine", "yes"}}}, {"aaa", {{"x", "y"}}}};
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(devices.at("2:0:2:0"), (StrMap{{"mine", "yes"}}));
    EXPECT_EQ(devices.at("aaa"), (StrMap{{"x", "y"}}));
    EXPECT_EQ(devices.size(), 2u);
}

TEST_F(CSysfsReaderTest, TheOuterKeyIsTheBusIdNotTheLinkName)
{
    scsiCdrom();
    // A second link to the same device under another name: libsysfs gives
    // the device twice, both times with the bus_id of its folder.
    tree.onBus("scsi", kCdrom, "cdrom");
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(keys(devices), std::set<std::string>{"2:0:2:0"});
    EXPECT_EQ(libsysfsBusDevicePaths("scsi").size(), 2u);
}

TEST_F(CSysfsReaderTest, OfTwoDevicesWithOneBusIdTheFirstWalkedStays)
{
    // Two device folders of the same name in different places, both on the bus.
    tree.device("platform/left/dup", {{"side", "left\n"}})
        .device("platform/right/dup", {{"side", "right\n"}})
        .onBus("scsi", "platform/left/dup", "dup-left")
        .onBus("scsi", "platform/right/dup", "dup-right");
    std::vector<std::string> walked = libsysfsBusDevicePaths("scsi");
    ASSERT_EQ(walked.size(), 2u);
    ASSERT_NE(walked[0], walked[1]);
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices.at("dup").at("path"), walked[0]);
    // The attribute query takes the first walked as well.
    StrMap attributes;
    ASSERT_EQ(reader.GetDeviceAttr("dup", BUS_TYPE_SCSI, attributes), 0);
    EXPECT_EQ(attributes.at("side"), walked[0] == devicePath("platform/left/dup") ? "left" : "right");
}

TEST_F(CSysfsReaderTest, ADanglingBusLinkIsNoDevice)
{
    scsiCdrom();
    tree.link("bus/scsi/devices/9:0:0:0", "devices/pci0000:00/0000:00:05.0/host9/target9:0:0/9:0:0:0");
    // A link to a file is no device either.
    tree.link("bus/scsi/devices/vendor", "devices/pci0000:00/0000:00:05.0/vendor");
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(keys(devices), std::set<std::string>{"2:0:2:0"});
    StrMap attributes;
    EXPECT_EQ(reader.GetDeviceAttr("9:0:0:0", BUS_TYPE_SCSI, attributes), 1);
}

TEST_F(CSysfsReaderTest, DeviceListCalls)
{
    scsiCdrom();
    SysfsCalls calls;
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(calls.calls(),
              (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices", "sysfs_close_bus"}));
}

TEST_F(CSysfsReaderTest, DeviceListCallsWithoutDevicesStillClose)
{
    tree.folder("bus/scsi/devices");
    SysfsCalls calls;
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 1);
    EXPECT_EQ(calls.calls(),
              (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices", "sysfs_close_bus"}));
}

// --- GetDeviceAttr ----------------------------------------------------------------

TEST_F(LabServerSysfsTest, TheAttributesOfTheScsiCdrom)
{
    StrMap attributes;
    ASSERT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_SCSI, attributes), 0);
    EXPECT_EQ(attributes.at("type"), "5");
    EXPECT_EQ(attributes.at("vendor"), "LABSCSI ");
    EXPECT_EQ(attributes.at("model"), "SCSI CD-ROM     ");
    EXPECT_EQ(attributes.at("rev"), "1.00");
    EXPECT_EQ(attributes.at("modalias"), "scsi:t-0x05");
    EXPECT_EQ(attributes.at("uevent"), "DEVTYPE=scsi_device\nDRIVER=sr\nMODALIAS=scsi:t-0x05");
    // The binary INQUIRY data ends in no line feed: it loses its last byte.
    EXPECT_EQ(attributes.at("inquiry"), std::string("\x05\x80\x05\x12\x1F\0\0\x12LABSCSI SCSI CD-ROM     1.0", 35));
    // Every file of the device, no more.
    EXPECT_EQ(attributes, attributesOnDisk(onDisk(kCdrom)));
    EXPECT_EQ(attributes.size(), 30u);
}

TEST_F(LabServerSysfsTest, TheAttributesOfEveryScsiDeviceAsTheCaptureHasThem)
{
    struct Row {
        const char* id;
        const char* type;
        const char* vendor;
        const char* model;
        const char* rev;
    };
    const Row rows[] = {{"1:0:0:0", "5", "QEMU    ", "QEMU DVD-ROM    ", "2.5+"},
                        {"2:0:2:0", "5", "LABSCSI ", "SCSI CD-ROM     ", "1.00"},
                        {"3:2:0:0", "0", "QEMU    ", "QEMU HARDDISK   ", "2.5+"},
                        {"4:0:0:0", "5", "LABUSB  ", "USB CD-ROM      ", "1.00"},
                        {"5:0:0:0", "0", "LABUSB  ", "USB FLOPPY 1.44 ", "1.00"}};
    for (const Row& row : rows) {
        StrMap attributes;
        ASSERT_EQ(reader.GetDeviceAttr(row.id, BUS_TYPE_SCSI, attributes), 0) << row.id;
        EXPECT_EQ(attributes.at("type"), row.type) << row.id;
        EXPECT_EQ(attributes.at("vendor"), row.vendor) << row.id;
        EXPECT_EQ(attributes.at("model"), row.model) << row.id;
        EXPECT_EQ(attributes.at("rev"), row.rev) << row.id;
    }
}

TEST_F(LabServerSysfsTest, TheAttributesOfAPciController)
{
    StrMap attributes;
    ASSERT_EQ(reader.GetDeviceAttr("0000:00:01.1", BUS_TYPE_PCI, attributes), 0);
    const StrMap expected = {{"vendor", "0x8086"},           {"device", "0x7010"}, {"subsystem_vendor", "0x1af4"},
                             {"subsystem_device", "0x1100"}, {"class", "0x010180"}, {"revision", "0x00"},
                             {"irq", "0"}};
    for (const auto& attribute : expected) {
        EXPECT_EQ(attributes.at(attribute.first), attribute.second) << attribute.first;
    }
    EXPECT_EQ(attributes.at("uevent"), "DRIVER=ata_piix\nPCI_CLASS=10180\nPCI_ID=8086:7010\nPCI_SUBSYS_ID=1AF4:1100\n"
                                       "PCI_SLOT_NAME=0000:00:01.1\n"
                                       "MODALIAS=pci:v00008086d00007010sv00001AF4sd00001100bc01sc01i80");
    EXPECT_EQ(attributes, attributesOnDisk(onDisk("pci0000:00/0000:00:01.1")));
}

TEST_F(CSysfsReaderTest, AttributeFilesByteByByte)
{
    const std::string page(5000, 'z');
    tree.device("platform/box", {{"version", "1.10\n"},
                                 {"plain", "abcd"},
                                 {"empty", ""},
                                 {"feed", "\n"},
                                 {"lines", "a\nb\n"},
                                 {"inner", std::string("ab\0cd\n", 6)},
                                 {"big", page}})
        .onBus("usb", "platform/box");
    tree.file("devices/platform/box/writeonly", "secret\n", 0200);
    tree.file("devices/platform/box/unreadable", "hidden\n", 0000);
    tree.rawLink("devices/platform/box/alias", "version");
    StrMap attributes;
    ASSERT_EQ(reader.GetDeviceAttr("box", BUS_TYPE_USB, attributes), 0);
    EXPECT_EQ(attributes.at("version"), "1.10");
    EXPECT_EQ(attributes.at("plain"), "abc");
    EXPECT_EQ(attributes.at("empty"), "");
    EXPECT_EQ(attributes.at("feed"), "");
    EXPECT_EQ(attributes.at("lines"), "a\nb");
    EXPECT_EQ(attributes.at("inner"), std::string("ab\0cd", 5));
    // libsysfs reads one page; without a line feed at its end the last byte goes.
    EXPECT_EQ(attributes.at("big"), std::string(4095, 'z'));
    // libsysfs judges by the mode bits, so even for root these two are not
    // read: an entry with empty text each.
    EXPECT_EQ(attributes.at("writeonly"), "");
    EXPECT_EQ(attributes.at("unreadable"), "");
    // A link to a file reads as that file; links to folders are no attributes.
    EXPECT_EQ(attributes.at("alias"), "1.10");
    EXPECT_EQ(attributes.count("subsystem"), 0u);
    EXPECT_EQ(attributes.size(), 10u);
}

TEST_F(CSysfsReaderTest, AMissingAttributeIsNoEntry)
{
    scsiCdrom();
    StrMap attributes;
    ASSERT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_SCSI, attributes), 0);
    EXPECT_EQ(attributes.count("removable"), 0u);
    EXPECT_EQ(attributes.count("scsi_level"), 0u);
    EXPECT_EQ(keys(attributes), (std::set<std::string>{"model", "rev", "type", "vendor"}));
}

TEST_F(CSysfsReaderTest, AnEmptyBusIdWithAnUnknownBusIsThree)
{
    scsiCdrom();
    StrMap attributes;
    EXPECT_EQ(reader.GetDeviceAttr("", static_cast<BusType>(5), attributes), 3);
    EXPECT_EQ(reader.GetDeviceAttr("", BUS_TYPE_SCSI, attributes), 1);
    EXPECT_TRUE(attributes.empty());
}

TEST_F(CSysfsReaderTest, DeviceAttrResultsInTheOrderOfTheirTests)
{
    scsiCdrom();
    StrMap attributes;
    // The open: no bus/usb in the tree.
    EXPECT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_USB, attributes), 3);
    // The list: a bus without devices.
    tree.folder("bus/usb/devices");
    EXPECT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_USB, attributes), 1);
    // The device: not on the bus, or not the exact bus_id.
    EXPECT_EQ(reader.GetDeviceAttr("2:0:2:1", BUS_TYPE_SCSI, attributes), 1);
    EXPECT_EQ(reader.GetDeviceAttr("2:0:2", BUS_TYPE_SCSI, attributes), 1);
    EXPECT_EQ(reader.GetDeviceAttr("2:0:2:0 ", BUS_TYPE_SCSI, attributes), 1);
    EXPECT_EQ(reader.GetDeviceAttr(std::string("2:0:2:0\0x", 9), BUS_TYPE_SCSI, attributes), 1);
    EXPECT_TRUE(attributes.empty());
    EXPECT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_SCSI, attributes), 0);
    EXPECT_EQ(attributes.size(), 4u);
}

TEST_F(CSysfsReaderTest, ADeviceWithoutAttributesIsASuccessWithNothing)
{
    tree.device("platform/bare").onBus("scsi", "platform/bare");
    StrMap attributes = {{"kept", "yes"}};
    SysfsCalls calls;
    EXPECT_EQ(reader.GetDeviceAttr("bare", BUS_TYPE_SCSI, attributes), 0);
    EXPECT_EQ(attributes, (StrMap{{"kept", "yes"}}));
    EXPECT_EQ(calls.calls(), (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices",
                                    "sysfs_get_device_attributes", "sysfs_close_bus"}));
}

TEST_F(CSysfsReaderTest, DeviceAttrAddsAndKeepsWhatIsThere)
{
    scsiCdrom();
    StrMap attributes = {{"type", "mine"}, {"zzz", "1"}};
    ASSERT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_SCSI, attributes), 0);
    EXPECT_EQ(attributes.at("type"), "mine");
    EXPECT_EQ(attributes.at("vendor"), "LABSCSI ");
    EXPECT_EQ(attributes.at("zzz"), "1");
}

TEST_F(CSysfsReaderTest, DeviceAttrCalls)
{
    scsiCdrom();
    StrMap attributes;
    {
        SysfsCalls calls;
        ASSERT_EQ(reader.GetDeviceAttr("2:0:2:0", BUS_TYPE_SCSI, attributes), 0);
        EXPECT_EQ(calls.calls(), (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices",
                                        "sysfs_get_device_attributes", "sysfs_close_bus"}));
    }
    {
        SysfsCalls calls;
        ASSERT_EQ(reader.GetDeviceAttr("7:0:0:0", BUS_TYPE_SCSI, attributes), 1);
        EXPECT_EQ(calls.calls(),
                  (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices", "sysfs_close_bus"}));
    }
    {
        SysfsCalls calls;
        ASSERT_EQ(reader.GetDeviceAttr("", BUS_TYPE_SCSI, attributes), 1);
        EXPECT_EQ(calls.calls(), Calls{"sysfs_get_mnt_path"});
    }
}

// --- GetDeviceDriver ---------------------------------------------------------------

TEST_F(LabServerSysfsTest, DriversOfTheScsiDevicesAndControllers)
{
    const std::pair<const char*, const char*> scsi[] = {
        {"1:0:0:0", "sr"}, {"2:0:2:0", "sr"}, {"3:2:0:0", "sd"}, {"4:0:0:0", "sr"}, {"5:0:0:0", "sd"}};
    for (const auto& row : scsi) {
        std::string driver = "old";
        EXPECT_EQ(reader.GetDeviceDriver(row.first, BUS_TYPE_SCSI, driver), 0) << row.first;
        EXPECT_EQ(driver, row.second) << row.first;
    }
    // The captured tree's PCI driver folders hold no link to their devices
    // (only a stray link named after the driver), so a PCI function's driver
    // is not found through them; the SCSI drivers' folders are whole.
    std::string driver = "old";
    EXPECT_EQ(reader.GetDeviceDriver("0000:00:05.0", BUS_TYPE_PCI, driver), 1);
    EXPECT_EQ(driver, "");
    // A host has no driver.
    EXPECT_EQ(reader.GetDeviceDriver("host2", BUS_TYPE_SCSI, driver), 1);
    EXPECT_EQ(driver, "");
}

TEST_F(CSysfsReaderTest, TheDriverIsClearedBeforeAnythingElse)
{
    scsiCdrom();
    std::string driver = "old";
    EXPECT_EQ(reader.GetDeviceDriver("2:0:2:0", static_cast<BusType>(8), driver), 3);
    EXPECT_EQ(driver, "");
    driver = "old";
    EXPECT_EQ(reader.GetDeviceDriver("", BUS_TYPE_SCSI, driver), 1);
    EXPECT_EQ(driver, "");
    driver = "old";
    EXPECT_EQ(reader.GetDeviceDriver("2:0:2:0", BUS_TYPE_USB, driver), 3);
    EXPECT_EQ(driver, "");
    driver = "old";
    EXPECT_EQ(reader.GetDeviceDriver("9:9:9:9", BUS_TYPE_SCSI, driver), 1);
    EXPECT_EQ(driver, "");
}

TEST_F(CSysfsReaderTest, TheDriverIsFoundFromTheDriversSide)
{
    // The device's own driver link names "sr", but only "sd" lists it.
    tree.device(kCdrom, {{"type", "5\n"}})
        .onBus("scsi", kCdrom)
        .driver("scsi", "sr")
        .link("bus/scsi/drivers/sd/2:0:2:0", std::string("devices/") + kCdrom)
        .link(std::string("devices/") + kCdrom + "/driver", "bus/scsi/drivers/sr");
    StrMapMap devices;
    ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
    EXPECT_EQ(devices.at("2:0:2:0").at("driver_name"), "sr");
    std::string driver;
    EXPECT_EQ(reader.GetDeviceDriver("2:0:2:0", BUS_TYPE_SCSI, driver), 0);
    EXPECT_EQ(driver, "sd");
}

TEST_F(CSysfsReaderTest, ADriverLinkThatNoDriverListsIsNoDriver)
{
    tree.device(kCdrom, {{"type", "5\n"}})
        .onBus("scsi", kCdrom)
        .driver("scsi", "sr")
        .link(std::string("devices/") + kCdrom + "/driver", "bus/scsi/drivers/sr");
    std::string driver = "x";
    SysfsCalls calls;
    EXPECT_EQ(reader.GetDeviceDriver("2:0:2:0", BUS_TYPE_SCSI, driver), 1);
    EXPECT_EQ(driver, "");
    // The driver without devices has no list and is passed over.
    EXPECT_EQ(calls.calls(), (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices",
                                    "sysfs_get_bus_drivers", "sysfs_get_driver_devices", "sysfs_close_bus"}));
}

TEST_F(CSysfsReaderTest, ABusWithoutDriversIsOne)
{
    tree.device(kCdrom, {{"type", "5\n"}}).link(std::string("bus/scsi/devices/2:0:2:0"), std::string("devices/") + kCdrom);
    std::string driver = "x";
    SysfsCalls calls;
    EXPECT_EQ(reader.GetDeviceDriver("2:0:2:0", BUS_TYPE_SCSI, driver), 1);
    EXPECT_EQ(driver, "");
    EXPECT_EQ(calls.calls(), (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices",
                                    "sysfs_get_bus_drivers", "sysfs_close_bus"}));
}

TEST_F(CSysfsReaderTest, TheFirstDriverThatListsTheDeviceWinsAndEndsBothWalks)
{
    tree.device(kCdrom, {{"type", "5\n"}})
        .onBus("scsi", kCdrom)
        .driver("scsi", "aaa-empty")
        .bind("scsi", "beta", kCdrom)
        .bind("scsi", "alpha", kCdrom)
        .driver("scsi", "zeta");
    std::vector<std::string> order = libsysfsDrivers("scsi");
    ASSERT_EQ(order.size(), 4u);
    std::string first;
    for (const std::string& name : order) {
        if (name == "alpha" || name == "beta") {
            first = name;
            break;
        }
    }
    size_t walked = 0;
    while (order[walked] != first) {
        ++walked;
    }
    std::string driver;
    SysfsCalls calls;
    EXPECT_EQ(reader.GetDeviceDriver("2:0:2:0", BUS_TYPE_SCSI, driver), 0);
    EXPECT_EQ(driver, first);
    // One driver-devices call for each driver up to the one that lists it.
    Calls expected = {"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices", "sysfs_get_bus_drivers"};
    for (size_t i = 0; i <= walked; ++i) {
        expected.push_back("sysfs_get_driver_devices");
    }
    expected.push_back("sysfs_close_bus");
    EXPECT_EQ(calls.calls(), expected);
}

TEST_F(CSysfsReaderTest, DriverCallsWhenTheDeviceIsNotThere)
{
    scsiCdrom();
    std::string driver;
    SysfsCalls calls;
    EXPECT_EQ(reader.GetDeviceDriver("5:0:0:0", BUS_TYPE_SCSI, driver), 1);
    EXPECT_EQ(calls.calls(),
              (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices", "sysfs_close_bus"}));
}

// --- GetPCIDeviceBDF ----------------------------------------------------------------

TEST_F(CSysfsReaderTest, TheDeepestPciAddressOnThePathBehindABridge)
{
    const std::string usb = "pci0000:00/0000:00:1e.0/0000:05:00.0/usb3/3-1";
    tree.device(usb, {{"devnum", "2\n"}}).onBus("usb", usb);
    std::string bus = "x", device = "y", function = "z";
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(usb), BUS_TYPE_USB, bus, device, function), 0);
    EXPECT_EQ(bus, "05");
    EXPECT_EQ(device, "00");
    EXPECT_EQ(function, "0");
}

TEST_F(LabServerSysfsTest, PciAddressesOfTheScsiDevices)
{
    const std::pair<const char*, const char*> rows[] = {{kIdeCdrom, "00 01 1"},
                                                        {kCdrom, "00 05 0"},
                                                        {kRaidDisk, "00 07 0"},
                                                        {kUsbCdrom, "00 04 0"},
                                                        {kUsbDisk, "00 01 2"}};
    for (const auto& row : rows) {
        std::string bus, device, function;
        EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(row.first), BUS_TYPE_SCSI, bus, device, function), 0)
            << row.first;
        EXPECT_EQ(bus + " " + device + " " + function, row.second) << row.first;
    }
}

TEST_F(LabServerSysfsTest, ThePciAddressOfAPciDeviceIsItsOwn)
{
    std::string bus, device, function;
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath("pci0000:00/0000:00:07.0"), BUS_TYPE_PCI, bus, device, function), 0);
    EXPECT_EQ(bus + " " + device + " " + function, "00 07 0");
}

TEST_F(LabServerSysfsTest, TheKeyIsThePathNotTheBusId)
{
    std::string bus = "b", device = "d", function = "f";
    EXPECT_EQ(reader.GetPCIDeviceBDF("4:0:0:0", BUS_TYPE_SCSI, bus, device, function), 1);
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(kUsbCdrom) + "/", BUS_TYPE_SCSI, bus, device, function), 1);
    EXPECT_EQ(reader.GetPCIDeviceBDF(onDisk(kUsbCdrom), BUS_TYPE_SCSI, bus, device, function), 1);
    EXPECT_EQ(bus + device + function, "bdf");
}

TEST_F(CSysfsReaderTest, NoPciShapedTokenLeavesTheOutputs)
{
    const std::string gadget = "platform/dummy_hcd.0/usb9/9-1";
    // The root bus's name has 10 characters and is no candidate.
    const std::string onRoot = "pci0000:00/usb8";
    // Twelve characters without separators are none either.
    const std::string plain = "pci0000:00/abcdefghijkl/usb7";
    tree.device(gadget, {{"devnum", "2\n"}}).onBus("usb", gadget);
    tree.device(onRoot, {{"devnum", "1\n"}}).onBus("usb", onRoot);
    tree.device(plain, {{"devnum", "1\n"}}).onBus("usb", plain);
    for (const std::string& path : {gadget, onRoot, plain}) {
        std::string bus = "b", device = "d", function = "f";
        EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(path), BUS_TYPE_USB, bus, device, function), 0) << path;
        EXPECT_EQ(bus + device + function, "bdf") << path;
    }
}

TEST_F(CSysfsReaderTest, OutputsAreAssignedAndTheDomainIsDropped)
{
    const std::string usb = "pci0001:02/0001:02:03.4/usb1/1-2";
    tree.device(usb, {{"devnum", "3\n"}}).onBus("usb", usb);
    std::string bus = "old", device = "old", function = "old";
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(usb), BUS_TYPE_USB, bus, device, function), 0);
    EXPECT_EQ(bus, "02");
    EXPECT_EQ(device, "03");
    EXPECT_EQ(function, "4");
}

TEST_F(CSysfsReaderTest, AnyTwelveCharactersWithTheSeparatorsInPlaceAreAnAddress)
{
    const std::string usb = "pci0000:00/0000:00:1d.7/abcd:ef:gh.i/usb1";
    tree.device(usb, {{"devnum", "1\n"}}).onBus("usb", usb);
    std::string bus, device, function;
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(usb), BUS_TYPE_USB, bus, device, function), 0);
    EXPECT_EQ(bus + " " + device + " " + function, "ef gh i");
}

TEST_F(CSysfsReaderTest, AMisplacedSeparatorCostsTheNextToken)
{
    // One misplaced colon: the odd token and 0000:05:00.0 behind it go, 0000:06:00.0 wins.
    const std::string one = "pci0000:00/0000:00:1e.0/x:abcdefghij/0000:05:00.0/0000:06:00.0/host9";
    // Two misplaced colons: both addresses behind it go, 0000:00:1e.0 stays the last seen.
    const std::string two = "pci0000:00/0000:00:1e.0/a:b:cdefghij/0000:05:00.0/0000:06:00.0/host9";
    tree.device(one, {{"x", "1\n"}}).onBus("usb", one).device(two, {{"x", "1\n"}}).onBus("usb", two, "host9-2");
    std::string bus, device, function;
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(one), BUS_TYPE_USB, bus, device, function), 0);
    EXPECT_EQ(bus + " " + device + " " + function, "06 00 0");
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(two), BUS_TYPE_USB, bus, device, function), 0);
    EXPECT_EQ(bus + " " + device + " " + function, "00 1e 0");
}

TEST_F(CSysfsReaderTest, AMisplacedSeparatorOfTheRightCountIsStillTakenAndReadsAsNothing)
{
    // Two colons and one point, one colon out of place: remembered, and the
    // token behind it lost; sscanf stops after the domain, so all three are empty.
    const std::string usb = "pci0000:00/0000:00:1e.0/000:000:00.0/0000:05:00.0";
    tree.device(usb, {{"x", "1\n"}}).onBus("usb", usb);
    std::string bus = "b", device = "d", function = "f";
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(usb), BUS_TYPE_USB, bus, device, function), 0);
    EXPECT_EQ(bus, "");
    EXPECT_EQ(device, "");
    EXPECT_EQ(function, "");
}

TEST_F(CSysfsReaderTest, MisplacedSeparatorsAtTheEndOfThePathLoseNothingMore)
{
    const std::string usb = "pci0000:00/0000:00:1e.0/:::::.......";
    tree.device(usb, {{"x", "1\n"}}).onBus("usb", usb, "odd");
    std::string bus, device, function;
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(usb), BUS_TYPE_USB, bus, device, function), 0);
    EXPECT_EQ(bus + " " + device + " " + function, "00 1e 0");
}

TEST_F(CSysfsReaderTest, BdfResultsInTheOrderOfTheirTests)
{
    scsiCdrom();
    std::string bus = "b", device = "d", function = "f";
    EXPECT_EQ(reader.GetPCIDeviceBDF("", static_cast<BusType>(5), bus, device, function), 3);
    EXPECT_EQ(reader.GetPCIDeviceBDF("", BUS_TYPE_SCSI, bus, device, function), 1);
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(kCdrom), BUS_TYPE_USB, bus, device, function), 3);
    tree.folder("bus/usb/devices");
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(kCdrom), BUS_TYPE_USB, bus, device, function), 1);
    EXPECT_EQ(bus + device + function, "bdf");
    SysfsCalls calls;
    EXPECT_EQ(reader.GetPCIDeviceBDF(devicePath(kCdrom), BUS_TYPE_SCSI, bus, device, function), 0);
    EXPECT_EQ(bus + " " + device + " " + function, "00 05 0");
    EXPECT_EQ(calls.calls(),
              (Calls{"sysfs_get_mnt_path", "sysfs_open_bus", "sysfs_get_bus_devices", "sysfs_close_bus"}));
}

// --- GetClsDeviceList -----------------------------------------------------------

TEST_F(LabServerSysfsTest, TheScsiGenericClass)
{
    StrMapMap devices;
    ASSERT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 0);
    EXPECT_EQ(keys(devices), (std::set<std::string>{"sg0", "sg1", "sg2", "sg3", "sg4"}));
    EXPECT_EQ(devices.at("sg1"),
              (StrMap{{"classname", "scsi_generic"}, {"path", devicePath(std::string(kCdrom) + "/scsi_generic/sg1")}}));
    EXPECT_EQ(devices.at("sg3").at("path"), devicePath(std::string(kUsbCdrom) + "/scsi_generic/sg3"));
    for (const auto& device : devices) {
        EXPECT_EQ(device.second.size(), 2u);
    }
}

TEST_F(LabServerSysfsTest, TheScsiHostAndBlockClasses)
{
    StrMapMap hosts;
    ASSERT_EQ(reader.GetClsDeviceList("scsi_host", hosts), 0);
    EXPECT_EQ(keys(hosts), (std::set<std::string>{"host0", "host1", "host2", "host3", "host4", "host5"}));
    EXPECT_EQ(hosts.at("host3"), (StrMap{{"classname", "scsi_host"},
                                         {"path", devicePath("pci0000:00/0000:00:07.0/host3/scsi_host/host3")}}));
    StrMapMap blocks;
    ASSERT_EQ(reader.GetClsDeviceList("block", blocks), 0);
    // fd0's device (platform/floppy.0) lies outside the captured part of the
    // tree: its class link dangles, and it is listed under its target's name.
    EXPECT_EQ(keys(blocks), (std::set<std::string>{"fd0", "sda", "sdb", "sr0", "sr1", "sr2"}));
    EXPECT_EQ(blocks.at("sr0"),
              (StrMap{{"classname", "block"}, {"path", devicePath(std::string(kIdeCdrom) + "/block/sr0")}}));
}

TEST_F(CSysfsReaderTest, AnEmptyClassIsFourBeforeTheMount)
{
    unmountAndRefuse();
    SysfsCalls calls;
    StrMapMap devices;
    StrMap a, b;
    EXPECT_EQ(reader.GetClsDeviceList("", devices), 4);
    EXPECT_EQ(reader.GetClsDeviceAttr("", "sg0", a, b), 4);
    EXPECT_EQ(reader.GetClsDeviceAttr("scsi_generic", "", a, b), 4);
    EXPECT_EQ(reader.GetClsDeviceAttr("", "", a, b), 4);
    EXPECT_TRUE(machine.mounts().empty());
    EXPECT_TRUE(calls.calls().empty());
    // With names, the mount is next.
    EXPECT_EQ(reader.GetClsDeviceList("nothing", devices), 2);
    EXPECT_EQ(reader.GetClsDeviceAttr("nothing", "sg0", a, b), 2);
}

TEST_F(CSysfsReaderTest, ClassListResultsInTheOrderOfTheirTests)
{
    StrMapMap devices;
    EXPECT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 4);
    tree.folder("class/scsi_generic");
    EXPECT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 1);
    EXPECT_TRUE(devices.empty());
    SysfsCalls calls;
    EXPECT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 1);
    EXPECT_EQ(calls.calls(),
              (Calls{"sysfs_get_mnt_path", "sysfs_open_class", "sysfs_get_class_devices", "sysfs_close_class"}));
}

TEST_F(CSysfsReaderTest, ClassListAddsAndKeepsWhatIsThere)
{
    scsiCdrom();
    tree.virtualClassDevice("scsi_generic", "sg7", {{"dev", "21:7\n"}});
    StrMapMap devices = {{"sg1", {{"mine", "yes"}}}};
    SysfsCalls calls;
    ASSERT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 0);
    EXPECT_EQ(devices.at("sg1"), (StrMap{{"mine", "yes"}}));
    EXPECT_EQ(devices.at("sg7"), (StrMap{{"classname", "scsi_generic"}, {"path", devicePath("virtual/scsi_generic/sg7")}}));
    EXPECT_EQ(calls.calls(),
              (Calls{"sysfs_get_mnt_path", "sysfs_open_class", "sysfs_get_class_devices", "sysfs_close_class"}));
}

TEST_F(CSysfsReaderTest, ADanglingClassLinkIsListedUnderItsTargetsName)
{
    scsiCdrom();
    tree.link("class/scsi_generic/sg9", "devices/pci0000:00/0000:00:05.0/host2/target2:0:9/2:0:9:0/scsi_generic/gone");
    StrMapMap devices;
    ASSERT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 0);
    EXPECT_EQ(keys(devices), (std::set<std::string>{"gone", "sg1"}));
    // libsysfs knows no class for it.
    EXPECT_EQ(devices.at("gone"),
              (StrMap{{"classname", "unknown"},
                      {"path", devicePath("pci0000:00/0000:00:05.0/host2/target2:0:9/2:0:9:0/scsi_generic/gone")}}));
    StrMap classAttributes, deviceAttributes;
    EXPECT_EQ(reader.GetClsDeviceAttr("scsi_generic", "gone", classAttributes, deviceAttributes), 0);
    EXPECT_TRUE(classAttributes.empty());
    EXPECT_TRUE(deviceAttributes.empty());
    EXPECT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg9", classAttributes, deviceAttributes), 1);
}

TEST_F(CSysfsReaderTest, AClassDeviceWithoutSubsystemLinkHasAnUnknownClassName)
{
    tree.device("virtual/misc/sg5", {{"dev", "21:5\n"}}).link("class/scsi_generic/sg5", "devices/virtual/misc/sg5");
    StrMapMap devices;
    ASSERT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 0);
    EXPECT_EQ(devices.at("sg5").at("classname"), "unknown");
}

// --- GetClsDeviceAttr -----------------------------------------------------------

TEST_F(LabServerSysfsTest, AScsiHostAndTheDeviceBehindIt)
{
    StrMap classAttributes, deviceAttributes;
    ASSERT_EQ(reader.GetClsDeviceAttr("scsi_host", "host2", classAttributes, deviceAttributes), 0);
    EXPECT_EQ(classAttributes.at("proc_name"), "sym53c8xx");
    EXPECT_EQ(classAttributes.at("unique_id"), "53248");
    EXPECT_EQ(classAttributes, attributesOnDisk(onDisk("pci0000:00/0000:00:05.0/host2/scsi_host/host2")));
    EXPECT_EQ(deviceAttributes, (StrMap{{"bus_id", "host2"},
                                        {"bus", ""},
                                        {"driver_name", "unknown"},
                                        {"path", devicePath("pci0000:00/0000:00:05.0/host2")},
                                        {"name", "host2"},
                                        {"uevent", "DEVTYPE=scsi_host"}}));
}

TEST_F(LabServerSysfsTest, TheProcNameOfEveryHost)
{
    const char* const names[] = {"ata_piix", "ata_piix", "sym53c8xx", "megaraid_sas", "usb-storage", "usb-storage"};
    for (int n = 0; n < 6; ++n) {
        StrMap classAttributes, deviceAttributes;
        std::string host = "host" + std::to_string(n);
        ASSERT_EQ(reader.GetClsDeviceAttr("scsi_host", host, classAttributes, deviceAttributes), 0) << host;
        EXPECT_EQ(classAttributes.at("proc_name"), names[n]) << host;
        EXPECT_EQ(deviceAttributes.at("bus_id"), host);
    }
}

TEST_F(LabServerSysfsTest, AnSgNodeAndTheUsbCdromBehindIt)
{
    StrMap classAttributes, deviceAttributes;
    ASSERT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg3", classAttributes, deviceAttributes), 0);
    EXPECT_EQ(classAttributes, (StrMap{{"dev", "21:3"}, {"uevent", "MAJOR=21\nMINOR=3\nDEVNAME=sg3"}}));
    // The five facts of the device, then its attributes.
    StrMap expected = {{"bus_id", "4:0:0:0"},
                       {"bus", ""},
                       {"driver_name", "sr"},
                       {"path", devicePath(kUsbCdrom)},
                       {"name", "4:0:0:0"}};
    for (const auto& attribute : attributesOnDisk(onDisk(kUsbCdrom))) {
        expected.insert(attribute);
    }
    EXPECT_EQ(deviceAttributes, expected);
    EXPECT_EQ(deviceAttributes.at("vendor"), "LABUSB  ");
    EXPECT_EQ(deviceAttributes.at("model"), "USB CD-ROM      ");
    EXPECT_EQ(deviceAttributes.at("rev"), "1.00");
    EXPECT_EQ(deviceAttributes.at("max_sectors"), "240");
}

TEST_F(LabServerSysfsTest, TheBlockDevicesWithDevRemovableAndSize)
{
    const std::pair<const char*, const char*> rows[] = {
        {"sr0", "11:0 1"}, {"sr1", "11:1 1"}, {"sda", "8:0 0"}, {"sr2", "11:2 1"}, {"sdb", "8:16 1"}};
    for (const auto& row : rows) {
        StrMap classAttributes, deviceAttributes;
        ASSERT_EQ(reader.GetClsDeviceAttr("block", row.first, classAttributes, deviceAttributes), 0) << row.first;
        EXPECT_EQ(classAttributes.at("dev") + " " + classAttributes.at("removable"), row.second) << row.first;
    }
    StrMap classAttributes, deviceAttributes;
    ASSERT_EQ(reader.GetClsDeviceAttr("block", "sdb", classAttributes, deviceAttributes), 0);
    EXPECT_EQ(classAttributes.at("size"), "2880");
    EXPECT_EQ(deviceAttributes.at("model"), "USB FLOPPY 1.44 ");
    EXPECT_EQ(deviceAttributes.at("bus_id"), "5:0:0:0");
}

TEST_F(CSysfsReaderTest, ClassAttrResultsInTheOrderOfTheirTests)
{
    scsiCdrom();
    StrMap a = {{"k", "v"}}, b = {{"k", "v"}};
    EXPECT_EQ(reader.GetClsDeviceAttr("scsi_host", "host2", a, b), 4);
    tree.folder("class/scsi_host");
    EXPECT_EQ(reader.GetClsDeviceAttr("scsi_host", "host2", a, b), 1);
    EXPECT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg2", a, b), 1);
    EXPECT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg", a, b), 1);
    EXPECT_EQ(a, (StrMap{{"k", "v"}}));
    EXPECT_EQ(b, (StrMap{{"k", "v"}}));
}

TEST_F(CSysfsReaderTest, AVirtualClassDeviceHasNoDeviceBehindIt)
{
    tree.virtualClassDevice("scsi_generic", "sg7", {{"dev", "21:7\n"}});
    StrMap classAttributes, deviceAttributes = {{"kept", "yes"}};
    SysfsCalls calls;
    ASSERT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg7", classAttributes, deviceAttributes), 0);
    EXPECT_EQ(classAttributes, (StrMap{{"dev", "21:7"}}));
    EXPECT_EQ(deviceAttributes, (StrMap{{"kept", "yes"}}));
    EXPECT_EQ(calls.calls(), (Calls{"sysfs_get_mnt_path", "sysfs_open_class", "sysfs_get_class_devices",
                                    "sysfs_get_classdev_attributes", "sysfs_get_classdev_device",
                                    "sysfs_close_class"}));
}

TEST_F(CSysfsReaderTest, AClassDeviceWithoutAttributesStillGivesItsDevice)
{
    tree.device(kCdrom, {{"type", "5\n"}}).onBus("scsi", kCdrom).classDevice("scsi_generic", kCdrom, "sg1");
    StrMap classAttributes = {{"kept", "yes"}}, deviceAttributes;
    ASSERT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg1", classAttributes, deviceAttributes), 0);
    EXPECT_EQ(classAttributes, (StrMap{{"kept", "yes"}}));
    EXPECT_EQ(deviceAttributes.at("type"), "5");
    EXPECT_EQ(deviceAttributes.at("bus_id"), "2:0:2:0");
}

TEST_F(CSysfsReaderTest, AttributesNamedLikeTheFiveFactsLoseToThem)
{
    tree.device(kCdrom, {{"name", "file name\n"},
                         {"path", "file path\n"},
                         {"bus", "file bus\n"},
                         {"bus_id", "file bus_id\n"},
                         {"driver_name", "file driver\n"},
                         {"type", "5\n"}})
        .onBus("scsi", kCdrom)
        .bind("scsi", "sr", kCdrom)
        .classDevice("scsi_generic", kCdrom, "sg1", {{"dev", "21:1\n"}});
    StrMap classAttributes, deviceAttributes;
    ASSERT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg1", classAttributes, deviceAttributes), 0);
    EXPECT_EQ(deviceAttributes, (StrMap{{"bus_id", "2:0:2:0"},
                                        {"bus", ""},
                                        {"driver_name", "sr"},
                                        {"path", devicePath(kCdrom)},
                                        {"name", "2:0:2:0"},
                                        {"type", "5"}}));
}

TEST_F(CSysfsReaderTest, ClassAttrAddsAndKeepsWhatIsThere)
{
    scsiCdrom();
    StrMap classAttributes = {{"dev", "mine"}}, deviceAttributes = {{"bus_id", "mine"}, {"vendor", "mine"}};
    ASSERT_EQ(reader.GetClsDeviceAttr("block", "sr1", classAttributes, deviceAttributes), 0);
    EXPECT_EQ(classAttributes, (StrMap{{"dev", "mine"}, {"removable", "1"}}));
    EXPECT_EQ(deviceAttributes.at("bus_id"), "mine");
    EXPECT_EQ(deviceAttributes.at("vendor"), "mine");
    EXPECT_EQ(deviceAttributes.at("model"), "SCSI CD-ROM     ");
}

TEST_F(CSysfsReaderTest, ClassAttrCalls)
{
    scsiCdrom();
    StrMap classAttributes, deviceAttributes;
    {
        SysfsCalls calls;
        ASSERT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg1", classAttributes, deviceAttributes), 0);
        EXPECT_EQ(calls.calls(), (Calls{"sysfs_get_mnt_path", "sysfs_open_class", "sysfs_get_class_devices",
                                        "sysfs_get_classdev_attributes", "sysfs_get_classdev_device",
                                        "sysfs_get_device_attributes", "sysfs_close_class"}));
    }
    {
        SysfsCalls calls;
        ASSERT_EQ(reader.GetClsDeviceAttr("scsi_generic", "sg4", classAttributes, deviceAttributes), 1);
        EXPECT_EQ(calls.calls(),
                  (Calls{"sysfs_get_mnt_path", "sysfs_open_class", "sysfs_get_class_devices", "sysfs_close_class"}));
    }
    {
        SysfsCalls calls;
        ASSERT_EQ(reader.GetClsDeviceAttr("scsi_host", "host2", classAttributes, deviceAttributes), 4);
        EXPECT_EQ(calls.calls(), (Calls{"sysfs_get_mnt_path", "sysfs_open_class"}));
    }
}

// --- The machine seam -----------------------------------------------------------

TEST(CSysfsReaderSeamTest, TwoFakeMachinesOneAfterTheOtherSeeTheirOwnTrees)
{
    SysfsTree first, second;
    first.device("virtual/scsi_generic/sg0").link("class/scsi_generic/sg0", "devices/virtual/scsi_generic/sg0");
    second.device("virtual/scsi_generic/sg8").link("class/scsi_generic/sg8", "devices/virtual/scsi_generic/sg8");
    StrMapMap seen;
    std::string firstRoot;
    {
        host::FakeMachine machine;
        machine.setSysfs(first.root());
        host::ScopedMachine scope{machine};
        firstRoot = machine.sysfsRoot();
        CSysfsReader reader(nullptr);
        ASSERT_EQ(reader.GetClsDeviceList("scsi_generic", seen), 0);
        EXPECT_EQ(keys(seen), std::set<std::string>{"sg0"});
        EXPECT_EQ(seen.at("sg0").at("path"), firstRoot + "/devices/virtual/scsi_generic/sg0");
    }
    {
        host::FakeMachine machine;
        machine.setSysfs(second.root());
        host::ScopedMachine scope{machine};
        CSysfsReader reader(nullptr);
        StrMapMap devices;
        ASSERT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 0);
        EXPECT_EQ(keys(devices), std::set<std::string>{"sg8"});
        EXPECT_EQ(devices.at("sg8").at("path"), std::string(machine.sysfsRoot()) + "/devices/virtual/scsi_generic/sg8");
    }
    {
        // A machine without a folder of its own sees nothing, not the last tree.
        host::FakeMachine machine;
        host::ScopedMachine scope{machine};
        CSysfsReader reader(nullptr);
        StrMapMap devices;
        EXPECT_EQ(reader.GetClsDeviceList("scsi_generic", devices), 4);
        EXPECT_TRUE(machine.mounts().empty());
    }
}

namespace {

// SYSFS_PATH as the process has it now, "(unset)" when it has none.
std::string sysfsPathNow()
{
    const char* value = std::getenv("SYSFS_PATH");
    return value != nullptr ? value : "(unset)";
}

} // namespace

TEST(CSysfsReaderSeamTest, TheLiveMachineGetsItsOwnSysfsPathBack)
{
    // On the live machine, the process's own value (or none) is put back.
    host::prepareSysfs();
    const std::string original = sysfsPathNow();
    SysfsTree tree;
    {
        host::FakeMachine machine;
        machine.setSysfs(tree.root());
        host::ScopedMachine scope{machine};
        CSysfsReader reader(nullptr);
        EXPECT_EQ(reader.CheckandMountSysfs(), 0);
        ASSERT_NE(std::getenv("SYSFS_PATH"), nullptr);
        EXPECT_STREQ(std::getenv("SYSFS_PATH"), machine.sysfsRoot());
    }
    EXPECT_TRUE(host::prepareSysfs());
    EXPECT_EQ(sysfsPathNow(), original);
}

TEST(CSysfsReaderSeamTest, AMachinePutInPlacePointsLibsysfsOnlyWhenItIsAsked)
{
    host::prepareSysfs();
    const std::string original = sysfsPathNow();
    SysfsTree tree;
    host::FakeMachine machine;
    machine.setSysfs(tree.root());
    host::ScopedMachine scope{machine};
    // Nothing is made for sysfs yet: libsysfs sees what the process would.
    EXPECT_EQ(sysfsPathNow(), original);
    EXPECT_TRUE(host::prepareSysfs());
    ASSERT_NE(std::getenv("SYSFS_PATH"), nullptr);
    EXPECT_STREQ(std::getenv("SYSFS_PATH"), machine.sysfsRoot());
    EXPECT_TRUE(fs::is_symlink(machine.sysfsRoot()));
}

TEST(CSysfsReaderSeamTest, TheFakeFolderIsHandedOnThroughAShortAlias)
{
    SysfsTree tree(std::string("/tmp/") + std::string(80, 'p'));
    std::string alias;
    {
        host::FakeMachine machine;
        machine.setSysfs(tree.root());
        alias = machine.sysfsRoot();
        EXPECT_EQ(alias.size(), host::kSysfsAliasLength);
        EXPECT_EQ(alias.substr(0, 13), "/tmp/ostrand-");
        EXPECT_TRUE(fs::is_symlink(alias));
        EXPECT_EQ(fs::read_symlink(alias).string(), tree.root());
        // The same alias for the life of the folder; a new one for a new folder.
        EXPECT_EQ(std::string(machine.sysfsRoot()), alias);
        machine.setSysfs(tree.path("devices"));
        EXPECT_NE(std::string(machine.sysfsRoot()), alias);
        EXPECT_FALSE(fs::exists(fs::path(alias).parent_path()));
        alias = machine.sysfsRoot();
    }
    EXPECT_FALSE(fs::exists(fs::path(alias).parent_path()));
}

// The mount table that libsysfs reads, as each machine shows it.
std::string mountTable()
{
    FILE* table = ::setmntent("/proc/mounts", "r");
    if (table == nullptr) {
        return "(none)";
    }
    std::string lines;
    while (struct mntent* entry = ::getmntent(table)) {
        lines += std::string(entry->mnt_fsname) + " " + entry->mnt_dir + " " + entry->mnt_type + "\n";
    }
    ::endmntent(table);
    return lines;
}

TEST(CSysfsReaderSeamTest, EachMachineShowsLibsysfsItsOwnMountTable)
{
    SysfsTree tree;
    {
        host::FakeMachine machine;
        machine.setSysfs(tree.root());
        host::ScopedMachine scope{machine};
        EXPECT_EQ(mountTable(), "sysfs " + std::string(machine.sysfsRoot()) + " sysfs\n");
        machine.setSysfsMounted(false);
        EXPECT_EQ(mountTable(), "");
    }
    {
        host::FakeMachine machine;
        host::ScopedMachine scope{machine};
        EXPECT_EQ(mountTable(), "sysfs /nonexistent/ostrand-fake-machine/sys sysfs\n");
    }
    // The live machine's own table, whatever it holds, has its root in it.
    std::string live = mountTable();
    EXPECT_NE(live.find(" / "), std::string::npos) << live;
    EXPECT_EQ(live.find("ostrand"), std::string::npos) << live;
}

TEST(CSysfsReaderSeamTest, MachineDirectoriesNameTheFolderAndTheMount)
{
    SysfsTree tree;
    tree.device(kCdrom, {{"type", "5\n"}}).onBus("scsi", kCdrom);
    const std::string directory = fs::path(tree.root()).parent_path().string();
    {
        host::FakeMachine machine;
        host::loadMachineText(machine, "sysfs sys\n", directory);
        host::ScopedMachine scope{machine};
        CSysfsReader reader(nullptr);
        StrMapMap devices;
        ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
        EXPECT_EQ(keys(devices), std::set<std::string>{"2:0:2:0"});
    }
    {
        host::FakeMachine machine;
        host::loadMachineText(machine, "sysfs sys\nsysfs unmounted\n", directory);
        host::ScopedMachine scope{machine};
        CSysfsReader reader(nullptr);
        StrMapMap devices;
        ASSERT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 0);
        EXPECT_EQ(machine.mounts(), std::vector<std::string>{"none //sys sysfs"});
    }
    {
        host::FakeMachine machine;
        host::loadMachineText(machine, "sysfs sys\nsysfs unmounted\nrefuse-mount EPERM\n", directory);
        host::ScopedMachine scope{machine};
        CSysfsReader reader(nullptr);
        StrMapMap devices;
        EXPECT_EQ(reader.GetDeviceList(BUS_TYPE_SCSI, devices), 2);
        EXPECT_TRUE(devices.empty());
    }
    host::FakeMachine machine;
    EXPECT_THROW(host::loadMachineText(machine, "sysfs no-such-folder\n", directory), host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "sysfs\n", directory), host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "refuse-mount ENOTANERRNO\n", directory), host::MachineDirectoryError);
}

// --- libsysfs's path limits ------------------------------------------------------

// libsysfs loses a device whose folder's path, as it sees it, is longer than
// 125 characters: the device comes back without its attributes. Long
// attribute names in a shorter folder are read whole. The fake machine's
// alias keeps the root short.
const size_t kLibsysfsDevicePathBound = 125;

// The folders that libsysfs opens as devices: those of the buses' devices
// and of the class devices, relative to the root.
std::set<std::string> sampleDeviceFolders()
{
    std::set<std::string> folders;
    const std::string root = fs::canonical(kLabSysfs).string();
    for (const char* lists : {"bus/pci/devices", "bus/scsi/devices", "bus/usb/devices", "class/scsi_generic",
                              "class/scsi_host", "class/scsi_device", "class/scsi_disk", "class/block"}) {
        for (const auto& entry : fs::directory_iterator(kLabSysfs + "/" + lists)) {
            std::error_code error;
            fs::path folder = fs::canonical(entry.path(), error);
            if (!error) {
                folders.insert(fs::relative(folder, root).string());
            }
        }
    }
    return folders;
}

TEST(CSysfsReaderPathTest, EveryDeviceFolderOfTheSampleFitsBehindTheAlias)
{
    std::set<std::string> folders = sampleDeviceFolders();
    EXPECT_EQ(folders.size(), 12u + 16u + 14u + 5u + 6u + 5u + 2u + 5u);
    std::string deepest;
    for (const auto& folder : folders) {
        if (folder.size() > deepest.size()) {
            deepest = folder;
        }
    }
    EXPECT_LE(host::kSysfsAliasLength + 1 + deepest.size(), kLibsysfsDevicePathBound) << "deepest: " << deepest;
}

TEST(CSysfsReaderPathTest, LibsysfsManglesAttributesBeyondItsBound)
{
    // The proof that the bound above matters: a device folder so deep that
    // its attribute paths pass it loses its attributes.
    SysfsTree tree;
    std::string deep = "platform";
    while (host::kSysfsAliasLength + std::string("/devices/").size() + deep.size() <= kLibsysfsDevicePathBound) {
        deep += "/abcdefghij";
    }
    tree.device(deep, {{"type", "5\n"}, {"vendor", "LAB\n"}}).onBus("scsi", deep, "deep");
    tree.device("platform/shallow", {{"type", "5\n"}, {"vendor", "LAB\n"}}).onBus("scsi", "platform/shallow");
    host::FakeMachine machine;
    machine.setSysfs(tree.root());
    host::ScopedMachine scope{machine};
    CSysfsReader reader(nullptr);
    StrMap shallow, lost;
    ASSERT_EQ(reader.GetDeviceAttr("shallow", BUS_TYPE_SCSI, shallow), 0);
    EXPECT_EQ(shallow, (StrMap{{"type", "5"}, {"vendor", "LAB"}}));
    ASSERT_EQ(reader.GetDeviceAttr("abcdefghij", BUS_TYPE_SCSI, lost), 0);
    EXPECT_NE(lost, shallow);
}

TEST(CSysfsReaderPathTest, TheSampleReadsWholeUnderALongCheckout)
{
    // The sample copied to where a checkout with an 80-character prefix has it.
    const std::string checkout = std::string("/tmp/") + std::string(75, 'c');
    SysfsTree scratch(checkout);
    const std::string copy = fs::path(scratch.root()).parent_path().string() + "/samples/lab-server/sysfs";
    ASSERT_GE(copy.size(), 80u + std::string("/samples/lab-server/sysfs").size());
    fs::create_directories(fs::path(copy).parent_path());
    fs::copy(kLabSysfs, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);

    host::FakeMachine machine;
    machine.setSysfs(copy);
    host::ScopedMachine scope{machine};
    CSysfsReader reader(nullptr);

    // Every device of the three buses: its attributes are exactly its files.
    int devicesRead = 0;
    for (BusType bus : {BUS_TYPE_SCSI, BUS_TYPE_PCI, BUS_TYPE_USB}) {
        StrMapMap devices;
        ASSERT_EQ(reader.GetDeviceList(bus, devices), 0);
        for (const auto& device : devices) {
            std::string onDisk = copy + device.second.at("path").substr(std::strlen(machine.sysfsRoot()));
            StrMap attributes;
            ASSERT_EQ(reader.GetDeviceAttr(device.first, bus, attributes), 0) << device.first;
            EXPECT_EQ(attributes, attributesOnDisk(onDisk)) << device.first;
            ++devicesRead;
        }
    }
    EXPECT_EQ(devicesRead, 16 + 12 + 14);
    // Every class device of the three classes: its files, and the device behind it.
    int classDevicesRead = 0;
    for (const char* cls : {"scsi_generic", "scsi_host", "block"}) {
        StrMapMap devices;
        ASSERT_EQ(reader.GetClsDeviceList(cls, devices), 0) << cls;
        for (const auto& device : devices) {
            std::string onDisk = copy + device.second.at("path").substr(std::strlen(machine.sysfsRoot()));
            StrMap classAttributes, deviceAttributes;
            ASSERT_EQ(reader.GetClsDeviceAttr(cls, device.first, classAttributes, deviceAttributes), 0);
            ++classDevicesRead;
            if (!fs::exists(onDisk)) {
                // fd0, whose folder lies outside the captured part: nothing.
                EXPECT_EQ(device.first, "fd0");
                EXPECT_TRUE(classAttributes.empty() && deviceAttributes.empty());
                continue;
            }
            EXPECT_EQ(classAttributes, attributesOnDisk(onDisk)) << device.first;
            StrMap behind = attributesOnDisk(fs::canonical(onDisk + "/device").string());
            for (const auto& attribute : behind) {
                EXPECT_EQ(deviceAttributes.at(attribute.first), attribute.second) << device.first;
            }
            EXPECT_EQ(deviceAttributes.size(), behind.size() + 5) << device.first;
        }
    }
    EXPECT_EQ(classDevicesRead, 5 + 6 + 6);
}

TEST(CSysfsReaderPathTest, TheSamplesEmptyFoldersAreListedAndMade)
{
    // git keeps none of them; configuring the build makes those in the list.
    std::ifstream list(std::string(OSTRAND_SOURCE_DIR) + "/samples/empty-folders.txt");
    std::set<std::string> listed;
    std::string line;
    while (std::getline(list, line)) {
        if (!line.empty() && line[0] != '#') {
            listed.insert(line);
        }
    }
    EXPECT_EQ(listed.size(), 28u);
    std::set<std::string> empty;
    for (const auto& entry : fs::recursive_directory_iterator(kLabSysfs)) {
        if (entry.is_directory() && !entry.is_symlink() && fs::is_empty(entry.path())) {
            empty.insert("lab-server/sysfs/" + fs::relative(entry.path(), kLabSysfs).string());
        }
    }
    EXPECT_EQ(empty, listed);
    // The function behind the bridge has a folder, but nothing was copied into it.
    EXPECT_TRUE(listed.count("lab-server/sysfs/devices/pci0000:00/0000:00:06.0/0000:01:01.0"));
}

TEST(CSysfsReaderPathTest, TheSamplesLinksAreRelativeAndDangleOnlyOutOfTheCapture)
{
    // The captured parts of the tree; links into them all lead somewhere.
    const char* const captured[] = {"bus/scsi/",          "bus/usb/",         "bus/pci/devices/", "bus/pci/drivers/",
                                    "class/scsi_generic/", "class/scsi_host/", "class/scsi_device/", "class/scsi_disk/",
                                    "class/block/",       "devices/pci0000:00/"};
    const fs::path root = fs::canonical(kLabSysfs);
    int dangling = 0;
    for (const auto& entry : fs::recursive_directory_iterator(kLabSysfs)) {
        if (!entry.is_symlink()) {
            continue;
        }
        fs::path text = fs::read_symlink(entry.path());
        EXPECT_TRUE(text.is_relative()) << entry.path();
        if (fs::exists(entry.path())) {
            continue;
        }
        ++dangling;
        std::string target = (fs::canonical(entry.path().parent_path()) / text).lexically_normal().string();
        std::string relative = target.compare(0, root.string().size() + 1, root.string() + "/") == 0
                                   ? target.substr(root.string().size() + 1)
                                   : "../" + target;
        for (const char* part : captured) {
            EXPECT_NE(relative.compare(0, std::strlen(part), part), 0) << entry.path() << " -> " << text;
        }
    }
    // module/, the ACPI nodes, platform and virtual devices, the classes and
    // buses not copied, and the stray links of bus/pci.
    EXPECT_EQ(dangling, 63);
}

} // namespace

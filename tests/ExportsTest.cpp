// What the shared library shows to the framework that loads it: its soname,
// the classes and globals of its interface, and nothing of the machine
// boundary. Read from the built library with nm and readelf.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char* const kLibrary = OSTRAND_SHARED_LIBRARY;

// The whole output of a shell command, read as the tests' own business
// through libc (the library's boundary is not involved here).
std::string runCommand(const std::string& command, int& status)
{
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        status = -1;
        return output;
    }
    char buffer[4096];
    size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        output.append(buffer, count);
    }
    status = ::pclose(pipe);
    return output;
}

struct Symbol {
    char type;
    std::string name;
};

// The dynamic symbols that the library defines, demangled.
const std::vector<Symbol>& exportedSymbols()
{
    static std::vector<Symbol> symbols;
    static bool read = false;
    if (!read) {
        read = true;
        int status = 0;
        std::string output = runCommand(std::string("nm -DC --defined-only '") + kLibrary + "' 2>&1", status);
        EXPECT_EQ(status, 0) << output;
        std::istringstream lines(output);
        std::string line;
        while (std::getline(lines, line)) {
            // address, blank, type letter, blank, name (which can hold blanks)
            size_t blank = line.find(' ');
            if (blank == std::string::npos || blank + 3 > line.size()) {
                continue;
            }
            symbols.push_back(Symbol{line[blank + 1], line.substr(blank + 3)});
        }
    }
    return symbols;
}

// A function is exported if a text symbol's name is the qualified name
// followed by its parameter list (or an ABI tag and then the list).
bool exportsFunction(const std::string& qualifiedName)
{
    for (const Symbol& symbol : exportedSymbols()) {
        if (symbol.type != 'T' && symbol.type != 'W') {
            continue;
        }
        if (symbol.name.compare(0, qualifiedName.size(), qualifiedName) != 0) {
            continue;
        }
        char next = symbol.name.size() > qualifiedName.size() ? symbol.name[qualifiedName.size()] : '\0';
        if (next == '(' || next == '[') {
            return true;
        }
    }
    return false;
}

bool exportsName(const std::string& name, const std::string& types)
{
    for (const Symbol& symbol : exportedSymbols()) {
        if (symbol.name == name && types.find(symbol.type) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void expectFunctions(const std::string& scope, const std::vector<std::string>& names)
{
    for (const std::string& name : names) {
        EXPECT_TRUE(exportsFunction(scope + name)) << scope + name;
    }
}

} // namespace

TEST(ExportsTest, SonameIsLibOstrandSo2)
{
    int status = 0;
    std::string output = runCommand(std::string("readelf -d '") + kLibrary + "' 2>&1", status);
    ASSERT_EQ(status, 0) << output;
    EXPECT_NE(output.find("Library soname: [libOstrand.so.2]"), std::string::npos) << output;
}

TEST(ExportsTest, TheLibraryExportsSymbolsAtAll)
{
    EXPECT_GT(exportedSymbols().size(), 50u);
}

TEST(ExportsTest, FacadeAndRecordAreExported)
{
    const std::string ns = "Vantrel::Ostrand::";
    expectFunctions(ns + "CWmiInfo::", {"getCWMIInfoInstance", "CWmiInfo", "getEnumerateDeviceHandle", "Next",
                                        "freeEnumerateDeviceHandle", "setLogFile"});
    EXPECT_TRUE(exportsName(ns + "CWmiInfo::_CWmiInfoInstance", "BD"));
    expectFunctions(ns + "IWbemClassObject::", {"IWbemClassObject", "~IWbemClassObject", "getValue"});
    EXPECT_TRUE(exportsName("typeinfo for " + ns + "IDeviceFinder", "VR"));
}

TEST(ExportsTest, PciUtilOperationsAreExported)
{
    expectFunctions("Vantrel::Ostrand::PCIUtil::",
                    {"PCIUtil", "~PCIUtil", "initPciUtil", "getNumofDeviceWithClass", "getDeviceIdVendorId",
                     "getPCIBusDevFunction", "getDevAttribute", "getProgIntface", "getDeviceName", "getAllPCIDevices",
                     "parseN", "parseM", "parseBusDetails", "parseIRQ", "parseIOPortsAddr"});
}

TEST(ExportsTest, LinuxUtilsOperationsAreExported)
{
    expectFunctions("Vantrel::Ostrand::LinuxUtils::",
                    {"LinuxUtils", "~LinuxUtils", "toString", "extractBusDevFn", "fromHexToInt", "numofDevNodes",
                     "getPortType", "getSlotInfo", "getNumOfPorts", "getDeviceDescription", "readDmiTable"});
}

TEST(ExportsTest, UsbIoctlsOperationsAreExported)
{
    expectFunctions("Vantrel::Ostrand::UsbIoctls::",
                    {"UsbIoctls", "~UsbIoctls", "UsbPassThrough", "getConfigDescriptor", "getPortStatus",
                     "getUsbDeviceStatus", "getNumofPorts", "getUsbDeviceClass", "getDeviceClass", "getMaxPower",
                     "getHubPortInfo", "getDriver", "getDevDscrpn", "getFindCmdOutput", "getDirnameCmdOutput",
                     "getBasenameCmdOutput", "getCatCmdOutput", "getAttribute"});
}

TEST(ExportsTest, PciDeviceFinderOperationsAreExported)
{
    const std::string finder = "Vantrel::Ostrand::PCIDeviceFinder";
    expectFunctions(finder + "::",
                    {"PCIDeviceFinder", "getAllObjects", "ParseAndRemoveSpecialChars", "checkForDuplicateBusAndAdd"});
    EXPECT_TRUE(exportsName("vtable for " + finder, "VR"));
    EXPECT_TRUE(exportsName("typeinfo for " + finder, "VR"));
}

TEST(ExportsTest, CdDvdFinderOperationsAreExported)
{
    const std::string finder = "Vantrel::Ostrand::CDDVDDeviceFinder";
    expectFunctions(finder + "::",
                    {"CDDVDDeviceFinder", "~CDDVDDeviceFinder", "getAllObjects", "getPureIDECDDevice",
                     "getSCSICDDevice", "isCDDevice", "isPureIDE", "ideInquiry", "getDeviceClass", "getCDDevNode",
                     "trimString", "mkDevLocationString", "mkDevParentLocationString", "getSgDeviceDescriptor",
                     "getDeviceNodeFromSysfs", "getUSBCDLoc_ParentLoc"});
    EXPECT_TRUE(exportsName("vtable for " + finder, "VR"));
    EXPECT_TRUE(exportsName("typeinfo for " + finder, "VR"));
    // Both overloads of each.
    EXPECT_TRUE(exportsName(finder + "::getDeviceClass[abi:cxx11](char const*) const", "TW"));
    EXPECT_TRUE(exportsName(finder + "::getDeviceClass(std::__cxx11::basic_string<char, std::char_traits<char>, "
                                     "std::allocator<char> >&) const",
                            "TW"));
    EXPECT_TRUE(exportsName(finder + "::mkDevParentLocationString[abi:cxx11](char) const", "TW"));
    EXPECT_TRUE(exportsName(finder + "::mkDevParentLocationString[abi:cxx11](int) const", "TW"));
    // The identity reader behind the IDE walk is the library's own business.
    EXPECT_FALSE(exportsFunction("Vantrel::Ostrand::readIdentity"));
}

TEST(ExportsTest, FloppyDeviceFinderOperationsAreExported)
{
    const std::string finder = "Vantrel::Ostrand::FloppyDeviceFinder";
    expectFunctions(finder + "::", {"FloppyDeviceFinder", "~FloppyDeviceFinder", "getAllObjects", "getISAFloppies",
                                    "getUSBFloppies", "getSgDeviceDescriptor", "getUSBFDDLoc_ParentLoc"});
    EXPECT_TRUE(exportsName("vtable for " + finder, "VR"));
    EXPECT_TRUE(exportsName("typeinfo for " + finder, "VR"));
}

TEST(ExportsTest, TheUsbStorageLocationIsExported)
{
    expectFunctions("Vantrel::Ostrand::USBDeviceFinder::", {"getMyUSBInformation", "getLocationInfo"});
}

TEST(ExportsTest, UsbRecordAndLsusbParserAreExported)
{
    // The record lives in the global namespace.
    expectFunctions("Usb_Device::", {"Usb_Device", "~Usb_Device"});
    bool copyConstructor = false;
    for (const Symbol& symbol : exportedSymbols()) {
        copyConstructor = copyConstructor || symbol.name == "Usb_Device::Usb_Device(Usb_Device const&)";
    }
    EXPECT_TRUE(copyConstructor);
    expectFunctions("Vantrel::Ostrand::lsusbParser::",
                    {"lsusbParser", "~lsusbParser", "getlsusbOutput", "getInfoforOneUsbDev", "parseBuffer",
                     "isContrlChar", "getFirstDigit", "getFirstAlphaNumChar"});
}

TEST(ExportsTest, SysfsReaderOperationsAndStaticsAreExported)
{
    expectFunctions("Vantrel::Ostrand::CSysfsReader::",
                    {"CSysfsReader", "~CSysfsReader", "InitializeBusMap", "Lookup", "CheckandMountSysfs",
                     "SetAttribute", "GetScsiDeviceCBTL", "GetDeviceList", "GetDeviceAttr", "GetDeviceDriver",
                     "GetPCIDeviceBDF", "GetClsDeviceList", "GetClsDeviceAttr"});
    EXPECT_TRUE(exportsName("Vantrel::Ostrand::CSysfsReader::m_BusMap[abi:cxx11]", "BD"));
    EXPECT_TRUE(exportsName("Vantrel::Ostrand::CSysfsReader::m_BusMapInitialize", "BD"));
}

TEST(ExportsTest, TheLibraryNeedsLibsysfs)
{
    int status = 0;
    std::string output = runCommand(std::string("readelf -d '") + kLibrary + "' 2>&1", status);
    ASSERT_EQ(status, 0) << output;
    EXPECT_NE(output.find("Shared library: [libsysfs.so.2]"), std::string::npos) << output;
}

TEST(ExportsTest, ScsiGenericAndTheSemaphoreFunctionsAreExported)
{
    expectFunctions("Vantrel::Ostrand::SCSIGeneric::",
                    {"SCSIGeneric", "~SCSIGeneric", "sempahore_lock", "sempahore_unlock", "setnumOfValidSgNodes",
                     "getNumofActiveSGs", "getSgfromMap", "scsiGenericIoctl", "checkSenseBuffer", "doTestUnitReady",
                     "doReadCapacity", "isEmulated"});
    EXPECT_TRUE(exportsName("zt_sem_create(int)", "T"));
    EXPECT_TRUE(exportsName("zt_sem_free(int)", "T"));
    EXPECT_TRUE(exportsName("zt_sem_wait(int)", "T"));
    EXPECT_TRUE(exportsName("zt_sem_relinquish(int)", "T"));
    EXPECT_TRUE(exportsName("zt_sem_semop_retry(int, sembuf*, int)", "T"));
    EXPECT_TRUE(exportsName("zt_sem_print(char*, char*)", "T"));
    // The byte readers behind the commands are the library's own business.
    EXPECT_FALSE(exportsFunction("Vantrel::Ostrand::readSense"));
    EXPECT_FALSE(exportsFunction("Vantrel::Ostrand::readInquiry"));
}

TEST(ExportsTest, GlobalsOfTheGlobalNamespaceAreExported)
{
    EXPECT_TRUE(exportsName("pLogFile", "BD"));
    EXPECT_TRUE(exportsName("c_pNodeStr", "BD"));
    EXPECT_TRUE(exportsName("selectNodes(dirent const*)", "T"));
}

TEST(ExportsTest, NothingOfTheMachineBoundaryIsExported)
{
    std::string leaked;
    for (const Symbol& symbol : exportedSymbols()) {
        if (symbol.name.find("Vantrel::Ostrand::host") != std::string::npos) {
            leaked += symbol.name + "\n";
        }
    }
    EXPECT_EQ(leaked, "");
}

TEST(ExportsTest, NoFakeMachineIsBuiltIntoTheLibrary)
{
    int status = 0;
    std::string output = runCommand(std::string("nm -C '") + kLibrary + "' 2>&1", status);
    ASSERT_EQ(status, 0) << output;
    std::string fake;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        for (const char* name : {"FakeMachine", "FakeFileTree", "FakeSemaphores", "DeviceModel", "SerialModel",
                                 "MemoryModel", "FileModel", "ModemScript", "loadMachine",
                                 "FloppyModel", "ScsiBlockModel", "IdeModel"}) {
            if (line.find(name) != std::string::npos) {
                fake += line + "\n";
                break;
            }
        }
    }
    EXPECT_EQ(fake, "");
}

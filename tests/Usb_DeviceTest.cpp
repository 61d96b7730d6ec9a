// The USB device record: its defaults, the layout the framework reads, the
// copy that leaves slotName behind, and the map that keeps the first record
// of a path.
#include "tests/support/UsbRecords.h"
#include "usb/Usb_Device.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

using ostrand_test::describe;

namespace {

// Sets every field of a record to a value of its own.
void fill(Usb_Device& d)
{
    d.deviceClass = 9;
    d.deviceSubClass = 2;
    d.deviceErrorCode = 28;
    d.nodeKind = 3;
    d.numOfPorts = 16;
    d.selfPowered = 1;
    d.vendorId = 0x8087;
    d.productId = 0x0024;
    d.spareInt1 = -7;
    d.spareInt2 = 77;
    d.endDevice = true;
    d.spareFlag = true;
    d.deviceNum = "003";
    d.devicePath = "/dev/bus/usb/001/003";
    d.driverName = "hub";
    d.classText = "09";
    d.subClassText = "02";
    d.usbSpec = "2.00";
    d.firmwareRev = "0.05";
    d.serialNo = "0000:00:1d.0";
    d.manufacturerIndex = "3";
    d.manufacturer = "Intel";
    d.vendorName = "Intel Corp.";
    d.productName = "Integrated Rate Matching Hub";
    d.modelName = " Intel Corp. Integrated Rate Matching Hub";
    d.usbSpeed = "480";
    d.controllerVendor = "Intel Corporation";
    d.deviceDescription = "USB hub";
    d.slotName = "Embedded";
    d.displayName = "Hub";
    d.addlHWInfo = "2.00, Rev:0.05, Power:0mA Self";
    d.spareText = "spare";
    d.parentPath = "/dev/bus/usb/001/001";
    d.location = "Port 1, Device 003";
    d.parentLocation = "System Board!PCI Bus 0!PCI Bus 0, Device 29, Function 0";
    d.productIdText = "0x0024";
    d.vendorIdText = "0x8087";
}

// The address of a field as a byte position inside the record.
template <typename Field>
const char* at(const Field& field)
{
    return reinterpret_cast<const char*>(&field);
}

} // namespace

TEST(Usb_DeviceTest, DefaultRecordHasAllNumbersZeroBothFlagsFalseAndEveryTextEmpty)
{
    Usb_Device d;
    std::vector<std::string> expected = {
        "deviceClass=0",   "deviceSubClass=0", "deviceErrorCode=0", "nodeKind=0",        "numOfPorts=0",
        "selfPowered=0",   "vendorId=0",       "productId=0",       "spareInt1=0",       "spareInt2=0",
        "endDevice=0",     "spareFlag=0",      "deviceNum=",        "devicePath=",       "driverName=",
        "classText=",      "subClassText=",    "usbSpec=",          "firmwareRev=",      "serialNo=",
        "manufacturerIndex=", "manufacturer=", "vendorName=",       "productName=",      "modelName=",
        "usbSpeed=",       "controllerVendor=", "deviceDescription=", "slotName=",       "displayName=",
        "addlHWInfo=",     "spareText=",       "parentPath=",       "location=",         "parentLocation=",
        "productIdText=",  "vendorIdText="};
    EXPECT_EQ(describe(d), expected);
}

TEST(Usb_DeviceTest, CopyOfADefaultRecordEqualsItInEveryField)
{
    Usb_Device original;
    Usb_Device copy(original);
    EXPECT_EQ(describe(copy), describe(original));
}

TEST(Usb_DeviceTest, CopyOfAFullRecordHasEveryFieldButSlotName)
{
    Usb_Device original;
    fill(original);
    ASSERT_EQ(original.slotName, "Embedded");
    Usb_Device copy(original);

    EXPECT_EQ(copy.slotName, "");
    std::vector<std::string> wanted = describe(original);
    std::vector<std::string> got = describe(copy);
    ASSERT_EQ(got.size(), wanted.size());
    for (size_t i = 0; i < wanted.size(); ++i) {
        if (wanted[i].compare(0, 9, "slotName=") == 0) {
            EXPECT_EQ(got[i], "slotName=");
        } else {
            EXPECT_EQ(got[i], wanted[i]);
        }
    }
    // The original keeps its own.
    EXPECT_EQ(original.slotName, "Embedded");
}

TEST(Usb_DeviceTest, ACopyOfACopyStillHasEverythingButSlotName)
{
    Usb_Device original;
    fill(original);
    Usb_Device first(original);
    first.slotName = "Slot 3";
    Usb_Device second(first);
    EXPECT_EQ(second.slotName, "");
    EXPECT_EQ(second.vendorIdText, "0x8087");
    EXPECT_EQ(second.parentLocation, original.parentLocation);
    EXPECT_TRUE(second.endDevice);
    EXPECT_TRUE(second.spareFlag);
}

TEST(Usb_DeviceTest, TheCopyIsDeepTheTwoRecordsDoNotShareText)
{
    Usb_Device original;
    fill(original);
    Usb_Device copy(original);
    copy.modelName = "changed";
    copy.vendorId = 1;
    EXPECT_EQ(original.modelName, " Intel Corp. Integrated Rate Matching Hub");
    EXPECT_EQ(original.vendorId, 0x8087);
}

TEST(Usb_DeviceTest, FieldsHaveTheTypesTheFrameworkReads)
{
    static_assert(std::is_same<decltype(Usb_Device::deviceClass), int>::value, "deviceClass");
    static_assert(std::is_same<decltype(Usb_Device::deviceSubClass), int>::value, "deviceSubClass");
    static_assert(std::is_same<decltype(Usb_Device::deviceErrorCode), int>::value, "deviceErrorCode");
    static_assert(std::is_same<decltype(Usb_Device::nodeKind), int>::value, "nodeKind");
    static_assert(std::is_same<decltype(Usb_Device::numOfPorts), int>::value, "numOfPorts");
    static_assert(std::is_same<decltype(Usb_Device::selfPowered), int>::value, "selfPowered");
    static_assert(std::is_same<decltype(Usb_Device::vendorId), int>::value, "vendorId");
    static_assert(std::is_same<decltype(Usb_Device::productId), int>::value, "productId");
    static_assert(std::is_same<decltype(Usb_Device::spareInt1), int>::value, "spareInt1");
    static_assert(std::is_same<decltype(Usb_Device::spareInt2), int>::value, "spareInt2");
    static_assert(std::is_same<decltype(Usb_Device::endDevice), bool>::value, "endDevice");
    static_assert(std::is_same<decltype(Usb_Device::spareFlag), bool>::value, "spareFlag");
    static_assert(std::is_same<decltype(Usb_Device::deviceNum), std::string>::value, "deviceNum");
    static_assert(std::is_same<decltype(Usb_Device::vendorIdText), std::string>::value, "vendorIdText");
    static_assert(!std::is_polymorphic<Usb_Device>::value, "no virtual operation");
    static_assert(std::is_copy_constructible<Usb_Device>::value, "copied into maps and out of them");
    // Nothing lies behind the last text.
    Usb_Device d;
    EXPECT_EQ(sizeof(Usb_Device), static_cast<size_t>(at(d.vendorIdText) - at(d)) + sizeof(std::string));
}

TEST(Usb_DeviceTest, FieldsLieInTheOrderTheFrameworkReads)
{
    Usb_Device d;
    std::vector<const char*> order = {
        at(d.deviceClass),  at(d.deviceSubClass),   at(d.deviceErrorCode),   at(d.nodeKind),
        at(d.numOfPorts),   at(d.selfPowered),      at(d.vendorId),          at(d.productId),
        at(d.spareInt1),    at(d.spareInt2),        at(d.endDevice),         at(d.spareFlag),
        at(d.deviceNum),    at(d.devicePath),       at(d.driverName),        at(d.classText),
        at(d.subClassText), at(d.usbSpec),          at(d.firmwareRev),       at(d.serialNo),
        at(d.manufacturerIndex), at(d.manufacturer), at(d.vendorName),       at(d.productName),
        at(d.modelName),    at(d.usbSpeed),         at(d.controllerVendor),  at(d.deviceDescription),
        at(d.slotName),     at(d.displayName),      at(d.addlHWInfo),        at(d.spareText),
        at(d.parentPath),   at(d.location),         at(d.parentLocation),    at(d.productIdText),
        at(d.vendorIdText)};
    ASSERT_EQ(order.size(), 37u);
    EXPECT_EQ(order.front(), reinterpret_cast<const char*>(&d));
    for (size_t i = 1; i < order.size(); ++i) {
        EXPECT_LT(order[i - 1], order[i]) << "field " << i + 1 << " lies before field " << i;
    }
    // Numbers, then flags, then texts, with nothing between them.
    EXPECT_EQ(order[9] + sizeof(int), order[10]);
    EXPECT_EQ(order[10] + sizeof(bool), order[11]);
    for (size_t i = 13; i < order.size(); ++i) {
        EXPECT_EQ(order[i - 1] + sizeof(std::string), order[i]) << "field " << i + 1;
    }
}

TEST(Usb_DeviceTest, EndDeviceIsCopiedAsItStands)
{
    Usb_Device d;
    d.endDevice = true;
    d.deviceClass = 9; // found to be a hub later: the flag is not the record's to clear
    Usb_Device copy(d);
    EXPECT_TRUE(copy.endDevice);
    EXPECT_EQ(copy.deviceClass, 9);
}

TEST(Usb_DeviceTest, TwoRecordsWithOnePathLeaveTheFirstInTheMap)
{
    UsbMap devices;
    Usb_Device first;
    first.devicePath = "/dev/bus/usb/002/003";
    first.modelName = " first";
    Usb_Device second;
    second.devicePath = "/dev/bus/usb/002/003";
    second.modelName = " second";

    auto one = devices.insert(UsbMap::value_type(first.devicePath, first));
    auto two = devices.insert(UsbMap::value_type(second.devicePath, second));

    EXPECT_TRUE(one.second);
    EXPECT_FALSE(two.second);
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices.at("/dev/bus/usb/002/003").modelName, " first");
}

TEST(Usb_DeviceTest, MapEntriesAreCopiesWithoutSlotName)
{
    UsbMap devices;
    Usb_Device scratch;
    fill(scratch);
    devices.insert(UsbMap::value_type(scratch.devicePath, scratch));
    const Usb_Device& entry = devices.at(scratch.devicePath);
    EXPECT_EQ(entry.slotName, "");
    EXPECT_EQ(entry.modelName, scratch.modelName);
    // A copy taken out of the map, as the finder hands it on.
    Usb_Device* handedOut = new Usb_Device(entry);
    EXPECT_EQ(handedOut->devicePath, "/dev/bus/usb/001/003");
    delete handedOut;
}

TEST(Usb_DeviceTest, MapIsOrderedByPathAsText)
{
    UsbMap devices;
    const char* const paths[] = {"/proc/bus/usb/002/001", "/dev/bus/usb/010/001", "/dev/bus/usb/002/010",
                                 "/dev/bus/usb/002/002"};
    for (const char* path : paths) {
        Usb_Device d;
        d.devicePath = path;
        devices.insert(UsbMap::value_type(d.devicePath, d));
    }
    std::vector<std::string> keys;
    for (const auto& entry : devices) {
        keys.push_back(entry.first);
        EXPECT_EQ(entry.first, entry.second.devicePath);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"/dev/bus/usb/002/002", "/dev/bus/usb/002/010",
                                              "/dev/bus/usb/010/001", "/proc/bus/usb/002/001"}));
}

#include "usb/UsbIoctls.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/models/UsbfsModel.h"
#include "tests/support/Machines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace Vantrel::Ostrand;
using host::UsbfsModel;

namespace {

const char* const kFolder = "tests/captures/lab-server/usbfs";
const char* const kRootHub1 = "/dev/bus/usb/001/001";
const char* const kStorage1 = "/dev/bus/usb/001/002";
const char* const kRootHub2 = "/dev/bus/usb/002/001";
const char* const kHub = "/dev/bus/usb/002/002";
const char* const kStorage2 = "/dev/bus/usb/002/003";
const char* const kKeyboard = "/dev/bus/usb/002/004";
const char* const kTablet = "/dev/bus/usb/002/005";

std::string bytes(std::initializer_list<int> values)
{
    std::string out;
    for (int v : values) {
        out += static_cast<char>(v);
    }
    return out;
}

// The 8-byte setup packet: type, request, value, index, length (little endian).
std::string setup(int type, int request, int value, int index, int length)
{
    return bytes({type, request, value & 0xff, value >> 8, index & 0xff, index >> 8, length & 0xff, length >> 8});
}

// Answers USBDEVFS_CONTROL with fixed bytes, or fails with an errno value;
// for replies that no real device gives.
class FixedReplyModel : public host::DeviceModel {
public:
    FixedReplyModel(std::string reply, int error) : m_reply(std::move(reply)), m_error(error)
    {
        answer(USBDEVFS_CONTROL, "USBDEVFS_CONTROL", [this](host::FakeMachine&, void* argument, host::IoctlRecord&) {
            if (m_error != 0) {
                return -m_error;
            }
            auto* transfer = static_cast<usbdevfs_ctrltransfer*>(argument);
            size_t count = std::min<size_t>(transfer->wLength, m_reply.size());
            std::memcpy(transfer->data, m_reply.data(), count);
            return static_cast<int>(count);
        });
    }

private:
    std::string m_reply;
    int m_error;
};

// A machine whose shell cannot be started.
class NoShellMachine : public host::FakeMachine {
public:
    FILE* popen(const char*, const char*) override
    {
        errno = EAGAIN;
        return nullptr;
    }
};

class UsbIoctlsTest : public ::testing::Test {
protected:
    void loadLabServer()
    {
        host::loadMachineText(machine, ostrand_test::sourceFile(std::string(kFolder) + "/machine-fragment.txt"),
                              std::string(OSTRAND_SOURCE_DIR) + "/" + kFolder);
    }

    std::shared_ptr<UsbfsModel> model(const std::string& path)
    {
        return std::dynamic_pointer_cast<UsbfsModel>(machine.model(path));
    }

    // A device with only a configuration (and a driver on interface 0).
    std::shared_ptr<UsbfsModel> addDevice(const std::string& path, const std::string& configuration)
    {
        auto device = std::make_shared<UsbfsModel>();
        device->addConfiguration(configuration);
        device->setDriver(0, "usbhid");
        machine.addNode(path, 'c', device);
        return device;
    }

    int openNode(const std::string& path)
    {
        int fd = host::open(path.c_str(), O_RDWR);
        EXPECT_GE(fd, 0) << path;
        return fd;
    }

    std::vector<std::string> inputs(const std::string& path) const
    {
        std::vector<std::string> result;
        for (const auto& event : machine.ioctls()) {
            if (event.path == path) {
                result.push_back(event.input);
            }
        }
        return result;
    }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    UsbIoctls usb{nullptr};
};

using Names = std::vector<std::string>;
using Inputs = std::vector<std::string>;

} // namespace

// --- The kernel's requests ---------------------------------------------------

TEST(UsbIoctlsRequestsTest, RequestNumbersAreTheKernelsOnThisMachine)
{
    EXPECT_EQ(static_cast<unsigned long>(USBDEVFS_CONTROL), 0xc0185500ul);
    EXPECT_EQ(static_cast<unsigned long>(USBDEVFS_IOCTL), 0xc0105512ul);
    EXPECT_EQ(static_cast<unsigned long>(USBDEVFS_HUB_PORTINFO), 0x80805513ul);
    EXPECT_EQ(static_cast<unsigned long>(USBDEVFS_GETDRIVER), 0x41045508ul);
    EXPECT_EQ(sizeof(usbdevfs_hub_portinfo), 128u);
}

// --- UsbPassThrough ------------------------------------------------------------

TEST_F(UsbIoctlsTest, PassThroughSendsTheFieldsAndTimeOutAsGiven)
{
    loadLabServer();
    int fd = openNode(kKeyboard);
    char data[18] = {};
    EXPECT_EQ(usb.UsbPassThrough(fd, 0x80, 6, 0x0100, 0, data, 18, 4321), 0);
    ASSERT_EQ(machine.ioctls().size(), 1u);
    const auto& event = machine.ioctls()[0];
    EXPECT_EQ(event.request, static_cast<unsigned long>(USBDEVFS_CONTROL));
    EXPECT_EQ(event.name, "USBDEVFS_CONTROL GET_DESCRIPTOR(device)");
    EXPECT_EQ(event.input, setup(0x80, 6, 0x0100, 0, 18));
    EXPECT_EQ(model(kKeyboard)->transfers()[0].timeout, 4321u);
    EXPECT_EQ(std::string(data, 18), bytes({0x12, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x08, 0x27, 0x06, 0x01, 0x00,
                                            0x00, 0x00, 0x01, 0x04, 0x0b, 0x01}));
    host::close(fd);
}

TEST_F(UsbIoctlsTest, PassThroughIgnoresTheIoctlsCountAndReturnsZeroAfterAnEarlierError)
{
    // The ioctl returns 18 (bytes delivered); the result is errno, cleared first.
    loadLabServer();
    int fd = openNode(kKeyboard);
    char data[18] = {};
    errno = EIO;
    EXPECT_EQ(usb.UsbPassThrough(fd, 0x80, 6, 0x0100, 0, data, 18, 1000), 0);
    EXPECT_EQ(machine.ioctls().back().result, 18);
    host::close(fd);
}

TEST_F(UsbIoctlsTest, PassThroughCutsTypeAndRequestToEightBitsAndTheRestToSixteen)
{
    loadLabServer();
    int fd = openNode(kHub);
    char data[4] = {};
    int result = usb.UsbPassThrough(fd, 0x1a3, 0x700, 0x30000, 0x20001, data, 0x10004, 1000);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(machine.ioctls().back().input, setup(0xa3, 0x00, 0x0000, 0x0001, 0x0004));
    EXPECT_EQ(machine.ioctls().back().name, "USBDEVFS_CONTROL GET_STATUS(port 1)");
    EXPECT_EQ(model(kHub)->transfers().back().timeout, 1000u);
    EXPECT_EQ(std::string(data, 4), bytes({0x03, 0x01, 0x00, 0x00}));
    host::close(fd);
}

TEST_F(UsbIoctlsTest, PassThroughReturnsTheErrnoOfAFailedTransfer)
{
    loadLabServer();
    int fd = openNode(kKeyboard);
    char data[64] = {};
    EXPECT_EQ(usb.UsbPassThrough(fd, 0xa0, 6, 0x2900, 0, data, 14, 1000), EPIPE);
    EXPECT_EQ(usb.UsbPassThrough(fd, 0x81, 10, 0, 0, data, 9, 1000), EBUSY);
    EXPECT_EQ(usb.UsbPassThrough(fd, 0x80, 6, 0x0200, 0, data, 5000, 1000), EINVAL);
    host::close(fd);
    EXPECT_EQ(usb.UsbPassThrough(fd, 0x80, 6, 0x0100, 0, data, 18, 1000), EBADF);
    EXPECT_EQ(usb.UsbPassThrough(-1, 0x80, 6, 0x0100, 0, data, 18, 1000), EBADF);
}

TEST_F(UsbIoctlsTest, PassThroughOfANodeThatRefusesTheRequestGivesItsErrno)
{
    auto device = std::make_shared<UsbfsModel>();
    device->refuse(USBDEVFS_CONTROL, ENODEV);
    machine.addNode("/dev/bus/usb/003/002", 'c', device);
    machine.addNode("/dev/bus/usb/003/003", 'c', nullptr);
    char data[18] = {};
    int fd = openNode("/dev/bus/usb/003/002");
    EXPECT_EQ(usb.UsbPassThrough(fd, 0x80, 6, 0x0100, 0, data, 18, 1000), ENODEV);
    int plain = openNode("/dev/bus/usb/003/003");
    EXPECT_EQ(usb.UsbPassThrough(plain, 0x80, 6, 0x0100, 0, data, 18, 1000), ENOTTY);
    host::close(fd);
    host::close(plain);
}

// --- getConfigDescriptor ---------------------------------------------------------

TEST_F(UsbIoctlsTest, ConfigDescriptorIsReadTwiceAndTheDescriptorStaysOpen)
{
    loadLabServer();
    int fd = openNode(kStorage2);
    char buffer[1024] = {};
    int length = -5;
    EXPECT_EQ(usb.getConfigDescriptor(fd, buffer, length), 0);
    EXPECT_EQ(length, 32);
    EXPECT_EQ(machine.ioctlNames(kStorage2),
              (Names{"USBDEVFS_CONTROL GET_DESCRIPTOR(config)", "USBDEVFS_CONTROL GET_DESCRIPTOR(config)"}));
    EXPECT_EQ(inputs(kStorage2), (Inputs{setup(128, 6, 512, 0, 9), setup(128, 6, 512, 0, 32)}));
    for (const auto& transfer : model(kStorage2)->transfers()) {
        EXPECT_EQ(transfer.timeout, 1000u);
    }
    EXPECT_EQ(std::string(buffer, 34),
              bytes({0x09, 0x02, 0x20, 0x00, 0x01, 0x01, 0x04, 0xc0, 0x00, 0x09, 0x04, 0x00, 0x00, 0x02, 0x08, 0x06,
                     0x50, 0x00, 0x07, 0x05, 0x81, 0x02, 0x40, 0x00, 0x00, 0x07, 0x05, 0x02, 0x02, 0x40, 0x00, 0x00,
                     0x00, 0x00}));
    EXPECT_EQ(machine.openDescriptors(), (std::vector<std::string>{kStorage2}));
    host::close(fd);
}

TEST_F(UsbIoctlsTest, ATotalLengthWithALowByteOf128OrMoreIsNegative)
{
    // wTotalLength 0x0080: the low byte, read signed, sets the upper bits.
    std::string configuration = bytes({9, 2, 0x80, 0x00, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 0, 3, 1, 1, 0});
    configuration += std::string(0x80 - configuration.size(), '\0');
    addDevice("/dev/bus/usb/003/002", configuration);
    int fd = openNode("/dev/bus/usb/003/002");
    char buffer[1024] = {};
    int length = 0;
    // The second read asks for 0xff80 bytes, which usbfs refuses.
    EXPECT_EQ(usb.getConfigDescriptor(fd, buffer, length), EINVAL);
    EXPECT_EQ(length, -128);
    EXPECT_EQ(inputs("/dev/bus/usb/003/002"), (Inputs{setup(128, 6, 512, 0, 9), setup(128, 6, 512, 0, 0xff80)}));
    EXPECT_EQ(usb.getDeviceClass(buffer, length), 0);
    host::close(fd);
}

TEST_F(UsbIoctlsTest, ATotalLengthWithAHighByteOf128OrMoreIsNegativeToo)
{
    addDevice("/dev/bus/usb/003/002", bytes({9, 2, 0x10, 0x80, 1, 1, 0, 0x80, 50}));
    int fd = openNode("/dev/bus/usb/003/002");
    char buffer[1024] = {};
    int length = 0;
    EXPECT_EQ(usb.getConfigDescriptor(fd, buffer, length), EINVAL);
    EXPECT_EQ(length, -32752);
    EXPECT_EQ(inputs("/dev/bus/usb/003/002").back(), setup(128, 6, 512, 0, 0x8010));
    host::close(fd);
}

TEST_F(UsbIoctlsTest, AHighByteAndALowByteOf128OrMoreGiveTheLowByteAlone)
{
    // 0x0190: the low byte 0x90 read signed covers the high byte.
    std::string configuration = bytes({9, 2, 0x90, 0x01, 1, 1, 0, 0x80, 50});
    configuration += std::string(0x190 - configuration.size(), '\0');
    addDevice("/dev/bus/usb/003/002", configuration);
    int fd = openNode("/dev/bus/usb/003/002");
    char buffer[1024] = {};
    int length = 0;
    EXPECT_EQ(usb.getConfigDescriptor(fd, buffer, length), EINVAL);
    EXPECT_EQ(length, -112);
    host::close(fd);
}

TEST_F(UsbIoctlsTest, AConfigDescriptorThatIsStalledGivesLengthZeroAndTheError)
{
    machine.addNode("/dev/bus/usb/003/002", 'c', std::make_shared<UsbfsModel>());
    int fd = openNode("/dev/bus/usb/003/002");
    char buffer[1024] = {};
    int length = 99;
    EXPECT_EQ(usb.getConfigDescriptor(fd, buffer, length), EPIPE);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(inputs("/dev/bus/usb/003/002"), (Inputs{setup(128, 6, 512, 0, 9), setup(128, 6, 512, 0, 0)}));
    host::close(fd);
}

TEST_F(UsbIoctlsTest, AShortConfigurationIsReadAsFarAsItGoes)
{
    addDevice("/dev/bus/usb/003/002", bytes({9, 2, 0x20}));
    int fd = openNode("/dev/bus/usb/003/002");
    char buffer[1024] = {};
    int length = 0;
    EXPECT_EQ(usb.getConfigDescriptor(fd, buffer, length), 0);
    EXPECT_EQ(length, 0x20);
    EXPECT_EQ(std::string(buffer, 4), bytes({9, 2, 0x20, 0}));
    EXPECT_EQ(usb.getDeviceClass(buffer, length), 0);
    host::close(fd);
}

// --- getPortStatus ---------------------------------------------------------------

TEST_F(UsbIoctlsTest, PortStatusIsTheStatusWordOfThePort)
{
    loadLabServer();
    int fd = openNode(kRootHub1);
    int status = -1;
    EXPECT_EQ(usb.getPortStatus(fd, 1, status), 0);
    EXPECT_EQ(status, 0x0503);
    EXPECT_EQ(usb.getPortStatus(fd, 2, status), 0);
    EXPECT_EQ(status, 0x0100);
    EXPECT_EQ(machine.ioctlNames(kRootHub1),
              (Names{"USBDEVFS_CONTROL GET_STATUS(port 1)", "USBDEVFS_CONTROL GET_STATUS(port 2)"}));
    EXPECT_EQ(inputs(kRootHub1), (Inputs{setup(163, 0, 0, 1, 4), setup(163, 0, 0, 2, 4)}));
    EXPECT_EQ(model(kRootHub1)->transfers()[0].timeout, 1000u);
    EXPECT_EQ(machine.openDescriptors(), (std::vector<std::string>{kRootHub1}));
    host::close(fd);
}

TEST_F(UsbIoctlsTest, PortStatusNeverCarriesTheChangeBits)
{
    auto hub = std::make_shared<UsbfsModel>();
    hub->setHubDescriptor(bytes({9, 0x29, 2, 0, 0, 1, 0, 0, 0xff}));
    hub->setPort(1, 0x0103, 0x0001);
    hub->setPort(2, 0x8000, 0xffff);
    machine.addNode("/dev/bus/usb/003/001", 'c', hub);
    int fd = openNode("/dev/bus/usb/003/001");
    int status = 0;
    EXPECT_EQ(usb.getPortStatus(fd, 1, status), 0);
    EXPECT_EQ(status, 0x0103);
    EXPECT_EQ(usb.getPortStatus(fd, 2, status), 0);
    EXPECT_EQ(status, 0x8000) << "unsigned: no sign from the top bit";
    host::close(fd);
}

TEST_F(UsbIoctlsTest, AFailedPortStatusGivesANonZeroResultAndStatusZero)
{
    loadLabServer();
    int hub = openNode(kHub);
    int status = 0x1234;
    EXPECT_EQ(usb.getPortStatus(hub, 9, status), EPIPE);
    EXPECT_EQ(status, 0);
    int device = openNode(kKeyboard);
    status = 0x1234;
    EXPECT_NE(usb.getPortStatus(device, 1, status), 0);
    EXPECT_EQ(status, 0);
    host::close(device);
    status = 0x1234;
    EXPECT_EQ(usb.getPortStatus(device, 1, status), EBADF);
    EXPECT_EQ(status, 0);
    host::close(hub);
}

// --- getUsbDeviceStatus ------------------------------------------------------------

TEST_F(UsbIoctlsTest, DeviceStatusOpensReadWriteAsksTwoBytesWithFiveSecondsAndCloses)
{
    loadLabServer();
    for (const char* path : {kRootHub1, kStorage1, kRootHub2, kHub, kStorage2, kKeyboard, kTablet}) {
        EXPECT_EQ(usb.getUsbDeviceStatus(path), 0) << path;
        EXPECT_EQ(machine.ioctlNames(path), (Names{"USBDEVFS_CONTROL GET_STATUS(device)"}));
        EXPECT_EQ(inputs(path), (Inputs{setup(128, 0, 0, 0, 2)}));
        EXPECT_EQ(model(path)->transfers()[0].timeout, 5000u);
        EXPECT_EQ(model(path)->openFlags(), (std::vector<int>{O_RDWR}));
    }
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbIoctlsTest, DeviceStatusOfAMissingNodeIsTheErrnoOfOpen)
{
    EXPECT_EQ(usb.getUsbDeviceStatus("/dev/bus/usb/009/009"), ENOENT);
    machine.denyOpen("/dev/bus/usb/009/001", EACCES);
    EXPECT_EQ(usb.getUsbDeviceStatus("/dev/bus/usb/009/001"), EACCES);
    EXPECT_TRUE(machine.ioctls().empty());
}

TEST_F(UsbIoctlsTest, AFailedDeviceStatusLeavesItsErrnoBehind)
{
    auto device = UsbfsModel::parse("fail EPROTO USBDEVFS_CONTROL GET_STATUS(device)\n");
    machine.addNode("/dev/bus/usb/003/002", 'c', device);
    EXPECT_EQ(usb.getUsbDeviceStatus("/dev/bus/usb/003/002"), EPROTO);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_TRUE(machine.openDescriptors().empty());
    EXPECT_EQ(usb.getUsbDeviceStatus(kKeyboard), ENOENT);
}

// --- getNumofPorts -------------------------------------------------------------------

TEST_F(UsbIoctlsTest, PortCountIsTheThirdByteOfTheHubDescriptor)
{
    loadLabServer();
    int ports = -1;
    EXPECT_TRUE(usb.getNumofPorts(kRootHub1, ports));
    EXPECT_EQ(ports, 6);
    EXPECT_TRUE(usb.getNumofPorts(kRootHub2, ports));
    EXPECT_EQ(ports, 2);
    EXPECT_TRUE(usb.getNumofPorts(kHub, ports));
    EXPECT_EQ(ports, 8);
    for (const char* path : {kRootHub1, kRootHub2, kHub}) {
        EXPECT_EQ(machine.ioctlNames(path), (Names{"USBDEVFS_CONTROL GET_DESCRIPTOR(hub class, value 0x0900)"}));
        EXPECT_EQ(inputs(path), (Inputs{setup(160, 6, 2304, 0, 14)}));
        EXPECT_EQ(model(path)->transfers()[0].timeout, 1000u);
        EXPECT_EQ(model(path)->openFlags(), (std::vector<int>{O_RDWR}));
    }
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbIoctlsTest, PortCountOfAMissingNodeIsFalseWithTheErrnoOfOpen)
{
    int ports = 0;
    EXPECT_FALSE(usb.getNumofPorts("/dev/bus/usb/009/009", ports));
    EXPECT_EQ(ports, ENOENT);
    machine.denyOpen("/dev/bus/usb/009/001", EACCES);
    EXPECT_FALSE(usb.getNumofPorts("/dev/bus/usb/009/001", ports));
    EXPECT_EQ(ports, EACCES);
}

TEST_F(UsbIoctlsTest, PortCountOfADeviceThatStallsIsTrueAndZero)
{
    loadLabServer();
    int ports = 77;
    EXPECT_TRUE(usb.getNumofPorts(kStorage1, ports));
    EXPECT_EQ(ports, 0);
    EXPECT_EQ(machine.ioctls().back().result, -EPIPE);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbIoctlsTest, PortCountAbove127IsReadUnsigned)
{
    auto hub = std::make_shared<UsbfsModel>();
    hub->setHubDescriptor(bytes({9, 0x29, 200, 0, 0, 1, 0, 0, 0xff}));
    machine.addNode("/dev/bus/usb/003/001", 'c', hub);
    int ports = 0;
    EXPECT_TRUE(usb.getNumofPorts("/dev/bus/usb/003/001", ports));
    EXPECT_EQ(ports, 200);
}

TEST_F(UsbIoctlsTest, AHubDescriptorOfTwoBytesGivesZeroPorts)
{
    auto hub = std::make_shared<UsbfsModel>();
    hub->setHubDescriptor(bytes({9, 0x29}));
    machine.addNode("/dev/bus/usb/003/001", 'c', hub);
    int ports = 5;
    EXPECT_TRUE(usb.getNumofPorts("/dev/bus/usb/003/001", ports));
    EXPECT_EQ(ports, 0);
}

// --- getUsbDeviceClass ------------------------------------------------------------------

TEST_F(UsbIoctlsTest, DeviceClassOfADeviceWithADriverIsBusyAndZero)
{
    // As on the lab server: every interface has its driver, and the kernel
    // refuses the request with EBUSY.
    loadLabServer();
    for (const char* path : {kRootHub1, kStorage1, kRootHub2, kHub, kStorage2, kKeyboard, kTablet}) {
        int deviceClass = 7;
        int subClass = 7;
        EXPECT_EQ(usb.getUsbDeviceClass(path, deviceClass, subClass), EBUSY) << path;
        EXPECT_EQ(deviceClass, 0);
        EXPECT_EQ(subClass, 0);
        EXPECT_EQ(machine.ioctlNames(path), (Names{"USBDEVFS_CONTROL GET_INTERFACE(interface 0)"}));
        EXPECT_EQ(inputs(path), (Inputs{setup(129, 10, 0, 0, 9)}));
        EXPECT_EQ(model(path)->transfers()[0].timeout, 1000u);
        EXPECT_EQ(model(path)->openFlags(), (std::vector<int>{O_RDWR}));
    }
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbIoctlsTest, DeviceClassReadsTheSixthAndSeventhByteUnsigned)
{
    machine.addNode("/dev/bus/usb/003/002", 'c',
                    std::make_shared<FixedReplyModel>(bytes({9, 4, 0, 0, 2, 8, 6, 0x50, 0}), 0));
    machine.addNode("/dev/bus/usb/003/003", 'c',
                    std::make_shared<FixedReplyModel>(bytes({9, 4, 0, 0, 2, 0xff, 0xfe, 0, 0}), 0));
    int deviceClass = 0;
    int subClass = 0;
    EXPECT_EQ(usb.getUsbDeviceClass("/dev/bus/usb/003/002", deviceClass, subClass), 0);
    EXPECT_EQ(deviceClass, 8);
    EXPECT_EQ(subClass, 6);
    EXPECT_EQ(usb.getUsbDeviceClass("/dev/bus/usb/003/003", deviceClass, subClass), 0);
    EXPECT_EQ(deviceClass, 255);
    EXPECT_EQ(subClass, 254);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbIoctlsTest, DeviceClassOfAnInterfaceWithoutDriverIsTheZeroedBuffer)
{
    // The claimed interface answers GET_INTERFACE with one byte.
    auto device = std::make_shared<UsbfsModel>();
    device->addConfiguration(bytes({9, 2, 18, 0, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 0, 8, 6, 0x50, 0}));
    machine.addNode("/dev/bus/usb/003/002", 'c', device);
    int deviceClass = 7;
    int subClass = 7;
    EXPECT_EQ(usb.getUsbDeviceClass("/dev/bus/usb/003/002", deviceClass, subClass), 0);
    EXPECT_EQ(deviceClass, 0);
    EXPECT_EQ(subClass, 0);
}

TEST_F(UsbIoctlsTest, DeviceClassOfAMissingNodeLeavesTheOutputs)
{
    int deviceClass = 7;
    int subClass = 8;
    EXPECT_EQ(usb.getUsbDeviceClass("/dev/bus/usb/009/009", deviceClass, subClass), ENOENT);
    EXPECT_EQ(deviceClass, 7);
    EXPECT_EQ(subClass, 8);
    machine.denyOpen("/dev/bus/usb/009/001", EPERM);
    EXPECT_EQ(usb.getUsbDeviceClass("/dev/bus/usb/009/001", deviceClass, subClass), EPERM);
    EXPECT_EQ(deviceClass, 7);
}

TEST_F(UsbIoctlsTest, DeviceClassAfterAShortReplyReadsTheZeroedRest)
{
    machine.addNode("/dev/bus/usb/003/002", 'c', std::make_shared<FixedReplyModel>(bytes({9, 4, 0, 0, 2, 3}), 0));
    int deviceClass = 0;
    int subClass = 9;
    EXPECT_EQ(usb.getUsbDeviceClass("/dev/bus/usb/003/002", deviceClass, subClass), 0);
    EXPECT_EQ(deviceClass, 3);
    EXPECT_EQ(subClass, 0);
}

// --- getDeviceClass and getMaxPower -------------------------------------------------------

TEST_F(UsbIoctlsTest, DeviceClassOfTheLabConfigurations)
{
    loadLabServer();
    struct Expected {
        const char* path;
        int deviceClass;
    };
    for (const auto& e : {Expected{kRootHub1, 9}, Expected{kStorage1, 8}, Expected{kRootHub2, 9}, Expected{kHub, 9},
                          Expected{kStorage2, 8}, Expected{kKeyboard, 3}, Expected{kTablet, 3}}) {
        int fd = openNode(e.path);
        char buffer[1024] = {};
        int length = 0;
        ASSERT_EQ(usb.getConfigDescriptor(fd, buffer, length), 0);
        EXPECT_EQ(usb.getDeviceClass(buffer, length), e.deviceClass) << e.path;
        host::close(fd);
    }
}

TEST_F(UsbIoctlsTest, DeviceClassIsTheLastInterfaces)
{
    std::string descriptors = bytes({9, 2, 34, 0, 2, 1, 0, 0x80, 50,   // configuration
                                     9, 4, 0, 0, 1, 3, 1, 1, 0,        // interface 0: HID
                                     7, 5, 0x81, 3, 8, 0, 10,          // endpoint
                                     9, 4, 1, 0, 2, 8, 6, 0x50, 0});   // interface 1: storage
    descriptors += std::string(8, '\0');
    EXPECT_EQ(usb.getDeviceClass(descriptors.data(), 34), 8);
    EXPECT_EQ(usb.getDeviceClass(descriptors.data(), 25), 3) << "the second interface lies behind the length";
    EXPECT_EQ(usb.getDeviceClass(descriptors.data(), 9), 0) << "the configuration alone";
}

TEST_F(UsbIoctlsTest, DeviceClassIsReadAsASignedByte)
{
    std::string descriptors = bytes({9, 2, 18, 0, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 1, 0xff, 0, 0, 0});
    EXPECT_EQ(usb.getDeviceClass(descriptors.data(), 18), -1);
}

TEST_F(UsbIoctlsTest, DeviceClassWithALengthBelowTwoReadsNothing)
{
    // A null buffer: any read would fault.
    EXPECT_EQ(usb.getDeviceClass(nullptr, 1), 0);
    EXPECT_EQ(usb.getDeviceClass(nullptr, 0), 0);
    EXPECT_EQ(usb.getDeviceClass(nullptr, -128), 0);
    EXPECT_EQ(usb.getDeviceClass(nullptr, -32752), 0);
}

TEST_F(UsbIoctlsTest, DeviceClassStopsAtADescriptorThatCannotMoveTheWalkOn)
{
    std::string zeroLength = bytes({9, 4, 0, 0, 1, 3, 1, 1, 0, 0, 5, 0, 0, 1, 8, 0, 0, 0});
    zeroLength += std::string(8, '\0');
    EXPECT_EQ(usb.getDeviceClass(zeroLength.data(), 200), 3);
    std::string zeroInterface = bytes({9, 4, 0, 0, 1, 3, 1, 1, 0, 0, 4, 0, 0, 1, 8, 0, 0, 0});
    zeroInterface += std::string(8, '\0');
    EXPECT_EQ(usb.getDeviceClass(zeroInterface.data(), 200), 8) << "its own class is taken before the step";
    std::string negative = bytes({9, 4, 0, 0, 1, 3, 1, 1, 0, 0xf7, 4, 0, 0, 1, 8, 0, 0, 0});
    negative += std::string(8, '\0');
    EXPECT_EQ(usb.getDeviceClass(negative.data(), 18), 8) << "its own class is taken before the step";
}

TEST_F(UsbIoctlsTest, DeviceClassOfADescriptorLongerThanTheRestEndsTheWalk)
{
    std::string descriptors = bytes({9, 2, 0, 0, 0, 0, 0, 0, 0, 100, 4, 0, 0, 0, 7, 0, 0, 0});
    descriptors += std::string(8, '\0');
    EXPECT_EQ(usb.getDeviceClass(descriptors.data(), 18), 7);
}

TEST_F(UsbIoctlsTest, MaxPowerIsTheNinthByteTimesTwo)
{
    std::string keyboard = bytes({9, 2, 0x22, 0, 1, 1, 8, 0xa0, 0x32});
    int ignored = 0;
    EXPECT_EQ(usb.getMaxPower(keyboard.data(), ignored), 100);
    std::string most = bytes({9, 2, 0x22, 0, 1, 1, 8, 0xa0, 0xfa});
    EXPECT_EQ(usb.getMaxPower(most.data(), ignored), 500);
    int anything = -7;
    EXPECT_EQ(usb.getMaxPower(most.data(), anything), 500);
}

// --- getHubPortInfo ----------------------------------------------------------------------

TEST_F(UsbIoctlsTest, HubPortInfoFillsTheTableThroughUsbdevfsIoctlAndLeavesTheNodeOpen)
{
    loadLabServer();
    int fd = openNode(kHub);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0x7f, sizeof info);
    EXPECT_TRUE(usb.getHubPortInfo(fd, &info));
    ASSERT_EQ(machine.ioctls().size(), 1u);
    EXPECT_EQ(machine.ioctls()[0].request, static_cast<unsigned long>(USBDEVFS_IOCTL));
    EXPECT_EQ(machine.ioctls()[0].name, "USBDEVFS_IOCTL HUB_PORTINFO");
    EXPECT_EQ(machine.ioctls()[0].input, bytes({0, 0, 0, 0, 0x13, 0x55, 0x80, 0x80}));
    EXPECT_EQ(info.nports, 8);
    EXPECT_EQ(std::string(info.port, 8), bytes({4, 5, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(machine.openDescriptors(), (std::vector<std::string>{kHub}));
    host::close(fd);
}

TEST_F(UsbIoctlsTest, HubPortInfoOfTheRootHubs)
{
    loadLabServer();
    int fd1 = openNode(kRootHub1);
    int fd2 = openNode(kRootHub2);
    usbdevfs_hub_portinfo info{};
    EXPECT_TRUE(usb.getHubPortInfo(fd1, &info));
    EXPECT_EQ(info.nports, 6);
    EXPECT_EQ(std::string(info.port, 6), bytes({2, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(usb.getHubPortInfo(fd2, &info));
    EXPECT_EQ(info.nports, 2);
    EXPECT_EQ(std::string(info.port, 6), bytes({2, 3, 0, 0, 0, 0}));
    host::close(fd1);
    host::close(fd2);
}

TEST_F(UsbIoctlsTest, HubPortInfoOfADeviceThatIsNoHubIsFalseAndLeavesTheTable)
{
    loadLabServer();
    int fd = openNode(kStorage1);
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0x7f, sizeof info);
    EXPECT_FALSE(usb.getHubPortInfo(fd, &info));
    EXPECT_EQ(machine.ioctls().back().result, -ENOTTY);
    EXPECT_EQ(info.nports, 0x7f);
    EXPECT_EQ(machine.openDescriptors(), (std::vector<std::string>{kStorage1}));
    host::close(fd);
    EXPECT_FALSE(usb.getHubPortInfo(fd, &info));
    int none = -1;
    EXPECT_FALSE(usb.getHubPortInfo(none, &info));
}

// --- getDriver -----------------------------------------------------------------------------

TEST_F(UsbIoctlsTest, DriverIsTheOneBoundToInterfaceZero)
{
    loadLabServer();
    EXPECT_EQ(usb.getDriver(kRootHub1), "hub");
    EXPECT_EQ(usb.getDriver(kStorage1), "usb-storage");
    EXPECT_EQ(usb.getDriver(kRootHub2), "hub");
    EXPECT_EQ(usb.getDriver(kHub), "hub");
    EXPECT_EQ(usb.getDriver(kStorage2), "usb-storage");
    EXPECT_EQ(usb.getDriver(kKeyboard), "usbhid");
    EXPECT_EQ(usb.getDriver(kTablet), "usbhid");
    EXPECT_EQ(machine.ioctlNames(kKeyboard), (Names{"USBDEVFS_GETDRIVER"}));
    EXPECT_EQ(machine.ioctls().back().request, static_cast<unsigned long>(USBDEVFS_GETDRIVER));
    EXPECT_EQ(inputs(kKeyboard), (Inputs{std::string(4, '\0')}));
    EXPECT_EQ(model(kKeyboard)->openFlags(), (std::vector<int>{O_RDWR}));
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbIoctlsTest, DriverIsEmptyOnAnyFailure)
{
    machine.addNode("/dev/bus/usb/003/002", 'c', std::make_shared<UsbfsModel>());
    EXPECT_EQ(usb.getDriver("/dev/bus/usb/003/002"), "");
    EXPECT_EQ(machine.ioctls().back().result, -ENODATA);
    auto refusing = std::make_shared<UsbfsModel>();
    refusing->setDriver(0, "usbhid");
    refusing->refuse(USBDEVFS_GETDRIVER, EIO);
    machine.addNode("/dev/bus/usb/003/003", 'c', refusing);
    EXPECT_EQ(usb.getDriver("/dev/bus/usb/003/003"), "");
    EXPECT_EQ(usb.getDriver("/dev/bus/usb/009/009"), "");
    machine.denyOpen("/dev/bus/usb/009/001", EACCES);
    EXPECT_EQ(usb.getDriver("/dev/bus/usb/009/001"), "");
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST_F(UsbIoctlsTest, ADriverNameThatFillsTheFieldIsTakenWhole)
{
    auto device = std::make_shared<UsbfsModel>();
    device->setDriver(0, std::string(300, 'd'));
    machine.addNode("/dev/bus/usb/003/002", 'c', device);
    EXPECT_EQ(usb.getDriver("/dev/bus/usb/003/002"), std::string(255, 'd'));
}

// --- getDevDscrpn ----------------------------------------------------------------------------

TEST_F(UsbIoctlsTest, ClassTextEdgeCases)
{
    EXPECT_EQ(usb.getDevDscrpn(7, 0), "USB Mass Storage Device");
    EXPECT_EQ(usb.getDevDscrpn(6, 1), "USB Mass Storage RBC typically Flash Device");
    EXPECT_EQ(usb.getDevDscrpn(10, 33), "USB Data Device");
    EXPECT_EQ(usb.getDevDscrpn(2, 0), "USB Communication Device");
    EXPECT_EQ(usb.getDevDscrpn(4, 0), "USB Device");
}

TEST_F(UsbIoctlsTest, ClassTextEveryRow)
{
    struct Row {
        int deviceClass;
        int subClass;
        const char* text;
    };
    const Row rows[] = {
        {1, 1, "USB Audio Control Device"},
        {1, 2, "USB Streaming Audio Device"},
        {1, 3, "USB Non Streaming Device"},
        {1, 0, "USB Audio Device"},
        {1, 4, "USB Audio Device"},
        {1, -1, "USB Audio Device"},
        {2, 1, "USB Direct Line Communication Device"},
        {2, 2, "USB Abstract modem Communication Device"},
        {2, 3, "USB Telephone Communication Device"},
        {2, 4, "USB Multi-Channel Communication Device"},
        {2, 5, "USB CAPI Control Communication Device"},
        {2, 6, "USB Ethernet Networking Device"},
        {2, 7, "USB ATM Networking Device"},
        {2, 8, "USB Communication Device"},
        {2, 0, "USB Communication Device"},
        {3, 0, "USB Human Interface Device"},
        {3, 1, "USB Human Interface Device"},
        {3, 255, "USB Human Interface Device"},
        {5, 0, "USB Physical interface Device"},
        {5, 9, "USB Physical interface Device"},
        {9, 0, "USB Hub"},
        {9, 2, "USB Hub"},
        {10, 30, "USB I.430 ISDN BRI Data Device"},
        {10, 31, "USB HDLC Data Device"},
        {10, 32, "USB Transparent Data Device"},
        {10, 50, "USB Q.921M Data Device"},
        {10, 51, "USB Q.921 Data Device"},
        {10, 52, "USB Q.921TM Data Device"},
        {10, 90, "USB V.42bis Data Device"},
        {10, 91, "USB Q.932 EuroISDN Data Device"},
        {10, 92, "USB V.120 V.24 rate ISDN Data Device"},
        {10, 93, "USB CAPI 2.0 Data Device"},
        {10, 253, "USB Host Based Driver Data Device"},
        {10, 254, "USB CDC PUF Data Device"},
        {10, 255, "USB Vendor specific Data Device"},
        {10, 0, "USB Data Device"},
        {10, 33, "USB Data Device"},
        {254, 0, "USB Application Specific Device"},
        {254, 1, "USB Application Specific Device"},
        {255, 0, "USB Vendor Specific Device"},
        {255, 255, "USB Vendor Specific Device"},
        {0, 0, "USB Device"},
        {4, 1, "USB Device"},
        {11, 0, "USB Device"},
        {224, 1, "USB Device"},
        {256, 0, "USB Device"},
        {-1, 0, "USB Device"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(usb.getDevDscrpn(row.deviceClass, row.subClass), row.text)
            << "class " << row.deviceClass << " subclass " << row.subClass;
    }
}

TEST_F(UsbIoctlsTest, ClassTextImagingPrintersAndMassStorageShareTheStorageRows)
{
    const char* storage[] = {"USB Mass Storage Device",
                             "USB Mass Storage RBC typically Flash Device",
                             "USB Mass Storage SFF-8020i, MMC-2 ATAPI Device",
                             "USB Mass Storage QIC-157 Device",
                             "USB Mass Storage Floppy UFI Device",
                             "USB Mass Storage SFF-8070i Device",
                             "USB Mass Storage SCSI Device",
                             "USB Mass Storage Device"};
    for (int deviceClass : {6, 7, 8}) {
        for (int subClass = 0; subClass <= 7; ++subClass) {
            EXPECT_EQ(usb.getDevDscrpn(deviceClass, subClass), storage[subClass])
                << "class " << deviceClass << " subclass " << subClass;
        }
        EXPECT_EQ(usb.getDevDscrpn(deviceClass, 80), "USB Mass Storage Device");
    }
    // The imaging and printer texts are never returned.
    for (int deviceClass = -2; deviceClass <= 300; ++deviceClass) {
        for (int subClass : {0, 1, 2, 6, 255}) {
            std::string text = usb.getDevDscrpn(deviceClass, subClass);
            EXPECT_EQ(text.find("Imaging"), std::string::npos);
            EXPECT_EQ(text.find("Printer"), std::string::npos);
        }
    }
}

// --- Tools ------------------------------------------------------------------------------------

TEST_F(UsbIoctlsTest, FindRunsItsCommandLineAndKeepsTheLastPath)
{
    machine.addCommand("find /sys/devices/pci0000:00/ -name host4",
                       "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4\n"
                       "/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host4\n");
    std::string output = "before";
    errno = EIO;
    EXPECT_TRUE(usb.getFindCmdOutput("/sys/devices/pci0000:00/", "host4", output));
    EXPECT_EQ(output, "/sys/devices/pci0000:00/0000:00:01.2/usb2/2-2/2-2:1.0/host4");
    EXPECT_EQ(machine.commands(), (std::vector<std::string>{"find /sys/devices/pci0000:00/ -name host4"}));
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(UsbIoctlsTest, FindWithNoHitLeavesTheOutputAndIsTrue)
{
    machine.addCommand("find /sys/devices/pci0000:00/ -name host9", "");
    std::string output = "as it was";
    EXPECT_TRUE(usb.getFindCmdOutput("/sys/devices/pci0000:00/", "host9", output));
    EXPECT_EQ(output, "as it was");
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(UsbIoctlsTest, DirnameAndBasenameRunTheirCommandLines)
{
    machine.addCommand("dirname /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4",
                       "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0\n");
    machine.addCommand("basename /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0", "1-1:1.0\n");
    std::string directory;
    EXPECT_TRUE(usb.getDirnameCmdOutput("/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4", directory));
    EXPECT_EQ(directory, "/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0");
    std::string name;
    EXPECT_TRUE(usb.getBasenameCmdOutput(directory, name));
    EXPECT_EQ(name, "1-1:1.0");
    EXPECT_EQ(machine.commands(),
              (std::vector<std::string>{"dirname /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/host4",
                                        "basename /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0"}));
}

TEST_F(UsbIoctlsTest, CatSendsTheFileToTheNullDeviceAndNeverTouchesTheOutput)
{
    machine.addFile("/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum", "2\n");
    // The shell prints nothing for the redirected cat.
    machine.addCommand("cat /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum > /dev/null 2>&1", "");
    std::string output;
    EXPECT_TRUE(usb.getCatCmdOutput("/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum", output));
    EXPECT_EQ(output, "");
    std::string passed = "17";
    EXPECT_TRUE(usb.getCatCmdOutput("/sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum", passed));
    EXPECT_EQ(passed, "17");
    EXPECT_EQ(machine.commands().front(),
              "cat /sys/devices/pci0000:00/0000:00:04.0/usb1/1-1/devnum > /dev/null 2>&1");
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(UsbIoctlsTest, TheLastCharacterIsCutWhateverItIs)
{
    machine.addCommand("basename /a/bc", "bc");
    machine.addCommand("basename /a/de", "de\r\n");
    machine.addCommand("basename /a/fg", "fg\nh\n\n");
    std::string output;
    EXPECT_TRUE(usb.getBasenameCmdOutput("/a/bc", output));
    EXPECT_EQ(output, "b");
    EXPECT_TRUE(usb.getBasenameCmdOutput("/a/de", output));
    EXPECT_EQ(output, "de\r");
    EXPECT_TRUE(usb.getBasenameCmdOutput("/a/fg", output));
    EXPECT_EQ(output, "") << "the last line is an empty one";
}

TEST_F(UsbIoctlsTest, ALongLineArrivesInPiecesThatEachLoseOneCharacter)
{
    std::string line = std::string(255, 'a') + std::string(10, 'b') + "\n";
    machine.addCommand("dirname /long", line);
    std::string output;
    EXPECT_TRUE(usb.getDirnameCmdOutput("/long", output));
    EXPECT_EQ(output, std::string(10, 'b'));
}

TEST_F(UsbIoctlsTest, ALineThatBeginsWithANulByteGivesEmptyText)
{
    machine.addCommand("dirname /nul", std::string("\0abc\n", 5));
    std::string output = "x";
    EXPECT_TRUE(usb.getDirnameCmdOutput("/nul", output));
    EXPECT_EQ(output, "");
}

TEST_F(UsbIoctlsTest, AMissingToolGivesTheShellsLineAndNoThrow)
{
    std::string output;
    EXPECT_NO_THROW(EXPECT_TRUE(usb.getFindCmdOutput("/sys/devices/pci0000:00/", "host4", output)));
    EXPECT_EQ(output, "sh: find: command not found");
    EXPECT_NO_THROW(EXPECT_TRUE(usb.getDirnameCmdOutput("/x/y", output)));
    EXPECT_EQ(output, "sh: dirname: command not found");
    EXPECT_NO_THROW(EXPECT_TRUE(usb.getBasenameCmdOutput("/x/y", output)));
    EXPECT_EQ(output, "sh: basename: command not found");
    // The redirection swallows the shell's complaint about cat.
    machine.setMissingCommandText("");
    std::string passed = "5";
    EXPECT_NO_THROW(EXPECT_TRUE(usb.getCatCmdOutput("/x/devnum", passed)));
    EXPECT_EQ(passed, "5");
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST_F(UsbIoctlsTest, AnotherShellsWordingIsPassedOnAsItIs)
{
    machine.setMissingCommandText("/bin/sh: 1: %s: not found\n");
    std::string output;
    EXPECT_TRUE(usb.getDirnameCmdOutput("/x/y", output));
    EXPECT_EQ(output, "/bin/sh: 1: dirname: not found");
}

TEST(UsbIoctlsNoShellTest, ToolsAreFalseWhenTheShellCannotStart)
{
    NoShellMachine machine;
    host::ScopedMachine scope{machine};
    UsbIoctls usb{nullptr};
    std::string output = "kept";
    EXPECT_FALSE(usb.getFindCmdOutput("/sys", "host0", output));
    EXPECT_FALSE(usb.getDirnameCmdOutput("/a/b", output));
    EXPECT_FALSE(usb.getBasenameCmdOutput("/a/b", output));
    EXPECT_FALSE(usb.getCatCmdOutput("/a/b", output));
    EXPECT_EQ(output, "kept");
}

// --- getAttribute -------------------------------------------------------------------------------

TEST_F(UsbIoctlsTest, AttributeIsTheCountedValueBehindItsKey)
{
    std::string output = "old";
    int ignored = 0;
    EXPECT_TRUE(usb.getAttribute("Vendor5|LABCOProduct10|USB CD-ROMSerial0|", "Product", output, ignored));
    EXPECT_EQ(output, "USB CD-ROM");
    EXPECT_TRUE(usb.getAttribute("Vendor5|LABCOProduct10|USB CD-ROM", "Vendor", output, ignored));
    EXPECT_EQ(output, "LABCO");
    EXPECT_TRUE(usb.getAttribute("Vendor5|LABCOSerial0|", "Serial", output, ignored));
    EXPECT_EQ(output, "");
}

TEST_F(UsbIoctlsTest, AttributeLengthBeyondTheTextTakesTheRest)
{
    std::string output;
    int ignored = 0;
    EXPECT_TRUE(usb.getAttribute("Key99|short", "Key", output, ignored));
    EXPECT_EQ(output, "short");
    EXPECT_TRUE(usb.getAttribute("Key-1|everything", "Key", output, ignored));
    EXPECT_EQ(output, "everything") << "a negative length counts as all";
}

TEST_F(UsbIoctlsTest, AttributeOfAMissingKeyUsesThePositionsAsTheyCome)
{
    // No key: its end falls on the key's length minus one, and the value
    // begins at the start of the text.
    std::string output = "old";
    int ignored = 0;
    EXPECT_TRUE(usb.getAttribute("3|abcdef", "k", output, ignored));
    EXPECT_EQ(output, "3|a");
    // A key without "|" behind it: the value begins at the start too.
    EXPECT_TRUE(usb.getAttribute("Key2", "Key", output, ignored));
    EXPECT_EQ(output, "Ke");
}

TEST_F(UsbIoctlsTest, AttributeWhoseStartLiesBehindTheEndThrows)
{
    std::string output = "old";
    int ignored = 0;
    try {
        usb.getAttribute("", "abc", output, ignored);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_NE(std::string(e.what()).find("basic_string::substr"), std::string::npos) << e.what();
    }
    EXPECT_EQ(output, "old");
}

// --- The object ---------------------------------------------------------------------------------

TEST_F(UsbIoctlsTest, NothingIsWrittenToTheLogStream)
{
    char name[] = "/tmp/ostrand-usb-log-XXXXXX";
    int fd = ::mkstemp(name);
    ASSERT_GE(fd, 0);
    ::close(fd);
    {
        std::ofstream log(name);
        UsbIoctls logged(&log);
        loadLabServer();
        int ports = 0;
        logged.getNumofPorts(kHub, ports);
        logged.getDriver(kHub);
        logged.getUsbDeviceStatus("/dev/bus/usb/009/009");
        std::string output;
        logged.getFindCmdOutput("/sys", "x", output);
    }
    std::ifstream in(name);
    std::string contents((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(contents, "");
    ::unlink(name);
}

TEST_F(UsbIoctlsTest, TheLabServerAsTheKernelAnsweredIt)
{
    // Driver, status, port count and class request of each node, as
    // tests/captures/lab-server/ioctls.txt records them.
    loadLabServer();
    struct Node {
        const char* path;
        const char* driver;
        int ports;
    };
    for (const auto& n : {Node{kRootHub1, "hub", 6}, Node{kStorage1, "usb-storage", 0}, Node{kRootHub2, "hub", 2},
                          Node{kHub, "hub", 8}, Node{kStorage2, "usb-storage", 0}, Node{kKeyboard, "usbhid", 0},
                          Node{kTablet, "usbhid", 0}}) {
        EXPECT_EQ(usb.getDriver(n.path), n.driver) << n.path;
        EXPECT_EQ(usb.getUsbDeviceStatus(n.path), 0) << n.path;
        int ports = -1;
        EXPECT_TRUE(usb.getNumofPorts(n.path, ports));
        EXPECT_EQ(ports, n.ports) << n.path;
        int deviceClass = -1;
        int subClass = -1;
        EXPECT_EQ(usb.getUsbDeviceClass(n.path, deviceClass, subClass), EBUSY) << n.path;
    }
    EXPECT_TRUE(machine.openDescriptors().empty());
}

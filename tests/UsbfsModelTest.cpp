// The usbfs node model: the lab server's seven USB devices answer as the
// kernel answered on the machine (tests/captures/lab-server/ioctls.txt).
#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/models/UsbfsModel.h"
#include "tests/support/Machines.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

using namespace Vantrel::Ostrand;
using host::UsbfsModel;

namespace {

const char* const kFolder = "tests/captures/lab-server/usbfs";

std::string bytes(std::initializer_list<int> values)
{
    std::string out;
    for (int v : values) {
        out += static_cast<char>(v);
    }
    return out;
}

struct Reply {
    int result;
    int error;
    std::string data;
};

class UsbfsModelTest : public ::testing::Test {
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

    int openNode(const std::string& path)
    {
        int fd = host::open(path.c_str(), O_RDWR);
        EXPECT_GE(fd, 0) << path;
        return fd;
    }

    // One control transfer on a node, as a caller makes it.
    Reply control(const std::string& path, int type, int request, int value, int index, int length,
                  unsigned timeout = 1000)
    {
        int fd = openNode(path);
        std::string buffer(8192, '\0');
        usbdevfs_ctrltransfer transfer{};
        transfer.bRequestType = static_cast<__u8>(type);
        transfer.bRequest = static_cast<__u8>(request);
        transfer.wValue = static_cast<__u16>(value);
        transfer.wIndex = static_cast<__u16>(index);
        transfer.wLength = static_cast<__u16>(length);
        transfer.timeout = timeout;
        transfer.data = &buffer[0];
        errno = 0;
        int result = host::ioctl(fd, USBDEVFS_CONTROL, &transfer);
        int error = errno;
        host::close(fd);
        return {result, error, buffer.substr(0, result > 0 ? static_cast<size_t>(result) : 0)};
    }

    std::string lastName() const { return machine.ioctls().back().name; }
    std::string lastInput() const { return machine.ioctls().back().input; }

    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
};

const char* const kNodes[] = {"/dev/bus/usb/001/001", "/dev/bus/usb/001/002", "/dev/bus/usb/002/001",
                              "/dev/bus/usb/002/002", "/dev/bus/usb/002/003", "/dev/bus/usb/002/004",
                              "/dev/bus/usb/002/005"};

} // namespace

TEST_F(UsbfsModelTest, TheFragmentDescribesTheSevenNodesOfTheLabServer)
{
    loadLabServer();
    for (const char* path : kNodes) {
        EXPECT_NE(model(path), nullptr) << path;
    }
    EXPECT_EQ(machine.model("/dev/bus/usb/002/006"), nullptr);
}

TEST_F(UsbfsModelTest, DeviceDescriptorsGiveTheCapturedIdsAndClasses)
{
    loadLabServer();
    struct Expected {
        const char* path;
        int vendor;
        int product;
        int deviceClass;
    };
    const Expected expected[] = {{"/dev/bus/usb/001/001", 0x1d6b, 0x0002, 9}, {"/dev/bus/usb/001/002", 0x46f4, 0x0001, 0},
                                 {"/dev/bus/usb/002/001", 0x1d6b, 0x0001, 9}, {"/dev/bus/usb/002/002", 0x0409, 0x55aa, 9},
                                 {"/dev/bus/usb/002/003", 0x46f4, 0x0001, 0}, {"/dev/bus/usb/002/004", 0x0627, 0x0001, 0},
                                 {"/dev/bus/usb/002/005", 0x0627, 0x0001, 0}};
    for (const auto& e : expected) {
        Reply reply = control(e.path, 0x80, 6, 0x0100, 0, 18);
        ASSERT_EQ(reply.result, 18) << e.path;
        EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(device)");
        EXPECT_EQ(lastInput(), bytes({0x80, 0x06, 0x00, 0x01, 0x00, 0x00, 0x12, 0x00}));
        const auto* d = reinterpret_cast<const unsigned char*>(reply.data.data());
        EXPECT_EQ(d[0], 18);
        EXPECT_EQ(d[1], 1);
        EXPECT_EQ(d[4], e.deviceClass) << e.path;
        EXPECT_EQ(d[8] | d[9] << 8, e.vendor) << e.path;
        EXPECT_EQ(d[10] | d[11] << 8, e.product) << e.path;
    }
}

TEST_F(UsbfsModelTest, AShortLengthCutsTheReply)
{
    loadLabServer();
    Reply reply = control("/dev/bus/usb/002/002", 0x80, 6, 0x0100, 0, 8);
    EXPECT_EQ(reply.result, 8);
    EXPECT_EQ(reply.data, bytes({0x12, 0x01, 0x10, 0x01, 0x09, 0x00, 0x00, 0x08}));
}

TEST_F(UsbfsModelTest, ConfigurationsHaveTheCapturedTotalLengthAndPower)
{
    loadLabServer();
    const int totals[] = {25, 32, 25, 25, 32, 34, 34};
    const int power[] = {0, 0, 0, 0, 0, 50, 50};
    for (int i = 0; i < 7; ++i) {
        Reply first = control(kNodes[i], 0x80, 6, 0x0200, 0, 9);
        ASSERT_EQ(first.result, 9) << kNodes[i];
        EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(config)");
        const auto* c = reinterpret_cast<const unsigned char*>(first.data.data());
        EXPECT_EQ(c[2] | c[3] << 8, totals[i]) << kNodes[i];
        EXPECT_EQ(c[8], power[i]) << kNodes[i];
        Reply whole = control(kNodes[i], 0x80, 6, 0x0200, 0, 1024);
        EXPECT_EQ(whole.result, totals[i]) << kNodes[i];
    }
}

TEST_F(UsbfsModelTest, StringsAreUtf16DescriptorsAndLanguageZeroListsEnglish)
{
    loadLabServer();
    Reply languages = control("/dev/bus/usb/002/002", 0x80, 6, 0x0300, 0, 255);
    EXPECT_EQ(languages.data, bytes({0x04, 0x03, 0x09, 0x04}));
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(string 0)");
    Reply product = control("/dev/bus/usb/002/002", 0x80, 6, 0x0302, 0x0409, 255);
    ASSERT_EQ(product.result, 2 + 2 * 12);
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(string 2)");
    std::string text;
    for (int i = 2; i < product.result; i += 2) {
        text += product.data[static_cast<size_t>(i)];
        EXPECT_EQ(product.data[static_cast<size_t>(i) + 1], '\0');
    }
    EXPECT_EQ(text, "QEMU USB Hub");
    EXPECT_EQ(static_cast<unsigned char>(product.data[0]), 26);
    EXPECT_EQ(product.data[1], 3);
}

TEST_F(UsbfsModelTest, AStringTheDeviceLacksIsStalled)
{
    loadLabServer();
    Reply reply = control("/dev/bus/usb/002/002", 0x80, 6, 0x0309, 0x0409, 255);
    EXPECT_EQ(reply.result, -1);
    EXPECT_EQ(reply.error, EPIPE);
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(string 9)");
    EXPECT_EQ(machine.ioctls().back().result, -EPIPE);
}

TEST_F(UsbfsModelTest, DeviceStatusIsTheCapturedWord)
{
    loadLabServer();
    const int status[] = {1, 1, 1, 1, 1, 0, 0};
    for (int i = 0; i < 7; ++i) {
        Reply reply = control(kNodes[i], 0x80, 0, 0, 0, 2, 5000);
        ASSERT_EQ(reply.result, 2);
        EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_STATUS(device)");
        EXPECT_EQ(reply.data, bytes({status[i], 0}));
    }
}

TEST_F(UsbfsModelTest, HubsAnswerTheirClassDescriptorWhateverTheValue)
{
    loadLabServer();
    Reply root1 = control("/dev/bus/usb/001/001", 0xa0, 6, 0x0900, 0, 14);
    EXPECT_EQ(root1.result, 14);
    EXPECT_EQ(root1.data.substr(0, 3), bytes({0x09, 0x29, 0x06}));
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(hub class, value 0x0900)");
    Reply again = control("/dev/bus/usb/001/001", 0xa0, 6, 0x2900, 0, 14);
    EXPECT_EQ(again.data, root1.data);
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(hub class, value 0x2900)");
    Reply root2 = control("/dev/bus/usb/002/001", 0xa0, 6, 0x0900, 0, 14);
    EXPECT_EQ(root2.result, 9);
    EXPECT_EQ(root2.data.substr(0, 3), bytes({0x09, 0x29, 0x02}));
    Reply hub = control("/dev/bus/usb/002/002", 0xa0, 6, 0x0900, 0, 14);
    EXPECT_EQ(hub.result, 10);
    EXPECT_EQ(hub.data.substr(0, 3), bytes({0x0a, 0x29, 0x08}));
}

TEST_F(UsbfsModelTest, ADeviceThatIsNoHubStallsHubRequests)
{
    loadLabServer();
    for (const char* path : {"/dev/bus/usb/001/002", "/dev/bus/usb/002/004"}) {
        Reply descriptor = control(path, 0xa0, 6, 0x0900, 0, 14);
        EXPECT_EQ(descriptor.error, EPIPE) << path;
        Reply port = control(path, 0xa3, 0, 0, 1, 4);
        EXPECT_EQ(port.error, EPIPE) << path;
        Reply hubStatus = control(path, 0xa0, 0, 0, 0, 4);
        EXPECT_EQ(hubStatus.error, EPIPE) << path;
    }
}

TEST_F(UsbfsModelTest, PortStatusAndChangeAreTheCapturedWords)
{
    loadLabServer();
    Reply port1 = control("/dev/bus/usb/001/001", 0xa3, 0, 0, 1, 4);
    EXPECT_EQ(port1.result, 4);
    EXPECT_EQ(port1.data, bytes({0x03, 0x05, 0x00, 0x00}));
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_STATUS(port 1)");
    EXPECT_EQ(lastInput(), bytes({0xa3, 0x00, 0x00, 0x00, 0x01, 0x00, 0x04, 0x00}));
    for (int port = 2; port <= 6; ++port) {
        EXPECT_EQ(control("/dev/bus/usb/001/001", 0xa3, 0, 0, port, 4).data, bytes({0x00, 0x01, 0x00, 0x00}));
        EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_STATUS(port " + std::to_string(port) + ")");
    }
    for (int port = 1; port <= 2; ++port) {
        EXPECT_EQ(control("/dev/bus/usb/002/001", 0xa3, 0, 0, port, 4).data, bytes({0x03, 0x01, 0x00, 0x00}));
        EXPECT_EQ(control("/dev/bus/usb/002/002", 0xa3, 0, 0, port, 4).data, bytes({0x03, 0x01, 0x00, 0x00}));
    }
    for (int port = 3; port <= 8; ++port) {
        EXPECT_EQ(control("/dev/bus/usb/002/002", 0xa3, 0, 0, port, 4).data, bytes({0x00, 0x01, 0x00, 0x00}));
    }
}

TEST_F(UsbfsModelTest, APortBeyondTheHubIsStalled)
{
    loadLabServer();
    EXPECT_EQ(control("/dev/bus/usb/001/001", 0xa3, 0, 0, 7, 4).error, EPIPE);
    EXPECT_EQ(control("/dev/bus/usb/001/001", 0xa3, 0, 0, 0, 4).error, EPIPE);
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_STATUS(port 0)");
}

TEST_F(UsbfsModelTest, HubStatusIsFourZeroBytes)
{
    loadLabServer();
    Reply reply = control("/dev/bus/usb/002/002", 0xa0, 0, 0, 0, 4);
    EXPECT_EQ(reply.result, 4);
    EXPECT_EQ(reply.data, std::string(4, '\0'));
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_STATUS(hub)");
}

TEST_F(UsbfsModelTest, AnInterfaceRequestIsBusyWhileADriverIsBound)
{
    // The capture: GET_INTERFACE(129/10) ret=-16 on every node, the kernel
    // refusing to claim an interface that its driver holds.
    loadLabServer();
    for (const char* path : kNodes) {
        Reply reply = control(path, 0x81, 10, 0, 0, 9);
        EXPECT_EQ(reply.result, -1) << path;
        EXPECT_EQ(reply.error, EBUSY) << path;
        EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_INTERFACE(interface 0)");
        EXPECT_EQ(lastInput(), bytes({0x81, 0x0a, 0x00, 0x00, 0x00, 0x00, 0x09, 0x00}));
    }
}

TEST_F(UsbfsModelTest, AnInterfaceWithoutDriverIsClaimedAndAnswersOneByte)
{
    auto device = std::make_shared<UsbfsModel>();
    device->addConfiguration(bytes({9, 2, 18, 0, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 0, 0xff, 0, 0, 0}));
    machine.addNode("/dev/bus/usb/003/002", 'c', device);
    Reply reply = control("/dev/bus/usb/003/002", 0x81, 10, 0, 0, 9);
    EXPECT_EQ(reply.result, 1);
    EXPECT_EQ(reply.data, std::string(1, '\0'));
    Reply missing = control("/dev/bus/usb/003/002", 0x81, 10, 0, 1, 9);
    EXPECT_EQ(missing.error, ENOENT);
    Reply beyond = control("/dev/bus/usb/003/002", 0x81, 0, 0, 64, 2);
    EXPECT_EQ(beyond.error, EINVAL);
}

TEST_F(UsbfsModelTest, EndpointRequestsClaimTheEndpointsInterface)
{
    loadLabServer();
    EXPECT_EQ(control("/dev/bus/usb/002/004", 0x82, 0, 0, 0x81, 2).error, EBUSY);
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_STATUS(endpoint 0x81)");
    EXPECT_EQ(control("/dev/bus/usb/002/004", 0x82, 0, 0, 0x85, 2).error, ENOENT);
    EXPECT_EQ(control("/dev/bus/usb/002/004", 0x82, 0, 0, 0x80, 2).result, 2);
}

TEST_F(UsbfsModelTest, UnknownRequestsAreStalledAndNamedByTheirNumbers)
{
    loadLabServer();
    EXPECT_EQ(control("/dev/bus/usb/002/004", 0x40, 0x33, 0, 0, 0).error, EPIPE);
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL request 0x40/0x33");
    EXPECT_EQ(control("/dev/bus/usb/002/004", 0x80, 6, 0x0f00, 0, 5).error, EPIPE);
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(type 0x0f)");
    EXPECT_EQ(control("/dev/bus/usb/002/004", 0x80, 6, 0x0201, 0, 9).error, EPIPE);
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_DESCRIPTOR(config 1)");
    Reply configuration = control("/dev/bus/usb/002/004", 0x80, 8, 0, 0, 1);
    EXPECT_EQ(configuration.data, std::string(1, '\1'));
    EXPECT_EQ(lastName(), "USBDEVFS_CONTROL GET_CONFIGURATION");
}

TEST_F(UsbfsModelTest, MoreThanAPageIsRefusedBeforeTheDeviceSeesIt)
{
    loadLabServer();
    Reply reply = control("/dev/bus/usb/002/004", 0x80, 6, 0x0200, 0, 4097);
    EXPECT_EQ(reply.error, EINVAL);
    EXPECT_EQ(control("/dev/bus/usb/002/004", 0x80, 6, 0x0200, 0, 4096).result, 34);
}

TEST_F(UsbfsModelTest, NoBufferForTheReplyIsAFault)
{
    loadLabServer();
    int fd = openNode("/dev/bus/usb/002/004");
    usbdevfs_ctrltransfer transfer{};
    transfer.bRequestType = 0x80;
    transfer.bRequest = 6;
    transfer.wValue = 0x0100;
    transfer.wLength = 18;
    transfer.data = nullptr;
    EXPECT_EQ(host::ioctl(fd, USBDEVFS_CONTROL, &transfer), -1);
    EXPECT_EQ(errno, EFAULT);
    host::close(fd);
}

TEST_F(UsbfsModelTest, TransfersKeepTheirTimeOutAndOpensTheirFlags)
{
    loadLabServer();
    control("/dev/bus/usb/002/004", 0x80, 0, 0, 0, 2, 5000);
    control("/dev/bus/usb/002/004", 0xa3, 0x100, 0x1234, 0xabcd, 0x10, 77);
    auto device = model("/dev/bus/usb/002/004");
    ASSERT_EQ(device->transfers().size(), 2u);
    const auto& first = device->transfers()[0];
    EXPECT_EQ(first.requestType, 0x80);
    EXPECT_EQ(first.request, 0);
    EXPECT_EQ(first.length, 2);
    EXPECT_EQ(first.timeout, 5000u);
    const auto& second = device->transfers()[1];
    EXPECT_EQ(second.requestType, 0xa3);
    EXPECT_EQ(second.request, 0);
    EXPECT_EQ(second.value, 0x1234);
    EXPECT_EQ(second.index, 0xabcd);
    EXPECT_EQ(second.length, 0x10);
    EXPECT_EQ(second.timeout, 77u);
    EXPECT_EQ(lastInput(), bytes({0xa3, 0x00, 0x34, 0x12, 0xcd, 0xab, 0x10, 0x00}));
    EXPECT_EQ(device->openFlags(), (std::vector<int>{O_RDWR, O_RDWR}));
}

TEST_F(UsbfsModelTest, GetdriverNamesTheDriverOfTheInterface)
{
    loadLabServer();
    const char* drivers[] = {"hub", "usb-storage", "hub", "hub", "usb-storage", "usbhid", "usbhid"};
    for (int i = 0; i < 7; ++i) {
        int fd = openNode(kNodes[i]);
        usbdevfs_getdriver query{};
        query.interface = 0;
        EXPECT_EQ(host::ioctl(fd, USBDEVFS_GETDRIVER, &query), 0);
        EXPECT_STREQ(query.driver, drivers[i]);
        EXPECT_EQ(lastName(), "USBDEVFS_GETDRIVER");
        EXPECT_EQ(lastInput(), std::string(4, '\0'));
        query.interface = 1;
        EXPECT_EQ(host::ioctl(fd, USBDEVFS_GETDRIVER, &query), -1);
        EXPECT_EQ(errno, ENODATA);
        EXPECT_EQ(lastInput(), bytes({1, 0, 0, 0}));
        host::close(fd);
    }
}

TEST_F(UsbfsModelTest, HubPortinfoGivesTheCapturedDeviceNumbers)
{
    loadLabServer();
    struct Expected {
        const char* path;
        std::vector<int> ports;
    };
    const Expected expected[] = {{"/dev/bus/usb/001/001", {2, 0, 0, 0, 0, 0}},
                                 {"/dev/bus/usb/002/001", {2, 3}},
                                 {"/dev/bus/usb/002/002", {4, 5, 0, 0, 0, 0, 0, 0}}};
    for (const auto& e : expected) {
        int fd = openNode(e.path);
        usbdevfs_hub_portinfo info;
        std::memset(&info, 0x55, sizeof info);
        usbdevfs_ioctl command{};
        command.ifno = 0;
        command.ioctl_code = static_cast<int>(USBDEVFS_HUB_PORTINFO);
        command.data = &info;
        int count = static_cast<int>(e.ports.size());
        EXPECT_EQ(host::ioctl(fd, USBDEVFS_IOCTL, &command), count + 1) << e.path;
        EXPECT_EQ(lastName(), "USBDEVFS_IOCTL HUB_PORTINFO");
        EXPECT_EQ(lastInput(), bytes({0, 0, 0, 0, 0x13, 0x55, 0x80, 0x80}));
        EXPECT_EQ(info.nports, count);
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(info.port[i], e.ports[static_cast<size_t>(i)]) << e.path << " port " << i + 1;
        }
        for (int i = count; i < 127; ++i) {
            EXPECT_EQ(info.port[i], 0) << e.path << " entry " << i;
        }
        host::close(fd);
    }
}

TEST_F(UsbfsModelTest, HubPortinfoGoesOnlyToTheHubDriver)
{
    loadLabServer();
    auto ask = [&](const std::string& path, int ifno, unsigned code) {
        int fd = openNode(path);
        usbdevfs_hub_portinfo info;
        std::memset(&info, 0x55, sizeof info);
        usbdevfs_ioctl command{};
        command.ifno = ifno;
        command.ioctl_code = static_cast<int>(code);
        command.data = &info;
        errno = 0;
        int result = host::ioctl(fd, USBDEVFS_IOCTL, &command);
        int error = errno;
        host::close(fd);
        EXPECT_EQ(info.nports, 0x55) << "the table is untouched after a failure";
        return result < 0 ? error : 0;
    };
    EXPECT_EQ(ask("/dev/bus/usb/001/002", 0, USBDEVFS_HUB_PORTINFO), ENOTTY);
    EXPECT_EQ(ask("/dev/bus/usb/002/004", 0, USBDEVFS_HUB_PORTINFO), ENOTTY);
    EXPECT_EQ(ask("/dev/bus/usb/002/002", 1, USBDEVFS_HUB_PORTINFO), EINVAL);
    EXPECT_EQ(ask("/dev/bus/usb/002/002", -1, USBDEVFS_HUB_PORTINFO), EINVAL);
    EXPECT_EQ(ask("/dev/bus/usb/002/002", 0, 0x80045599), ENOSYS);
    EXPECT_EQ(lastName(), "USBDEVFS_IOCTL 0x80045599");

    auto unbound = std::make_shared<UsbfsModel>();
    unbound->addConfiguration(bytes({9, 2, 18, 0, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 0, 9, 0, 0, 0}));
    machine.addNode("/dev/bus/usb/003/001", 'c', unbound);
    EXPECT_EQ(ask("/dev/bus/usb/003/001", 0, USBDEVFS_HUB_PORTINFO), ENODATA);
}

TEST_F(UsbfsModelTest, AHubWithoutPortinfoReportsItsPortCountAllEmpty)
{
    auto hub = std::make_shared<UsbfsModel>();
    hub->setDriver(0, "hub");
    hub->setHubDescriptor(bytes({9, 0x29, 4, 0, 0, 1, 0, 0, 0xff}));
    machine.addNode("/dev/bus/usb/004/001", 'c', hub);
    int fd = openNode("/dev/bus/usb/004/001");
    usbdevfs_hub_portinfo info;
    std::memset(&info, 0x55, sizeof info);
    usbdevfs_ioctl command{};
    command.ioctl_code = static_cast<int>(USBDEVFS_HUB_PORTINFO);
    command.data = &info;
    EXPECT_EQ(host::ioctl(fd, USBDEVFS_IOCTL, &command), 5);
    EXPECT_EQ(info.nports, 4);
    EXPECT_EQ(std::string(info.port, 127), std::string(127, '\0'));
    host::close(fd);
}

TEST_F(UsbfsModelTest, AFailLineMakesOneNamedEventFail)
{
    std::string text = "status 0x0001\n"
                       "driver 0 usbhid\n"
                       "fail EPIPE USBDEVFS_CONTROL GET_STATUS(device)\n"
                       "fail EIO USBDEVFS_GETDRIVER\n";
    machine.addNode("/dev/bus/usb/005/002", 'c', UsbfsModel::parse(text));
    EXPECT_EQ(control("/dev/bus/usb/005/002", 0x80, 0, 0, 0, 2).error, EPIPE);
    int fd = openNode("/dev/bus/usb/005/002");
    usbdevfs_getdriver query{};
    EXPECT_EQ(host::ioctl(fd, USBDEVFS_GETDRIVER, &query), -1);
    EXPECT_EQ(errno, EIO);
    host::close(fd);
}

TEST_F(UsbfsModelTest, ADeviceWithNothingDescribedStallsItsDescriptors)
{
    machine.addNode("/dev/bus/usb/006/002", 'c', std::make_shared<UsbfsModel>());
    EXPECT_EQ(control("/dev/bus/usb/006/002", 0x80, 6, 0x0100, 0, 18).error, EPIPE);
    EXPECT_EQ(control("/dev/bus/usb/006/002", 0x80, 6, 0x0200, 0, 9).error, EPIPE);
    EXPECT_EQ(control("/dev/bus/usb/006/002", 0x80, 6, 0x0300, 0, 255).error, EPIPE);
    Reply status = control("/dev/bus/usb/006/002", 0x80, 0, 0, 0, 2);
    EXPECT_EQ(status.data, std::string(2, '\0'));
}

TEST_F(UsbfsModelTest, BadDeviceFilesNameTheirLine)
{
    auto message = [](const std::string& text) {
        try {
            UsbfsModel::parse(text);
        } catch (const std::invalid_argument& e) {
            return std::string(e.what());
        }
        return std::string("parsed");
    };
    EXPECT_EQ(message("device 12 01 zz\n"), "line 1: not a number: zz");
    EXPECT_EQ(message("# comment\n\nconfig 100\n"), "line 3: not a byte: 100");
    EXPECT_EQ(message("bogus 1\n"), "line 1: unknown line 'bogus'");
    EXPECT_EQ(message("fail EWHAT USBDEVFS_GETDRIVER\n"), "line 1: unknown error name EWHAT");
    EXPECT_EQ(message("port 0 0x0100 0\n"), "line 1: a port is numbered from 1 to 255");
    EXPECT_EQ(message("port 1 0x10000 0\n"), "line 1: not a 16-bit word: 0x10000");
    EXPECT_EQ(message("string 0 x\n"), "line 1: a string has an index from 1 to 255 and at most 126 characters");
    EXPECT_EQ(message("portinfo 128\n"), "line 1: a device number is from 0 to 127");
    EXPECT_EQ(message("driver 0\n"), "line 1: expected: driver INTERFACE NAME");
    EXPECT_EQ(message("device 12 01\r\nstring 1 A B\n"), "parsed");
}

TEST_F(UsbfsModelTest, TheDirectiveNamesTheDeviceFileOfABadLine)
{
    std::string directory = std::string(OSTRAND_SOURCE_DIR) + "/" + kFolder;
    try {
        host::loadMachineText(machine, "usbfs /dev/bus/usb/001/001 machine-fragment.txt\n", directory);
        FAIL() << "loaded";
    } catch (const host::MachineDirectoryError& e) {
        EXPECT_NE(std::string(e.what()).find("line 1: machine-fragment.txt, line 5: unknown line 'usbfs'"),
                  std::string::npos)
            << e.what();
    }
    EXPECT_THROW(host::loadMachineText(machine, "usbfs /dev/bus/usb/001/001\n", directory), host::MachineDirectoryError);
    EXPECT_THROW(host::loadMachineText(machine, "usbfs /dev/bus/usb/001/001 nothing.usb\n", directory),
                 host::MachineDirectoryError);
}

TEST_F(UsbfsModelTest, StringTextKeepsItsInnerBlanks)
{
    auto device = UsbfsModel::parse("string 4 Full speed config (usb 1.1)\n");
    machine.addNode("/dev/bus/usb/007/002", 'c', device);
    Reply reply = control("/dev/bus/usb/007/002", 0x80, 6, 0x0304, 0x0409, 255);
    std::string text;
    for (size_t i = 2; i < reply.data.size(); i += 2) {
        text += reply.data[i];
    }
    EXPECT_EQ(text, "Full speed config (usb 1.1)");
}

TEST_F(UsbfsModelTest, ANodeUnderProcBusUsbAnswersAlike)
{
    std::string directory = std::string(OSTRAND_SOURCE_DIR) + "/" + kFolder;
    host::loadMachineText(machine, "usbfs /proc/bus/usb/002/002 002-002.usb\n", directory);
    Reply reply = control("/proc/bus/usb/002/002", 0xa0, 6, 0x0900, 0, 14);
    EXPECT_EQ(reply.result, 10);
    EXPECT_EQ(machine.ioctls().back().path, "/proc/bus/usb/002/002");
    EXPECT_EQ(machine.model("/dev/bus/usb/002/002"), nullptr);
}

TEST_F(UsbfsModelTest, AFailLineCanRefuseThePortTable)
{
    auto hub = UsbfsModel::parse("driver 0 hub\nportinfo 2 3\nfail EIO USBDEVFS_IOCTL HUB_PORTINFO\n");
    machine.addNode("/dev/bus/usb/002/001", 'c', hub);
    int fd = openNode("/dev/bus/usb/002/001");
    usbdevfs_hub_portinfo info{};
    usbdevfs_ioctl command{};
    command.ioctl_code = static_cast<int>(USBDEVFS_HUB_PORTINFO);
    command.data = &info;
    EXPECT_EQ(host::ioctl(fd, USBDEVFS_IOCTL, &command), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(info.nports, 0);
    host::close(fd);
}

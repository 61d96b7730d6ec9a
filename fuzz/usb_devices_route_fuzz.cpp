// The port table's text route: every grep of /proc/bus/usb/devices prints
// the fuzzed text. Only std::out_of_range may leave (a line shorter than the
// key's place), and the call is true. The table's first byte is the count
// cut to a byte, so entries behind it are no error: a count of 300 keeps
// 44 in the byte and fills all 127 entries.
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "usb/UsbDevicesText.h"
#include "usb/UsbIoctls.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>

using namespace Vantrel::Ostrand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider provider(data, size);
    bool rootHub = provider.ConsumeBool();
    std::string hubText = provider.ConsumeRandomLengthString(512);
    std::string portText = provider.ConsumeRemainingBytesAsString();
    host::FakeMachine machine;
    host::ScopedMachine scope(machine);
    machine.setUname("6.1.0-56-amd64", "x86_64");
    std::string path = rootHub ? "/proc/bus/usb/002/001" : "/proc/bus/usb/002/005";
    std::string device = rootHub ? "01" : "05";
    machine.addCommand(hubLineCommand("02", device), hubText);
    for (int port = 0; port < 127; ++port) {
        machine.addCommand(portLineCommand("02", device, port), portText);
    }
    ostrand_fuzz::allowingOutOfRange([&] {
        UsbIoctls usb(nullptr);
        usbdevfs_hub_portinfo info;
        std::memset(&info, 0x55, sizeof info);
        ostrand_fuzz::check(usb.getHubPortInfo(path, &info, -1), "the text route is true once grep runs");
    });
    return 0;
}

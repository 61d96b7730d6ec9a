// The USB storage location's text split: a device number and a walk text of
// any bytes. Nothing may leave; the location is either left as it was or is
// a "Port " segment of six characters with the device number behind it, and
// the parent location only grows, by "!" and a "Port " segment each time.
#include "fuzz/FuzzSupport.h"
#include "usb/USBDeviceFinder.h"

#include <fuzzer/FuzzedDataProvider.h>

using namespace Vantrel::Ostrand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider provider(data, size);
    std::string deviceNum = provider.ConsumeRandomLengthString();
    std::string text = provider.ConsumeRemainingBytesAsString();
    ostrand_fuzz::allowingNothing([&] {
        USBDeviceFinder finder(nullptr);
        const std::string before = "before";
        std::string location = before;
        std::string parent = "System Board";
        finder.getLocationInfo(text, deviceNum, location, parent);
        if (location != before) {
            ostrand_fuzz::check(location.compare(0, 5, "Port ") == 0, "the location is a port");
            ostrand_fuzz::check(location.size() <= 6 + 9 + deviceNum.size(), "six characters and the device");
            ostrand_fuzz::check(location.compare(location.size() - deviceNum.size(), std::string::npos, deviceNum) ==
                                    0,
                                "the device number ends it");
        }
        ostrand_fuzz::check(parent.compare(0, 12, "System Board") == 0, "the parent is appended to");
        ostrand_fuzz::check(parent.size() <= 12 + 2 * text.size(), "each text character is taken at most once");
    });
    return 0;
}

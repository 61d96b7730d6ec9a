// One device's sysfs attributes of any text into a record: the full and the
// walk's extraction never throw, and the record's texts are what the
// attributes allow.
#include "fuzz/FuzzSupport.h"
#include "usb/LsusbText.h"
#include "usb/USBDeviceFinder.h"

#include <fuzzer/FuzzedDataProvider.h>

using namespace Vantrel::Ostrand;

namespace {

const char* const kKeys[] = {"bDeviceClass", "bDeviceSubClass", "devnum", "idProduct", "idVendor",
                             "manufacturer", "maxchild", "speed", "product", "serial",
                             "version", "bMaxPower", "bcdDevice", "bmAttributes"};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider provider(data, size);
    StrMap attrs;
    while (provider.remaining_bytes() > 0) {
        const char* key = kKeys[provider.ConsumeIntegralInRange<size_t>(0, sizeof kKeys / sizeof kKeys[0] - 1)];
        attrs.insert(StrMap::value_type(key, provider.ConsumeRandomLengthString(64)));
    }
    ostrand_fuzz::allowingOnly<void*>([&] {
        USBDeviceFinder finder(nullptr);
        Usb_Device device;
        ostrand_fuzz::check(finder.parseDevAttr("1-1", attrs, &device), "always true");
        ostrand_fuzz::check(device.addlHWInfo.rfind(kUsbReleaseLabel, 0) == 0, "the release comes first");
        ostrand_fuzz::check(device.deviceNum.empty() || device.deviceNum.size() >= 3, "three digits at least");
        finder.getDeviceDescr("usb1", &device);
        ostrand_fuzz::check(device.devicePath.rfind("001/", 0) == 0, "the bus in three digits");
    });
    return 0;
}

// The key, length and value text form: a key and a source text of any
// bytes. Only std::out_of_range may leave, and the value is never longer
// than the source.
#include "fuzz/FuzzSupport.h"
#include "usb/UsbIoctls.h"

#include <fuzzer/FuzzedDataProvider.h>

using namespace Vantrel::Ostrand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider provider(data, size);
    std::string key = provider.ConsumeRandomLengthString();
    std::string source = provider.ConsumeRemainingBytesAsString();
    ostrand_fuzz::allowingOutOfRange([&] {
        UsbIoctls usb(nullptr);
        std::string output = "before";
        int ignored = 0;
        ostrand_fuzz::check(usb.getAttribute(source, key, output, ignored), "always true");
        ostrand_fuzz::check(output.size() <= source.size(), "the value lies within the source");
    });
    return 0;
}

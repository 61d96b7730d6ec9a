#include "fuzz/FuzzSupport.h"
#include "probes/LinuxUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text = ostrand_fuzz::text(data, size);
    ostrand_fuzz::allowingOutOfRange([&] {
        Vantrel::Ostrand::LinuxUtils utils;
        int bus = 0, device = 0, function = 0;
        utils.extractBusDevFn(text, bus, device, function);
    });
    return 0;
}

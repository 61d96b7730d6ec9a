#include "fuzz/FuzzSupport.h"
#include "probes/LinuxUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text = ostrand_fuzz::text(data, size);
    ostrand_fuzz::allowingNothing([&] {
        Vantrel::Ostrand::LinuxUtils utils;
        utils.fromHexToInt(text);
    });
    return 0;
}

#include "fuzz/FuzzSupport.h"
#include "probes/PCIUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string line = ostrand_fuzz::text(data, size);
    ostrand_fuzz::allowingOutOfRange([&] {
        Vantrel::Ostrand::PCIUtil pci;
        int primary = 0, secondary = 0, subordinate = 0;
        pci.parseBusDetails(line, primary, secondary, subordinate);
    });
    return 0;
}

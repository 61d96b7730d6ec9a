#include "fuzz/FuzzSupport.h"
#include "probes/PCIUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string line = ostrand_fuzz::text(data, size);
    ostrand_fuzz::allowingOutOfRange([&] {
        Vantrel::Ostrand::PCIUtil pci;
        pci.parseIOPortsAddr(line);
    });
    return 0;
}

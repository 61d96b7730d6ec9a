// The whole inventory read over arbitrary -n, -m and -v texts, then the PCI
// finder and the class queries on what came of it.
#include "finders/PCIDeviceFinder.h"
#include "fuzz/FuzzSupport.h"
#include "host/FakeMachine.h"
#include "probes/PCIUtil.h"

#include <fuzzer/FuzzedDataProvider.h>

using namespace Vantrel::Ostrand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider provider(data, size);
    std::string n = provider.ConsumeRandomLengthString(4096);
    std::string m = provider.ConsumeRandomLengthString(4096);
    std::string v = provider.ConsumeRemainingBytesAsString();
    host::FakeMachine machine;
    machine.addCommand("/sbin/lspci -n 2>&1", n);
    machine.addCommand("/sbin/lspci -m 2>&1", m);
    machine.addCommand("/sbin/lspci -v 2>&1", v);
    host::ScopedMachine scope{machine};
    ostrand_fuzz::allowingOutOfRange([&] {
        PCIUtil pci;
        pci.initPciUtil();
        const unsigned short classes[] = {0x0101, 0x0200, 0x0601, 0x0780, 0x0880, 0xFF00, 0x0C03};
        for (unsigned short code : classes) {
            int count = pci.getNumofDeviceWithClass(code);
            for (int i = 0; i <= count; ++i) {
                int a = 0, b = 0, c = 0;
                pci.getDeviceIdVendorId(i, a, b);
                pci.getPCIBusDevFunction(i, a, b, c);
                // 0 to 7 only: the enum's range ends at 7, so a value above it would be the caller's UB.
                for (int attribute = 0; attribute <= 7; ++attribute) {
                    pci.getDevAttribute(i, static_cast<PCIUtil::DeviceAttribute>(attribute));
                }
                pci.getProgIntface(i);
            }
        }
        PCIDeviceFinder finder;
        std::vector<IWbemClassObject> records;
        finder.getAllObjects(&pci, records);
    });
    return 0;
}

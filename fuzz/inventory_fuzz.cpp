// The whole inventory read over arbitrary -n, -m and -v texts, then the class
// queries and the finders that live on the inventory (PCI, network, remote
// access controllers, modems) on what came of it.
#include "finders/ModemDeviceFinder.h"
#include "finders/NetworkDeviceFinder.h"
#include "finders/PCIDeviceFinder.h"
#include "finders/RACDeviceFinder.h"
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "platform/smbios/SmbiosFactory.h"
#include "probes/PCIUtil.h"

#include <cstring>
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
    // A firmware table with no connectors, for the modem finder.
    const std::string entry = std::string("_SM3_\x3F\x18\x03\x00\x00\x00\x00\x15\x00\x00\x00", 16) + std::string(8, '\0');
    machine.addFile("/sys/firmware/dmi/tables/smbios_entry_point", entry);
    machine.addFile("/sys/firmware/dmi/tables/DMI",
                    std::string("\x01\x08\x00\x00\x00\x01\x00\x00" "Board\0\0" "\x7f\x04\xff\xfe\x00\x00", 21));
    host::ScopedMachine scope{machine};
    smbios::SmbiosFactory::reset();

    // Only the parsers may throw, and only out_of_range: the -n and -m pipes
    // then stay open, and there is no inventory to ask.
    PCIUtil pci;
    bool thrown = true;
    ostrand_fuzz::allowingOutOfRange([&] {
        pci.initPciUtil();
        thrown = false;
    });
    if (thrown) {
        ostrand_fuzz::check(machine.openStreams() == 2, "other pipes than -n and -m left open");
        return 0;
    }
    ostrand_fuzz::check(machine.openStreams() == 0, "a pipe left open");

    ostrand_fuzz::allowingNothing([&] {
        const unsigned short classes[] = {0x0101, 0x0200, 0x0601, 0x0780, 0x0880, 0xFF00, 0x0C03};
        for (unsigned short code : classes) {
            int count = pci.getNumofDeviceWithClass(code);
            for (int i = -1; i <= count + 1; ++i) {
                int a = 0, b = 0, c = 0;
                pci.getDeviceIdVendorId(i, a, b);
                pci.getPCIBusDevFunction(i, a, b, c);
                // The attribute is held as an integer: -1 and 8 are handed over
                // as the bytes of an int, which no static_cast to the enum may make.
                for (int value = -1; value <= 8; ++value) {
                    PCIUtil::DeviceAttribute attribute;
                    std::memcpy(&attribute, &value, sizeof value);
                    pci.getDevAttribute(i, attribute);
                }
                pci.getProgIntface(i);
            }
        }
        std::vector<pci_device> devices;
        pci.getAllPCIDevices(devices);
        for (const pci_device& device : devices) {
            pci.getDeviceName(device.vendorId, device.deviceId);
        }

        std::vector<IWbemClassObject> records;
        PCIDeviceFinder pciFinder;
        pciFinder.getAllObjects(&pci, records);
        NetworkDeviceFinder network;
        network.getAllObjects(&pci, records);
        RACDeviceFinder rac;
        rac.getAllObjects(&pci, records);
        ModemDeviceFinder modem;
        modem.getAllObjects(&pci, records);
    });
    smbios::SmbiosFactory::reset();
    ostrand_fuzz::check(machine.openDescriptors().empty(), "a descriptor left open");
    return 0;
}

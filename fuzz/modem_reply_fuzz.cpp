// The modem dialogue over arbitrary replies: a modem that answers every
// command with pieces taken from the input. First queryModem and
// filterResponse alone, then the whole walk of the finder with the same modem
// on a node of an arbitrary name, a firmware table with 0 to 3 serial
// connectors and a PCI modem of any family (or none).
#include "finders/ModemDeviceFinder.h"
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"
#include "platform/smbios/SmbiosFactory.h"
#include "probes/PCIUtil.h"

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <cstring>
#include <memory>

using namespace Vantrel::Ostrand;

namespace {

const char* const kCommands[] = {"ATZ\r", "AT&K3\r", "ATQ0E0V1&C1&D2\r", "ATI3\r"};

// A 3.x entry point (no structure count) for a table of `tableSize` bytes at 0.
std::string entryPoint30(size_t tableSize)
{
    std::string e(0x18, '\0');
    e.replace(0, 5, "_SM3_");
    e[6] = 0x18;
    e[7] = 3;
    for (int i = 0; i < 4; ++i) {
        e[0x0C + i] = static_cast<char>((tableSize >> (8 * i)) & 0xFF);
    }
    unsigned int sum = 0;
    for (char c : e) {
        sum += static_cast<unsigned char>(c);
    }
    e[5] = static_cast<char>((0x100 - (sum & 0xFF)) & 0xFF);
    return e;
}

// System Information with a product name, `ports` serial connectors of
// port type 9, and the end of the table.
std::string table(int ports)
{
    std::string t("\x01\x08\x00\x00\x00\x01\x00\x00" "Board\0\0", 15);
    for (int i = 0; i < ports; ++i) {
        t += std::string("\x08\x09\x00\x00\x00\x00\x00\x01\x09\x00\x00", 11);
    }
    t += std::string("\x7f\x04\xff\xfe\x00\x00", 6);
    return t;
}

// A node name under /dev/ with "ttyS" in it: no slash, no terminator.
std::string nodeName(FuzzedDataProvider& provider)
{
    std::string around = provider.ConsumeRandomLengthString(24);
    std::string name;
    for (char c : around) {
        if (c != '/' && c != '\0') {
            name += c;
        }
    }
    size_t cut = name.size() / 2;
    return name.substr(0, cut) + "ttyS" + name.substr(cut);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider provider(data, size);
    host::ModemScript script;
    for (const char* command : kCommands) {
        host::ModemScript::Exchange exchange{command, {}};
        int pieces = provider.ConsumeIntegralInRange<int>(0, 4);
        for (int i = 0; i < pieces; ++i) {
            exchange.pieces.push_back(provider.ConsumeRandomLengthString(300));
        }
        script.exchanges.push_back(exchange);
    }

    // The dialogue alone.
    {
        host::FakeMachine machine;
        auto port = std::make_shared<host::SerialModel>(4, 0x3f8, 4);
        port->attachModem(script);
        machine.addNode("/dev/ttyS0", 'c', port);
        host::ScopedMachine scope{machine};
        ostrand_fuzz::allowingNothing([&] {
            ModemDeviceFinder finder;
            int fd = host::open("/dev/ttyS0", O_RDWR | O_NONBLOCK);
            char reply[100];
            for (const char* command : kCommands) {
                if (finder.queryModem(fd, command, reply) == 0) {
                    ostrand_fuzz::check(std::memchr(reply, '\0', sizeof reply) != nullptr, "an unterminated reply");
                    finder.filterResponse(reply);
                }
            }
            host::close(fd);
        });
    }

    // The whole walk.
    std::string name = nodeName(provider);
    int connectors = provider.ConsumeIntegralInRange<int>(0, 3);
    const char* const modems[] = {"", "00:0a.0 0780: 14f1:2f10\n", "00:0a.0 0703: 127a:1025\n",
                                  "01:00.0 0780: 14e4:4212\n", "00:0b.0 0703: 8086:1080\n"};
    const char* modem = modems[provider.ConsumeIntegralInRange<int>(0, 4)];
    host::FakeMachine machine;
    auto port = std::make_shared<host::SerialModel>(4, 0x2f8, 3);
    port->attachModem(script);
    machine.addNode("/dev/" + name, 'c', port);
    std::string t = table(connectors);
    machine.addFile("/sys/firmware/dmi/tables/smbios_entry_point", entryPoint30(t.size()));
    machine.addFile("/sys/firmware/dmi/tables/DMI", t);
    machine.addCommand("/sbin/lspci -n 2>&1", modem);
    machine.addCommand("/sbin/lspci -m 2>&1", *modem ? "00:0a.0 \"Modem\" \"Maker\" \"Modem\"\n" : "");
    machine.addCommand("/sbin/lspci -v 2>&1", "");
    host::ScopedMachine scope{machine};
    smbios::SmbiosFactory::reset();
    ostrand_fuzz::allowingNothing([&] {
        PCIUtil pci;
        pci.initPciUtil();
        ModemDeviceFinder finder;
        std::vector<IWbemClassObject> records;
        finder.getAllObjects(&pci, records);
        // At most the node's record and the PCI modem's.
        ostrand_fuzz::check(records.size() <= 2, "more modems than there are");
    });
    smbios::SmbiosFactory::reset();
    // Only an internal node without a PCI match keeps its descriptor.
    ostrand_fuzz::check(machine.openDescriptors().size() <= 1, "descriptors left open");
    ostrand_fuzz::check(machine.openStreams() == 0, "pipes left open");
    return 0;
}

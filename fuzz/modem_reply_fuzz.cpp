// The modem dialogue over arbitrary replies: a modem that answers every
// command with pieces taken from the input.
#include "finders/ModemDeviceFinder.h"
#include "fuzz/FuzzSupport.h"
#include "host/FakeMachine.h"

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>

using namespace Vantrel::Ostrand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider provider(data, size);
    host::ModemScript script;
    for (const char* command : {"ATZ\r", "AT&K3\r", "ATQ0E0V1&C1&D2\r", "ATI3\r"}) {
        host::ModemScript::Exchange exchange{command, {}};
        int pieces = provider.ConsumeIntegralInRange<int>(0, 4);
        for (int i = 0; i < pieces; ++i) {
            exchange.pieces.push_back(provider.ConsumeRandomLengthString(300));
        }
        script.exchanges.push_back(exchange);
    }
    host::FakeMachine machine;
    auto port = std::make_shared<host::SerialModel>(4, 0x3f8, 4);
    port->attachModem(script);
    machine.addNode("/dev/ttyS0", 'c', port);
    host::ScopedMachine scope{machine};
    ostrand_fuzz::allowingNothing([&] {
        ModemDeviceFinder finder;
        int fd = host::open("/dev/ttyS0", O_RDWR | O_NONBLOCK);
        char reply[100];
        for (const char* command : {"ATZ\r", "AT&K3\r", "ATQ0E0V1&C1&D2\r", "ATI3\r"}) {
            if (finder.queryModem(fd, command, reply) == 0) {
                finder.filterResponse(reply);
            }
        }
        host::close(fd);
    });
    return 0;
}

// The interrupt routing table scan over an arbitrary BIOS area.
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"
#include "probes/LinuxUtils.h"

#include <memory>

using namespace Vantrel::Ostrand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    unsigned int bus = data[0];
    unsigned int device = data[1] & 0x1F;
    // The area is the rest; a short input is zeros behind it, and "$PIR"
    // may be anywhere, also at the very end of the area.
    std::string area = ostrand_fuzz::text(data + 2, size - 2);
    if (area.size() > 0x10000) {
        area.resize(0x10000);
    }
    size_t offset = area.size() < 0x10000 ? 0x10000 - area.size() : 0;
    host::FakeMachine machine;
    auto memory = std::make_shared<host::MemoryModel>();
    memory->place(0xF0000 + (data[0] & 1 ? offset : 0), area);
    machine.addNode("/dev/mem", 'c', memory);
    host::ScopedMachine scope{machine};
    ostrand_fuzz::allowingNothing([&] {
        LinuxUtils utils;
        utils.getSlotInfo(bus, device);
    });
    if (!machine.openDescriptors().empty() || machine.openMappings() != 0) {
        std::abort();
    }
    return 0;
}

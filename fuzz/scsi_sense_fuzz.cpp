// Sense data and READ CAPACITY replies: the byte readers alone, then the
// commands of SCSIGeneric against an sg node that answers every command with
// the reply of the input. Layout: status, sb_len_wr, the number n of sense
// bytes, n sense bytes, and the data bytes after them.
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "host/models/SgModel.h"
#include "probes/SCSIGeneric.h"
#include "probes/ScsiData.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <scsi/sg.h>

using namespace Vantrel::Ostrand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3) {
        return 0;
    }
    host::SgReply reply;
    reply.status = data[0];
    reply.senseLength = data[1];
    size_t senseCount = std::min<size_t>(data[2], size - 3);
    reply.sense = ostrand_fuzz::text(data + 3, senseCount);
    reply.data = ostrand_fuzz::text(data + 3 + senseCount, size - 3 - senseCount);
    const unsigned char* sense = data + 3;

    // The readers alone.
    ostrand_fuzz::allowingNothing([&] {
        SenseReading reading = readSense(sense, senseCount, reply.senseLength);
        ostrand_fuzz::check(reading.usable == (reply.senseLength >= 3 && senseCount >= 3), "usable sense");
        ostrand_fuzz::check(reading.key >= 0 && reading.key <= 15, "a sense key of four bits");
        ostrand_fuzz::check(reading.code >= 0 && reading.code <= 255, "an additional sense code of a byte");
        int key = senseKeyAtByteTwo(sense, senseCount);
        ostrand_fuzz::check(key >= 0 && key <= 15, "a key at byte two of four bits");
        capacityBlocks(data + 3 + senseCount, size - 3 - senseCount);
    });

    // The commands.
    host::FakeMachine machine;
    auto model = std::make_shared<host::SgModel>(host::ScsiAddress{});
    for (int opcode : {0x00, 0x12, 0x25, 0x5A}) {
        model->addReply(opcode, reply);
    }
    machine.addNode("/dev/sg0", 'c', model);
    host::ScopedMachine scope{machine};
    ostrand_fuzz::allowingNothing([&] {
        SCSIGeneric sg(0);
        int fd = host::open("/dev/sg0", O_RDWR | O_NONBLOCK);
        int ready = sg.doTestUnitReady(fd);
        ostrand_fuzz::check(ready == 0 || ready == -1 || ready == 123, "TEST UNIT READY outcome");
        int blocks = 0;
        int capacity = sg.doReadCapacity(fd, blocks);
        ostrand_fuzz::check(capacity == 0 || capacity == -1 || capacity == 0x3A || capacity == 0x30 ||
                                capacity == 0x31,
                            "READ CAPACITY outcome");
        unsigned char buffer[36] = {};
        for (int opcode : {0x12, 0x5A}) {
            int result = sg.scsiGenericIoctl(fd, SG_IO, opcode, buffer, sizeof buffer);
            ostrand_fuzz::check(result == 0 || result == 2, "INQUIRY or MODE SENSE outcome");
        }
        unsigned char copy[32] = {};
        std::memcpy(copy, sense, std::min<size_t>(senseCount, sizeof copy));
        int checked = sg.checkSenseBuffer(copy, reply.senseLength);
        ostrand_fuzz::check(checked == 0 || checked == 2, "checkSenseBuffer outcome");
        host::close(fd);
    });
    ostrand_fuzz::check(machine.openDescriptors().empty(), "descriptors left open");
    return 0;
}

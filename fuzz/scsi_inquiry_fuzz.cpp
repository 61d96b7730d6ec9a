// INQUIRY data and host adapter texts: readInquiry over any bytes, then an sg
// node that answers INQUIRY with the input and names its host adapter with it.
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

namespace {

void checkReading(const InquiryReading& reading)
{
    ostrand_fuzz::check(reading.peripheralType >= 0 && reading.peripheralType < 32, "a type of five bits");
    ostrand_fuzz::check(reading.vendor.size() <= 8, "a vendor of at most 8 characters");
    ostrand_fuzz::check(reading.product.size() <= 16, "a product of at most 16 characters");
    ostrand_fuzz::check(reading.revision.size() <= 4, "a revision of at most 4 characters");
    for (const std::string* text : {&reading.vendor, &reading.product, &reading.revision}) {
        ostrand_fuzz::check(text->find('\0') == std::string::npos, "a NUL inside a text");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ostrand_fuzz::allowingNothing([&] { checkReading(readInquiry(data, size)); });

    host::FakeMachine machine;
    auto model = std::make_shared<host::SgModel>(host::ScsiAddress{});
    std::string bytes = ostrand_fuzz::text(data, size);
    model->addReply(0x12, host::SgReply::good(bytes));
    model->setProbeHost(bytes);
    machine.addNode("/dev/sg0", 'c', model);
    host::ScopedMachine scope{machine};
    ostrand_fuzz::allowingNothing([&] {
        SCSIGeneric sg(0);
        int fd = host::open("/dev/sg0", O_RDWR | O_NONBLOCK);
        unsigned char buffer[36] = {};
        ostrand_fuzz::check(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, sizeof buffer) == 0, "INQUIRY failed");
        InquiryReading reading = readInquiry(buffer, sizeof buffer);
        checkReading(reading);
        ostrand_fuzz::check(size < 1 || reading.peripheralType == (data[0] & 0x1F), "the type of byte 0");
        int kind = sg.isEmulated(fd);
        std::string room(reinterpret_cast<const char*>(data), std::min<size_t>(size, 250));
        room = room.substr(0, room.find('\0'));
        int expected = room.find("IDE") != std::string::npos   ? SG_HOST_IDE
                       : room.find("USB") != std::string::npos ? SG_HOST_USB
                                                               : SG_HOST_OTHER;
        ostrand_fuzz::check(kind == expected, "the host kind of the first 250 bytes");
        host::close(fd);
    });
    ostrand_fuzz::check(machine.openDescriptors().empty(), "descriptors left open");
    return 0;
}

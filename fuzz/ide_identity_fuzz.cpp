// IDE identity blocks and the CD/DVD finder's byte readers: readIdentity over
// any bytes; then a machine with one IDE controller whose drive answers the
// identity, MODE SENSE and INQUIRY packets with the input, and an sr node
// whose sg twin answers INQUIRY with it and names its host adapter with it.
// The class and trim operations get the input as text.
#include "finders/CDDVDDeviceFinder.h"
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "host/models/IdeModel.h"
#include "host/models/ScsiBlockModel.h"
#include "host/models/SgModel.h"
#include "probes/IdeData.h"
#include "probes/PCIUtil.h"
#include "probes/SCSIGeneric.h"

#include <memory>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

const size_t kBlock = 512;

void checkText(const std::string& text, size_t size, size_t offset, const char* what)
{
    ostrand_fuzz::check(text.find('\0') == std::string::npos, what);
    ostrand_fuzz::check(text.size() <= (size > offset ? size - offset : 0), "a text beyond the block");
}

void checkReading(const uint8_t* data, size_t size)
{
    IdentityReading reading = readIdentity(data, size);
    ostrand_fuzz::check(reading.removable == (size > 0 && (data[0] & 0x80) != 0), "removable is bit 7 of byte 0");
    checkText(reading.serial, size, kIdentitySerialOffset, "a NUL in the serial");
    checkText(reading.firmware, size, kIdentityFirmwareOffset, "a NUL in the firmware");
    checkText(reading.model, size, kIdentityModelOffset, "a NUL in the model");
}

void installMachine(host::FakeMachine& machine, const std::string& bytes)
{
    machine.addCommand("/sbin/lspci -n 2>&1", "00:01.1 0101: 8086:7010\n");
    machine.addCommand("/sbin/lspci -m 2>&1", "00:01.1 \"IDE interface\" \"Intel Corporation\" \"PIIX3 IDE\"\n");
    machine.addCommand("/sbin/lspci -v 2>&1", "00:01.1 IDE interface: Intel Corporation PIIX3 IDE\n");
    machine.addCommand("lsb_release -d 2>&1", bytes);

    auto ide = std::make_shared<host::IdeModel>();
    ide->setIdentity(bytes);
    ide->addReply(0x5A, host::SgReply::good(bytes));
    ide->addReply(0x12, host::SgReply::good(bytes));
    machine.addNode("/dev/hda", 'b', ide);

    host::ScsiAddress address;
    address.host = 2;
    address.type = 5;
    machine.addNode("/dev/sr0", 'b', std::make_shared<host::ScsiBlockModel>(address, 0));
    auto sg = std::make_shared<host::SgModel>(address);
    sg->addReply(0x12, host::SgReply::good(bytes));
    sg->setProbeHost(bytes);
    sg->setPci(bytes);
    machine.addNode("/dev/sg0", 'c', sg);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ostrand_fuzz::allowingNothing([&] { checkReading(data, size); });
    std::string bytes = ostrand_fuzz::text(data, size);

    host::FakeMachine machine;
    installMachine(machine, bytes);
    host::ScopedMachine scope{machine};
    ostrand_fuzz::allowingNothing([&] {
        PCIUtil pci;
        pci.initPciUtil();
        CDDVDDeviceFinder finder;
        std::vector<IWbemClassObject> records;
        finder.getAllObjects(&pci, records);
        ostrand_fuzz::check(records.size() <= 2, "more records than drives");
        for (IWbemClassObject& record : records) {
            std::string descriptor;
            record.getValue("DeviceDescriptor", descriptor);
            ostrand_fuzz::check(descriptor == "/dev/hda" || descriptor == "/dev/sr0", "a drive that is not there");
            std::string firmware;
            record.getValue("DeviceFirmwareRevisionLevel", firmware);
            ostrand_fuzz::check(firmware.size() <= kBlock - kIdentityFirmwareOffset, "a firmware beyond the block");
            ostrand_fuzz::check(firmware.find('\0') == std::string::npos, "a NUL in the firmware");
        }
        // Virtual drives keep their descriptor on purpose; nothing else stays open.
        std::vector<std::string> open = machine.openDescriptors();
        ostrand_fuzz::check(open.empty() || open == std::vector<std::string>{"/dev/hda"}, "descriptors left open");
        ostrand_fuzz::check(machine.semaphoreValue(SCSI_GENERIC_SEM_KEY) == 1, "the semaphore left held");

        std::string text = bytes;
        std::string cls = finder.getDeviceClass(text);
        ostrand_fuzz::check(cls == "CDROM" || cls == "CDRW" || cls == "DVD_ROM" || cls == "DVD_RAM" || cls == "CDR",
                            "a class of no vocabulary");
        for (char mode : {'t', 'l'}) {
            std::string trimmed = bytes;
            int result = finder.trimString(trimmed, mode);
            ostrand_fuzz::check(trimmed.size() <= bytes.size(), "trimming that grows");
            if (mode == 't') {
                ostrand_fuzz::check(result == static_cast<int>(trimmed.size()) - 1, "the last kept index");
                ostrand_fuzz::check(trimmed.empty() || trimmed.back() != ' ', "a trailing blank kept");
            } else {
                ostrand_fuzz::check(result == static_cast<int>(bytes.size() - trimmed.size()), "the count removed");
            }
        }
    });
    return 0;
}

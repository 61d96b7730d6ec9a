// Optical drives for tests: IDE identity blocks, IDE and SCSI block nodes on
// fake machines, page 2A replies, the IDE controllers of PCI inventories, and
// the records the CD/DVD finder makes, field by field.
#pragma once

#include "frame/IWbemClassObject.h"
#include "host/fake/FakeMachine.h"
#include "host/models/IdeModel.h"
#include "host/models/ScsiBlockModel.h"
#include "tests/support/PciLines.h"

#include <memory>
#include <string>
#include <vector>

namespace ostrand_test {

// A 512-byte identity block: the configuration word, then the texts as given
// (no padding, no terminator of their own) at offsets 20, 46 and 54. The
// rest is zero unless `fill` says otherwise.
std::string identityBlock(int config, const std::string& serial, const std::string& firmware,
                          const std::string& model, char fill = '\0');
// The same with the texts padded with blanks to their widths (20, 8, 40), as
// drives and drivers give them.
std::string paddedIdentityBlock(int config, const std::string& serial, const std::string& firmware,
                                const std::string& model);

// A MODE SENSE(10) reply with page 2A: the 8-byte header, then the page of 24
// bytes, of which byte 2 (byte 10 of the reply) says what the drive reads and
// byte 3 (11) what it writes.
std::string capabilityPage(int reads, int writes);

// INQUIRY data of a removable drive of this type (5: CD/DVD).
Vantrel::Ostrand::host::InquiryFields inquiryAnswer(const std::string& vendor, const std::string& product,
                                                   const std::string& revision, int type = 5);

// Nodes with their models.
std::shared_ptr<Vantrel::Ostrand::host::IdeModel> addIdeNode(Vantrel::Ostrand::host::FakeMachine& machine,
                                                             const std::string& path, const std::string& identity);
std::shared_ptr<Vantrel::Ostrand::host::ScsiBlockModel> addScsiBlockNode(
    Vantrel::Ostrand::host::FakeMachine& machine, const std::string& path, int host, int channel, int id, int lun);

// An IDE controller of the PCI inventory.
PciLine ideController(const std::string& slot, const std::string& vendorId, const std::string& deviceId);
// The lab board's PIIX3 IDE controller at 00:01.1.
PciLine piix3();

// The thirteen values of a record in constructor order, and its integer.
struct Record {
    std::vector<std::string> values;
    int number = 0;
    bool operator==(const Record& other) const { return values == other.values && number == other.number; }
};
Record recordOf(Vantrel::Ostrand::IWbemClassObject& record);
std::vector<Record> recordsOf(std::vector<Vantrel::Ostrand::IWbemClassObject>& records);
void PrintTo(const Record& record, std::ostream* out);

} // namespace ostrand_test

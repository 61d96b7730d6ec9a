#include "tests/support/OpticalDrives.h"

#include "tests/support/Machines.h"

#include <algorithm>
#include <ostream>

namespace ostrand_test {

using Vantrel::Ostrand::host::FakeMachine;
using Vantrel::Ostrand::host::IdeModel;
using Vantrel::Ostrand::host::ScsiAddress;
using Vantrel::Ostrand::host::ScsiBlockModel;

namespace {

void put(std::string& block, size_t offset, const std::string& text)
{
    block.replace(offset, std::min(text.size(), block.size() - offset), text.substr(0, block.size() - offset));
}

std::string padded(const std::string& text, size_t width)
{
    std::string field = text.substr(0, width);
    field.resize(width, ' ');
    return field;
}

} // namespace

std::string identityBlock(int config, const std::string& serial, const std::string& firmware,
                          const std::string& model, char fill)
{
    std::string block(512, fill);
    block[0] = static_cast<char>(config & 0xFF);
    block[1] = static_cast<char>((config >> 8) & 0xFF);
    put(block, 20, serial);
    put(block, 46, firmware);
    put(block, 54, model);
    return block;
}

std::string paddedIdentityBlock(int config, const std::string& serial, const std::string& firmware,
                                const std::string& model)
{
    return identityBlock(config, padded(serial, 20), padded(firmware, 8), padded(model, 40));
}

std::string capabilityPage(int reads, int writes)
{
    std::string reply(8 + 24, '\0');
    reply[1] = 0x1E; // mode data length: the rest of the reply
    reply[8] = 0x2A;
    reply[9] = 0x16;
    reply[10] = static_cast<char>(reads);
    reply[11] = static_cast<char>(writes);
    return reply;
}

Vantrel::Ostrand::host::InquiryFields inquiryAnswer(const std::string& vendor, const std::string& product,
                                                   const std::string& revision, int type)
{
    Vantrel::Ostrand::host::InquiryFields fields;
    fields.type = type;
    fields.removable = true;
    fields.vendor = vendor;
    fields.product = product;
    fields.revision = revision;
    return fields;
}

std::shared_ptr<IdeModel> addIdeNode(FakeMachine& machine, const std::string& path, const std::string& identity)
{
    auto model = std::make_shared<IdeModel>();
    model->setIdentity(identity);
    machine.addNode(path, 'b', model);
    return model;
}

std::shared_ptr<ScsiBlockModel> addScsiBlockNode(FakeMachine& machine, const std::string& path, int host, int channel,
                                                 int id, int lun)
{
    ScsiAddress address;
    address.host = host;
    address.channel = channel;
    address.id = id;
    address.lun = lun;
    auto model = std::make_shared<ScsiBlockModel>(address, 0);
    machine.addNode(path, 'b', model);
    return model;
}

PciLine ideController(const std::string& slot, const std::string& vendorId, const std::string& deviceId)
{
    return PciLine{slot, "0101", vendorId, deviceId, "IDE interface", "Lab Vendor", "IDE Controller " + deviceId};
}

PciLine piix3()
{
    return PciLine{"00:01.1", "0101", "8086", "7010", "IDE interface", "Intel Corporation",
                   "82371SB PIIX3 IDE [Natoma/Triton II]"};
}

Record recordOf(Vantrel::Ostrand::IWbemClassObject& record)
{
    return Record{fields(record), record.getValue()};
}

std::vector<Record> recordsOf(std::vector<Vantrel::Ostrand::IWbemClassObject>& records)
{
    std::vector<Record> result;
    for (auto& record : records) {
        result.push_back(recordOf(record));
    }
    return result;
}

void PrintTo(const Record& record, std::ostream* out)
{
    *out << "{";
    for (size_t i = 0; i < record.values.size(); ++i) {
        *out << (i == 0 ? "" : ", ") << '"' << record.values[i] << '"';
    }
    *out << "; " << record.number << "}";
}

} // namespace ostrand_test

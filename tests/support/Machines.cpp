#include "tests/support/Machines.h"

#include "host/fake/MachineDirectory.h"

namespace ostrand_test {

const std::array<const char*, 13> kKeys = {
    "DeviceName",          "DisableDeviceName",      "DeviceDescriptor",     "DeviceDescription",
    "DeviceLocation",      "DeviceresourceTag",      "DeviceParentLocation", "DeviceClass",
    "DeviceManufacturerName", "DeviceModelNumber",   "DeviceFirmwareRevisionLevel", "DeviceSerialNumber",
    "DeviceAdditionalHWInfo"};

const char* const kLspciN = "/sbin/lspci -n 2>&1";
const char* const kLspciM = "/sbin/lspci -m 2>&1";
const char* const kLspciV = "/sbin/lspci -v 2>&1";

std::string sourceFile(const std::string& relativePath)
{
    return Vantrel::Ostrand::host::readWholeFile(std::string(OSTRAND_SOURCE_DIR) + "/" + relativePath);
}

std::string capture(const std::string& relativePath) { return sourceFile("tests/captures/" + relativePath); }

void addLspci(Vantrel::Ostrand::host::FakeMachine& machine, const std::string& n, const std::string& m,
              const std::string& v)
{
    machine.addCommand(kLspciN, n);
    machine.addCommand(kLspciM, m);
    machine.addCommand(kLspciV, v);
}

void addLabServerLspci(Vantrel::Ostrand::host::FakeMachine& machine)
{
    addLspci(machine, capture("lab-server/lspci-n.txt"), capture("lab-server/lspci-m.txt"),
             capture("lab-server/lspci-v.txt"));
}

std::vector<std::string> fields(Vantrel::Ostrand::IWbemClassObject& record)
{
    std::vector<std::string> values;
    for (const char* key : kKeys) {
        std::string value;
        record.getValue(key, value);
        values.push_back(value);
    }
    return values;
}

std::string field(Vantrel::Ostrand::IWbemClassObject& record, const std::string& key)
{
    std::string value;
    record.getValue(key, value);
    return value;
}

} // namespace ostrand_test

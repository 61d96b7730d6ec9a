// Hand-made PCI functions for fake machines, written as the three lspci
// passes print them, for inventories that no capture holds.
#pragma once

#include "host/fake/FakeMachine.h"

#include <string>
#include <vector>

namespace ostrand_test {

// One PCI function. Numbers are the hexadecimal texts that lspci prints.
struct PciLine {
    std::string slot;      // "00:02.0"
    std::string classCode; // "0200"
    std::string vendorId;  // "8086"
    std::string deviceId;  // "100e"
    std::string className; // the -m class name
    std::string vendorName;
    std::string deviceName;
};

// Installs the -n, -m and -v texts of these functions, in this order.
void addPciLines(Vantrel::Ostrand::host::FakeMachine& machine, const std::vector<PciLine>& functions);

} // namespace ostrand_test

#include "tests/support/PciLines.h"

#include "tests/support/Machines.h"

namespace ostrand_test {

void addPciLines(Vantrel::Ostrand::host::FakeMachine& machine, const std::vector<PciLine>& functions)
{
    std::string n;
    std::string m;
    std::string v;
    for (const auto& f : functions) {
        n += f.slot + " " + f.classCode + ": " + f.vendorId + ":" + f.deviceId + " (rev 01)\n";
        m += f.slot + " \"" + f.className + "\" \"" + f.vendorName + "\" \"" + f.deviceName +
             "\" -r01 -p00 \"\" \"\"\n";
        v += f.slot + " " + f.className + ": " + f.vendorName + " " + f.deviceName + " (rev 01)\n";
        v += "\tFlags: bus master, fast devsel, latency 0, IRQ 11\n\n";
    }
    addLspci(machine, n, m, v);
}

} // namespace ostrand_test

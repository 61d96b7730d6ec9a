// Serial ports and modems for fake machines: a serial port that notes what
// happened on its line and can be made to fail, and the lab server's ports,
// modem and SMBIOS table from its captures.
#pragma once

#include "host/fake/FakeMachine.h"
#include "host/models/Models.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ostrand_test {

// A serial port (with a modem if one is attached) that notes when each
// command arrived, in fake time since the machine was made, and how many
// bytes each read asked for. Writes or reads can be refused with an errno.
class ProbedSerial : public Vantrel::Ostrand::host::SerialModel {
public:
    struct Arrival {
        std::string command;
        int64_t elapsed;
    };

    using SerialModel::SerialModel;

    void failWrites(int error) { m_writeError = error; }
    void failReads(int error) { m_readError = error; }
    const std::vector<Arrival>& arrivals() const { return m_arrivals; }
    const std::vector<size_t>& readSizes() const { return m_readSizes; }

    ssize_t read(Vantrel::Ostrand::host::FakeMachine& machine, char* buffer, size_t count, off_t offset) override;
    ssize_t write(Vantrel::Ostrand::host::FakeMachine& machine, const char* buffer, size_t count,
                  off_t offset) override;

private:
    int m_writeError = 0;
    int m_readError = 0;
    std::vector<Arrival> m_arrivals;
    std::vector<size_t> m_readSizes;
};

// A serial node of UART type 4 (16550A) at the path, with a modem that speaks
// the script (ModemScript text form) unless the script is empty.
std::shared_ptr<ProbedSerial> addSerialNode(Vantrel::Ostrand::host::FakeMachine& machine, const std::string& path,
                                            int port, int irq, const std::string& script = "", int type = 4);

// The lab server's AT exchange (modem.txt), one script per node path.
std::map<std::string, Vantrel::Ostrand::host::ModemScript> labServerModemScripts();
// The lab server's serial nodes as their TIOCGSERIAL answers (ioctls.txt)
// describe them, with the modem of modem.txt; by path.
std::map<std::string, std::shared_ptr<ProbedSerial>>
addLabServerSerialPorts(Vantrel::Ostrand::host::FakeMachine& machine);
// The lab server's SMBIOS table (DMI.bin with smbios_entry_point.bin) as the sysfs files.
void addLabServerSmbios(Vantrel::Ostrand::host::FakeMachine& machine);

} // namespace ostrand_test

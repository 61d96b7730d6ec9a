// A serial port (/dev/ttyS*) of a fake machine: answers TIOCGSERIAL with its
// UART type, I/O port and irq, keeps terminal settings, and speaks the modem
// script if a modem is attached.
#pragma once

#include "host/models/DeviceModel.h"
#include "host/models/ModemScript.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

// Reading with nothing to deliver costs kIdleReadMicros of fake time, as a
// wait on the line would.
class SerialModel : public DeviceModel {
public:
    static constexpr int64_t kIdleReadMicros = 100000;
    SerialModel(int type, int port, int irq, int line = 0);
    void attachModem(ModemScript script) { m_script = std::move(script); m_hasModem = true; }
    int open(int flags) override;
    ssize_t read(FakeMachine& machine, char* buffer, size_t count, off_t offset) override;
    ssize_t write(FakeMachine& machine, const char* buffer, size_t count, off_t offset) override;
    int tcgetattr(struct termios* settings) override;
    int tcsetattr(int action, const struct termios* settings) override;
    const struct termios& settings() const { return m_settings; }

private:
    int getSerial(void* argument) const;

    int m_type;
    int m_port;
    int m_irq;
    int m_line;
    bool m_hasModem = false;
    ModemScript m_script;
    std::vector<std::string> m_pending;
    struct termios m_settings {};
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

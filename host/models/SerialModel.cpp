#include "host/models/SerialModel.h"

#include "host/fake/FakeMachine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/serial.h>
#include <sys/ioctl.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

SerialModel::SerialModel(int type, int port, int irq, int line) : m_type(type), m_port(port), m_irq(irq), m_line(line)
{
    answer(TIOCGSERIAL, "TIOCGSERIAL", [this](FakeMachine&, void* argument, IoctlRecord&) { return getSerial(argument); });
}

int SerialModel::open(int) { return 0; }

ssize_t SerialModel::read(FakeMachine& machine, char* buffer, size_t count, off_t)
{
    if (m_pending.empty()) {
        machine.clock().advance(kIdleReadMicros);
        return -EAGAIN;
    }
    std::string& piece = m_pending.front();
    size_t n = std::min(count, piece.size());
    std::memcpy(buffer, piece.data(), n);
    if (n == piece.size()) {
        m_pending.erase(m_pending.begin());
    } else {
        piece.erase(0, n);
    }
    return static_cast<ssize_t>(n);
}

ssize_t SerialModel::write(FakeMachine&, const char* buffer, size_t count, off_t)
{
    if (m_hasModem) {
        std::string command(buffer, count);
        for (const auto& exchange : m_script.exchanges) {
            if (exchange.command == command) {
                m_pending.insert(m_pending.end(), exchange.pieces.begin(), exchange.pieces.end());
                break;
            }
        }
    }
    return static_cast<ssize_t>(count);
}

int SerialModel::getSerial(void* argument) const
{
    auto* serial = static_cast<struct serial_struct*>(argument);
    serial->type = m_type;
    serial->line = m_line;
    serial->port = static_cast<unsigned int>(m_port);
    serial->irq = m_irq;
    serial->baud_base = 115200;
    serial->xmit_fifo_size = m_type == 0 ? 0 : 16;
    return 0;
}

int SerialModel::tcgetattr(struct termios* settings)
{
    *settings = m_settings;
    return 0;
}

int SerialModel::tcsetattr(int, const struct termios* settings)
{
    m_settings = *settings;
    return 0;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

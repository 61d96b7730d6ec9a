// Fake time: it moves only when the library sleeps or waits.
#pragma once

#include <cstdint>

namespace Vantrel {
namespace Ostrand {
namespace host {

// Fake time in microseconds. time() shows whole seconds of it.
class FakeClock {
public:
    static constexpr int64_t kStart = 1700000000LL * 1000000LL;
    int64_t now() const { return m_now; }
    void advance(int64_t microseconds) { m_now += microseconds; }
    // Microseconds since the machine was made.
    int64_t elapsed() const { return m_now - kStart; }

private:
    int64_t m_now = kStart;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

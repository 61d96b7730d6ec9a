#include "host/models/DeviceModel.h"

#include <cerrno>
#include <cstdio>

namespace Vantrel {
namespace Ostrand {
namespace host {

int DeviceModel::open(int) { return 0; }
ssize_t DeviceModel::read(FakeMachine&, char*, size_t, off_t) { return -EINVAL; }
ssize_t DeviceModel::write(FakeMachine&, const char*, size_t, off_t) { return -EINVAL; }
int DeviceModel::tcgetattr(struct termios*) { return -ENOTTY; }
int DeviceModel::tcsetattr(int, const struct termios*) { return -ENOTTY; }
const unsigned char* DeviceModel::view(off_t, size_t) const { return nullptr; }

bool DeviceModel::map(off_t, size_t, unsigned char*) { return false; }

void DeviceModel::answer(unsigned long request, std::string name, IoctlHandler handler)
{
    m_ioctls.push_back({request, std::move(name), std::move(handler)});
}

void DeviceModel::refuse(unsigned long request, int error) { m_refused.emplace_back(request, error); }

int DeviceModel::ioctl(FakeMachine& machine, unsigned long request, void* argument, IoctlRecord& event)
{
    const Ioctl* entry = nullptr;
    for (const auto& candidate : m_ioctls) {
        if (candidate.request == request) {
            entry = &candidate;
            break;
        }
    }
    if (entry == nullptr) {
        char number[32];
        std::snprintf(number, sizeof number, "ioctl 0x%lX", request);
        event.name = number;
    } else {
        event.name = entry->name;
    }
    for (const auto& refused : m_refused) {
        if (refused.first == request) {
            return -refused.second;
        }
    }
    if (entry == nullptr) {
        return -ENOTTY;
    }
    return entry->handler(machine, argument, event);
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

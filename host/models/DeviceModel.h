// The behaviour of one device node or file of a fake machine. A model
// answers its ioctls from a table of {request, name, handler}; the machine
// records each ioctl under the name, so tests read "SG_IO INQUIRY", not a
// request number.
#pragma once

#include "host/fake/Events.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <termios.h>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

class FakeMachine;

// Operations return what the call returns, or minus an errno value on
// failure. The defaults refuse.
class DeviceModel {
public:
    // A handler answers one request. It may refine the event's name (the
    // SCSI command of an SG_IO) and keep the bytes that went in.
    using IoctlHandler = std::function<int(FakeMachine& machine, void* argument, IoctlRecord& event)>;
    struct Ioctl {
        unsigned long request;
        std::string name;
        IoctlHandler handler;
    };

    virtual ~DeviceModel() = default;
    // 0 to allow the open, or an errno value to refuse it.
    virtual int open(int flags);
    virtual ssize_t read(FakeMachine& machine, char* buffer, size_t count, off_t offset);
    virtual ssize_t write(FakeMachine& machine, const char* buffer, size_t count, off_t offset);
    virtual int tcgetattr(struct termios* settings);
    virtual int tcsetattr(int action, const struct termios* settings);
    // Copies `count` bytes at `offset` for mmap; false refuses the mapping.
    virtual bool map(off_t offset, size_t count, unsigned char* out);
    // The `count` bytes at `offset` where the model keeps them, for a mapping
    // that is only read: they stay as they are while the model lives. Null
    // when they are not kept in one piece; map then copies them.
    virtual const unsigned char* view(off_t offset, size_t count) const;

    // Looks the request up in the table: names the event and calls the
    // handler. A request that is not in the table is refused with ENOTTY and
    // named by its number.
    int ioctl(FakeMachine& machine, unsigned long request, void* argument, IoctlRecord& event);
    // Makes the model refuse one request with an errno value, whatever its table says.
    void refuse(unsigned long request, int error);

protected:
    void answer(unsigned long request, std::string name, IoctlHandler handler);

private:
    std::vector<Ioctl> m_ioctls;
    std::vector<std::pair<unsigned long, int>> m_refused;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// A regular file of a fake machine: bytes read from any offset and mapped.
#pragma once

#include "host/models/DeviceModel.h"

#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

class FileModel : public DeviceModel {
public:
    explicit FileModel(std::string bytes) : m_bytes(std::move(bytes)) {}
    int open(int flags) override;
    ssize_t read(FakeMachine& machine, char* buffer, size_t count, off_t offset) override;
    bool map(off_t offset, size_t count, unsigned char* out) override;
    const unsigned char* view(off_t offset, size_t count) const override;
    const std::string& bytes() const { return m_bytes; }

private:
    std::string m_bytes;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// Physical memory (/dev/mem) of a fake machine: areas of bytes at physical
// addresses; the rest reads as zeros.
#pragma once

#include "host/models/DeviceModel.h"

#include <cstdint>
#include <map>
#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

class MemoryModel : public DeviceModel {
public:
    void place(uint64_t address, std::string bytes) { m_areas[address] = std::move(bytes); }
    int open(int flags) override;
    ssize_t read(FakeMachine& machine, char* buffer, size_t count, off_t offset) override;
    bool map(off_t offset, size_t count, unsigned char* out) override;
    const unsigned char* view(off_t offset, size_t count) const override;

private:
    void copy(uint64_t offset, size_t count, unsigned char* out) const;
    std::map<uint64_t, std::string> m_areas;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

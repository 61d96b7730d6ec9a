// The libsysfs calls that the library makes, in order, recorded while a
// SysfsCalls object lives. The test program puts its own definitions of the
// twelve functions that the reader uses in front of libsysfs's; each records
// its name and hands the call on. libsysfs's calls to itself, made while one
// of these is running, are not recorded.
#pragma once

#include <string>
#include <vector>

namespace ostrand_test {

class SysfsCalls {
public:
    SysfsCalls();
    ~SysfsCalls();
    SysfsCalls(const SysfsCalls&) = delete;
    SysfsCalls& operator=(const SysfsCalls&) = delete;

    // The names of the calls so far, as "sysfs_open_bus".
    const std::vector<std::string>& calls() const;
};

} // namespace ostrand_test

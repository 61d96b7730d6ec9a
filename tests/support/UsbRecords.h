// Helpers for tests of USB records: every field of a record, named.
#pragma once

#include "usb/Usb_Device.h"

#include <string>
#include <vector>

namespace ostrand_test {

// The 37 fields of a record in declaration order, as "name=value", so that
// a mismatch says which field it is.
std::vector<std::string> describe(const Usb_Device& device);

} // namespace ostrand_test

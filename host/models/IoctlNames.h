// The ioctls the library makes, by the names the events and machine files
// use ("SG_IO", "TIOCGSERIAL", "USBDEVFS_CONTROL").
#pragma once

#include <string>

namespace Vantrel {
namespace Ostrand {
namespace host {

// The name of a request, or its number in hexadecimal ("0x5401") for one
// the library does not make.
std::string ioctlName(unsigned long request);
// The request of a name, or of a number; false for neither.
bool ioctlByName(const std::string& name, unsigned long& request);

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

// The one error of the SMBIOS interface: a table that cannot be had, a read
// outside a structure's formatted area, a string number that names no string,
// or the dereference of an end iterator.
#pragma once

#include "frame/Export.h"

#include <exception>
#include <string>

namespace smbios {

class OSTRAND_API SmbiosException : public std::exception {
public:
    explicit SmbiosException(std::string message);
    ~SmbiosException() override;
    const char* what() const noexcept override;

private:
    std::string m_message;
};

} // namespace smbios

#include "platform/smbios/SmbiosException.h"

#include <utility>

namespace smbios {

SmbiosException::SmbiosException(std::string message) : m_message(std::move(message)) {}

SmbiosException::~SmbiosException() {}

const char* SmbiosException::what() const noexcept { return m_message.c_str(); }

} // namespace smbios

// Helpers for tests: captures, lspci texts on fake machines, record fields.
#pragma once

#include "frame/IWbemClassObject.h"
#include "host/fake/FakeMachine.h"

#include <array>
#include <string>
#include <vector>

namespace ostrand_test {

// The thirteen keys, in the order of the record's constructor.
extern const std::array<const char*, 13> kKeys;

// The bytes of a file under tests/captures/ (the real tool captures).
std::string capture(const std::string& relativePath);
// The bytes of a file under the source tree.
std::string sourceFile(const std::string& relativePath);

// The exact command lines of the inventory's three passes.
extern const char* const kLspciN;
extern const char* const kLspciM;
extern const char* const kLspciV;
void addLspci(Vantrel::Ostrand::host::FakeMachine& machine, const std::string& n, const std::string& m,
              const std::string& v);
// The lab server's three captures.
void addLabServerLspci(Vantrel::Ostrand::host::FakeMachine& machine);

// The thirteen values of a record, in constructor order, and its integer.
std::vector<std::string> fields(Vantrel::Ostrand::IWbemClassObject& record);
std::string field(Vantrel::Ostrand::IWbemClassObject& record, const std::string& key);

} // namespace ostrand_test

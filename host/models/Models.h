// The device models of fake machines, and the one list of the directives
// by which a machine directory names them.
#pragma once

#include "host/fake/MachineDirectory.h"
#include "host/models/DeviceModel.h"
#include "host/models/FileModel.h"
#include "host/models/FloppyModel.h"
#include "host/models/IdeModel.h"
#include "host/models/MemoryModel.h"
#include "host/models/ModemScript.h"
#include "host/models/ScsiBlockModel.h"
#include "host/models/SerialModel.h"
#include "host/models/UsbfsModel.h"
#include "host/models/ScsiBlockModel.h"
#include "host/models/SgModel.h"

#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

struct ModelDirective {
    const char* name;
    DirectiveHandler load;
};

// Every model directive, in the order samples/README.md documents them.
const std::vector<ModelDirective>& modelDirectives();

} // namespace host
} // namespace Ostrand
} // namespace Vantrel

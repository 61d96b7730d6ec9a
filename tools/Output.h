// The three views of the records: a table, JSON and the location tree.
#pragma once

#include "tools/Enumeration.h"

#include <ostream>
#include <vector>

namespace ostrand_tool {

// Name, class, location, parent location, description; one line a record.
void printTable(std::ostream& out, const std::vector<Row>& rows);
// An array with one object a record: the thirteen keys, "value", and "finder".
void printJson(std::ostream& out, const std::vector<Row>& rows);
// The tree of full paths (parent location, "!", location), System Board at the root.
void printTree(std::ostream& out, const std::vector<Row>& rows);

} // namespace ostrand_tool

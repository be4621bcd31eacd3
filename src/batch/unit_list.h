// The table of units as the batch command prints it.
#pragma once

#include <string>
#include <vector>

#include "sorting/unit_table.h"

namespace kestrelvane {

// The rows in columns, under a heading; ends with a line break.
std::string print_unit_table(const std::vector<unit_row>& units);

}  // namespace kestrelvane

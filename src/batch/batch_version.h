// The version of the program, as the batch command and its report give it.
#pragma once

namespace kestrelvane {

constexpr const char* program_version = "5.00";

}  // namespace kestrelvane

// The version of the program, as exports, reports and --version give it.
#pragma once

namespace kestrelvane {

constexpr const char* program_version = "5.00";

}  // namespace kestrelvane

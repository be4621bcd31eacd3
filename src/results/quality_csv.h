// The quality of units as a text file for spreadsheets and scripts.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// A heading line with the names of quality_figures(), and a line for each unit: its number, its
// label, then its figures in nine digits; an empty field is a figure that cannot be told. Tells
// how it went.
bool write_quality_csv(const session_state& session, const std::string& path);

}  // namespace kestrelvane

// The files that a recording consists of: what nothing may be saved over.
#pragma once

#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// The file itself and those beside it that its reader may look at, as far as they exist: samples,
// headers, electrode configurations, masks. Found by their names; nothing is opened.
std::vector<std::string> files_of_recording(const std::string& path);

// True when the path leads to a file of the recording in memory or to its electrode
// configuration.
bool is_file_of_recording(const session_state& session, const std::string& path);

}  // namespace kestrelvane

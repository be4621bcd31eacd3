// Whether a work file was saved from the recording in memory.
//
// A sort laid over another recording is worse than none: it looks like one. Names are compared,
// and what the rows of the file tell of its recording before anything of them is stored.
#pragma once

#include <string>

#include "results/work_file_source.h"
#include "session/session_state.h"

namespace kestrelvane {

// Asks when something differs, naming it; false when the user does not want to go on, and, with
// a problem, when the file is of other channels. The position in the file stays, and the session
// as it is.
bool belongs_to_recording(const session_state& session, work_file_source& in,
                          const std::string& saved_path);

}  // namespace kestrelvane

// Polytrode Data: several epochs of a recording in one file.
#pragma once

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// The reader of the format table. Epochs stand one after the other on the time axis, a
// second of zeros after each; epoch_start is in seconds.
bool read_prf(session_state& session, const recording_request& request);

}  // namespace kestrelvane

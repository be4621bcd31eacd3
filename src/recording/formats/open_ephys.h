// Open Ephys recordings in binary form: a folder with "structure.oebin", which describes
// the streams, and for each stream a "continuous.dat" of interleaved 16-bit samples.
#pragma once

#include <string>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// The reader of the format table; the path is that of the structure.oebin. Reads the
// electrode channels of one stream: the one that the request names, or the one that the user
// says Yes to. Positions come from the configuration, or from the probe's description in
// "settings.xml".
bool read_open_ephys(session_state& session, const recording_request& request);

// The structure.oebin that a folder holds, at any depth: of several the first in natural
// order, the others being logged. Empty when there is none.
std::string find_structure_file(const session_state& session, const std::string& folder);

}  // namespace kestrelvane

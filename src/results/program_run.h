// The beginning and the end of a run of the workstation, without its windows.
//
// Both run on a worker with the session gate held: they read and write files and ask the
// user through the boundary.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// After the settings files: the recording named on the command line ("" for none), or
// the offer to resume or to recover. True when a recording is in memory.
bool open_at_start(session_state& session, const std::string& argument);

// On a close request: removes the recovery file, offers to keep the state, closes the
// log file, writes both settings files. The timed save has been stopped by then.
void end_session(session_state& session);

// The menu entry "E&xit", before the close request: an earlier restart file goes.
void forget_restart(session_state& session);

}  // namespace kestrelvane

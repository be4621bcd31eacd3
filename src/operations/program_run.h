// The beginning and the end of a run of the workstation, without its windows.
//
// Both run on a worker with the session gate held: they read and write files and ask the
// user through the boundary.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// After the settings files: the recording named on the command line ("" for none), or
// the offer to resume or to recover. True when a recording is in memory. A restart file
// goes once it is read or declined; read, it stands in for the timed save.
bool open_at_start(session_state& session, const std::string& argument);

// On a close request: offers to keep the state, removes the recovery file, closes the
// log file, writes both settings files. The timed save has been stopped by then. False, and
// nothing has been done, when the user would rather stay, or when the state was to be kept and
// could not be written, of which he has been told.
enum class exit_way {
  frame,  // the frame is closed
  menu,   // "E&xit": an earlier restart file goes, so that the answer alone decides about one
};
bool end_session(session_state& session, exit_way way);

}  // namespace kestrelvane

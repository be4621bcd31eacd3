// Ctrl-C, and the signal by which a batch system announces its time limit (SIGTERM), as the
// dialogs' "Interrupt" button.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// From now on the first of these signals asks the session's running operation to stop; the
// second ends the program at once. The session must outlive the process's signals
// or release_interrupt be called.
void catch_interrupt(session_state& session);
void release_interrupt();

// True once one of them has come.
bool interrupt_was_pressed();

}  // namespace kestrelvane

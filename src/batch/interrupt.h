// Ctrl-C as the dialogs' "Interrupt" button.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// From now on the first Ctrl-C asks the session's running operation to stop; the
// second ends the program at once. The session must outlive the process's signals
// or release_interrupt be called.
void catch_interrupt(session_state& session);
void release_interrupt();

// True once Ctrl-C has been pressed.
bool interrupt_was_pressed();

}  // namespace kestrelvane

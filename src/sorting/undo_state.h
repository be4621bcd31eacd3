// Undo: the whole sort as it was when it was saved.
//
// One slot in the session, shared by all dialogs that offer to undo. It takes events
// (those too that a later step removes), clusters with their templates, and pair lists,
// and so needs about 22 bytes for each event, 33 for each pair, and the templates. Called
// by the worker; at 50,000,000 events a save takes a few seconds.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// Fills the slot with the sort in memory. False, after a log line, when memory does not
// hold it; the slot is then empty.
bool save_undo_state(session_state& session);

// Writes the slot back and keeps it. False, and nothing changes, when it is empty.
// Templates are calculated anew if the spike window has been changed since the save.
bool restore_undo_state(session_state& session);

}  // namespace kestrelvane

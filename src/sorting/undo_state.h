// Undo: the whole sort as it was when a tool saved it.
//
// One slot in the session, shared by all tools that offer to undo; a tool restores only
// what it saved itself, of the recording in memory. It takes events (those too that a
// later step removes), clusters with their templates, and pair lists, and so needs about
// 22 bytes for each event, 33 for each pair, and the templates. A save fills the memory of the one
// before where it fits, which is five times as fast as fresh memory. Called by the worker; at
// 50,000,000 events a save takes a few seconds.
#pragma once

#include <memory>

#include "session/session_state.h"

namespace kestrelvane {

// Fills the slot with the sort in memory. False, after a log line, when memory does not
// hold it; the slot is then empty.
bool save_undo_state(session_state& session, undo_owner owner);

// Fetches the memory of a save from the system, unless a slot has it already: where a dialog opens
// whose first edit should not wait for it. No save is lost by it.
void prepare_undo(session_state& session);

// A copy outside the slot; null, after a log line, when memory does not hold it.
std::unique_ptr<undo_slot> copy_sort(const session_state& session);
// Brings a copy back and tells whoever listens. It must be of the recording in memory.
void restore_sort(session_state& session, const undo_slot& copy);

// Whether the slot holds what this tool saved of the recording in memory.
bool can_undo(const session_state& session, undo_owner owner);

// Writes the slot back, keeps it, and tells whoever listens. False, and nothing changes,
// when can_undo is false. Templates are calculated anew if spike window or masks have been
// changed since the save, and for other masks the lists with them.
bool restore_undo_state(session_state& session, undo_owner owner);

}  // namespace kestrelvane

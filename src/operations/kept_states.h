// States of earlier sessions that are out of the way of the recovery file.
//
// A recovery file with a sort is never replaced by the state of another session, nor by one that
// holds less: it is put aside as kv_autorecover_DATE_RECORDING.wrk, a work file, with the history
// of its review beside it. The last five are kept.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

constexpr std::size_t most_kept_states = 5;

struct kept_state {
  std::string path;
  std::string recording;  // its path
  std::time_t saved = 0;
  std::int32_t n_events = 0, n_clusters = 0;
};

// Newest first; files that are no whole work files are left out.
std::vector<kept_state> list_kept_states(const session_state& session);

// Before a save: puts the state file aside where what would take its place is of another session,
// or holds less. One without events is not worth it.
void keep_what_is_replaced(const session_state& session, const std::string& state_file);

// Gives a state file that holds events a name among the kept, beside the one that it has as long as
// its caller leaves it. False when it could not be.
bool keep_state(const session_state& session, const std::string& state_file);

// At the start: recovery files of instances that are gone. The newest of them and of this
// instance's own gets the name of the latter, the others are put aside.
void adopt_states(const session_state& session);

}  // namespace kestrelvane

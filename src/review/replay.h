// Doing the edits of a history again (session/edit_history.h).
//
// A replay calls the same engine routines with what the records say, so that on the same recording,
// filtered alike, it leaves the same bits at any number of threads; the fingerprint of each
// record is checked on the way. Edits that were taken back are passed over. The settings of the
// records are in force meanwhile, and those of the caller afterwards. Worker's work; moves
// meter::clusters.
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// What a record did, for the eye: "Merge clusters 3 and 7".
std::string edit_text(const edit_record& record);

struct replay_result {
  std::int32_t n_done = 0;  // edits
  std::string problem;      // empty: all of them
};

// Leads the sort in memory, which must be the state after record from (0: the beginning), to the
// state after record upto, along history. On a problem - a record that cannot be done, or that
// leaves another sort than it did, or an interrupt - the sort is as the last good edit left it.
// False then. history must not be the session's own while records are added to it.
bool replay_edits(session_state& session, const edit_history& history, std::int32_t from,
                  std::int32_t upto, replay_result& result);

// "Back to here": brings the sort to the state after a record of the session's own history, and
// adds a record that says so. beginning: the sort that the history began with, in memory. False,
// after a box: the sort is as it was.
bool go_back_to(session_state& session, std::int32_t record);

}  // namespace kestrelvane

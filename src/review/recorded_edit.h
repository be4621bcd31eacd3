// Recording the edits of a review (session/edit_history.h).
//
// Every routine of the review that changes the sort holds a recorded_edit while it works, and
// fills its record with what it takes to do the same again. An edit within an edit belongs to the
// outer one; one that has changed nothing leaves no record. When the sort is not the one that the
// last record has left - after another Autosort, say - a new history begins with it.
//
// The cost is two passes over the events, about 2 ms for a million, and, when a history
// begins, a copy of the sort as large as that of an undo.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/pair_index.h"
#include "session/session_state.h"

namespace kestrelvane {

// Of the events with their clusters, of comments and labels of units, and of the pairs that the
// user has marked. Labels of events, selections and what is computed from these have no part in
// it.
std::uint64_t sort_fingerprint(const session_state& session);

class recorded_edit {
 public:
  recorded_edit(session_state& session, const char* edit);
  ~recorded_edit();
  recorded_edit(const recorded_edit&) = delete;
  recorded_edit& operator=(const recorded_edit&) = delete;

  edit_record record;

 private:
  session_state& session_;
  bool outermost_;
  std::uint64_t before_ = 0;
};

// Begins the history with the sort in memory, unless there is one: where a dialog opens whose first
// edit should not wait for it.
void prepare_history(session_state& session);

// What the user has said of a pair; without an entry in the lists nothing happens.
enum class pair_mark { distinct, ambiguous };
table<logical>& marks_of(session_state& session, pair_mark mark);  // by pair number
void set_pair_mark(session_state& session, cluster_pair pair, pair_mark mark, bool on);

// restore_undo_state with its record.
bool restore_recorded(session_state& session, undo_owner owner);

// The records that lead from the beginning to the state after a record, without those that have
// been taken back; ascending.
std::vector<std::int32_t> records_in_force(const edit_history& history, std::int32_t upto);
// Whether edits alone lead from the state after one record to that after another, and nothing has
// to be taken back on the way.
bool leads_on(const edit_history& history, std::int32_t from, std::int32_t to);
inline std::int32_t last_record(const edit_history& history) {
  return static_cast<std::int32_t>(history.records.size());
}
// The latest record whose state has this fingerprint, 0 for the beginning; -1: none.
std::int32_t find_state(const edit_history& history, std::uint64_t fingerprint);

// Adds a record and tells whoever listens. For edits that lie behind, as going back does.
void add_record(session_state& session, edit_record record);

// The settings that edits go by, as names and values.
std::vector<std::pair<std::string, std::string>> settings_of_edits(const session_state& session);

}  // namespace kestrelvane

// The history of a review as a file: NAME.curation.jsonl beside the work file NAME.wrk.
//
// One line of JSON for each record (session/edit_history.h), behind a first line that says what
// the review began with; NAME.curation.wrk is that sort itself. Lines are added as the edits are
// made, and reach the device before the routine returns, so that a crash costs no more than the
// edit it interrupts. The same is kept beside the recovery file, for sorts that have no work
// file yet. A line that was cut short ends the history.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

std::string curation_path(const std::string& work_file);
std::string curation_beginning_path(const std::string& work_file);

// For edit_history::written: adds the record to the files of the history, or, for null, begins
// them anew. Those beside a work file begin with the first record, since a dialog that is merely
// opened shall leave nothing there; an older one becomes NAME.curation.earlier.jsonl. What cannot
// be written is told in the log.
void keep_record(const session_state& session, const edit_record* record);

// False, with a problem, for a file that is none. A record that cannot be read ends it.
bool read_history(const std::string& path, edit_history& history, std::string& problem);
// The whole history; false when it could not be written.
bool write_history(const session_state& session, const std::string& path);

// A work file has been written: its history goes beside it, and later records after it.
void save_history_beside(session_state& session, const std::string& work_file);

// A work file, or a state file, has been read: takes over the history beside it when the sort is
// one that it knows. Returns how many records it has behind that sort, if they lead to another one;
// 0 without any.
std::int32_t take_over_history(session_state& session, const std::string& work_file);
// The same, and asks whether to do them.
void offer_history_beside(session_state& session, const std::string& work_file);
// A state file has been read that is older than the review beside it, which the last save did not
// come to: reads the sort that the review began with. Returns the number of its edits; 0, and
// nothing changes, where the state file is of the review or there is none.
std::int32_t take_over_later_review(session_state& session, const std::string& state_file);
// Does those edits, from the beginning where some of them take back what the sort has. False, after
// a box, when that cannot be; the sort is as it was.
bool repeat_later_edits(session_state& session);
// Leaves them, as edits that were taken back.
void leave_later_edits(session_state& session);

// Reads NAME.curation.wrk for "Back to here" when the sort of the beginning is not in memory;
// everything else stays as it is. False when there is none.
bool load_beginning(session_state& session);

// Files of the history beside a state file, when that one goes or gets another name. False when one
// that is there kept its old name.
void remove_history_beside(const std::string& state_file);
bool rename_history_beside(const std::string& from, const std::string& to);

}  // namespace kestrelvane

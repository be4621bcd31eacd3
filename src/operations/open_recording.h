// Opening a recording: the decisions of the dialog, and the worker that reads.
//
// prepare_... runs where the user is, asks and says what has to be, and returns true
// when the worker should be started on recording.open_path. The worker resets the
// session, calls the format's reader, and does what every recording needs. It ends with
// a recording in memory, or with an empty session and the words that say why.
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// Sets file_type from the extension of open_path, 0 when it is none of ours.
void classify_path(session_state& session);

// What a user with a recording in memory is asked before another one is chosen.
constexpr const char* overwrite_question =
    "The new file will overwrite existing data in memory and you will lose any unsaved results!";
constexpr const char* overwrite_title = "Are you sure?";

// The open dialog's decision on a chosen path. chosen_code is the code of the filter
// picked in the dialog, 0 for "All files(*.*)". False for an unknown extension, or for a
// path that cannot be read.
bool prepare_chosen_recording(session_state& session, const std::string& path,
                              std::int32_t chosen_code = 0);
// The same after asking; false also when the user would rather keep what is in memory.
bool prepare_open_recording(session_state& session, const std::string& path,
                            std::int32_t chosen_code = 0);

// The same for an entry (from 0) of the recent list; here any case of letters counts.
bool prepare_open_recent(session_state& session, std::size_t entry);

// Reads open_path. True when a recording is in memory; operation.open_succeeded and
// operation.reader_running tell the same to a watcher.
bool open_recording_worker(session_state& session);

// prepare_open_recording and the worker in one, on the calling thread.
bool open_recording(session_state& session, const std::string& path);

}  // namespace kestrelvane

// Opening a recording: the decisions of the dialog, and the worker that reads.
//
// prepare_... runs where the user is, asks and says what has to be, and returns the request
// that the worker is to be started on, or none. The worker resets the session, calls the
// format's reader, and does what every recording needs. It ends with a recording in memory,
// or with an empty session and the words that say why.
#pragma once

#include <optional>
#include <string>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// What a user with a recording in memory is asked before another one is chosen.
constexpr const char* overwrite_question =
    "The new file will overwrite existing data in memory and you will lose any unsaved results!";
constexpr const char* overwrite_title = "Are you sure?";

// The open dialog's decision on a request whose format is the code of the filter picked in
// the dialog, 0 for "All files(*.*)". A folder becomes the recording in it. None for an
// unknown extension, or for a path that cannot be read.
std::optional<recording_request> prepare_chosen_recording(const session_state& session,
                                                          recording_request request);
// The same after asking; none also when the user would rather keep what is in memory.
std::optional<recording_request> prepare_open_recording(const session_state& session,
                                                        recording_request request);

// The same for an entry (from 0) of the recent list; here any case of letters counts.
std::optional<recording_request> prepare_open_recent(const session_state& session,
                                                     std::size_t entry);

// Reads the recording, whose format becomes the open dialog's. True when it is in memory;
// operation.open_succeeded and operation.reader_running tell the same to a watcher. Whoever starts
// it takes back the interrupts of what went before.
bool open_recording_worker(session_state& session, const recording_request& request);

// prepare_open_recording and the worker in one, on the calling thread.
bool open_recording(session_state& session, const std::string& path);

}  // namespace kestrelvane

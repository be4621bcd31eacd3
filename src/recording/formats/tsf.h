// TSF, "Test spike file": the program's own plain recording format.
//
// One file holds channel positions, the raw samples channel by channel and, if there
// are any, an event list or the planted spikes of a test. The format code after the
// label is 1002 for all that is written today; 1000 and 1001 are test files of old,
// with room for 54 and 56 channels, and 1003 is a header alone, which leaves a session
// with channels and no samples.
//
// Every count is tested against the file's size before anything is allocated. Events
// that lie outside the recording are left out, and cluster numbers beyond the limit
// become 0, each with a line in the log; the planted spikes stay as they are.
#pragma once

#include <cstdint>
#include <string>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

constexpr std::int32_t tsf_current_format = 1002;

// Reads a file into an empty session, with distance tables, channel order and
// templates. On the worker; reads channels on threads_now. False after the log line or
// box that says why; what was read so far is then for the caller to reset.
bool read_tsf(session_state& session, const recording_request& request);

// Writes the recording as it is in memory, filters included, and its events, format
// 1002. False, with a box, when the file cannot be written; an old file of that name is
// then whole. Event-based recordings are the caller's to refuse.
bool write_tsf(const session_state& session, const std::string& path);

// The field potentials that came with the recording as a recording of their own: a channel for each
// that has values, at the place of the site it taps, all at the rate and in the scale of the first
// and as long as the shortest; those of another rate are left out and logged. False, with a box,
// without any, or when the file cannot be written.
bool has_lfp(const session_state& session);  // says so otherwise
bool write_lfp_tsf(const session_state& session, const std::string& path);

}  // namespace kestrelvane

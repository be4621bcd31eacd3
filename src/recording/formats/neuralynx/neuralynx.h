// Neuralynx ".ncs" (continuous) and ".ntt" (sorted or unsorted tetrode spikes).
//
// Both are a text header of 16384 bytes and records of one size. An ".ncs" becomes a
// continuous recording of the channels found in its records; samples are stored one
// after another, so that pauses close up. An ".ntt" becomes an event-based recording of
// four channels: record r (from 0) of 32 samples stands at time index 100 + 64 r on, each
// is an event, and its cell number the event's cluster. Header text, features and time
// stamps of an ".ntt" are kept, and written back unchanged.
#pragma once

#include <string>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

constexpr std::int64_t neuralynx_header_bytes = 16384;
constexpr std::int64_t ncs_record_bytes = 1044;
constexpr std::int64_t ntt_record_bytes = 304;
constexpr std::int32_t ntt_waveform_length = 32;  // samples of one channel in a record
constexpr std::int32_t ntt_channels = 4;
constexpr std::int32_t ntt_feature_count = 8;

// Read a file into an empty session. On the worker; .ncs on threads_now. False after the
// words that say why; what was read so far is for the caller to reset.
bool read_ncs(session_state& session, const recording_request& request);
bool read_ntt(session_state& session, const recording_request& request);

// Writes the records of the .ntt file in memory with the session's clusters as cell numbers
// and its voltages. A record whose event has been moved out of it, or that has none, gets
// cell number 0. Tells how it went; an old file of that name is whole when it fails.
bool write_ntt(const session_state& session, const std::string& path);

}  // namespace kestrelvane

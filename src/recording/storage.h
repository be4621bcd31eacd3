// Memory for a recording: the samples, the time stamps of stored records, the templates.
//
// A reader that knows n_channels, is_continuous and, of an event-based recording, electrode
// type and tetrodes asks for it once, before it reads samples.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// After the last sample of most formats, for windows that reach beyond it.
constexpr std::int64_t usual_spare_samples = 1000;

// Allocates vd for time indices up to max_time, the time stamp map of an event-based
// recording, and templates; sets max_vd_samples. False on failure, after the log lines and
// the box.
bool allocate_recording(session_state& session, std::int64_t max_time);

// Room for templates over n_channels, zeroed: the last step of the above. False on failure,
// after the log line and the box.
bool allocate_templates(session_state& session);

}  // namespace kestrelvane

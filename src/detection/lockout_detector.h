// Spatio-temporal lockout detection.
//
// Walks the recording in order of time and accepts a trigger's feature as an
// event only if no stronger feature of the same kind lies within lockout_ms and
// lockout_radius_um of it. The fallback of the proto-event detector. Events come
// in order of discovery, not strictly of time.
//
// One pass on the detection thread; interrupt is polled between stretches of the
// recording and leaves the events found so far, with detection_incomplete set.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Replaces all events.
void detect_events_lockout(session_state& session);

// What a feature routine makes of a trigger on channel c at sample t.
struct lockout_feature {
  std::int32_t channel;  // channel of the event
  std::int32_t time;     // time of the event
  bool reject;
};

// The feature routine of a row of the alignment table, window half-width in
// samples. last_time is the time returned for the last trigger of any channel.
lockout_feature find_lockout_feature(const session_state& session, std::int32_t row,
                                     std::int32_t channel, std::int32_t t, std::int32_t last_time);

}  // namespace kestrelvane

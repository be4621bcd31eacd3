// The events of a detection run, from nothing to the times that are kept.
//
// Whoever detects begins with clear_detected_events, and ends with keep_detected_times once
// the clean-up is over: a later alignment that is taken back returns to those times.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// No events, no clusters, no pair lists, no proto-event marks.
void clear_detected_events(session_state& session);

// Copies every event_time to event_detected_time.
void keep_detected_times(session_state& session);

}  // namespace kestrelvane

// The detection run: from samples to a clean event table.
//
// What the "Start" button of event detection does on its worker, and the parts of
// it that Autosort shares.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// The whole run: words, detector, clean-up. Interrupted or cut short, the events
// found so far stand and detection_incomplete is set. False when proto-event
// storage could not be had, or the high pass that it offers first did not come to its end.
bool run_detection(session_state& session);

// What closing the dialog checks: a box when detection was incomplete, otherwise
// the range of every event time.
void check_detected_events(session_state& session);

}  // namespace kestrelvane

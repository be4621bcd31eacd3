// Whether a recording still holds the slow waves of the field potential.
//
// They are many times larger than spikes and stand in the noise that thresholds are multiples
// of, so that a recording taken in broad band hides its spikes until it is high passed.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// The part of the power that lies below 300 Hz, 0 to 1: the median over at most 16 channels
// that take part, of some seconds spread over the recording. An offset counts as no power. 0
// where nothing can be said: in event-based recordings, whose stretches are spikes, below 5 kHz,
// where there are none, and of channels without any voltage.
double slow_power_share(const session_state& session);

// That part is the larger one.
bool looks_unfiltered(const session_state& session);

}  // namespace kestrelvane

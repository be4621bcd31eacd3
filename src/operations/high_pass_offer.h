// The offer to take out slow waves before spikes are looked for.
//
// Detection and Autosort begin with it. It is made once per recording, and only where the
// recording looks unfiltered (signal/slow_waves.h).
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// Asks, and high passes at 0.5 kHz on Yes. False when the filter was stopped or had no memory:
// the run that was to follow should end.
bool offer_high_pass(session_state& session);

// The high pass itself, as settings of a chain.
void set_offered_high_pass(filter_settings& filter);

// "NAME looks unfiltered: ", for whoever asks in other words.
std::string unfiltered_words(const session_state& session);

}  // namespace kestrelvane

// What a sort cleans before it looks for events, by the settings of cleaning_settings.
//
// Bad channels are masked, noise that all channels share is taken out, artefacts are blanked, with
// fewer than eight channels on each by itself, and channels follow the tissue where it moves along
// the probe; each is told with what was found. Channels that an earlier run has masked are in use
// again before, so that a run depends on no other; samples, though, stay as filters, blanking and
// movement leave them.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// Nothing on a recording of spikes alone. Where a preset is in force that leaves a step out
// which the recording could do with, the user is asked. False when a step was stopped: the run
// that was to follow should end.
bool clean_recording(session_state& session);

}  // namespace kestrelvane

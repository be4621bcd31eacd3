// The template pass: spikes reclaimed by the waveforms of the units that a sort has found.
//
// Detection by a threshold misses the spikes that stand little above the noise, and those that
// lie on one another; clustering can only sort what was detected. The pass goes through the
// recording once more, in segments of some seconds: each unit's matched filter finds its spikes,
// overlapping ones are peeled off one after the other (spike_matching.h), and the units follow
// their own waveforms as these move (tracked_units.h). At the end the spikes found are the
// events, and a unit that turned out to be noise, the shadow or the sum of others, or a piece of
// another is none any more.
//
// The sort is changed at the end and at once: an interrupted pass leaves it as it was. The same
// bits at any thread count.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

enum class template_pass_end {
  done,
  interrupted,   // nothing was changed
  not_possible,  // no continuous recording, no clusters, or no unit to follow; told in the log
};

template_pass_end run_template_pass(session_state& session);

}  // namespace kestrelvane

// The quality of units kept over the edits of a review: after each, only what has changed is
// measured again.
//
// What is kept is known by the spikes that a unit and its neighbours have, and not by its number,
// which most edits change; so an undo finds what there was. All is as if it had been measured anew,
// but for the last bits where neighbours have only changed numbers.
// Everything is forgotten when the recording, the spike window or the settings of quality are
// others. For one thread at a time: the worker.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "analysis/unit_quality.h"
#include "session/session_state.h"

namespace kestrelvane {

struct kept_figures {
  unit_quality quality;
  std::uint64_t nearest = 0;  // fingerprint of the nearest unit's spikes; 0: none
};

struct kept_quality {
  std::map<std::uint64_t, kept_figures> of;  // by fingerprint of the unit and its neighbours
  std::uint64_t circumstances = 0;
  std::int32_t n_measured = 0;  // units, by the last call
};

// The figures of all units, in their order. Empty when it was interrupted, or while templates are
// those of another window.
std::vector<unit_quality> renew_quality(const session_state& session, kept_quality& kept);

}  // namespace kestrelvane

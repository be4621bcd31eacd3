// Mixed units: two neurons that a sort took for one.
//
// Near each other and alike, two neurons may go into one cluster; and a neuron that has no cluster
// of its own is matched by its neighbour's template. When the sweep is over, the spikes of a unit
// are looked at once more, each with all others taken out and in the noise of its channels: where
// they fall into two groups with next to nothing between them, whose waveforms would not have been
// joined and whose times are neither those of a burst nor those of a movement, they are two units.
// So they are where small spikes make no groups, but from one moment on stand in another place than
// before while the tissue does not move.
#pragma once

#include <cstdint>
#include <vector>

#include "sorting/tracked_units.h"

namespace kestrelvane {

// All spikes that were matched, as one list, and the shapes that they are taken out by.
struct spike_crowd {
  matching_set set;                 // only the filters
  std::vector<found_spike> spikes;  // ascending; unit: from 0
};
spike_crowd make_crowd(const tracking_rules& rules, const std::vector<tracked_unit>& units);

struct mixture {
  std::vector<bool> second;  // by spike of the unit
  double apart = 0;          // of the groups' centres, over the spread of both
  double distance = 0;       // squared, of their waveforms in noise
};
// Whether a unit is two.
bool find_mixture(const session_state& session, const noise_covariance& noise,
                  const tracking_rules& rules, const spike_crowd& crowd,
                  const std::vector<tracked_unit>& units, std::int32_t unit, mixture& found);

// The second group leaves a unit, which is `rest` afterwards, as a unit of its own.
tracked_unit take_second(const session_state& session, const noise_covariance& noise,
                         const tracking_rules& rules, const spike_crowd& crowd, std::int32_t unit,
                         const mixture& found, tracked_unit& rest);

}  // namespace kestrelvane

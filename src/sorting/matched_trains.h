// Matched trains: what becomes of a unit's spikes when the sweep is over.
//
// A unit keeps the spikes that stand apart from what noise and neighbours give its filter, and
// goes when there are none to speak of, when its spikes are those of a stronger unit, or when its
// waveform is the sum of two others'. Each routine tells in one clause what it did and why.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sorting/tracked_units.h"

namespace kestrelvane {

// The lower end of a unit's spikes among its scores: a histogram of score over energy is cut at
// its lowest point below the mode.
struct score_cut {
  double ratio = 0;   // spikes below go; 0: none do
  double valley = 0;  // count at the cut over that at the mode
};
score_cut find_cut(const tracked_unit& unit, double least_ratio);

// Cuts a unit's spikes; why it is none, or an empty text.
std::string trim_unit(const session_state& session, const noise_covariance& noise,
                      const tracking_rules& rules, double largest_valley, tracked_unit& unit);

// The stronger unit whose spikes most of this unit's are locked to; -1: none.
std::int32_t find_shadow(const tracking_rules& rules, const std::vector<tracked_unit>& units,
                         std::int32_t unit, double sampling_frequency);

// By spike of a unit, whether it is what a stronger unit's spike leaves when that is taken out:
// such spikes come at one lag to a tenth of a millisecond, and far more often there than at lags
// near it, which no two neurons do.
std::vector<char> find_leftovers(const tracking_rules& rules,
                                 const std::vector<tracked_unit>& units, std::int32_t unit);

// Two units whose sum is this unit's shape; false when there are none.
bool find_sum(const tracking_rules& rules, const std::vector<tracked_unit>& units,
              std::int64_t n_samples, std::int32_t unit, std::int32_t& first, std::int32_t& second);

// Leaves of two spikes of a unit within 0.5 ms the one with the larger gain.
void remove_doubles(const tracking_rules& rules, std::vector<tracked_spike>& spikes);

}  // namespace kestrelvane

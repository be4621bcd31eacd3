// How the height of a spike depends on the interval before it.
//
// A neuron that has just fired is smaller; one whose height follows the spikes of another unit
// is probably the same neuron. Heights are those of the samples themselves, peak to peak on the
// centre channel of the unit within the template window, µV. Plain numbers; reading only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "analysis/graph_data.h"
#include "session/session_state.h"

namespace kestrelvane {

struct interval_heights {
  std::int32_t a = 0, b = 0;  // heights of a, after the last spike of b; equal within a unit
  std::int32_t n_spikes = 0;  // of a
  float dt_ms = 0;            // what the test calls short: below it
  // Points with an interval of at most the longest asked for, in order of time.
  std::vector<float> ms, uv;
  std::int32_t n_short = 0;  // points below dt_ms
  // Student's t test, two-sided and of equal variances: the heights after short intervals
  // against the others. 1 where either side has no two points, or nothing varies.
  float p_value = 1;
};
// dt_ms 0: the median of the intervals, so that either side of the test has half of the points. A
// sum of heights of 0 is logged. Empty for numbers that are no clusters.
interval_heights measure_interval_heights(const session_state& session, std::int32_t a,
                                          std::int32_t b, float longest_ms, float dt_ms = 0);
// Longest interval that is shown unless another is asked for: bursts are shorter, and what comes
// later has recovered.
constexpr float interval_heights_reach_ms = 200;

// "ISI dependence Unit 3", "ISI co-dependence": height against interval, a point each, and a line
// through the means of 51 points that are neighbours by their interval.
std::string interval_heights_title(const interval_heights& result);
graph_data make_interval_heights_graph(const interval_heights& result);

}  // namespace kestrelvane

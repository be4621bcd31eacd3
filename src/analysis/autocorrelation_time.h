// The autocorrelogram of a unit against time: drift of its firing, its refractory period and lost
// stretches at a glance.
//
// The recording is cut into windows of equal length; each has the autocorrelogram of the spikes
// whose first one of a pair lies in it, one side, as spikes per second after a spike. Times as in
// correlograms.h. Reading only.
#pragma once

#include <cstdint>
#include <vector>

#include "analysis/graph_data.h"
#include "session/session_state.h"

namespace kestrelvane {

struct autocorrelation_time {
  std::int32_t unit = 0;  // 0: no cluster
  float bin_ms = 0;
  std::int32_t n_lags = 0, n_windows = 0;
  double window_s = 0;
  std::vector<std::int32_t> spikes;  // of each window
  // Pairs, window by window: of lag bin l (from l to l + 1 widths) at w * n_lags + l.
  std::vector<std::int32_t> pairs;

  double rate(std::int32_t window) const {  // spikes per second
    return window_s > 0 ? spikes[window] / window_s : 0;
  }
  // Spikes per second so long after a spike; 0 in a window without spikes.
  double conditional_rate(std::int32_t window, std::int32_t lag) const;
};

// 60 windows, or as many as have 5 s each in a recording of less than 5 min; 60 lags.
autocorrelation_time measure_autocorrelation_time(const session_state& session, std::int32_t unit,
                                                  float bin_ms);

// The correlograms' width, but of 0.5 to 2 ms: narrower bins hold next to nothing in a window of
// seconds, wider ones reach over seconds, in which a quick unit has too many pairs for a turn.
float autocorrelation_time_bin(const session_state& session);

// An image of lag against time, darker where the unit fires less; above it its rate as a line, 0 at
// the image's upper edge.
graph_data make_autocorrelation_time_graph(const autocorrelation_time& result);

}  // namespace kestrelvane

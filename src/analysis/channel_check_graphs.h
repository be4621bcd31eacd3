// The two graphs of the channel check: how far each channel deviates, and correlation against
// distance with the fitted curve.
#pragma once

#include <cstdint>

#include "analysis/graph_data.h"
#include "signal/channel_check.h"

namespace kestrelvane {

// "single channel net deviations": a point per channel that was checked, in z-scores; masked ones
// as rings. With numbers each has its own beside it.
graph_data make_deviation_graph(const session_state& session, const channel_check& check,
                                bool with_numbers);

// "correlation vs distance": a point per pair in use and the curve; with a channel other than 0 its
// pairs alone.
graph_data make_distance_graph(const session_state& session, const channel_check& check,
                               bool use_masked, std::int32_t channel);

}  // namespace kestrelvane

// Filters that work sample by sample: means, smoothing, compression.
//
// Each rewrites vd in place, in two-byte bits, and logs when it is done; the history is
// the chain's. Threads share out channels or stretches of time, and the result does not
// depend on them. A step returns false when it could not have its work arrays; nothing
// has changed then.
#pragma once

#include <cstdint>

#include "session/session_state.h"
#include "signal/filter_progress.h"

namespace kestrelvane {

// Mean of a channel in bits, over about 10,000 of its samples.
double channel_mean(const session_state& session, std::int32_t channel);

// Takes the mean of each channel out of it, masked channels included. Sets means_zeroed.
void zero_channel_means(session_state& session, filter_progress& progress);

// Takes the mean over the unmasked channels out of each of them, at every sample. Sets
// common_mean_removed.
void remove_common_mean(session_state& session, filter_progress& progress);

// Weighs every unmasked channel with those within three radii, by a Gaussian of
// smooth_radius_um.
void spatial_smooth(session_state& session, filter_progress& progress);

// 1:2:1 over time on unmasked channels, in two-byte arithmetic. Each term is rounded by
// itself; the sum of the outer two wraps. Runs on into the spare samples after the
// recording. Sets temporal_smoothed.
void temporal_smooth(session_state& session, filter_progress& progress);

// Makes large voltages smaller: y = 3u / (3 + |u|), u in units of compressive_75pct_uv.
void compressive_transform(session_state& session, filter_progress& progress);

}  // namespace kestrelvane

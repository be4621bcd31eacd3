// Alignment score: how well an event is held in its place by the template of its cluster.
//
// The rms fit of realignment is bent the more sharply at its best offset, the more of the
// template the event has; noise leaves it flat. q is that bend (rms_fit_sharpness) and m the
// mean square of the template over its channels, which takes the size of the unit out:
//   score = 5 (2 - 1.14 m^(1/8) + log10 q), 0 where q is 0.
// The higher the better; below 2 to 3 an event hardly belongs.
//
// The formula is not free of the scale of the recording: by itself it gives the same spikes 2 to
// 2.5 more at 1 µV a bit than at 0.25, and 0.6 less at 0.195. So m and q are taken in bits of
// 0.25 µV, whatever the recording's are; there a threshold of 2 to 3 separates. On recordings
// with known units, at 0.195, 0.25 and 1 µV a bit alike, 5 per cent of a cluster's own events lie
// below 3.9 to 7.7, and a threshold of 2.5 leaves out at most 1 own event in 2,000 and 9 random
// times in 10.
#pragma once

#include <cstdint>
#include <vector>

#include "review/event_blocks.h"
#include "session/session_state.h"

namespace kestrelvane {

// Both in bits of 0.25 µV.
float alignment_score(float mean_square, float sharpness);

// Mean square of the template over all points of its channels, in bits of 0.25 µV. 0 for a
// template without channels.
float template_mean_square(const session_state& session, std::int32_t cluster);

// Scores of events (event numbers) against the template of a cluster, in the order of the list.
// False when the user has interrupted.
bool measure_alignment(const session_state& session, std::int32_t cluster,
                       const std::vector<std::int32_t>& list, std::vector<float>& scores,
                       block_meter meters = block_meter::moves);

}  // namespace kestrelvane

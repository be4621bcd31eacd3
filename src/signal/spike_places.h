// Where along the probe spikes arise, one by one: what tells how the tissue moves.
//
// A spike is looked for without clustering: where a channel stands far out of its noise, more
// than its neighbours. Its depth is that of the point source that fits its heights on the channels
// round it best, heights falling with the square of the distance, as they do between close by
// and far from a cell (Gold, Henze, Koch & Buzsaki, J. Neurophysiol. 95, 2006). A centre of gravity
// will not do: it is drawn to where channels are, and finds two thirds of a movement.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

constexpr float place_level = 6;      // times the noise of the channel, of either sign
constexpr double place_ms = 0.3;      // ms to either side that heights are told from
constexpr float place_apart_um = 60;  // µm within which the spike is largest on its channel
constexpr float place_reach_um = 90;  // µm of the channels that its depth is told from

struct spike_place {
  std::int32_t time;  // time index
  float depth;        // µm, as chan_y
  float height;       // times the noise of its channel
  float across;       // µm, as chan_x
};

// Whether a channel is read: not masked, and with a noise to measure heights by.
bool is_in_use(const recording_store& recording, std::int32_t channel);

// Of all channels in use, by time, then depth; by chan_noise, which must be that of the samples.
// The same bits at any thread count.
std::vector<spike_place> find_spike_places(const session_state& session);

// The same spikes, the tissue being known to be ways[i] µm up at the time of spike i: placed by
// what sites would read had it stayed at home, and then taken up again.
std::vector<spike_place> place_again(const session_state& session,
                                     const std::vector<spike_place>& spikes,
                                     const std::vector<std::int32_t>& ways);

}  // namespace kestrelvane

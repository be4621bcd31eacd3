// What is wrong with channels beyond their spikes: noise of their own, and noise that they share.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// A channel is bad whose noise is that much above or below the median of the channels in use.
// Noisy ones are detected on for their noise alone; dead ones put spikes of their neighbours
// next to none.
constexpr float bad_above = 2.5f, bad_below = 0.3f;
constexpr std::int32_t bad_channels_of = 8;  // channels in use, from which on a median tells

struct bad_channel {
  std::int32_t channel;
  float ratio;  // its noise over the median
};
// By chan_noise, ascending; none with fewer channels in use.
std::vector<bad_channel> find_bad_channels(const session_state& session);

// Noise common to all channels, from which on taking their mean out is worth what it costs.
// Tissue without hum or a loose reference has 0 to 0.5.
constexpr double common_noise_limit = 0.65;
constexpr std::int32_t common_noise_of = 16;  // channels in use; the mean of fewer is spikes

// The noise of the median over channels of voltage over noise, so 1 where all channels are
// the same and about 1.25 over the root of their number where none shares anything; spikes are
// in few channels at a time and do not show. 0 with fewer channels in use.
double common_noise(const session_state& session);

}  // namespace kestrelvane

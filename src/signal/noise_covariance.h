// Noise covariance: how the noise of near channels goes together, over time.
//
// What a filter for a known waveform needs to know of its background (a matched filter in
// coloured noise: Turin, IRE Trans. Inf. Theory 6, 1960; for spikes: Pouzat, Mazor &
// Laurent, J. Neurosci. Methods 122, 2002). Everything is in units of each channel's own
// noise, so that the covariance of a channel with itself is 1 at lag 0.
//
// Measured over a few stretches of the recording, from samples that are no part of a spike:
// a sample is left out within noise_guard_ms of one that exceeds noise_clip times the
// channel's noise, and so is a stretch without data.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

constexpr std::int32_t noise_stretches = 12;
constexpr std::int32_t noise_stretch_samples = 4096;
constexpr float noise_clip = 4.0f;             // times the channel's noise
constexpr float noise_guard_ms = 1.0f;         // before and after a sample that was clipped
constexpr float noise_covariance_um = 220.0f;  // channels further apart count as independent

// The lags -(points - 1) .. points - 1 of one pair of channels; a pair has them in both orders.
struct noise_covariance {
  std::int32_t points = 0;
  std::int32_t n_channels = 0;
  std::vector<float> sigma;         // bits, element c of channel c; 0: no noise, of no use
  std::vector<std::int32_t> place;  // of a pair among the lags; -1: taken for independent
  std::vector<float> lags;

  // Element k + points - 1 is the mean of x_i(t) x_j(t + k). Null where the channels are far
  // apart. As many more elements as a row of lanes may be read behind the last.
  const float* of(std::int32_t i, std::int32_t j) const {
    const std::int32_t at =
        place[static_cast<std::size_t>(i - 1) * static_cast<std::size_t>(n_channels) +
              static_cast<std::size_t>(j - 1)];
    return at < 0 ? nullptr : lags.data() + static_cast<std::size_t>(at) * stride();
  }
  std::size_t stride() const { return 2 * static_cast<std::size_t>(points) + 30; }
};

// Of all channels that are not masked, for lags below points. chan_noise must be up to date.
// The same bits at any thread count.
noise_covariance measure_noise_covariance(const session_state& session, std::int32_t points);

}  // namespace kestrelvane

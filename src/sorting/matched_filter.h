// Matched filters: a unit's mean waveform, and the filter that finds it in its noise.
//
// The output of the filter at a sample is the score of the unit there. Its expected value for a
// spike of amplitude 1 is the unit's energy E, which is also the variance that noise gives it: so
// sqrt(E) tells how far a spike stands out of the noise (Turin, IRE Trans. Inf. Theory 6, 1960).
//
// Voltages are in units of each channel's noise (signal/noise_covariance.h). A shape is sampled
// at `points` samples, the aligned time at sample `before`, counted from 0. Reentrant.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"
#include "signal/noise_covariance.h"

namespace kestrelvane {

// A spike lies at time + phase / match_phases, phase -match_phases/2 .. match_phases/2.
constexpr std::int32_t match_phases = 8;
constexpr std::int32_t match_half_phases = match_phases / 2;
// Components that a filter is cut to: each costs one pass over the channels and one over time.
constexpr std::int32_t filter_rank = 3;

// What the search asks of a spike; from the settings.
struct match_limits {
  float threshold = 16;        // least gain
  float amplitude_sd = 0.15f;  // of the spikes of a unit, which has 1
  float least_amplitude = 0.65f, largest_amplitude = 1.6f;
  // The least amplitude of a unit: what stands far out of the noise at half of its size is
  // believed.
  float least_amplitude_of(double energy) const;
  float prior() const { return 1.0f / (amplitude_sd * amplitude_sd); }
};

struct match_window {
  std::int32_t before = 0, points = 0;  // samples
};
// 0.8 ms before the aligned time and 1.2 ms after it.
match_window window_for_matching(const session_state& session);

// Mean waveform of a unit on some channels, channel after channel.
struct spike_shape {
  std::vector<std::int32_t> channels;  // session channels, ascending
  std::vector<float> values;           // channels x points
  float count = 0;                     // spikes that the mean is worth

  float* row(std::size_t i, std::int32_t points) {
    return values.data() + i * static_cast<std::size_t>(points);
  }
  const float* row(std::size_t i, std::int32_t points) const {
    return values.data() + i * static_cast<std::size_t>(points);
  }
  // Of a session channel; null when the shape does not have it.
  const float* find(std::int32_t channel, std::int32_t points) const;
};

// A unit as the search uses it.
struct unit_filter {
  std::int32_t main_channel = 0;
  float peak = 0;     // largest |value| of the shape
  double energy = 0;  // E, the squared detectability: expected score of a spike of amplitude 1
  std::vector<std::int32_t> channels;    // that the filter reads, ascending
  std::vector<float> weights;            // W as solved, channels x points, before the cut in rank
  std::vector<float> spatial, temporal;  // filter_rank x channels, filter_rank x points
  std::vector<std::int32_t> subtracted;  // channels that a spike is taken out of, ascending
  std::vector<float> phases;  // phase -half .. half: the shape there, subtracted x points
  float square = 0;           // sum of squares of the shape on these channels
  float least_score = 0;      // score at which the gain is 0
  float least_amplitude = 0;

  const float* at_phase(std::int32_t phase, std::int32_t points) const {
    return phases.data() + static_cast<std::size_t>(phase + match_half_phases) * subtracted.size() *
                               static_cast<std::size_t>(points);
  }
};

// out[q] = x at q + phase / match_phases, q = 0 .. n - 1; x has phase_taps samples to read on
// either side.
constexpr std::int32_t phase_taps = 8;
void shift_by_phase(const float* x, std::int32_t phase, std::int32_t n, float* out);

// out = S v: what a filter with weights v makes of noise. channels x points; the diagonal holds
// filter_ridge more than the noise, so that a direction which the noise leaves empty does not win.
constexpr float filter_ridge = 0.1f;
void multiply_by_noise(const noise_covariance& noise, const std::vector<std::int32_t>& channels,
                       const std::vector<float>& v, std::vector<float>& out);
// Solves S W = T by conjugate gradients (Hestenes & Stiefel, J. Res. NBS 49, 1952) from the W
// handed in, which may be empty. 64 bits of matrix would be 4 MB for each list of channels.
void solve_noise(const noise_covariance& noise, const std::vector<std::int32_t>& channels,
                 const std::vector<float>& shape, std::vector<float>& weights);

// Fills all of a filter from its shape, with the channels chosen already. weights may hold an
// earlier solution for the same channels.
void make_filter(const noise_covariance& noise, const spike_shape& shape, match_window window,
                 const match_limits& limits, unit_filter& filter);

// The score of one unit at samples 0 .. n - 1 of a stretch: x[i] points at sample 0 of its i-th
// channel and has `before` samples in front and the rest of the window behind. The plain order of
// sums: component by component, and in each channel by channel, then point by point.
void score_stretch(const unit_filter& filter, match_window window,
                   const std::vector<const float*>& x, std::int32_t n, float* out);

}  // namespace kestrelvane

// Tracked units: the clusters of a sort as the template pass follows them through a recording.
//
// A unit comes in with the mean of its first spikes, follows its own waveform from segment to
// segment, as tissue and electrode move against each other, and ends when it does not stand out
// of the noise any more or turns out to be another unit. Voltages are in units of each channel's
// noise; times are samples.
#pragma once

#include <cstdint>
#include <vector>

#include "sorting/spike_matching.h"

namespace kestrelvane {

enum class unit_stage { waiting, active, ended, joined };

// A spike of a unit, and what the filter of that time said of it.
struct tracked_spike {
  std::int32_t time = 0, phase = 0;
  std::int32_t channel = 0;  // main channel of its unit at the time
  std::int32_t segment = 0;  // from 0
  float amplitude = 0, gain = 0;
  float ratio = 0;  // score over energy
};

struct tracked_unit {
  std::int32_t cluster = 0;    // of the sort before
  std::int32_t joined_to = 0;  // unit from 0, when joined
  unit_stage stage = unit_stage::waiting;
  std::vector<std::int32_t> train;  // times as the sort left them, ascending
  spike_shape first, shape, recent;
  unit_filter filter;
  std::vector<tracked_spike> spikes;
  double energy_sum = 0;      // of its spikes' energies
  std::vector<float> depths;  // along the probe, µm, of each segment with enough spikes; else NaN
  std::int32_t first_segment = 0;

  double mean_energy() const {
    return spikes.empty() ? filter.energy : energy_sum / static_cast<double>(spikes.size());
  }
};

// Times of its spikes, samples, ascending.
std::vector<std::int32_t> spike_times(const tracked_unit& unit);

// What the pass works with; from the settings, the recording and the noise.
struct tracking_rules {
  match_window window;
  match_limits limits;
  float radius_um = 110;          // channels of a filter, round the main channel
  double least_energy = 30;       // below it a unit ends
  std::int32_t segment = 0;       // samples
  std::int32_t near_samples = 0;  // 30 s
  std::int32_t half_ms = 0;       // samples of 0.5 ms
};

// Brings a waiting unit in when it has spikes enough near the segment: its shape, channels and
// filter. Where the mean of them is weak and some are a stronger unit, it starts from those.
// Returns whether it did.
bool start_unit(const session_state& session, const noise_covariance& noise,
                const tracking_rules& rules, std::int64_t first, tracked_unit& unit);

// Chooses channels anew from the shape and solves the filter.
void renew_filter(const session_state& session, const noise_covariance& noise,
                  const tracking_rules& rules, tracked_unit& unit);

// The mean waveform of spikes at their own times, others taken out: `spikes` are all of the
// segment, ascending, `chosen` places among them, `set` the shapes that the others have.
spike_shape mean_without_others(const session_state& session, const noise_covariance& noise,
                                const matching_set& set, const std::vector<found_spike>& spikes,
                                const std::vector<std::int32_t>& chosen,
                                const std::vector<std::int32_t>& channels);
// At most so many of them, evenly over all.
std::vector<tracked_spike> evenly(const std::vector<tracked_spike>& spikes, std::size_t limit);
// The mean at times and phases as they are, on some channels.
spike_shape mean_of_spikes(const session_state& session, const noise_covariance& noise,
                           match_window window, const std::vector<tracked_spike>& spikes,
                           const std::vector<std::int32_t>& channels);

// Lets shape and recent shape follow the spikes of a segment.
void follow_unit(const session_state& session, const noise_covariance& noise,
                 const tracking_rules& rules, const matching_set& set,
                 const std::vector<found_spike>& spikes, std::int32_t place, tracked_unit& unit);

// Where a shape lies along the probe, µm: centre of its squared peaks.
float shape_depth(const session_state& session, const spike_shape& shape, std::int32_t points);

// ---------------------------------------------------------------- likeness

// The sum of the squares of its values.
double square_sum(const spike_shape& shape);

struct shape_likeness {
  double similarity = 0;  // cosine at the best lag
  std::int32_t lag = 0;   // samples by which the second comes later
};
shape_likeness compare_shapes(const spike_shape& a, const spike_shape& b, std::int32_t points,
                              std::int32_t largest_lag);

// Squared distance of two shapes in the noise of some channels, at the best gain and at a shift
// near the lag: what is left of a after the best multiple of b.
struct whitened_distance {
  double square = 0;
  double gain = 0;
};
whitened_distance distance_in_noise(const noise_covariance& noise, match_window window,
                                    const spike_shape& a, const spike_shape& b, std::int32_t lag,
                                    const std::vector<std::int32_t>& channels);

// The same less its bias: means of few spikes differ by the noise that is left in them.
whitened_distance unbiased_distance(const noise_covariance& noise, match_window window,
                                    const spike_shape& a, const spike_shape& b, std::int32_t lag,
                                    const std::vector<std::int32_t>& channels);

// Whether a small shape is a multiple of a large one within the noise: spikes of one cell at two
// sizes. energy: of the large one.
bool is_multiple_of(const noise_covariance& noise, match_window window, const spike_shape& small,
                    const spike_shape& large, std::int32_t lag,
                    const std::vector<std::int32_t>& channels, double energy);

}  // namespace kestrelvane

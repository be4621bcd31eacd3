#include "signal/noise.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "numerics/parallel.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t noise_by_deviation = 1;  // any other method is the median
constexpr std::int32_t sample_limit = 10000;    // examined on one channel
constexpr std::int32_t fewest_for_median = 6;
constexpr float median_of_normal = 0.6745f;  // median of |v| of a normal variable of s.d. 1

using magnitudes = std::vector<std::uint16_t>;

std::uint16_t magnitude(std::int16_t v) {
  return static_cast<std::uint16_t>(std::abs(static_cast<std::int32_t>(v)));
}

// The element at place (n + 1) / 2 in order, found by counting: first the upper
// byte of the answer, then the lower one.
float median_magnitude(const magnitudes& values) {
  // Of an even number the lower of the two in the middle.
  std::int32_t rank = static_cast<std::int32_t>(values.size() + 1) / 2;
  if (rank == 0) return 0.0f;
  const auto pick = [&rank](const std::int32_t* counts) {
    std::int32_t bin = 0;
    while (counts[bin] < rank) rank -= counts[bin++];
    return bin;
  };
  std::int32_t upper_counts[256] = {};
  for (const std::uint16_t v : values) ++upper_counts[v >> 8];
  const std::int32_t upper = pick(upper_counts);
  std::int32_t lower_counts[256] = {};
  for (const std::uint16_t v : values) {
    if (v >> 8 == upper) ++lower_counts[v & 255];
  }
  return static_cast<float>(upper * 256 + pick(lower_counts));
}

// Sums of whole numbers, so exact at any size that fits a recording.
struct exact_sums {
  std::int64_t n = 0, sum = 0, sum_of_squares = 0;

  void add(std::int16_t v) {
    ++n;
    sum += v;
    // A square of two bytes fits four.
    sum_of_squares += std::int32_t{v} * v;
  }
  float deviation() const {
    if (n < 2) return 0.0f;
    const auto count = static_cast<double>(n);
    const auto total = static_cast<double>(sum);
    const double variance =
        (static_cast<double>(sum_of_squares) - total * total / count) / (count - 1.0);
    return static_cast<float>(std::sqrt(std::max(0.0, variance)));
  }
};

// Every so many samples, at most sample_limit of them over the recording.
std::int64_t sub_sample_step(std::int64_t n_samples) { return n_samples / sample_limit + 1; }

// The sub-sample of a channel. keep(v, t) decides on each of its samples.
template <typename Keep, typename Take>
void walk_sub_sample(const std::int16_t* v, std::int32_t n_samples, Keep&& keep, Take&& take) {
  const std::int64_t step = sub_sample_step(n_samples);
  for (std::int64_t t = 1; t <= n_samples; t += step) {
    if (keep(v, t)) take(v[t]);
  }
}

// Two zeros on end are a stretch that was blanked.
// At the last sample this looks one further, where vd has a spare sample or a spare channel.
bool is_not_blanked(const std::int16_t* v, std::int64_t t) { return v[t] != 0 || v[t + 1] != 0; }
// Stored records are padded with zeros.
bool is_not_padding(const std::int16_t* v, std::int64_t t) { return v[t] != 0; }

template <typename Keep>
float noise_by_median(const std::int16_t* v, std::int32_t n_samples, Keep&& keep) {
  magnitudes values;
  values.reserve(sample_limit);
  walk_sub_sample(v, n_samples, keep, [&](std::int16_t x) { values.push_back(magnitude(x)); });
  if (values.size() < fewest_for_median) return 0.0f;
  return median_magnitude(values) / median_of_normal;
}

// In 32-bit floats, in the order of time.
float sub_sample_deviation(const std::int16_t* v, std::int32_t n_samples) {
  float n = 0.0f, sum = 0.0f, sum_of_squares = 0.0f;
  walk_sub_sample(v, n_samples, is_not_blanked, [&](std::int16_t sample) {
    const auto x = static_cast<float>(sample);
    n += 1.0f;
    sum += x;
    sum_of_squares += x * x;
  });
  if (n < 2.0f) return 0.0f;
  // Rounding may leave a difference below zero on a channel that never moves.
  return std::sqrt(std::max(0.0f, (sum_of_squares - sum * sum / n) / (n - 1.0f)));
}

float event_deviation(const std::int16_t* v, std::int32_t n_samples) {
  exact_sums sums;
  for (std::int32_t t = 1; t <= n_samples; ++t) {
    if (v[t] != 0) sums.add(v[t]);
  }
  return sums.deviation();
}

template <typename Measure>
void measure_channels(session_state& session, Measure&& measure) {
  recording_store& r = session.recording;
  // Channels that cannot be measured keep the 0.
  r.chan_noise.clear();
  if (r.n_samples <= 0) return;
  parallel_for_dealt(threads_now(session), 1, r.n_channels, [&](std::int64_t c, std::int32_t) {
    r.chan_noise[c] = measure(r.vd.channel(static_cast<std::int32_t>(c)), r.n_samples);
  });
}

void compute_noise_continuous(session_state& session) {
  if (session.detection.noise_method == noise_by_deviation) {
    measure_channels(session, sub_sample_deviation);
  } else {
    measure_channels(session, [](const std::int16_t* v, std::int32_t n) {
      return noise_by_median(v, n, is_not_blanked);
    });
  }
}

void compute_noise_event_based(session_state& session) {
  if (session.detection.noise_method == noise_by_deviation) {
    measure_channels(session, event_deviation);
  } else {
    measure_channels(session, [](const std::int16_t* v, std::int32_t n) {
      return noise_by_median(v, n, is_not_padding);
    });
  }
}

}  // namespace

void compute_noise(session_state& session) {
  if (session.recording.is_continuous) {
    compute_noise_continuous(session);
  } else {
    compute_noise_event_based(session);
  }
}

float window_noise(const session_state& session, std::int32_t channel, std::int32_t centre_sample) {
  const recording_store& r = session.recording;
  const detection_settings& s = session.detection;
  const std::int16_t* v = r.vd.channel(channel);
  const auto half = static_cast<std::int64_t>(static_cast<float>(s.noise_window_secs) * 0.5f *
                                              static_cast<float>(r.sampling_frequency));
  const std::int64_t first = centre_sample - half;
  const std::int64_t last = std::min<std::int64_t>(centre_sample + half, r.n_samples);
  if (s.noise_method == noise_by_deviation) {
    exact_sums sums;
    for (std::int64_t t = std::max<std::int64_t>(first, 1); t <= last; ++t) sums.add(v[t]);
    return sums.deviation();
  }
  magnitudes values;
  values.reserve(sample_limit);
  // The grid hangs on the window, also where the window begins before the recording.
  const std::int64_t step = sub_sample_step(2 * half + 1);
  for (std::int64_t t = first; t <= last; t += step) {
    if (t >= 1) values.push_back(magnitude(v[t]));
  }
  return median_magnitude(values) / median_of_normal;
}

void mask_quiet_channels(session_state& session) {
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    // Noise that was not measured, 0, is below every limit.
    if (r.chan_noise[c] * r.vscale_HP < session.detection.mask_noise_below_uv) {
      r.chan_mask[c] = true;
    }
  }
}

void mask_all_channels(session_state& session, bool masked) {
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) r.chan_mask[c] = masked;
}

}  // namespace kestrelvane

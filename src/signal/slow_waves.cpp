#include "signal/slow_waves.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>
#include <vector>

namespace kestrelvane {

namespace {

constexpr double slow_hz = 300.0;        // below it a spike has next to nothing
constexpr double least_rate_hz = 5000;   // of a recording that spikes can be seen in
constexpr std::int64_t n_stretches = 8;  // of a second each
constexpr std::size_t most_channels = 16;

// A section of two poles of a low pass, and what it remembers.
struct low_pass_section {
  double gain = 0, a1 = 0, a2 = 0;
  double z1 = 0, z2 = 0;
};

// By the bilinear transform, the corner where it is meant to be.
low_pass_section make_section(double rate, double q) {
  const double k = std::tan(std::numbers::pi * slow_hz / rate);
  const double norm = 1 / (1 + k / q + k * k);
  return {k * k * norm, 2 * (k * k - 1) * norm, (1 - k / q + k * k) * norm};
}

double pass(low_pass_section& s, double x) {
  const double y = s.gain * x + s.z1;
  s.z1 = 2 * s.gain * x - s.a1 * y + s.z2;
  s.z2 = s.gain * x - s.a2 * y;
  return y;
}

struct power_sums {
  double slow = 0, all = 0;
};

void add_stretch(const std::int16_t* samples, std::int64_t n, double rate, power_sums& sums) {
  // The qualities of the two sections of a Butterworth filter with four poles.
  low_pass_section first = make_section(rate, 0.54119610014619698);
  low_pass_section second = make_section(rate, 1.3065629648763766);
  const double mean = std::accumulate(samples, samples + n, 0.0) / static_cast<double>(n);
  for (std::int64_t i = 0; i < n; ++i) {
    const double v = samples[i] - mean;
    const double low = pass(second, pass(first, v));
    sums.slow += low * low;
    sums.all += v * v;
  }
}

power_sums measure_channel(const recording_store& r, std::int32_t channel, double rate) {
  const std::int64_t length = std::min<std::int64_t>(std::llround(rate), r.n_samples);
  // Of a recording shorter than these seconds they overlap, which does no harm to a ratio.
  const std::int64_t room = r.n_samples - length;
  power_sums sums;
  for (std::int64_t k = 0; k < n_stretches; ++k) {
    add_stretch(r.vd.channel(channel) + 1 + room * k / (n_stretches - 1), length, rate, sums);
  }
  return sums;
}

std::vector<std::int32_t> choose_channels(const recording_store& r) {
  std::vector<std::int32_t> all, chosen;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) all.push_back(c);
  }
  const std::size_t n = std::min(all.size(), most_channels);
  // Evenly over the probe, whose ends may lie outside the brain.
  for (std::size_t k = 0; k < n; ++k) chosen.push_back(all[k * all.size() / n]);
  return chosen;
}

}  // namespace

double slow_power_share(const session_state& session) {
  const recording_store& r = session.recording;
  const double rate = r.sampling_frequency;
  if (!r.is_continuous || r.n_samples == 0 || rate < least_rate_hz) return 0;
  std::vector<double> shares;
  for (const std::int32_t channel : choose_channels(r)) {
    const power_sums sums = measure_channel(r, channel, rate);
    if (sums.all > 0) shares.push_back(sums.slow / sums.all);
  }
  if (shares.empty()) return 0;
  // The lower of two in the middle: in doubt nobody is asked.
  const auto middle = shares.begin() + static_cast<std::ptrdiff_t>((shares.size() - 1) / 2);
  std::nth_element(shares.begin(), middle, shares.end());
  return *middle;
}

bool looks_unfiltered(const session_state& session) { return slow_power_share(session) > 0.5; }

}  // namespace kestrelvane

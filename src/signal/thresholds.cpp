#include "signal/thresholds.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "numerics/curve_fit.h"
#include "numerics/parallel.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t highest_bin = 1000;
constexpr std::int32_t bits_per_bin = 4;
constexpr std::int32_t most_fit_iterations = 500;
// A bin belongs to the tail when the Gaussian accounts for this part of it at most.
constexpr float tail_share = 0.1f;

// Counts of one channel's voltages in bins of four bits, every fifth sample.
struct voltage_histogram {
  std::int32_t counts[2 * highest_bin + 1] = {};
  std::int32_t lowest = 0, highest = 0;  // bins hit; bin 0 always takes part

  std::int32_t& at(std::int32_t bin) { return counts[bin + highest_bin]; }
};

void count_voltages(const std::int16_t* v, std::int32_t n_samples, voltage_histogram& h) {
  if (n_samples > 100) {
    const std::int32_t n = (n_samples - 96) / 5;
    for (std::int32_t i = 0; i < n; ++i) {
      const std::int32_t sample = v[50 + std::int64_t{5} * i];
      // Rounds downwards on both sides of 0, so that all bins are four bits wide.
      const std::int32_t bin = sample >> 2;  // floor(sample / 4)
      if (sample == 0 || bin < -highest_bin || bin > highest_bin) continue;
      ++h.at(bin);
      h.lowest = std::min(h.lowest, bin);
      h.highest = std::max(h.highest, bin);
    }
  }
  // Without the zeros three of bin 0's four values are left.
  h.at(0) = static_cast<std::int32_t>(std::int64_t{h.at(0)} * 4 / 3);
}

// Where a channel's histogram leaves its Gaussian, in µV; 0: nowhere.
struct voltage_shoulders {
  curve_fit fit;
  float negative = 0.0f, positive = 0.0f;
};

voltage_shoulders find_shoulders(const recording_store& r, std::int32_t channel) {
  voltage_histogram h;
  count_voltages(r.vd.channel(channel), r.n_samples, h);
  fit_points points;
  points.fit_model = fit_gaussian;
  for (std::int32_t bin = h.lowest; bin <= h.highest; ++bin) {
    // Half a bit above the lowest voltage of the bin, and not its middle.
    points.fit_x.push_back((static_cast<float>(bits_per_bin * bin) + 0.5f) * r.vscale_HP);
    points.fit_y.push_back(static_cast<float>(h.at(bin)));
  }
  voltage_shoulders found;
  curve_fit& fit = found.fit;
  fit.n_parameters = 3;
  fit.is_free[1] = fit.is_free[2] = fit.is_free[3] = true;
  fit.p[1] = *std::max_element(points.fit_y.begin(), points.fit_y.end());
  fit.p[2] = 1.0f;
  fit.p[3] = r.chan_noise[channel] * r.vscale_HP;
  lm_fit(points, fit, most_fit_iterations);
  // The last tail bin below 0 and the first above it are the ones nearest 0.
  for (std::size_t i = 0; i < points.fit_x.size(); ++i) {
    const float x = points.fit_x[i];
    const float y = points.fit_y[i];
    // A bin that nothing fell into is no tail.
    if (!(y > 0.0f) || !(fit_value(fit_gaussian, fit.p, x) / y <= tail_share)) continue;
    if (x < 0.0f) found.negative = x;
    if (x > 0.0f && found.positive == 0.0f) found.positive = x;
  }
  return found;
}

// Gives channels without a shoulder the mean of the others'. When no channel has
// one the mean is not a number, and the thresholds of that polarity mean nothing.
bool fill_missing(std::vector<voltage_shoulders>& all, float voltage_shoulders::*side) {
  float sum = 0.0f;
  std::int32_t n = 0;
  for (const voltage_shoulders& s : all) {
    if (s.*side == 0.0f) continue;
    sum += s.*side;
    ++n;
  }
  // Nothing is missing on this side.
  if (n == static_cast<std::int32_t>(all.size())) return false;
  const float mean = sum / static_cast<float>(n);
  for (voltage_shoulders& s : all) {
    if (s.*side == 0.0f) s.*side = mean;
  }
  return true;
}

// Truncates to a threshold that a 16-bit sample can be compared with. What is not
// a number becomes a threshold that no sample reaches.
std::int32_t threshold_of(float bits, std::int32_t unreachable) {
  if (std::isnan(bits)) return unreachable;
  // One beyond what a sample can hold, on either side: a threshold that is never reached.
  return static_cast<std::int32_t>(std::clamp(bits, -32769.0f, 32768.0f));
}

std::int16_t two_bytes(float bits) {
  if (std::isnan(bits)) return 0;
  return static_cast<std::int16_t>(std::clamp(bits, -32767.0f, 32767.0f));
}

void set_both_sides(detection_state& d) {
  d.threshold_pos = std::abs(std::int32_t{d.threshold_bits});
  d.threshold_neg = -d.threshold_pos;
}

}  // namespace

void compute_auto_thresholds(session_state& session) {
  const recording_store& r = session.recording;
  detection_state& d = session.detector;
  std::vector<voltage_shoulders> all(r.n_channels);
  parallel_for_dealt(threads_now(session), 1, r.n_channels, [&](std::int64_t c, std::int32_t) {
    all[c - 1] = find_shoulders(r, static_cast<std::int32_t>(c));
  });
  // After the loop, so that lines come in the order of the channels and not of the threads.
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    const curve_fit& fit = all[c - 1].fit;
    if (fit.status == 0) continue;
    log_message(session, fmt::format("Fitting error on channel {}", c));
    log_message(session, fmt::format("{:.5g} {:.5g} {:.5g}", fit.p[1], fit.p[2], fit.p[3]));
  }
  const bool fixed_positive = fill_missing(all, &voltage_shoulders::positive);
  const bool fixed_negative = fill_missing(all, &voltage_shoulders::negative);
  log_message(session, fixed_positive || fixed_negative
                           ? "Fixing some zero values derived from voltage shoulders"
                           : "Channel thresholds");
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    const voltage_shoulders& s = all[c - 1];
    // Masked channels are fitted like the others; they are only not listed.
    if (!r.chan_mask[c]) {
      log_message(session, fmt::format("{:4} {:9.2f} {:9.2f}", c, s.negative, s.positive));
    }
    // The halves make the later cut to whole bits a rounding.
    d.auto_threshold_pos[c] = s.positive / r.vscale_HP + 0.5f;
    d.auto_threshold_neg[c] = s.negative / r.vscale_HP - 0.5f;
  }
}

void set_fixed_threshold_bits(session_state& session) {
  session.detector.threshold_bits =
      two_bytes(session.detection.fixed_threshold_uv / session.recording.vscale_HP);
}

void threshold_for_channel(session_state& session, std::int32_t channel) {
  detection_state& d = session.detector;
  switch (session.detection.threshold_mode) {
    // threshold_bits was set at the start of the pass and is the same for every channel.
    case threshold_fixed:
      set_both_sides(d);
      break;
    case threshold_variable:
      d.threshold_bits =
          two_bytes(session.detection.variable_multiplier * session.recording.chan_noise[channel]);
      set_both_sides(d);
      break;
    case threshold_automatic:
      d.threshold_pos = threshold_of(d.auto_threshold_pos[channel], 32768);
      d.threshold_neg = threshold_of(d.auto_threshold_neg[channel], -32769);
      break;
    default:
      log_message(session, "Error in threshold selection flag");
  }
}

}  // namespace kestrelvane

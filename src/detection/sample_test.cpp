#include "detection/sample_test.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "signal/noise.h"
#include "signal/thresholds.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t plateau_limit = 6;

std::int16_t negated(std::int16_t v) { return static_cast<std::int16_t>(-v); }

}  // namespace

bool is_local_peak(const std::int16_t* v) {
  // A plateau counts at its first sample.
  if (!(v[0] > v[-1])) return false;
  for (std::int32_t i = 1; i <= plateau_limit; ++i) {
    if (v[i] < v[0]) return true;
    if (v[i] > v[0]) return false;
  }
  return false;
}

bool is_local_trough(const std::int16_t* v) {
  // In two-byte arithmetic the most negative sample is its own negative.
  const std::int16_t centre = negated(v[0]);
  if (!(centre > negated(v[-1]))) return false;
  for (std::int32_t i = 1; i <= plateau_limit; ++i) {
    const std::int16_t next = negated(v[i]);
    if (next < centre) return true;
    if (next > centre) return false;
  }
  return false;
}

namespace {

bool is_extremum(const std::int16_t* v) { return is_local_peak(v) || is_local_trough(v); }

bool triggers_multiphasic(const trigger_test& test, const std::int16_t* v) {
  if (!is_extremum(v)) return false;
  // Strictly past, where the other methods take a voltage at the threshold.
  if (v[0] > test.threshold_pos) {
    for (std::int32_t i = 1; i <= test.window; ++i) {
      if (v[i] < test.threshold_neg) return true;
    }
  } else if (v[0] < test.threshold_neg) {
    // The rise after a trough need only pass 0.
    for (std::int32_t i = 1; i <= test.window; ++i) {
      if (v[i] > 0) return true;
    }
  }
  return false;
}

bool triggers_dynamic(const trigger_test& test, const std::int16_t* v) {
  if (test.masked) return false;
  if (!(v[0] >= test.threshold_pos || v[0] <= test.threshold_neg)) return false;
  if (!is_extremum(v)) return false;
  const std::int32_t range = test.threshold_pos - test.threshold_neg;
  // The far side may lie before the trigger or after it.
  for (std::int32_t i = -test.window; i <= test.window; ++i) {
    if (std::abs(std::int32_t{v[i]} - v[0]) > range) return true;
  }
  return false;
}

}  // namespace

bool sample_triggers(const trigger_test& test, const std::int16_t* v) {
  switch (test.method) {
    case method_unipolar:
      // The sign of the threshold chooses the side.
      return (test.threshold_bits > 0 ? v[0] >= test.threshold_pos : v[0] <= test.threshold_neg) &&
             is_extremum(v);
    case method_bipolar:
      return (v[0] >= test.threshold_pos || v[0] <= test.threshold_neg) && is_extremum(v);
    case method_multiphasic:
      return triggers_multiphasic(test, v);
    case method_dynamic_multiphasic:
      return triggers_dynamic(test, v);
    case method_teager: {
      const auto centre = static_cast<float>(v[0]);
      const float sides = static_cast<float>(v[-test.window]) * static_cast<float>(v[test.window]);
      return centre * centre - sides >= test.teager_threshold;
    }
    default:
      return false;
  }
}

trigger_test make_trigger_test(session_state& session, std::int32_t channel, bool set_teager) {
  threshold_for_channel(session, channel);
  // Without it the threshold of the last lockout run stays in force.
  if (set_teager && session.detection.detection_method == method_teager) {
    const auto bits = static_cast<float>(session.detector.threshold_bits);
    session.detector.teager_threshold = std::fabs(2.0f * bits * bits);
  }
  trigger_test test;
  test.method = session.detection.detection_method;
  // Held to the margin of vd, whatever a settings file says.
  test.window = std::clamp(session.detection.window_samples, 0, vd_margin - 1);
  test.threshold_pos = session.detector.threshold_pos;
  test.threshold_neg = session.detector.threshold_neg;
  test.threshold_bits = session.detector.threshold_bits;
  test.teager_threshold = session.detector.teager_threshold;
  test.masked = session.recording.chan_mask[channel];
  return test;
}

bool sample_triggers(session_state& session, std::int32_t channel, std::int32_t t) {
  return sample_triggers(make_trigger_test(session, channel, false),
                         session.recording.vd.channel(channel) + t);
}

// ---------------------------------------------------------------- whole stretches

namespace {

// A threshold that no sample reaches becomes one that the extreme reaches: the test of a block may
// say yes too often, but never no.
std::int16_t clamp_to_sample(std::int32_t threshold) {
  return static_cast<std::int16_t>(std::clamp(threshold, -32768, 32767));
}

constexpr std::int32_t block_samples = 4 * n_lanes;

// True when any of 64 samples is at or past a threshold.
KESTRELVANE_CLONES std::int64_t next_block_past(const std::int16_t* v, std::int64_t first,
                                                std::int64_t last, std::int16_t pos,
                                                std::int16_t neg) {
  typedef std::int64_t long_lanes __attribute__((vector_size(32)));
  for (; first + block_samples - 1 <= last; first += block_samples) {
    short_lanes past = {};
    for (std::int32_t b = 0; b < 4; ++b) {
      const short_lanes samples = *reinterpret_cast<const short_lanes*>(v + first + b * n_lanes);
      past |= (samples >= pos) | (samples <= neg);
    }
    const auto any = reinterpret_cast<long_lanes>(past);
    if ((any[0] | any[1] | any[2] | any[3]) != 0) return first;
  }
  return first;
}

// Triggers of one channel, in time order. Every method but Teager's needs a
// sample at or past a threshold, which nearly all blocks lack.
void scan_channel(const session_state& session, const trigger_test& test, std::int32_t channel,
                  std::int32_t first, std::int32_t last, std::vector<std::int32_t>& times) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  const bool skip_quiet_blocks = test.method != method_teager;
  const std::int16_t pos = clamp_to_sample(test.threshold_pos);
  const std::int16_t neg = clamp_to_sample(test.threshold_neg);
  std::int64_t t = first;
  while (t <= last) {
    if (skip_quiet_blocks) t = next_block_past(v, t, last, pos, neg);
    const std::int64_t end = std::min<std::int64_t>(t + block_samples - 1, last);
    for (; t <= end; ++t) {
      if (sample_triggers(test, v + t)) times.push_back(static_cast<std::int32_t>(t));
    }
  }
}

}  // namespace

void find_triggers(session_state& session, std::int32_t first, std::int32_t last, bool set_teager,
                   std::vector<trigger>& found) {
  const std::int32_t n = session.recording.n_channels;
  std::vector<trigger_test> tests(n + 1);
  std::vector<std::vector<std::int32_t>> times(n + 1);
  for (std::int32_t c = 1; c <= n; ++c) {
    if (!session.recording.chan_mask[c]) tests[c] = make_trigger_test(session, c, set_teager);
  }
  parallel_for(threads_now(session), 1, n, [&](std::int64_t c, std::int32_t) {
    if (session.recording.chan_mask[c]) return;
    scan_channel(session, tests[c], static_cast<std::int32_t>(c), first, last, times[c]);
  });
  found.clear();
  for (std::int32_t c = 1; c <= n; ++c) {
    for (const std::int32_t t : times[c]) found.push_back({t, c});
  }
  // No two triggers are equal, so that the order is the same with any number of threads.
  std::sort(found.begin(), found.end(), [](const trigger& a, const trigger& b) {
    return a.time != b.time ? a.time < b.time : a.channel < b.channel;
  });
}

bool next_stretch(session_state& session, scan_stretch& stretch) {
  const recording_store& r = session.recording;
  constexpr std::int32_t stretch_samples = 1 << 17;
  stretch.first = stretch.last + 1;
  // The last sample has no neighbour to fall to.
  const std::int32_t end = r.n_samples - 1;
  if (stretch.first > end) return false;
  stretch.last = end - stretch.first < stretch_samples ? end : stretch.first + stretch_samples - 1;
  const std::int64_t window =
      std::int64_t{session.detection.noise_window_secs} * r.sampling_frequency;
  if (session.detection.noise_static || !r.is_continuous || window < 1) return true;
  const auto number = static_cast<std::int32_t>(stretch.first / window + 1);
  stretch.last =
      // No stretch crosses a window: thresholds are those of its noise.
      static_cast<std::int32_t>(std::min<std::int64_t>(stretch.last, window * number - 1));
  if (number != stretch.noise_window) {
    stretch.noise_window = number;
    const auto centre =
        static_cast<std::int32_t>(std::min<std::int64_t>(window * number - window / 2, INT32_MAX));
    parallel_for(threads_now(session), 1, r.n_channels, [&](std::int64_t c, std::int32_t) {
      session.recording.chan_noise[c] = window_noise(session, static_cast<std::int32_t>(c), centre);
    });
  }
  return true;
}

}  // namespace kestrelvane

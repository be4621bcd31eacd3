#include "detection/event_alignment.h"

#include <algorithm>
#include <cstdlib>

#include "detection/sample_test.h"
#include "signal/interpolation.h"

namespace kestrelvane {

namespace {

// Interpolated extremum within one sample of t: the step k of the largest voltage
// (the first on ties) or of the smallest (the last on ties).
std::int32_t find_finest_step(const session_state& session, std::int32_t channel, std::int32_t t,
                              bool peak) {
  const std::int32_t reach = session.tables.depth - 1;
  std::int32_t best = -reach;
  float best_voltage = interp_voltage(session, t, channel, best);
  for (std::int32_t k = -reach + 1; k <= reach; ++k) {
    const float voltage = interp_voltage(session, t, channel, k);
    if (peak ? voltage > best_voltage : voltage <= best_voltage) {
      best = k;
      best_voltage = voltage;
    }
  }
  return best;
}

aligned_time refine_peak(const session_state& session, std::int32_t channel, std::int32_t t) {
  const std::int32_t k = find_finest_step(session, channel, t, true);
  const float offset = static_cast<float>(k) / static_cast<float>(session.tables.depth);
  if (offset < 0.0f) return {t - 1, 1.0f + offset};
  return {t, offset};
}

// Unlike a peak's, a trough's offset stays negative when it is.
aligned_time refine_trough(const session_state& session, std::int32_t channel, std::int32_t t) {
  const std::int32_t k = find_finest_step(session, channel, t, false);
  return {t, static_cast<float>(k) / static_cast<float>(session.tables.depth)};
}

// Rows 1 to 3: the highest local peak, the lowest local trough, or the larger.
aligned_time align_to_extremum(const session_state& session, std::int32_t feature,
                               std::int32_t channel, std::int32_t t, std::int32_t h) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  std::int32_t best = 0, best_height = 0;
  bool found = false, best_is_peak = false;
  for (std::int32_t i = t - h; i <= t + h; ++i) {
    const bool peak = feature != 2 && is_local_peak(v + i);
    const bool trough = feature != 1 && !peak && is_local_trough(v + i);
    if (!peak && !trough) continue;
    const std::int32_t height = feature == align_peak     ? v[i]
                                : feature == align_trough ? -v[i]
                                                          : std::abs(v[i]);
    // The first of equally high ones.
    if (found && height <= best_height) continue;
    found = true;
    best = i;
    best_height = height;
    best_is_peak = peak;
  }
  if (!found) return {t, 0.0f};
  return best_is_peak ? refine_peak(session, channel, best) : refine_trough(session, channel, best);
}

// The steepest zero crossing of adjacent samples.
aligned_time align_to_crossing(const std::int16_t* v, bool rising, std::int32_t t, std::int32_t h) {
  std::int32_t best = 0, best_step = 0;
  for (std::int32_t i = t - h; i < t + h; ++i) {
    // 0 itself belongs to the side that is left.
    const bool crosses = rising ? v[i] <= 0 && v[i + 1] >= 1 : v[i] >= 0 && v[i + 1] <= -1;
    const std::int32_t step = std::abs(v[i + 1] - v[i]);
    if (crosses && step > best_step) {
      best = i;
      best_step = step;
    }
  }
  if (best_step == 0) return {t, 0.0f};
  return {best, -static_cast<float>(v[best]) / static_cast<float>(v[best + 1] - v[best])};
}

// The steepest slope between adjacent samples.
aligned_time align_to_slope(const std::int16_t* v, bool rising, std::int32_t t, std::int32_t h) {
  std::int32_t best = t - h;
  for (std::int32_t i = t - h + 1; i < t + h; ++i) {
    const std::int32_t slope = v[i + 1] - v[i];
    const std::int32_t best_slope = v[best + 1] - v[best];
    if (rising ? slope > best_slope : slope < best_slope) best = i;
  }
  if (h < 1) return {t, 0.0f};
  // A fall is placed between its two samples, a rise on the first of them.
  return {best, rising ? 0.0f : 0.5f};
}

// The centre of gravity of squared voltage on the channel and its near
// channels.
aligned_time align_to_gravity(const session_state& session, std::int32_t channel, std::int32_t t,
                              std::int32_t h) {
  const recording_store& r = session.recording;
  float mass = 0.0f, moment = 0.0f;
  const auto add = [&](std::int32_t c) {
    const std::int16_t* v = r.vd.channel(c) + t;
    for (std::int32_t k = -h; k <= h; ++k) {
      const float square = static_cast<float>(v[k]) * static_cast<float>(v[k]);
      mass += square;
      moment += static_cast<float>(k) * square;
    }
  };
  // A masked channel weighs nothing, not even the event's own.
  if (!r.chan_mask[channel]) add(channel);
  const std::int32_t* near = r.lockout_neighbours(channel);
  for (std::int32_t i = 1; i <= near[0]; ++i) {
    if (!r.chan_mask[near[i]] && near[i] != channel) add(near[i]);
  }
  const float d = mass > 0.0f ? moment / mass : 0.0f;
  // In 32 bits: beyond 2^24 samples the time is rounded to what they hold. The fraction is that of
  // d alone: before t it is negative, though the time has been cut downwards.
  const float position = static_cast<float>(t) + d;
  return {static_cast<std::int32_t>(position),
          d - static_cast<float>(static_cast<std::int32_t>(d))};
}

}  // namespace

aligned_time align_to_feature(const session_state& session, std::int32_t feature,
                              std::int32_t channel, std::int32_t t, std::int32_t h) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  switch (feature) {
    case align_peak:
    case align_trough:
    case align_largest:
      return align_to_extremum(session, feature, channel, t, h);
    case align_rising_crossing:
    case align_falling_crossing:
      return align_to_crossing(v, feature == align_rising_crossing, t, h);
    case align_rise:
    case align_fall:
      return align_to_slope(v, feature == align_rise, t, h);
    case align_gravity:
      return align_to_gravity(session, channel, t, h);
    default:
      return {t, 0.0f};
  }
}

aligned_time align_event(const session_state& session, std::int32_t channel, std::int32_t t,
                         std::int32_t h) {
  const std::int32_t last = session.recording.n_samples;
  const aligned_time end{std::clamp(t, 1, last), 0.0f};
  // Nothing within the window, and a sample for its fraction, would lie in the recording. There are
  // no samples so far out either.
  const std::int64_t reach = std::int64_t{h} + 1;
  if (t < 1 - reach || t > last + reach) return end;
  const aligned_time aligned =
      align_to_feature(session, session.detection.align_feature, channel, t, h);
  return aligned.time >= 1 && aligned.time <= last ? aligned : end;
}

}  // namespace kestrelvane

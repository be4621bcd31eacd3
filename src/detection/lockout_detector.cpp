#include "detection/lockout_detector.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "detection/detected_events.h"
#include "detection/sample_test.h"
#include "signal/noise.h"
#include "signal/thresholds.h"

namespace kestrelvane {

namespace {

// True when the sites of two channels lie within lockout_radius_um.
bool event_within_lockout(const session_state& session, std::int32_t c1, std::int32_t c2) {
  return session.recording.distance(c2, c1) <=
         static_cast<float>(session.detection.lockout_radius_um);
}

constexpr std::int32_t look_back = 100;

// Calls visit(channel) for each unmasked neighbour of a channel until it returns
// true; returns whether one did.
template <typename Visit>
bool any_neighbour(const session_state& session, std::int32_t channel, Visit&& visit) {
  const std::int32_t* near = session.recording.lockout_neighbours(channel);
  for (std::int32_t i = 1; i <= near[0]; ++i) {
    if (!session.recording.chan_mask[near[i]] && visit(near[i])) return true;
  }
  return false;
}

std::int32_t extremum_height(std::int32_t row, std::int16_t v) {
  return row == align_peak ? v : row == align_trough ? -v : std::abs(std::int32_t{v});
}

// Rows 1 to 3: the first highest, lowest or largest sample; vetoed by a neighbour
// with a better one.
lockout_feature find_extremum(const session_state& session, std::int32_t row, std::int32_t channel,
                              std::int32_t t, std::int32_t w) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  std::int32_t best = t - w;
  for (std::int32_t i = t - w + 1; i <= t + w; ++i) {
    if (extremum_height(row, v[i]) > extremum_height(row, v[best])) best = i;
  }
  // At the end of the window it is no extremum, only the flank of one outside.
  if (best == t - w || best == t + w) return {channel, best, true};
  const std::int32_t height = extremum_height(row, v[best]);
  // Strictly better: a tie vetoes nobody.
  const bool vetoed = any_neighbour(session, channel, [&](std::int32_t other) {
    const std::int16_t* u = session.recording.vd.channel(other);
    for (std::int32_t i = t - w; i <= t + w; ++i) {
      if (extremum_height(row, u[i]) > height) return true;
    }
    return false;
  });
  return {channel, best, vetoed};
}

// Steepness of the crossing between v[i] and v[i + 1]; 0 when there is none.
std::int32_t crossing_steepness(std::int32_t row, const std::int16_t* v) {
  const bool crosses =
      row == align_rising_crossing ? v[0] <= 0 && v[1] >= 1 : v[0] >= 0 && v[1] < 0;
  return crosses ? std::abs(v[1] - v[0]) : 0;
}

// Rows 4 and 5: the steepest zero crossing. A window without any crossing keeps
// the time that the last trigger has left.
lockout_feature find_crossing(const session_state& session, std::int32_t row, std::int32_t channel,
                              std::int32_t t, std::int32_t w, std::int32_t last_time) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  std::int32_t best = last_time, steepness = 0;
  for (std::int32_t i = t - w; i <= t + w; ++i) {
    const std::int32_t step = crossing_steepness(row, v + i);
    if (step > steepness) {
      steepness = step;
      best = i;
    }
  }
  if (steepness > 0 && (best == t - w || best == t + w)) return {channel, best, true};
  // Without a crossing of its own, any crossing of a neighbour vetoes.
  const bool vetoed = any_neighbour(session, channel, [&](std::int32_t other) {
    const std::int16_t* u = session.recording.vd.channel(other);
    for (std::int32_t i = t - w; i <= t + w; ++i) {
      if (crossing_steepness(row, u + i) > steepness) return true;
    }
    return false;
  });
  return {channel, best, vetoed};
}

// Rows 6 and 7: the steepest slope over two samples. Neighbours never veto here.
lockout_feature find_slope(const session_state& session, std::int32_t row, std::int32_t channel,
                           std::int32_t t, std::int32_t w) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  std::int32_t best = t - w;
  for (std::int32_t i = t - w + 1; i <= t + w; ++i) {
    const std::int32_t slope = v[i + 1] - v[i - 1];
    const std::int32_t best_slope = v[best + 1] - v[best - 1];
    if (row == align_rise ? slope > best_slope : slope < best_slope) best = i;
  }
  return {channel, best, best == t - w || best == t + w};
}

// Row 8: the channel of most squared voltage, at its centre of gravity.
lockout_feature find_gravity(const session_state& session, std::int32_t channel, std::int32_t t,
                             std::int32_t w) {
  // Below every mass, so that the channel itself is taken even where all is flat.
  std::int64_t best_mass = -1, best_moment = 0;
  std::int32_t best_channel = channel;
  const auto weigh = [&](std::int32_t c) {
    const std::int16_t* v = session.recording.vd.channel(c) + t;
    std::int64_t mass = 0, moment = 0;
    for (std::int32_t k = -w; k <= w; ++k) {
      const std::int64_t square = std::int64_t{v[k]} * v[k];
      mass += square;
      moment += k * square;
    }
    if (mass > best_mass) {
      best_mass = mass;
      best_moment = moment;
      best_channel = c;
    }
    return false;
  };
  weigh(channel);
  any_neighbour(session, channel, weigh);
  if (best_mass == 0) return {best_channel, t, false};
  const double d = static_cast<double>(best_moment) / static_cast<double>(best_mass);
  return {best_channel, t + static_cast<std::int32_t>(std::lround(d)), false};
}

// Row 9: the time stays; the last neighbour to widen the range of voltages takes
// the event.
lockout_feature find_detection_time(const session_state& session, std::int32_t channel,
                                    std::int32_t t, std::int32_t w) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  std::int32_t at_high = t - w, at_low = t - w;
  for (std::int32_t i = t - w + 1; i <= t + w; ++i) {
    if (v[i] > v[at_high]) at_high = i;
    if (v[i] < v[at_low]) at_low = i;
  }
  const auto at_end = [&](std::int32_t i) { return i == t - w || i == t + w; };
  if (at_end(at_high) || at_end(at_low)) return {channel, t, true};
  std::int32_t owner = channel;
  std::int16_t high = v[at_high], low = v[at_low];
  any_neighbour(session, channel, [&](std::int32_t other) {
    const std::int16_t* u = session.recording.vd.channel(other);
    // The range widens as it goes, so that a neighbour must outdo all before it.
    for (std::int32_t i = t - w; i <= t + w; ++i) {
      if (u[i] > high || u[i] < low) owner = other;
      high = std::max(high, u[i]);
      low = std::min(low, u[i]);
    }
    return false;
  });
  return {owner, t, false};
}

// Half-width of the lockout window, held to what the margin of vd allows.
float lockout_samples(const session_state& session) {
  constexpr float widest = vd_margin - 50;
  return std::min(widest, static_cast<float>(session.recording.sampling_frequency) *
                              session.detection.lockout_ms / 1000.0f);
}

// True when one of the newest events is the same spike.
bool is_duplicate(const session_state& session, std::int32_t channel, std::int32_t time,
                  std::int32_t w) {
  const event_table& events = session.events;
  const std::int32_t oldest = std::max(1, events.n_events - look_back);
  for (std::int32_t e = events.n_events; e >= oldest; --e) {
    // The window and the radius themselves count as inside.
    if (std::abs(events.event_time[e] - time) <= w &&
        event_within_lockout(session, channel, events.event_channel[e])) {
      return true;
    }
  }
  return false;
}

// Adds an event; false when the table is full, after the box.
bool add_event(session_state& session, std::int32_t channel, std::int32_t time) {
  event_table& events = session.events;
  const std::int32_t e = ++events.n_events;
  // A feature may lie in the margin of the recording; the event does not.
  events.event_time[e] = std::clamp(time, 1, session.recording.n_samples);
  events.event_channel[e] = channel;
  events.event_shift[e] = 0.0f;
  events.event_cluster[e] = 0;
  if (events.n_events < event_limit) return true;
  tell(session, "Number of events exceeds max limit", "Stopping event detection");
  return false;
}

}  // namespace

lockout_feature find_lockout_feature(const session_state& session, std::int32_t row,
                                     std::int32_t channel, std::int32_t t, std::int32_t last_time) {
  const auto w = static_cast<std::int32_t>(lockout_samples(session));
  // A sample less on either side, for what looks at neighbouring samples.
  const auto narrow = static_cast<std::int32_t>(lockout_samples(session) - 1.0f);
  switch (row) {
    case align_peak:
    case align_trough:
    case align_largest:
      return find_extremum(session, row, channel, t, w);
    case align_rising_crossing:
    case align_falling_crossing:
      return find_crossing(session, row, channel, t, narrow, last_time);
    case align_rise:
    case align_fall:
      return find_slope(session, row, channel, t, narrow);
    case align_gravity:
      return find_gravity(session, channel, t, w);
    default:
      return find_detection_time(session, channel, t, w);
  }
}

void detect_events_lockout(session_state& session) {
  clear_detected_events(session);
  // Dynamic noise is measured window by window, as the scan comes to it.
  if (!session.recording.is_continuous || session.detection.noise_static) compute_noise(session);
  set_fixed_threshold_bits(session);
  const auto w = static_cast<std::int32_t>(lockout_samples(session));
  const std::int32_t row = session.detection.align_feature;
  std::int32_t last_time = 0;
  std::vector<trigger> triggers;
  scan_stretch stretch;
  bool room = true;
  while (room && next_stretch(session, stretch)) {
    find_triggers(session, stretch.first, stretch.last, true, triggers);
    for (const trigger& found : triggers) {
      const lockout_feature feature =
          find_lockout_feature(session, row, found.channel, found.time, last_time);
      // Of rejected triggers, too: a window without a crossing falls back on it.
      last_time = feature.time;
      if (feature.reject) continue;
      if (is_duplicate(session, feature.channel, feature.time, w)) continue;
      room = add_event(session, feature.channel, feature.time);
      if (!room) break;
    }
    set_progress(session, meter::detection,
                 static_cast<std::int32_t>(1000.0 * stretch.last / session.recording.n_samples),
                 1000);
    set_status(session, status_field::events_found, std::to_string(session.events.n_events));
    if (detection_interrupted(session)) {
      session.detector.detection_incomplete = true;
      break;
    }
  }
  keep_detected_times(session);
}

}  // namespace kestrelvane

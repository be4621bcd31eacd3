#include "detection/proto_events.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

#include "detection/detected_events.h"
#include "detection/event_alignment.h"
#include "detection/sample_test.h"
#include "numerics/parallel.h"
#include "signal/noise.h"
#include "signal/thresholds.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t round_limit = 500;
constexpr std::int32_t quiet_round_limit = 25;
constexpr std::int32_t merge_reach = 100;  // entries ahead that may merge
constexpr std::int32_t label_reach = 50;   // entries ahead whose labels follow
constexpr float neighbour_radius_squared = 6.25f;

// Samples of one temporal sigma.
float samples_per_sigma(const session_state& session) {
  return static_cast<float>(session.recording.sampling_frequency) * session.detection.pe_sigma_ms /
         1000.0f;
}

bool reserve_points(proto_event_table& p) {
  const std::int32_t n = p.max_proto_events;
  return p.pe_time.reserve(n) && p.pe_channel.reserve(n) && p.pe_volts.reserve(n) &&
         p.pe_x0.reserve(n) && p.pe_y0.reserve(n) && p.pe_t0.reserve(n) && p.pe_x.reserve(n) &&
         p.pe_y.reserve(n) && p.pe_t.reserve(n) && p.pe_done.reserve(n) && p.pe_label.reserve(n) &&
         p.pe_head.reserve(n) && p.pe_table.reserve(p.pe_table_limit);
}

void release_points(proto_event_table& p) {
  p.pe_time.release();
  p.pe_channel.release();
  p.pe_volts.release();
  p.pe_x0.release();
  p.pe_y0.release();
  p.pe_t0.release();
  p.pe_x.release();
  p.pe_y.release();
  p.pe_t.release();
  p.pe_done.release();
  p.pe_label.release();
  p.pe_head.release();
  p.pe_table.release();
}

}  // namespace

bool allocate_proto_events(session_state& session, proto_event_table& p) {
  // 500 triggers a second on each channel.
  const double wanted = 30000.0 * session.recording.duration_mins * session.recording.n_channels;
  // Held to a range before it becomes a whole number: no recording is too long for the cast.
  p.max_proto_events = static_cast<std::int32_t>(std::clamp(wanted + 2000.0, 5.0e7, 5.0e8));
  session.detector.pe_alloc_failed = false;
  for (std::int32_t tries = 0; tries < 3; ++tries) {
    if (tries == 0) {
      log_message(session,
                  "Allocating memory for " + std::to_string(p.max_proto_events) + " proto-events");
    } else {
      p.max_proto_events /= 2;
      log_message(session, "Reducing memory request to" + std::to_string(p.max_proto_events));
    }
    // Twenty neighbours to a point, as a mean.
    p.pe_table_limit = std::int64_t{20} * p.max_proto_events;
    if (reserve_points(p)) return true;
    release_points(p);
  }
  log_message(session, "Error allocationg memory for protoevents");
  session.detector.pe_alloc_failed = true;
  return false;
}

// ---------------------------------------------------------------- phase 1

namespace {

void add_proto_event(const session_state& session, proto_event_table& p, const trigger& found,
                     float sigma_samples) {
  const recording_store& r = session.recording;
  const std::int32_t i = ++p.n_proto_events;
  p.pe_time[i] = found.time;
  p.pe_channel[i] = static_cast<std::int16_t>(found.channel);
  p.pe_volts[i] = r.vd.channel(found.channel)[found.time];
  p.pe_x0[i] = static_cast<float>(r.chan_x[found.channel]) / session.detection.pe_sigma_um;
  p.pe_y0[i] = static_cast<float>(r.chan_y[found.channel]) / session.detection.pe_sigma_um;
  p.pe_t0[i] = static_cast<double>(found.time) / static_cast<double>(sigma_samples);
  p.pe_x[i] = p.pe_x0[i];
  p.pe_y[i] = p.pe_y0[i];
  p.pe_t[i] = p.pe_t0[i];
  p.pe_label[i] = i;
}

void stop_at_point_limit(session_state& session, proto_event_table& p) {
  log_message(session, "Max pe events reached!" + std::to_string(p.n_proto_events));
  tell(session,
       "Warning: max proto-event limit reached: it isrecommended that you repeat event detection "
       "using Spatio-temporal lockout.",
       "Incomplete event detection");
  p.n_proto_events = p.max_proto_events - 51;
  session.detector.detection_incomplete = true;
}

}  // namespace

void compile_proto_events(session_state& session, proto_event_table& p) {
  const float sigma_samples = samples_per_sigma(session);
  std::vector<trigger> triggers;
  scan_stretch stretch;
  p.n_proto_events = 0;
  while (next_stretch(session, stretch)) {
    if (detection_interrupted(session)) {
      session.detector.detection_incomplete = true;
      // This one is done with, or it would stop the clustering of what was found as well.
      session.operation.detection_interrupted = false;
      return;
    }
    find_triggers(session, stretch.first, stretch.last, false, triggers);
    for (const trigger& found : triggers) {
      add_proto_event(session, p, found, sigma_samples);
      if (p.n_proto_events >= p.max_proto_events) {
        stop_at_point_limit(session, p);
        return;
      }
    }
    const double done = static_cast<double>(stretch.last) / session.recording.n_samples;
    // Of the bar the scan has the part to 405, the table to 705, the rounds to 995.
    set_progress(session, meter::detection, 5 + static_cast<std::int32_t>(400.0 * done), 1000);
    set_status(session, status_field::events_found, std::to_string(p.n_proto_events));
  }
}

// ---------------------------------------------------------------- phase 2

namespace {

// Squared distance of the initial positions: space in 32 bits, time in 64.
double initial_distance_squared(const proto_event_table& p, std::int64_t i, std::int64_t j) {
  const float dx = p.pe_x0.base()[i] - p.pe_x0.base()[j];
  const float dy = p.pe_y0.base()[i] - p.pe_y0.base()[j];
  const double dt = p.pe_t0.base()[i] - p.pe_t0.base()[j];
  return static_cast<double>(dx * dx + dy * dy) + dt * dt;
}

void stop_at_table_limit(session_state& session, proto_event_table& p, std::int32_t i) {
  tell(session,
       "Warning: max proto-event table limit reached: it is recommended that you repeat event "
       "detection using Spatio-temporal lockout.",
       "Incomplete event detection");
  log_message(session, "Limits =" + std::to_string(p.pe_table_limit));
  session.detector.detection_incomplete = true;
  p.n_proto_events = i - 1;
}

}  // namespace

void build_proto_neighbours(session_state& session, proto_event_table& p) {
  // A bound for dense stretches, in entries and not in time.
  const std::int32_t reach = 10 * session.recording.n_channels;
  const std::int32_t n = p.n_proto_events;
  const double* t0 = p.pe_t0.base();
  constexpr double furthest = 2.5;  // in time alone; points are in order of time
  std::int64_t end = 0;             // last entry of the table in use
  std::int32_t ismax = 0;
  for (std::int32_t i = 1; i <= n; ++i) {
    std::int32_t first = i, last = i;
    while (first > 1 && i - (first - 1) <= reach && t0[i] - t0[first - 1] < furthest) --first;
    while (last < n && (last + 1) - i <= reach && t0[last + 1] - t0[i] < furthest) ++last;
    // Asked for the worst case, before anything of point i is written.
    if (end + 1 + (last - first + 1) > p.pe_table_limit) {
      stop_at_table_limit(session, p, i);
      break;
    }
    const std::int64_t head = ++end;
    for (std::int32_t j = first; j <= last; ++j) {
      if (!(initial_distance_squared(p, i, j) < neighbour_radius_squared)) continue;
      p.pe_table[++end] = j;
      ismax = std::max(ismax, std::abs(i - j));
    }
    p.pe_table[head] = static_cast<std::int32_t>(end - head);
    p.pe_head[i] = head;
    // Alone in its range it stays where it is, and is an event of its own.
    p.pe_done[i] = end - head <= 1;
    if (i % 4096 == 0) {
      set_progress(session, meter::detection, 405 + static_cast<std::int32_t>(300.0 * i / n), 1000);
    }
  }
  // Dropped points are nobody's neighbours.
  if (p.n_proto_events < n) {
    // Neighbours stand in rising order, so that the dropped ones are the last.
    for (std::int32_t i = 1; i <= p.n_proto_events; ++i) {
      std::int32_t& count = p.pe_table[p.pe_head[i]];
      while (count > 0 && p.pe_table[p.pe_head[i] + count] > p.n_proto_events) --count;
    }
  }
  if (ismax >= reach) {
    log_message(session, "upper limit of ismax was reached" + std::to_string(ismax));
  }
  log_message(session, "finished compiling table");
  log_message(session, "There were" + std::to_string(p.n_proto_events) + " protoevents");
  log_message(session, "Max index to table=" + std::to_string(end));
}

// ---------------------------------------------------------------- phase 3

namespace {

// What the rounds need beside the points themselves. Neither field changes a
// result: a point that a step leaves exactly where it was will stay there, since
// the neighbours it climbs are fixed; and two points that both stayed were
// compared before.
struct climbing_state {
  std::vector<std::int32_t> alive;  // live points in order
  std::vector<char> moved;          // in this round
  std::vector<char> settled;        // the last step left it where it was
};

// The kernel exp(-r^2) from its table; 0 beyond r^2 = 20.
float kernel(const session_state& session, double r_squared) {
  const double scaled = 500.0 * r_squared;
  return scaled < 10001.0 ? session.tables.gac_table[static_cast<std::int32_t>(scaled)] : 0.0f;
}

// Moves one point to the weighted mean of its neighbours; false when it stays.
bool climb(const session_state& session, proto_event_table& p, std::int32_t i) {
  const std::int32_t* entry = p.pe_table.base() + p.pe_head.base()[i];
  const std::int32_t count = entry[0];
  const float x = p.pe_x.base()[i], y = p.pe_y.base()[i];
  const double t = p.pe_t.base()[i];
  float sum_x = 0.0f, sum_y = 0.0f, sum_t = 0.0f, sum_w = 0.0f;
  for (std::int32_t k = 1; k <= count; ++k) {
    const std::int32_t j = entry[k];
    const float dx = p.pe_x0.base()[j] - x;
    const float dy = p.pe_y0.base()[j] - y;
    const double dt = p.pe_t0.base()[j] - t;
    const double r_squared = static_cast<double>(dx * dx + dy * dy) + dt * dt;
    // Louder triggers draw the others to them.
    const float w = kernel(session, r_squared) *
                    static_cast<float>(std::abs(std::int32_t{p.pe_volts.base()[j]}));
    sum_x += w * dx;
    sum_y += w * dy;
    sum_t += w * static_cast<float>(dt);
    sum_w += w;
  }
  const float f = session.detection.pe_step / sum_w;
  p.pe_x.base()[i] = x + f * sum_x;
  p.pe_y.base()[i] = y + f * sum_y;
  p.pe_t.base()[i] = t + static_cast<double>(f * sum_t);
  return p.pe_x.base()[i] != x || p.pe_y.base()[i] != y || p.pe_t.base()[i] != t;
}

void move_points(const session_state& session, proto_event_table& p, climbing_state& state) {
  const auto n = static_cast<std::int64_t>(state.alive.size());
  // A short list is not worth waking the other threads.
  const std::int32_t n_threads = n < 1000 ? 1 : threads_now(session);
  parallel_for(n_threads, 0, n - 1, [&](std::int64_t a, std::int32_t) {
    const std::int32_t i = state.alive[a];
    if (p.pe_done.base()[i] || state.settled[i]) {
      state.moved[i] = 0;
      return;
    }
    state.moved[i] = climb(session, p, i);
    state.settled[i] = !state.moved[i];
  });
}

bool points_meet(const proto_event_table& p, std::int32_t i, std::int32_t j) {
  const float dx = p.pe_x.base()[i] - p.pe_x.base()[j];
  const float dy = p.pe_y.base()[i] - p.pe_y.base()[j];
  const auto dt = static_cast<float>(p.pe_t.base()[i] - p.pe_t.base()[j]);
  // Half a sigma; strictly nearer.
  return dx * dx + dy * dy + dt * dt < 0.25f;
}

void merge_point(proto_event_table& p, std::int32_t i, std::int32_t j) {
  const std::int32_t old_label = p.pe_label[j];
  p.pe_head[j] = 0;
  p.pe_label[j] = p.pe_label[i];
  // Labels follow for fifty entries alone, though points up to a hundred apart may merge: what lies
  // beyond keeps the label it had.
  const std::int32_t last = std::min(i + label_reach, p.n_proto_events);
  for (std::int32_t k = i; k <= last; ++k) {
    if (p.pe_label[k] == old_label) p.pe_label[k] = p.pe_label[i];
  }
}

// Merges what has met, in order; returns how many points died. With a step of 1 a
// point stays among its neighbours, within 2.5 of where it began, so points that
// began further apart than twice that cannot meet.
std::int32_t merge_points(const session_state& session, proto_event_table& p, climbing_state& state,
                          bool compare_all) {
  const bool bounded = session.detection.pe_step == 1.0f;
  constexpr double furthest = 2 * 2.6 + 0.5;
  std::int32_t merges = 0;
  const std::size_t n = state.alive.size();
  for (std::size_t a = 0; a < n; ++a) {
    const std::int32_t i = state.alive[a];
    if (p.pe_head.base()[i] == 0) continue;
    for (std::size_t b = a + 1; b < n; ++b) {
      const std::int32_t j = state.alive[b];
      if (j - i > merge_reach) break;
      if (bounded && p.pe_t0.base()[j] - p.pe_t0.base()[i] > furthest) break;
      if (!compare_all && !state.moved[i] && !state.moved[j]) continue;
      if (p.pe_head.base()[j] == 0 || !points_meet(p, i, j)) continue;
      merge_point(p, i, j);
      ++merges;
    }
  }
  if (merges > 0) {
    std::erase_if(state.alive, [&](std::int32_t i) { return p.pe_head.base()[i] == 0; });
  }
  return merges;
}

}  // namespace

bool cluster_proto_events(session_state& session, proto_event_table& p) {
  climbing_state state;
  state.alive.resize(p.n_proto_events);
  for (std::int32_t i = 1; i <= p.n_proto_events; ++i) state.alive[i - 1] = i;
  state.moved.assign(p.n_proto_events + 1, 0);
  state.settled.assign(p.n_proto_events + 1, 0);
  std::int32_t quiet_rounds = 0;
  for (p.n_rounds = 0; p.n_rounds < round_limit && quiet_rounds < quiet_round_limit;) {
    ++p.n_rounds;
    move_points(session, p, state);
    const std::int32_t merges = merge_points(session, p, state, p.n_rounds == 1);
    quiet_rounds = merges == 0 ? quiet_rounds + 1 : 0;
    set_progress(session, meter::detection, 705 + 290 * p.n_rounds / round_limit, 1000);
    set_status(session, status_field::events_found, std::to_string(state.alive.size()));
    if (detection_interrupted(session)) {
      session.events.n_events = 0;
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------- phase 4

namespace {

// The unmasked channel whose site is nearest to a point; the lowest on ties.
std::int32_t find_nearest_channel(const session_state& session, float x, float y) {
  const recording_store& r = session.recording;
  std::int32_t nearest = 0;
  float best = 0.0f;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (r.chan_mask[c]) continue;
    const float dx = static_cast<float>(r.chan_x[c]) - x;
    const float dy = static_cast<float>(r.chan_y[c]) - y;
    const float d = dx * dx + dy * dy;
    if (nearest == 0 || d < best) {
      nearest = c;
      best = d;
    }
  }
  return nearest;
}

// The channel of the largest voltage among the points that merged into one.
std::int32_t find_loudest_channel(const proto_event_table& p, std::int32_t i) {
  std::int32_t loudest = i;
  const std::int32_t last = std::min(i + merge_reach, p.n_proto_events);
  for (std::int32_t j = i + 1; j <= last; ++j) {
    // Strictly louder: the first of equal ones.
    if (p.pe_label[j] == p.pe_label[i] &&
        std::abs(std::int32_t{p.pe_volts[j]}) > std::abs(std::int32_t{p.pe_volts[loudest]})) {
      loudest = j;
    }
  }
  return p.pe_channel[loudest];
}

}  // namespace

void make_events(session_state& session, const proto_event_table& p) {
  event_table& events = session.events;
  const detection_settings& settings = session.detection;
  const float sigma_samples = samples_per_sigma(session);
  // Held to what the margin of vd allows an interpolated read before it.
  constexpr std::int32_t widest = vd_margin - 70;
  const auto h = std::min(
      widest, static_cast<std::int32_t>(static_cast<float>(session.recording.sampling_frequency) *
                                        2.0f * settings.pe_sigma_ms / 1000.0f));
  std::vector<std::int32_t> alive;
  for (std::int32_t i = 1; i <= p.n_proto_events; ++i) {
    if (p.pe_head[i] > 0) alive.push_back(i);
  }
  // In order of time, so that it is the end of the recording that is lost.
  const bool too_many = alive.size() > static_cast<std::size_t>(event_limit);
  if (too_many) alive.resize(event_limit);
  events.n_events = static_cast<std::int32_t>(alive.size());
  parallel_for(threads_now(session), 1, events.n_events, [&](std::int64_t e, std::int32_t) {
    const std::int32_t i = alive[e - 1];
    // Cut to whole samples; the alignment below finds the fraction. Long steps may have thrown a
    // point to where no integer counts samples: it lies before them all.
    const double time = p.pe_t[i] * static_cast<double>(sigma_samples);
    const auto t = std::fabs(time) < 2147483648.0 ? static_cast<std::int32_t>(time)
                                                  : std::numeric_limits<std::int32_t>::min();
    const std::int32_t channel =
        settings.register_to_cog ? find_nearest_channel(session, p.pe_x[i] * settings.pe_sigma_um,
                                                        p.pe_y[i] * settings.pe_sigma_um)
                                 : find_loudest_channel(p, i);
    const aligned_time aligned = align_event(session, channel, t, h);
    events.event_time[e] = aligned.time;
    events.event_shift[e] = aligned.offset;
    events.event_channel[e] = channel;
    events.event_cluster[e] = 0;
  });
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (std::fabs(events.event_shift[e]) > 1.0f) {
      log_message(session, "event offset error" + std::to_string(e) + " " +
                               std::to_string(events.event_shift[e]));
    }
  }
  if (too_many) {
    log_message(session, "Warning: max events reached");
    log_message(session, "Warning: max events reached");
    session.detector.detection_incomplete = true;
  }
}

// ---------------------------------------------------------------- the run

namespace {

// Times and channels outlive the run, for the voltage record.
void keep_proto_marks(session_state& session, const proto_event_table& p) {
  detection_state& d = session.detector;
  d.n_proto_marks = std::min(p.n_proto_events, event_limit);
  for (std::int32_t i = 1; i <= d.n_proto_marks; ++i) {
    d.proto_mark_time[i] = p.pe_time[i];
    d.proto_mark_channel[i] = p.pe_channel[i];
  }
}

}  // namespace

detection_end detect_events_proto(session_state& session) {
  clear_detected_events(session);
  proto_event_table points;
  if (!allocate_proto_events(session, points)) {
    tell(session, "Not enough memory for proto-event arrays, please use STL method instead",
         "Memory error");
    return detection_end::no_memory;
  }
  if (!session.recording.is_continuous || session.detection.noise_static) compute_noise(session);
  set_fixed_threshold_bits(session);
  compile_proto_events(session, points);
  keep_proto_marks(session, points);
  if (points.n_proto_events == 0) return detection_end::done;
  build_proto_neighbours(session, points);
  if (!cluster_proto_events(session, points)) return detection_end::stopped;
  make_events(session, points);
  keep_detected_times(session);
  set_progress(session, meter::detection, 1000, 1000);
  return detection_end::done;
}

}  // namespace kestrelvane

#include "clustering/realignment.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "clustering/alignment_scores.h"
#include "clustering/deferred_templates.h"
#include "clustering/membership.h"
#include "clustering/template_sums.h"
#include "clustering/templates.h"
#include "detection/event_alignment.h"
#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "session/template_window.h"

namespace kestrelvane {

void apply_event_shift(std::int32_t& time, float& fraction, float shift) {
  // The 1000 makes the truncation a floor for shifts above -1000.
  const float raised = shift + 1000.0f;
  const auto whole = static_cast<std::int32_t>(raised);
  const float new_fraction = (raised - static_cast<float>(whole)) + fraction;
  const std::int32_t new_time = whole - 1000 + time;
  // A fraction of exactly 1 stays one.
  if (new_fraction > 1.0f) {
    time = new_time + 1;
    fraction = new_fraction - 1.0f;
  } else {
    time = new_time;
    fraction = new_fraction;
  }
}

// ---------------------------------------------------------------- one shift for all

namespace {

// The template of the centre channel, points 1..P, as the alignment modes see it.
struct template_view {
  const session_state& session;
  std::int32_t cluster;
  std::int32_t points;
  std::int32_t centre;

  const float* on(std::int32_t channel) const { return session.templates.mean(cluster, channel); }
};

// Weight of a channel by its distance from the centre channel, scale 100 µm.
float distance_weight(const template_view& view, std::int32_t channel) {
  const float d = view.session.recording.distance(view.centre, channel);
  const float argument = -(d * d) / 20000.0f;
  return static_cast<float>(std::exp(static_cast<double>(argument)));
}

std::int32_t find_extreme_point(const template_view& view, std::int32_t mode) {
  // Strictly better: the first of equal points.
  const float* t = view.on(view.centre);
  std::int32_t best = 1;
  for (std::int32_t p = 2; p <= view.points; ++p) {
    const bool better = mode == align_peak     ? t[p] > t[best]
                        : mode == align_trough ? t[p] < t[best]
                                               : std::fabs(t[p]) > std::fabs(t[best]);
    if (better) best = p;
  }
  return best;
}

// A feature position on one channel and how steep it is there; 0 when absent.
struct feature {
  float position = 0.0f;
  float steepness = 0.0f;
};

// Steepest zero crossing between first and last, rising or falling.
feature find_crossing(const float* t, std::int32_t first, std::int32_t last, std::int32_t mode) {
  feature best;
  for (std::int32_t p = first; p <= last; ++p) {
    const bool crosses = mode == align_rising_crossing ? t[p] < 0.0f && t[p + 1] >= 0.0f
                                                       : t[p] > 0.0f && t[p + 1] <= 0.0f;
    const float steepness = mode == align_rising_crossing ? t[p + 1] - t[p] : t[p] - t[p + 1];
    if (crosses && steepness > best.steepness) {
      const float inside = mode == align_rising_crossing ? -t[p] / steepness : t[p] / steepness;
      best = {static_cast<float>(p) + inside, steepness};
    }
  }
  return best;
}

// Steepest rise or fall between first and last.
feature find_slope(const float* t, std::int32_t first, std::int32_t last, std::int32_t mode) {
  feature best;
  for (std::int32_t p = first; p <= last; ++p) {
    const float steepness = mode == align_rise ? t[p + 1] - t[p] : t[p] - t[p + 1];
    if (steepness > best.steepness) best = {static_cast<float>(p), steepness};
  }
  return best;
}

// Crossings and slopes: the feature of the centre channel, refined by the peak-to-peak
// weighted mean over the assigned channels near it. 0 when there is none.
float find_feature_point(const template_view& view, std::int32_t mode) {
  const bool crossing = mode <= align_falling_crossing;
  const std::int32_t first = 2;
  const std::int32_t last = crossing ? view.points - 2 : view.points - 1;
  const auto find = [&](std::int32_t channel, std::int32_t from, std::int32_t to) {
    from = from < first ? first : from;
    to = to > last ? last : to;
    return crossing ? find_crossing(view.on(channel), from, to, mode)
                    : find_slope(view.on(channel), from, to, mode);
  };
  // The centre channel decides whether there is a feature at all.
  const feature centre = find(view.centre, first, last);
  if (!(centre.steepness > 0.0f)) return 0.0f;
  float weight = template_peak_to_peak(view.session, view.cluster, view.centre);
  float sum = centre.position * weight;
  const auto near = static_cast<std::int32_t>(centre.position);
  const std::int32_t* channels = view.session.templates.channels(view.cluster);
  // The first of the list is the centre channel, counted already.
  for (std::int32_t k = 2; k <= view.session.templates.template_n_channels[view.cluster]; ++k) {
    const feature other = find(channels[k], near - 5, near + 5);
    if (!(other.steepness > 0.0f)) continue;
    const float height = template_peak_to_peak(view.session, view.cluster, channels[k]);
    sum += other.position * height;
    weight += height;
  }
  return sum / weight;
}

// Centre of gravity of squared voltage, or of squared curvature, over the channels made; certain is
// false when the channels that are missing may tell in the last bit of it.
// 0 when the template is flat.
float find_gravity_point(const template_view& view, std::int32_t mode,
                         const partial_template& partial, bool& certain) {
  double moment = 0.0, mass = 0.0, missing = 0.0;
  // A curvature needs a neighbour on both sides.
  const std::int32_t margin = mode == align_gravity ? 0 : 1;
  for (std::int32_t channel = 1; channel <= view.session.recording.n_channels; ++channel) {
    if (!partial.made[channel]) {
      const double height = (mode == align_gravity ? 1.0 : 4.0) * double{partial.bound[channel]};
      missing += double{distance_weight(view, channel)} * view.points * height * height;
      continue;
    }
    const float* v = view.on(channel);
    const float gain = distance_weight(view, channel);
    for (std::int32_t p = 1 + margin; p <= view.points - margin; ++p) {
      const float height = mode == align_gravity ? v[p] : 2.0f * v[p] - v[p - 1] - v[p + 1];
      const double w = static_cast<double>(gain * (height * height));
      moment += w * p;
      mass += w;
    }
  }
  const float point = mass > 0.0 ? static_cast<float>(moment / mass) : 0.0f;
  if (missing > 0.0) {
    // Where the whole sums lie: each of their terms may be rounded, and what is missing is at one
    // end of the window or the other.
    const double rounding = 0x1p-52 * view.points * view.session.recording.n_channels;
    const double low = moment * (1.0 - rounding) / (mass * (1.0 + rounding) + missing);
    const double high =
        (moment * (1.0 + rounding) + missing * view.points) / (mass * (1.0 - rounding));
    certain = mass > 0.0 && static_cast<float>(low) == point && static_cast<float>(high) == point;
  }
  return point;
}

// The common shift of a template that has just been calculated, on some channels or on all.
float find_template_shift(session_state& session, std::int32_t cluster, partial_template& partial) {
  const template_view view{session, cluster, session.templates.template_points,
                           session.templates.centre_channel(cluster)};
  const std::int32_t mode = session.strategy.template_align_mode;
  float p = 0.0f;
  if (mode >= align_peak && mode <= align_largest) {
    p = static_cast<float>(find_extreme_point(view, mode));
  } else if (mode >= align_rising_crossing && mode <= align_fall) {
    p = find_feature_point(view, mode);
  } else if (mode == align_gravity || mode == align_curvature) {
    bool certain = true;
    p = find_gravity_point(view, mode, partial, certain);
    if (!certain) {
      make_whole(session, cluster, partial);
      p = find_gravity_point(view, mode, partial, certain);
    }
  }
  // No feature to align to: the events stay where they are.
  if (p == 0.0f) return 0.0f;
  return static_cast<float>(window_first_sample(session) - 1) + p;
}

// Events stay inside the recording: a move that would carry one out of it is
// not made.
bool time_in_recording(const session_state& session, std::int32_t time) {
  return time >= 1 && time <= session.recording.n_samples;
}

void shift_events(session_state& session, const std::vector<std::int32_t>& list, float x) {
  event_table& events = session.events;
  for (const std::int32_t e : list) {
    // In 32 bits: beyond 2^24 samples the time is rounded to what they hold.
    const float y = static_cast<float>(events.event_time[e]) + x + events.event_shift[e];
    const auto whole = static_cast<std::int32_t>(y);
    if (!time_in_recording(session, whole)) continue;
    events.event_time[e] = whole;
    events.event_shift[e] = y - static_cast<float>(whole);
  }
}

}  // namespace

float template_align_shift(session_state& session, std::int32_t cluster) {
  const std::int32_t mode = session.strategy.template_align_mode;
  if (mode == align_gravity || mode == align_curvature) calculate_template_values(session, cluster);
  partial_template whole{
      {}, std::vector<char>(static_cast<std::size_t>(session.recording.n_channels) + 1, 1), {}};
  return find_template_shift(session, cluster, whole);
}

void align_template(session_state& session, std::int32_t cluster) {
  const float x = template_align_shift(session, cluster);
  shift_events(session, list_cluster_events(session, cluster), x);
  calculate_template_values(session, cluster);
}

// ---------------------------------------------------------------- one event

namespace {

constexpr std::int32_t widest_realign = 50;

// The score's interior strict minima: the sharpest one (rms fit).
std::int32_t find_sharpest_minimum(const float* s, std::int32_t w) {
  std::int32_t best = -w - 1;
  float best_curvature = 0.0f;
  for (std::int32_t d = -w + 1; d <= w - 1; ++d) {
    if (!(s[d] < s[d - 1] && s[d] < s[d + 1])) continue;
    // Negative at a minimum, the more so the sharper it is.
    const float curvature = 2.0f * s[d] - s[d - 1] - s[d + 1];
    if (best < -w || curvature < best_curvature) {
      best = d;
      best_curvature = curvature;
    }
  }
  return best;
}

// The lowest interior strict minimum; without one the first global minimum, if
// that is not at an end (multiplicative fit). -w - 1 when there is none.
std::int32_t find_lowest_minimum(const float* s, std::int32_t w) {
  std::int32_t best = -w - 1;
  for (std::int32_t d = -w + 1; d <= w - 1; ++d) {
    if (!(s[d] < s[d - 1] && s[d] < s[d + 1])) continue;
    // The first of equal ones.
    if (best < -w || s[d] < s[best]) best = d;
  }
  if (best >= -w) return best;
  best = -w;
  for (std::int32_t d = -w + 1; d <= w; ++d) {
    if (s[d] < s[best]) best = d;
  }
  return best == -w || best == w ? -w - 1 : best;
}

// Moves the event to the parabola's vertex round offset d; returns the total
// shift made.
float move_to_vertex(session_state& session, std::int32_t event, const float* s, std::int32_t d) {
  event_table& events = session.events;
  const float curvature = 2.0f * s[d] - s[d - 1] - s[d + 1];
  float vertex = 0.0f;
  // A minimum without curvature has no vertex, one at the very edge only one neighbour.
  if (curvature != 0.0f && std::abs(d) < widest_realign) {
    vertex = -0.5f * (s[d - 1] - s[d + 1]) / curvature;
  }
  // The half step makes the later truncation to a table step a rounding.
  float u = vertex + 0.5f / static_cast<float>(session.tables.depth);
  if (u < 0.0f) {
    --d;
    u += 1.0f;
  } else if (u >= 1.0f) {
    ++d;
    u -= 1.0f;
  }
  // No move counts as settled, so that the repetitions end.
  if (!time_in_recording(session, events.event_time[event] + d)) return 0.0f;
  const float moved = (u - events.event_shift[event]) + static_cast<float>(d);
  events.event_shift[event] = u;
  events.event_time[event] += d;
  return moved;
}

// The assigned channels' templates gathered for a fit: every point (rms) or every
// second one (multiplicative).
alignment_target make_target(const session_state& session, std::int32_t cluster, std::int32_t w,
                             bool multiplicative) {
  alignment_target target;
  target.w = w;
  target.start = window_first_sample(session);
  target.step = multiplicative ? 2 : 1;
  target.n_points = (session.templates.template_points + target.step - 1) / target.step;
  const std::int32_t n_channels = session.templates.template_n_channels[cluster];
  const std::int32_t* channels = session.templates.channels(cluster);
  for (std::int32_t k = 1; k <= n_channels; ++k) {
    target.channels.push_back(channels[k]);
    const float* mean = session.templates.mean(cluster, channels[k]);
    for (std::int32_t i = 0; i < target.n_points; ++i) {
      target.values.push_back(mean[1 + i * target.step]);
    }
  }
  return target;
}

// The scores of all offsets, in whole lanes.
constexpr std::int32_t score_room = 2 * widest_realign + 1 + n_lanes;

float fit_event(session_state& session, const alignment_target& target, std::int32_t event,
                bool multiplicative) {
  float scores[score_room];
  float* s = scores + target.w;  // s[d] for d = -w..w
  const std::int32_t time = session.events.event_time[event];
  if (multiplicative) {
    score_products(session, target, time, scores);
  } else {
    score_differences(session, target, time, scores);
  }
  const std::int32_t d =
      multiplicative ? find_lowest_minimum(s, target.w) : find_sharpest_minimum(s, target.w);
  return d < -target.w ? 0.0f : move_to_vertex(session, event, s, d);
}

// Repeats the fit while it still moves; an event that does not settle goes back
// to its time, with the fraction of the last call.
void settle_event(session_state& session, const alignment_target& target, std::int32_t event,
                  bool multiplicative) {
  const std::int32_t old_time = session.events.event_time[event];
  std::int32_t calls = 1;
  float moved = fit_event(session, target, event, multiplicative);
  while (std::fabs(moved) > 0.1f && calls < 5) {
    moved = fit_event(session, target, event, multiplicative);
    ++calls;
  }
  if (calls == 5 || std::fabs(moved) > 0.8f) session.events.event_time[event] = old_time;
}

// times: of the events before any of them is fitted, since the event ahead may be
// another thread's, which moves it meanwhile.
KESTRELVANE_INTO_CALLER void prefetch_event(const session_state& session,
                                            const alignment_target& target,
                                            const std::vector<std::int32_t>& times,
                                            std::int64_t i) {
  if (i >= static_cast<std::int64_t>(times.size())) return;
  const std::int32_t first = times[i] + target.start - target.w;
  for (const std::int32_t channel : target.channels) {
    prefetch_samples(session.recording.vd.channel(channel) + first,
                     target.n_points * target.step + 2 * target.w);
  }
}

}  // namespace

std::int32_t realign_window_samples(const session_state& session) {
  const auto w =
      static_cast<std::int32_t>(static_cast<float>(session.recording.sampling_frequency) *
                                session.strategy.realign_window_ms / 1000.0f);
  return w > widest_realign ? widest_realign : w;
}

void align_listed_events(session_state& session, std::int32_t cluster,
                         const std::vector<std::int32_t>& list, bool multiplicative) {
  const std::int32_t w = realign_window_samples(session);
  // A window of less than a sample has no offset to try.
  if (w < 1) return;
  const alignment_target target = make_target(session, cluster, w, multiplicative);
  std::vector<std::int32_t> times(list.size());
  for (std::size_t i = 0; i < list.size(); ++i) times[i] = session.events.event_time[list[i]];
  // A short list is not worth waking the other threads.
  const std::int32_t n_threads = list.size() < 64 ? 1 : threads_now(session);
  parallel_for(n_threads, 0, static_cast<std::int64_t>(list.size()) - 1,
               [&](std::int64_t i, std::int32_t) {
                 prefetch_event(session, target, times, i + prefetch_distance);
                 settle_event(session, target, list[i], multiplicative);
               });
}

std::vector<float> rms_fit_sharpness(const session_state& session, std::int32_t cluster,
                                     const std::vector<std::int32_t>& list) {
  std::vector<float> sharpness(list.size(), 0.0f);
  const std::int32_t w = realign_window_samples(session);
  if (w < 1) return sharpness;
  const alignment_target target = make_target(session, cluster, w, false);
  const std::int32_t n_threads = list.size() < 64 ? 1 : threads_now(session);
  parallel_for(n_threads, 0, static_cast<std::int64_t>(list.size()) - 1,
               [&](std::int64_t i, std::int32_t) {
                 float scores[score_room];
                 score_differences(session, target, session.events.event_time[list[i]], scores);
                 const float* s = scores + w;
                 const std::int32_t d = find_sharpest_minimum(s, w);
                 if (d >= -w) sharpness[i] = s[d - 1] + s[d + 1] - 2.0f * s[d];
               });
  return sharpness;
}

float align_event_rms(session_state& session, std::int32_t cluster, std::int32_t event,
                      std::int32_t w) {
  return fit_event(session, make_target(session, cluster, w, false), event, false);
}

float align_event_multiplicative(session_state& session, std::int32_t cluster, std::int32_t event,
                                 std::int32_t w) {
  return fit_event(session, make_target(session, cluster, w, true), event, true);
}

void align_events(session_state& session, std::int32_t cluster, bool multiplicative) {
  align_listed_events(session, cluster, list_cluster_events(session, cluster), multiplicative);
}

// ---------------------------------------------------------------- clusters

void recalculate_cluster(session_state& session, std::int32_t cluster) {
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  if (list.empty()) return;
  // Where the weight of a channel in a centre of gravity is as good as 0.
  constexpr float weighty_um = 750.0f;
  partial_template partial = find_listed_channels(session, cluster, list, weighty_um);
  shift_events(session, list, find_template_shift(session, cluster, partial));
  // Only what the fit reads; the other channels follow below, from the final times.
  calculate_assigned_template(session, cluster, list);
  align_listed_events(session, cluster, list, session.strategy.multiplicative_matching);
  // As far as the spikes of one unit are seen; any other distance would do.
  constexpr float near_um = 100.0f;
  partial = find_listed_channels(session, cluster, list, near_um);
  calculate_template_centre(session, cluster);
  if (session.deferred != nullptr) session.deferred->owed[cluster] = std::move(partial);
}

void realign_all_clusters(session_state& session) {
  const auto begin = std::chrono::steady_clock::now();
  const std::int32_t n_threads = threads_now(session);
  const bool timing = log_timing(session);
  if (timing) {
    log_message(session,
                n_threads > 1 ? "starting threaded alignment loop" : "starting unthreaded loop");
  }
  const std::int32_t n = session.clusters.n_clusters;
  // Clusters share no event and no template, so each is done from first step to
  // last by whichever thread has it.
  parallel_for_dealt(n_threads, 1, n, [&](std::int64_t cluster, std::int32_t rank) {
    recalculate_cluster(session, static_cast<std::int32_t>(cluster));
    if (rank == 0) {
      set_progress(session, meter::clusters, static_cast<std::int32_t>(100 * cluster / n), 100);
    }
  });
  templates_are_current(session);
  if (timing) {
    const auto msecs = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - begin)
                           .count();
    log_message(session, (n_threads > 1 ? "done threaded alignment loop in "
                                        : "unthreaded alignment took ") +
                             std::to_string(msecs) + " msecs");
  }
}

void apply_template_shift(session_state& session, std::int32_t a, std::int32_t b, std::int64_t k) {
  const std::int32_t moved = session.lists.kv_n_shift_template[k];
  // Shifts belong to one of the two; anything else means lists that are out of step.
  if (moved != a && moved != b) {
    log_message(session, "Error applying template shift " + std::to_string(a) + " " +
                             std::to_string(b) + " " + std::to_string(moved));
    return;
  }
  const float shift = session.lists.rms_template_shift[k];
  event_table& events = session.events;
  for (const std::int32_t e : list_cluster_events(session, moved)) {
    std::int32_t time = events.event_time[e];
    float fraction = events.event_shift[e];
    apply_event_shift(time, fraction, shift);
    // An event that would leave the recording stays, while the others of its cluster move.
    if (!time_in_recording(session, time)) continue;
    events.event_time[e] = time;
    events.event_shift[e] = fraction;
  }
}

void realign_events(session_state& session, std::int32_t cluster) {
  const std::int32_t mode = session.strategy.event_align_mode;
  // The list names the fit itself, whatever the strategy takes for clusters.
  if (mode >= align_rms_match) {
    return align_events(session, cluster, mode == align_multiplicative_match);
  }
  const std::int32_t centre = session.templates.centre_channel(cluster);
  const std::int32_t half_window = session.templates.template_points / 2;
  for (const std::int32_t e : list_cluster_events(session, cluster)) {
    const aligned_time aligned =
        align_to_feature(session, mode, centre, session.events.event_time[e], half_window);
    if (!time_in_recording(session, aligned.time)) continue;
    session.events.event_time[e] = aligned.time;
    session.events.event_shift[e] = aligned.offset;
  }
}

void realign_all_events(session_state& session) {
  const auto begin = std::chrono::steady_clock::now();
  const std::int32_t n = session.clusters.n_clusters;
  for (std::int32_t cluster = 1; cluster <= n; ++cluster) {
    realign_events(session, cluster);
    calculate_template(session, cluster);
    set_progress(session, meter::clusters, 100 * cluster / n, 100);
  }
  const auto msecs = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::steady_clock::now() - begin)
                         .count();
  log_message(session, "Serial realign clusters took " + std::to_string(msecs) + " msecs");
}

std::int32_t check_threaded_alignment(session_state& session) {
  event_table& events = session.events;
  const std::int32_t n = events.n_events;
  const std::vector<std::int32_t> time(events.event_time.first(), events.event_time.first() + n);
  const std::vector<float> shift(events.event_shift.first(), events.event_shift.first() + n);
  const std::string count = std::to_string(n);
  log_message(session, "starting threaded realignment, n_events=" + count);
  realign_all_clusters(session);
  log_message(session, "finished threaded alignment, n_events= " + count);
  // Before the copies are put back, so that both runs start from the same times.
  const std::vector<float> first_run(events.event_shift.first(), events.event_shift.first() + n);
  std::copy(time.begin(), time.end(), events.event_time.first());
  std::copy(shift.begin(), shift.end(), events.event_shift.first());
  log_message(session, "starting threaded realignment again, n_events=" + count);
  realign_all_clusters(session);
  std::int32_t different = 0;
  for (std::int32_t e = 1; e <= n; ++e) {
    // To the bit: threads must not change a result at all.
    if (events.event_shift[e] == first_run[e - 1]) continue;
    if (++different > 500) continue;
    log_message(session, std::to_string(e) + " " + std::to_string(first_run[e - 1]) + " " +
                             std::to_string(events.event_shift[e]));
  }
  log_message(session, different == 0
                           ? "no thread difference"
                           : "thread difference for " + std::to_string(different) + " events");
  return different;
}

}  // namespace kestrelvane

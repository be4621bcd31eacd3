#include "sorting/template_pass.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <type_traits>

#include "clustering/membership.h"
#include "clustering/templates.h"
#include "numerics/parallel.h"
#include "sorting/cluster_edits.h"
#include "sorting/hand_overs.h"
#include "sorting/matched_trains.h"
#include "sorting/mixed_units.h"
#include "sorting/tracked_units.h"
#include "sorting/undo_state.h"
#include "sorting/unit_joins.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t block_samples = 16384;
constexpr double near_seconds = 30;  // spikes that a unit may start from, round its segment
constexpr float least_peak = 3.2f;   // times the noise, below which a unit ends
constexpr double half_ms = 0.5;
constexpr float explained_um = 110;  // an old event is explained by a spike so near it
// Two units of one waveform at any gain whose trains leave each other out.
constexpr double level_similarity = 0.9;
constexpr float enough_for_levels = 30;  // spikes that a shape is worth
constexpr std::size_t enough_level_channels = 4;
constexpr double one_similarity = 0.95, one_expected = 4, one_part = 0.2;
constexpr std::int32_t most_splits = 3;  // rounds
constexpr std::int32_t bar_range = 1000;

// The pass between two of its steps.
struct sweep {
  session_state& session;
  tracking_rules rules;
  noise_covariance noise;
  std::vector<tracked_unit> units;
  matching_set set;
  std::vector<std::int32_t> active;  // units in the set, by their place there
  std::vector<matching_scratch> scratch;
  std::int32_t n_segments = 0;
};

void note(const sweep& s, const std::string& text) {
  log_message(s.session, "Template pass: " + text);
}

std::int32_t samples_of(const session_state& session, double seconds) {
  return static_cast<std::int32_t>(
      std::lround(seconds * static_cast<double>(session.recording.sampling_frequency)));
}

tracking_rules rules_of(const session_state& session) {
  const template_pass_settings& m = session.matching;
  tracking_rules rules;
  rules.window = window_for_matching(session);
  rules.limits = {m.match_threshold, m.match_amplitude_sd, m.match_amplitude_min,
                  m.match_amplitude_max};
  rules.radius_um = m.match_radius_um;
  rules.least_energy = static_cast<double>(m.match_detectability);
  rules.segment = samples_of(session, static_cast<double>(m.match_segment_secs));
  rules.near_samples = samples_of(session, near_seconds);
  rules.half_ms = samples_of(session, half_ms / 1000.0);
  return rules;
}

std::vector<tracked_unit> units_of(const session_state& session) {
  std::vector<tracked_unit> units(static_cast<std::size_t>(session.clusters.n_clusters));
  for (std::size_t u = 0; u < units.size(); ++u) {
    units[u].cluster = static_cast<std::int32_t>(u) + 1;
  }
  const event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t c = events.event_cluster[e];
    if (c < 1) continue;
    // The shift by itself: 32 bits of a float would not hold the samples of ten minutes.
    units[static_cast<std::size_t>(c - 1)].train.push_back(
        events.event_time[e] + static_cast<std::int32_t>(std::lround(events.event_shift[e])));
  }
  // Alignment may have moved one event past another.
  for (tracked_unit& unit : units) std::sort(unit.train.begin(), unit.train.end());
  return units;
}

// ---------------------------------------------------------------- one segment

void start_units(sweep& s, std::int32_t segment) {
  const std::int64_t first = 1 + std::int64_t{segment} * s.rules.segment;
  const auto n = static_cast<std::int64_t>(s.units.size());
  parallel_for_dealt(threads_now(s.session), 1, n, [&](std::int64_t u, std::int32_t) {
    tracked_unit& unit = s.units[static_cast<std::size_t>(u - 1)];
    if (unit.stage != unit_stage::waiting) return;
    if (start_unit(s.session, s.noise, s.rules, first, unit)) unit.first_segment = segment;
  });
}

void end_weak_units(sweep& s) {
  for (tracked_unit& unit : s.units) {
    if (unit.stage != unit_stage::active) continue;
    if (unit.filter.energy >= s.rules.least_energy && unit.filter.peak >= least_peak) continue;
    unit.stage = unit_stage::ended;
    note(s, fmt::format("unit {} ends: detectability {:.0f}, peak {:.1f} times the noise",
                        unit.cluster, unit.filter.energy, unit.filter.peak));
  }
}

std::vector<std::int32_t> active_units(const sweep& s) {
  std::vector<std::int32_t> out;
  for (std::size_t u = 0; u < s.units.size(); ++u) {
    if (s.units[u].stage == unit_stage::active) out.push_back(static_cast<std::int32_t>(u));
  }
  return out;
}

// The lower number stays: what a join keeps does not depend on the order of the pairs.
void join_like_units(sweep& s) {
  const std::vector<std::int32_t> active = active_units(s);
  struct pair {
    std::int32_t a, b;
    bool one = false;
    std::string why;
  };
  std::vector<pair> pairs;
  for (std::size_t i = 0; i < active.size(); ++i) {
    for (std::size_t k = i + 1; k < active.size(); ++k)
      pairs.push_back({active[i], active[k], false, {}});
  }
  parallel_for_dealt(threads_now(s.session), 1, static_cast<std::int64_t>(pairs.size()),
                     [&](std::int64_t i, std::int32_t) {
                       pair& p = pairs[static_cast<std::size_t>(i - 1)];
                       p.one = same_waveform(s.session, s.noise, s.rules, s.units[p.a],
                                             s.units[p.b], p.why);
                     });
  for (const pair& p : pairs) {
    const bool both =
        s.units[p.a].stage == unit_stage::active && s.units[p.b].stage == unit_stage::active;
    if (!p.one || !both) continue;
    note(s, fmt::format("units {} and {} are one: {}", s.units[p.a].cluster, s.units[p.b].cluster,
                        p.why));
    join_units(s.units, p.a, p.b);
  }
}

void prepare_set(sweep& s) {
  s.active = active_units(s);
  s.set.units.clear();
  for (const std::int32_t u : s.active) s.set.units.push_back(s.units[u].filter);
  link_neighbours(s.set, threads_now(s.session));
}

// Spikes of all units in a segment, by time and then unit; units by their place in the set.
std::vector<found_spike> match_segment(sweep& s, std::int32_t segment) {
  const std::int64_t first = 1 + std::int64_t{segment} * s.rules.segment;
  // The last one takes in what is left, which may be less than half a segment.
  const std::int64_t n_samples = s.session.recording.n_samples;
  const std::int64_t last = segment + 1 == s.n_segments ? n_samples : first + s.rules.segment - 1;
  const std::int64_t n_blocks = (last - first + block_samples) / block_samples;
  std::vector<std::vector<found_spike>> found(static_cast<std::size_t>(n_blocks));
  s.scratch.resize(static_cast<std::size_t>(std::max(1, threads_now(s.session))));
  parallel_for_dealt(threads_now(s.session), 1, n_blocks, [&](std::int64_t b, std::int32_t rank) {
    const std::int64_t from = first + (b - 1) * block_samples;
    match_stretch(s.session, s.noise, s.set, from, std::min(from + block_samples - 1, last),
                  s.scratch[static_cast<std::size_t>(rank)],
                  found[static_cast<std::size_t>(b - 1)]);
  });
  std::vector<found_spike> all;
  for (const std::vector<found_spike>& block : found) {
    all.insert(all.end(), block.begin(), block.end());
  }
  return all;
}

void keep_spikes(sweep& s, const std::vector<found_spike>& found, std::int32_t segment) {
  for (const found_spike& f : found) {
    tracked_unit& unit = s.units[s.active[f.unit]];
    const double energy = unit.filter.energy;
    unit.spikes.push_back({f.time, f.phase, unit.filter.main_channel, segment, f.amplitude, f.gain,
                           static_cast<float>(static_cast<double>(f.score) / energy)});
    unit.energy_sum += energy;
  }
}

void follow_units(sweep& s, const std::vector<found_spike>& found) {
  const auto n = static_cast<std::int64_t>(s.active.size());
  parallel_for_dealt(threads_now(s.session), 1, n, [&](std::int64_t i, std::int32_t) {
    const auto place = static_cast<std::int32_t>(i - 1);
    tracked_unit& unit = s.units[s.active[place]];
    follow_unit(s.session, s.noise, s.rules, s.set, found, place, unit);
    renew_filter(s.session, s.noise, s.rules, unit);
  });
}

bool sweep_recording(sweep& s) {
  for (std::int32_t segment = 0; segment < s.n_segments; ++segment) {
    if (autosort_interrupted(s.session)) return false;
    pause_point(s.session);
    start_units(s, segment);
    end_weak_units(s);
    join_like_units(s);
    prepare_set(s);
    const std::vector<found_spike> found = match_segment(s, segment);
    keep_spikes(s, found, segment);
    follow_units(s, found);
    set_progress(s.session, meter::template_pass, (segment + 1) * bar_range / s.n_segments,
                 bar_range);
  }
  // Tens of megabytes a thread on a long probe, which nothing needs from here on.
  s.scratch = {};
  return !autosort_interrupted(s.session);
}

// ---------------------------------------------------------------- the end

void drop_unit(const sweep& s, tracked_unit& unit, const std::string& why) {
  note(s, fmt::format("unit {} goes: {} ({} spikes, E {:.0f})", unit.cluster, why,
                      unit.spikes.size(), unit.mean_energy()));
  unit.spikes.clear();
  unit.energy_sum = 0;
}

// What is left of strong spikes that are not of their unit's mean shape looks like weak ones.
void drop_leftovers(sweep& s) {
  const auto n = static_cast<std::int64_t>(s.units.size());
  std::vector<std::vector<char>> left(s.units.size());
  parallel_for_dealt(threads_now(s.session), 0, n - 1, [&](std::int64_t u, std::int32_t) {
    left[u] = find_leftovers(s.rules, s.units, static_cast<std::int32_t>(u));
  });
  for (std::size_t u = 0; u < s.units.size(); ++u) {
    tracked_unit& unit = s.units[u];
    const auto n_left = std::count(left[u].begin(), left[u].end(), 1);
    if (n_left == 0) continue;
    note(s, fmt::format("unit {}: {} of {} spikes are what stronger units leave", unit.cluster,
                        n_left, unit.spikes.size()));
    const double energy = unit.mean_energy();
    std::vector<tracked_spike> kept;
    for (std::size_t i = 0; i < unit.spikes.size(); ++i) {
      if (!left[u][i]) kept.push_back(unit.spikes[i]);
    }
    unit.spikes = std::move(kept);
    unit.energy_sum = energy * static_cast<double>(unit.spikes.size());
  }
}

void trim_units(sweep& s) {
  const auto n = static_cast<std::int64_t>(s.units.size());
  std::vector<std::string> why(s.units.size());
  parallel_for_dealt(threads_now(s.session), 1, n, [&](std::int64_t u, std::int32_t) {
    tracked_unit& unit = s.units[static_cast<std::size_t>(u - 1)];
    if (unit.stage == unit_stage::joined) return;
    why[static_cast<std::size_t>(u - 1)] = trim_unit(
        s.session, s.noise, s.rules, static_cast<double>(s.session.matching.match_valley), unit);
  });
  for (std::size_t u = 0; u < s.units.size(); ++u) {
    if (!why[u].empty()) drop_unit(s, s.units[u], why[u]);
  }
}

void drop_shadows(sweep& s) {
  for (std::int32_t u = 0; u < static_cast<std::int32_t>(s.units.size()); ++u) {
    if (s.units[u].spikes.empty()) continue;
    std::int32_t first = -1, second = -1;
    if (find_sum(s.rules, s.units, s.session.recording.n_samples, u, first, second)) {
      drop_unit(
          s, s.units[u],
          fmt::format("sum of units {} and {}", s.units[first].cluster, s.units[second].cluster));
      continue;
    }
    first = find_shadow(s.rules, s.units, u, s.session.recording.sampling_frequency);
    if (first >= 0) {
      drop_unit(s, s.units[u], fmt::format("shadow of unit {}", s.units[first].cluster));
    }
  }
}

void join_pair(sweep& s, std::int32_t a, std::int32_t b, const std::string& why) {
  note(s, fmt::format("units {} and {} are one: {}", s.units[a].cluster, s.units[b].cluster, why));
  join_units(s.units, std::min(a, b), std::max(a, b));
  remove_doubles(s.rules, s.units[std::min(a, b)].spikes);
}

// Pieces that are the same as another unit, or as a piece of it, go together again.
void join_pieces(sweep& s, const std::vector<std::int32_t>& pieces) {
  for (const std::int32_t piece : pieces) {
    for (std::int32_t u = 0; u < static_cast<std::int32_t>(s.units.size()); ++u) {
      std::string why;
      if (u == piece || s.units[u].spikes.empty() || s.units[piece].spikes.empty()) continue;
      if (same_waveform(s.session, s.noise, s.rules, s.units[piece], s.units[u], why)) {
        join_pair(s, piece, u, why);
      }
    }
  }
}

void split_mixtures(sweep& s) {
  std::vector<std::int32_t> pieces;
  for (std::int32_t round = 0; round < most_splits; ++round) {
    const spike_crowd crowd = make_crowd(s.rules, s.units);
    const auto n = static_cast<std::int32_t>(s.units.size());
    std::vector<mixture> mixtures(s.units.size());
    std::vector<char> mixed(s.units.size());
    parallel_for_dealt(threads_now(s.session), 0, n - 1, [&](std::int64_t u, std::int32_t) {
      const auto at = static_cast<std::size_t>(u);
      // After the first round only what has been split may still be more than one.
      const auto unit = static_cast<std::int32_t>(u);
      if (round > 0 && std::find(pieces.begin(), pieces.end(), unit) == pieces.end()) return;
      mixed[at] = find_mixture(s.session, s.noise, s.rules, crowd, s.units, unit, mixtures[at]);
    });
    pieces.clear();
    for (std::int32_t u = 0; u < n; ++u) {
      if (!mixed[static_cast<std::size_t>(u)]) continue;
      const mixture& m = mixtures[static_cast<std::size_t>(u)];
      tracked_unit second = take_second(s.session, s.noise, s.rules, crowd, u, m, s.units[u]);
      note(s, fmt::format("unit {} is two: {} and {} spikes, distance {:.0f}, {:.1f} apart",
                          s.units[u].cluster, s.units[u].spikes.size(), second.spikes.size(),
                          m.distance, m.apart));
      pieces.push_back(u);
      pieces.push_back(static_cast<std::int32_t>(s.units.size()));
      s.units.push_back(std::move(second));
    }
    if (pieces.empty()) return;
    join_pieces(s, pieces);
  }
}

// The two levels of one neuron's amplitude: one waveform at two sizes, or nearly one and trains
// that leave each other out; never when the trains cross.
bool are_two_levels(const sweep& s, const tracked_unit& a, const tracked_unit& b) {
  if (s.session.recording.distance(a.filter.main_channel, b.filter.main_channel) >
      s.rules.radius_um) {
    return false;
  }
  const bool order = a.mean_energy() <= b.mean_energy();
  const tracked_unit& small = order ? a : b;
  const tracked_unit& large = order ? b : a;
  const shape_likeness likeness =
      compare_shapes(small.shape, large.shape, s.rules.window.points, s.rules.half_ms);
  if (likeness.similarity < level_similarity) return false;
  const train_crossing c = count_crossings(spike_times(a), spike_times(b), s.rules.segment,
                                           s.session.recording.sampling_frequency);
  if (trains_cross(c)) return false;
  if (likeness.similarity >= one_similarity && c.expected >= one_expected &&
      c.observed <= one_part * c.expected) {
    return true;
  }
  // On a site or two, cells of two sizes may well have one waveform.
  return std::min(small.shape.count, large.shape.count) >= enough_for_levels &&
         large.filter.channels.size() >= enough_level_channels &&
         is_multiple_of(s.noise, s.rules.window, small.shape, large.shape, likeness.lag,
                        large.filter.channels, large.mean_energy());
}

void join_levels(sweep& s) {
  const auto n = static_cast<std::int32_t>(s.units.size());
  for (std::int32_t a = 0; a < n; ++a) {
    for (std::int32_t b = a + 1; b < n; ++b) {
      if (s.units[a].spikes.empty() || s.units[b].spikes.empty()) continue;
      if (are_two_levels(s, s.units[a], s.units[b])) join_pair(s, a, b, "two levels of amplitude");
    }
  }
}

// Of pairs that may be one unit and were left to the user.
struct proposal {
  std::int32_t earlier, later;  // units
  std::string why;
};

std::vector<proposal> join_hand_overs(sweep& s) {
  std::vector<proposal> left;
  float shift = 0;
  const std::vector<hand_over> pairs =
      find_hand_overs(s.session, s.noise, s.rules, s.units, s.n_segments, shift);
  note(s, fmt::format("the tissue moved by {:.0f} um",
                      motion_range(find_motion(s.units, s.n_segments))));
  if (shift != 0) note(s, fmt::format("the recording jumped by {:.0f} um", shift));
  for (const hand_over& p : pairs) {
    const std::int32_t a = joined_unit(s.units, p.earlier), b = joined_unit(s.units, p.later);
    if (a == b) continue;
    const std::string why =
        fmt::format("in turn, similarity {:.2f}, overlap {:.2f}", p.similarity, p.overlap);
    // Either may be part of another by now.
    if (p.moved && fire_in_turn(s.session.recording, s.units[a], s.units[b], s.n_segments)) {
      join_pair(s, a, b, why);
    } else if (a == p.earlier && b == p.later) {
      note(s, fmt::format("see whether units {} and {} are one: {}", s.units[a].cluster,
                          s.units[b].cluster, why));
      left.push_back({a, b, why});
    }
  }
  return left;
}

// ---------------------------------------------------------------- the new sort

struct new_event {
  std::int32_t time;
  float shift;
  std::int32_t channel, cluster;
  float amplitude, gain;
};

// Old events that no spike explains: unclustered from now on, and nothing is lost.
void add_unexplained(const sweep& s, std::vector<new_event>& out) {
  const event_table& events = s.session.events;
  // By time alone; out holds the matched spikes, ascending.
  std::vector<std::int32_t> times;
  for (const new_event& e : out) times.push_back(e.time);
  const std::size_t n_matched = out.size();
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t t = events.event_time[e];
    auto at = static_cast<std::size_t>(
        std::lower_bound(times.begin(), times.end(), t - s.rules.half_ms) - times.begin());
    bool explained = false;
    for (; at < n_matched && times[at] <= t + s.rules.half_ms && !explained; ++at) {
      explained =
          out[at].channel == events.event_channel[e] ||
          s.session.recording.distance(out[at].channel, events.event_channel[e]) <= explained_um;
    }
    if (!explained) {
      out.push_back({t, events.event_shift[e], events.event_channel[e], 0, 0, 0});
    }
  }
}

void sort_by_time(std::vector<new_event>& events) {
  std::stable_sort(events.begin(), events.end(), [](const new_event& a, const new_event& b) {
    return std::tie(a.time, a.shift, a.cluster) < std::tie(b.time, b.shift, b.cluster);
  });
}

std::vector<new_event> matched_events(const sweep& s, const std::vector<std::int32_t>& kept) {
  std::vector<new_event> out;
  for (std::size_t i = 0; i < kept.size(); ++i) {
    for (const tracked_spike& spike : s.units[kept[i]].spikes) {
      if (spike.time < 2 || spike.time >= s.session.recording.n_samples) continue;
      const float fraction = static_cast<float>(spike.phase) / match_phases;
      const bool before = spike.phase < 0;
      out.push_back({before ? spike.time - 1 : spike.time, before ? 1.0f + fraction : fraction,
                     spike.channel, static_cast<std::int32_t>(i) + 1, spike.amplitude, spike.gain});
    }
  }
  sort_by_time(out);
  return out;
}

void write_events(session_state& session, const std::vector<new_event>& from) {
  event_table& events = session.events;
  clear_events(events);
  for (const new_event& e : from) {
    const std::int32_t i = ++events.n_events;
    events.event_time[i] = e.time;
    events.event_shift[i] = e.shift;
    events.event_detected_time[i] = e.time;
    events.event_channel[i] = e.channel;
    events.event_cluster[i] = e.cluster;
    events.event_amplitude[i] = e.amplitude;
    events.event_gain[i] = e.gain;
  }
}

void report(const sweep& s, std::int32_t n_before, const std::vector<new_event>& events) {
  const auto n_after = static_cast<std::int32_t>(std::count_if(
      events.begin(), events.end(), [](const new_event& e) { return e.cluster > 0; }));
  // A spike that no event of the old sort lay near was reclaimed.
  std::vector<std::int32_t> old;
  const event_table& table = s.session.events;
  for (std::int32_t e = 1; e <= table.n_events; ++e) {
    if (table.event_cluster[e] > 0) old.push_back(table.event_time[e]);
  }
  std::sort(old.begin(), old.end());
  std::int32_t reclaimed = 0;
  for (const new_event& e : events) {
    if (e.cluster == 0) continue;
    const auto at = std::lower_bound(old.begin(), old.end(), e.time - s.rules.half_ms);
    reclaimed += at == old.end() || *at > e.time + s.rules.half_ms;
  }
  say(s.session,
      fmt::format("Template pass: {} spikes before, {} after, {} reclaimed, {} dropped", n_before,
                  n_after, reclaimed, std::max(0, n_before + reclaimed - n_after)));
}

// Each cluster in one proposal at most, that of the pair most alike.
void propose(session_state& session, const std::vector<std::int32_t>& kept,
             const std::vector<proposal>& proposals) {
  cluster_table& clusters = session.clusters;
  const auto cluster_of = [&](std::int32_t unit) {
    const auto at = std::find(kept.begin(), kept.end(), unit);
    return at == kept.end() ? 0 : static_cast<std::int32_t>(at - kept.begin()) + 1;
  };
  clusters.cluster_proposal.clear();
  clusters.proposal_reasons.clear();
  for (const proposal& p : proposals) {
    const std::int32_t a = cluster_of(p.earlier), b = cluster_of(p.later);
    if (a == 0 || b == 0 || clusters.cluster_proposal[a] > 0 || clusters.cluster_proposal[b] > 0) {
      continue;
    }
    clusters.proposal_reasons.push_back(p.why);
    clusters.cluster_proposal[a] = clusters.cluster_proposal[b] =
        static_cast<std::int32_t>(clusters.proposal_reasons.size());
  }
}

// What stood with a unit's cluster stands with its new number; both pieces of one have it.
void move_records(sweep& s, const std::vector<std::int32_t>& kept) {
  cluster_table& clusters = s.session.clusters;
  for_each_moving_column(
      [&](auto& column) {
        typedef std::remove_reference_t<decltype(column[1])> value;
        std::vector<value> values;
        for (const std::int32_t u : kept) values.push_back(column[s.units[u].cluster]);
        for (std::size_t i = 0; i < values.size(); ++i) {
          column[static_cast<std::int64_t>(i) + 1] = values[i];
        }
      },
      clusters);
  clusters.n_clusters = static_cast<std::int32_t>(kept.size());
  clusters.current_cluster = kept.empty() ? 0 : 1;
}

void take_over(sweep& s, const std::vector<proposal>& proposals) {
  session_state& session = s.session;
  std::vector<std::int32_t> kept;
  for (std::size_t u = 0; u < s.units.size(); ++u) {
    if (!s.units[u].spikes.empty()) kept.push_back(static_cast<std::int32_t>(u));
  }
  std::vector<new_event> events = matched_events(s, kept);
  add_unexplained(s, events);
  sort_by_time(events);
  std::int32_t n_before = 0;
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    n_before += session.events.event_cluster[e] > 0;
  }
  report(s, n_before, events);
  save_undo_state(session, undo_owner::template_pass);
  cluster_change change = begin_change(session, cluster_change_kind::rebuilt);
  session.lists.n_kv_pairs = 0;
  write_events(session, events);
  move_records(s, kept);
  propose(session, kept, proposals);
  calculate_all_templates(session);
  change.after = all_clusters(session);
  end_change(session, change);
  refresh_displays(session);
}

bool prepare(sweep& s) {
  session_state& session = s.session;
  const std::int64_t n_samples = session.recording.n_samples;
  if (!session.recording.is_continuous || n_samples < 1 || session.clusters.n_clusters == 0) {
    note(s, "needs a continuous recording and clusters");
    return false;
  }
  s.rules = rules_of(session);
  s.n_segments = static_cast<std::int32_t>(
      std::max<std::int64_t>(1, (n_samples + s.rules.segment / 2) / s.rules.segment));
  s.noise = measure_noise_covariance(session, s.rules.window.points);
  s.units = units_of(session);
  s.set.window = s.rules.window;
  s.set.limits = s.rules.limits;
  say(session, fmt::format("Template pass: {} units, {} stretches of {} s", s.units.size(),
                           s.n_segments, session.matching.match_segment_secs));
  return true;
}

}  // namespace

template_pass_end run_template_pass(session_state& session) {
  sweep s{session, {}, {}, {}, {}, {}, {}};
  if (!prepare(s)) return template_pass_end::not_possible;
  if (!sweep_recording(s)) return template_pass_end::interrupted;
  for (tracked_unit& unit : s.units) remove_doubles(s.rules, unit.spikes);
  drop_leftovers(s);
  trim_units(s);
  split_mixtures(s);
  drop_shadows(s);
  join_levels(s);
  take_over(s, join_hand_overs(s));
  return template_pass_end::done;
}

}  // namespace kestrelvane

#include "sorting/hand_overs.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "signal/tissue_motion.h"

namespace kestrelvane {

namespace {

// Hand-over.
constexpr double hand_over_like = 0.6, hand_over_energy = 0.65;
constexpr double largest_overlap = 0.35;
constexpr float reach_um = 110.0f;      // from one main channel to the other
constexpr float motion_um = 5.0f;       // the recording moved
constexpr double home_error_um = 10.0;  // of two pieces of one unit
constexpr std::size_t fewest_for_motion = 6;
constexpr double energy_for_motion = 60;  // weaker units tell noise
// Jumps.
constexpr std::int32_t jump_reach = 60, jump_step = 5;  // µm
constexpr double jump_base = 0.5, jump_better = 1.2, jump_like = 0.75;
constexpr std::int32_t fewest_jumped = 5;
constexpr double stayed_part = 0.2;  // of a unit's spikes on either side
// Where channels follow the tissue.
constexpr double followed_energy = 0.15;  // edges of the probe may hide most of a unit
constexpr double shared_energy = 0.5, shared_part = 0.15;
constexpr std::size_t most_for_mean = 150;  // spikes
// Cut by the place of the tissue few spikes lie on the wrong side. Cut by time many do, when the
// pieces alternate; or the tissue leaps as one gives way to the other: from its mean place before
// to that after. In so short a time slow movement goes less far.
constexpr double told_by_place = 0.4, alternate_by_time = 0.5;
constexpr double leap_um = 4, longest_gap_s = 5, beside_gap_s = 10;
// One unit that drifts goes from one piece to the other by and by, with spikes of both in between;
// one neuron that falls silent as another awakes leaves few. Measured 0.02 to 0.09 where a unit
// drifted, with shapes that are 0.87 to 0.99 alike about the change; neighbours in turn, which mix
// as much, 0.88 at most and mostly 0.6 to 0.8.
constexpr double least_mixed = 0.015, most_mixed = 0.12, drifted_like = 0.86;
constexpr std::size_t spikes_beside = 60;
// After a leap a little less than followed_like is enough; and less again for two that are left
// when the others have found themselves. Measured: 0.58 to 0.78 of one unit, and no two of two
// units.
constexpr double leapt_like = 0.8, left_over_like = 0.65, left_over_rate = 0.5;
// Swinging tissue that shows each piece in its own places all the time leaves no other reading.
constexpr double swung_like = 0.7;
constexpr double place_bin_um = 3;
constexpr std::int32_t place_bins = 400;

}  // namespace

// ---------------------------------------------------------------- motion

namespace {

float median_of(std::vector<float>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

float home_depth(const tracked_unit& unit, const std::vector<float>& motion) {
  double sum = 0;
  std::int32_t n = 0;
  for (std::size_t i = 0; i < unit.depths.size(); ++i) {
    const std::size_t segment = static_cast<std::size_t>(unit.first_segment) + i;
    if (segment >= motion.size() || std::isnan(unit.depths[i])) continue;
    sum += static_cast<double>(unit.depths[i] - motion[segment]);
    ++n;
  }
  return n > 0 ? static_cast<float>(sum / n) : std::nanf("");
}

std::vector<float> find_motion(const std::vector<tracked_unit>& units, std::int32_t n_segments) {
  std::vector<float> motion(static_cast<std::size_t>(n_segments));
  // Of each unit what it was at home so far, summed, and of how many segments. Units that are new
  // say nothing of the way: they would hold the median where it was.
  std::vector<double> home(units.size());
  std::vector<std::int32_t> seen(units.size());
  for (std::size_t s = 0; s < motion.size(); ++s) {
    std::vector<float> ways;
    const auto depth_of = [&](const tracked_unit& unit) {
      const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(s) - unit.first_segment;
      const bool known = at >= 0 && at < static_cast<std::ptrdiff_t>(unit.depths.size()) &&
                         unit.mean_energy() >= energy_for_motion;
      return known ? unit.depths[static_cast<std::size_t>(at)] : std::nanf("");
    };
    for (std::size_t u = 0; u < units.size(); ++u) {
      const float depth = depth_of(units[u]);
      if (std::isnan(depth) || seen[u] == 0) continue;
      ways.push_back(depth - static_cast<float>(home[u] / seen[u]));
    }
    // Where too few were seen the tissue is taken to stay where it was.
    motion[s] = ways.size() >= fewest_for_motion ? median_of(ways) : s > 0 ? motion[s - 1] : 0.0f;
    for (std::size_t u = 0; u < units.size(); ++u) {
      const float depth = depth_of(units[u]);
      if (std::isnan(depth)) continue;
      home[u] += static_cast<double>(depth - motion[s]);
      ++seen[u];
    }
  }
  return motion;
}

float motion_range(const std::vector<float>& motion) {
  if (motion.empty()) return 0;
  const auto [low, high] = std::minmax_element(motion.begin(), motion.end());
  return *high - *low;
}

// ---------------------------------------------------------------- hand-overs

double overlap_in_time(const tracked_unit& a, const tracked_unit& b, std::int32_t n_segments) {
  std::vector<double> n_a(static_cast<std::size_t>(n_segments)), n_b(n_a.size());
  for (const tracked_spike& s : a.spikes) n_a[static_cast<std::size_t>(s.segment)] += 1;
  for (const tracked_spike& s : b.spikes) n_b[static_cast<std::size_t>(s.segment)] += 1;
  double both = 0;
  for (std::size_t i = 0; i < n_a.size(); ++i) both += std::min(n_a[i], n_b[i]);
  const auto fewer = static_cast<double>(std::min(a.spikes.size(), b.spikes.size()));
  return fewer > 0 ? both / fewer : 1.0;
}

double overlap_in_place(const tissue_motion& motion, double sampling_frequency,
                        const tracked_unit& a, const tracked_unit& b) {
  if (motion.um.empty() || a.spikes.empty() || b.spikes.empty()) return 1;
  const auto count = [&](const tracked_unit& unit) {
    std::vector<double> counts(place_bins);
    for (const tracked_spike& s : unit.spikes) {
      const double place = motion_at(motion, static_cast<double>(s.time) / sampling_frequency);
      const auto bin = static_cast<std::int32_t>(std::floor(place / place_bin_um)) + place_bins / 2;
      counts[static_cast<std::size_t>(std::clamp(bin, 0, place_bins - 1))] += 1;
    }
    return counts;
  };
  const std::vector<double> n_a = count(a), n_b = count(b);
  double both = 0;
  for (std::size_t i = 0; i < n_a.size(); ++i) both += std::min(n_a[i], n_b[i]);
  return both / static_cast<double>(std::min(a.spikes.size(), b.spikes.size()));
}

namespace {

double overlap_of(const recording_store& recording, const tracked_unit& a, const tracked_unit& b,
                  std::int32_t n_segments) {
  const double in_time = overlap_in_time(a, b, n_segments);
  if (!recording.motion.corrected) return in_time;
  const auto frequency = static_cast<double>(recording.sampling_frequency);
  return std::min(in_time, overlap_in_place(recording.motion, frequency, a, b));
}

}  // namespace

bool fire_in_turn(const recording_store& recording, const tracked_unit& a, const tracked_unit& b,
                  std::int32_t n_segments) {
  return overlap_of(recording, a, b, n_segments) < largest_overlap;
}

namespace {

std::int32_t middle_of(const tracked_unit& unit) {
  return unit.spikes[unit.spikes.size() / 2].segment;
}

struct candidate {
  std::int32_t earlier, later;
  double overlap;
  double similarity;
};

void most_alike_first(std::vector<candidate>& pairs) {
  std::stable_sort(pairs.begin(), pairs.end(), [](const candidate& a, const candidate& b) {
    return a.similarity > b.similarity;
  });
}

// Pairs that do not fire together, lie near enough for the largest jump and are of about one size.
std::vector<candidate> possible_pairs(const session_state& session,
                                      const std::vector<tracked_unit>& units,
                                      std::int32_t n_segments, double least_energy) {
  std::vector<candidate> out;
  const auto n = static_cast<std::int32_t>(units.size());
  for (std::int32_t a = 0; a < n; ++a) {
    for (std::int32_t b = a + 1; b < n; ++b) {
      const tracked_unit& x = units[static_cast<std::size_t>(a)];
      const tracked_unit& y = units[static_cast<std::size_t>(b)];
      if (x.spikes.empty() || y.spikes.empty()) continue;
      const float away = session.recording.distance(x.filter.main_channel, y.filter.main_channel);
      if (away > reach_um) continue;
      const double energy = square_root_ratio(x.mean_energy(), y.mean_energy());
      const double overlap = overlap_of(session.recording, x, y, n_segments);
      if (energy < least_energy || overlap >= largest_overlap) continue;
      const bool order = middle_of(x) <= middle_of(y);
      out.push_back({order ? a : b, order ? b : a, overlap, 0});
    }
  }
  return out;
}

// Fills the similarities after a move, and returns the sum over the best pairs, each unit being in
// one at most, with their number.
double assign(const session_state& session, const tracking_rules& rules,
              const std::vector<tracked_unit>& units, double dy, std::vector<candidate>& pairs,
              std::int32_t& n_agreed) {
  for (candidate& p : pairs) {
    const spike_shape& last = units[static_cast<std::size_t>(p.earlier)].shape;
    const spike_shape& first = units[static_cast<std::size_t>(p.later)].first;
    const spike_shape moved = dy == 0 ? last : moved_shape(session, last, rules.window.points, dy);
    p.similarity = compare_shapes(moved, first, rules.window.points, rules.half_ms).similarity;
  }
  most_alike_first(pairs);
  std::vector<bool> used(units.size());
  double sum = 0;
  n_agreed = 0;
  for (const candidate& p : pairs) {
    const auto a = static_cast<std::size_t>(p.earlier), b = static_cast<std::size_t>(p.later);
    if (p.similarity <= jump_base || used[a] || used[b]) continue;
    used[a] = used[b] = true;
    sum += p.similarity - jump_base;
    n_agreed += p.similarity >= jump_like;
  }
  return sum;
}

// The mean depth of a unit from one segment to before another.
float mean_depth(const tracked_unit& unit, std::int32_t from, std::int32_t to) {
  double sum = 0;
  std::int32_t n = 0;
  for (std::size_t i = 0; i < unit.depths.size(); ++i) {
    const auto segment = unit.first_segment + static_cast<std::int32_t>(i);
    if (segment < from || segment >= to || std::isnan(unit.depths[i])) continue;
    sum += static_cast<double>(unit.depths[i]);
    ++n;
  }
  return n > 0 ? static_cast<float>(sum / n) : std::nanf("");
}

// Units that were followed from before a segment to behind it and did not go along with a jump.
std::int32_t count_stayed(const std::vector<tracked_unit>& units, std::int32_t segment,
                          double jump) {
  std::int32_t n = 0;
  for (const tracked_unit& unit : units) {
    if (unit.spikes.empty() || unit.mean_energy() < energy_for_motion) continue;
    std::int32_t before = 0, after = 0;
    for (const tracked_spike& s : unit.spikes) (s.segment < segment ? before : after) += 1;
    const auto part =
        static_cast<double>(std::min(before, after)) / static_cast<double>(unit.spikes.size());
    const auto way =
        static_cast<double>(mean_depth(unit, segment, std::numeric_limits<std::int32_t>::max()) -
                            mean_depth(unit, 0, segment));
    n += part >= stayed_part && std::fabs(way - jump) > std::fabs(way);
  }
  return n;
}

// The segment at which most of the pairs hand over.
std::int32_t middle_segment(const std::vector<tracked_unit>& units,
                            const std::vector<candidate>& pairs) {
  std::vector<float> ends;
  for (const candidate& p : pairs) {
    if (p.similarity < jump_like) continue;
    const tracked_unit& later = units[static_cast<std::size_t>(p.later)];
    ends.push_back(static_cast<float>(later.spikes[later.spikes.size() / 20].segment));
  }
  return ends.empty() ? 0 : static_cast<std::int32_t>(median_of(ends));
}

// The displacement that brings most of the pairs together; 0 when none does it clearly better, or
// when more units went through that moment where they were than handed over in it.
std::int32_t find_jump(const session_state& session, const tracking_rules& rules,
                       const std::vector<tracked_unit>& units, std::vector<candidate> pairs) {
  std::int32_t n_agreed = 0;
  const double still = assign(session, rules, units, 0, pairs, n_agreed);
  double best = jump_better * still;
  std::int32_t jump = 0;
  for (std::int32_t dy = -jump_reach; dy <= jump_reach; dy += jump_step) {
    if (dy == 0) continue;
    const double sum = assign(session, rules, units, dy, pairs, n_agreed);
    if (sum <= best || n_agreed < fewest_jumped) continue;
    if (n_agreed <= count_stayed(units, middle_segment(units, pairs), dy)) continue;
    best = sum;
    jump = dy;
  }
  return jump;
}

// ---------------------------------------------------------------- where channels follow

// A cut of the spikes of two units by a measure.
struct cut {
  std::size_t at = 0;  // spikes before it
  double wrong = 1;    // part of the smaller unit's number that lies on the wrong side
};
struct measured_spike {
  double measure;
  bool later;  // which unit's
};

// The cut with the earlier unit before it; puts the spikes in order.
cut best_cut(std::vector<measured_spike>& spikes) {
  std::stable_sort(
      spikes.begin(), spikes.end(),
      [](const measured_spike& a, const measured_spike& b) { return a.measure < b.measure; });
  const auto n = static_cast<std::int64_t>(spikes.size());
  const std::int64_t n_later =
      std::count_if(spikes.begin(), spikes.end(), [](const measured_spike& s) { return s.later; });
  std::int64_t wrong = n - n_later, fewest = wrong;
  cut best;
  for (std::size_t i = 0; i < spikes.size(); ++i) {
    wrong += spikes[i].later ? 1 : -1;
    if (wrong >= fewest) continue;
    fewest = wrong;
    best.at = i + 1;
  }
  best.wrong = static_cast<double>(fewest) / static_cast<double>(std::min(n_later, n - n_later));
  return best;
}

// The mean place of the tissue from one second to another.
double mean_between(const tissue_motion& motion, double from, double to) {
  constexpr int n_steps = 20;
  double sum = 0;
  for (int i = 0; i < n_steps; ++i) {
    sum += motion_at(motion, from + (i + 0.5) * (to - from) / n_steps);
  }
  return sum / n_steps;
}

}  // namespace

passage find_passage(const recording_store& recording, const std::vector<std::int32_t>& earlier,
                     const std::vector<std::int32_t>& later, double& turn_s) {
  turn_s = 0;
  if (recording.motion.um.empty() || earlier.empty() || later.empty()) return passage::none;
  std::vector<measured_spike> times, places, back;
  for (const std::vector<std::int32_t>* train : {&earlier, &later}) {
    for (const std::int32_t t : *train) {
      const double seconds = static_cast<double>(t) / recording.sampling_frequency;
      const double place = motion_at(recording.motion, seconds);
      times.push_back({seconds, train == &later});
      places.push_back({place, train == &later});
      back.push_back({-place, train == &later});
    }
  }
  const cut by_time = best_cut(times);
  const double by_place = std::min(best_cut(places).wrong, best_cut(back).wrong);
  if (by_place > told_by_place) return passage::none;
  if (by_time.wrong >= alternate_by_time) return passage::swing;
  // The last of the earlier unit's spikes before the cut, and the first of the later one's after.
  auto last = static_cast<std::ptrdiff_t>(by_time.at) - 1;
  std::size_t first = by_time.at;
  while (last >= 0 && times[static_cast<std::size_t>(last)].later) --last;
  while (first < times.size() && !times[first].later) ++first;
  if (last < 0 || first == times.size()) return passage::none;
  const double from = times[static_cast<std::size_t>(last)].measure, to = times[first].measure;
  if (to - from > longest_gap_s) return passage::none;
  turn_s = 0.5 * (from + to);
  const double leap = mean_between(recording.motion, to, to + beside_gap_s) -
                      mean_between(recording.motion, from - beside_gap_s, from);
  if (std::fabs(leap) >= leap_um) return passage::leap;
  const double way = mean_place(recording, later) - mean_place(recording, earlier);
  const bool drifts =
      std::fabs(way) >= leap_um && by_time.wrong >= least_mixed && by_time.wrong <= most_mixed;
  return drifts ? passage::drift : passage::none;
}

namespace {

// Without channels when they hold too little of the shape.
spike_shape seen_at_both(const recording_store& r, const spike_shape& shape, std::int32_t points,
                         double place_a, double place_b) {
  spike_shape out;
  for (std::size_t i = 0; i < shape.channels.size(); ++i) {
    const std::int32_t c = shape.channels[i];
    if (!reads_tissue(r, c, place_a) || !reads_tissue(r, c, place_b)) continue;
    out.channels.push_back(c);
    out.values.insert(out.values.end(), shape.row(i, points), shape.row(i, points) + points);
  }
  return square_sum(out) < shared_part * square_sum(shape) ? spike_shape{} : out;
}

}  // namespace

double mean_place(const recording_store& recording, const std::vector<std::int32_t>& times) {
  double sum = 0;
  for (const std::int32_t t : times) {
    sum += motion_at(recording.motion, static_cast<double>(t) / recording.sampling_frequency);
  }
  return times.empty() ? 0 : sum / static_cast<double>(times.size());
}

double likeness_where_seen(const recording_store& recording, const tracking_rules& rules,
                           const spike_shape& a, double place_a, const spike_shape& b,
                           double place_b) {
  const std::int32_t points = rules.window.points;
  const spike_shape one = seen_at_both(recording, a, points, place_a, place_b);
  const spike_shape other = seen_at_both(recording, b, points, place_a, place_b);
  if (square_root_ratio(square_sum(one), square_sum(other)) < shared_energy) return 0;
  return compare_shapes(one, other, points, rules.half_ms).similarity;
}

way_between find_way_where_seen(const session_state& session, const tracking_rules& rules,
                                const spike_shape& a, double place_a, const spike_shape& b,
                                double place_b) {
  const std::int32_t points = rules.window.points;
  return find_way(session, rules, seen_at_both(session.recording, a, points, place_a, place_b),
                  seen_at_both(session.recording, b, points, place_a, place_b));
}

namespace {

// How much alike two units' spikes are in the mean, on the channels of either that saw both: one
// that the end of the probe hid may have been seen on fewer.
double likeness_of(const session_state& session, const noise_covariance& noise,
                   const tracking_rules& rules, const tracked_unit& a, const tracked_unit& b,
                   const std::vector<tracked_spike>& of_a, const std::vector<tracked_spike>& of_b) {
  std::vector<std::int32_t> channels = a.shape.channels;
  channels.insert(channels.end(), b.shape.channels.begin(), b.shape.channels.end());
  std::sort(channels.begin(), channels.end());
  channels.erase(std::unique(channels.begin(), channels.end()), channels.end());
  const auto shape = [&](const std::vector<tracked_spike>& spikes) {
    return mean_of_spikes(session, noise, rules.window, spikes, channels);
  };
  const auto place = [&](const std::vector<tracked_spike>& spikes) {
    std::vector<std::int32_t> times;
    for (const tracked_spike& s : spikes) times.push_back(s.time);
    return mean_place(session.recording, times);
  };
  return likeness_where_seen(session.recording, rules, shape(of_a), place(of_a), shape(of_b),
                             place(of_b));
}

// The spikes of a unit that lie next to a time, ascending.
std::vector<tracked_spike> spikes_about(const tracked_unit& unit, double time) {
  std::vector<tracked_spike> out = unit.spikes;
  std::stable_sort(out.begin(), out.end(), [&](const tracked_spike& a, const tracked_spike& b) {
    return std::fabs(a.time - time) < std::fabs(b.time - time);
  });
  if (out.size() > spikes_beside) out.resize(spikes_beside);
  std::stable_sort(out.begin(), out.end(),
                   [](const tracked_spike& a, const tracked_spike& b) { return a.time < b.time; });
  return out;
}

// Whether movement made two units of one. likeness: of all of their spikes in the mean; where they
// drift, that of the spikes about their meeting takes its place.
bool movement_explains(const session_state& session, const noise_covariance& noise,
                       const tracking_rules& rules, const tracked_unit& earlier,
                       const tracked_unit& later, passage& way, double& likeness) {
  const auto frequency = static_cast<double>(session.recording.sampling_frequency);
  double turn_s = 0;
  way = find_passage(session.recording, spike_times(earlier), spike_times(later), turn_s);
  switch (way) {
    case passage::leap:
      return likeness >= leapt_like;
    case passage::swing: {
      const double overlap = overlap_in_place(session.recording.motion, frequency, earlier, later);
      return likeness >= (overlap < largest_overlap ? swung_like : followed_like);
    }
    case passage::drift:
      likeness = likeness_of(session, noise, rules, earlier, later,
                             spikes_about(earlier, turn_s * frequency),
                             spikes_about(later, turn_s * frequency));
      return likeness >= drifted_like &&
             !stand_apart(find_way_where_seen(session, rules, earlier.shape,
                                              mean_place(session.recording, spike_times(earlier)),
                                              later.shape,
                                              mean_place(session.recording, spike_times(later))),
                          drifted_closer);
    case passage::none:
      break;
  }
  return false;
}

// Spikes in a second, from the first to the last.
double rate_of(const tracked_unit& unit, double sampling_frequency) {
  const double samples = unit.spikes.back().time - unit.spikes.front().time;
  return static_cast<double>(unit.spikes.size()) * sampling_frequency / std::max(samples, 1.0);
}

// A neuron that was there before a leap is there after it, unless the probe ends. What is left over
// when the sure ones have found themselves, one that ends in the leap and one that begins in it,
// needs to be less alike. Pairs: the most alike first; leaps: whether they go with one.
void join_left_overs(const session_state& session, const std::vector<tracked_unit>& units,
                     const std::vector<bool>& leaps, std::vector<hand_over>& pairs) {
  std::vector<bool> ends(units.size()), begins(units.size());
  const auto take = [&](const hand_over& pair) {
    ends[static_cast<std::size_t>(pair.earlier)] = true;
    begins[static_cast<std::size_t>(pair.later)] = true;
  };
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    if (leaps[i] && pairs[i].moved) take(pairs[i]);
  }
  const auto frequency = static_cast<double>(session.recording.sampling_frequency);
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    hand_over& pair = pairs[i];
    const auto a = static_cast<std::size_t>(pair.earlier), b = static_cast<std::size_t>(pair.later);
    if (!leaps[i] || ends[a] || begins[b] || pair.similarity < left_over_like) continue;
    const double x = rate_of(units[a], frequency), y = rate_of(units[b], frequency);
    if (std::min(x, y) < left_over_rate * std::max(x, y)) continue;
    pair.moved = true;
    take(pair);
  }
}

std::vector<hand_over> hand_overs_of_followed(const session_state& session,
                                              const noise_covariance& noise,
                                              const tracking_rules& rules,
                                              const std::vector<tracked_unit>& units,
                                              std::int32_t n_segments) {
  std::vector<std::pair<hand_over, passage>> found;
  for (const candidate& p : possible_pairs(session, units, n_segments, followed_energy)) {
    const tracked_unit& earlier = units[static_cast<std::size_t>(p.earlier)];
    const tracked_unit& later = units[static_cast<std::size_t>(p.later)];
    double likeness =
        likeness_of(session, noise, rules, earlier, later, evenly(earlier.spikes, most_for_mean),
                    evenly(later.spikes, most_for_mean));
    passage way = passage::none;
    const bool one = movement_explains(session, noise, rules, earlier, later, way, likeness);
    if (likeness < hand_over_like) continue;
    found.push_back({{p.earlier, p.later, likeness, p.overlap, one}, way});
  }
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    return a.first.similarity > b.first.similarity;
  });
  std::vector<hand_over> out;
  std::vector<bool> leaps;
  for (const auto& [pair, way] : found) {
    out.push_back(pair);
    leaps.push_back(way == passage::leap);
  }
  join_left_overs(session, units, leaps, out);
  return out;
}

}  // namespace

std::vector<hand_over> find_hand_overs(const session_state& session, const noise_covariance& noise,
                                       const tracking_rules& rules,
                                       const std::vector<tracked_unit>& units,
                                       std::int32_t n_segments, float& shift_um) {
  shift_um = 0;
  // Where channels follow the tissue, or it was measured and seen to stay, there is no jump left to
  // be found, but one of like units.
  if (!session.recording.motion.um.empty()) {
    return hand_overs_of_followed(session, noise, rules, units, n_segments);
  }
  std::vector<candidate> pairs = possible_pairs(session, units, n_segments, hand_over_energy);
  const std::int32_t jump = find_jump(session, rules, units, pairs);
  shift_um = static_cast<float>(jump);
  std::int32_t n_agreed = 0;
  assign(session, rules, units, jump, pairs, n_agreed);
  const std::vector<float> motion = find_motion(units, n_segments);
  const bool moves = motion_range(motion) >= motion_um;
  std::vector<hand_over> out;
  for (const candidate& p : pairs) {
    if (p.similarity < (jump != 0 ? jump_like : hand_over_like)) continue;
    const float way = home_depth(units[static_cast<std::size_t>(p.later)], motion) -
                      home_depth(units[static_cast<std::size_t>(p.earlier)], motion);
    // Without a depth of both there is no saying where they belong, and the comparison fails.
    const bool one = moves && std::fabs(static_cast<double>(way)) < home_error_um;
    out.push_back({p.earlier, p.later, p.similarity, p.overlap, jump != 0 || one});
  }
  return out;
}

}  // namespace kestrelvane

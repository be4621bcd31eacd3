#include "sorting/unit_joins.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "signal/tissue_motion.h"

namespace kestrelvane {

namespace {

// Crossing.
constexpr double close_ms = 0.5, apart_ms = 2.0;
constexpr double enough_expected = 5.0, crossing_part = 0.4;

// One waveform.
constexpr float join_reach_um = 110.0f;
constexpr float enough_recent = 12;
constexpr double like = 0.85, like_energy = 0.6;
constexpr double alike = 0.95, alike_energy = 0.85;
constexpr double least_square = 25.0, square_part = 0.06;
// On few channels a mean has few directions to be off in, and two units little room to differ.
constexpr std::size_t few_channels = 3;
constexpr double least_square_of_few = 10.0, square_part_of_few = 0.02;
constexpr double square_without_recent = 3.0;

// Hand-over.
constexpr double hand_over_like = 0.6, hand_over_energy = 0.65;
constexpr double largest_overlap = 0.35;
constexpr float motion_um = 5.0f;       // the recording moved
constexpr double home_error_um = 10.0;  // of two pieces of one unit
// Of two pieces of a unit where channels follow the tissue: the further apart they seem to lie, the
// more alike they must be.
constexpr double followed_like = 0.65, followed_like_per_um = 0.02, followed_way_um = 4;
constexpr std::size_t most_for_mean = 150;  // spikes
constexpr std::size_t fewest_for_motion = 6;
constexpr double energy_for_motion = 60;  // weaker units tell noise
// Jumps.
constexpr std::int32_t jump_reach = 60, jump_step = 5;  // µm
constexpr double jump_base = 0.5, jump_better = 1.2, jump_like = 0.75;
constexpr std::int32_t fewest_jumped = 5;
constexpr double kernel_um = 15.0;
constexpr double stayed_part = 0.2;  // of a unit's spikes on either side

double square_root_ratio(double a, double b) {
  const double largest = std::max(a, b);
  return largest > 0 ? std::sqrt(std::min(a, b) / largest) : 0.0;
}

// The squared distance of the stronger of two units from the best multiple of the other, less its
// bias; the larger one of those on the channels of either.
double distance_between(const noise_covariance& noise, match_window window, const tracked_unit& a,
                        const tracked_unit& b, const spike_shape& shape_a,
                        const spike_shape& shape_b, std::int32_t lag) {
  const bool order = a.filter.energy >= b.filter.energy;
  const spike_shape& strong = order ? shape_a : shape_b;
  const spike_shape& weak = order ? shape_b : shape_a;
  const auto on = [&](const unit_filter& filter) {
    return unbiased_distance(noise, window, strong, weak, order ? lag : -lag, filter.channels)
        .square;
  };
  return std::max(on(a.filter), on(b.filter));
}

}  // namespace

train_crossing count_crossings(const std::vector<std::int32_t>& a,
                               const std::vector<std::int32_t>& b, std::int32_t segment,
                               double sampling_frequency) {
  train_crossing out;
  const double per_ms = sampling_frequency / 1000.0;
  const auto close = static_cast<std::int32_t>(close_ms * per_ms);
  const auto apart = static_cast<std::int32_t>(apart_ms * per_ms);
  const double width = 2.0 * (apart_ms - close_ms) * per_ms / segment;
  std::size_t first = 0;
  for (const std::int32_t t : a) {
    while (first < b.size() && b[first] < t - apart) ++first;
    for (std::size_t k = first; k < b.size() && b[k] <= t + apart; ++k) {
      if (std::abs(b[k] - t) > close) out.observed += 1;
    }
  }
  for (std::size_t i = 0, k = 0; i < a.size();) {
    const std::int32_t which = a[i] / segment;
    double n_a = 0, n_b = 0;
    for (; i < a.size() && a[i] / segment == which; ++i) ++n_a;
    while (k < b.size() && b[k] / segment < which) ++k;
    for (; k < b.size() && b[k] / segment == which; ++k) ++n_b;
    out.expected += n_a * n_b * width;
  }
  return out;
}

bool trains_cross(const train_crossing& crossing) {
  return crossing.expected >= enough_expected &&
         crossing.observed >= crossing_part * crossing.expected;
}

double largest_distance_of_one(std::size_t n_channels, double energy) {
  return n_channels <= few_channels ? std::max(least_square_of_few, square_part_of_few * energy)
                                    : std::max(least_square, square_part * energy);
}

bool same_waveform(const session_state& session, const noise_covariance& noise,
                   const tracking_rules& rules, const tracked_unit& a, const tracked_unit& b,
                   std::string& why) {
  if (session.recording.distance(a.filter.main_channel, b.filter.main_channel) > join_reach_um) {
    return false;
  }
  const double energy = square_root_ratio(a.filter.energy, b.filter.energy);
  if (energy < like_energy) return false;
  const bool recent = a.recent.count >= enough_recent && b.recent.count >= enough_recent;
  const spike_shape& shape_a = recent ? a.recent : a.shape;
  const spike_shape& shape_b = recent ? b.recent : b.shape;
  const shape_likeness likeness =
      compare_shapes(shape_a, shape_b, rules.window.points, rules.half_ms);
  if (likeness.similarity < like) return false;
  const double square = distance_between(noise, rules.window, a, b, shape_a, shape_b, likeness.lag);
  const double least = std::min(a.filter.energy, b.filter.energy);
  const double limit =
      largest_distance_of_one(std::max(a.filter.channels.size(), b.filter.channels.size()), least);
  const bool one = recent ? square < limit
                          : (likeness.similarity > alike && energy > alike_energy) ||
                                square < square_without_recent;
  if (!one) return false;
  if (trains_cross(
          count_crossings(a.train, b.train, rules.segment, session.recording.sampling_frequency))) {
    return false;
  }
  why = fmt::format("similarity {:.2f}, distance {:.1f}", likeness.similarity, square);
  return true;
}

void join_units(std::vector<tracked_unit>& units, std::int32_t a, std::int32_t b) {
  tracked_unit& to = units[static_cast<std::size_t>(a)];
  tracked_unit& from = units[static_cast<std::size_t>(b)];
  const auto by_time = [](const tracked_spike& x, const tracked_spike& y) {
    return std::tie(x.time, x.phase) < std::tie(y.time, y.phase);
  };
  std::vector<tracked_spike> spikes;
  std::merge(to.spikes.begin(), to.spikes.end(), from.spikes.begin(), from.spikes.end(),
             std::back_inserter(spikes), by_time);
  to.spikes = std::move(spikes);
  to.energy_sum += from.energy_sum;
  std::vector<std::int32_t> train;
  std::merge(to.train.begin(), to.train.end(), from.train.begin(), from.train.end(),
             std::back_inserter(train));
  to.train = std::move(train);
  from.spikes = {};
  from.train = {};
  from.stage = unit_stage::joined;
  from.joined_to = a;
}

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

namespace {

// How far two units fire in the same segments: 0 never, 1 always.
double overlap_in_time(const tracked_unit& a, const tracked_unit& b, std::int32_t n_segments) {
  std::vector<double> n_a(static_cast<std::size_t>(n_segments)), n_b(n_a.size());
  for (const tracked_spike& s : a.spikes) n_a[static_cast<std::size_t>(s.segment)] += 1;
  for (const tracked_spike& s : b.spikes) n_b[static_cast<std::size_t>(s.segment)] += 1;
  double both = 0;
  for (std::size_t i = 0; i < n_a.size(); ++i) both += std::min(n_a[i], n_b[i]);
  const auto fewer = static_cast<double>(std::min(a.spikes.size(), b.spikes.size()));
  return fewer > 0 ? both / fewer : 1.0;
}

std::int32_t middle_of(const tracked_unit& unit) {
  return unit.spikes[unit.spikes.size() / 2].segment;
}

// A shape as it would be seen had the tissue moved by dy: each site reads what lay dy below it.
spike_shape moved_shape(const session_state& session, const spike_shape& shape, std::int32_t points,
                        double dy) {
  const recording_store& r = session.recording;
  spike_shape out = shape;
  for (std::size_t i = 0; i < shape.channels.size(); ++i) {
    float* to = out.row(i, points);
    std::fill(to, to + points, 0.0f);
    double weights = 0;
    for (std::size_t k = 0; k < shape.channels.size(); ++k) {
      const std::int32_t c = shape.channels[i], d = shape.channels[k];
      const double x = r.chan_x[c] - r.chan_x[d];
      const double y = r.chan_y[c] - dy - r.chan_y[d];
      const double weight = std::exp(-(x * x + y * y) / (2 * kernel_um * kernel_um));
      if (weight < 1e-3) continue;
      weights += weight;
      const float* from = shape.row(k, points);
      for (std::int32_t q = 0; q < points; ++q) to[q] += static_cast<float>(weight) * from[q];
    }
    if (weights <= 0) continue;
    for (std::int32_t q = 0; q < points; ++q) to[q] /= static_cast<float>(weights);
  }
  return out;
}

struct candidate {
  std::int32_t earlier, later;
  double energy, overlap;
  double similarity;
};

// Pairs that do not fire together, and lie near enough for the largest jump.
std::vector<candidate> possible_pairs(const session_state& session,
                                      const std::vector<tracked_unit>& units,
                                      std::int32_t n_segments) {
  std::vector<candidate> out;
  const auto n = static_cast<std::int32_t>(units.size());
  for (std::int32_t a = 0; a < n; ++a) {
    for (std::int32_t b = a + 1; b < n; ++b) {
      const tracked_unit& x = units[static_cast<std::size_t>(a)];
      const tracked_unit& y = units[static_cast<std::size_t>(b)];
      if (x.spikes.empty() || y.spikes.empty()) continue;
      const float away = session.recording.distance(x.filter.main_channel, y.filter.main_channel);
      if (away > join_reach_um) continue;
      const double energy = square_root_ratio(x.mean_energy(), y.mean_energy());
      const double overlap = overlap_in_time(x, y, n_segments);
      if (energy < hand_over_energy || overlap >= largest_overlap) continue;
      const bool order = middle_of(x) <= middle_of(y);
      out.push_back({order ? a : b, order ? b : a, energy, overlap, 0});
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
  std::stable_sort(pairs.begin(), pairs.end(), [](const candidate& a, const candidate& b) {
    return a.similarity > b.similarity;
  });
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

}  // namespace

namespace {

// Similarities of what the spikes of both are in the mean. Where channels follow the tissue a unit
// is everywhere the same, and its last shape may be that of something else it has strayed to.
void compare_means(const session_state& session, const noise_covariance& noise,
                   const tracking_rules& rules, const std::vector<tracked_unit>& units,
                   std::vector<candidate>& pairs) {
  std::vector<spike_shape> means(units.size());
  const auto mean_of = [&](std::int32_t u) -> const spike_shape& {
    const tracked_unit& unit = units[static_cast<std::size_t>(u)];
    spike_shape& mean = means[static_cast<std::size_t>(u)];
    if (mean.channels.empty()) {
      mean = mean_of_spikes(session, noise, rules.window, evenly(unit.spikes, most_for_mean),
                            unit.shape.channels);
    }
    return mean;
  };
  for (candidate& p : pairs) {
    p.similarity =
        compare_shapes(mean_of(p.earlier), mean_of(p.later), rules.window.points, rules.half_ms)
            .similarity;
  }
  std::stable_sort(pairs.begin(), pairs.end(), [](const candidate& a, const candidate& b) {
    return a.similarity > b.similarity;
  });
}

// Where the tissue was in the mean at the spikes of a unit, µm.
double mean_motion(const session_state& session, const tracked_unit& unit) {
  const recording_store& r = session.recording;
  double sum = 0;
  for (const tracked_spike& s : unit.spikes) {
    sum += motion_at(r.motion, static_cast<double>(s.time) / r.sampling_frequency);
  }
  return sum / static_cast<double>(unit.spikes.size());
}

// How far the tissue went from one unit to the other when channels have followed it: the two read
// the tissue through other sites then, and what is left of that may have made them two.
double followed_way(const session_state& session, const std::vector<tracked_unit>& units,
                    const candidate& p) {
  if (!session.recording.motion.corrected) return 0;
  return std::fabs(mean_motion(session, units[static_cast<std::size_t>(p.later)]) -
                   mean_motion(session, units[static_cast<std::size_t>(p.earlier)]));
}

}  // namespace

std::vector<hand_over> find_hand_overs(const session_state& session, const noise_covariance& noise,
                                       const tracking_rules& rules,
                                       const std::vector<tracked_unit>& units,
                                       std::int32_t n_segments, float& shift_um) {
  std::vector<candidate> pairs = possible_pairs(session, units, n_segments);
  const bool followed = session.recording.motion.corrected;
  // Where channels follow the tissue there is no jump left to be found, but one of like units.
  const std::int32_t jump = followed ? 0 : find_jump(session, rules, units, pairs);
  shift_um = static_cast<float>(jump);
  std::int32_t n_agreed = 0;
  if (followed) {
    compare_means(session, noise, rules, units, pairs);
  } else {
    assign(session, rules, units, jump, pairs, n_agreed);
  }
  const std::vector<float> motion = find_motion(units, n_segments);
  const bool moves = !followed && motion_range(motion) >= motion_um;
  std::vector<hand_over> out;
  for (const candidate& p : pairs) {
    if (p.similarity < (jump != 0 ? jump_like : hand_over_like)) continue;
    const float way = home_depth(units[static_cast<std::size_t>(p.later)], motion) -
                      home_depth(units[static_cast<std::size_t>(p.earlier)], motion);
    // Without a depth of both there is no saying where they belong, and the comparison fails.
    const double off = std::fabs(static_cast<double>(way));
    const bool one = followed ? p.similarity >= followed_like + off * followed_like_per_um &&
                                    followed_way(session, units, p) >= followed_way_um
                              : moves && off < home_error_um;
    out.push_back({p.earlier, p.later, p.similarity, p.overlap, jump != 0 || one});
  }
  return out;
}

}  // namespace kestrelvane

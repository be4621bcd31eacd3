#include "sorting/mixed_units.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <tuple>

#include "numerics/small_matrix.h"
#include "sorting/hand_overs.h"
#include "sorting/unit_joins.h"

namespace kestrelvane {

namespace {

constexpr std::size_t fewest_of_group = 15, most_looked_at = 400, most_for_mean = 150;
constexpr std::size_t most_channels = 8;
constexpr double before_ms = 0.4, after_ms = 0.8;  // of the time of a spike
constexpr std::int32_t point_step = 2;             // samples
constexpr std::size_t n_components = 3;
constexpr int component_rounds = 30, group_rounds = 12;
// Between the groups: spikes in a band round the middle, over those in one as wide round the centre
// of the smaller; it is a quarter of the way between the centres.
constexpr double band = 0.125, largest_between = 0.4;
// Groups far apart may have more between them, of collisions; with few between they are two at a
// smaller distance of their waveforms.
constexpr double far_apart = 4.5, largest_between_far = 0.5, clear_between = 0.2, clear_part = 0.65;
constexpr double least_apart = 3.5;  // centres, over the root of the mean variance of both
// A few spikes of a hundred are the collisions of one neighbour, or what it leaves; they are no
// unit.
constexpr double least_part = 0.12;
constexpr double largest_spread = 30;  // of three components of noise 1: no group, but all sorts
// Of times.
constexpr double least_overlap = 0.35;
constexpr std::size_t fewest_by_turn = 30;  // on either side
constexpr double burst_ms = 15, burst_part = 0.5, burst_times = 2;

typedef std::array<double, n_components> point;

double square_between(const point& a, const point& b) {
  double sum = 0;
  for (std::size_t k = 0; k < n_components; ++k) sum += (a[k] - b[k]) * (a[k] - b[k]);
  return sum;
}

// ---------------------------------------------------------------- spikes as they are alone

// Which values of a spike are looked at, and the noise of these.
struct look {
  std::vector<std::int32_t> channels;
  std::int32_t first = 0, n_points = 0;
  std::vector<double> root;  // of the noise covariance, lower triangle, by rows

  std::size_t size() const { return channels.size() * static_cast<std::size_t>(n_points); }
};

std::vector<std::int32_t> largest_channels(const tracked_unit& unit, std::int32_t points) {
  std::vector<std::int32_t> channels = unit.filter.channels;
  const auto peak = [&](std::int32_t c) {
    const float* row = unit.shape.find(c, points);
    float largest = 0;
    for (std::int32_t q = 0; row != nullptr && q < points; ++q) {
      largest = std::max(largest, std::fabs(row[q]));
    }
    return largest;
  };
  std::stable_sort(channels.begin(), channels.end(),
                   [&](std::int32_t a, std::int32_t b) { return peak(a) > peak(b); });
  if (channels.size() > most_channels) channels.resize(most_channels);
  std::sort(channels.begin(), channels.end());
  return channels;
}

void set_root(const noise_covariance& noise, look& l) {
  const std::size_t n = l.size();
  const auto n_points = static_cast<std::size_t>(l.n_points);
  l.root.assign(n * n, 0.0);
  for (std::size_t a = 0; a < n; ++a) {
    for (std::size_t b = 0; b <= a; ++b) {
      const float* lags = noise.of(l.channels[a / n_points], l.channels[b / n_points]);
      const auto lag =
          (static_cast<std::int32_t>(b % n_points) - static_cast<std::int32_t>(a % n_points)) *
          point_step;
      double& element = l.root[a * n + b];
      if (lags != nullptr) element = static_cast<double>(lags[lag + noise.points - 1]);
      if (a == b) element += static_cast<double>(filter_ridge);
    }
  }
  take_root(l.root, n, static_cast<double>(filter_ridge));
}

look look_at(const session_state& session, const noise_covariance& noise,
             const tracking_rules& rules, const tracked_unit& unit) {
  const double per_ms = session.recording.sampling_frequency / 1000.0;
  const auto before = static_cast<std::int32_t>(before_ms * per_ms);
  const auto after = static_cast<std::int32_t>(after_ms * per_ms);
  look l;
  l.channels = largest_channels(unit, rules.window.points);
  l.first = std::max(0, rules.window.before - before);
  const std::int32_t end = std::min(rules.window.points, rules.window.before + after);
  l.n_points = std::max(1, (end - l.first) / point_step);
  set_root(noise, l);
  return l;
}

// A spike in units of its noise.
std::vector<double> whitened(const session_state& session, const noise_covariance& noise,
                             const spike_crowd& crowd, const look& l, std::int32_t place) {
  const spike_shape alone =
      mean_without_others(session, noise, crowd.set, crowd.spikes, {place}, l.channels);
  const std::size_t n = l.size();
  const auto n_points = static_cast<std::size_t>(l.n_points);
  std::vector<double> out(n);
  for (std::size_t a = 0; a < n; ++a) {
    const float* row = alone.row(a / n_points, crowd.set.window.points);
    out[a] =
        static_cast<double>(row[l.first + static_cast<std::int32_t>(a % n_points) * point_step]);
  }
  solve_by_root(l.root, out);
  return out;
}

// ---------------------------------------------------------------- components

typedef std::vector<std::vector<double>> rows;

// Spikes of one neuron differ in size: what is a multiple of the mean tells nothing.
void take_mean_out(const std::vector<double>& mean, std::vector<double>& spike) {
  const double part = dot(spike, mean) / std::max(dot(mean, mean), 1e-30);
  for (std::size_t k = 0; k < mean.size(); ++k) spike[k] -= part * mean[k];
}

// The directions in which spikes differ most, by iteration of a subspace; spikes hold no mean.
rows find_components(const rows& spikes) {
  const std::size_t n = spikes.front().size();
  rows components(n_components, std::vector<double>(n));
  // From spikes far apart in the list: directions that are there.
  for (std::size_t k = 0; k < n_components; ++k) {
    components[k] = spikes[k * (spikes.size() - 1) / n_components];
    components[k][k % n] += 1e-3;
  }
  for (int round = 0; round <= component_rounds; ++round) {
    for (std::size_t k = 0; k < n_components; ++k) {
      for (std::size_t m = 0; m < k; ++m) {
        const double part = dot(components[k], components[m]);
        for (std::size_t i = 0; i < n; ++i) components[k][i] -= part * components[m][i];
      }
      const double norm = std::sqrt(std::max(dot(components[k], components[k]), 1e-30));
      for (double& v : components[k]) v /= norm;
    }
    if (round == component_rounds) break;
    rows next(n_components, std::vector<double>(n));
    for (const std::vector<double>& spike : spikes) {
      for (std::size_t k = 0; k < n_components; ++k) {
        const double by = dot(spike, components[k]);
        for (std::size_t i = 0; i < n; ++i) next[k][i] += by * spike[i];
      }
    }
    components = std::move(next);
  }
  return components;
}

// ---------------------------------------------------------------- groups

struct two_groups {
  point centres[2] = {};
  std::size_t counts[2] = {};
  double apart = 0, between = 1;
  double spreads[2] = {};  // mean squared distance from the centre

  bool second(const point& p) const {
    return square_between(p, centres[1]) < square_between(p, centres[0]);
  }
};

// Lloyd's iteration from the spikes on either side of the mean along one component.
two_groups group(const std::vector<point>& points, std::size_t along) {
  two_groups g;
  std::vector<bool> second(points.size());
  for (std::size_t i = 0; i < points.size(); ++i) second[i] = points[i][along] > 0;
  for (int round = 0; round < group_rounds; ++round) {
    two_groups next;
    for (std::size_t i = 0; i < points.size(); ++i) {
      ++next.counts[second[i]];
      for (std::size_t k = 0; k < n_components; ++k) next.centres[second[i]][k] += points[i][k];
    }
    if (next.counts[0] == 0 || next.counts[1] == 0) break;
    for (std::size_t s = 0; s < 2; ++s) {
      for (double& v : next.centres[s]) v /= static_cast<double>(next.counts[s]);
    }
    g = next;
    for (std::size_t i = 0; i < points.size(); ++i) second[i] = g.second(points[i]);
  }
  return g;
}

// Along the line from centre to centre, 0 to 1.
void measure_groups(const std::vector<point>& points, two_groups& g) {
  const double square = square_between(g.centres[0], g.centres[1]);
  if (!(square > 0)) return;
  double variance = 0;
  g.spreads[0] = g.spreads[1] = 0;
  std::size_t near[2] = {}, middle = 0;
  for (const point& p : points) {
    double at = 0;
    for (std::size_t k = 0; k < n_components; ++k) {
      at += (p[k] - g.centres[0][k]) * (g.centres[1][k] - g.centres[0][k]) / square;
    }
    const std::size_t side = g.second(p);
    const double off = at - static_cast<double>(side);
    g.spreads[side] += square_between(p, g.centres[side]) / static_cast<double>(g.counts[side]);
    variance += off * off * square / static_cast<double>(points.size());
    near[side] += std::fabs(off) < band;
    middle += std::fabs(at - 0.5) < band;
  }
  const std::size_t smaller = g.counts[1] < g.counts[0];
  g.apart = std::sqrt(square / std::max(variance, 1e-30));
  g.between = static_cast<double>(middle) / std::max(1.0, static_cast<double>(near[smaller]));
}

bool are_two(const two_groups& g) {
  const std::size_t smaller = std::min(g.counts[0], g.counts[1]);
  const auto all = static_cast<double>(g.counts[0] + g.counts[1]);
  return smaller >= fewest_of_group && static_cast<double>(smaller) >= least_part * all &&
         std::max(g.spreads[0], g.spreads[1]) <= largest_spread && g.apart >= least_apart &&
         g.between <= (g.apart >= far_apart ? largest_between_far : largest_between);
}

// ---------------------------------------------------------------- what speaks against two

std::vector<std::int32_t> places_of(const spike_crowd& crowd, std::int32_t unit) {
  std::vector<std::int32_t> places;
  for (std::size_t i = 0; i < crowd.spikes.size(); ++i) {
    if (crowd.spikes[i].unit == unit) places.push_back(static_cast<std::int32_t>(i));
  }
  return places;
}

std::vector<std::int32_t> of_group(const std::vector<std::int32_t>& places,
                                   const std::vector<bool>& second, bool which, std::size_t limit) {
  std::vector<std::int32_t> all, out;
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (second[i] == which) all.push_back(places[i]);
  }
  const std::size_t n = std::min(limit, all.size());
  for (std::size_t i = 0; i < n; ++i) out.push_back(all[i * all.size() / n]);
  return out;
}

// Most of the smaller group soon after spikes of the larger: the later spikes of bursts.
bool is_burst(const session_state& session, const tracked_unit& unit,
              const std::vector<bool>& second) {
  const auto n_second = static_cast<std::size_t>(std::count(second.begin(), second.end(), true));
  const bool small = 2 * n_second <= second.size();  // the group that is the smaller one
  const auto reach =
      static_cast<std::int32_t>(burst_ms * session.recording.sampling_frequency / 1000.0);
  std::size_t n_small = 0, n_soon = 0;
  std::int64_t last = INT32_MIN;
  for (std::size_t i = 0; i < unit.spikes.size(); ++i) {
    if (second[i] != small) {
      last = unit.spikes[i].time;
      continue;
    }
    ++n_small;
    n_soon += unit.spikes[i].time - last <= reach;
  }
  const double rate = static_cast<double>(unit.spikes.size() - n_small) /
                      static_cast<double>(session.recording.n_samples);
  const double part =
      static_cast<double>(n_soon) / static_cast<double>(std::max<std::size_t>(1, n_small));
  return part > burst_part && part > burst_times * rate * reach;
}

// What the spikes of either group are in the mean.
struct group_means {
  spike_shape of[2];
};
group_means means_of_groups(const session_state& session, const noise_covariance& noise,
                            const spike_crowd& crowd, const tracked_unit& unit,
                            const std::vector<std::int32_t>& places,
                            const std::vector<bool>& second) {
  group_means means;
  for (const bool which : {false, true}) {
    means.of[which] =
        mean_without_others(session, noise, crowd.set, crowd.spikes,
                            of_group(places, second, which, most_for_mean), unit.filter.channels);
  }
  return means;
}

// The squared distance of the stronger group's waveform from the best multiple of the other.
double distance_of_groups(const noise_covariance& noise, const tracking_rules& rules,
                          const tracked_unit& unit, const group_means& means) {
  const bool strong = square_sum(means.of[1]) > square_sum(means.of[0]);
  const shape_likeness likeness =
      compare_shapes(means.of[strong], means.of[!strong], rules.window.points, rules.half_ms);
  return unbiased_distance(noise, rules.window, means.of[strong], means.of[!strong], likeness.lag,
                           unit.filter.channels)
      .square;
}

// Whether they come one after the other: in few stretches both.
bool in_turn(const tracked_unit& unit, const std::vector<bool>& second) {
  std::vector<double> counts[2];
  double n[2] = {};
  for (std::size_t i = 0; i < unit.spikes.size(); ++i) {
    const auto segment = static_cast<std::size_t>(unit.spikes[i].segment);
    for (auto& c : counts) c.resize(std::max(c.size(), segment + 1));
    counts[second[i]][segment] += 1;
    n[second[i]] += 1;
  }
  double both = 0;
  for (std::size_t k = 0; k < counts[0].size(); ++k) {
    both += std::min(counts[0][k] / n[0], counts[1][k] / n[1]);
  }
  return both < least_overlap;
}

// The trains of both groups, and where the tissue was in the mean.
struct two_trains {
  std::vector<std::int32_t> times[2];
  double places[2] = {};
  bool first = false;  // the group that is the earlier
};
two_trains trains_of(const recording_store& r, const tracked_unit& unit,
                     const std::vector<bool>& second) {
  two_trains trains;
  for (std::size_t i = 0; i < unit.spikes.size(); ++i) {
    trains.times[second[i]].push_back(unit.spikes[i].time);
  }
  const auto middle = [&](bool which) {
    return trains.times[which][trains.times[which].size() / 2];
  };
  trains.first = middle(true) < middle(false);
  for (const bool which : {false, true}) {
    trains.places[which] = mean_place(r, trains.times[which]);
  }
  return trains;
}

bool groups_stand_apart(const session_state& session, const tracking_rules& rules,
                        const group_means& means, const two_trains& trains) {
  return stand_apart(find_way_where_seen(session, rules, means.of[0], trains.places[0], means.of[1],
                                         trains.places[1]),
                     drifted_closer);
}

// Whether the tissue may have made two groups of one neuron: they are as much alike as that leaves
// them, and go with its movement, or do not stand apart where they come one after the other. Where
// its movement was not measured any two are suspect of which one stops as the other starts.
bool is_movement(const session_state& session, const tracking_rules& rules,
                 const tracked_unit& unit, const group_means& means,
                 const std::vector<bool>& second) {
  const recording_store& r = session.recording;
  if (r.motion.um.empty()) return in_turn(unit, second);
  const two_trains trains = trains_of(r, unit, second);
  const double likeness =
      likeness_where_seen(r, rules, means.of[0], trains.places[0], means.of[1], trains.places[1]);
  if (likeness < followed_like) return false;
  double turn_s = 0;
  const passage way =
      find_passage(r, trains.times[trains.first], trains.times[!trains.first], turn_s);
  if (way == passage::leap || way == passage::swing) return true;
  return (way == passage::drift || in_turn(unit, second)) &&
         !groups_stand_apart(session, rules, means, trains);
}

}  // namespace

spike_crowd make_crowd(const tracking_rules& rules, const std::vector<tracked_unit>& units) {
  spike_crowd crowd;
  crowd.set.window = rules.window;
  crowd.set.limits = rules.limits;
  for (std::size_t u = 0; u < units.size(); ++u) {
    crowd.set.units.push_back(units[u].filter);
    for (const tracked_spike& s : units[u].spikes) {
      crowd.spikes.push_back(
          {s.time, s.phase, static_cast<std::int32_t>(u), 0, s.amplitude, s.gain});
    }
  }
  std::stable_sort(crowd.spikes.begin(), crowd.spikes.end(),
                   [](const found_spike& a, const found_spike& b) {
                     return std::tie(a.time, a.phase, a.unit) < std::tie(b.time, b.phase, b.unit);
                   });
  return crowd;
}

namespace {

// What one look at a unit's spikes comes to: how a spike is projected, and two groups at best.
struct grouping {
  look seen;
  std::vector<double> mean;
  rows components;
  std::vector<std::size_t> looked_at;  // of the unit's spikes, ascending
  std::vector<point> points;           // of these
  two_groups groups;
};

point project(const grouping& g, std::vector<double> spike) {
  take_mean_out(g.mean, spike);
  point p;
  for (std::size_t k = 0; k < n_components; ++k) p[k] = dot(spike, g.components[k]);
  return p;
}

// Evenly, but not in step with anything: two neurons may take turns.
std::vector<std::size_t> spikes_to_look_at(std::size_t n_spikes) {
  const std::size_t n = std::min(n_spikes, most_looked_at);
  std::vector<std::size_t> out(n);
  for (std::size_t i = 0; i < n; ++i) {
    out[i] = std::min(i * n_spikes / n + i * i % (n_spikes / n), n_spikes - 1);
  }
  return out;
}

void find_groups(const rows& spikes, grouping& g) {
  g.mean.assign(g.seen.size(), 0.0);
  for (const auto& spike : spikes) {
    for (std::size_t k = 0; k < g.mean.size(); ++k) {
      g.mean[k] += spike[k] / static_cast<double>(spikes.size());
    }
  }
  rows varied = spikes;
  for (auto& spike : varied) take_mean_out(g.mean, spike);
  g.components = find_components(varied);
  for (const auto& spike : spikes) g.points.push_back(project(g, spike));
  for (std::size_t along = 0; along < n_components; ++along) {
    two_groups groups = group(g.points, along);
    measure_groups(g.points, groups);
    if (are_two(groups) && (!are_two(g.groups) || groups.apart > g.groups.apart)) {
      g.groups = groups;
    }
  }
}

grouping look_for_groups(const session_state& session, const noise_covariance& noise,
                         const tracking_rules& rules, const spike_crowd& crowd,
                         const tracked_unit& unit, const std::vector<std::int32_t>& places) {
  grouping g;
  g.seen = look_at(session, noise, rules, unit);
  g.looked_at = spikes_to_look_at(places.size());
  rows spikes;
  for (const std::size_t i : g.looked_at) {
    spikes.push_back(whitened(session, noise, crowd, g.seen, places[i]));
  }
  find_groups(spikes, g);
  return g;
}

// Two groups with next to nothing between them.
bool is_two_by_groups(const session_state& session, const noise_covariance& noise,
                      const tracking_rules& rules, const spike_crowd& crowd, const grouping& g,
                      const tracked_unit& unit, const std::vector<std::int32_t>& places,
                      mixture& found) {
  if (!are_two(g.groups)) return false;
  found.second.clear();
  for (const std::int32_t place : places) {
    const point p = project(g, whitened(session, noise, crowd, g.seen, place));
    found.second.push_back(g.groups.second(p));
  }
  const auto n_second =
      static_cast<std::size_t>(std::count(found.second.begin(), found.second.end(), true));
  if (std::min(n_second, places.size() - n_second) < fewest_of_group) return false;
  found.apart = g.groups.apart;
  const group_means means = means_of_groups(session, noise, crowd, unit, places, found.second);
  found.distance = distance_of_groups(noise, rules, unit, means);
  const bool clear = g.groups.apart >= far_apart && g.groups.between <= clear_between;
  const double limit = largest_distance_of_one(unit.filter.channels.size(), unit.mean_energy());
  return found.distance >= (clear ? clear_part * limit : limit) &&
         !is_movement(session, rules, unit, means, found.second) &&
         !is_burst(session, unit, found.second);
}

// Of points in the order of time, how many come before the cut that sets the centres before and
// after it farthest apart, weighed by how many there are.
std::size_t best_turn(const std::vector<point>& points) {
  const auto n = static_cast<double>(points.size());
  point all = {}, before = {};
  for (const point& p : points) {
    for (std::size_t k = 0; k < n_components; ++k) all[k] += p[k];
  }
  double best = 0;
  std::size_t turn = 0;
  for (std::size_t i = 0; i + 1 < points.size(); ++i) {
    const auto n_before = static_cast<double>(i + 1);
    double square = 0;
    for (std::size_t k = 0; k < n_components; ++k) {
      before[k] += points[i][k];
      const double off = before[k] - n_before / n * all[k];
      square += off * off;
    }
    const double weighed = square / (n_before * (n - n_before));
    if (weighed > best) best = weighed, turn = i + 1;
  }
  return turn;
}

// One neuron that falls silent as a neighbour of its kind awakes: too small to make two groups, but
// from one moment on the unit stands in another place, where the tissue does not move.
bool is_two_by_turn(const session_state& session, const noise_covariance& noise,
                    const tracking_rules& rules, const spike_crowd& crowd, const grouping& g,
                    const tracked_unit& unit, const std::vector<std::int32_t>& places,
                    mixture& found) {
  if (session.recording.motion.um.empty()) return false;
  const std::size_t turn = best_turn(g.points);
  if (turn == 0) return false;
  const std::size_t first = g.looked_at[turn];
  if (std::min(first, places.size() - first) < fewest_by_turn) return false;
  found.second.assign(places.size(), false);
  std::fill(found.second.begin() + static_cast<std::ptrdiff_t>(first), found.second.end(), true);
  found.apart = 0;
  const group_means means = means_of_groups(session, noise, crowd, unit, places, found.second);
  found.distance = distance_of_groups(noise, rules, unit, means);
  return found.distance >=
             largest_distance_of_one(unit.filter.channels.size(), unit.mean_energy()) &&
         groups_stand_apart(session, rules, means,
                            trains_of(session.recording, unit, found.second)) &&
         !is_movement(session, rules, unit, means, found.second);
}

}  // namespace

bool find_mixture(const session_state& session, const noise_covariance& noise,
                  const tracking_rules& rules, const spike_crowd& crowd,
                  const std::vector<tracked_unit>& units, std::int32_t unit, mixture& found) {
  const tracked_unit& whole = units[static_cast<std::size_t>(unit)];
  if (whole.spikes.size() < 2 * fewest_of_group || whole.filter.channels.empty()) return false;
  const std::vector<std::int32_t> places = places_of(crowd, unit);
  const grouping g = look_for_groups(session, noise, rules, crowd, whole, places);
  return is_two_by_groups(session, noise, rules, crowd, g, whole, places, found) ||
         is_two_by_turn(session, noise, rules, crowd, g, whole, places, found);
}

namespace {

void keep_group(const session_state& session, const noise_covariance& noise,
                const tracking_rules& rules, const spike_crowd& crowd,
                const std::vector<std::int32_t>& places, const mixture& found, bool which,
                tracked_unit& unit) {
  std::vector<tracked_spike> spikes;
  std::vector<float> amplitudes;
  for (std::size_t i = 0; i < unit.spikes.size(); ++i) {
    if (found.second[i] != which) continue;
    spikes.push_back(unit.spikes[i]);
    amplitudes.push_back(unit.spikes[i].amplitude);
  }
  unit.shape = mean_without_others(session, noise, crowd.set, crowd.spikes,
                                   of_group(places, found.second, which, most_for_mean),
                                   unit.shape.channels);
  unit.first = unit.recent = unit.shape;
  unit.spikes = std::move(spikes);
  unit.train.clear();
  for (const tracked_spike& s : unit.spikes) unit.train.push_back(s.time);
  // Amplitudes were those of a template between the two.
  const auto middle = amplitudes.begin() + static_cast<std::ptrdiff_t>(amplitudes.size() / 2);
  std::nth_element(amplitudes.begin(), middle, amplitudes.end());
  for (tracked_spike& s : unit.spikes) s.amplitude /= std::max(*middle, 1e-3f);
  renew_filter(session, noise, rules, unit);
  unit.energy_sum = unit.filter.energy * static_cast<double>(unit.spikes.size());
}

}  // namespace

tracked_unit take_second(const session_state& session, const noise_covariance& noise,
                         const tracking_rules& rules, const spike_crowd& crowd, std::int32_t unit,
                         const mixture& found, tracked_unit& rest) {
  const std::vector<std::int32_t> places = places_of(crowd, unit);
  tracked_unit second = rest;
  keep_group(session, noise, rules, crowd, places, found, true, second);
  keep_group(session, noise, rules, crowd, places, found, false, rest);
  return second;
}

}  // namespace kestrelvane

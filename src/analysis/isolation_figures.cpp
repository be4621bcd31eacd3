#include "analysis/isolation_figures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

#include "clustering/principal_components.h"
#include "numerics/gauss_jordan.h"
#include "numerics/special_functions.h"

namespace kestrelvane {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();
constexpr std::int32_t fewest_points = 20;

// ---------------------------------------------------------------- moments

std::vector<double> mean_of(const feature_points& points) {
  std::vector<double> mean(static_cast<std::size_t>(points.dimensions));
  for (std::int32_t i = 0; i < points.size(); ++i) {
    for (std::int32_t d = 0; d < points.dimensions; ++d) mean[d] += double{points.point(i)[d]};
  }
  for (double& m : mean) m /= std::max(1, points.size());
  return mean;
}

// Added to what is there.
void add_covariance(const feature_points& points, const std::vector<double>& mean,
                    std::vector<double>& covariance) {
  const std::int32_t n = points.dimensions;
  const double freedom = std::max(1, points.size() - 1);
  for (std::int32_t i = 0; i < points.size(); ++i) {
    const float* p = points.point(i);
    for (std::int32_t d = 0; d < n; ++d) {
      for (std::int32_t k = 0; k < n; ++k) {
        covariance[d * n + k] += (double{p[d]} - mean[d]) * (double{p[k]} - mean[k]) / freedom;
      }
    }
  }
}

// In the width of the solver; b becomes the solution. False for what is flat in some direction.
bool invert(const std::vector<double>& from, std::int32_t n, std::vector<float>& inverse,
            std::vector<float>& b) {
  inverse.assign(from.begin(), from.end());
  b.resize(static_cast<std::size_t>(n));
  double largest = 0;
  for (std::int32_t d = 0; d < n; ++d) largest = std::max(largest, from[d * n + d]);
  // Beyond single precision nothing is left of the direction.
  for (std::int32_t d = 0; d < n; ++d) {
    if (!(from[d * n + d] > 1e-6 * largest)) return false;
  }
  return gauss_jordan(inverse.data(), n, n, b.data());
}

}  // namespace

std::vector<double> mahalanobis_distances(const feature_points& unit,
                                          const feature_points& others) {
  const std::int32_t n = unit.dimensions;
  if (unit.size() < fewest_points) return {};
  const std::vector<double> mean = mean_of(unit);
  std::vector<double> covariance(static_cast<std::size_t>(n) * n), away(mean.size());
  add_covariance(unit, mean, covariance);
  std::vector<float> inverse, unused;
  if (!invert(covariance, n, inverse, unused)) return {};
  std::vector<double> distances;
  for (std::int32_t i = 0; i < others.size(); ++i) {
    double sum = 0;
    for (std::int32_t d = 0; d < n; ++d) away[d] = double{others.point(i)[d]} - mean[d];
    for (std::int32_t d = 0; d < n; ++d) {
      for (std::int32_t k = 0; k < n; ++k) sum += away[d] * double{inverse[d * n + k]} * away[k];
    }
    distances.push_back(std::max(0.0, sum));
  }
  return distances;
}

double isolation_distance(std::span<const double> distances, std::span<const double> weights,
                          double n_spikes) {
  std::vector<std::size_t> order(distances.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return distances[a] < distances[b]; });
  double n = 0;
  for (const std::size_t i : order) {
    n += weights[i];
    if (n >= n_spikes) return distances[i];
  }
  return unknown;
}

double l_ratio(std::span<const double> distances, std::span<const double> weights, double n_spikes,
               std::int32_t dimensions) {
  if (distances.empty() || !(n_spikes > 0)) return unknown;
  // Beyond it the probability is below what single precision holds.
  constexpr double furthest = 300;
  double sum = 0;
  for (std::size_t i = 0; i < distances.size(); ++i) {
    const double half = std::min(distances[i], furthest) / 2;
    sum += weights[i] * double{gammq(static_cast<float>(dimensions) / 2, static_cast<float>(half))};
  }
  return sum / n_spikes;
}

// ---------------------------------------------------------------- nearest neighbours

namespace {

// m of them, evenly.
feature_points thin(const feature_points& points, std::int32_t m) {
  feature_points kept{points.dimensions, {}};
  for (std::int64_t i = 0; i < m; ++i) {
    const float* p = points.point(static_cast<std::int32_t>(i * points.size() / m));
    kept.values.insert(kept.values.end(), p, p + points.dimensions);
  }
  return kept;
}

constexpr std::int32_t n_nearest = 4;

// Of the nearest neighbours of a point, how many are among the first so many; of two that are
// equally near, the one that stands earlier.
std::int32_t count_nearest(const feature_points& all, std::int32_t at, std::int32_t n_first) {
  std::array<float, n_nearest> nearest;
  std::array<bool, n_nearest> first{};
  nearest.fill(std::numeric_limits<float>::infinity());
  const float* p = all.point(at);
  for (std::int32_t i = 0; i < all.size(); ++i) {
    if (i == at) continue;
    const float* q = all.point(i);
    float sum = 0;
    for (std::int32_t d = 0; d < all.dimensions; ++d) sum += (p[d] - q[d]) * (p[d] - q[d]);
    if (!(sum < nearest.back())) continue;
    std::size_t k = n_nearest - 1;
    for (; k > 0 && sum < nearest[k - 1]; --k) {
      nearest[k] = nearest[k - 1];
      first[k] = first[k - 1];
    }
    nearest[k] = sum;
    first[k] = i < n_first;
  }
  return static_cast<std::int32_t>(std::count(first.begin(), first.end(), true));
}

}  // namespace

neighbour_rates nearest_neighbour_rates(const feature_points& unit, const feature_points& others) {
  // A look at every pair of points; more of them change nothing in the second digit.
  constexpr std::int32_t most = 500;
  const std::int32_t m = std::min({most, unit.size(), others.size()});
  if (m < fewest_points) return {unknown, unknown};
  feature_points all = thin(unit, m);
  const feature_points beside = thin(others, m);
  all.values.insert(all.values.end(), beside.values.begin(), beside.values.end());
  std::int64_t own = 0, foreign = 0;
  for (std::int32_t i = 0; i < m; ++i) own += count_nearest(all, i, m);
  for (std::int32_t i = m; i < 2 * m; ++i) foreign += count_nearest(all, i, m);
  const double n = double{n_nearest} * m;
  return {static_cast<double>(own) / n, static_cast<double>(foreign) / n};
}

// ---------------------------------------------------------------- the nearest unit

namespace {

struct line_points {
  std::vector<double> places;
  double mean = 0, variance = 0;
};

line_points project(const feature_points& points, const std::vector<float>& axis) {
  line_points line;
  for (std::int32_t i = 0; i < points.size(); ++i) {
    double sum = 0;
    for (std::int32_t d = 0; d < points.dimensions; ++d) {
      sum += double{points.point(i)[d]} * double{axis[d]};
    }
    line.places.push_back(sum);
    line.mean += sum;
  }
  line.mean /= points.size();
  for (const double p : line.places) line.variance += (p - line.mean) * (p - line.mean);
  line.variance /= points.size() - 1;
  return line;
}

// Logarithm of a Gaussian that is n high, but for what is the same for all.
double log_density(const line_points& line, double n, double place) {
  return std::log(n) - 0.5 * std::log(line.variance) -
         (place - line.mean) * (place - line.mean) / (2 * line.variance);
}

}  // namespace

separation separate(const feature_points& unit, const feature_points& other, double n_unit,
                    double n_other) {
  if (std::min(unit.size(), other.size()) < fewest_points) return {unknown, unknown};
  const std::vector<double> a = mean_of(unit), b = mean_of(other);
  std::vector<double> within(a.size() * a.size());
  add_covariance(unit, a, within);
  add_covariance(other, b, within);
  std::vector<float> inverse, axis;
  for (std::size_t d = 0; d < a.size(); ++d) axis.push_back(static_cast<float>(a[d] - b[d]));
  if (!invert(within, unit.dimensions, inverse, axis)) return {unknown, unknown};
  const line_points of_unit = project(unit, axis), of_other = project(other, axis);
  const double spread = (of_unit.variance + of_other.variance) / 2;
  if (!(of_unit.variance > 0) || !(of_other.variance > 0)) return {unknown, unknown};
  double overlap = 0;
  for (const double place : of_unit.places) {
    const double more = log_density(of_unit, n_unit, place) - log_density(of_other, n_other, place);
    overlap += 1 / (1 + std::exp(more));
  }
  return {std::fabs(of_unit.mean - of_other.mean) / std::sqrt(spread), overlap / unit.size()};
}

// ---------------------------------------------------------------- units

namespace {

bool has_channel(const template_table& templates, std::int32_t unit, std::int32_t channel) {
  const std::int32_t* channels = templates.channels(unit) + 1;
  return std::find(channels, channels + templates.template_n_channels[unit], channel) !=
         channels + templates.template_n_channels[unit];
}

}  // namespace

std::vector<std::int32_t> list_neighbours(const session_state& session, std::int32_t unit) {
  const template_table& templates = session.templates;
  const std::int32_t centre = templates.centre_channel(unit);
  std::vector<std::int32_t> neighbours;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    if (c == unit) continue;
    if (has_channel(templates, unit, templates.centre_channel(c)) ||
        has_channel(templates, c, centre)) {
      neighbours.push_back(c);
    }
  }
  return neighbours;
}

namespace {

struct scored_point {
  pc_point point;
  float score;
};

// Where the unit stands out, and where it differs from its neighbours.
std::vector<pc_point> choose_points(const session_state& session, std::int32_t unit,
                                    const std::vector<std::int32_t>& neighbours) {
  constexpr std::size_t most = 50;
  const template_table& templates = session.templates;
  std::vector<scored_point> scored;
  for (std::int32_t k = 1; k <= templates.template_n_channels[unit]; ++k) {
    const std::int32_t channel = templates.channels(unit)[k];
    for (std::int32_t p = 1; p <= templates.template_points; ++p) {
      const float own = templates.mean(unit, channel)[p];
      float score = std::fabs(own);
      for (const std::int32_t c : neighbours) {
        score = std::max(score, std::fabs(own - templates.mean(c, channel)[p]));
      }
      scored.push_back({{templates.first_sample + p - 1, channel}, score});
    }
  }
  std::stable_sort(scored.begin(), scored.end(),
                   [](const scored_point& a, const scored_point& b) { return a.score > b.score; });
  std::vector<pc_point> points;
  for (std::size_t i = 0; i < std::min(most, scored.size()); ++i) points.push_back(scored[i].point);
  return points;
}

// At most so many events of a unit, evenly.
void add_events(const session_state& session, std::span<const std::int32_t> events,
                std::size_t most, std::vector<aligned_event>& list) {
  const std::size_t n = std::min(most, events.size());
  for (std::size_t i = 0; i < n; ++i) {
    const std::int32_t e = events[i * events.size() / n];
    list.push_back({session.events.event_time[e], session.events.event_shift[e]});
  }
}

// The unit and its neighbours as points of one space: those of the unit first, then those of each
// neighbour in turn.
struct unit_space {
  std::vector<std::int32_t> neighbours;
  std::vector<feature_points> of;  // the unit, then each neighbour
  std::vector<double> n_spikes;    // of all that each has
};

unit_space make_space(const session_state& session, const cluster_event_lists& lists,
                      std::int32_t unit) {
  constexpr std::size_t most_own = 1000, most_other = 200;
  constexpr std::int32_t dimensions = 8;
  unit_space space;
  space.neighbours = list_neighbours(session, unit);
  std::vector<aligned_event> events;
  std::vector<std::size_t> ends;
  const auto add = [&](std::int32_t c, std::size_t most) {
    add_events(session, lists.of(c), most, events);
    ends.push_back(events.size());
    space.n_spikes.push_back(static_cast<double>(lists.of(c).size()));
  };
  add(unit, most_own);
  for (const std::int32_t c : space.neighbours) add(c, most_other);
  pc_rows rows;
  fill_pc_rows(session, choose_points(session, unit, space.neighbours), events,
               session.recording.vscale_HP, rows);
  std::vector<float> axes, values;
  find_axes(rows, axes);
  const std::int32_t n = std::min(dimensions, rows.n_points);
  project_rows(rows, axes, n, values);
  std::size_t from = 0;
  for (const std::size_t end : ends) {
    space.of.push_back({n,
                        {values.begin() + static_cast<std::ptrdiff_t>(from * n),
                         values.begin() + static_cast<std::ptrdiff_t>(end * n)}});
    from = end;
  }
  return space;
}

// All neighbours together, and how many spikes each point stands for.
struct weighed_points {
  feature_points points;
  std::vector<double> weights;
};
weighed_points pool_neighbours(const unit_space& space) {
  weighed_points pool;
  pool.points.dimensions = space.of[0].dimensions;
  for (std::size_t i = 1; i < space.of.size(); ++i) {
    const feature_points& more = space.of[i];
    pool.points.values.insert(pool.points.values.end(), more.values.begin(), more.values.end());
    pool.weights.insert(pool.weights.end(), static_cast<std::size_t>(more.size()),
                        space.n_spikes[i] / std::max(1, more.size()));
  }
  return pool;
}

}  // namespace

isolation_figures measure_isolation(const session_state& session, const cluster_event_lists& lists,
                                    std::int32_t unit) {
  isolation_figures figures{unknown, unknown, unknown, unknown, 0, unknown, unknown};
  const std::int32_t centre = session.templates.centre_channel(unit);
  if (centre < 1 || lists.of(unit).empty()) return figures;
  const unit_space space = make_space(session, lists, unit);
  if (space.neighbours.empty()) return figures;
  const feature_points& own = space.of[0];
  const weighed_points others = pool_neighbours(space);
  const std::vector<double> distances = mahalanobis_distances(own, others.points);
  if (!distances.empty()) {
    figures.distance = isolation_distance(distances, others.weights, space.n_spikes[0]);
    figures.l_ratio = l_ratio(distances, others.weights, space.n_spikes[0], own.dimensions);
  }
  const neighbour_rates rates = nearest_neighbour_rates(own, others.points);
  figures.hit = rates.hit;
  figures.miss = rates.miss;
  for (std::size_t i = 0; i < space.neighbours.size(); ++i) {
    const separation apart =
        separate(own, space.of[i + 1], space.n_spikes[0], space.n_spikes[i + 1]);
    if (std::isnan(apart.d_prime) || apart.d_prime >= figures.d_prime) continue;
    figures.nearest = space.neighbours[i];
    figures.d_prime = apart.d_prime;
    figures.overlap = apart.overlap;
  }
  return figures;
}

}  // namespace kestrelvane

#include "sorting/unit_joins.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <tuple>

#include "numerics/portable_math.h"

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

// Places. Measured, of the halves of one unit as movement leaves them: at most 20 um and 2.6 times;
// of neighbours of one kind 20 um apart: 20 to 40 um and 3.9 to 9 times. Of pieces of one unit that
// have just begun, whose means hold more noise: 10 um and 1.8; of such neighbours 1.6 to 11.
constexpr double kernel_um = 15.0;
constexpr std::int32_t way_reach = 40, way_step = 5;  // µm
constexpr double apart_um = 15, early_closer = 1.4;

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
      const double weight = portable_exp(-(x * x + y * y) / (2 * kernel_um * kernel_um));
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

way_between find_way(const session_state& session, const tracking_rules& rules,
                     const spike_shape& a, const spike_shape& b) {
  const std::int32_t points = rules.window.points;
  // Half of the way each: what reading between the sites blurs is the same in both.
  const auto likeness = [&](std::int32_t way) {
    return compare_shapes(moved_shape(session, a, points, 0.5 * way),
                          moved_shape(session, b, points, -0.5 * way), points, rules.half_ms)
        .similarity;
  };
  const double here = likeness(0);
  double best = here;
  way_between out;
  for (std::int32_t way = -way_reach; way <= way_reach; way += way_step) {
    const double there = likeness(way);
    if (there <= best) continue;
    best = there;
    out.um = way;
  }
  out.closer = (1 - here) / std::max(1 - best, 1e-6);
  return out;
}

bool stand_apart(const way_between& way, double closer) {
  return std::fabs(way.um) >= apart_um && way.closer >= closer;
}

double square_root_ratio(double a, double b) {
  const double largest = std::max(a, b);
  return largest > 0 ? std::sqrt(std::min(a, b) / largest) : 0.0;
}

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
  // Nothing makes one neuron of still tissue seem to lie in two places.
  if (!recent && !session.recording.motion.um.empty() &&
      stand_apart(find_way(session, rules, shape_a, shape_b), early_closer)) {
    return false;
  }
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

std::int32_t joined_unit(const std::vector<tracked_unit>& units, std::int32_t unit) {
  while (units[static_cast<std::size_t>(unit)].stage == unit_stage::joined) {
    unit = units[static_cast<std::size_t>(unit)].joined_to;
  }
  return unit;
}

}  // namespace kestrelvane

#include "sorting/noise_tail.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "numerics/portable_math.h"

namespace kestrelvane {

namespace {

constexpr double bin = 0.01, histogram_end = 2.0;
constexpr int n_rounds = 60;
// Gaussian noise alone falls off by a factor of e within 1 / (ratio * energy); small far-off
// cells make the tail longer.
constexpr double shortest_tail = 1, longest_tail = 6;
// Times the noise of the score; nothing far off gets there.
constexpr double noise_reach = 6.5;
constexpr double widest_hump = 0.3;
constexpr double root_of_two_pi = 2.5066282746310002;

struct hump {
  double weight, middle, width;
  double at(double ratio) const {
    const double z = (ratio - middle) / width;
    return weight * portable_exp(-0.5 * z * z) / (width * root_of_two_pi);
  }
};

struct score_mixture {
  double from = 0, total = 0;  // the lowest score, spikes
  double tail_weight = 0, tail_length = 0;
  hump small{}, large{};
  double tail_at(double ratio) const {
    return tail_weight * portable_exp(-(ratio - from) / tail_length) / tail_length;
  }
};

// Sums over the bins of what belongs to one part.
struct part_sums {
  double n = 0, first = 0, second = 0;
  void add(double weight, double ratio) {
    n += weight;
    first += weight * ratio;
    second += weight * ratio * ratio;
  }
  double middle() const { return first / n; }
  double width() const { return std::sqrt(std::max(0.0, second / n - middle() * middle())); }
};

std::vector<double> count_scores(const tracked_unit& unit, double from) {
  std::vector<double> counts(static_cast<std::size_t>((histogram_end - from) / bin) + 1);
  for (const tracked_spike& s : unit.spikes) {
    const double at = std::max(0.0, (static_cast<double>(s.ratio) - from) / bin);
    if (at < static_cast<double>(counts.size())) counts[static_cast<std::size_t>(at)] += 1;
  }
  return counts;
}

void set_hump(hump& h, const part_sums& sums, double total, double narrowest) {
  h.weight = sums.n / total;
  if (!(sums.n > 0)) return;
  h.middle = sums.middle();
  h.width = std::clamp(sums.width(), narrowest, widest_hump);
}

double ratio_at(double from, std::size_t i) { return from + (static_cast<double>(i) + 0.5) * bin; }

// From the spikes below a ratio, half of them tail, and those above it. False without both.
bool start_mixture(const std::vector<double>& counts, double between, double gaussian,
                   double narrowest, score_mixture& m) {
  part_sums below, above;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const double ratio = ratio_at(m.from, i);
    (ratio < between ? below : above).add(counts[i], ratio);
  }
  if (!(below.n > 0) || !(above.n > 0)) return false;
  m.total = below.n + above.n;
  m.tail_length = 2 * gaussian;
  set_hump(m.small, below, 2 * m.total, narrowest);
  set_hump(m.large, above, m.total, narrowest);
  m.tail_weight = m.small.weight;
  return true;
}

void better_mixture(const std::vector<double>& counts, double gaussian, double narrowest,
                    score_mixture& m) {
  part_sums tail, small, large;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const double ratio = ratio_at(m.from, i);
    const double in_tail = m.tail_at(ratio), in_small = m.small.at(ratio);
    const double all = in_tail + in_small + m.large.at(ratio);
    if (!(counts[i] > 0) || !(all > 0)) continue;
    tail.add(counts[i] * in_tail / all, ratio);
    small.add(counts[i] * in_small / all, ratio);
    large.add(counts[i] * (1 - (in_tail + in_small) / all), ratio);
  }
  m.tail_weight = tail.n / m.total;
  if (tail.n > 0) {
    m.tail_length =
        std::clamp(tail.middle() - m.from, shortest_tail * gaussian, longest_tail * gaussian);
  }
  set_hump(m.small, small, m.total, narrowest);
  set_hump(m.large, large, m.total, narrowest);
  // A hump that shows no top of its own above the threshold is the tail.
  m.small.middle = std::max(m.small.middle, m.from + m.small.width);
}

}  // namespace

double find_noise_end(const tracked_unit& unit, double least_ratio, double between) {
  const double energy = unit.mean_energy(), narrowest = 1 / std::sqrt(energy);
  if (least_ratio * std::sqrt(energy) > noise_reach) return 0;
  const double gaussian = 1 / (least_ratio * energy);
  const std::vector<double> counts = count_scores(unit, least_ratio);
  score_mixture m;
  m.from = least_ratio;
  if (!start_mixture(counts, between, gaussian, narrowest, m)) return 0;
  for (int round = 0; round < n_rounds; ++round) better_mixture(counts, gaussian, narrowest, m);
  double end = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const double ratio = ratio_at(least_ratio, i);
    if (m.tail_at(ratio) <= m.small.at(ratio) + m.large.at(ratio)) break;
    end = ratio + 0.5 * bin;
  }
  return end;
}

}  // namespace kestrelvane

#include "analysis/train_figures.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kestrelvane {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

}  // namespace

std::int32_t count_stretches(double duration) {
  // Shorter than a minute each, a quiet unit would be missing from most of them by chance.
  constexpr double minute = 60;
  constexpr std::int32_t fewest = 10, most = 10'000;
  if (!(duration > 0)) return 0;
  return static_cast<std::int32_t>(
      std::clamp(std::floor(duration / minute), double{fewest}, double{most}));
}

std::int32_t stretch_of(double time, double duration, std::int32_t n_stretches) {
  const double place = std::floor(time / duration * n_stretches);
  return static_cast<std::int32_t>(std::clamp(place, 0.0, n_stretches - 1.0));
}

double presence_ratio(std::span<const double> times, double duration,
                      std::span<const time_span> gaps) {
  const std::int32_t n = count_stretches(duration);
  if (n == 0) return unknown;
  std::vector<double> missing(static_cast<std::size_t>(n), 0.0);
  const double length = duration / n;
  for (const time_span& gap : gaps) {
    const std::int32_t last = stretch_of(gap.to, duration, n);
    for (std::int32_t k = stretch_of(gap.from, duration, n); k <= last; ++k) {
      missing[k] +=
          std::max(0.0, std::min(gap.to, (k + 1) * length) - std::max(gap.from, k * length));
    }
  }
  std::vector<char> present(static_cast<std::size_t>(n));
  for (const double t : times) present[stretch_of(t, duration, n)] = 1;
  std::int32_t n_seen = 0, n_present = 0;
  for (std::int32_t k = 0; k < n; ++k) {
    if (missing[k] > length / 2) continue;
    ++n_seen;
    n_present += present[k];
  }
  return n_seen > 0 ? static_cast<double>(n_present) / n_seen : unknown;
}

refractory_violations_count count_violations(std::span<const double> times,
                                             const refractory_period& refractory) {
  refractory_violations_count count;
  for (std::size_t i = 0; i < times.size(); ++i) {
    for (std::size_t k = i + 1; k < times.size(); ++k) {
      const double interval = times[k] - times[i];
      if (interval >= refractory.period) break;
      // What the sorter cannot have found twice is one spike that was counted twice.
      if (interval <= refractory.censored) continue;
      ++count.pairs;
      count.successive += k == i + 1;
    }
  }
  return count;
}

double contamination_by_intervals(std::int32_t violations, std::int32_t n, double duration,
                                  const refractory_period& refractory) {
  const double open = refractory.period - refractory.censored;
  if (n < 2 || !(duration > 0) || !(open > 0)) return unknown;
  // f (1 - f), which is at most a quarter.
  const double product = violations * duration / (2 * open * n * n);
  return product < 0.25 ? (1 - std::sqrt(1 - 4 * product)) / 2 : 0.5;
}

double contamination_by_pairs(std::int64_t pairs, std::int32_t n, double duration,
                              const refractory_period& refractory) {
  const double open = refractory.period - refractory.censored;
  // Without the time round each spike in which no second one was looked for.
  const double free = duration - 2.0 * n * refractory.censored;
  if (n < 2 || !(free > 0) || !(open > 0)) return unknown;
  const double left = 1 - static_cast<double>(pairs) * free / (open * n * n);
  return left > 0 ? 1 - std::sqrt(left) : 1.0;
}

std::int32_t count_near_spikes(std::span<const double> a, std::span<const double> b, double reach) {
  std::int32_t n = 0;
  std::size_t next = 0;
  for (const double t : a) {
    while (next < b.size() && b[next] < t - reach) ++next;
    n += next < b.size() && b[next] <= t + reach;
  }
  return n;
}

}  // namespace kestrelvane

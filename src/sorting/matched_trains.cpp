#include "sorting/matched_trains.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "sorting/noise_tail.h"

namespace kestrelvane {

namespace {

// The cut.
constexpr double bin_over_root = 0.2;  // width of a bin times sqrt(E)
constexpr double mode_from = 0.85, mode_to = 1.25;
constexpr double histogram_end = 2.0;
constexpr std::array<double, 5> smoothing = {1, 2, 3, 2, 1};
constexpr double least_mean_energy = 33;
constexpr std::size_t fewest_spikes = 40, fewest_strong_spikes = 15;
// The guard of the cut.
constexpr std::size_t fewest_for_shape = 15, most_for_shape = 150;
// On a site or two, cells of two sizes may well have one waveform.
constexpr std::size_t fewest_shape_channels = 4;
constexpr double large_part = 0.25;
constexpr double stands_out = 4.9, strong_energy = 60;
// Shadows.
constexpr double locked_ms = 0.1;
// Leftovers, counted by lags in bins of 0.1 ms.
constexpr std::int32_t half_ms_bins = 5;
constexpr std::int32_t fewest_leftovers = 10;
constexpr double times_expected = 4;
// Sums.
constexpr std::size_t fewest_sum_channels = 7;
constexpr double explained = 0.95, more_spikes = 1.43, least_share = 0.08, second_share = 0.4;
// Of a unit that fires as seldom as two quick ones meet by chance: its spikes are sums at all lags,
// and no one sum explains as much. Measured 0.84 to 0.93, at 0.26 to 0.55 of the meetings.
constexpr double explained_by_chance = 0.8, meetings_taken = 0.75;
constexpr double least_sum_gain = 0.6, largest_sum_gain = 1.4;

struct score_histogram {
  std::vector<double> counts;
  double from = 0, width = 0;
  double at(std::size_t bin) const { return from + (static_cast<double>(bin) + 0.5) * width; }
};

score_histogram make_histogram(const tracked_unit& unit, double least_ratio) {
  score_histogram h;
  h.from = least_ratio;
  h.width = bin_over_root / std::sqrt(unit.mean_energy());
  const auto n =
      static_cast<std::size_t>(std::max(8.0, std::ceil((histogram_end - least_ratio) / h.width)));
  std::vector<double> raw(n);
  for (const tracked_spike& s : unit.spikes) {
    const double bin = (static_cast<double>(s.ratio) - h.from) / h.width;
    if (bin >= 0 && bin < static_cast<double>(n)) raw[static_cast<std::size_t>(bin)] += 1;
  }
  h.counts.assign(n, 0.0);
  for (std::size_t i = 0; i < n; ++i) {
    double weights = 0;
    for (std::size_t k = 0; k < smoothing.size(); ++k) {
      const std::ptrdiff_t from = static_cast<std::ptrdiff_t>(i + k) - 2;
      if (from < 0 || from >= static_cast<std::ptrdiff_t>(n)) continue;
      h.counts[i] += smoothing[k] * raw[static_cast<std::size_t>(from)];
      weights += smoothing[k];
    }
    // At the threshold there is nothing below to smooth with.
    h.counts[i] /= weights;
  }
  return h;
}

// The lowest score that a spike of a unit may have: by its gain or by its amplitude.
double least_score(const match_limits& limits, double energy) {
  const auto prior = static_cast<double>(limits.prior());
  const double by_gain =
      std::sqrt((prior + static_cast<double>(limits.threshold)) * (energy + prior)) - prior;
  const double by_amplitude =
      static_cast<double>(limits.least_amplitude_of(energy)) * (energy + prior) - prior;
  return std::max(by_gain, by_amplitude);
}

// Whether the spikes from where the noise ends to a cut have the waveform of those above, at any
// gain.
bool one_shape_across(const session_state& session, const noise_covariance& noise,
                      const tracking_rules& rules, const tracked_unit& unit, double noise_end,
                      double cut) {
  std::vector<tracked_spike> below, above;
  for (const tracked_spike& s : unit.spikes) {
    const auto ratio = static_cast<double>(s.ratio);
    if (ratio >= noise_end) (ratio < cut ? below : above).push_back(s);
  }
  if (below.size() < fewest_for_shape || above.size() < fewest_for_shape) return false;
  const std::vector<std::int32_t>& channels = unit.filter.channels;
  if (channels.size() < fewest_shape_channels) return false;
  const auto mean = [&](const std::vector<tracked_spike>& spikes) {
    return mean_of_spikes(session, noise, rules.window, evenly(spikes, most_for_shape), channels);
  };
  const spike_shape low = mean(below), high = mean(above);
  const double energy = unit.mean_energy();
  return cut * std::sqrt(energy) >= stands_out &&
         is_multiple_of(noise, rules.window, low, high, 0, channels, energy);
}

// Whether so many spikes lie between the end of the noise and a cut that they are the unit's or
// another's, which a cut would lose; those of another are told apart later.
bool is_large_part(const tracked_unit& unit, double noise_end, double cut) {
  if (unit.filter.channels.size() < fewest_shape_channels) return false;
  std::size_t below = 0, above = 0;
  for (const tracked_spike& s : unit.spikes) {
    const auto ratio = static_cast<double>(s.ratio);
    if (ratio >= noise_end) (ratio < cut ? below : above) += 1;
  }
  return static_cast<double>(below) >= large_part * static_cast<double>(below + above);
}

}  // namespace

score_cut find_cut(const tracked_unit& unit, double least_ratio) {
  const score_histogram h = make_histogram(unit, least_ratio);
  std::size_t mode = 0;
  for (std::size_t i = 0; i < h.counts.size(); ++i) {
    if (h.at(i) < mode_from || h.at(i) > mode_to) continue;
    if (mode == 0 || h.counts[i] > h.counts[mode]) mode = i;
  }
  score_cut cut;
  if (!(h.counts[mode] > 0)) {
    cut.valley = 1;
    return cut;
  }
  std::size_t lowest = mode;
  // Of equal ones the nearest to the mode.
  for (std::size_t i = mode; i-- > 0;) {
    if (h.counts[i] < h.counts[lowest]) lowest = i;
  }
  cut.valley = h.counts[lowest] / h.counts[mode];
  cut.ratio = lowest == 0 ? 0 : h.at(lowest);
  return cut;
}

std::string trim_unit(const session_state& session, const noise_covariance& noise,
                      const tracking_rules& rules, double largest_valley, tracked_unit& unit) {
  const double energy = unit.mean_energy();
  // What stands far out of the noise is believed with fewer spikes.
  const std::size_t fewest = energy >= strong_energy ? fewest_strong_spikes : fewest_spikes;
  if (unit.spikes.size() < fewest) return fmt::format("{} spikes", unit.spikes.size());
  if (energy < least_mean_energy) return fmt::format("detectability {:.0f}", energy);
  const double least = least_score(rules.limits, energy) / energy;
  score_cut cut = find_cut(unit, least);
  const double noise_end = cut.ratio > 0 ? find_noise_end(unit, least, cut.ratio) : 0;
  const bool one =
      cut.ratio > 0 && one_shape_across(session, noise, rules, unit, noise_end, cut.ratio);
  if (cut.valley > largest_valley && !(one && energy >= strong_energy)) {
    return fmt::format("not apart from noise, valley {:.2f}", cut.valley);
  }
  if (one || is_large_part(unit, noise_end, cut.ratio)) cut.ratio = noise_end;
  std::erase_if(unit.spikes,
                [&](const tracked_spike& s) { return static_cast<double>(s.ratio) < cut.ratio; });
  unit.energy_sum = energy * static_cast<double>(unit.spikes.size());
  if (unit.spikes.size() < fewest) return fmt::format("{} spikes", unit.spikes.size());
  return "";
}

namespace {

// Where spikes of one unit lie after those of another, samples.
struct spike_lag {
  std::size_t spike;  // of the weaker
  float lag;
};

// Of all pairs of spikes within a reach, by spike of the weaker.
std::vector<spike_lag> lags_after(const tracked_unit& weak, const tracked_unit& strong,
                                  std::int32_t reach) {
  std::vector<spike_lag> lags;
  std::size_t first = 0;
  for (std::size_t i = 0; i < weak.spikes.size(); ++i) {
    const tracked_spike& s = weak.spikes[i];
    while (first < strong.spikes.size() && strong.spikes[first].time < s.time - reach) ++first;
    for (std::size_t k = first; k < strong.spikes.size() && strong.spikes[k].time <= s.time + reach;
         ++k) {
      const float lag = static_cast<float>(s.time - strong.spikes[k].time) +
                        static_cast<float>(s.phase - strong.spikes[k].phase) / match_phases;
      if (std::fabs(lag) <= static_cast<float>(reach)) lags.push_back({i, lag});
    }
  }
  return lags;
}

// The lag of each spike that has a stronger unit's within reach, to the nearest of them.
std::vector<float> nearest_lags(const tracked_unit& weak, const tracked_unit& strong,
                                std::int32_t reach) {
  std::vector<float> nearest;
  std::size_t last = weak.spikes.size();
  for (const spike_lag& l : lags_after(weak, strong, reach)) {
    if (l.spike != last) {
      nearest.push_back(l.lag);
      last = l.spike;
    } else if (std::fabs(l.lag) < std::fabs(nearest.back())) {
      nearest.back() = l.lag;
    }
  }
  return nearest;
}

// The lag, in bins from -reach, about which three bins hold most spikes; -1 unless they hold far
// more than the bins farther off do.
std::int32_t find_lock(const std::vector<std::int32_t>& counts, std::int32_t reach) {
  const auto window = [&](std::int32_t k) { return counts[k - 1] + counts[k] + counts[k + 1]; };
  const std::int32_t from = reach / 2, to = reach + reach / 2;
  std::int32_t best = from;
  for (std::int32_t k = from; k <= to; ++k) {
    if (window(k) > window(best)) best = k;
  }
  std::int32_t beside = 0, n_beside = 0;
  for (std::int32_t k = 0; k < static_cast<std::int32_t>(counts.size()); ++k) {
    if (std::abs(k - best) <= 2) continue;
    beside += counts[k];
    ++n_beside;
  }
  const double expected = 3.0 * beside / n_beside;
  const bool locked = window(best) >= fewest_leftovers && window(best) > times_expected * expected;
  return locked ? best : -1;
}

}  // namespace

std::int32_t find_shadow(const tracking_rules& rules, const std::vector<tracked_unit>& units,
                         std::int32_t unit, double sampling_frequency) {
  const tracked_unit& weak = units[static_cast<std::size_t>(unit)];
  const auto locked = static_cast<float>(locked_ms * sampling_frequency / 1000.0);
  for (std::int32_t u = 0; u < static_cast<std::int32_t>(units.size()); ++u) {
    const tracked_unit& strong = units[static_cast<std::size_t>(u)];
    if (u == unit || strong.spikes.empty() || strong.mean_energy() <= weak.mean_energy()) continue;
    std::vector<float> lags = nearest_lags(weak, strong, rules.half_ms);
    if (2 * lags.size() <= weak.spikes.size()) continue;
    std::nth_element(lags.begin(), lags.begin() + static_cast<std::ptrdiff_t>(lags.size() / 2),
                     lags.end());
    const float median = lags[lags.size() / 2];
    const auto n = std::count_if(lags.begin(), lags.end(),
                                 [&](float lag) { return std::fabs(lag - median) <= locked; });
    if (2 * static_cast<std::size_t>(n) > weak.spikes.size()) return u;
  }
  return -1;
}

std::vector<char> find_leftovers(const tracking_rules& rules,
                                 const std::vector<tracked_unit>& units, std::int32_t unit) {
  const tracked_unit& weak = units[static_cast<std::size_t>(unit)];
  std::vector<char> left(weak.spikes.size());
  const std::int32_t reach = 2 * rules.half_ms;
  const float bin = static_cast<float>(rules.half_ms) / half_ms_bins;
  for (const tracked_unit& strong : units) {
    if (&strong == &weak || strong.spikes.empty()) continue;
    if (strong.mean_energy() <= weak.mean_energy()) continue;
    const std::vector<spike_lag> lags = lags_after(weak, strong, reach);
    if (lags.size() < fewest_leftovers) continue;
    std::vector<std::int32_t> counts(4 * half_ms_bins + 1);
    const auto bin_of = [&](float lag) {
      return static_cast<std::int32_t>(std::lround(lag / bin)) + 2 * half_ms_bins;
    };
    for (const spike_lag& l : lags) ++counts[bin_of(l.lag)];
    const std::int32_t lock = find_lock(counts, 2 * half_ms_bins);
    if (lock < 0) continue;
    for (const spike_lag& l : lags) left[l.spike] |= std::abs(bin_of(l.lag) - lock) <= 1;
  }
  return left;
}

// ---------------------------------------------------------------- sums

namespace {

using rows = std::vector<float>;

rows rows_on(const spike_shape& shape, const std::vector<std::int32_t>& channels,
             std::int32_t points) {
  rows out(channels.size() * static_cast<std::size_t>(points));
  for (std::size_t i = 0; i < channels.size(); ++i) {
    const float* from = shape.find(channels[i], points);
    if (from != nullptr) {
      std::copy(from, from + points, out.data() + i * static_cast<std::size_t>(points));
    }
  }
  return out;
}

double energy_of(const rows& x) {
  double sum = 0;
  for (const float v : x) sum += static_cast<double>(v) * static_cast<double>(v);
  return sum;
}

struct explanation {
  double removed = 0;  // energy
  double gain = 0;
  std::int32_t shift = 0;
};

// The best multiple and shift of one unit's rows in what is left of another's.
explanation explain(const rows& left, const rows& by, std::int32_t points) {
  explanation best;
  const auto n = static_cast<std::int32_t>(left.size()) / points;
  for (std::int32_t shift = -points / 2; shift <= points / 2; ++shift) {
    double product = 0, square = 0;
    for (std::int32_t i = 0; i < n; ++i) {
      for (std::int32_t q = std::max(0, shift); q < std::min(points, points + shift); ++q) {
        const auto y = static_cast<double>(by[static_cast<std::size_t>(i * points + q - shift)]);
        product += static_cast<double>(left[static_cast<std::size_t>(i * points + q)]) * y;
        square += y * y;
      }
    }
    if (!(square > 0)) continue;
    const double gain = product / square;
    if (gain < least_sum_gain || gain > largest_sum_gain) continue;
    if (gain * product > best.removed) best = {gain * product, gain, shift};
  }
  return best;
}

void remove_explained(rows& left, const rows& by, std::int32_t points, const explanation& e) {
  const auto n = static_cast<std::int32_t>(left.size()) / points;
  for (std::int32_t i = 0; i < n; ++i) {
    for (std::int32_t q = std::max(0, e.shift); q < std::min(points, points + e.shift); ++q) {
      left[static_cast<std::size_t>(i * points + q)] -=
          static_cast<float>(e.gain) * by[static_cast<std::size_t>(i * points + q - e.shift)];
    }
  }
}

// Units that may be a part of another's shape, on its channels.
struct sum_part {
  std::int32_t unit;
  rows shape;
};
std::vector<sum_part> parts_of_sum(const tracking_rules& rules,
                                   const std::vector<tracked_unit>& units, std::int32_t sum,
                                   double energy) {
  const tracked_unit& whole = units[static_cast<std::size_t>(sum)];
  const double fewest_spikes = more_spikes * static_cast<double>(whole.spikes.size());
  std::vector<sum_part> parts;
  for (std::int32_t u = 0; u < static_cast<std::int32_t>(units.size()); ++u) {
    const tracked_unit& part = units[static_cast<std::size_t>(u)];
    if (u == sum || part.spikes.empty()) continue;
    if (static_cast<double>(part.spikes.size()) < fewest_spikes) continue;
    rows shape = rows_on(part.shape, whole.filter.subtracted, rules.window.points);
    if (energy_of(shape) >= least_share * energy) parts.push_back({u, std::move(shape)});
  }
  return parts;
}

// Whether two trains that know nothing of each other meet as often as a unit fires.
bool meet_by_chance(const tracking_rules& rules, std::int64_t n_samples, const tracked_unit& unit,
                    const tracked_unit& a, const tracked_unit& b) {
  const double meetings = static_cast<double>(a.spikes.size()) *
                          static_cast<double>(b.spikes.size()) * 2 * rules.half_ms /
                          static_cast<double>(n_samples);
  return static_cast<double>(unit.spikes.size()) <= meetings_taken * meetings;
}

}  // namespace

bool find_sum(const tracking_rules& rules, const std::vector<tracked_unit>& units,
              std::int64_t n_samples, std::int32_t unit, std::int32_t& first,
              std::int32_t& second) {
  const tracked_unit& sum = units[static_cast<std::size_t>(unit)];
  const std::vector<std::int32_t>& channels = sum.filter.subtracted;
  if (channels.size() < fewest_sum_channels) return false;
  const std::int32_t points = rules.window.points;
  const rows whole = rows_on(sum.shape, channels, points);
  const double energy = energy_of(whole);
  const std::vector<sum_part> parts = parts_of_sum(rules, units, unit, energy);
  for (const sum_part& a : parts) {
    const explanation one = explain(whole, a.shape, points);
    if (one.removed < least_share * energy) continue;
    rows left = whole;
    remove_explained(left, a.shape, points, one);
    const double rest = energy_of(left);
    for (const sum_part& b : parts) {
      if (b.unit == a.unit) continue;
      const explanation other = explain(left, b.shape, points);
      if (other.removed < std::max(least_share * energy, second_share * rest)) continue;
      const double part = 1 - (rest - other.removed) / energy;
      const bool seldom =
          meet_by_chance(rules, n_samples, sum, units[static_cast<std::size_t>(a.unit)],
                         units[static_cast<std::size_t>(b.unit)]);
      if (part < (seldom ? explained_by_chance : explained)) continue;
      first = a.unit;
      second = b.unit;
      return true;
    }
  }
  return false;
}

void remove_doubles(const tracking_rules& rules, std::vector<tracked_spike>& spikes) {
  std::vector<tracked_spike> kept;
  for (const tracked_spike& s : spikes) {
    if (!kept.empty() && s.time - kept.back().time < rules.half_ms) {
      if (s.gain > kept.back().gain) kept.back() = s;
    } else {
      kept.push_back(s);
    }
  }
  spikes = std::move(kept);
}

}  // namespace kestrelvane

#include "analysis/amplitude_figures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "analysis/train_figures.h"
#include "numerics/sort.h"
#include "session/template_window.h"

namespace kestrelvane {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

// Samples that a window round an event's time has in memory, from..to, the latter not included.
struct sample_range {
  std::int64_t from, to;
};
sample_range range_of(const session_state& session, std::int32_t event, std::int64_t first,
                      std::int64_t n) {
  const std::int64_t begin = session.events.event_time[event] + first;
  return {std::max<std::int64_t>(begin, -vd_margin),
          std::min<std::int64_t>(begin + n, session.recording.vd.max_time() + 1)};
}

// ---------------------------------------------------------------- heights

struct peak {
  std::int32_t offset = 0;  // samples from the aligned time
  bool negative = false;
};
peak find_peak(const session_state& session, std::int32_t unit, std::int32_t channel) {
  const template_table& templates = session.templates;
  const float* mean = templates.mean(unit, channel);
  std::int32_t best = 1;
  for (std::int32_t p = 2; p <= templates.template_points; ++p) {
    if (std::fabs(mean[p]) > std::fabs(mean[best])) best = p;
  }
  return {templates.first_sample + best - 1, mean[best] < 0};
}

}  // namespace

std::vector<float> measure_heights(const session_state& session, std::int32_t unit,
                                   std::span<const std::int32_t> events) {
  const recording_store& r = session.recording;
  const std::int32_t channel = session.templates.centre_channel(unit);
  if (channel < 1 || channel > r.n_channels) return {};
  const peak at = find_peak(session, unit, channel);
  const std::int32_t reach = std::max(1, r.sampling_frequency / 10'000);
  const std::int16_t* v = r.vd.channel(channel);
  std::vector<float> heights;
  heights.reserve(events.size());
  for (const std::int32_t e : events) {
    const sample_range range = range_of(session, e, at.offset - reach, 2 * reach + 1);
    if (range.from >= range.to) {
      heights.push_back(0);
      continue;
    }
    const auto [low, high] = std::minmax_element(v + range.from, v + range.to);
    heights.push_back(static_cast<float>(at.negative ? -*low : *high) * r.vscale_HP);
  }
  return heights;
}

double cutoff_of_heights(std::span<const float> heights) {
  constexpr std::int32_t n_bins = 100, reach = 12;
  constexpr double width = 3;  // bins, s.d. of the smoothing
  if (heights.size() < 50) return unknown;
  const auto [low, high] = std::minmax_element(heights.begin(), heights.end());
  if (!(*high > *low)) return unknown;
  std::array<double, n_bins> bins{}, smooth{};
  for (const float h : heights) {
    const float place = (h - *low) / (*high - *low) * n_bins;
    ++bins[std::min(n_bins - 1, static_cast<std::int32_t>(place))];
  }
  for (std::int32_t i = 0; i < n_bins; ++i) {
    for (std::int32_t k = -reach; k <= reach; ++k) {
      // Mirrored at the rims, or a distribution that is cut off would seem to fall there.
      std::int32_t from = i + k < 0 ? -1 - (i + k) : i + k;
      if (from >= n_bins) from = 2 * n_bins - 1 - from;
      smooth[i] += bins[from] * std::exp(-0.5 * k * k / (width * width));
    }
  }
  const auto top = std::max_element(smooth.begin(), smooth.end());
  const auto mirror = std::min_element(top, smooth.end(), [&](double a, double b) {
    return std::fabs(a - smooth[0]) < std::fabs(b - smooth[0]);
  });
  double above = 0, all = 0;
  for (auto bin = smooth.begin(); bin != smooth.end(); ++bin) {
    all += *bin;
    if (bin > mirror) above += *bin;
  }
  return std::min(0.5, above / (all + above));
}

height_figures judge_heights(std::vector<float> heights) {
  height_figures figures{unknown, unknown, cutoff_of_heights(heights)};
  if (heights.empty()) return figures;
  double sum = 0, squares = 0;
  for (const float h : heights) sum += double{h};
  const auto n = static_cast<double>(heights.size());
  const double mean = sum / n;
  for (const float h : heights) squares += (double{h} - mean) * (double{h} - mean);
  if (heights.size() > 1 && mean != 0) figures.variation = std::sqrt(squares / (n - 1)) / mean;
  figures.median = select_median(static_cast<std::int32_t>(heights.size()), heights.data());
  return figures;
}

// ---------------------------------------------------------------- places

namespace {

float place_of_event(const session_state& session, std::int32_t unit, std::int32_t event) {
  const recording_store& r = session.recording;
  const template_table& templates = session.templates;
  const std::int32_t* channels = templates.channels(unit);
  const sample_range range =
      range_of(session, event, templates.first_sample, templates.template_points);
  if (range.from >= range.to) return 0;
  double weights = 0, sum = 0;
  for (std::int32_t k = 1; k <= templates.template_n_channels[unit]; ++k) {
    const std::int16_t* v = r.vd.channel(channels[k]);
    const auto [low, high] = std::minmax_element(v + range.from, v + range.to);
    // Squared, so that channels which hold noise alone hardly pull.
    const double height = *high - *low;
    weights += height * height;
    sum += height * height * r.chan_y[channels[k]];
  }
  return weights > 0 ? static_cast<float>(sum / weights) : 0.0f;
}

// Each n-th of those of a stretch, so that no more than the limit are left.
std::vector<std::int32_t> thin(const std::vector<std::int32_t>& events, std::size_t limit) {
  std::vector<std::int32_t> kept;
  const std::size_t step = (events.size() + limit - 1) / limit;
  for (std::size_t i = 0; i < events.size(); i += step) kept.push_back(events[i]);
  return kept;
}

}  // namespace

double measure_drift(const session_state& session, std::int32_t unit,
                     std::span<const std::int32_t> events, std::span<const double> times,
                     double duration) {
  constexpr std::size_t fewest = 10, most = 200;
  const std::int32_t n = count_stretches(duration);
  std::vector<std::vector<std::int32_t>> of_stretch(static_cast<std::size_t>(n));
  for (std::size_t i = 0; i < events.size() && n > 0; ++i) {
    of_stretch[stretch_of(times[i], duration, n)].push_back(events[i]);
  }
  std::vector<float> medians, places;
  for (const std::vector<std::int32_t>& all : of_stretch) {
    if (all.size() < fewest) continue;
    places.clear();
    for (const std::int32_t e : thin(all, most)) {
      places.push_back(place_of_event(session, unit, e));
    }
    medians.push_back(select_median(static_cast<std::int32_t>(places.size()), places.data()));
  }
  if (medians.size() < 2) return unknown;
  const auto [low, high] = std::minmax_element(medians.begin(), medians.end());
  return double{*high - *low};
}

}  // namespace kestrelvane

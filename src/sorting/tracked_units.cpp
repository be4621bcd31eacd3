#include "sorting/tracked_units.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t most_first_spikes = 200;
constexpr std::int32_t fewest_first_spikes = 15;
constexpr double rare_per_minute = 40;
// A cluster of noise and a neuron: the mean of both finds neither. Spikes that score above the rest
// are a unit when their own mean is so much better to detect.
constexpr double weak_energy = 60, core_better = 2, core_energy = 60;
constexpr std::size_t fewest_of_core = 30;
constexpr int core_rounds = 4;
constexpr float subtraction_um = 200.0f;
constexpr std::size_t most_filter_channels = 12, most_subtracted = 40;
// Peaks, times the noise, of channels that a filter reads: at the start, to come in, to stay.
constexpr float peak_at_start = 0.5f, peak_to_come = 0.6f, peak_to_stay = 0.35f;
constexpr float subtracted_peak = 0.4f, subtracted_error = 3.0f;
// Spikes that a shape follows in one segment, and that it is worth at most.
constexpr std::size_t followed_spikes = 60;
constexpr float shape_memory = 250, recent_memory = 40, least_memory = 5;
constexpr float least_followed = 0.7f, largest_followed = 1.35f;  // score over energy
// A mean of n spikes is off by the noise over n in each direction that the noise fills.
constexpr double filled_part = 0.6;
// Squared distances of one cell's spikes at two sizes are -4 to 2, of two cells' 4 to 220.
constexpr double same_square = 2.5, same_part = 0.02, least_gain = 0.3;
constexpr float fewest_for_depth = 8;
constexpr double part_for_depth = 0.25;  // of the largest peak

float peak_of(const float* row, std::int32_t points) {
  float peak = 0;
  for (std::int32_t q = 0; q < points; ++q) peak = std::max(peak, std::fabs(row[q]));
  return peak;
}

std::vector<std::int32_t> channels_within(const session_state& session,
                                          const noise_covariance& noise, std::int32_t centre,
                                          float radius) {
  std::vector<std::int32_t> out;
  for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
    if (noise.sigma[static_cast<std::size_t>(c)] <= 0.0f) continue;
    if (c == centre || session.recording.distance(centre, c) <= radius) out.push_back(c);
  }
  return out;
}

// ---------------------------------------------------------------- reading

// Adds the waveform of one spike on one channel, read at its phase, to a row.
class spike_reader {
 public:
  spike_reader(const session_state& session, const noise_covariance& noise, match_window window)
      : recording_(session.recording),
        noise_(noise),
        window_(window),
        raw_(static_cast<std::size_t>(window.points) + 2 * phase_taps),
        shifted_(static_cast<std::size_t>(window.points)) {}

  void read(std::int32_t time, std::int32_t channel) {
    const std::int16_t* v = recording_.vd.channel(channel);
    const float scale = 1.0f / noise_.sigma[static_cast<std::size_t>(channel)];
    std::int64_t t = std::int64_t{time} - window_.before - phase_taps;
    const auto n = static_cast<std::int64_t>(raw_.size());
    if (t >= 1 && t + n - 1 <= recording_.n_samples) {
      for (std::int64_t i = 0; i < n; ++i) raw_[i] = static_cast<float>(v[t + i]) * scale;
      return;
    }
    for (float& x : raw_) {
      x = t >= 1 && t <= recording_.n_samples ? static_cast<float>(v[t]) * scale : 0.0f;
      ++t;
    }
  }
  // Asks for what read() will read there.
  void fetch(std::int32_t time, std::int32_t channel) const {
    prefetch_samples(recording_.vd.channel(channel) + time - window_.before - phase_taps,
                     window_.points + 2 * phase_taps);
  }
  // Takes amplitude times a row out, whose first point lies `later` samples behind that of the
  // window.
  void take_out(const float* row, float amplitude, std::int32_t later) {
    const auto n = static_cast<std::int32_t>(raw_.size());
    for (std::int32_t q = 0; q < window_.points; ++q) {
      const std::int32_t at = q + later + phase_taps;
      if (at >= 0 && at < n) raw_[static_cast<std::size_t>(at)] -= amplitude * row[q];
    }
  }
  void add_to(float* row, std::int32_t phase) {
    shift_by_phase(raw_.data() + phase_taps, phase, window_.points, shifted_.data());
    for (std::int32_t q = 0; q < window_.points; ++q)
      row[q] += shifted_[static_cast<std::size_t>(q)];
  }

 private:
  const recording_store& recording_;
  const noise_covariance& noise_;
  match_window window_;
  std::vector<float> raw_, shifted_;
};

spike_shape empty_shape(const std::vector<std::int32_t>& channels, std::int32_t points) {
  spike_shape shape;
  shape.channels = channels;
  shape.values.assign(channels.size() * static_cast<std::size_t>(points), 0.0f);
  return shape;
}

void divide_by_count(spike_shape& shape) {
  if (shape.count <= 0) return;
  const float scale = 1.0f / shape.count;
  for (float& v : shape.values) v *= scale;
}

// ---------------------------------------------------------------- start

// The sort's spikes that a unit starts from.
std::vector<tracked_spike> first_spikes(const session_state& session, const tracking_rules& rules,
                                        std::int64_t first, const tracked_unit& unit) {
  const double minutes = static_cast<double>(session.recording.n_samples) /
                         (60.0 * static_cast<double>(session.recording.sampling_frequency));
  const bool rare = static_cast<double>(unit.train.size()) < rare_per_minute * minutes;
  auto from = unit.train.begin(), to = unit.train.end();
  if (rare) {
    to = from + std::min<std::ptrdiff_t>(most_first_spikes, to - from);
  } else {
    from = std::lower_bound(from, to, first - rules.near_samples);
    to = std::lower_bound(from, to, first + rules.segment + rules.near_samples);
  }
  const auto count = static_cast<std::size_t>(to - from);
  const std::size_t n = std::min<std::size_t>(count, most_first_spikes);
  std::vector<tracked_spike> out(n);
  for (std::size_t i = 0; i < n; ++i)
    out[i].time = *(from + static_cast<std::ptrdiff_t>(i * count / n));
  return out;
}

// The channel and the sample of the largest value.
struct shape_peak {
  std::int32_t channel = 0, sample = 0;
  float value = 0;
};
shape_peak find_peak(const spike_shape& shape, std::int32_t points, std::int32_t from,
                     std::int32_t to) {
  shape_peak peak;
  for (std::size_t i = 0; i < shape.channels.size(); ++i) {
    const float* row = shape.row(i, points);
    for (std::int32_t q = from; q <= to; ++q) {
      if (std::fabs(row[q]) > peak.value) peak = {shape.channels[i], q, std::fabs(row[q])};
    }
  }
  return peak;
}

// ---------------------------------------------------------------- channels

struct channel_peak {
  std::int32_t channel;
  float peak;
};

std::vector<std::int32_t> largest(std::vector<channel_peak> peaks, std::size_t limit) {
  std::stable_sort(peaks.begin(), peaks.end(),
                   [](const channel_peak& a, const channel_peak& b) { return a.peak > b.peak; });
  if (peaks.size() > limit) peaks.resize(limit);
  std::vector<std::int32_t> out;
  for (const channel_peak& p : peaks) out.push_back(p.channel);
  std::sort(out.begin(), out.end());
  return out;
}

void choose_channels(const session_state& session, const tracking_rules& rules,
                     tracked_unit& unit) {
  unit_filter& filter = unit.filter;
  const std::vector<std::int32_t> before = filter.channels;
  std::vector<channel_peak> read, subtracted;
  const float error = subtracted_error / std::sqrt(std::max(1.0f, unit.shape.count));
  for (std::size_t i = 0; i < unit.shape.channels.size(); ++i) {
    const std::int32_t c = unit.shape.channels[i];
    const float peak = peak_of(unit.shape.row(i, rules.window.points), rules.window.points);
    const bool main = c == filter.main_channel;
    const float away = main ? 0.0f : session.recording.distance(filter.main_channel, c);
    const bool had = std::binary_search(before.begin(), before.end(), c);
    const float needed = before.empty() ? peak_at_start : had ? peak_to_stay : peak_to_come;
    if (main || (away <= rules.radius_um && peak >= needed)) read.push_back({c, peak});
    if (main || (away <= subtraction_um && peak >= std::max(subtracted_peak, error))) {
      subtracted.push_back({c, peak});
    }
  }
  filter.channels = largest(std::move(read), most_filter_channels);
  filter.subtracted = largest(std::move(subtracted), most_subtracted);
  // An earlier solution is of use for the same channels only.
  if (filter.channels != before) filter.weights.clear();
}

// The shape on the channels round another main channel: what it knows stays.
spike_shape on_channels(const spike_shape& shape, const std::vector<std::int32_t>& channels,
                        std::int32_t points) {
  spike_shape out = empty_shape(channels, points);
  out.count = shape.count;
  for (std::size_t i = 0; i < channels.size(); ++i) {
    const float* from = shape.find(channels[i], points);
    if (from != nullptr) std::copy(from, from + points, out.row(i, points));
  }
  return out;
}

// to <- mean of both by their counts, the count kept below a limit. Channels are the same.
void mix_shapes(spike_shape& to, const spike_shape& more, float memory) {
  const float all = to.count + more.count;
  const float part = more.count / all;
  for (std::size_t i = 0; i < to.values.size(); ++i) {
    to.values[i] += part * (more.values[i] - to.values[i]);
  }
  to.count = std::min(all, memory);
}

// How many spikes a shape may go on being worth when a new mean differs from it by more than the
// noise of both: so many that its error by noise equals the change. A still shape keeps all of its
// memory; one that moves forgets as fast as it moves (the gain of a filter after Kalman, Trans.
// ASME J. Basic Eng. 82, 1960, for a random walk).
float memory_for(const spike_shape& shape, const spike_shape& mean,
                 const std::vector<std::int32_t>& channels, std::int32_t points) {
  double square = 0;
  for (const std::int32_t c : channels) {
    const float *a = shape.find(c, points), *b = mean.find(c, points);
    if (a == nullptr || b == nullptr) continue;
    for (std::int32_t q = 0; q < points; ++q) {
      const auto change = static_cast<double>(b[q] - a[q]);
      square += change * change;
    }
  }
  const double values = static_cast<double>(channels.size()) * points;
  const double noise =
      values * (1.0 / static_cast<double>(shape.count) + 1.0 / static_cast<double>(mean.count));
  const double change = square - noise;
  if (change * static_cast<double>(shape_memory) <= values) return shape_memory;
  return std::max(least_memory, static_cast<float>(values / change));
}

// Spikes of a unit in a segment that its shape follows: evenly over those that are whole.
std::vector<std::int32_t> spikes_to_follow(const std::vector<found_spike>& spikes,
                                           std::int32_t place, double energy, std::int32_t points) {
  std::vector<std::int32_t> fit;
  if (spikes.empty()) return fit;
  // At its ends the segment does not know what else lies there.
  const std::int32_t from = spikes.front().time + points, to = spikes.back().time - points;
  for (std::size_t i = 0; i < spikes.size(); ++i) {
    const found_spike& s = spikes[i];
    if (s.unit != place || s.time < from || s.time > to) continue;
    const double ratio = static_cast<double>(s.score) / energy;
    if (ratio > static_cast<double>(least_followed) &&
        ratio < static_cast<double>(largest_followed)) {
      fit.push_back(static_cast<std::int32_t>(i));
    }
  }
  if (fit.size() <= followed_spikes) return fit;
  std::vector<std::int32_t> out;
  for (std::size_t i = 0; i < followed_spikes; ++i) {
    out.push_back(fit[i * fit.size() / followed_spikes]);
  }
  return out;
}

// Follows the main channel when the largest peak has moved to another.
void follow_main_channel(const session_state& session, const noise_covariance& noise,
                         const tracking_rules& rules, tracked_unit& unit) {
  const std::int32_t points = rules.window.points;
  const std::int32_t reach = rules.half_ms;
  const shape_peak peak = find_peak(unit.shape, points, std::max(0, rules.window.before - reach),
                                    std::min(points - 1, rules.window.before + reach));
  unit.filter.peak = peak.value;
  if (peak.channel == 0 || peak.channel == unit.filter.main_channel) return;
  unit.filter.main_channel = peak.channel;
  const std::vector<std::int32_t> channels =
      channels_within(session, noise, peak.channel, subtraction_um);
  unit.shape = on_channels(unit.shape, channels, points);
  if (unit.recent.count > 0) unit.recent = on_channels(unit.recent, channels, points);
}

}  // namespace

std::vector<tracked_spike> evenly(const std::vector<tracked_spike>& spikes, std::size_t limit) {
  if (spikes.size() <= limit) return spikes;
  std::vector<tracked_spike> out;
  for (std::size_t i = 0; i < limit; ++i) out.push_back(spikes[i * spikes.size() / limit]);
  return out;
}

spike_shape mean_of_spikes(const session_state& session, const noise_covariance& noise,
                           match_window window, const std::vector<tracked_spike>& spikes,
                           const std::vector<std::int32_t>& channels) {
  spike_shape shape = empty_shape(channels, window.points);
  spike_reader reader(session, noise, window);
  for (std::size_t k = 0; k < spikes.size(); ++k) {
    for (std::size_t i = 0; i < channels.size(); ++i) {
      if (k + 1 < spikes.size()) reader.fetch(spikes[k + 1].time, channels[i]);
      reader.read(spikes[k].time, channels[i]);
      reader.add_to(shape.row(i, window.points), spikes[k].phase);
    }
    shape.count += 1;
  }
  divide_by_count(shape);
  return shape;
}

spike_shape mean_without_others(const session_state& session, const noise_covariance& noise,
                                const matching_set& set, const std::vector<found_spike>& spikes,
                                const std::vector<std::int32_t>& chosen,
                                const std::vector<std::int32_t>& channels) {
  const std::int32_t points = set.window.points;
  spike_shape shape = empty_shape(channels, points);
  spike_reader reader(session, noise, set.window);
  const auto n = static_cast<std::int32_t>(spikes.size());
  for (std::size_t k = 0; k < chosen.size(); ++k) {
    const std::int32_t place = chosen[k];
    const found_spike& own = spikes[static_cast<std::size_t>(place)];
    std::int32_t from = place, to = place;
    const std::int32_t reach = points + phase_taps;
    while (from > 0 && own.time - spikes[static_cast<std::size_t>(from - 1)].time < reach) --from;
    while (to + 1 < n && spikes[static_cast<std::size_t>(to + 1)].time - own.time < reach) ++to;
    for (std::size_t i = 0; i < channels.size(); ++i) {
      if (k + 1 < chosen.size()) {
        reader.fetch(spikes[static_cast<std::size_t>(chosen[k + 1])].time, channels[i]);
      }
      reader.read(own.time, channels[i]);
      for (std::int32_t near = from; near <= to; ++near) {
        if (near == place) continue;
        const found_spike& other = spikes[static_cast<std::size_t>(near)];
        const unit_filter& filter = set.units[static_cast<std::size_t>(other.unit)];
        const auto at =
            std::lower_bound(filter.subtracted.begin(), filter.subtracted.end(), channels[i]);
        if (at == filter.subtracted.end() || *at != channels[i]) continue;
        reader.take_out(
            filter.at_phase(other.phase, points) + (at - filter.subtracted.begin()) * points,
            other.amplitude, other.time - own.time);
      }
      reader.add_to(shape.row(i, points), own.phase);
    }
    shape.count += 1;
  }
  divide_by_count(shape);
  return shape;
}

std::vector<std::int32_t> spike_times(const tracked_unit& unit) {
  std::vector<std::int32_t> times;
  for (const tracked_spike& spike : unit.spikes) times.push_back(spike.time);
  return times;
}

namespace {

// What each spike scores, over what one that is just the shape would.
std::vector<double> scores_of(const session_state& session, const noise_covariance& noise,
                              const tracking_rules& rules, const unit_filter& filter,
                              const spike_shape& shape, const std::vector<tracked_spike>& spikes) {
  const std::int32_t points = rules.window.points;
  const auto score = [&](const spike_shape& of) {
    double sum = 0;
    for (std::size_t i = 0; i < filter.channels.size(); ++i) {
      const float* row = of.find(filter.channels[i], points);
      const float* weights = filter.weights.data() + i * static_cast<std::size_t>(points);
      for (std::int32_t q = 0; q < points; ++q) sum += static_cast<double>(row[q] * weights[q]);
    }
    return sum;
  };
  const double whole = std::max(score(shape), 1e-30);
  std::vector<double> out;
  for (const tracked_spike& spike : spikes) {
    out.push_back(score(mean_of_spikes(session, noise, rules.window, {spike}, filter.channels)) /
                  whole);
  }
  return out;
}

// What divides numbers into two groups best: the middle between their means.
double middle_of_two(const std::vector<double>& values) {
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  double middle = 0.5 * (*low + *high);
  for (int round = 0; round < 20; ++round) {
    double sum[2] = {}, n[2] = {};
    for (const double v : values) {
      sum[v > middle] += v;
      n[v > middle] += 1;
    }
    if (n[0] == 0 || n[1] == 0) break;
    middle = 0.5 * (sum[0] / n[0] + sum[1] / n[1]);
  }
  return middle;
}

// Lets a weak unit start from the spikes that score best, where these are a stronger one.
void start_from_core(const session_state& session, const noise_covariance& noise,
                     const tracking_rules& rules, const std::vector<tracked_spike>& spikes,
                     tracked_unit& unit) {
  tracked_unit core = unit;
  for (int round = 0; round < core_rounds; ++round) {
    const std::vector<double> scores =
        scores_of(session, noise, rules, core.filter, core.shape, spikes);
    const double middle = middle_of_two(scores);
    std::vector<tracked_spike> best;
    for (std::size_t i = 0; i < spikes.size(); ++i) {
      if (scores[i] > middle) best.push_back(spikes[i]);
    }
    if (best.size() < fewest_of_core) return;
    core.shape = mean_of_spikes(session, noise, rules.window, best, core.shape.channels);
    renew_filter(session, noise, rules, core);
  }
  if (core.filter.energy < std::max(core_energy, core_better * unit.filter.energy)) return;
  core.first = core.shape;
  unit = std::move(core);
}

}  // namespace

bool start_unit(const session_state& session, const noise_covariance& noise,
                const tracking_rules& rules, std::int64_t first, tracked_unit& unit) {
  std::vector<tracked_spike> spikes = first_spikes(session, rules, first, unit);
  if (spikes.size() < fewest_first_spikes) return false;
  const std::int32_t centre = session.templates.centre_channel(unit.cluster);
  if (centre < 1) return false;
  std::vector<std::int32_t> channels = channels_within(session, noise, centre, subtraction_um);
  if (channels.empty()) return false;
  const std::int32_t points = rules.window.points;
  spike_shape mean = mean_of_spikes(session, noise, rules.window, spikes, channels);
  const shape_peak peak = find_peak(mean, points, 0, points - 1);
  if (peak.channel == 0) return false;
  // The time of a spike is that of its largest value, whatever the sort had aligned it to.
  for (tracked_spike& s : spikes) s.time += peak.sample - rules.window.before;
  for (std::int32_t& t : unit.train) t += peak.sample - rules.window.before;
  if (peak.channel != centre) {
    channels = channels_within(session, noise, peak.channel, subtraction_um);
  }
  unit.shape = mean_of_spikes(session, noise, rules.window, spikes, channels);
  unit.first = unit.shape;
  unit.recent = {};
  unit.filter = {};
  unit.filter.main_channel = peak.channel;
  unit.stage = unit_stage::active;
  renew_filter(session, noise, rules, unit);
  if (unit.filter.energy < weak_energy) start_from_core(session, noise, rules, spikes, unit);
  return true;
}

void renew_filter(const session_state& session, const noise_covariance& noise,
                  const tracking_rules& rules, tracked_unit& unit) {
  follow_main_channel(session, noise, rules, unit);
  choose_channels(session, rules, unit);
  make_filter(noise, unit.shape, rules.window, rules.limits, unit.filter);
}

void follow_unit(const session_state& session, const noise_covariance& noise,
                 const tracking_rules& rules, const matching_set& set,
                 const std::vector<found_spike>& spikes, std::int32_t place, tracked_unit& unit) {
  const std::int32_t points = rules.window.points;
  const std::vector<std::int32_t> chosen =
      spikes_to_follow(spikes, place, unit.filter.energy, points);
  unit.depths.push_back(std::numeric_limits<float>::quiet_NaN());
  if (chosen.empty()) return;
  const spike_shape mean =
      mean_without_others(session, noise, set, spikes, chosen, unit.shape.channels);
  unit.shape.count =
      std::min(unit.shape.count, memory_for(unit.shape, mean, unit.filter.channels, points));
  mix_shapes(unit.shape, mean, shape_memory);
  if (unit.recent.count == 0) {
    unit.recent = mean;
    unit.recent.count = std::min(mean.count, recent_memory);
  } else {
    mix_shapes(unit.recent, mean, recent_memory);
  }
  if (mean.count >= fewest_for_depth) {
    unit.depths.back() = shape_depth(session, mean, points);
  }
}

float shape_depth(const session_state& session, const spike_shape& shape, std::int32_t points) {
  float largest = 0;
  for (std::size_t i = 0; i < shape.channels.size(); ++i) {
    largest = std::max(largest, peak_of(shape.row(i, points), points));
  }
  double sum = 0, weights = 0;
  for (std::size_t i = 0; i < shape.channels.size(); ++i) {
    const auto peak = static_cast<double>(peak_of(shape.row(i, points), points));
    // What is left in a mean on a far channel is noise, and there are many far channels.
    if (peak < part_for_depth * static_cast<double>(largest)) continue;
    weights += peak * peak;
    sum += peak * peak * session.recording.chan_y[shape.channels[i]];
  }
  return weights > 0 ? static_cast<float>(sum / weights) : std::nanf("");
}

namespace {

// Sum over both shapes' common channels of a(q) b(q + lag).
double shape_product(const spike_shape& a, const spike_shape& b, std::int32_t points,
                     std::int32_t lag) {
  double sum = 0;
  for (std::size_t i = 0; i < a.channels.size(); ++i) {
    const float* other = b.find(a.channels[i], points);
    if (other == nullptr) continue;
    const float* row = a.row(i, points);
    float part = 0;
    const std::int32_t to = std::min(points, points - lag);
    for (std::int32_t q = std::max(0, -lag); q < to; ++q) part += row[q] * other[q + lag];
    sum += static_cast<double>(part);
  }
  return sum;
}

std::vector<float> rows_at(const spike_shape& shape, const std::vector<std::int32_t>& channels,
                           std::int32_t points, std::int32_t lag, std::int32_t phase) {
  std::vector<float> out(channels.size() * static_cast<std::size_t>(points));
  std::vector<float> wide(static_cast<std::size_t>(points) + 2 * phase_taps);
  for (std::size_t i = 0; i < channels.size(); ++i) {
    const float* row = shape.find(channels[i], points);
    if (row == nullptr) continue;
    std::fill(wide.begin(), wide.end(), 0.0f);
    for (std::int32_t q = 0; q < points; ++q) {
      const std::int32_t from = q + lag;
      if (from >= 0 && from < points) wide[static_cast<std::size_t>(q + phase_taps)] = row[from];
    }
    shift_by_phase(wide.data() + phase_taps, phase, points,
                   out.data() + i * static_cast<std::size_t>(points));
  }
  return out;
}

double product_of(const std::vector<float>& a, const std::vector<float>& b) {
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += static_cast<double>(a[i] * b[i]);
  return sum;
}

}  // namespace

double square_sum(const spike_shape& shape) {
  double sum = 0;
  for (const float v : shape.values) sum += static_cast<double>(v) * static_cast<double>(v);
  return sum;
}

shape_likeness compare_shapes(const spike_shape& a, const spike_shape& b, std::int32_t points,
                              std::int32_t largest_lag) {
  shape_likeness best;
  const double norm = std::sqrt(shape_product(a, a, points, 0) * shape_product(b, b, points, 0));
  if (!(norm > 0)) return best;
  for (std::int32_t lag = -largest_lag; lag <= largest_lag; ++lag) {
    const double similarity = shape_product(a, b, points, lag) / norm;
    if (similarity > best.similarity) best = {similarity, lag};
  }
  return best;
}

whitened_distance distance_in_noise(const noise_covariance& noise, match_window window,
                                    const spike_shape& a, const spike_shape& b, std::int32_t lag,
                                    const std::vector<std::int32_t>& channels) {
  const std::int32_t points = window.points;
  const std::vector<float> rows_a = rows_at(a, channels, points, 0, 0);
  const std::vector<float> rows_b = rows_at(b, channels, points, lag, 0);
  std::vector<float> weights_a, weights_b;
  solve_noise(noise, channels, rows_a, weights_a);
  solve_noise(noise, channels, rows_b, weights_b);
  const double energy_a = product_of(rows_a, weights_a);
  const double energy_b = product_of(rows_b, weights_b);
  whitened_distance out{energy_a, 0};
  if (!(energy_b > 0)) return out;
  // Energy hardly depends on the shift, the product does.
  for (std::int32_t eighth = -match_phases; eighth <= match_phases; ++eighth) {
    const std::int32_t whole = eighth > match_half_phases    ? 1
                               : eighth < -match_half_phases ? -1
                                                             : 0;
    const std::vector<float> moved =
        rows_at(b, channels, points, lag + whole, eighth - whole * match_phases);
    const double product = product_of(moved, weights_a);
    const double left = energy_a - product * product / energy_b;
    if (product > 0 && left < out.square) out = {left, product / energy_b};
  }
  out.square = std::max(0.0, out.square);
  return out;
}

whitened_distance unbiased_distance(const noise_covariance& noise, match_window window,
                                    const spike_shape& a, const spike_shape& b, std::int32_t lag,
                                    const std::vector<std::int32_t>& channels) {
  whitened_distance d = distance_in_noise(noise, window, a, b, lag, channels);
  const double values = static_cast<double>(channels.size()) * window.points;
  d.square -= filled_part * values *
              (1.0 / static_cast<double>(a.count) + d.gain * d.gain / static_cast<double>(b.count));
  return d;
}

bool is_multiple_of(const noise_covariance& noise, match_window window, const spike_shape& small,
                    const spike_shape& large, std::int32_t lag,
                    const std::vector<std::int32_t>& channels, double energy) {
  const whitened_distance d = unbiased_distance(noise, window, small, large, lag, channels);
  return d.gain > least_gain &&
         d.square < std::max(same_square, same_part * d.gain * d.gain * energy);
}

}  // namespace kestrelvane

#include "analysis/power_spectrum.h"

#include <fftw3.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <mutex>

#include "numerics/parallel.h"
#include "numerics/sort.h"
#include "session/fingerprint_sum.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t n_points = 4096;
constexpr std::int32_t n_bins = n_points / 2 + 1;

// The library plans on one thread at a time.
std::mutex& planning() {
  static std::mutex mutex;
  return mutex;
}

// A plan that comes from a formula and uses no vector units: the same bits on every processor.
class forward_transform {
 public:
  forward_transform() {
    const std::lock_guard lock(planning());
    std::vector<float> x(n_points);
    std::vector<std::complex<float>> y(n_bins);
    plan_ = fftwf_plan_dft_r2c_1d(n_points, x.data(), reinterpret_cast<fftwf_complex*>(y.data()),
                                  FFTW_ESTIMATE | FFTW_NO_SIMD | FFTW_UNALIGNED);
  }
  forward_transform(const forward_transform&) = delete;
  forward_transform& operator=(const forward_transform&) = delete;
  ~forward_transform() {
    const std::lock_guard lock(planning());
    fftwf_destroy_plan(plan_);
  }
  void run(std::vector<float>& x, std::vector<std::complex<float>>& y) const {
    fftwf_execute_dft_r2c(plan_, x.data(), reinterpret_cast<fftwf_complex*>(y.data()));
  }

 private:
  fftwf_plan plan_;
};

std::vector<float> hann_window() {
  std::vector<float> window(n_points);
  for (std::int32_t i = 0; i < n_points; ++i) {
    window[i] = static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * i / n_points));
  }
  return window;
}

// First time indices of the stretches, half a stretch apart or more.
std::vector<std::int64_t> list_stretches(std::int64_t n_samples) {
  constexpr std::int64_t most = 400;
  const std::int64_t room = n_samples - n_points;
  const std::int64_t n = std::min(most, room / (n_points / 2) + 1);
  std::vector<std::int64_t> first;
  for (std::int64_t i = 0; i < n; ++i) {
    // Half a stretch apart as long as there are few enough; evenly spread beyond.
    first.push_back(1 + (n < most ? i * (n_points / 2) : i * room / (n - 1)));
  }
  return first;
}

// Densities of one channel, in the order of the stretches.
std::vector<float> measure_channel(const session_state& session, std::int32_t channel,
                                   const std::vector<std::int64_t>& stretches,
                                   const std::vector<float>& window,
                                   const forward_transform& transform) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  std::vector<double> sums(n_bins);
  std::vector<float> x(n_points);
  std::vector<std::complex<float>> y(n_bins);
  double window_power = 0;
  for (const float w : window) window_power += double{w} * double{w};
  for (const std::int64_t first : stretches) {
    std::int64_t sum = 0;
    for (std::int32_t i = 0; i < n_points; ++i) sum += v[first + i];
    const float mean = static_cast<float>(sum) / n_points;
    for (std::int32_t i = 0; i < n_points; ++i) {
      x[i] = (static_cast<float>(v[first + i]) - mean) * window[i];
    }
    transform.run(x, y);
    for (std::int32_t k = 0; k < n_bins; ++k) sums[k] += double{std::norm(y[k])};
  }
  const double scale = double{session.recording.vscale_HP};
  const double whole =
      window_power * session.recording.sampling_frequency * static_cast<double>(stretches.size());
  std::vector<float> density(n_bins);
  for (std::int32_t k = 0; k < n_bins; ++k) {
    // What lies at negative frequencies is added, but for the two bins that have no mirror image.
    const double sides = k == 0 || k == n_bins - 1 ? 1 : 2;
    density[k] = static_cast<float>(sums[k] * scale * scale * sides / whole);
  }
  return density;
}

// Mean and percentiles over the channels, bin by bin.
void average_channels(power_spectrum& spectrum) {
  const std::size_t n = spectrum.of_channel.size();
  std::vector<float> values(n);
  // Of one channel all three are its own.
  const auto tenth = static_cast<std::size_t>(std::lround(0.1 * static_cast<double>(n - 1)));
  for (std::int32_t k = 0; k < n_bins; ++k) {
    double sum = 0;
    for (std::size_t i = 0; i < n; ++i) {
      values[i] = spectrum.of_channel[i][k];
      sum += double{values[i]};
    }
    std::sort(values.begin(), values.end());
    spectrum.mean.push_back(static_cast<float>(sum / static_cast<double>(n)));
    spectrum.low.push_back(values[tenth]);
    spectrum.high.push_back(values[n - 1 - tenth]);
  }
}

}  // namespace

std::uint64_t recording_state(const session_state& session) {
  const recording_store& r = session.recording;
  fingerprint_sum sum;
  sum.add(static_cast<std::uint64_t>(r.n_samples));
  sum.add_bytes(r.recording_path.data(), r.recording_path.size());
  sum.add(static_cast<std::uint64_t>(session.filter_history.n_entries));
  return sum.value;
}

bool has_power_spectrum(const session_state& session) {
  const recording_store& r = session.recording;
  if (!r.is_continuous || r.n_samples < n_points) return false;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) return true;
  }
  return false;
}

power_spectrum measure_power_spectrum(const session_state& session,
                                      std::vector<std::int32_t> channels) {
  const recording_store& r = session.recording;
  power_spectrum spectrum;
  if (channels.empty()) {
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      if (!r.chan_mask[c]) channels.push_back(c);
    }
  }
  if (!r.is_continuous || r.n_samples < n_points || channels.empty()) return spectrum;
  const std::vector<std::int64_t> stretches = list_stretches(r.n_samples);
  const std::vector<float> window = hann_window();
  const forward_transform transform;
  const auto n = static_cast<std::int64_t>(channels.size());
  std::vector<std::vector<float>> all(channels.size());
  constexpr std::int64_t batch = 32;  // channels between two looks at whether to stop
  for (std::int64_t from = 0; from < n; from += batch) {
    if (autosort_interrupted(session)) return spectrum;
    const std::int64_t end = std::min(n, from + batch);
    parallel_for_dealt(threads_now(session), from, end - 1, [&](std::int64_t i, std::int32_t) {
      all[i] = measure_channel(session, channels[i], stretches, window, transform);
    });
    set_progress(session, meter::filtering, static_cast<std::int32_t>(end),
                 static_cast<std::int32_t>(n));
  }
  spectrum.step_hz = static_cast<float>(r.sampling_frequency) / n_points;
  spectrum.channels = std::move(channels);
  spectrum.of_channel = std::move(all);
  spectrum.recording = recording_state(session);
  average_channels(spectrum);
  return spectrum;
}

// ---------------------------------------------------------------- showing

namespace {

float decibels(float density) {
  // A silent channel has no logarithm.
  constexpr float least = 1e-12f;
  return 10 * std::log10(std::max(density, least));
}

void add_line(graph_data& graph, std::size_t series, const power_spectrum& spectrum,
              const std::vector<float>& density, const std::string& legend) {
  // The mean was taken out: bin 0 holds nothing.
  for (std::size_t k = 1; k < density.size(); ++k) {
    graph.series[series].x.push_back(static_cast<float>(k) * spectrum.step_hz);
    graph.series[series].y.push_back(decibels(density[k]));
  }
  graph.labels[label_legend + series] = legend;
}

}  // namespace

std::vector<float> find_mains_lines(const power_spectrum& spectrum) {
  constexpr float beside_hz = 15, stands_out = 2;  // 3 dB
  std::vector<float> lines;
  const auto last = static_cast<std::int32_t>(spectrum.mean.size()) - 1;
  for (const float mains : {50.0f, 60.0f}) {
    for (const float harmonic : {1.0f, 2.0f, 3.0f}) {
      const float hz = mains * harmonic;
      const auto bin = static_cast<std::int32_t>(std::lround(hz / spectrum.step_hz));
      const auto reach = static_cast<std::int32_t>(std::lround(beside_hz / spectrum.step_hz));
      if (spectrum.step_hz <= 0 || reach < 2 || bin < 1 || bin + reach > last) continue;
      std::vector<float> beside;
      for (std::int32_t k = std::max(1, bin - reach); k <= bin + reach; ++k) {
        // The window spreads a line over its neighbours.
        if (std::abs(k - bin) > 1) beside.push_back(spectrum.mean[k]);
      }
      const float level = select_median(static_cast<std::int32_t>(beside.size()), beside.data());
      const float peak =
          std::max({spectrum.mean[bin - 1], spectrum.mean[bin], spectrum.mean[bin + 1]});
      if (peak > stands_out * level) lines.push_back(hz);
    }
  }
  return lines;
}

graph_data make_spectrum_graph(const power_spectrum& spectrum, std::int32_t channel) {
  graph_data graph;
  graph.title = "HP spectrum";
  graph.kind = form_lines;
  graph.labels[label_x_axis] = "Frequency";
  graph.labels[label_y_axis] = "Power density";
  graph.units[0] = "Hz";
  graph.units[1] = "dB of 1 µV²/Hz";
  if (spectrum.mean.empty()) return graph;
  graph.labels[label_subtitle] = fmt::format("{} channels, bins of {:.1f} Hz",
                                             spectrum.channels.size(), double{spectrum.step_hz});
  add_line(graph, 0, spectrum, spectrum.mean, "Mean");
  if (spectrum.channels.size() > 1) {
    add_line(graph, 1, spectrum, spectrum.low, "10 % of channels");
    add_line(graph, 2, spectrum, spectrum.high, "90 % of channels");
  }
  const auto at = std::find(spectrum.channels.begin(), spectrum.channels.end(), channel);
  if (at != spectrum.channels.end()) {
    add_line(graph, 3, spectrum, spectrum.of_channel[at - spectrum.channels.begin()],
             fmt::format("Channel {}", channel));
  }
  const auto [low, high] = std::minmax_element(graph.series[0].y.begin(), graph.series[0].y.end());
  std::string found;
  graph_series& marks = graph.series[4];
  for (const float hz : find_mains_lines(spectrum)) {
    // One series for all: a point that is no number parts the uprights.
    marks.x.insert(marks.x.end(), {hz, hz, hz});
    marks.y.insert(marks.y.end(), {*low, *high, graph_data::open_end});
    found += fmt::format("{}{:.0f}", found.empty() ? "" : ", ", double{hz});
  }
  if (!found.empty()) graph.labels[label_legend + 4] = "Mains: " + found + " Hz";
  return graph;
}

}  // namespace kestrelvane

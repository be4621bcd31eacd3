#include "analysis/autocorrelation_time.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "analysis/correlograms.h"

namespace kestrelvane {

double autocorrelation_time::conditional_rate(std::int32_t window, std::int32_t lag) const {
  if (spikes[window] == 0) return 0;
  return pairs[static_cast<std::size_t>(window) * n_lags + lag] * 1000.0 /
         (spikes[window] * double{bin_ms});
}

autocorrelation_time measure_autocorrelation_time(const session_state& session, std::int32_t unit,
                                                  float bin_ms) {
  constexpr std::int32_t most_windows = 60, n_lags = 60;
  constexpr double shortest = 5;  // s; fewer spikes than in it make no correlogram
  autocorrelation_time result;
  const spike_train train = get_spike_train(session, unit);
  const double duration = 60 * double{session.recording.duration_mins};
  if (train.times.empty() || !(duration > 0)) return result;
  result.unit = unit;
  result.bin_ms = std::max(bin_ms, 1e-3f);
  result.n_lags = n_lags;
  result.n_windows = std::clamp(static_cast<std::int32_t>(duration / shortest), 1, most_windows);
  result.window_s = duration / result.n_windows;
  result.spikes.resize(static_cast<std::size_t>(result.n_windows));
  result.pairs.resize(static_cast<std::size_t>(result.n_windows) * n_lags);
  std::vector<std::int64_t> times = train.times;
  // Alignment may have carried a spike past another.
  std::sort(times.begin(), times.end());
  const auto rate = double{clock_of_trains(session).rate};
  for (std::size_t i = 0; i < times.size(); ++i) {
    const double place = std::floor(static_cast<double>(times[i]) / rate / result.window_s);
    const auto window = static_cast<std::int32_t>(std::clamp(place, 0.0, result.n_windows - 1.0));
    ++result.spikes[window];
    for (std::size_t k = i + 1; k < times.size(); ++k) {
      const double ms = static_cast<double>(times[k] - times[i]) * 1000 / rate;
      const double lag = std::floor(ms / double{result.bin_ms});
      if (lag >= n_lags) break;
      ++result.pairs[static_cast<std::size_t>(window) * n_lags + static_cast<std::size_t>(lag)];
    }
  }
  return result;
}

float autocorrelation_time_bin(const session_state& session) {
  return std::clamp(session.review.correlogram_bin_ms, 0.5f, 2.0f);
}

graph_data make_autocorrelation_time_graph(const autocorrelation_time& result) {
  graph_data graph;
  graph.title = "Autocorrelation vs time";
  graph.labels[label_x_axis] = "Time";
  graph.labels[label_y_axis] = "Lag";
  graph.labels[label_third_axis] = "Spikes per second";
  graph.units = {"s", "ms", "", ""};
  if (result.unit == 0) return graph;
  graph.title = fmt::format("Unit {} autocorrelation vs time", result.unit);
  std::vector<float> values;
  for (std::int32_t lag = 0; lag < result.n_lags; ++lag) {
    for (std::int32_t w = 0; w < result.n_windows; ++w) {
      values.push_back(static_cast<float>(result.conditional_rate(w, lag)));
    }
  }
  const auto window = static_cast<float>(result.window_s);
  // Cells stand on their middles.
  put_image(graph,
            {.rows = result.n_lags,
             .columns = result.n_windows,
             .x_first = window / 2,
             .x_step = window,
             .y_first = result.bin_ms / 2,
             .y_step = result.bin_ms},
            values);
  double most = 0;
  for (std::int32_t w = 0; w < result.n_windows; ++w) most = std::max(most, result.rate(w));
  // A strip as high as a quarter of the image, which has no axis of its own.
  const float top = static_cast<float>(result.n_lags) * result.bin_ms;
  const float strip = 0.25f * top;
  for (std::int32_t w = 0; w < result.n_windows; ++w) {
    graph.series[1].x.push_back((static_cast<float>(w) + 0.5f) * window);
    const double share = most > 0 ? result.rate(w) / most : 0;
    graph.series[1].y.push_back(top + strip * static_cast<float>(share));
  }
  graph.series_style[1] = pack_series_look({.form = form_steps});
  graph.labels[label_subtitle] = fmt::format("above: rate, 0 to {:.1f} Hz", most);
  graph.axis_style[style_of_legend] = legend_hidden;
  graph.x_range = {0, window * static_cast<float>(result.n_windows)};
  graph.y_range = {0, top + strip * 1.05f};
  return graph;
}

}  // namespace kestrelvane

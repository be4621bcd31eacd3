#include "analysis/interval_heights.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "analysis/correlograms.h"
#include "numerics/sort.h"
#include "numerics/special_functions.h"
#include "session/template_window.h"

namespace kestrelvane {

namespace {

float spike_height_uv(const session_state& session, std::int32_t event, std::int32_t channel) {
  const recording_store& r = session.recording;
  const std::int64_t first =
      std::int64_t{session.events.event_time[event]} + window_first_sample(session);
  // A window at the rim of the recording is read as far as there are samples.
  const std::int64_t from = std::max<std::int64_t>(first, -vd_margin);
  const std::int64_t to =
      std::min<std::int64_t>(first + session.templates.template_points, r.vd.max_time() + 1);
  if (from >= to) return 0;
  const std::int16_t* v = r.vd.channel(channel);
  // From the samples as they are stored: peak to peak over the whole window hardly feels a shift of
  // part of a sample.
  const auto [low, high] = std::minmax_element(v + from, v + to);
  return static_cast<float>(*high - *low) * r.vscale_HP;
}

struct side {
  double n = 0, sum = 0, squares = 0;
  void add(double value) {
    ++n;
    sum += value;
    squares += value * value;
  }
  // Sum of squared deviations from the mean.
  double deviations() const { return std::max(0.0, squares - sum * sum / n); }
};

float t_test(const side& x, const side& y) {
  // A side without spread of its own tells nothing: no difference is claimed.
  if (x.n < 2 || y.n < 2) return 1;
  const double freedom = x.n + y.n - 2;
  // Pooled, after Student: both sides are spikes of one unit in the same noise.
  const double variance = (x.deviations() + y.deviations()) / freedom;
  const double difference = x.sum / x.n - y.sum / y.n;
  // All heights alike on either side: any difference at all is then certain.
  if (variance <= 0) return difference == 0 ? 1.0f : 0.0f;
  const double t2 = difference * difference / (variance * (1 / x.n + 1 / y.n));
  // Two-sided: bursts mostly make later spikes smaller, but nothing says so beforehand.
  return betai(static_cast<float>(freedom / 2), 0.5f, static_cast<float>(freedom / (freedom + t2)));
}

float median_of(std::vector<float> values) {
  if (values.empty()) return 0;
  return select_median(static_cast<std::int32_t>(values.size()), values.data());
}

void test_heights(const session_state& session, interval_heights& result) {
  if (result.dt_ms == 0) result.dt_ms = median_of(result.ms);
  side near, far;
  for (std::size_t i = 0; i < result.ms.size(); ++i) {
    (result.ms[i] < result.dt_ms ? near : far).add(double{result.uv[i]});
  }
  result.n_short = static_cast<std::int32_t>(near.n);
  if (near.sum + far.sum == 0) log_message(session, "ysum=0");
  result.p_value = t_test(near, far);
}

// Spikes by time; alignment may have carried one past another.
std::vector<std::size_t> order_spikes(const spike_train& train) {
  std::vector<std::size_t> order(train.times.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&train](std::size_t x, std::size_t y) {
    return train.times[x] < train.times[y];
  });
  return order;
}

}  // namespace

interval_heights measure_interval_heights(const session_state& session, std::int32_t a,
                                          std::int32_t b, float longest_ms, float dt_ms) {
  interval_heights result;
  result.a = a;
  result.b = b;
  result.dt_ms = dt_ms;
  const spike_train of_a = get_spike_train(session, a);
  std::vector<std::int64_t> before = a == b ? of_a.times : get_spike_train(session, b).times;
  std::sort(before.begin(), before.end());
  result.n_spikes = static_cast<std::int32_t>(of_a.times.size());
  if (of_a.times.empty() || before.empty()) return result;
  const std::int32_t channel = session.templates.centre_channel(a);
  // A flat template has no centre at which heights could be measured.
  if (channel < 1 || channel > session.recording.n_channels) return result;
  const float rate = clock_of_trains(session).rate;
  for (const std::size_t i : order_spikes(of_a)) {
    const std::int64_t time = of_a.times[i];
    // The last one that is earlier; one at the same time has not fired before.
    const auto next = std::lower_bound(before.begin(), before.end(), time);
    if (next == before.begin()) continue;
    const float ms = static_cast<float>(time - *(next - 1)) * 1000.0f / rate;
    if (ms > longest_ms) continue;
    result.ms.push_back(ms);
    result.uv.push_back(spike_height_uv(session, of_a.events[i], channel));
  }
  test_heights(session, result);
  return result;
}

std::string interval_heights_title(const interval_heights& result) {
  return result.a == result.b ? fmt::format("ISI dependence Unit {}", result.a)
                              : std::string("ISI co-dependence");
}

namespace {

// The mean of each point and its neighbours by interval, as many on either side; towards
// the ends fewer, down to 5, but still as many on both, so that a slope does not bend the line.
graph_series running_mean(const interval_heights& result) {
  constexpr std::size_t reach = 25, least = 5;
  const std::size_t n = result.ms.size();
  std::vector<std::size_t> order(n);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return result.ms[a] < result.ms[b]; });
  std::vector<double> sums(n + 1);
  for (std::size_t i = 0; i < n; ++i) sums[i + 1] = sums[i] + double{result.uv[order[i]]};
  graph_series line;
  for (std::size_t i = least; i + least < n; ++i) {
    const std::size_t k = std::min({reach, i, n - 1 - i});
    line.x.push_back(result.ms[order[i]]);
    line.y.push_back(
        static_cast<float>((sums[i + k + 1] - sums[i - k]) / static_cast<double>(2 * k + 1)));
  }
  return line;
}

}  // namespace

graph_data make_interval_heights_graph(const interval_heights& result) {
  graph_data graph;
  graph.title = interval_heights_title(result);
  graph.kind = form_points;
  graph.labels[label_x_axis] = "msecs";
  graph.labels[label_y_axis] = "Spike height";
  graph.units[1] = "µV";
  graph.series[0].x = result.ms;
  graph.series[0].y = result.uv;
  // Of a few points it would be the points themselves.
  constexpr std::size_t fewest = 20;
  if (result.ms.size() < fewest) return graph;
  graph.series[1] = running_mean(result);
  graph.series_style[1] = pack_series_look({.form = form_lines});
  graph.labels[label_legend] = "spikes";
  graph.labels[label_legend + 1] = "running mean";
  return graph;
}

}  // namespace kestrelvane

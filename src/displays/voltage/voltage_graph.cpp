#include "displays/voltage/voltage_graph.h"

#include <fmt/format.h>

#include <algorithm>

#include "displays/voltage/voltage_geometry.h"
#include "files/input_file.h"

namespace kestrelvane {

namespace {

graph_series trace_of(const session_state& session, std::int32_t channel, std::int32_t first,
                      std::int32_t last) {
  const recording_store& r = session.recording;
  const std::int16_t* samples = r.vd.channel(channel);
  const double ms = 1000.0 / r.sampling_frequency;
  graph_series series;
  for (std::int32_t t = first; t <= last; ++t) {
    // The product in 64 bits, rounded once.
    series.x.push_back(static_cast<float>(t * ms));
    series.y.push_back(static_cast<float>(samples[t]) * r.vscale_HP);
  }
  return series;
}

}  // namespace

graph_data make_voltage_graph(session_state& session) {
  const recording_store& r = session.recording;
  graph_data graph;
  graph.title = "Voltage record of " + file_name_of(r.recording_path);
  graph.labels[label_x_axis] = "time";
  graph.labels[label_y_axis] = "voltage";
  graph.units[0] = "ms";
  graph.units[1] = "µV";
  graph.source_files[0] = r.recording_path;
  // An empty graph still says what it would show.
  if (r.n_samples == 0 || r.sampling_frequency <= 0) return graph;
  const voltage_layout layout = lay_out_voltage(session);
  // Samples and not columns: who writes the numbers wants the recording, whatever the zoom.
  const double in_view = layout.n_columns / static_cast<double>(layout.time_scale);
  const std::int32_t first = layout.first_sample;
  const auto last =
      static_cast<std::int32_t>(std::min(first + in_view, static_cast<double>(r.n_samples)));
  std::size_t n = 0;
  // Rows from the top of the view, as many as a graph has room for.
  for (std::int32_t row = layout.first_row; row <= layout.last_row && n < graph_series_limit;
       ++row, ++n) {
    const std::int32_t channel = r.chan_sort_order[row];
    graph.series[n] = trace_of(session, channel, first, last);
    if (label_legend + n < graph_label_count) {
      graph.labels[label_legend + n] = fmt::format("channel {}", channel);
    }
  }
  return graph;
}

}  // namespace kestrelvane

#include "analysis/channel_check_graphs.h"

#include <fmt/format.h>

#include <algorithm>

#include "session/run_log.h"

namespace kestrelvane {

namespace {

// Room for the number over the highest point.
void leave_room_above(graph_data& graph) {
  float low = 0, high = 0;
  for (const graph_series& series : graph.series) {
    for (const float y : series.y) {
      low = std::min(low, y);
      high = std::max(high, y);
    }
  }
  const float span = high - low;
  if (span > 0) graph.y_range = {low - 0.05f * span, high + 0.15f * span};
}

}  // namespace

graph_data make_deviation_graph(const session_state& session, const channel_check& check,
                                bool with_numbers) {
  const recording_store& r = session.recording;
  graph_data graph;
  graph.title = "single channel net deviations";
  graph.kind = form_points;
  graph.series_style[1] = pack_series_look({.form = form_rings});
  graph.labels[label_x_axis] = "RMS channel deviation";
  graph.labels[label_y_axis] = "Signed deviation";
  // A legend would stand where the outliers do.
  graph.axis_style[style_of_legend] = legend_hidden;
  for (std::size_t i = 0; i < check.channels.size(); ++i) {
    const checked_channel& c = check.channels[i];
    if (c.channel < 1 || c.channel > r.n_channels) {
      log_message(session, fmt::format("Check channels error in channel list {} {} {}", i + 1,
                                       c.channel, r.n_channels));
      continue;
    }
    const std::size_t which = r.chan_mask[c.channel] ? 1 : 0;
    graph_series& series = graph.series[which];
    graph.labels[label_legend + which] = which == 1 ? "masked" : "not masked";
    series.x.push_back(c.rms_deviation);
    series.y.push_back(c.signed_deviation);
    if (with_numbers) series.point_text.push_back(fmt::format("{}", c.channel));
  }
  if (graph.series[0].x.empty() && graph.series[1].x.empty()) {
    log_message(session, "Failed check: no channel has a pair within the cut-off distance");
  }
  graph.labels[label_subtitle] = fmt::format("{} channels, z-scores{}", check.channels.size(),
                                             graph.series[1].x.empty() ? "" : "; rings: masked");
  leave_room_above(graph);
  return graph;
}

graph_data make_distance_graph(const session_state& session, const channel_check& check,
                               bool use_masked, std::int32_t channel) {
  const recording_store& r = session.recording;
  graph_data graph;
  graph.title = "correlation vs distance";
  graph.kind = form_points;
  graph.labels[label_x_axis] = "Channel separation (microns)";
  graph.labels[label_y_axis] = "Correlation";
  graph_series &points = graph.series[0], &curve = graph.series[1];
  float farthest = 0;
  for (const channel_pair& pair : check.channel_pairs) {
    if (!use_masked && (r.chan_mask[pair.a] || r.chan_mask[pair.b])) continue;
    const float distance = r.distance(pair.a, pair.b);
    farthest = std::max(farthest, distance);
    if (channel != 0 && channel != pair.a && channel != pair.b) continue;
    points.x.push_back(distance);
    points.y.push_back(pair.r);
  }
  const std::string of = channel == 0 ? "all channels" : fmt::format("channel {}", channel);
  graph.labels[label_subtitle] = fmt::format("{} pairs of {}", points.x.size(), of);
  graph.series_style[1] = pack_series_look({.form = form_lines});
  constexpr int steps = 200;
  for (int i = 0; farthest > 0 && i <= steps; ++i) {
    const float distance = farthest * static_cast<float>(i) / steps;
    curve.x.push_back(distance);
    curve.y.push_back(expected_correlation(check, distance));
  }
  graph.labels[label_legend] = "pairs";
  graph.labels[label_legend + 1] = "fitted curve";
  return graph;
}

}  // namespace kestrelvane

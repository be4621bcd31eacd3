#include "workstation/windows/channel_windows.h"

#include <QLineF>

#include "analysis/channel_check_graphs.h"
#include "analysis/power_spectrum.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/graph_plot.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Null where nothing was measured, or filters have run or another recording was read since then.
const channel_check_state* valid_check(const workstation& w) {
  const channel_check_state* state = w.channels.get();
  return state != nullptr && state->recording == recording_state(w.session) ? state : nullptr;
}

graph_data outdated_check() {
  graph_data graph;
  graph.title = "Channel check";
  graph.labels[label_subtitle] = "The recording is another now:";
  graph.remark = "Pre-process > Channel check measures it again";
  return graph;
}

// The channel whose point is nearest, 0 with none within reach.
std::int32_t channel_at(const channel_check& check, const drawn_graph& drawn, QPoint at) {
  double nearest = 12;  // pixels
  std::int32_t channel = 0;
  for (const checked_channel& c : check.channels) {
    const QPointF point = pixel_of(drawn, double{c.rms_deviation}, double{c.signed_deviation});
    const double distance = QLineF(point, at).length();
    if (distance >= nearest) continue;
    nearest = distance;
    channel = c.channel;
  }
  return channel;
}

}  // namespace

graph_routines channel_deviation_routines(workstation& w) {
  const auto plot = std::make_shared<graph_plot>();
  plot->numbers = [&w](session_state& session) {
    const channel_check_state* state = valid_check(w);
    if (state == nullptr) return outdated_check();
    return make_deviation_graph(session, state->found, state->with_numbers);
  };
  graph_routines routines = plot_routines(w, plot);
  routines.clicked = [&w, plot](QPoint at) {
    const channel_check_state* state = valid_check(w);
    if (state == nullptr || !state->chosen) return;
    const std::int32_t channel = channel_at(state->found, plot->drawn, at);
    if (channel > 0) state->chosen(channel);
  };
  return routines;
}

graph_routines channel_distance_routines(workstation& w) {
  const auto plot = std::make_shared<graph_plot>();
  plot->numbers = [&w](session_state& session) {
    const channel_check_state* state = valid_check(w);
    if (state == nullptr) return outdated_check();
    return make_distance_graph(session, state->found, state->use_masked,
                               state->one_channel ? session.current_channel : 0);
  };
  return plot_routines(w, plot);
}

void redraw_channel_windows(workstation& w) {
  redraw_graph(w, graph_kind::channel_deviations);
  redraw_graph(w, graph_kind::channel_analysis);
}

}  // namespace kestrelvane

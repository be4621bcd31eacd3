#include "workstation/windows/correlogram_window.h"

#include <QPaintEngine>
#include <QPainter>
#include <vector>

#include "displays/clusters/cluster_theme.h"
#include "displays/clusters/correlogram_panel.h"
#include "workstation/themes.h"
#include "workstation/windows/cluster_displays.h"

namespace kestrelvane {

namespace {

correlogram_state& state_of(workstation& w) {
  if (!w.correlograms) w.correlograms = std::make_shared<correlogram_state>();
  return *w.correlograms;
}

// A unit has the colour that the other windows give its events: that of its number, or, in a pair
// under review, that of its label or place.
std::int16_t mark_of_unit(workstation& w, const spike_train& train, bool labelled) {
  const cluster_displays& d = displays_of(w);
  const bool reviewed = train.unit == d.a || train.unit == d.b;
  if (!reviewed || train.events.empty()) return mark_of_cluster(train.unit);
  const mark_source source = labelled ? mark_source::labels : mark_source::places;
  return mark_of_event(w.session, source, train.events[0], train.unit == d.a ? 0 : 1);
}

void mark_units(workstation& w, const spike_train& first, const spike_train& second) {
  const bool labelled =
      find_mark_source(w.session, {first.events, second.events}, 2) == mark_source::labels;
  state_of(w).mark_first = mark_of_unit(w, first, labelled);
  state_of(w).mark_second = mark_of_unit(w, second, labelled);
}

void count(workstation& w) {
  correlogram_state& state = state_of(w);
  const session_state& session = w.session;
  const std::int32_t n = session.clusters.n_clusters;
  // Numbers that an edit has taken away stand for nothing any more.
  const std::int32_t a = state.a >= 1 && state.a <= n ? state.a : session.clusters.current_cluster;
  const std::int32_t b = state.b >= 1 && state.b <= n ? state.b : a;
  state.shown = {};
  if (a < 1 || a > n) return;
  const float width = session.review.correlogram_bin_ms;
  const spike_train first = get_spike_train(session, a);
  state.shown.first = correlogram_counts(session, first, first, width);
  state.shown.n_first = state.shown.n_second = static_cast<std::int32_t>(first.events.size());
  state.mark_first = mark_of_cluster(a);
  if (b == a) return;
  const spike_train second = get_spike_train(session, b);
  mark_units(w, first, second);
  state.shown.second = correlogram_counts(session, second, second, width);
  state.shown.cross = correlogram_counts(session, first, second, width);
  state.shown.n_second = static_cast<std::int32_t>(second.events.size());
}

// From left to right: the two units stand on both sides of what they have in common.
std::vector<const correlogram*> panels_of(const correlogram_state& state) {
  std::vector<const correlogram*> panels;
  const train_correlation& shown = state.shown;
  if (shown.first.a > 0) panels.push_back(&shown.first);
  if (shown.second.a == 0) return panels;
  if (!state.autos_only) panels.push_back(&shown.cross);
  panels.push_back(&shown.second);
  return panels;
}

correlogram_panel panel_of(const correlogram& shown, const correlogram_state& state) {
  correlogram_panel panel = make_correlogram_panel(shown, state.as_rate);
  // A cross-correlogram is of neither cluster and has neither colour.
  panel.mark = shown.a != shown.b             ? std::int16_t{0}
               : &shown == &state.shown.first ? state.mark_first
                                              : state.mark_second;
  return panel;
}

void draw(const workstation& w, const correlogram_state& state, QPainter& painter, QSize size) {
  const bool on_screen = painter.paintEngine()->type() == QPaintEngine::Raster;
  const cluster_theme theme =
      make_cluster_theme(w.session.preferences, on_screen && pictures_are_dark());
  const QRectF all(0, 0, size.width(), size.height());
  painter.fillRect(all, theme.background);
  const std::vector<const correlogram*> panels = panels_of(state);
  const std::vector<QRectF> places = lay_out_panels(all, static_cast<std::int32_t>(panels.size()));
  for (std::size_t i = 0; i < panels.size(); ++i) {
    paint_correlogram(painter, places[i], panel_of(*panels[i], state), theme);
  }
}

}  // namespace

graph_routines correlogram_routines(workstation& w) {
  state_of(w);
  // Held by the routines: numbers are drawn also while a worker has the session.
  const std::shared_ptr<correlogram_state> state = w.correlograms;
  graph_routines routines;
  routines.gather = [&w] { count(w); };
  routines.draw = [&w, state](QPainter& painter, QSize size) { draw(w, *state, painter, size); };
  // Of a pair what is between the two is what is looked at.
  routines.graph = [state] {
    const bool pair = state->shown.second.a > 0 && !state->autos_only;
    return make_correlogram_graph(pair ? state->shown.cross : state->shown.first, state->as_rate);
  };
  return routines;
}

void choose_correlograms(workstation& w, std::int32_t a, std::int32_t b) {
  correlogram_state& state = state_of(w);
  state.a = a;
  state.b = b;
  state.autos_only = false;  // that was asked of the units before
}

void show_correlograms(workstation& w, std::int32_t a, std::int32_t b) {
  choose_correlograms(w, a, b);
  show_graph(w, graph_kind::correlograms);
}

}  // namespace kestrelvane

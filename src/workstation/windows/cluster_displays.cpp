#include "workstation/windows/cluster_displays.h"

#include <QPaintEngine>
#include <QPainter>

#include "displays/voltage/voltage_navigation.h"
#include "workstation/themes.h"
#include "workstation/windows/voltage_window.h"
#include "workstation/workstation.h"

namespace kestrelvane {

cluster_displays& displays_of(workstation& w) {
  if (!w.cluster_windows) w.cluster_windows = std::make_shared<cluster_displays>();
  return *w.cluster_windows;
}

bool is_cluster(const workstation& w, std::int32_t c) {
  return c >= 1 && c <= w.session.clusters.n_clusters;
}

std::vector<std::int32_t> clusters_on_show(workstation& w) {
  const cluster_displays& d = displays_of(w);
  // An edit may have taken one of them away before the review has chosen the next pair.
  if (is_cluster(w, d.a) && is_cluster(w, d.b) && d.a != d.b) return {d.a, d.b};
  const std::int32_t current = w.session.clusters.current_cluster;
  return is_cluster(w, current) ? std::vector<std::int32_t>{current} : std::vector<std::int32_t>{};
}

cluster_theme theme_for(const workstation& w, const QPainter& painter) {
  const bool on_screen = painter.paintEngine()->type() == QPaintEngine::Raster;
  return make_cluster_theme(w.session.preferences, on_screen && pictures_are_dark());
}

void redraw_graph(workstation& w, graph_kind kind) {
  if (graph_window* window = graph_of(w, kind)) window->surface()->redraw();
}

void choose_event(workstation& w, std::int32_t event) {
  if (event < 1) return;
  cluster_displays& d = displays_of(w);
  // In all windows at once: where a spike lies in each is what the user wants to know.
  d.single.view.selected_event = d.pair.view.selected_event = event;
  d.components.selected_event = d.heights.selected_event = event;
  go_to_event(w.session, event);
  refresh_graphs(w);
}

const component_values& values_on_show(workstation& w) {
  cluster_displays& d = displays_of(w);
  const std::vector<std::int32_t> clusters = clusters_on_show(w);
  // Components of a large pair take longer to compute than to draw; until something changes they
  // stay.
  if (d.values_valid && d.values.clusters == clusters) return d.values;
  d.values = {};
  if (!clusters.empty()) read_component_values(w.session, d.index, clusters, d.values);
  // As asked for, also where nothing could be read, or every drawing would try again.
  d.values.clusters = clusters;
  d.values_valid = true;
  return d.values;
}

}  // namespace kestrelvane

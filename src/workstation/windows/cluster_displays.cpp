#include "workstation/windows/cluster_displays.h"

#include <QElapsedTimer>
#include <QPaintEngine>
#include <QPainter>
#include <QTimer>
#include <algorithm>
#include <cstring>
#include <utility>

#include "clustering/membership.h"
#include "displays/voltage/voltage_navigation.h"
#include "session/fingerprint_sum.h"
#include "workstation/frame.h"
#include "workstation/themes.h"
#include "workstation/windows/session_turn.h"
#include "workstation/windows/voltage_window.h"
#include "workstation/workstation.h"

namespace kestrelvane {

cluster_displays& displays_of(workstation& w) {
  if (!w.cluster_windows) w.cluster_windows = std::make_shared<cluster_displays>();
  return *w.cluster_windows;
}

std::vector<std::int32_t> current_cluster_alone(const workstation& w) {
  const std::int32_t current = w.session.clusters.current_cluster;
  if (!is_cluster(w.session, current)) return {};
  return {current};
}

std::vector<std::int32_t> clusters_on_show(workstation& w) {
  const cluster_displays& d = displays_of(w);
  // What a run has in hand comes before what a review has left on show.
  std::vector<std::int32_t> pooled = w.session.autosort.pool.clusters;
  std::erase_if(pooled, [&w](std::int32_t c) { return !is_cluster(w.session, c); });
  if (!pooled.empty()) return pooled;
  // An edit may have taken one of them away before the review has chosen the next pair.
  if (is_cluster(w.session, d.a) && is_cluster(w.session, d.b) && d.a != d.b) return {d.a, d.b};
  return current_cluster_alone(w);
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

// ---------------------------------------------------------------- values of the components

namespace {

std::uint64_t fingerprint_of(const std::vector<float>& values) {
  fingerprint_sum sum;
  sum.add_bytes(values.data(), values.size() * sizeof(float));
  return sum.value;
}

// In the plane of other values the ellipse lies round other events.
void drop_old_ellipse(workstation& w, const cluster_displays& d) {
  if (d.values.clusters.size() != 1 || !is_cluster(w.session, d.values.clusters[0])) return;
  cluster_ellipse_record& ellipse = w.session.clusters.cluster_ellipse[d.values.clusters[0]];
  for (const noted_ellipse& noted : d.ellipses) {
    const bool same = std::memcmp(&noted.ellipse, &ellipse, sizeof ellipse) == 0;
    if (same && noted.fingerprint != fingerprint_of(d.values.values)) {
      ellipse = {};
      return;
    }
  }
}

// Reads for a part of the time in which a window may stand still. True when all is there.
bool read_for_a_while(workstation& w, component_reading& reading) {
  constexpr qint64 longest = 25;          // ms
  constexpr std::int32_t stretch = 4096;  // events; a few ms
  QElapsedTimer clock;
  clock.start();
  while (clock.elapsed() < longest) {
    if (read_on(w.session, stretch, reading)) return true;
  }
  return false;
}

void take_values(workstation& w, cluster_displays& d) {
  d.values = std::move(d.reading->values);
  // As asked for, also where nothing could be read, or every drawing would try again.
  d.values.clusters = d.reading->wanted;
  d.values_valid = true;
  d.reading.reset();
  drop_old_ellipse(w, d);
}

bool is_stale(workstation& w, const cluster_displays& d) {
  return !d.index.valid || d.reading->index_stamp != d.index.stamp ||
         d.reading->wanted != clusters_on_show(w);
}

void plan_reading(workstation& w);

void go_on_reading(workstation& w) {
  cluster_displays& d = displays_of(w);
  d.reading_planned = false;
  if (!d.reading) return;
  const session_turn turn(w);
  if (!turn.taken) {
    // An operation may change what has been read in part; the windows are drawn after it anyhow.
    d.reading.reset();
    return;
  }
  if (is_stale(w, d)) {
    d.reading.reset();
  } else if (read_for_a_while(w, *d.reading)) {
    take_values(w, d);
  } else {
    return plan_reading(w);
  }
  redraw_graph(w, graph_kind::principal_components);
  redraw_graph(w, graph_kind::amplitude_vs_time);
}

// What mouse and keys bring comes in between.
void plan_reading(workstation& w) {
  if (std::exchange(displays_of(w).reading_planned, true)) return;
  QTimer::singleShot(0, w.frame, [&w] { go_on_reading(w); });
}

const component_values& values_of_pool(const workstation& w, cluster_displays& d) {
  const event_pool& pool = w.session.autosort.pool;
  d.values = component_values_of(pool.events, pool.labels, pool.dimensions, pool.values);
  d.values.clusters = pool.pooled;
  // One cluster that has not come apart looks as in the other windows.
  const bool labelled = std::any_of(pool.labels.begin(), pool.labels.end(),
                                    [](std::int16_t label) { return label != 0; });
  if (!labelled) {
    std::fill(d.values.marks.begin(), d.values.marks.end(), mark_of_cluster(pool.pooled[0]));
  }
  // Of the next picture the pool may be another one.
  d.values_valid = false;
  return d.values;
}

}  // namespace

const component_values& values_on_show(workstation& w) {
  cluster_displays& d = displays_of(w);
  if (!w.session.autosort.pool.pooled.empty()) return values_of_pool(w, d);
  const std::vector<std::int32_t> clusters = clusters_on_show(w);
  // Components of a large pair take longer to compute than to draw; until something changes they
  // stay.
  if (d.values_valid && d.values.clusters == clusters) return d.values;
  if (d.reading && !is_stale(w, d)) return d.values;
  d.reading.emplace();
  begin_component_values(w.session, d.index, clusters, *d.reading);
  if (read_for_a_while(w, *d.reading)) {
    take_values(w, d);
    return d.values;
  }
  plan_reading(w);
  // Labels are seen at once: of the same events the points will most likely be the same.
  const bool same = d.values.clusters == clusters && d.values.events == d.reading->values.events;
  if (same) mark_component_values(w.session, d.values);
  return d.values;
}

bool values_are_of(const workstation& w, std::int32_t cluster) {
  const cluster_displays& d = *w.cluster_windows;
  return d.values_valid && d.values.clusters == std::vector<std::int32_t>{cluster};
}

void note_ellipse(cluster_displays& d, const cluster_ellipse_record& ellipse) {
  constexpr std::size_t most = 100;
  // Of the oldest the cluster has long had another one.
  if (d.ellipses.size() >= most) d.ellipses.erase(d.ellipses.begin());
  d.ellipses.push_back({ellipse, fingerprint_of(d.values.values)});
}

// ---------------------------------------------------------------- under the pointer

void show_reading(workstation& w, graph_kind kind, QPointF at, const QString& words) {
  cluster_displays& d = displays_of(w);
  const bool shown = d.pointer && d.pointer->kind == kind;
  if (words.isEmpty() && !shown) return;
  d.pointer.reset();
  if (!words.isEmpty()) d.pointer = pointer_reading{kind, at, words};
  if (graph_window* window = graph_of(w, kind)) window->surface()->update();
}

void paint_reading(workstation& w, graph_kind kind, QPainter& painter, const QRectF& area) {
  const cluster_displays& d = displays_of(w);
  if (!d.pointer || d.pointer->kind != kind) return;
  paint_read_out(painter, area, d.pointer->at, d.pointer->words, theme_for(w, painter));
}

}  // namespace kestrelvane

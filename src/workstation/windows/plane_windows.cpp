#include <QPainter>
#include <cmath>

#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

void draw_components(workstation& w, QPainter& painter, QSize size) {
  cluster_displays& d = displays_of(w);
  follow_shown_cluster(w);
  if (!std::exchange(d.components_begun, true)) {
    d.components = component_view_of_settings(w.session);
  }
  component_view& view = d.components;
  const component_values& values = values_on_show(w);
  view.clusters = values.clusters;
  view.width = size.width();
  view.height = size.height();
  prepare_components(w.session, values, view, d.component_points);
  paint_components(painter, d.component_points, view, theme_for(w, painter));
}

// A drag turns the space of three components, and moves the plane of two.
void drag_components(cluster_displays& d, QPoint from, QPoint to) {
  component_view& view = d.components;
  if (d.values.dimensions >= 3) {
    constexpr float degrees_per_pixel = 0.5f;
    view.turn += static_cast<float>(to.x() - from.x()) * degrees_per_pixel;
    view.tilt += static_cast<float>(to.y() - from.y()) * degrees_per_pixel;
  } else {
    view.range = drag_view(d.component_points.plane, from, to);
  }
}

// ---------------------------------------------------------------- against time

void draw_heights(workstation& w, QPainter& painter, QSize size) {
  cluster_displays& d = displays_of(w);
  follow_shown_cluster(w);
  height_view& view = d.heights;
  view.clusters = clusters_on_show(w);
  view.width = size.width();
  view.height = size.height();
  const bool of_components = view.measure != height_measure::peak_to_peak;
  prepare_heights(w.session, d.index, of_components ? &values_on_show(w) : nullptr, view,
                  d.height_points);
  // Its title names what it shows, whoever has opened it.
  const QString title = height_title(d.height_points, view.measure);
  graph_window* window = graph_of(w, graph_kind::amplitude_vs_time);
  if (window != nullptr && !title.isEmpty()) window->setWindowTitle(title);
  paint_heights(painter, d.height_points, view, theme_for(w, painter));
}

// Shapes and read-outs, the same for both planes.
void add_pointer_routines(workstation& w, graph_kind kind, graph_routines& routines,
                          std::function<QString(QPoint at)> words) {
  routines.draw_over = [&w, kind](QPainter& painter) {
    const cluster_displays& d = displays_of(w);
    const bool components = kind == graph_kind::principal_components;
    paint_shape_in_hand(w, kind, painter);
    paint_reading(w, kind, painter,
                  components ? QRectF(0, 0, d.components.width, d.components.height)
                             : QRectF(0, 0, d.heights.width, d.heights.height));
  };
  routines.mouse_moved = [&w, kind, words = std::move(words)](QPoint at) {
    show_reading(w, kind, at, words(at));
  };
  routines.mouse_left = [&w, kind] { show_reading(w, kind, {}, {}); };
  add_shape_routines(w, kind, routines);
}

}  // namespace

graph_routines component_routines(workstation& w) {
  constexpr graph_kind kind = graph_kind::principal_components;
  graph_routines routines;
  routines.draw = [&w](QPainter& painter, QSize size) { draw_components(w, painter, size); };
  routines.wheel = [&w](int notches, QPoint at, Qt::KeyboardModifiers) {
    cluster_displays& d = displays_of(w);
    d.components.range =
        zoom_view(d.component_points.plane, at, std::pow(closer_per_notch, notches));
    redraw_graph(w, kind);
  };
  routines.dragged = [&w](QPoint from, QPoint to) {
    drag_components(displays_of(w), from, to);
    redraw_graph(w, kind);
  };
  routines.enclosed = [&w](QRect part) {
    cluster_displays& d = displays_of(w);
    d.components.range = view_of_rectangle(d.component_points.plane, part);
    redraw_graph(w, kind);
  };
  routines.clicked = [&w](QPoint at) {
    choose_event(w, component_event_at(displays_of(w).component_points, at));
  };
  routines.double_clicked = [&w] {
    component_view& view = displays_of(w).components;
    view.range = {0, 0, 0, 0};
    view.turn = view.tilt = 0;
    redraw_graph(w, kind);
  };
  add_pointer_routines(w, kind, routines, [&w](QPoint at) {
    const cluster_displays& d = displays_of(w);
    return component_words(w.session, d.component_points, d.components,
                           component_event_at(d.component_points, at));
  });
  return routines;
}

graph_routines height_routines(workstation& w) {
  constexpr graph_kind kind = graph_kind::amplitude_vs_time;
  graph_routines routines;
  routines.draw = [&w](QPainter& painter, QSize size) { draw_heights(w, painter, size); };
  routines.wheel = [&w](int notches, QPoint at, Qt::KeyboardModifiers) {
    cluster_displays& d = displays_of(w);
    d.heights.range = zoom_view(d.height_points.plane, at, std::pow(closer_per_notch, notches));
    redraw_graph(w, kind);
  };
  routines.enclosed = [&w](QRect part) {
    cluster_displays& d = displays_of(w);
    d.heights.range = view_of_rectangle(d.height_points.plane, part);
    redraw_graph(w, kind);
  };
  routines.clicked = [&w](QPoint at) {
    choose_event(w, height_event_at(displays_of(w).height_points, at));
  };
  routines.double_clicked = [&w] {
    displays_of(w).heights.range = {0, 0, 0, 0};
    redraw_graph(w, kind);
  };
  add_pointer_routines(w, kind, routines, [&w](QPoint at) {
    const cluster_displays& d = displays_of(w);
    return height_words(w.session, d.height_points, d.heights.measure,
                        height_event_at(d.height_points, at));
  });
  return routines;
}

}  // namespace kestrelvane

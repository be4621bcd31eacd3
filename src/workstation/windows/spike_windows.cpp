#include <QPainter>
#include <cmath>

#include "clustering/membership.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

void draw_template(workstation& w, QPainter& painter, QSize size) {
  cluster_displays& d = displays_of(w);
  d.image.cluster = is_cluster(w.session, w.session.clusters.current_cluster)
                        ? w.session.clusters.current_cluster
                        : 0;
  d.image.width = size.width();
  d.image.height = size.height();
  prepare_template_image(w.session, d.image, d.image_values);
  paint_template_image(painter, d.image_values, d.image, theme_for(w, painter));
}

// The mean, and where it is not to be trusted.
void swap_template_values(workstation& w) {
  template_image_view& view = displays_of(w).image;
  view.values = view.values == template_values::mean ? template_values::sd : template_values::mean;
  redraw_graph(w, graph_kind::template_image);
}

void draw_spikes(workstation& w, QPainter& painter, QSize size) {
  cluster_displays& d = displays_of(w);
  d.spikes.clusters = clusters_on_show(w);
  d.spikes.width = size.width();
  d.spikes.height = size.height();
  d.spikes.pixel_ratio = device_of(painter).ratio;
  prepare_spikes(w.session, d.index, d.spikes, d.spike_points);
  paint_spikes(painter, d.spike_points, d.spikes, theme_for(w, painter));
}

void turn_spike_wheel(workstation& w, int notches, QPoint at, Qt::KeyboardModifiers keys) {
  cluster_displays& d = displays_of(w);
  if (keys & Qt::ControlModifier) {
    zoom_spikes(w.session, d.spikes, d.spike_points, at, std::pow(closer_per_notch, notches));
  } else {
    scroll_spikes(w.session, d.spikes, -notches * 0.1);
  }
  redraw_graph(w, graph_kind::spike_view);
}

bool press_spike_key(workstation& w, int key) {
  cluster_displays& d = displays_of(w);
  switch (key) {
    case Qt::Key_Left:
      scroll_spikes(w.session, d.spikes, -0.1);
      break;
    case Qt::Key_Right:
      scroll_spikes(w.session, d.spikes, 0.1);
      break;
    case Qt::Key_PageUp:
      scroll_spikes(w.session, d.spikes, -1);
      break;
    case Qt::Key_PageDown:
      scroll_spikes(w.session, d.spikes, 1);
      break;
    case Qt::Key_Home:
      // No range stands for the whole recording.
      d.spikes.from_minutes = d.spikes.to_minutes = 0;
      d.spikes.y_from = d.spikes.y_to = 0;
      break;
    default:
      return false;
  }
  redraw_graph(w, graph_kind::spike_view);
  return true;
}

}  // namespace

graph_routines template_image_routines(workstation& w) {
  constexpr graph_kind kind = graph_kind::template_image;
  graph_routines routines;
  routines.draw = [&w](QPainter& painter, QSize size) { draw_template(w, painter, size); };
  routines.double_clicked = [&w] { swap_template_values(w); };
  routines.key = [&w](int key) {
    if (key != Qt::Key_V) return false;
    swap_template_values(w);
    return true;
  };
  routines.mouse_moved = [&w](QPoint at) {
    show_reading(w, kind, at, template_words(displays_of(w).image_values, at));
  };
  routines.mouse_left = [&w] { show_reading(w, kind, {}, {}); };
  routines.draw_over = [&w](QPainter& painter) {
    const template_image_view& view = displays_of(w).image;
    paint_reading(w, kind, painter, QRectF(0, 0, view.width, view.height));
  };
  return routines;
}

graph_routines spike_view_routines(workstation& w) {
  graph_routines routines;
  routines.draw = [&w](QPainter& painter, QSize size) { draw_spikes(w, painter, size); };
  routines.wheel = [&w](int notches, QPoint at, Qt::KeyboardModifiers keys) {
    turn_spike_wheel(w, notches, at, keys);
  };
  routines.key = [&w](int key) { return press_spike_key(w, key); };
  routines.mouse_moved = [&w](QPoint at) {
    const spike_picture& picture = displays_of(w).spike_points;
    show_reading(w, graph_kind::spike_view, at,
                 spike_words(w.session, picture, spike_event_at(picture, at)));
  };
  routines.mouse_left = [&w] { show_reading(w, graph_kind::spike_view, {}, {}); };
  routines.draw_over = [&w](QPainter& painter) {
    const spike_view& view = displays_of(w).spikes;
    paint_reading(w, graph_kind::spike_view, painter, QRectF(0, 0, view.width, view.height));
  };
  routines.clicked = [&w](QPoint at) {
    choose_cluster(w, spike_cluster_at(w.session, displays_of(w).spike_points, at));
  };
  return routines;
}

}  // namespace kestrelvane

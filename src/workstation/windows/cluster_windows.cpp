#include "workstation/windows/cluster_windows.h"

#include <QDialog>
#include <QMdiArea>
#include <QPaintEngine>
#include <QPainter>
#include <QTimer>
#include <algorithm>
#include <cmath>

#include "displays/voltage/voltage_navigation.h"
#include "review/review_guards.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/themes.h"
#include "workstation/windows/voltage_window.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr double closer_per_notch = 1.25;

cluster_displays& displays_of(workstation& w) {
  if (!w.cluster_windows) w.cluster_windows = std::make_shared<cluster_displays>();
  return *w.cluster_windows;
}

bool is_cluster(const workstation& w, std::int32_t c) {
  return c >= 1 && c <= w.session.clusters.n_clusters;
}

// The pair while a review has one on show, else the current cluster.
std::vector<std::int32_t> on_show(workstation& w) {
  const cluster_displays& d = displays_of(w);
  // An edit may have taken one of them away before the review has chosen the next pair.
  if (is_cluster(w, d.a) && is_cluster(w, d.b) && d.a != d.b) return {d.a, d.b};
  const std::int32_t current = w.session.clusters.current_cluster;
  return is_cluster(w, current) ? std::vector<std::int32_t>{current} : std::vector<std::int32_t>{};
}

// Paper is white, whatever the windows are.
cluster_theme theme_for(const workstation& w, const QPainter& painter) {
  const bool on_screen = painter.paintEngine()->type() == QPaintEngine::Raster;
  return make_cluster_theme(w.session.preferences, on_screen && pictures_are_dark());
}

void redraw(workstation& w, graph_kind kind) {
  if (graph_window* window = graph_of(w, kind)) window->surface()->redraw();
}

// The event that was pressed is ringed here, and the voltage record goes there.
void choose_event(workstation& w, std::int32_t event) {
  if (event < 1) return;
  cluster_displays& d = displays_of(w);
  // In all windows at once: where a spike lies in each is what the user wants to know.
  d.single.view.selected_event = d.pair.view.selected_event = event;
  d.components.selected_event = d.heights.selected_event = event;
  go_to_event(w.session, event);
  refresh_graphs(w);
}

// ---------------------------------------------------------------- waveforms

void begin_view(workstation& w, waveform_window_state& state) {
  if (state.begun) return;
  state.view = view_of_settings(w.session);
  state.begun = true;
}

void draw_waveforms(workstation& w, graph_kind kind, waveform_window_state& state,
                    const std::vector<std::int32_t>& clusters, QPainter& painter, QSize size) {
  begin_view(w, state);
  state.view.clusters = clusters;
  state.view.width = size.width();
  state.view.height = size.height();
  state.view.pixel_ratio = device_of(painter).ratio;
  prepare_waveforms(w.session, displays_of(w).index, state.view, state.picture);
  paint_waveforms(painter, state.picture, state.view, theme_for(w, painter));
  // A density of many events fills over several pictures.
  if (!state.picture.complete) QTimer::singleShot(0, w.frame, [&w, kind] { redraw(w, kind); });
}

void page_waveforms(waveform_window_state& state, int pages) {
  waveform_view& view = state.view;
  std::int32_t most = 1;
  for (const waveform_set& set : state.picture.sets) most = std::max(most, set.n_labelled);
  view.first_item = std::clamp(view.first_item + pages * view.n_items, 1, most);
}

// Events one by one, their density, templates alone.
void next_mode(waveform_window_state& state) {
  const int mode = (static_cast<int>(state.view.mode) + 1) % 3;
  state.view.mode = static_cast<waveform_mode>(mode);
}

bool press_waveform_key(waveform_window_state& state, int key) {
  switch (key) {
    case Qt::Key_PageDown:
    case Qt::Key_Right:
      page_waveforms(state, 1);
      return true;
    case Qt::Key_PageUp:
    case Qt::Key_Left:
      page_waveforms(state, -1);
      return true;
    case Qt::Key_Home:
      state.view.first_item = 1;
      return true;
    default:
      return false;
  }
}

using state_getter = waveform_window_state& (*)(cluster_displays& d);

graph_routines waveform_routines(workstation& w, graph_kind kind, state_getter state_of,
                                 std::vector<std::int32_t> (*clusters)(workstation& w)) {
  graph_routines routines;
  const auto state = [&w, state_of]() -> waveform_window_state& {
    return state_of(displays_of(w));
  };
  routines.draw = [&w, kind, state, clusters](QPainter& painter, QSize size) {
    draw_waveforms(w, kind, state(), clusters(w), painter, size);
  };
  routines.wheel = [&w, kind, state](int notches, QPoint, Qt::KeyboardModifiers keys) {
    if (keys & Qt::ShiftModifier) {
      page_waveforms(state(), -notches);
    } else {
      const double gain = state().view.voltage_gain * std::pow(closer_per_notch, notches);
      state().view.voltage_gain = static_cast<float>(std::clamp(gain, 0.05, 50.0));
    }
    redraw(w, kind);
  };
  routines.key = [&w, kind, state](int key) {
    const bool known = press_waveform_key(state(), key);
    if (known) redraw(w, kind);
    return known;
  };
  routines.clicked = [&w, state](QPoint at) {
    choose_event(w, waveform_event_at(state().picture, static_cast<float>(at.x()),
                                      static_cast<float>(at.y())));
  };
  routines.double_clicked = [&w, kind, state] {
    next_mode(state());
    redraw(w, kind);
  };
  return routines;
}

std::vector<std::int32_t> current_alone(workstation& w) {
  const std::int32_t current = w.session.clusters.current_cluster;
  return is_cluster(w, current) ? std::vector<std::int32_t>{current} : std::vector<std::int32_t>{};
}

// ---------------------------------------------------------------- components

// One reading serves the components and the plots against time.
const component_values& values_on_show(workstation& w) {
  cluster_displays& d = displays_of(w);
  const std::vector<std::int32_t> clusters = on_show(w);
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

void draw_components(workstation& w, QPainter& painter, QSize size) {
  cluster_displays& d = displays_of(w);
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
  height_view& view = d.heights;
  view.clusters = on_show(w);
  view.width = size.width();
  view.height = size.height();
  const bool of_components = view.measure != height_measure::peak_to_peak;
  prepare_heights(w.session, d.index, of_components ? &values_on_show(w) : nullptr, view,
                  d.height_points);
  paint_heights(painter, d.height_points, view, theme_for(w, painter));
}

// ---------------------------------------------------------------- template, probe

void draw_template(workstation& w, QPainter& painter, QSize size) {
  cluster_displays& d = displays_of(w);
  d.image.cluster =
      is_cluster(w, w.session.clusters.current_cluster) ? w.session.clusters.current_cluster : 0;
  d.image.width = size.width();
  d.image.height = size.height();
  prepare_template_image(w.session, d.image, d.image_values);
  paint_template_image(painter, d.image_values, d.image, theme_for(w, painter));
}

void draw_spikes(workstation& w, QPainter& painter, QSize size) {
  cluster_displays& d = displays_of(w);
  d.spikes.clusters = on_show(w);
  d.spikes.width = size.width();
  d.spikes.height = size.height();
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
  redraw(w, graph_kind::spike_view);
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
  redraw(w, graph_kind::spike_view);
  return true;
}

}  // namespace

// ---------------------------------------------------------------- rows of the window table

graph_routines cluster_waveform_routines(workstation& w) {
  return waveform_routines(
      w, graph_kind::cluster_waveforms,
      [](cluster_displays& d) -> waveform_window_state& { return d.single; }, current_alone);
}

graph_routines pair_waveform_routines(workstation& w) {
  return waveform_routines(
      w, graph_kind::waveform_comparison,
      [](cluster_displays& d) -> waveform_window_state& { return d.pair; }, on_show);
}

graph_routines component_routines(workstation& w) {
  constexpr graph_kind kind = graph_kind::principal_components;
  graph_routines routines;
  routines.draw = [&w](QPainter& painter, QSize size) { draw_components(w, painter, size); };
  routines.wheel = [&w](int notches, QPoint at, Qt::KeyboardModifiers) {
    cluster_displays& d = displays_of(w);
    d.components.range =
        zoom_view(d.component_points.plane, at, std::pow(closer_per_notch, notches));
    redraw(w, kind);
  };
  routines.dragged = [&w](QPoint from, QPoint to) {
    drag_components(displays_of(w), from, to);
    redraw(w, kind);
  };
  routines.enclosed = [&w](QRect part) {
    cluster_displays& d = displays_of(w);
    d.components.range = view_of_rectangle(d.component_points.plane, part);
    redraw(w, kind);
  };
  routines.clicked = [&w](QPoint at) {
    choose_event(w, component_event_at(displays_of(w).component_points, at));
  };
  routines.double_clicked = [&w] {
    component_view& view = displays_of(w).components;
    view.range = {0, 0, 0, 0};
    view.turn = view.tilt = 0;
    redraw(w, kind);
  };
  return routines;
}

graph_routines height_routines(workstation& w) {
  constexpr graph_kind kind = graph_kind::amplitude_vs_time;
  graph_routines routines;
  routines.draw = [&w](QPainter& painter, QSize size) { draw_heights(w, painter, size); };
  routines.wheel = [&w](int notches, QPoint at, Qt::KeyboardModifiers) {
    cluster_displays& d = displays_of(w);
    d.heights.range = zoom_view(d.height_points.plane, at, std::pow(closer_per_notch, notches));
    redraw(w, kind);
  };
  routines.enclosed = [&w](QRect part) {
    cluster_displays& d = displays_of(w);
    d.heights.range = view_of_rectangle(d.height_points.plane, part);
    redraw(w, kind);
  };
  routines.clicked = [&w](QPoint at) {
    choose_event(w, height_event_at(displays_of(w).height_points, at));
  };
  routines.double_clicked = [&w] {
    displays_of(w).heights.range = {0, 0, 0, 0};
    redraw(w, kind);
  };
  return routines;
}

graph_routines template_image_routines(workstation& w) {
  graph_routines routines;
  routines.draw = [&w](QPainter& painter, QSize size) { draw_template(w, painter, size); };
  // The mean, and where it is not to be trusted.
  routines.double_clicked = [&w] {
    template_image_view& view = displays_of(w).image;
    view.values =
        view.values == template_values::mean ? template_values::sd : template_values::mean;
    redraw(w, graph_kind::template_image);
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
  routines.clicked = [&w](QPoint at) {
    choose_cluster(w, spike_cluster_at(w.session, displays_of(w).spike_points, at));
  };
  return routines;
}

void forget_cluster_displays(workstation& w) {
  if (!w.cluster_windows) return;
  cluster_displays& d = *w.cluster_windows;
  forget_cluster_index(d.index);
  d.values_valid = false;
  d.single.picture = {};
  d.pair.picture = {};
}

void tile_cluster_windows(workstation& w, const QDialog* dialog) {
  const QWidget* viewport = w.frame->area()->viewport();
  const QPoint corner = viewport->mapToGlobal(QPoint());
  // The side of the dialog that has more room.
  const int left = dialog->frameGeometry().left() - corner.x();
  const int right = viewport->width() - (dialog->frameGeometry().right() - corner.x());
  const int width = std::min(std::max(left, right), viewport->width());
  const int origin = left >= right ? 0 : viewport->width() - width;
  constexpr int least_width = 480;  // of two windows side by side that can still be read
  // The windows stay where the user has them.
  if (width < least_width) return;
  const auto place = [&](graph_kind kind, double x, double y, double wide, double high) {
    graph_window* window = graph_of(w, kind);
    if (window == nullptr) return;
    const int height = viewport->height();
    window->setGeometry(origin + static_cast<int>(x * width), static_cast<int>(y * height),
                        static_cast<int>(wide * width), static_cast<int>(high * height));
  };
  place(graph_kind::cluster_waveforms, 0, 0, 0.55, 1);
  place(graph_kind::waveform_comparison, 0, 0, 0.55, 1);
  const bool something_below = graph_of(w, graph_kind::correlograms) != nullptr ||
                               graph_of(w, graph_kind::amplitude_vs_time) != nullptr;
  place(graph_kind::principal_components, 0.55, 0, 0.45, something_below ? 0.55 : 1);
  place(graph_kind::correlograms, 0.55, 0.55, 0.45, 0.45);
  place(graph_kind::amplitude_vs_time, 0.55, 0.55, 0.45, 0.45);
}

void show_cluster_windows(workstation& w) {
  displays_of(w);
  const std::int32_t current = w.session.clusters.current_cluster;
  show_graph(w, graph_kind::principal_components);
  show_graph(w, graph_kind::cluster_waveforms, QString("Cluster %1 waveforms").arg(current));
}

void show_pair_windows(workstation& w, std::int32_t a, std::int32_t b) {
  cluster_displays& d = displays_of(w);
  d.a = a;
  d.b = b;
  show_graph(w, graph_kind::principal_components);
  show_graph(w, graph_kind::waveform_comparison);
}

void follow_cluster_change(workstation& w, const cluster_change& change) {
  if (!w.cluster_windows) return;
  cluster_displays& d = *w.cluster_windows;
  d.a = number_after(change, d.a);
  d.b = number_after(change, d.b);
  // A merge makes both one number: no pair is left to show.
  if (d.a == 0 || d.b == 0 || d.a == d.b) d.a = d.b = 0;
}

void forget_pair(workstation& w) {
  cluster_displays& d = displays_of(w);
  d.a = d.b = 0;
  refresh_windows(w);
}

// ---------------------------------------------------------------- menu entries

void sorted_waveforms_command(workstation& w) {
  if (can_review(w.session, "Sorted waveforms")) show_cluster_windows(w);
}

void template_image_command(workstation& w) {
  if (can_review(w.session, "Template image")) open_graph(w, graph_kind::template_image);
}

void spike_view_command(workstation& w) {
  if (needs_recording(w)) open_graph(w, graph_kind::spike_view);
}

}  // namespace kestrelvane

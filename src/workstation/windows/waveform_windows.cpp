#include <QPaintEngine>
#include <QPainter>
#include <QTimer>
#include <algorithm>
#include <cmath>

#include "clustering/membership.h"
#include "displays/clusters/event_words.h"
#include "workstation/frame.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The settings hold until the user changes something in the window, and again when they change.
void follow_settings(workstation& w, waveform_window_state& state) {
  waveform_view view = view_of_settings(w.session);
  if (state.begun && view == state.of_settings) return;
  state.of_settings = view;
  state.begun = true;
  // What no setting tells stays.
  view.labels = state.view.labels;
  view.selected_event = state.view.selected_event;
  view.n_items = state.view.n_items;
  view.voltage_gain = state.view.voltage_gain;
  state.view = std::move(view);
}

// Without "White background" waveforms stand on a dark one, whatever the theme is.
cluster_theme waveform_theme(const workstation& w, const QPainter& painter) {
  const bool on_screen = painter.paintEngine()->type() == QPaintEngine::Raster;
  if (on_screen && !w.session.display.sw_white_background) {
    return make_cluster_theme(w.session.preferences, true);
  }
  return theme_for(w, painter);
}

void draw_waveforms(workstation& w, graph_kind kind, waveform_window_state& state,
                    const std::vector<std::int32_t>& clusters, QPainter& painter, QSize size) {
  follow_shown_cluster(w);
  follow_settings(w, state);
  state.view.clusters = clusters;
  state.view.width = size.width();
  state.view.height = size.height();
  state.view.pixel_ratio = device_of(painter).ratio;
  prepare_waveforms(w.session, displays_of(w).index, state.view, state.picture);
  paint_waveforms(painter, state.picture, state.view, waveform_theme(w, painter));
  // A density of many events fills over several pictures.
  if (!state.picture.complete)
    QTimer::singleShot(0, w.frame, [&w, kind] { redraw_graph(w, kind); });
  if (kind != graph_kind::cluster_waveforms) return;
  // Its title names the cluster that it shows, also when that has become another one.
  graph_window* window = graph_of(w, kind);
  if (window != nullptr && clusters.size() == 1) {
    window->setWindowTitle(QString("Cluster %1 waveforms").arg(clusters[0]));
  }
  const cluster_displays& d = displays_of(w);
  if (d.waveforms_drawn) d.waveforms_drawn();
}

// The place in time and voltage, and the event whose waveform runs there.
QString words_at(workstation& w, const waveform_window_state& state, QPoint at) {
  const auto x = static_cast<float>(at.x()), y = static_cast<float>(at.y());
  const QString place = waveform_words(w.session, state.picture, x, y);
  const QString event = event_words(w.session, waveform_event_at(state.picture, x, y));
  return event.isEmpty() ? place : place + '\n' + event;
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
    case Qt::Key_C:
      state.view.show_channel_numbers = !state.view.show_channel_numbers;
      return true;
    case Qt::Key_Y:
      state.view.show_axes = !state.view.show_axes;
      return true;
    case Qt::Key_T:
      state.view.template_over_events = !state.view.template_over_events;
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
    redraw_graph(w, kind);
  };
  routines.key = [&w, kind, state](int key) {
    const bool known = press_waveform_key(state(), key);
    if (known) redraw_graph(w, kind);
    return known;
  };
  routines.clicked = [&w, state](QPoint at) {
    choose_event(w, waveform_event_at(state().picture, static_cast<float>(at.x()),
                                      static_cast<float>(at.y())));
  };
  routines.double_clicked = [&w, kind, state] {
    next_mode(state());
    redraw_graph(w, kind);
  };
  routines.draw_over = [&w, kind, state](QPainter& painter) {
    const waveform_view& view = state().view;
    paint_shape_in_hand(w, kind, painter);
    paint_reading(w, kind, painter, QRectF(0, 0, view.width, view.height));
  };
  routines.mouse_moved = [&w, kind, state](QPoint at) {
    show_reading(w, kind, at, words_at(w, state(), at));
  };
  routines.mouse_left = [&w, kind] { show_reading(w, kind, {}, {}); };
  add_shape_routines(w, kind, routines);
  return routines;
}

}  // namespace

graph_routines cluster_waveform_routines(workstation& w) {
  return waveform_routines(
      w, graph_kind::cluster_waveforms,
      [](cluster_displays& d) -> waveform_window_state& { return d.single; },
      [](workstation& of) { return current_cluster_alone(of); });
}

graph_routines pair_waveform_routines(workstation& w) {
  return waveform_routines(
      w, graph_kind::waveform_comparison,
      [](cluster_displays& d) -> waveform_window_state& { return d.pair; }, clusters_on_show);
}

}  // namespace kestrelvane

#include <QPainter>
#include <QTimer>
#include <algorithm>
#include <cmath>

#include "workstation/frame.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

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
  if (!state.picture.complete)
    QTimer::singleShot(0, w.frame, [&w, kind] { redraw_graph(w, kind); });
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
  return routines;
}

std::vector<std::int32_t> current_alone(workstation& w) {
  const std::int32_t current = w.session.clusters.current_cluster;
  return is_cluster(w, current) ? std::vector<std::int32_t>{current} : std::vector<std::int32_t>{};
}

}  // namespace

graph_routines cluster_waveform_routines(workstation& w) {
  return waveform_routines(
      w, graph_kind::cluster_waveforms,
      [](cluster_displays& d) -> waveform_window_state& { return d.single; }, current_alone);
}

graph_routines pair_waveform_routines(workstation& w) {
  return waveform_routines(
      w, graph_kind::waveform_comparison,
      [](cluster_displays& d) -> waveform_window_state& { return d.pair; }, clusters_on_show);
}

}  // namespace kestrelvane

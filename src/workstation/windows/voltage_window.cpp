#include "workstation/windows/voltage_window.h"

#include <QPaintEngine>
#include <QPainter>
#include <QTimer>

#include "displays/voltage/voltage_graph.h"
#include "displays/voltage/voltage_navigation.h"
#include "signal/display_scale.h"
#include "workstation/commands/commands.h"
#include "workstation/frame.h"
#include "workstation/themes.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

QPointer<graph_window>& window_of(workstation& w) {
  return w.graphs[static_cast<int>(graph_kind::voltage_record)];
}

voltage_state& state_of(workstation& w) {
  if (!w.voltage) w.voltage = std::make_shared<voltage_state>();
  return *w.voltage;
}

void draw(workstation& w, QPainter& painter, QSize size) {
  voltage_view& view = w.session.view;
  view.vd_width = size.width();
  view.vd_height = size.height();
  voltage_state& state = state_of(w);
  // On paper the background is the paper's.
  const bool on_screen = painter.paintEngine()->type() == QPaintEngine::Raster;
  const logical reversed = view.vd_reverse_contrast;
  view.vd_reverse_contrast = reversed && on_screen;
  state.drawn = draw_voltage_display(w.session, painter, &state.peaks);
  // Put back: it is the window's setting, and the paper's for one drawing only.
  view.vd_reverse_contrast = reversed;
  // The summary of a long stretch fills over several redraws.
  if (!state.drawn.complete) QTimer::singleShot(0, w.frame, [&w] { redraw_voltage_display(w); });
}

void read_at(workstation& w, QPoint at) {
  voltage_view& view = w.session.view;
  if (w.session.recording.n_samples == 0 || view.vd_grey_scale) return;
  view.vd_mouse_x = at.x();
  view.vd_mouse_y = at.y();
  voltage_state& state = state_of(w);
  state.reading = read_voltage_at_pointer(w.session);
  state.shows_reading = true;
  window_of(w)->surface()->update();
}

void turn_wheel(workstation& w, int notches, QPoint at, Qt::KeyboardModifiers keys) {
  if (keys & Qt::ControlModifier) {
    wheel_time_scale(w.session, notches, at.x());
  } else if (keys & Qt::ShiftModifier) {
    wheel_voltage_scale(w.session, notches);
  } else {
    wheel_through_time(w.session, notches);
  }
  redraw_voltage_display(w);
}

void scroll_rows(session_state& session, int rows) {
  const int last = session.recording.n_channels + 9;
  scroll_to_row(session, std::clamp(session.view.vd_first_channel + rows, 1, last));
}

}  // namespace

bool press_voltage_key(workstation& w, int key) {
  session_state& session = w.session;
  switch (key) {
    case Qt::Key_Left:
      move_finely(session, -1);
      break;
    case Qt::Key_Right:
      move_finely(session, 1);
      break;
    case Qt::Key_PageUp:
      move_coarsely(session, -1);
      break;
    case Qt::Key_PageDown:
      move_coarsely(session, 1);
      break;
    case Qt::Key_Up:
      scroll_rows(session, -1);
      break;
    case Qt::Key_Down:
      scroll_rows(session, 1);
      break;
    case Qt::Key_Home:
      move_to_slider(session, 1);
      break;
    case Qt::Key_End:
      move_to_slider(session, 270);
      break;
    default:
      return false;
  }
  redraw_voltage_display(w);
  return true;
}

graph_routines voltage_routines(workstation& w) {
  graph_routines routines;
  routines.draw = [&w](QPainter& painter, QSize size) { draw(w, painter, size); };
  routines.draw_over = [&w](QPainter& painter) {
    const voltage_state& state = state_of(w);
    const bool traces = w.session.recording.n_samples > 0 && !w.session.view.vd_grey_scale;
    if (state.shows_reading && traces) draw_readout(w.session, painter, state.reading);
  };
  routines.mouse_moved = [&w](QPoint at) { read_at(w, at); };
  routines.clicked = [&w](QPoint at) { read_at(w, at); };
  routines.double_clicked = [&w] { voltage_record_command(w); };
  routines.wheel = [&w](int notches, QPoint at, Qt::KeyboardModifiers keys) {
    turn_wheel(w, notches, at, keys);
  };
  routines.key = [&w](int key) { return press_voltage_key(w, key); };
  routines.graph = [&w] { return make_voltage_graph(w.session); };
  return routines;
}

void open_voltage_window(workstation& w, QSize size) {
  state_of(w);
  // With the focus its keys move through the recording at once.
  open_graph(w, graph_kind::voltage_record, size)->surface()->setFocus();
}

void follow_picture_theme(workstation& w) {
  w.session.view.vd_reverse_contrast = pictures_are_dark();
}

void redraw_voltage_display(workstation& w) {
  if (window_of(w)) window_of(w)->surface()->redraw();
  update_voltage_dialog(w);
}

void forget_voltage_display(workstation& w) {
  voltage_state& state = state_of(w);
  forget_peaks(state.peaks);
  // The samples under the pointer may be others now.
  state.shows_reading = false;
}

QDialog* voltage_dialog_of(const workstation& w) {
  return w.voltage ? w.voltage->dialog.data() : nullptr;
}

}  // namespace kestrelvane

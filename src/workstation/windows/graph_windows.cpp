#include "workstation/windows/graph_windows.h"

#include <QContextMenuEvent>
#include <QLayout>
#include <QMdiArea>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <QTimer>
#include <algorithm>
#include <utility>

#include "session/run_log.h"
#include "workstation/commands/commands.h"
#include "workstation/frame.h"
#include "workstation/themes.h"
#include "workstation/windows/session_turn.h"
#include "workstation/windows/window_table.h"

namespace kestrelvane {

namespace {

// The two corners of a drag, whichever way it went.
QRect between(QPoint a, QPoint b) {
  return QRect(QPoint(std::min(a.x(), b.x()), std::min(a.y(), b.y())),
               QPoint(std::max(a.x(), b.x()) - 1, std::max(a.y(), b.y()) - 1));
}

void draw_selection(QPainter& painter, const QRect& rectangle) {
  // Seen over any colour.
  painter.setCompositionMode(QPainter::RasterOp_SourceXorDestination);
  QPen pen(QColor(0xcc, 0xcc, 0xff));
  pen.setStyle(Qt::DashLine);
  pen.setCosmetic(true);
  painter.setPen(pen);
  painter.setBrush(Qt::NoBrush);
  painter.drawRect(rectangle);
}

// Sizes a window so that its drawing area has the given size.
void fit_surface(graph_window& window, QSize size) {
  window.layout()->activate();
  const QSize missing = size - window.surface()->size();
  window.resize(window.size() + missing);
  window.layout()->activate();
}

template <typename Routine>
void for_each_row(Routine routine) {
  for (int kind = 0; kind < window_count; ++kind) {
    routine(window_row_of(static_cast<graph_kind>(kind)));
  }
}

graph_routines routines_of(workstation& w, graph_kind kind) {
  const window_row& row = window_row_of(kind);
  return row.surface ? row.surface(w) : graph_routines{};
}

QSize size_of(workstation& w, const window_row& row) {
  if (row.size_slot == no_slot) return row.size;
  const std::int32_t* size = size_in(w.session.preferences, row.size_slot);
  return QSize(size[0], size[1]);
}

// The frame's area above the run log, as a drawing area of this window.
QSize room_for(const workstation& w, const graph_window& window) {
  const QWidget* log = w.run_log ? w.run_log->parentWidget() : nullptr;
  QSize room = w.frame->area()->viewport()->size();
  if (log && log->isVisible() && !log->isMaximized()) room.setHeight(log->y());
  return room - (window.size() - window.surface()->size());
}

// Sized by the program so far: the preferences still have the size of a new installation.
bool fills_room(workstation& w, const window_row& row) {
  return row.fills_frame && size_of(w, row) == row.size;
}

// The size asked for, or the row's own; what room there is where that is less or is wanted.
void size_window(workstation& w, graph_window& window, const window_row& row, QSize asked) {
  window.layout()->activate();
  const bool fills = asked.isEmpty() && fills_room(w, row);
  fit_surface(window, fills             ? room_for(w, window).expandedTo(QSize(200, 150))
                      : asked.isEmpty() ? size_of(w, row)
                                        : asked);
  window.filled = fills ? window.size() : QSize();
}

void move_to_step(QMdiSubWindow& window, int step) { window.move(30 * step, 30 * step); }

// How many open windows stand before this one in a cascade of those without a place.
int cascade_step(const workstation& w, const window_row& row) {
  int step = 0;
  for_each_row([&](const window_row& other) {
    const bool before = other.kind < row.kind && other.origin_slot == no_slot;
    step += before && graph_of(w, other.kind) != nullptr;
  });
  return step + 1;
}

void place_window(workstation& w, const window_row& row) {
  if (row.place) row.place(w);
  graph_window* window = graph_of(w, row.kind);
  if (window == nullptr) return;
  if (row.placed_message) log_message(w.session, row.placed_message);
  if (row.origin_slot == no_slot) return move_to_step(*window, cascade_step(w, row));
  const std::int32_t* origin = origin_in(w.session.preferences, row.origin_slot);
  // Places of a larger screen are brought back: a title that cannot be reached cannot be moved.
  const QSize area = w.frame->area()->size();
  window->move(std::clamp(origin[0], 0, std::max(area.width() - 100, 0)),
               std::clamp(origin[1], 0, std::max(area.height() - 60, 0)));
}

// While the worker pauses, a save may have the session for a while: windows are drawn when
// it is through.
void plan_redraw(workstation& w) {
  if (!w.paused || std::exchange(w.redraw_planned, true)) return;
  QTimer::singleShot(50, w.frame, [&w] {
    w.redraw_planned = false;
    refresh_windows(w);
  });
}

}  // namespace

graph_surface::graph_surface(workstation& of, graph_routines routines, std::optional<QFont> font)
    : w_(of), routines_(std::move(routines)), font_(std::move(font)) {
  setObjectName("surface");
  setMouseTracking(true);
  setFocusPolicy(Qt::StrongFocus);
  setCursor(Qt::OpenHandCursor);
  // The picture covers all of it; clearing first would make it flicker.
  setAttribute(Qt::WA_OpaquePaintEvent);
}

void graph_surface::draw_what_is_owed() {
  if (std::exchange(owes_, false)) redraw();
}

void graph_surface::redraw() {
  if (w_.held_drawings > 0) {
    owes_ = true;
    return;
  }
  const session_turn turn(w_);
  if (!turn.taken) {
    plan_redraw(w_);
    return;
  }
  if (routines_.gather) routines_.gather();
  make_picture();
}

void graph_surface::repaint_numbers() {
  if (routines_.gather) make_picture();
}

void graph_surface::make_picture() {
  const qreal ratio = devicePixelRatioF();
  const QSize pixels = (QSizeF(size()) * ratio).toSize();
  if (pixels.isEmpty()) return;
  if (picture_.size() != pixels) picture_ = QImage(pixels, QImage::Format_RGB32);
  if (picture_.isNull()) return;  // no memory for one so large
  picture_.setDevicePixelRatio(ratio);
  QPainter painter(&picture_);
  painter.fillRect(rect(), picture_palette().color(QPalette::Base));
  if (font_) painter.setFont(*font_);
  if (routines_.draw) routines_.draw(painter, size());
  update();
  emit drawn();
}

QImage graph_surface::picture() const {
  QImage whole = picture_.copy();
  if (whole.isNull()) return whole;
  whole.setDevicePixelRatio(picture_.devicePixelRatio());
  QPainter painter(&whole);
  if (routines_.draw_over) routines_.draw_over(painter);
  painter.end();
  return whole;
}

QImage graph_surface::selected_picture() const {
  const qreal ratio = picture_.devicePixelRatio();
  const QRectF part(QPointF(selection_.topLeft()) * ratio, QSizeF(selection_.size()) * ratio);
  return picture().copy(part.toRect());
}

void graph_surface::paint_vector(QPainter& painter, QSize size) const {
  if (font_) painter.setFont(*font_);
  if (routines_.draw) routines_.draw(painter, size);
}

void graph_surface::start_selection() {
  clear_selection();
  selecting_ = true;
  setCursor(Qt::CrossCursor);
}

void graph_surface::clear_selection() {
  selection_ = QRect();
  update();
}

bool graph_surface::in_turn(const std::function<void()>& routine) {
  const session_turn turn(w_);
  // Numbers that were gathered need no session: they are zoomed and dragged while an operation
  // runs.
  const bool may_run = turn.taken || routines_.gather;
  if (may_run) routine();
  if (routines_.gather) repaint_numbers();
  return may_run;
}

void graph_surface::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  if (picture_.isNull()) {
    painter.fillRect(rect(), picture_palette().color(QPalette::Base));
    return;
  }
  // While a worker has the session, a resized window shows the earlier picture at its corner.
  if (picture_.size() != (QSizeF(size()) * devicePixelRatioF()).toSize()) {
    painter.fillRect(rect(), picture_palette().color(QPalette::Base));
  }
  painter.drawImage(QPoint(0, 0), picture_);
  if (routines_.draw_over) {
    const session_turn turn(w_);
    if (turn.taken) routines_.draw_over(painter);
  }
  const bool drawing = drag_ == drag_kind::select || drag_ == drag_kind::enclose;
  if (drawing || has_selection()) draw_selection(painter, selection_);
}

void graph_surface::resizeEvent(QResizeEvent*) {
  redraw();
  // Numbers that were gathered fit any size.
  if (!owes_ && picture_.size() != (QSizeF(size()) * devicePixelRatioF()).toSize())
    repaint_numbers();
}

void graph_surface::changeEvent(QEvent* event) {
  if (event->type() == QEvent::PaletteChange) repaint_numbers();
  QWidget::changeEvent(event);
}

bool graph_surface::draw_shape(mouse_step step, QPoint at) {
  bool taken = false;
  if (routines_.shape) in_turn([&] { taken = routines_.shape(step, at); });
  if (taken) update();
  return taken;
}

void graph_surface::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  drag_ = drag_kind::none;
  if (selecting_) {
    drag_ = drag_kind::select;
    selection_ = QRect();
  } else if (draw_shape(mouse_step::pressed, event->pos())) {
    drag_ = drag_kind::shape;
  } else if (routines_.enclosed && event->modifiers().testFlag(Qt::ShiftModifier)) {
    drag_ = drag_kind::enclose;
    selection_ = QRect();
  } else if (routines_.dragged) {
    drag_ = drag_kind::move;
  }
  drag_start_ = event->pos();
  // A press that has not moved until its release is a click.
  moved_ = false;
}

void graph_surface::mouseMoveEvent(QMouseEvent* event) {
  if (drag_ == drag_kind::move) {
    moved_ = true;
    in_turn([&] { routines_.dragged(std::exchange(drag_start_, event->pos()), event->pos()); });
  } else if (drag_ == drag_kind::shape) {
    draw_shape(mouse_step::held, event->pos());
  } else if (drag_ != drag_kind::none) {
    selection_ = between(drag_start_, event->pos()).intersected(rect());
    update();
  } else if (event->buttons() == Qt::NoButton && routines_.mouse_moved) {
    in_turn([&] { routines_.mouse_moved(event->pos()); });
  }
}

void graph_surface::mouseReleaseEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  const drag_kind ended = std::exchange(drag_, drag_kind::none);
  if (ended == drag_kind::select) {
    selecting_ = false;
    setCursor(Qt::OpenHandCursor);
    update();
    if (has_selection()) emit selected();
  } else if (ended == drag_kind::enclose) {
    const QRect part = std::exchange(selection_, QRect());
    update();
    in_turn([&] { routines_.enclosed(part); });
  } else if (ended == drag_kind::shape) {
    draw_shape(mouse_step::released, event->pos());
    update();
  } else if (routines_.clicked && !moved_) {
    in_turn([&] { routines_.clicked(event->pos()); });
  }
}

void graph_surface::mouseDoubleClickEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  // The second of two quick presses of a drawing hand is one like the first.
  if (!selecting_ && draw_shape(mouse_step::pressed, event->pos())) {
    drag_ = drag_kind::shape;
    return;
  }
  if (!routines_.double_clicked) return;
  // Opening a dialog of the session waits for the end of an operation.
  if (routines_.gather || !w_.worker.running) in_turn(routines_.double_clicked);
}

void graph_surface::leaveEvent(QEvent* event) {
  if (routines_.mouse_left) routines_.mouse_left();
  QWidget::leaveEvent(event);
}

void graph_surface::wheelEvent(QWheelEvent* event) {
  if (!routines_.wheel) return;
  in_turn([&] {
    constexpr int notch = 120;
    // With Alt or Shift some platforms turn the wheel sideways.
    const QPoint turned = event->angleDelta();
    wheel_angle_ += turned.y() != 0 ? turned.y() : turned.x();
    // Fine wheels and touch pads send parts of a notch, which add up.
    const int notches = wheel_angle_ / notch;
    wheel_angle_ -= notches * notch;
    if (notches != 0) routines_.wheel(notches, event->position().toPoint(), event->modifiers());
    event->accept();
  });
}

void graph_surface::keyPressEvent(QKeyEvent* event) {
  bool done = false;
  if (routines_.key) in_turn([&] { done = routines_.key(event->key()); });
  // What the window has no use for goes on to the frame and its shortcuts.
  if (!done) QWidget::keyPressEvent(event);
}

void graph_surface::contextMenuEvent(QContextMenuEvent* event) {
  auto* menu = new QMenu(this);
  menu->setAttribute(Qt::WA_DeleteOnClose);
  for (const char* name : {"save_bitmap", "print", "button_40004", "button_40007"}) {
    menu->addAction(w_.frame->findChild<QAction*>(name));
  }
  QAction* save = menu->addAction("Save graph");
  save->setObjectName("save_graph");
  save->setStatusTip("Write what is shown as numbers");
  save->setEnabled(has_graph() && entry_may_run(w_, "save_graph"));
  connect(save, &QAction::triggered, this, [this] { save_graph_command(w_); });
  menu->popup(event->globalPos());
}

graph_window::graph_window(workstation& of, graph_kind kind)
    : w_(of),
      surface_(new graph_surface(of, routines_of(of, kind), read_window_font(of.session, kind))) {
  setObjectName(window_row_of(kind).object_name);
  setWindowIcon(program_icon());
  setWidget(surface_);
  setAttribute(Qt::WA_DeleteOnClose);
}

void graph_window::closeEvent(QCloseEvent* event) {
  emit closed();
  QMdiSubWindow::closeEvent(event);
  if (!event->isAccepted()) return;
  // It is there until the event loop deletes it, but whoever asks for its kind meanwhile wants a
  // window that is seen.
  for (QPointer<graph_window>& window : w_.graphs) {
    if (window == this) window.clear();
  }
}

drawing_hold::drawing_hold(workstation& of) : w(of) { ++w.held_drawings; }

drawing_hold::~drawing_hold() {
  if (--w.held_drawings > 0) return;
  for (const QPointer<graph_window>& window : w.graphs) {
    if (window) window->surface()->draw_what_is_owed();
  }
}

graph_window* active_graph(workstation& w) {
  if (auto* active = dynamic_cast<graph_window*>(w.frame->area()->activeSubWindow())) {
    return active;
  }
  for (const QPointer<graph_window>& window : w.graphs) {
    if (window) return window;
  }
  return nullptr;
}

graph_window* graph_of(const workstation& w, graph_kind kind) {
  return w.graphs[static_cast<int>(kind)];
}

graph_window* open_graph(workstation& w, graph_kind kind, QSize size, const QString& title) {
  const window_row& row = window_row_of(kind);
  QPointer<graph_window>& window = w.graphs[static_cast<int>(kind)];
  if (!window) {
    window = new graph_window(w, kind);
    w.frame->area()->addSubWindow(window);
    place_window(w, row);
  }
  const drawing_hold hold(w);
  window->setWindowTitle(title.isEmpty() ? QString(row.title) : title);
  window->showNormal();
  size_window(w, *window, row, size);
  w.frame->area()->setActiveSubWindow(window);
  window->surface()->redraw();
  return window;
}

graph_window* show_graph(workstation& w, graph_kind kind, const QString& title) {
  graph_window* window = graph_of(w, kind);
  if (window == nullptr) return open_graph(w, kind, {}, title);
  if (!title.isEmpty()) window->setWindowTitle(title);
  window->surface()->redraw();
  return window;
}

void fit_to_frame(workstation& w) {
  for_each_row([&w](const window_row& row) {
    graph_window* window = graph_of(w, row.kind);
    if (window == nullptr || window->isMaximized() || window->isMinimized()) return;
    if (window->filled.isEmpty() || window->size() != window->filled) return;
    size_window(w, *window, row, {});
  });
}

void close_graphs(workstation& w) {
  for_each_row([&w](const window_row& row) {
    if (QDialog* dialog = row.companion ? row.companion(w) : nullptr) dialog->close();
    QPointer<graph_window>& window = w.graphs[static_cast<int>(row.kind)];
    if (window) window->close();
    window.clear();
  });
}

void refresh_graphs(workstation& w) {
  const session_turn turn(w);
  if (!turn.taken) return plan_redraw(w);
  for_each_row([&w](const window_row& row) {
    if (graph_window* window = graph_of(w, row.kind)) window->surface()->redraw();
    if (row.follow) row.follow(w);
  });
}

void refresh_windows(workstation& w) {
  const session_turn turn(w);
  if (!turn.taken) return plan_redraw(w);
  for_each_row([&w](const window_row& row) {
    // All forget before one of them draws: windows share what they have read.
    if (row.forget) row.forget(w);
  });
  refresh_graphs(w);
}

void enable_companions(workstation& w, bool enabled) {
  for_each_row([&](const window_row& row) {
    if (QDialog* dialog = row.companion ? row.companion(w) : nullptr) dialog->setEnabled(enabled);
  });
  for (const menu_hold& hold : w.menu_holds) {
    auto* dialog = qobject_cast<QDialog*>(hold.holder);
    // The one whose operation runs has the button that interrupts it.
    const auto* runner = qobject_cast<operation_dialog*>(hold.holder);
    if (dialog && !(runner && runner->running())) dialog->setEnabled(enabled);
  }
}

void begin_pause(workstation& w) {
  w.paused = true;
  enable_companions(w, true);
  refresh_windows(w);
}

void end_pause(workstation& w) {
  if (!std::exchange(w.paused, false)) return;
  enable_companions(w, false);
}

void compute_window_layout(workstation& w) {
  // Six windows: five in steps from the left, the voltage record at the corner.
  const std::lock_guard lock(w.session.settings_mutex);
  preferences_record& preferences = w.session.preferences;
  const int width = std::max(w.frame->area()->width(), 400);
  for (int slot = 0; slot < slot_voltage_record; ++slot) {
    std::int32_t* origin = origin_in(preferences, slot);
    origin[0] = std::min(40 * (slot + 1), width / 2);
    origin[1] = 30 * slot;
  }
  std::int32_t* origin = origin_in(preferences, slot_voltage_record);
  origin[0] = origin[1] = 0;
}

void place_windows(workstation& w) {
  for_each_row([&w](const window_row& row) { place_window(w, row); });
}

void size_windows(workstation& w) {
  for_each_row([&w](const window_row& row) {
    if (row.size_slot != no_slot && graph_of(w, row.kind)) {
      const QString title = graph_of(w, row.kind)->windowTitle();
      open_graph(w, row.kind, {}, title);
    }
  });
}

void keep_window_sizes(workstation& w) {
  const std::lock_guard lock(w.session.settings_mutex);
  preferences_record& p = w.session.preferences;
  for_each_row([&](const window_row& row) {
    const graph_window* window = graph_of(w, row.kind);
    if (window == nullptr) return;
    if (row.origin_slot != no_slot) {
      origin_in(p, row.origin_slot)[0] = window->x();
      origin_in(p, row.origin_slot)[1] = window->y();
    }
    // One that fills the frame goes on to fill it, whatever the next frame's size.
    const bool filled = fills_room(w, row) && window->surface()->size() == room_for(w, *window);
    if (row.size_slot != no_slot && !filled) {
      size_in(p, row.size_slot)[0] = window->surface()->width();
      size_in(p, row.size_slot)[1] = window->surface()->height();
    }
  });
}

void cascade_windows(workstation& w) {
  int step = 0;
  const QList<QMdiSubWindow*> windows = w.frame->area()->subWindowList(QMdiArea::StackingOrder);
  for (QMdiSubWindow* window : windows) {
    // The run log keeps to the lower edge.
    if (dynamic_cast<graph_window*>(window) == nullptr) continue;
    window->showNormal();
    move_to_step(*window, step++);
    window->raise();
  }
}

}  // namespace kestrelvane

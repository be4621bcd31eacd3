#include "workstation/windows/graph_windows.h"

#include <QContextMenuEvent>
#include <QLayout>
#include <QMdiArea>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <algorithm>
#include <utility>

#include "session/run_log.h"
#include "workstation/commands/commands.h"
#include "workstation/frame.h"
#include "workstation/themes.h"
#include "workstation/windows/voltage_window.h"

namespace kestrelvane {

namespace {

// The two corners of a drag, whichever way it went.
QRect between(QPoint a, QPoint b) {
  return QRect(QPoint(std::min(a.x(), b.x()), std::min(a.y(), b.y())),
               QPoint(std::max(a.x(), b.x()) - 1, std::max(a.y(), b.y()) - 1));
}

void draw_selection(QPainter& painter, const QRect& rectangle) {
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

}  // namespace

graph_surface::graph_surface(workstation& of, graph_routines routines)
    : w_(of), routines_(std::move(routines)) {
  setObjectName("surface");
  setMouseTracking(true);
  setFocusPolicy(Qt::StrongFocus);
  setCursor(Qt::OpenHandCursor);
  setAttribute(Qt::WA_OpaquePaintEvent);
}

void graph_surface::redraw() {
  if (w_.worker.running) return;
  const qreal ratio = devicePixelRatioF();
  const QSize pixels = (QSizeF(size()) * ratio).toSize();
  if (pixels.isEmpty()) return;
  if (picture_.size() != pixels) picture_ = QImage(pixels, QImage::Format_RGB32);
  if (picture_.isNull()) return;  // no memory for one so large
  picture_.setDevicePixelRatio(ratio);
  QPainter painter(&picture_);
  painter.fillRect(rect(), Qt::white);
  if (routines_.draw) routines_.draw(painter, size());
  update();
}

QImage graph_surface::picture() const {
  QImage whole = picture_.copy();
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

void graph_surface::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  if (picture_.isNull()) {
    painter.fillRect(rect(), Qt::white);
    return;
  }
  // While a worker runs, a resized window shows the earlier picture at its corner.
  if (picture_.size() != (QSizeF(size()) * devicePixelRatioF()).toSize()) {
    painter.fillRect(rect(), Qt::white);
  }
  painter.drawImage(QPoint(0, 0), picture_);
  if (routines_.draw_over && !w_.worker.running) routines_.draw_over(painter);
  if (dragging_ || has_selection()) draw_selection(painter, selection_);
}

void graph_surface::resizeEvent(QResizeEvent*) { redraw(); }

void graph_surface::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton || !selecting_) return;
  dragging_ = true;
  drag_start_ = event->pos();
  selection_ = QRect();
}

void graph_surface::mouseMoveEvent(QMouseEvent* event) {
  if (dragging_) {
    selection_ = between(drag_start_, event->pos()).intersected(rect());
    update();
  } else if (event->buttons() == Qt::NoButton && routines_.mouse_moved && !w_.worker.running) {
    routines_.mouse_moved(event->pos());
  }
}

void graph_surface::mouseReleaseEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  if (std::exchange(dragging_, false)) {
    selecting_ = false;
    setCursor(Qt::OpenHandCursor);
    update();
    if (has_selection()) emit selected();
  } else if (routines_.clicked && !w_.worker.running) {
    routines_.clicked(event->pos());
  }
}

void graph_surface::mouseDoubleClickEvent(QMouseEvent* event) {
  if (event->button() == Qt::LeftButton && routines_.double_clicked && !w_.worker.running) {
    routines_.double_clicked();
  }
}

void graph_surface::wheelEvent(QWheelEvent* event) {
  if (!routines_.wheel || w_.worker.running) return;
  constexpr int notch = 120;
  // With Alt or Shift some platforms turn the wheel sideways.
  const QPoint turned = event->angleDelta();
  wheel_angle_ += turned.y() != 0 ? turned.y() : turned.x();
  const int notches = wheel_angle_ / notch;
  wheel_angle_ -= notches * notch;
  if (notches != 0) routines_.wheel(notches, event->position().toPoint(), event->modifiers());
  event->accept();
}

void graph_surface::keyPressEvent(QKeyEvent* event) {
  if (!routines_.key || w_.worker.running) {
    QWidget::keyPressEvent(event);
    return;
  }
  routines_.key(event->key());
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
  save->setEnabled(has_graph() && !w_.worker.running);
  connect(save, &QAction::triggered, this, [this] { save_graph_command(w_); });
  menu->popup(event->globalPos());
}

graph_window::graph_window(workstation& of, const char* object_name, const QString& title,
                           graph_routines routines)
    : surface_(new graph_surface(of, std::move(routines))) {
  setObjectName(object_name);
  setWindowTitle(title);
  setWindowIcon(program_icon());
  setWidget(surface_);
  setAttribute(Qt::WA_DeleteOnClose);
}

void graph_window::closeEvent(QCloseEvent* event) {
  emit closed();
  QMdiSubWindow::closeEvent(event);
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

graph_window* open_graph(workstation& w, graph_kind kind, const char* object_name,
                         const QString& title, QSize size, const graph_routines& routines) {
  QPointer<graph_window>& window = w.graphs[static_cast<int>(kind)];
  if (!window) {
    window = new graph_window(w, object_name, title, routines);
    w.frame->area()->addSubWindow(window);
    place_windows(w);
  }
  window->showNormal();
  fit_surface(*window, size);
  w.frame->area()->setActiveSubWindow(window);
  window->surface()->redraw();
  return window;
}

void close_graphs(workstation& w) {
  if (w.voltage && w.voltage->dialog) w.voltage->dialog->close();
  for (QPointer<graph_window>& window : w.graphs) {
    if (window) window->close();
    window.clear();
  }
}

void refresh_graphs(workstation& w) {
  if (w.worker.running) return;
  for (const QPointer<graph_window>& window : w.graphs) {
    if (window) window->surface()->redraw();
  }
  update_voltage_dialog(w);
}

void compute_window_layout(workstation& w) {
  // Six windows: five in steps from the left, the voltage record at the corner.
  std::int32_t* origin = w.session.preferences.window_origin;
  const int width = std::max(w.frame->area()->width(), 400);
  for (int i = 0; i < 5; ++i) {
    origin[2 * i] = std::min(40 * (i + 1), width / 2);
    origin[2 * i + 1] = 30 * i;
  }
  origin[10] = origin[11] = 0;
}

void place_windows(workstation& w) {
  const std::int32_t* origin = w.session.preferences.window_origin;
  if (graph_window* voltage = w.graphs[static_cast<int>(graph_kind::voltage_record)]) {
    const QSize area = w.frame->area()->size();
    voltage->move(std::clamp(origin[10], 0, std::max(area.width() - 100, 0)),
                  std::clamp(origin[11], 0, std::max(area.height() - 60, 0)));
  }
}

}  // namespace kestrelvane

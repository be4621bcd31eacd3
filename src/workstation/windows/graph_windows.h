// Graph windows: the child windows of the frame in which everything is plotted.
//
// A window shows a picture that a drawing routine makes from the session. The picture is
// kept and shown again until the window is told to redraw, so that it stays as it is
// while a worker changes what it was drawn from. Sizes are in logical pixels; the picture
// has the pixels of the screen.
//
// Created on first need and used again; closed ones forget their picture.
#pragma once

#include <QImage>
#include <QMdiSubWindow>
#include <functional>

#include "analysis/graph_data.h"
#include "workstation/workstation.h"

class QPainter;

namespace kestrelvane {

// What a kind of window does; every pointer may be empty.
struct graph_routines {
  std::function<void(QPainter& painter, QSize size)> draw;
  std::function<void(QPainter& painter)> draw_over;  // read-outs, over the kept picture
  std::function<void(QPoint at)> mouse_moved;        // no button held
  std::function<void(QPoint at)> clicked;            // left button up, nothing selected
  std::function<void()> double_clicked;
  std::function<void(int notches, QPoint at, Qt::KeyboardModifiers keys)> wheel;
  std::function<void(int key)> key;   // page and cursor keys
  std::function<graph_data()> graph;  // what the picture shows, as numbers
};

// The surface inside a graph window.
class graph_surface : public QWidget {
  Q_OBJECT

 public:
  graph_surface(workstation& of, graph_routines routines);

  void redraw();  // makes the picture anew, when no operation runs
  // The picture as shown, or the selected part of it, in pixels of the screen.
  QImage picture() const;
  QImage selected_picture() const;
  void paint_vector(QPainter& painter, QSize size) const;  // for the printer

  bool has_graph() const { return static_cast<bool>(routines_.graph); }
  graph_data graph() const { return routines_.graph(); }

  void start_selection();
  bool has_selection() const { return !selection_.isEmpty(); }
  void clear_selection();

 signals:
  void selected();  // a rectangle of more than no size

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;

 private:
  workstation& w_;
  graph_routines routines_;
  QImage picture_;
  bool selecting_ = false, dragging_ = false;
  QPoint drag_start_;
  QRect selection_;
  int wheel_angle_ = 0;  // turned so far, short of a notch
};

class graph_window : public QMdiSubWindow {
  Q_OBJECT

 public:
  graph_window(workstation& of, const char* object_name, const QString& title,
               graph_routines routines);
  graph_surface* surface() const { return surface_; }

 signals:
  void closed();

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  graph_surface* surface_;
};

// The active graph window, or the only one; null when there is none.
graph_window* active_graph(workstation& w);

// The window of a kind at the size of its drawing area asked for: made, or resized, or
// used as it is. It is shown, in front and redrawn.
graph_window* open_graph(workstation& w, graph_kind kind, const char* object_name,
                         const QString& title, QSize size, const graph_routines& routines);
void close_graphs(workstation& w);

// Where windows stand when nobody has moved them, from the size of the frame's area; also
// what "&Auto-arrange" restores.
void compute_window_layout(workstation& w);
void place_windows(workstation& w);

}  // namespace kestrelvane

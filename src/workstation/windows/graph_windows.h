// Graph windows: the child windows of the frame in which everything is plotted.
//
// A window shows a picture that a drawing routine makes from the session. The picture is
// kept and shown again until the window is told to redraw, so that it stays as it is
// while a worker changes what it was drawn from. Drawing, and whatever a wheel or a key
// does to the view, needs a turn at the session (session_turn.h). Sizes are in logical
// pixels; the picture has the pixels of the screen.
//
// What windows there are says the table (window_table.h). Created on first need and used
// again; closed ones forget their picture.
#pragma once

#include <QFont>
#include <QImage>
#include <QMdiSubWindow>
#include <functional>
#include <optional>

#include "analysis/graph_data.h"
#include "workstation/workstation.h"

class QPainter;

namespace kestrelvane {

// Of the left button, and of the pointer while it is down.
enum class mouse_step { pressed, held, released };

// What a kind of window does; every pointer may be empty.
struct graph_routines {
  // Takes from the session what draw shows. With it, draw and the rest do without the
  // session and run at any time; the picture is made anew after each.
  std::function<void()> gather;
  std::function<void(QPainter& painter, QSize size)> draw;
  std::function<void(QPainter& painter)> draw_over;  // read-outs, over the kept picture
  std::function<void(QPoint at)> mouse_moved;        // no button held
  std::function<void()> mouse_left;                  // the pointer has gone elsewhere
  // A shape that the left button draws, instead of all that it does otherwise: true for a press
  // that begins one, which then has the steps until the release.
  std::function<bool(mouse_step step, QPoint at)> shape;
  std::function<void(QPoint at)> clicked;  // left button up, nothing selected
  std::function<void()> double_clicked;
  std::function<void(QPoint from, QPoint to)> dragged;  // left button held, step by step
  std::function<void(QRect part)> enclosed;             // a rectangle, drawn with Shift held
  std::function<void(int notches, QPoint at, Qt::KeyboardModifiers keys)> wheel;
  std::function<bool(int key)> key;   // page and cursor keys; false: none of its own
  std::function<graph_data()> graph;  // what the picture shows, as numbers
};

// The surface inside a graph window.
class graph_surface : public QWidget {
  Q_OBJECT

 public:
  graph_surface(workstation& of, graph_routines routines, std::optional<QFont> font = {});

  void redraw();             // makes the picture anew, when the session can be had
  void draw_what_is_owed();  // after a drawing_hold
  void repaint_numbers();    // the same from what was gathered last
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
  void drawn();     // the picture has been made anew

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void leaveEvent(QEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  enum class drag_kind { none, select, enclose, move, shape };

  void make_picture();
  bool draw_shape(mouse_step step, QPoint at);
  // Runs a routine that may use the session; false when it cannot be had.
  bool in_turn(const std::function<void()>& routine);

  workstation& w_;
  graph_routines routines_;
  std::optional<QFont> font_;  // that texts of the picture begin with
  QImage picture_;
  bool owes_ = false;  // a picture that was asked for under a drawing_hold
  bool selecting_ = false;
  drag_kind drag_ = drag_kind::none;
  bool moved_ = false;  // since the button went down
  QPoint drag_start_;
  QRect selection_;
  int wheel_angle_ = 0;  // turned so far, short of a notch
};

class graph_window : public QMdiSubWindow {
  Q_OBJECT

 public:
  graph_window(workstation& of, graph_kind kind);
  graph_surface* surface() const { return surface_; }
  QSize filled;  // the size at which it filled the frame's area; none: it did not

 signals:
  void closed();

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  workstation& w_;
  graph_surface* surface_;
};

// Windows are drawn at the end of the outermost of these, each once at most, however often they
// were opened, sized and moved meanwhile.
struct drawing_hold {
  explicit drawing_hold(workstation& of);
  ~drawing_hold();
  drawing_hold(const drawing_hold&) = delete;
  drawing_hold& operator=(const drawing_hold&) = delete;

  workstation& w;
};

// The active graph window, or the only one; null when there is none.
graph_window* active_graph(workstation& w);
// The window of a kind; null when it is not open, as from the moment at which it is closed.
graph_window* graph_of(const workstation& w, graph_kind kind);

// The window of a kind at the size of its drawing area asked for, or the preferences', or
// its row's; one whose row fills the frame takes what room there is unless the user has sized it
// otherwise. Made, or resized, or used as it is. It is shown, in front and redrawn. The
// title is the row's unless given.
graph_window* open_graph(workstation& w, graph_kind kind, QSize size = {},
                         const QString& title = {});
// The same, but one that is open already stays as the user has placed and sized it.
graph_window* show_graph(workstation& w, graph_kind kind, const QString& title = {});
void close_graphs(workstation& w);

// Redraws all after the session has changed: what was kept of it between two pictures is
// forgotten. Windows that listen for one kind of change alone hang in here.
void refresh_windows(workstation& w);
// Dialogs beside windows wait while the worker has the session, but for the one that runs it.
void enable_companions(workstation& w, bool enabled);
// The worker waits at a pause point, or goes on: windows follow, draw and scroll meanwhile.
void begin_pause(workstation& w);
void end_pause(workstation& w);

// Where windows stand when nobody has moved them, from the size of the frame's area; also
// what "&Auto-arrange" restores.
void compute_window_layout(workstation& w);
void place_windows(workstation& w);
// Sizes of open windows as the preferences have them; sizes and places into the preferences.
void size_windows(workstation& w);
void keep_window_sizes(workstation& w);
// The frame has another size: a window that filled it, and that nobody has sized since, fills it
// again.
void fit_to_frame(workstation& w);
// Windows one above the other, each a step to the right and down.
void cascade_windows(workstation& w);

}  // namespace kestrelvane

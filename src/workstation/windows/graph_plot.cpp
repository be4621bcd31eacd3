#include "workstation/windows/graph_plot.h"

#include <QPaintEngine>
#include <QPainter>
#include <cmath>

#include "workstation/themes.h"

namespace kestrelvane {

namespace {

graph_view view_of(const graph_plot& plot) {
  return plot.view ? *plot.view : whole_view(plot.graph);
}

void draw_plot(graph_plot& plot, QPainter& painter, QSize size) {
  const bool on_screen = painter.paintEngine()->type() == QPaintEngine::Raster;
  // Paper is white, whatever the windows are.
  const graph_style style = on_screen ? style_of(picture_palette()) : paper_style();
  const drawn_graph drawn = paint_graph(plot.graph, style, view_of(plot), painter, size);
  // A page for the printer is not what the pointer is over.
  if (on_screen) plot.drawn = drawn;
}

graph_view turn_wheel(const graph_plot& plot, int notches, QPoint at, Qt::KeyboardModifiers keys) {
  constexpr double closer_per_notch = 1.25;
  const graph_view& old = plot.drawn.view;
  graph_view view = zoom_view(plot.drawn, at, std::pow(closer_per_notch, notches));
  if (keys & Qt::ControlModifier) {
    view.y_from = old.y_from;
    view.y_to = old.y_to;
  } else if (keys & Qt::ShiftModifier) {
    view.x_from = old.x_from;
    view.x_to = old.x_to;
  }
  return view;
}

}  // namespace

graph_routines plot_routines(workstation& w, const std::shared_ptr<graph_plot>& plot) {
  graph_routines routines;
  routines.gather = [&w, plot] { plot->graph = plot->numbers(w.session); };
  routines.draw = [plot](QPainter& painter, QSize size) { draw_plot(*plot, painter, size); };
  routines.wheel = [plot](int notches, QPoint at, Qt::KeyboardModifiers keys) {
    plot->view = turn_wheel(*plot, notches, at, keys);
  };
  routines.dragged = [plot](QPoint from, QPoint to) {
    plot->view = drag_view(plot->drawn, from, to);
  };
  routines.enclosed = [plot](QRect part) { plot->view = view_of_rectangle(plot->drawn, part); };
  routines.double_clicked = [plot] { plot->view.reset(); };
  routines.graph = [plot] { return plot->graph; };
  return routines;
}

}  // namespace kestrelvane

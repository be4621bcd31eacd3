// Which part of the plane a graph shows, and where a value lies in its picture.
//
// Plain numbers: x and y in the graph's own units, places in logical pixels from the
// picture's upper left corner.
#pragma once

#include <QPointF>
#include <QRectF>

#include "analysis/graph_data.h"

namespace kestrelvane {

struct graph_view {
  double x_from = 0, x_to = 1, y_from = 0, y_to = 1;  // from < to
  bool operator==(const graph_view&) const = default;
};

// A graph as it stands in its picture.
struct drawn_graph {
  QRectF inside;  // between the axes
  graph_view view;
  bool x_reversed = false, y_reversed = false;
};

// All points with their error bars and a little room, or what the graph's ranges say. Never
// empty: one point, or none, gets room on either side.
graph_view whole_view(const graph_data& graph);

// The width of a bar, in x: the least distance of two, 1 when there is none.
double bar_width(const graph_series& series);

QPointF pixel_of(const drawn_graph& drawn, double x, double y);
QPointF value_at(const drawn_graph& drawn, QPointF pixel);

// The view after a zoom by factor (above 1: closer) about a place, which stays where it is.
graph_view zoom_view(const drawn_graph& drawn, QPointF about, double factor);
// The view after the picture has been dragged from one place to another.
graph_view drag_view(const drawn_graph& drawn, QPointF from, QPointF to);
// What a rectangle of the picture holds; the view as it is when the rectangle is too small
// to have been meant.
graph_view view_of_rectangle(const drawn_graph& drawn, const QRectF& rectangle);

}  // namespace kestrelvane

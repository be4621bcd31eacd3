// A plane with axes for the cluster displays, and points in it.
//
// Graphs of the analysis tools have their axes from a library whose plots are widgets; the
// cluster displays are redrawn at every press of a key and hold up to a million points, so
// they draw their own. Where a value lies is told by graph_view.h, as for graphs.
#pragma once

#include <QPainter>
#include <QString>
#include <cstdint>
#include <span>

#include "displays/clusters/cluster_theme.h"
#include "displays/graph_view.h"
#include "review/plane_shapes.h"

namespace kestrelvane {

struct plane_labels {
  QString title, x, y;
  QString note;  // at the right of the title, fainter
  bool x_numbers = true, y_numbers = true;
};

// Where the plane stands in a rectangle: room for numbers and titles is left round it. Its view
// is never empty.
drawn_graph lay_out_plane(const QRectF& rect, const graph_view& view, bool y_reversed);
// The same with one scale for both: the view is widened where there is room to spare.
drawn_graph lay_out_even_plane(const QRectF& rect, const graph_view& view, bool y_reversed);

// Background, grid, frame, numbers, titles.
void paint_plane(QPainter& painter, const QRectF& rect, const drawn_graph& plane,
                 const plane_labels& labels, const cluster_theme& theme);

// A view that holds the points with a little room; what is no number is passed over.
graph_view view_of_points(std::span<const shape_point> points);

// All points in the colours of their marks. On pixels more than a few thousand become an image
// of counts; a vector device gets every point. radius: pixels.
void paint_points(QPainter& painter, const drawn_graph& plane, std::span<const shape_point> points,
                  std::span<const std::int16_t> marks, const cluster_theme& theme, double radius);

// A ring round a point, the one that the user has chosen.
void paint_ring(QPainter& painter, const drawn_graph& plane, shape_point at,
                const cluster_theme& theme);

// An outline, as the lasso while it is drawn.
void paint_outline(QPainter& painter, const drawn_graph& plane, const shape_polygon& outline,
                   const cluster_theme& theme);

// The point under the pointer within that many pixels; -1 when there is none.
std::ptrdiff_t point_at(const drawn_graph& plane, std::span<const shape_point> points,
                        QPointF pixel, double reach = 6);

// The position of the point nearest to another, no farther than reach_x and reach_y, which
// stand for the same distance; -1 when there is none. Of equals the last, which is drawn on top.
std::ptrdiff_t nearest_point(std::span<const shape_point> points, shape_point to, float reach_x,
                             float reach_y);

// A small font for numbers and the one of titles, on a raster of logical pixels.
void use_small_font(QPainter& painter);
void use_title_font(QPainter& painter);

// A round step that cuts a range into about n pieces: 1, 2 or 5 times a power of ten.
double round_step(double range, int n);

}  // namespace kestrelvane

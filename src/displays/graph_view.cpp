#include "displays/graph_view.h"

#include <algorithm>
#include <cmath>

namespace kestrelvane {

namespace {

constexpr double room = 0.04;  // at either end, of the range of the points

struct value_range {
  double least = std::numeric_limits<double>::infinity(), greatest = -least;
  bool exact = true;  // no room: its ends are edges

  void take(double value) {
    if (!std::isfinite(value)) return;
    least = std::min(least, value);
    greatest = std::max(greatest, value);
  }
};

void take_series(value_range& x, value_range& y, const graph_series& series,
                 const series_look& look) {
  const double half = look.form == form_bars ? bar_width(series) / 2 : 0.0;
  for (std::size_t i = 0; i < series.x.size(); ++i) {
    const double at = series.x[i], value = value_or_zero(series.y, i);
    // A point that cannot be drawn takes no room.
    if (!std::isfinite(at) || !std::isfinite(value)) continue;
    x.take(at - half);
    x.take(at + half);
    const double error = look.error_bars ? value_or_zero(series.third, i) : 0.0;
    for (const double end : {value, value - error, value + error}) y.take(end);
  }
  if (series.extra.size() == series.x.size()) {
    for (const float value : series.extra) y.take(value);
  }
  // Bars rise from 0, which is therefore always to be seen.
  if (look.form == form_bars) y.take(0.0);
  // Edges of bars and cells are where the graph ends; points need room to be seen.
  if (look.form != form_bars && look.form != form_image) x.exact = y.exact = false;
}

// Half a step beyond the outermost cells; a single row or column is one unit high or wide.
void take_cells(value_range& along, const std::vector<float>& places, std::int32_t n) {
  for (const float place : places) along.take(place);
  const double half = n > 1 ? (along.greatest - along.least) / (n - 1) / 2 : 0.5;
  along.take(along.least - half);
  along.take(along.greatest + half);
}

void widen(value_range& range, bool stands_on_zero) {
  // Relative to the value, but never below 1, or an axis at 0 would have no width.
  const double width = std::max(std::abs(range.greatest), 1.0);
  const bool rises = stands_on_zero && range.least == 0.0;
  range.least -= rises ? 0.0 : width / 2;
  range.greatest += rises ? 1.0 : width / 2;
}

// Bars stand on the axis, whatever else has room.
void make_room(value_range& range, bool stands_on_zero) {
  // Nothing was taken: the axes still need two ends.
  if (range.least > range.greatest) range.least = range.greatest = stands_on_zero ? 0.0 : 0.5;
  const double width = range.greatest - range.least;
  // So narrow a range is the rounding of one value.
  if (width <= std::abs(range.greatest) * 1e-6) return widen(range, stands_on_zero);
  if (range.exact && !stands_on_zero) return;
  if (!stands_on_zero || range.least != 0.0) range.least -= room * width;
  if (!stands_on_zero || range.greatest != 0.0) range.greatest += room * width;
}

void apply_ends(double& from, double& to, const std::array<float, 2>& ends) {
  if (std::isfinite(ends[0])) from = ends[0];
  if (std::isfinite(ends[1])) to = ends[1];
  // The user may give the ends in either order.
  if (from > to) std::swap(from, to);
  if (from < to) return;
  from -= 0.5;
  to += 0.5;
}

}  // namespace

double bar_width(const graph_series& series) {
  std::vector<float> x = series.x;
  std::erase_if(x, [](float value) { return !std::isfinite(value); });
  std::sort(x.begin(), x.end());
  double least = std::numeric_limits<double>::infinity();
  for (std::size_t i = 1; i < x.size(); ++i) {
    const double distance = double(x[i]) - x[i - 1];
    // Two bars at one place do not make the others as thin as nothing.
    if (distance > 0) least = std::min(least, distance);
  }
  return std::isfinite(least) ? least : 1.0;
}

graph_view whole_view(const graph_data& graph) {
  value_range x, y;
  bool bars = false;
  for (std::size_t s = 0; s < graph_series_limit; ++s) {
    const graph_series& series = graph.series[s];
    const series_look look = look_of_series(graph, s);
    if (series.x.empty()) continue;
    if (look.form == form_image) {
      take_cells(x, series.x, graph.axis_style[style_image_columns]);
      take_cells(y, series.y, graph.axis_style[style_image_rows]);
    } else {
      take_series(x, y, series, look);
      bars = bars || look.form == form_bars;
    }
  }
  // Before room is made, so that 0 is an end like any other.
  if ((graph.axis_style[style_of_x_axis] & axis_from_zero) != 0) x.take(0.0);
  if ((graph.axis_style[style_of_y_axis] & axis_from_zero) != 0) y.take(0.0);
  make_room(x, false);
  make_room(y, bars || (graph.axis_style[style_of_y_axis] & axis_from_zero) != 0);
  graph_view view = {x.least, x.greatest, y.least, y.greatest};
  apply_ends(view.x_from, view.x_to, graph.x_range);
  apply_ends(view.y_from, view.y_to, graph.y_range);
  return view;
}

QPointF pixel_of(const drawn_graph& drawn, double x, double y) {
  const graph_view& v = drawn.view;
  double right = (x - v.x_from) / (v.x_to - v.x_from), up = (y - v.y_from) / (v.y_to - v.y_from);
  if (drawn.x_reversed) right = 1 - right;
  if (drawn.y_reversed) up = 1 - up;
  const QRectF& box = drawn.inside;
  return {box.left() + right * box.width(), box.bottom() - up * box.height()};
}

QPointF value_at(const drawn_graph& drawn, QPointF pixel) {
  const graph_view& v = drawn.view;
  const QRectF& box = drawn.inside;
  // A box of no width is no reason to divide by 0.
  double right = (pixel.x() - box.left()) / std::max(box.width(), 1.0);
  double up = (box.bottom() - pixel.y()) / std::max(box.height(), 1.0);
  if (drawn.x_reversed) right = 1 - right;
  if (drawn.y_reversed) up = 1 - up;
  return {v.x_from + right * (v.x_to - v.x_from), v.y_from + up * (v.y_to - v.y_from)};
}

graph_view zoom_view(const drawn_graph& drawn, QPointF about, double factor) {
  const QPointF fixed = value_at(drawn, about);
  const graph_view& v = drawn.view;
  const graph_view closer = {
      fixed.x() + (v.x_from - fixed.x()) / factor, fixed.x() + (v.x_to - fixed.x()) / factor,
      fixed.y() + (v.y_from - fixed.y()) / factor, fixed.y() + (v.y_to - fixed.y()) / factor};
  // No closer than the numbers on the axes can tell apart, no farther than they can count.
  const auto sound = [](double from, double to) {
    const double size = std::max(std::abs(from), std::abs(to));
    // Beyond these 64-bit floats cannot count, or tell two ends apart.
    return to - from > size * 1e-9 && to - from > 1e-30 && size < 1e30;
  };
  return sound(closer.x_from, closer.x_to) && sound(closer.y_from, closer.y_to) ? closer : v;
}

graph_view drag_view(const drawn_graph& drawn, QPointF from, QPointF to) {
  const QPointF by = value_at(drawn, from) - value_at(drawn, to);
  const graph_view& v = drawn.view;
  return {v.x_from + by.x(), v.x_to + by.x(), v.y_from + by.y(), v.y_to + by.y()};
}

graph_view view_of_rectangle(const drawn_graph& drawn, const QRectF& rectangle) {
  constexpr double least_side = 4;
  const QRectF part = rectangle.intersected(drawn.inside);
  // A press without a drag is none.
  if (part.width() < least_side || part.height() < least_side) return drawn.view;
  const QPointF a = value_at(drawn, part.topLeft()), b = value_at(drawn, part.bottomRight());
  return {std::min(a.x(), b.x()), std::max(a.x(), b.x()), std::min(a.y(), b.y()),
          std::max(a.y(), b.y())};
}

}  // namespace kestrelvane

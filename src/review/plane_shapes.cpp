#include "review/plane_shapes.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kestrelvane {

namespace {

constexpr float degree = std::numbers::pi_v<float> / 180.0f;

}  // namespace

bool rectangle_holds(shape_point a, shape_point b, shape_point p) {
  const auto [left, right] = std::minmax(a.x, b.x);
  const auto [low, high] = std::minmax(a.y, b.y);
  return p.x >= left && p.x <= right && p.y >= low && p.y <= high;
}

bool polygon_holds(const shape_polygon& polygon, shape_point p) {
  if (polygon.size() < 3 || !std::isfinite(p.x) || !std::isfinite(p.y)) return false;
  bool inside = false;
  for (std::size_t i = 0, j = polygon.size() - 1; i < polygon.size(); j = i++) {
    const shape_point a = polygon[i], b = polygon[j];
    // A ray to the right crosses the outline an odd number of times. A corner belongs to the edge
    // above it alone, so that none counts twice.
    if ((a.y > p.y) == (b.y > p.y)) continue;
    const float x = a.x + (p.y - a.y) * (b.x - a.x) / (b.y - a.y);
    if (p.x < x) inside = !inside;
  }
  return inside;
}

bool ellipse_holds(const cluster_ellipse_record& ellipse, shape_point p) {
  if (!(ellipse.semi_axis_1 > 0 && ellipse.semi_axis_2 > 0)) return false;
  // Into the axes of the ellipse, where it is a circle once each has been divided by its own half.
  const float c = std::cos(ellipse.angle * degree), s = std::sin(ellipse.angle * degree);
  const float dx = p.x - ellipse.centre_x, dy = p.y - ellipse.centre_y;
  const float u = (c * dx + s * dy) / ellipse.semi_axis_1;
  const float v = (c * dy - s * dx) / ellipse.semi_axis_2;
  return u * u + v * v <= 1.0f;
}

shape_polygon outline_of(const cluster_ellipse_record& ellipse) {
  // Every five degrees, which looks round at the size of a screen.
  constexpr int n_corners = 72;
  const float c = std::cos(ellipse.angle * degree), s = std::sin(ellipse.angle * degree);
  shape_polygon outline;
  for (int i = 0; i < n_corners; ++i) {
    const float turn = static_cast<float>(i) * 360.0f / n_corners * degree;
    const float u = ellipse.semi_axis_1 * std::cos(turn), v = ellipse.semi_axis_2 * std::sin(turn);
    outline.push_back({ellipse.centre_x + c * u - s * v, ellipse.centre_y + s * u + c * v});
  }
  return outline;
}

}  // namespace kestrelvane

#include "displays/clusters/plane_shapes.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kestrelvane {

namespace {

constexpr float degree = std::numbers::pi_v<float> / 180.0f;

template <typename Holds>
std::vector<std::size_t> points_where(std::span<const plane_point> points, Holds&& holds) {
  std::vector<std::size_t> inside;
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (holds(points[i])) inside.push_back(i);
  }
  return inside;
}

}  // namespace

bool rectangle_holds(const plane_rectangle& rectangle, plane_point p) {
  const auto [left, right] = std::minmax(rectangle.a.x, rectangle.b.x);
  const auto [low, high] = std::minmax(rectangle.a.y, rectangle.b.y);
  // The outline belongs to it.
  return p.x >= left && p.x <= right && p.y >= low && p.y <= high;
}

bool polygon_holds_point(const plane_polygon& polygon, plane_point p) {
  // A point without a place is inside of nothing.
  if (polygon.size() < 3 || !std::isfinite(p.x) || !std::isfinite(p.y)) return false;
  bool inside = false;
  for (std::size_t i = 0, j = polygon.size() - 1; i < polygon.size(); j = i++) {
    const plane_point a = polygon[i], b = polygon[j];
    // A corner belongs to the edge above it alone, so that none counts twice.
    if ((a.y > p.y) == (b.y > p.y)) continue;
    if (p.x < a.x + (p.y - a.y) * (b.x - a.x) / (b.y - a.y)) inside = !inside;
  }
  return inside;
}

bool ellipse_holds_point(const cluster_ellipse_record& ellipse, plane_point p) {
  if (!(ellipse.semi_axis_1 > 0 && ellipse.semi_axis_2 > 0)) return false;
  const float c = std::cos(ellipse.angle * degree), s = std::sin(ellipse.angle * degree);
  const float dx = p.x - ellipse.centre_x, dy = p.y - ellipse.centre_y;
  const float u = (c * dx + s * dy) / ellipse.semi_axis_1;
  const float v = (c * dy - s * dx) / ellipse.semi_axis_2;
  return u * u + v * v <= 1.0f;
}

cluster_ellipse_record ellipse_between(plane_point a, plane_point b) {
  return {0.5f * (a.x + b.x), 0.5f * (a.y + b.y), 0.5f * std::abs(b.x - a.x),
          0.5f * std::abs(b.y - a.y), 0.0f};
}

plane_polygon outline_of(const cluster_ellipse_record& ellipse) {
  // Every five degrees, which looks round at the size of a screen.
  constexpr int n_corners = 72;
  const float c = std::cos(ellipse.angle * degree), s = std::sin(ellipse.angle * degree);
  plane_polygon outline;
  for (int i = 0; i < n_corners; ++i) {
    const float turn = static_cast<float>(i) * 360.0f / n_corners * degree;
    const float u = ellipse.semi_axis_1 * std::cos(turn), v = ellipse.semi_axis_2 * std::sin(turn);
    outline.push_back({ellipse.centre_x + c * u - s * v, ellipse.centre_y + s * u + c * v});
  }
  return outline;
}

std::vector<std::size_t> points_in_rectangle(std::span<const plane_point> points,
                                             const plane_rectangle& rectangle) {
  return points_where(points, [&](plane_point p) { return rectangle_holds(rectangle, p); });
}

std::vector<std::size_t> points_in_polygon(std::span<const plane_point> points,
                                           const plane_polygon& polygon) {
  return points_where(points, [&](plane_point p) { return polygon_holds_point(polygon, p); });
}

std::vector<std::size_t> points_in_ellipse(std::span<const plane_point> points,
                                           const cluster_ellipse_record& ellipse) {
  return points_where(points, [&](plane_point p) { return ellipse_holds_point(ellipse, p); });
}

std::ptrdiff_t nearest_point(std::span<const plane_point> points, plane_point to, float reach_x,
                             float reach_y) {
  std::ptrdiff_t nearest = -1;
  float best = 1.0f;
  for (std::size_t i = 0; i < points.size(); ++i) {
    const float dx = (points[i].x - to.x) / reach_x, dy = (points[i].y - to.y) / reach_y;
    const float distance = dx * dx + dy * dy;
    // Negated, so that what is no number is passed over. The last of equally near ones is drawn on
    // top, and is the one that was meant.
    if (!(distance <= best)) continue;
    best = distance;
    nearest = static_cast<std::ptrdiff_t>(i);
  }
  return nearest;
}

}  // namespace kestrelvane

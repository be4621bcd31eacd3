#include "displays/point_labels.h"

#include <array>
#include <limits>

namespace kestrelvane {

namespace {

constexpr double gap = 1;  // pixels from the point to its label

// Where a label may stand, in the order in which they are tried: the nearest to a reader's
// expectation first. -1: before or above its point, 0: centred on it, 1: after or below.
constexpr std::array<std::array<int, 2>, 8> sides = {
    {{0, -1}, {1, 0}, {-1, 0}, {0, 1}, {1, -1}, {-1, -1}, {1, 1}, {-1, 1}}};

QRectF place_at(const labelled_point& point, const std::array<int, 2>& side) {
  const double away = point.radius + gap;
  const double x = side[0] * (away + point.label.width() / 2);
  const double y = side[1] * (away + point.label.height() / 2);
  QRectF place(QPointF(), point.label);
  place.moveCenter(point.at + QPointF(x, y));
  return place;
}

double area_of(const QRectF& rect) { return rect.isEmpty() ? 0 : rect.width() * rect.height(); }

QRectF disc_of(const labelled_point& point) {
  const double r = point.radius;
  return {point.at.x() - r, point.at.y() - r, 2 * r, 2 * r};
}

// How much of a place is taken, or lies outside.
double covered(const QRectF& place, const std::vector<QRectF>& taken, const QRectF& inside) {
  double area = area_of(place) - area_of(place.intersected(inside));
  for (const QRectF& other : taken) area += area_of(place.intersected(other));
  return area;
}

}  // namespace

std::vector<QRectF> place_labels(const std::vector<labelled_point>& points, const QRectF& inside) {
  // Points are there before their labels: a number on a dot hides which dot is whose.
  std::vector<QRectF> taken;
  for (const labelled_point& point : points) taken.push_back(disc_of(point));
  std::vector<QRectF> places;
  for (const labelled_point& point : points) {
    places.emplace_back();
    if (point.label.isEmpty()) continue;
    double least = std::numeric_limits<double>::infinity();
    for (const std::array<int, 2>& side : sides) {
      const QRectF place = place_at(point, side);
      const double area = covered(place, taken, inside);
      // Of equals the earlier side stays.
      if (!(area < least)) continue;
      least = area;
      places.back() = place;
      if (area == 0) break;
    }
    taken.push_back(places.back());
  }
  return places;
}

}  // namespace kestrelvane

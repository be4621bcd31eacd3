// Shapes that the user draws over points of a plane, as plain data in the units of that plane,
// and which points lie in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "session/cluster_table.h"

namespace kestrelvane {

struct plane_point {
  float x = 0, y = 0;
  bool operator==(const plane_point&) const = default;
};

// Two opposite corners. The outline belongs to it: what is drawn round the outermost event
// means that event.
struct plane_rectangle {
  plane_point a, b;
};

// A closed outline of three corners or more, by the even-odd rule.
using plane_polygon = std::vector<plane_point>;

bool rectangle_holds(const plane_rectangle& rectangle, plane_point p);
bool polygon_holds_point(const plane_polygon& polygon, plane_point p);
bool ellipse_holds_point(const cluster_ellipse_record& ellipse, plane_point p);

// An ellipse in the rectangle between two corners, as it is drawn with the mouse.
cluster_ellipse_record ellipse_between(plane_point a, plane_point b);
// Its outline, for drawing.
plane_polygon outline_of(const cluster_ellipse_record& ellipse);

// Which of the points lie in a shape: positions from 0, ascending. Points that are no numbers
// lie nowhere.
std::vector<std::size_t> points_in_rectangle(std::span<const plane_point> points,
                                             const plane_rectangle& rectangle);
std::vector<std::size_t> points_in_polygon(std::span<const plane_point> points,
                                           const plane_polygon& polygon);
std::vector<std::size_t> points_in_ellipse(std::span<const plane_point> points,
                                           const cluster_ellipse_record& ellipse);

// The position of the point nearest to another, no farther than reach_x and reach_y, which
// stand for the same distance; -1 when there is none. Of equals the last, which is drawn on top.
std::ptrdiff_t nearest_point(std::span<const plane_point> points, plane_point to, float reach_x,
                             float reach_y);

}  // namespace kestrelvane

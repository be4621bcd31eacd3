// Shapes over the points of a plane, as plain data in the units of that plane, and what lies in
// them. One rule for the marking of events and for the displays in which shapes are drawn.
//
// A point that is no number lies in no shape.
#pragma once

#include <cstddef>
#include <vector>

#include "session/cluster_table.h"

namespace kestrelvane {

struct shape_point {
  float x = 0, y = 0;
  bool operator==(const shape_point&) const = default;
};

// A closed outline of three corners or more, by the even-odd rule.
using shape_polygon = std::vector<shape_point>;

// Two opposite corners. The outline belongs to it: what is drawn round the outermost event
// means that event.
bool rectangle_holds(shape_point a, shape_point b, shape_point p);
bool polygon_holds(const shape_polygon& polygon, shape_point p);
bool ellipse_holds(const cluster_ellipse_record& ellipse, shape_point p);

// The outline of an ellipse, for drawing.
shape_polygon outline_of(const cluster_ellipse_record& ellipse);

}  // namespace kestrelvane

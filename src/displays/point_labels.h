// Places for the labels of points that stand close together: numbers of channels and of units.
#pragma once

#include <QRectF>
#include <QSizeF>
#include <vector>

namespace kestrelvane {

struct labelled_point {
  QPointF at;         // pixels
  double radius = 0;  // of what is drawn there
  QSizeF label;       // its size; empty: none, but the others keep off its point
};

// A rectangle for each label, none of them on a point or on one another where there is room round
// its own point, and within `inside` where that can be. An only point has its label above it;
// where all places are taken it is the one with the least covered. Of two that want a place the
// first has it.
std::vector<QRectF> place_labels(const std::vector<labelled_point>& points, const QRectF& inside);

}  // namespace kestrelvane

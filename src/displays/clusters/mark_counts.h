// Counts per pixel of what carries which mark: pictures of very many points or lines.
//
// A hundred thousand lines painted one over another show the last of them, and take seconds.
// Counted into pixels they cost a few additions each and show where most of them run. A count
// is kept for each mark, so that the image has the marks' colours in proportion.
#pragma once

#include <QImage>
#include <QPainter>
#include <cstdint>
#include <vector>

#include "displays/clusters/cluster_theme.h"

namespace kestrelvane {

struct mark_counts {
  std::int32_t width = 0, height = 0;  // pixels of the image
  struct layer {
    std::int16_t mark;
    std::vector<std::uint32_t> counts;  // row by row
  };
  std::vector<layer> layers;  // ascending marks
};

// Pixels of a count of points to one logical pixel, on a device that has so many. On a fine device
// they are as large as those of a coarse one: single ones of the finest would hardly be seen.
double counted_ratio(double device_ratio);

// Empty counts of an image of that size, at least one pixel.
mark_counts make_mark_counts(std::int32_t width, std::int32_t height);

// Layers are made when their first point comes. The pointer is good until the next is made.
std::uint32_t* counts_of_mark(mark_counts& counts, std::int16_t mark);

// One more in a pixel, if there is such a pixel.
inline void count_pixel(const mark_counts& counts, std::uint32_t* layer, std::int32_t x,
                        std::int32_t y) {
  if (x < 0 || y < 0 || x >= counts.width || y >= counts.height) return;
  ++layer[static_cast<std::int64_t>(y) * counts.width + x];
}

struct line_point {
  float x, y;  // pixels
};

// Walks a polyline column by column: run(x, from, to) for the pixels from..to of column x, each
// column of a piece once. Only what lies inside width x height is visited.
template <typename Run>
void walk_line(std::int32_t width, std::int32_t height, const line_point* points, std::int32_t n,
               Run&& run) {
  const auto visit = [&](std::int32_t x, float a, float b) {
    const float low = a < b ? a : b, high = a < b ? b : a;
    // Negated, so that what is no number is not visited.
    if (x < 0 || x >= width || !(high >= 0) || !(low < static_cast<float>(height))) return;
    const float last = static_cast<float>(height - 1);
    run(x, static_cast<std::int32_t>(low > 0 ? low : 0),
        static_cast<std::int32_t>(high < last ? high : last));
  };
  for (std::int32_t i = 0; i + 1 < n; ++i) {
    const line_point a = points[i], b = points[i + 1];
    const auto first = static_cast<std::int32_t>(a.x), last = static_cast<std::int32_t>(b.x);
    if (last <= first) {
      visit(first, a.y, b.y);
      continue;
    }
    // The last column belongs to the next piece.
    const float slope = (b.y - a.y) / (b.x - a.x);
    float enter = a.y;
    for (std::int32_t x = first; x < last; ++x) {
      const float leave = a.y + slope * (static_cast<float>(x + 1) - a.x);
      visit(x, enter, leave);
      enter = leave;
    }
  }
}

// A polyline: one more in each pixel that it passes, once per column of a piece. Returns how many
// pixels that were, which is what it costs.
std::int64_t count_line(const mark_counts& counts, std::uint32_t* layer, const line_point* points,
                        std::int32_t n);

// The image: colours mixed by the counts of their marks, more opaque where there are more, in the
// logarithm; least_opacity is that of a single one.
QImage image_of_counts(const mark_counts& counts, const cluster_theme& theme, double least_opacity);

// Whether the painter draws to pixels, and how many of them a logical pixel is wide.
struct pixel_device {
  bool raster = false;
  double ratio = 1.0;
};
pixel_device device_of(const QPainter& painter);

}  // namespace kestrelvane

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

// A polyline: one more in each pixel that it passes, once per column of the line.
struct line_point {
  float x, y;  // pixels
};
void count_line(const mark_counts& counts, std::uint32_t* layer, const line_point* points,
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

// Traces: lines that move one pixel column at a time, one logical pixel wide, quickly.
//
// A trace is a list of spans, one per pixel column: the y where its line enters the column
// and the y where it leaves, joined from column to column. On a raster of logical pixels
// they are set one by one into an image that is laid over the picture at the end; this is
// five times as fast as a painter's own lines, which a crowded window needs. Where a
// logical pixel is several of the device, and the traces are not too many, thin lines of the
// device are drawn side by side, since a painter is many times slower with a wide pen.
// Vector devices get a plain polyline through the middle of the pixels.
#pragma once

#include <QColor>
#include <QImage>
#include <QPainter>
#include <QPolygonF>
#include <cstdint>

namespace kestrelvane {

struct column_span {
  std::int32_t enter, leave;  // y
};

enum class trace_device { logical_pixels, finer_pixels, vector };

struct trace_pen {
  QPainter& painter;
  trace_device device = trace_device::vector;
  QImage overlay;     // logical_pixels
  int passes = 1;     // finer_pixels: lines side by side
  double step = 0.0;  // logical pixels from one to the next

  explicit trace_pen(QPainter& on) : painter(on) {}
};

// A pen for so many traces in a picture of that size, at the origin of the painter's
// coordinates.
trace_pen start_traces(QPainter& painter, std::int32_t width, std::int32_t height,
                       std::int32_t n_traces);

// The trace over n columns from x = left on. Later traces lie over earlier ones.
void draw_trace(trace_pen& pen, std::int32_t left, const column_span* spans, std::int32_t n,
                const QColor& colour);

// Lays the traces over the picture.
void finish_traces(trace_pen& pen);

// The points of a trace as a polyline: a level stretch has two.
QPolygonF polyline_of(std::int32_t left, const column_span* spans, std::int32_t n);

}  // namespace kestrelvane

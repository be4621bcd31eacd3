#include "displays/trace_pen.h"

#include <QPaintEngine>
#include <QTransform>
#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace kestrelvane {

namespace {

// Pixels of the overlay, set where they lie inside it.
struct pixel_writer {
  QRgb* pixels;
  std::ptrdiff_t stride;
  std::int32_t width, height;
  QRgb colour;

  // Both ends included, in either order.
  void set_run(std::int32_t x, std::int32_t a, std::int32_t b) const {
    if (a > b) std::swap(a, b);
    a = std::max(a, 0);
    b = std::min(b, height - 1);
    if (a > b) return;
    for (QRgb* at = pixels + a * stride + x; a <= b; ++a, at += stride) *at = colour;
  }
};

// The way to the next column is made in this one, as thin lines of a painter make it; its
// last pixel is set with the span of the next.
void set_join(const pixel_writer& out, std::int32_t x, std::int32_t from, std::int32_t to) {
  // A step of one pixel needs no join.
  if (std::abs(to - from) > 1) out.set_run(x, from, to > from ? to - 1 : to + 1);
}

void set_pixels(trace_pen& pen, std::int32_t left, const column_span* spans, std::int32_t n,
                const QColor& colour) {
  QImage& image = pen.overlay;
  const pixel_writer out = {reinterpret_cast<QRgb*>(image.bits()), image.bytesPerLine() / 4,
                            image.width(), image.height(), colour.rgb()};
  // What lies to the right of the image is not drawn.
  n = std::min(n, out.width - left);
  for (std::int32_t i = 0; i < n; ++i) {
    out.set_run(left + i, spans[i].enter, spans[i].leave);
    if (i + 1 < n) set_join(out, left + i, spans[i].leave, spans[i + 1].enter);
  }
}

QPen line_pen(const trace_pen& pen, const QColor& colour) {
  QPen line(colour);
  line.setWidth(1);
  // One pixel of the device, whatever the scale.
  line.setCosmetic(pen.device == trace_device::finer_pixels);
  line.setJoinStyle(Qt::BevelJoin);
  return line;
}

void add_point(QPolygonF& line, double x, double y) {
  const qsizetype n = line.size();
  // Points on a level stretch are one line.
  if (n > 1 && line[n - 1].y() == y && line[n - 2].y() == y) {
    line[n - 1].setX(x);
  } else {
    line.append(QPointF(x, y));
  }
}

}  // namespace

trace_pen start_traces(QPainter& painter, std::int32_t width, std::int32_t height,
                       std::int32_t n_traces) {
  constexpr std::int64_t most_columns = 150'000;  // that fine lines draw in a 20th of a second
  trace_pen pen(painter);
  if (painter.paintEngine()->type() != QPaintEngine::Raster) return pen;
  const QTransform device = painter.deviceTransform();
  const bool crowded = std::int64_t{n_traces} * width > most_columns;
  // Whole pixels of its own kind can be set directly; a crowded record on a fine screen is drawn as
  // coarse rather than slowly.
  if (device.type() <= QTransform::TxTranslate ||
      (crowded && device.type() == QTransform::TxScale)) {
    pen.device = trace_device::logical_pixels;
    pen.overlay = QImage(width, height, QImage::Format_ARGB32_Premultiplied);
    pen.overlay.fill(Qt::transparent);
    return pen;
  }
  pen.device = trace_device::finer_pixels;
  const double scale = std::hypot(device.m11(), device.m12());
  // Fine pixels are filled by drawing the line again beside itself.
  pen.passes = std::clamp(static_cast<int>(std::lround(scale)), 1, 8);
  pen.step = 1.0 / std::max(scale, 1e-3);
  return pen;
}

void draw_trace(trace_pen& pen, std::int32_t left, const column_span* spans, std::int32_t n,
                const QColor& colour) {
  if (n < 1) return;
  if (pen.device == trace_device::logical_pixels) {
    set_pixels(pen, left, spans, n, colour);
    return;
  }
  const QPolygonF line = polyline_of(left, spans, n);
  pen.painter.setPen(line_pen(pen, colour));
  if (pen.device == trace_device::vector) {
    pen.painter.drawPolyline(line.translated(0.5, 0.5));
    return;
  }
  for (int pass = 0; pass < pen.passes; ++pass) {
    pen.painter.drawPolyline(line.translated(pass * pen.step, pass * pen.step));
  }
}

void finish_traces(trace_pen& pen) {
  if (pen.device == trace_device::logical_pixels) pen.painter.drawImage(0, 0, pen.overlay);
}

QPolygonF polyline_of(std::int32_t left, const column_span* spans, std::int32_t n) {
  QPolygonF line;
  for (std::int32_t i = 0; i < n; ++i) {
    add_point(line, left + i, spans[i].enter);
    if (spans[i].leave != spans[i].enter) add_point(line, left + i, spans[i].leave);
  }
  return line;
}

}  // namespace kestrelvane

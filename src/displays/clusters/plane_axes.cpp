#include "displays/clusters/plane_axes.h"

#include <QFontMetricsF>
#include <QPainterPath>
#include <algorithm>
#include <cmath>
#include <limits>

#include "displays/clusters/mark_counts.h"
#include "displays/display_fonts.h"

namespace kestrelvane {

namespace {

// Room round the plane, pixels; at the left for "-1400" and a title that stands upright.
constexpr double left_room = 62, right_room = 14, top_room = 24, bottom_room = 38;

void use_named_font(QPainter& painter, const char* name) {
  font_description description;
  if (parse_font(name, description)) painter.setFont(make_font(description));
}

// Multiples of a tenth miss 0 by their roundings, and "-1.4e-17" is no number for an axis.
double shown_zero(double value, double step) { return std::abs(value) < step * 1e-6 ? 0 : value; }

template <typename Draw>
void for_each_tick(double from, double to, double pixels, double apart, Draw&& draw) {
  int n = std::max(static_cast<int>(pixels / apart), 1);
  double step = round_step(to - from, n);
  // One number alone gives a narrow axis a place and no scale.
  for (int finer = 0; finer < 2 && std::floor(to / step) <= std::ceil(from / step); ++finer) {
    step = round_step(to - from, n *= 2);
  }
  const double first = std::ceil(from / step);
  // A range beyond what its numbers can count has no ticks.
  for (int i = 0; i < 200; ++i) {
    const double value = (first + i) * step;
    if (!(value <= to + step * 1e-9)) return;
    draw(shown_zero(value, step));
  }
}

void paint_ticks(QPainter& painter, const drawn_graph& plane, const plane_labels& labels,
                 const cluster_theme& theme) {
  const QRectF& box = plane.inside;
  const graph_view& v = plane.view;
  const QFontMetricsF metrics = painter.fontMetrics();
  const auto line = [&](QPointF a, QPointF b) {
    painter.setPen(QPen(theme.grid, 1));
    painter.drawLine(a, b);
    painter.setPen(theme.text);
  };
  if (labels.x_numbers) {
    for_each_tick(v.x_from, v.x_to, box.width(), 70, [&](double value) {
      const double x = pixel_of(plane, value, v.y_from).x();
      line({x, box.top()}, {x, box.bottom()});
      const QString text = QString::number(value, 'g', 6);
      painter.drawText(
          QPointF(x - metrics.horizontalAdvance(text) / 2, box.bottom() + 3 + metrics.ascent()),
          text);
    });
  }
  if (labels.y_numbers) {
    for_each_tick(v.y_from, v.y_to, box.height(), 36, [&](double value) {
      const double y = pixel_of(plane, v.x_from, value).y();
      line({box.left(), y}, {box.right(), y});
      const QString text = QString::number(value, 'g', 6);
      painter.drawText(
          QPointF(box.left() - 5 - metrics.horizontalAdvance(text), y + metrics.ascent() / 2 - 1),
          text);
    });
  }
}

void paint_titles(QPainter& painter, const QRectF& rect, const drawn_graph& plane,
                  const plane_labels& labels, const cluster_theme& theme) {
  const QRectF& box = plane.inside;
  painter.setPen(theme.text);
  const QFontMetricsF small = painter.fontMetrics();
  painter.drawText(QPointF(box.center().x() - small.horizontalAdvance(labels.x) / 2,
                           rect.bottom() - 4 - small.descent()),
                   labels.x);
  painter.save();
  painter.translate(rect.left() + 3 + small.ascent(), box.center().y());
  painter.rotate(-90);
  painter.drawText(QPointF(-small.horizontalAdvance(labels.y) / 2, 0), labels.y);
  painter.restore();
  const double note_width = small.horizontalAdvance(labels.note);
  const QFont note_font = painter.font();
  use_title_font(painter);
  const QFontMetrics large = painter.fontMetrics();
  const double room = box.width() - note_width - 8;
  // A long one begins over the numbers of the axis.
  const bool is_long = large.horizontalAdvance(labels.title) > box.width();
  const double left = is_long ? rect.left() + 4 : box.left();
  painter.drawText(QPointF(left, box.top() - 7),
                   // Numbers stand at the end.
                   large.elidedText(labels.title, Qt::ElideMiddle,
                                    static_cast<int>(std::max(box.right() - left, 0.0))));
  // Of the two the title says more: it is whole, and the note goes below it, over the points.
  const double below = large.horizontalAdvance(labels.title) <= room ? 0 : small.lineSpacing() + 6;
  painter.setFont(note_font);
  painter.setPen(theme.neutral);
  painter.drawText(QPointF(box.right() - note_width - (below > 0 ? 4 : 0), box.top() - 7 + below),
                   labels.note);
  painter.setPen(theme.text);
}

// A pair of ends with a little room on either side; something even for one value or none.
void widen(double& from, double& to) {
  if (!(from <= to)) from = to = 0;
  const double room = to > from ? 0.04 * (to - from) : std::max(std::abs(to) * 0.1, 1.0);
  from -= room;
  to += room;
}

void paint_counted_points(QPainter& painter, const drawn_graph& plane,
                          std::span<const shape_point> points, std::span<const std::int16_t> marks,
                          const cluster_theme& theme, double ratio) {
  const QRectF& box = plane.inside;
  mark_counts counts = make_mark_counts(static_cast<std::int32_t>(std::ceil(box.width() * ratio)),
                                        static_cast<std::int32_t>(std::ceil(box.height() * ratio)));
  // The mapping of pixel_of, worked out once: there may be a million points.
  const QPointF zero = pixel_of(plane, 0, 0) - box.topLeft();
  const QPointF one = pixel_of(plane, 1, 1) - box.topLeft();
  const double x0 = zero.x() * ratio, dx = (one.x() - zero.x()) * ratio;
  const double y0 = zero.y() * ratio, dy = (one.y() - zero.y()) * ratio;
  std::int16_t mark = 0;
  std::uint32_t* layer = nullptr;
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (layer == nullptr || marks[i] != mark) {
      mark = marks[i];
      layer = counts_of_mark(counts, mark);
    }
    const double x = x0 + dx * points[i].x, y = y0 + dy * points[i].y;
    // Negated, so that what is no number is not shown.
    if (!(x >= 0 && y >= 0 && x < counts.width && y < counts.height)) continue;
    count_pixel(counts, layer, static_cast<std::int32_t>(x), static_cast<std::int32_t>(y));
  }
  QImage image = image_of_counts(counts, theme, 0.5);
  image.setDevicePixelRatio(ratio);
  painter.drawImage(box.topLeft(), image);
}

// One path for neighbours of one colour: a vector file takes four times as much for each by itself.
void paint_single_points(QPainter& painter, const drawn_graph& plane,
                         std::span<const shape_point> points, std::span<const std::int16_t> marks,
                         const cluster_theme& theme, double radius) {
  const QSizeF size(2 * radius, 2 * radius);
  std::size_t i = 0;
  while (i < points.size()) {
    const std::int16_t mark = marks[i];
    QPainterPath squares;
    squares.setFillRule(Qt::WindingFill);
    for (; i < points.size() && marks[i] == mark; ++i) {
      const QPointF at = pixel_of(plane, points[i].x, points[i].y);
      if (plane.inside.contains(at)) squares.addRect(QRectF(at - QPointF(radius, radius), size));
    }
    painter.fillPath(squares, colour_of_mark(theme, mark));
  }
}

}  // namespace

void use_small_font(QPainter& painter) { use_named_font(painter, "t'Arial'h14w0"); }
void use_title_font(QPainter& painter) { use_named_font(painter, "t'Arial'h15w0b"); }

double round_step(double range, int n) {
  if (!(range > 0) || !std::isfinite(range)) return 1;
  const double rough = range / std::max(n, 1);
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    // The tolerance takes 0.2 for the 0.19999999 that the division gives.
    if (factor * power >= rough * (1 - 1e-9)) return factor * power;
  }
  return 10 * power;
}

drawn_graph lay_out_plane(const QRectF& rect, const graph_view& view, bool y_reversed) {
  drawn_graph plane;
  plane.inside = rect.adjusted(left_room, top_room, -right_room, -bottom_room);
  plane.inside.setWidth(std::max(plane.inside.width(), 1.0));
  plane.inside.setHeight(std::max(plane.inside.height(), 1.0));
  plane.view = view;
  if (!(plane.view.x_from < plane.view.x_to)) widen(plane.view.x_from, plane.view.x_to);
  if (!(plane.view.y_from < plane.view.y_to)) widen(plane.view.y_from, plane.view.y_to);
  plane.y_reversed = y_reversed;
  return plane;
}

drawn_graph lay_out_even_plane(const QRectF& rect, const graph_view& view, bool y_reversed) {
  drawn_graph plane = lay_out_plane(rect, view, y_reversed);
  graph_view& v = plane.view;
  const double per_x = (v.x_to - v.x_from) / plane.inside.width();
  const double per_y = (v.y_to - v.y_from) / plane.inside.height();
  // The axis with room to spare shows more on both sides: a µm is as long across as along.
  const double more_x = 0.5 * (std::max(per_x, per_y) - per_x) * plane.inside.width();
  const double more_y = 0.5 * (std::max(per_x, per_y) - per_y) * plane.inside.height();
  v = {v.x_from - more_x, v.x_to + more_x, v.y_from - more_y, v.y_to + more_y};
  return plane;
}

void paint_plane(QPainter& painter, const QRectF& rect, const drawn_graph& plane,
                 const plane_labels& labels, const cluster_theme& theme) {
  painter.save();
  painter.fillRect(rect, theme.background);
  // Ticks and frame lie on whole pixels; smoothing would make them two pale ones.
  painter.setRenderHint(QPainter::Antialiasing, false);
  use_small_font(painter);
  paint_ticks(painter, plane, labels, theme);
  painter.setPen(QPen(theme.axes, 1));
  painter.setBrush(Qt::NoBrush);
  painter.drawRect(plane.inside);
  paint_titles(painter, rect, plane, labels, theme);
  painter.restore();
}

graph_view view_of_points(std::span<const shape_point> points) {
  constexpr double none = std::numeric_limits<double>::infinity();
  graph_view view = {none, -none, none, -none};
  for (const shape_point p : points) {
    if (!std::isfinite(p.x) || !std::isfinite(p.y)) continue;
    view.x_from = std::min<double>(view.x_from, p.x);
    view.x_to = std::max<double>(view.x_to, p.x);
    view.y_from = std::min<double>(view.y_from, p.y);
    view.y_to = std::max<double>(view.y_to, p.y);
  }
  widen(view.x_from, view.x_to);
  widen(view.y_from, view.y_to);
  return view;
}

void paint_points(QPainter& painter, const drawn_graph& plane, std::span<const shape_point> points,
                  std::span<const std::int16_t> marks, const cluster_theme& theme, double radius) {
  // Above it points hide each other and single squares take longer than a count per pixel.
  constexpr std::size_t few = 6000;
  const pixel_device device = device_of(painter);
  painter.save();
  painter.setClipRect(plane.inside, Qt::IntersectClip);
  if (device.raster && points.size() > few) {
    paint_counted_points(painter, plane, points, marks, theme, counted_ratio(device.ratio));
  } else if (!device.raster) {
    paint_single_points(painter, plane, points, marks, theme, radius);
  } else {
    // Squares: rounds of this size look alike and take ten times as long.
    const QSizeF size(2 * radius, 2 * radius);
    for (std::size_t i = 0; i < points.size(); ++i) {
      const QPointF at = pixel_of(plane, points[i].x, points[i].y);
      if (!plane.inside.contains(at)) continue;
      painter.fillRect(QRectF(at - QPointF(radius, radius), size), colour_of_mark(theme, marks[i]));
    }
  }
  painter.restore();
}

void paint_ring(QPainter& painter, const drawn_graph& plane, shape_point at,
                const cluster_theme& theme) {
  const QPointF centre = pixel_of(plane, at.x, at.y);
  if (!plane.inside.contains(centre)) return;
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing, true);
  painter.setPen(QPen(theme.selected, 2));
  painter.setBrush(Qt::NoBrush);
  painter.drawEllipse(centre, 6, 6);
  painter.restore();
}

void paint_outline(QPainter& painter, const drawn_graph& plane, const shape_polygon& outline,
                   const cluster_theme& theme) {
  if (outline.size() < 2) return;
  QPolygonF line;
  for (const shape_point p : outline) line << pixel_of(plane, p.x, p.y);
  painter.save();
  painter.setClipRect(plane.inside, Qt::IntersectClip);
  painter.setRenderHint(QPainter::Antialiasing, true);
  painter.setPen(QPen(theme.selected, 1.5, Qt::DashLine));
  painter.setBrush(Qt::NoBrush);
  painter.drawPolygon(line);
  painter.restore();
}

std::ptrdiff_t nearest_point(std::span<const shape_point> points, shape_point to, float reach_x,
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

std::ptrdiff_t point_at(const drawn_graph& plane, std::span<const shape_point> points,
                        QPointF pixel, double reach) {
  const QPointF at = value_at(plane, pixel);
  // The reach is one in pixels, whatever the two axes measure.
  const QPointF aside = value_at(plane, pixel + QPointF(reach, reach));
  return nearest_point(points, {static_cast<float>(at.x()), static_cast<float>(at.y())},
                       static_cast<float>(std::abs(aside.x() - at.x())),
                       static_cast<float>(std::abs(aside.y() - at.y())));
}

}  // namespace kestrelvane

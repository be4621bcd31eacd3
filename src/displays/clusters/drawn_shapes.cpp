#include "displays/clusters/drawn_shapes.h"

#include <QFontMetricsF>
#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace kestrelvane {

namespace {

constexpr float degree = std::numbers::pi_v<float> / 180.0f;

bool is_there(const cluster_ellipse_record& e) { return e.semi_axis_1 > 0 && e.semi_axis_2 > 0; }

float length_of(QPointF p) { return static_cast<float>(std::hypot(p.x(), p.y())); }

// A place on the ellipse's axes: u half lengths along the first, v along the second.
QPointF pixel_on_axes(const drawn_graph& plane, const cluster_ellipse_record& e, float u, float v) {
  const float c = std::cos(e.angle * degree), s = std::sin(e.angle * degree);
  u *= e.semi_axis_1;
  v *= e.semi_axis_2;
  return pixel_of(plane, e.centre_x + c * u - s * v, e.centre_y + s * u + c * v);
}

struct grip_place {
  ellipse_grip grip;
  float u, v;
};
constexpr std::array<grip_place, 4> grips = {{{ellipse_grip::axis_1, 1, 0},
                                              {ellipse_grip::axis_1_back, -1, 0},
                                              {ellipse_grip::axis_2, 0, 1},
                                              {ellipse_grip::axis_2_back, 0, -1}}};

// A ground under words: a picture of many colours lies below.
void paint_ground(QPainter& painter, const QRectF& box, const cluster_theme& theme) {
  QColor ground = theme.background;
  ground.setAlpha(235);
  painter.setPen(QPen(theme.axes, 1));
  painter.setBrush(ground);
  painter.drawRect(box);
}

}  // namespace

shape_point plane_place(const drawn_graph& plane, QPointF pixel) {
  const QPointF at = value_at(plane, pixel);
  return {static_cast<float>(at.x()), static_cast<float>(at.y())};
}

ellipse_grip ellipse_grip_at(const drawn_graph& plane, const cluster_ellipse_record& ellipse,
                             QPointF pixel) {
  constexpr float reach = 9;  // pixels
  if (!is_there(ellipse)) return ellipse_grip::none;
  ellipse_grip found = ellipse_grip::none;
  float best = reach;
  for (const grip_place& at : grips) {
    const float away = length_of(pixel_on_axes(plane, ellipse, at.u, at.v) - pixel);
    if (away >= best) continue;
    best = away;
    found = at.grip;
  }
  if (found != ellipse_grip::none) return found;
  return ellipse_holds(ellipse, plane_place(plane, pixel)) ? ellipse_grip::whole
                                                           : ellipse_grip::none;
}

cluster_ellipse_record ellipse_along(const drawn_graph& plane, QPointF from, QPointF to) {
  const shape_point a = plane_place(plane, from), b = plane_place(plane, to);
  const float half_x = 0.5f * (b.x - a.x), half_y = 0.5f * (b.y - a.y);
  cluster_ellipse_record e = {a.x + half_x, a.y + half_y, std::hypot(half_x, half_y), 1.0f,
                              std::atan2(half_y, half_x) / degree};
  // The two axes of the plane have scales of their own: a second axis as long in units might be a
  // line on the screen.
  const QPointF centre = pixel_on_axes(plane, e, 0, 0);
  const float first = length_of(pixel_on_axes(plane, e, 1, 0) - centre);
  const float unit = length_of(pixel_on_axes(plane, e, 0, 1) - centre);
  e.semi_axis_2 = unit > 0 ? 0.5f * first / unit : 0.0f;
  return e;
}

cluster_ellipse_record drag_ellipse(const drawn_graph& plane, const cluster_ellipse_record& ellipse,
                                    ellipse_grip grip, QPointF from, QPointF to) {
  cluster_ellipse_record e = ellipse;
  const shape_point a = plane_place(plane, from), b = plane_place(plane, to);
  const float dx = b.x - e.centre_x, dy = b.y - e.centre_y;
  const float c = std::cos(e.angle * degree), s = std::sin(e.angle * degree);
  const bool back = grip == ellipse_grip::axis_1_back;
  switch (grip) {
    case ellipse_grip::whole:
      e.centre_x += b.x - a.x;
      e.centre_y += b.y - a.y;
      break;
    case ellipse_grip::axis_1:
    case ellipse_grip::axis_1_back:
      e.semi_axis_1 = std::hypot(dx, dy);
      e.angle = (back ? std::atan2(-dy, -dx) : std::atan2(dy, dx)) / degree;
      break;
    case ellipse_grip::axis_2:
    case ellipse_grip::axis_2_back:
      // What goes along the first axis does not count: the two stay at right angles.
      e.semi_axis_2 = std::abs(c * dy - s * dx);
      break;
    case ellipse_grip::none:
      return ellipse_along(plane, from, to);
  }
  // Pushed together to nothing it would be gone from under the hand.
  return is_there(e) ? e : ellipse;
}

void paint_ellipse(QPainter& painter, const drawn_graph& plane,
                   const cluster_ellipse_record& ellipse, const cluster_theme& theme) {
  if (!is_there(ellipse)) return;
  paint_outline(painter, plane, outline_of(ellipse), theme);
  painter.save();
  painter.setClipRect(plane.inside, Qt::IntersectClip);
  painter.setPen(QPen(theme.background, 1));
  painter.setBrush(theme.selected);
  for (const grip_place& at : grips) {
    const QPointF place = pixel_on_axes(plane, ellipse, at.u, at.v);
    painter.drawRect(QRectF(place.x() - 4, place.y() - 4, 8, 8));
  }
  painter.restore();
}

void paint_rectangle(QPainter& painter, const QRectF& rectangle, const cluster_theme& theme) {
  painter.save();
  QColor inside = theme.selected;
  inside.setAlpha(40);
  painter.setPen(QPen(theme.selected, 1.5));
  painter.setBrush(inside);
  painter.drawRect(rectangle);
  painter.restore();
}

void paint_windows(QPainter& painter, const waveform_layout& layout,
                   const std::vector<waveform_window>& windows, const cluster_theme& theme) {
  painter.save();
  for (const waveform_window& window : windows) {
    for (const waveform_panel& panel : layout.panels) {
      if (panel.channel != window.channel) continue;
      const auto x = [&](std::int32_t point) {
        return double{panel.x + layout.step * static_cast<float>(point - 1)};
      };
      const auto y = [&](float uv) { return double{panel.y - layout.pixels_per_uv * uv}; };
      paint_rectangle(painter,
                      QRectF(QPointF(x(window.first_point), y(window.high_uv)),
                             QPointF(x(window.last_point), y(window.low_uv))),
                      theme);
      // Waveforms of several channels may run through the same place.
      use_small_font(painter);
      painter.setPen(theme.selected);
      painter.drawText(QPointF(x(window.last_point) + 4, y(window.high_uv) + 10),
                       QString("ch %1").arg(window.channel));
    }
  }
  painter.restore();
}

void paint_hint(QPainter& painter, double width, const QString& words, const cluster_theme& theme) {
  painter.save();
  use_small_font(painter);
  constexpr int how = Qt::AlignLeft | Qt::AlignTop | Qt::TextWordWrap;
  const QRectF text = painter.boundingRect(QRectF(8, 3, width - 10, 60), how, words);
  // As wide as the title that it covers, half of which would be no title.
  paint_ground(painter, QRectF(1, 1, width - 2, text.height() + 4), theme);
  painter.setPen(theme.text);
  painter.drawText(text, how, words);
  painter.restore();
}

void paint_read_out(QPainter& painter, const QRectF& area, QPointF at, const QString& words,
                    const cluster_theme& theme) {
  painter.save();
  use_small_font(painter);
  constexpr int how = Qt::AlignLeft | Qt::AlignTop;
  QRectF box = painter.boundingRect(QRectF(0, 0, area.width(), area.height()), how, words)
                   .adjusted(0, 0, 10, 6);
  // Below and to the right of the pointer, and on its other side where that ends.
  box.moveTopLeft(at + QPointF(14, 14));
  if (box.right() > area.right()) box.moveRight(at.x() - 8);
  if (box.bottom() > area.bottom()) box.moveBottom(at.y() - 8);
  box.moveLeft(std::max(box.left(), area.left()));
  box.moveTop(std::max(box.top(), area.top()));
  paint_ground(painter, box, theme);
  painter.setPen(theme.text);
  painter.drawText(box.adjusted(5, 3, -5, -3), how, words);
  painter.restore();
}

}  // namespace kestrelvane

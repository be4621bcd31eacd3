#include "displays/clusters/overlap_display.h"

#include <fmt/format.h>

#include <QFontMetricsF>
#include <algorithm>
#include <utility>

#include "displays/clusters/plane_axes.h"

namespace kestrelvane {

std::int32_t find_overlap_partner(const session_state& session, std::int32_t cluster) {
  std::int32_t best = 0;
  float rank = 0;
  for (std::int32_t other = 1; other <= session.clusters.n_clusters; ++other) {
    if (!is_cluster_pair(session, {cluster, other})) continue;
    const std::int64_t k = find_pair(session, {cluster, other});
    const float of_other =
        k > 0 ? session.lists.kv_cluster_overlap[k] : -spatial_separation(session, cluster, other);
    if (best > 0 && !(of_other > rank)) continue;
    best = other;
    rank = of_other;
  }
  return best;
}

namespace {

pair_shift shift_of(const session_state& session, const pair_values& pair) {
  // Lists were made with a shift of their own time; with another one the count would be another.
  if (pair.k == 0) return template_shift(session, pair.a, pair.b, pair.n_a, pair.n_b);
  return {session.lists.rms_template_shift[pair.k], session.lists.kv_n_shift_template[pair.k]};
}

std::string neighbour_words(const overlap_picture& p) {
  const overlap_points& points = p.points;
  const std::int32_t asking = points.a_asks ? p.pair.a : p.pair.b;
  const std::int32_t other = points.a_asks ? p.pair.b : p.pair.a;
  const std::int32_t n_asking = points.a_asks ? points.n_a : points.n_b;
  const double mixed =
      1.0 * n_asking * (points.n_a + points.n_b - n_asking) / std::max(points.n_a + points.n_b, 1);
  return fmt::format(
      "{} of {} points of cluster {} have their nearest neighbour in cluster {} (ringed); {:.0f} "
      "would if the two were mixed",
      points.n_foreign, n_asking, asking, other, mixed);
}

std::string overlap_words(const session_state& session, const overlap_picture& p) {
  const float limit = session.strategy.overlap_threshold;
  if (p.templates.dont_overlap) {
    return fmt::format("Overlap {:.3f}, but the templates are too different for one unit",
                       p.points.overlap);
  }
  return fmt::format("Overlap {:.3f}; distinct up to {:.3f}", p.points.overlap, limit);
}

std::vector<std::string> words_of(const session_state& session, const overlap_picture& p) {
  if (p.pair.a == 0) return {"There are no two clusters to compare"};
  std::vector<std::string> words;
  if (p.points.n_a == 0) {
    words.push_back("The two have no channel in common: their events are not compared");
  } else {
    words = {overlap_words(session, p), neighbour_words(p)};
  }
  words.push_back(fmt::format("Template correlation {:.3f}; distinct below {:.3f}",
                              p.templates.correlation, session.strategy.correlation_threshold));
  words.push_back(fmt::format(
      "Template of cluster {} shifted by {:.2f} samples; {} channels in common; centres {:.1f} µm "
      "apart",
      p.shift.n_shift, p.shift.shift, common_channels_text(p.pair), p.pair.separation));
  return words;
}

}  // namespace

void prepare_overlap(session_state& session, std::int32_t a, std::int32_t b,
                     overlap_picture& picture) {
  picture = {};
  picture.pair = make_pair_values(session, {std::min(a, b), std::max(a, b)});
  const pair_values& pair = picture.pair;
  if (pair.a > 0) {
    picture.shift = shift_of(session, pair);
    picture.templates = templates_dont_overlap(session, pair.a, pair.b, picture.shift);
  }
  if (pair.n_common > 0) {
    picture.points = find_overlap_points(session, pair.a, pair.b, session.clusters.n_clusters + 1,
                                         picture.shift);
  }
  picture.words = words_of(session, picture);
}

std::string overlap_title(const overlap_picture& picture) {
  return fmt::format("Overlap diagnostics for Clusters {} and {}", picture.pair.a, picture.pair.b);
}

namespace {

// The points in the plane of the first component and another one, those of the other cluster that
// the neighbours were looked for in beneath.
void paint_component_plane(QPainter& painter, const QRectF& rect, const overlap_picture& picture,
                           std::int32_t upwards, const cluster_theme& theme) {
  const overlap_points& p = picture.points;
  std::vector<shape_point> points;
  std::vector<std::int16_t> marks;
  for (std::int32_t i = 0; i < p.n_a + p.n_b; ++i) {
    const float* row = p.coordinates.data() + static_cast<std::ptrdiff_t>(i) * p.dimensions;
    points.push_back({row[0], upwards < p.dimensions ? row[upwards] : 0.0f});
    // The colours of a pair in all windows.
    marks.push_back(i < p.n_a ? 1 : 2);
  }
  const drawn_graph plane = lay_out_plane(rect, view_of_points(points), false);
  plane_labels labels;
  labels.x = "PC1";
  labels.y = QString("PC%1").arg(upwards + 1);
  paint_plane(painter, rect, plane, labels, theme);
  paint_points(painter, plane, points, marks, theme, 1.2);
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setClipRect(plane.inside, Qt::IntersectClip);
  painter.setPen(QPen(theme.selected, 1));
  painter.setBrush(Qt::NoBrush);
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (p.foreign[i]) painter.drawEllipse(pixel_of(plane, points[i].x, points[i].y), 3.5, 3.5);
  }
  painter.restore();
}

// Lines that are too long go on below; the height that they took. Those that would leave too
// little to the points are left out.
double paint_words(QPainter& painter, const QRectF& rect, const overlap_picture& picture,
                   const cluster_theme& theme, double most, bool measure_only) {
  use_small_font(painter);
  const QFontMetricsF metrics = painter.fontMetrics();
  painter.setPen(theme.text);
  double y = rect.top() + 4;
  for (const std::string& line : picture.words) {
    const QString text = QString::fromStdString(line);
    const QRectF room(rect.left() + 8, y, std::max(rect.width() - 16, 1.0), 1000);
    const double height =
        metrics.boundingRect(room, Qt::AlignLeft | Qt::TextWordWrap, text).height();
    if (y > rect.top() + 4 && y + height > rect.top() + most) break;
    if (!measure_only) {
      painter.drawText(QRectF(room.topLeft(), QSizeF(room.width(), height + 2)),
                       Qt::AlignLeft | Qt::TextWordWrap, text);
    }
    y += height + 2;
  }
  return y - rect.top() + 4;
}

}  // namespace

void paint_overlap(QPainter& painter, const QRectF& rect, const overlap_picture& picture,
                   const cluster_theme& theme) {
  painter.fillRect(rect, theme.background);
  const bool with_points = picture.points.n_a > 0;
  const double most = (with_points ? 0.4 : 1.0) * rect.height();
  const double below = paint_words(painter, rect, picture, theme, most, true);
  QRectF above = rect;
  above.setBottom(with_points ? std::max(rect.bottom() - below, rect.top()) : rect.top());
  // Words alone stand at the top, where a picture begins.
  paint_words(painter, QRectF(above.bottomLeft(), rect.bottomRight()), picture, theme, most, false);
  constexpr double least = 60;  // pixels, without which axes leave no room for points
  if (!with_points || above.height() < least) return;
  const std::int32_t n_planes = picture.points.dimensions >= 3 ? 2 : 1;
  const double width = above.width() / n_planes;
  for (std::int32_t i = 0; i < n_planes; ++i) {
    const QRectF place(above.left() + i * width, above.top(), width, above.height());
    paint_component_plane(painter, place, picture, i + 1, theme);
  }
}

}  // namespace kestrelvane

#include "displays/clusters/correlogram_panel.h"

#include <algorithm>
#include <cmath>

#include "displays/clusters/plane_axes.h"

namespace kestrelvane {

namespace {

// Pixels below which axes with numbers would take more room than the bars.
bool is_small(const QRectF& rect) { return rect.width() < 190 || rect.height() < 130; }

double value_of_count(const correlogram_panel& panel, double count) {
  return panel.rate_per_count > 0 ? count * panel.rate_per_count : count;
}

drawn_graph lay_out_correlogram(const QRectF& rect, const correlogram_panel& panel) {
  const double reach = 0.5 * static_cast<double>(panel.counts.size()) * panel.bin_ms;
  double most = std::max(panel.expected, 0.0);
  for (const std::int32_t count : panel.counts) most = std::max(most, static_cast<double>(count));
  // A little air above the highest bar, or it would look cut off.
  const double top = most > 0 ? 1.06 * value_of_count(panel, most) : 1;
  drawn_graph plane = lay_out_plane(rect, {-reach, reach, 0, top}, false);
  if (is_small(rect)) {
    plane.inside = rect.adjusted(4, 18, -4, -16);
    plane.inside.setWidth(std::max(plane.inside.width(), 1.0));
    plane.inside.setHeight(std::max(plane.inside.height(), 1.0));
  }
  return plane;
}

void paint_bars(QPainter& painter, const drawn_graph& plane, const correlogram_panel& panel,
                const cluster_theme& theme) {
  const auto n = static_cast<std::int32_t>(panel.counts.size());
  const QColor colour = colour_of_mark(theme, panel.mark);
  for (std::int32_t i = 0; i < n; ++i) {
    if (panel.counts[static_cast<std::size_t>(i)] <= 0) continue;
    const double middle = (i - n / 2) * static_cast<double>(panel.bin_ms);
    const double value = value_of_count(panel, panel.counts[static_cast<std::size_t>(i)]);
    const QPointF a = pixel_of(plane, middle - 0.5 * panel.bin_ms, value);
    const QPointF b = pixel_of(plane, middle + 0.5 * panel.bin_ms, 0);
    // On whole pixels, so that neighbours neither overlap nor leave gaps of half a shade.
    const double left = std::round(a.x()), right = std::max(std::round(b.x()), left + 1);
    painter.fillRect(QRectF(left, a.y(), right - left, b.y() - a.y()), colour);
  }
}

void paint_lines(QPainter& painter, const drawn_graph& plane, const correlogram_panel& panel,
                 const cluster_theme& theme) {
  const QRectF& box = plane.inside;
  painter.setPen(QPen(theme.selected, 1, Qt::DotLine));
  // The refractory period: few spikes of one neuron lie within 1 ms, hardly any more within 2.
  for (const double ms : {-2.0, -1.0, 1.0, 2.0}) {
    if (std::abs(ms) >= plane.view.x_to) continue;
    const double x = std::round(pixel_of(plane, ms, 0).x());
    painter.drawLine(QPointF(x, box.top()), QPointF(x, box.bottom()));
  }
  if (panel.expected < 0) return;
  painter.setPen(QPen(theme.text, 1, Qt::DashLine));
  const double y = pixel_of(plane, 0, value_of_count(panel, panel.expected)).y();
  painter.drawLine(QPointF(box.left(), y), QPointF(box.right(), y));
}

void paint_small_texts(QPainter& painter, const QRectF& rect, const correlogram_panel& panel,
                       const cluster_theme& theme) {
  use_small_font(painter);
  painter.setPen(theme.text);
  painter.drawText(rect.adjusted(4, 1, -4, 0), Qt::AlignTop | Qt::AlignLeft, panel.title);
  painter.setPen(theme.neutral);
  painter.drawText(rect.adjusted(4, 0, -4, -1), Qt::AlignBottom | Qt::AlignRight, panel.caption);
}

// Beside a title that leaves it no room the width of the bins would stand on the bars: it goes to
// what it is a width of.
plane_labels labels_of(QPainter& painter, const drawn_graph& plane,
                       const correlogram_panel& panel) {
  plane_labels labels;
  labels.title = panel.title;
  labels.note = panel.caption;
  labels.x = "time (ms)";
  labels.y = panel.rate_per_count > 0 ? "spikes/s" : "Counts per bin";
  painter.save();
  use_title_font(painter);
  double width = painter.fontMetrics().horizontalAdvance(labels.title) + 8;
  use_small_font(painter);
  width += painter.fontMetrics().horizontalAdvance(labels.note);
  painter.restore();
  if (width <= plane.inside.width() || labels.note.isEmpty()) return labels;
  labels.x += ", " + labels.note;
  labels.note.clear();
  return labels;
}

}  // namespace

correlogram_panel make_correlogram_panel(const correlogram& shown, bool as_rate) {
  correlogram_panel panel;
  panel.title = QString::fromStdString(correlogram_panel_title(shown));
  panel.caption = QString::fromStdString(bin_width_text(shown.bin_ms));
  panel.bin_ms = shown.bin_ms;
  panel.counts.assign(shown.counts.begin(), shown.counts.end());
  panel.mark = shown.a == shown.b ? mark_of_cluster(shown.a) : std::int16_t{0};
  panel.expected = expected_count(shown);
  panel.rate_per_count = as_rate ? count_as_rate(shown, 1) : 0;
  return panel;
}

void paint_correlogram(QPainter& painter, const QRectF& rect, const correlogram_panel& panel,
                       const cluster_theme& theme) {
  const drawn_graph plane = lay_out_correlogram(rect, panel);
  painter.save();
  painter.setClipRect(rect, Qt::IntersectClip);
  if (is_small(rect)) {
    painter.fillRect(rect, theme.background);
    painter.setPen(QPen(theme.axes, 1));
    painter.drawLine(plane.inside.bottomLeft(), plane.inside.bottomRight());
    paint_small_texts(painter, rect, panel, theme);
  } else {
    paint_plane(painter, rect, plane, labels_of(painter, plane, panel), theme);
  }
  // An even count of bins has no middle one to stand on 0.
  if (panel.counts.size() % 2 == 1 && panel.bin_ms > 0) {
    paint_bars(painter, plane, panel, theme);
    paint_lines(painter, plane, panel, theme);
  }
  painter.restore();
}

correlogram_hit correlogram_bin_at(const QRectF& rect, const correlogram_panel& panel,
                                   QPointF pixel) {
  const drawn_graph plane = lay_out_correlogram(rect, panel);
  if (!plane.inside.contains(pixel) || !(panel.bin_ms > 0)) return {};
  const auto half = static_cast<std::int32_t>(panel.counts.size() / 2);
  const auto bin =
      static_cast<std::int32_t>(std::lround(value_at(plane, pixel).x() / panel.bin_ms));
  if (std::abs(bin) > half || panel.counts.size() % 2 == 0) return {};
  return {true, bin, panel.counts[static_cast<std::size_t>(bin + half)]};
}

void paint_correlogram_matrix(QPainter& painter, const QRectF& rect, const session_state& session,
                              const std::vector<std::int32_t>& clusters, float bin_ms,
                              const cluster_theme& theme) {
  painter.fillRect(rect, theme.background);
  const std::vector<spike_train> trains = get_spike_trains(session, clusters);
  const auto n = static_cast<double>(trains.size());
  const double width = rect.width() / n, height = rect.height() / n;
  for (std::size_t row = 0; row < trains.size(); ++row) {
    for (std::size_t column = row; column < trains.size(); ++column) {
      const QRectF place(rect.left() + static_cast<double>(column) * width,
                         rect.top() + static_cast<double>(row) * height, width, height);
      const correlogram shown = correlogram_counts(session, trains[row], trains[column], bin_ms);
      paint_correlogram(painter, place, make_correlogram_panel(shown, false), theme);
    }
  }
}

std::vector<QRectF> lay_out_panels(const QRectF& rect, std::int32_t n) {
  std::vector<QRectF> panels;
  if (n < 1) return panels;
  // As many columns as keep the panels about half as wide again as high.
  const double wanted = std::sqrt(n * rect.width() / std::max(1.5 * rect.height(), 1.0));
  const std::int32_t columns = std::clamp(static_cast<std::int32_t>(std::lround(wanted)), 1, n);
  const std::int32_t rows = (n + columns - 1) / columns;
  const double width = rect.width() / columns, height = rect.height() / rows;
  for (std::int32_t i = 0; i < n; ++i) {
    const std::int32_t column = i % columns, row = i / columns;
    panels.emplace_back(rect.left() + column * width, rect.top() + row * height, width, height);
  }
  return panels;
}

}  // namespace kestrelvane

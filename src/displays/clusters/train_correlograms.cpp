#include "displays/clusters/train_correlograms.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "clustering/membership.h"
#include "displays/clusters/correlogram_panel.h"
#include "displays/clusters/plane_axes.h"
#include "sorting/pair_measures.h"

namespace kestrelvane {

namespace {

std::vector<std::int32_t> list_neighbours(const session_state& session, std::int32_t unit) {
  std::vector<std::pair<float, std::int32_t>> by_distance;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    // Of equals the lower number comes first.
    if (c != unit) by_distance.emplace_back(spatial_separation(session, unit, c), c);
  }
  std::sort(by_distance.begin(), by_distance.end());
  std::vector<std::int32_t> others;
  for (const auto& [distance, cluster] : by_distance) others.push_back(cluster);
  return others;
}

}  // namespace

train_panels count_trains(const session_state& session, std::int32_t unit, std::int32_t first) {
  if (!is_cluster(session, unit)) return {};
  return count_trains(session, unit, first, list_neighbours(session, unit));
}

train_panels count_trains(const session_state& session, std::int32_t unit, std::int32_t first,
                          std::vector<std::int32_t> others) {
  train_panels panels;
  panels.supported = !clock_of_trains(session).from_stamps;
  if (!panels.supported || !is_cluster(session, unit)) return panels;
  panels.unit = unit;
  panels.others = std::move(others);
  const auto n = static_cast<std::int32_t>(panels.others.size());
  panels.first = std::clamp(first, 0, std::max(n - 1, 0));
  std::vector<std::int32_t> shown = {unit};
  for (std::int32_t i = panels.first; i < std::min(panels.first + neighbours_per_page, n); ++i) {
    shown.push_back(panels.others[i]);
  }
  const float width = session.review.correlogram_bin_ms;
  const std::vector<spike_train> trains = get_spike_trains(session, shown);
  std::vector<train_pair> pairs;
  for (std::size_t i = 0; i < trains.size(); ++i) pairs.push_back({0, i});
  panels.correlograms = correlograms_of_pairs(session, trains, pairs, width);
  return panels;
}

std::int32_t panels_in(const QRectF& rect, const train_panels& panels) {
  // Pixels that title and width of the bins need.
  constexpr double least_width = 140, least_height = 84;
  const double columns = std::max(std::floor(rect.width() / least_width), 1.0);
  const double rows = std::max(std::floor(rect.height() / least_height), 1.0);
  // The unit's own and a neighbour, however small the window is.
  const double fit = std::max(columns * rows, 2.0);
  return static_cast<std::int32_t>(std::min(fit, static_cast<double>(panels.correlograms.size())));
}

void paint_trains(QPainter& painter, const QRectF& rect, const train_panels& panels, bool as_rate,
                  const cluster_theme& theme) {
  painter.fillRect(rect, theme.background);
  if (panels.correlograms.empty()) {
    use_small_font(painter);
    painter.setPen(theme.text);
    painter.drawText(rect, Qt::AlignCenter | Qt::TextWordWrap,
                     panels.supported
                         ? "There are no clusters"
                         : "Cross correlation not supported for event based recording");
    return;
  }
  const std::vector<QRectF> places = lay_out_panels(rect, panels_in(rect, panels));
  for (std::size_t i = 0; i < places.size(); ++i) {
    paint_correlogram(painter, places[i], make_correlogram_panel(panels.correlograms[i], as_rate),
                      theme);
  }
}

std::int32_t train_at(const QRectF& rect, const train_panels& panels, QPointF pixel) {
  const std::vector<QRectF> places = lay_out_panels(rect, panels_in(rect, panels));
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (places[i].contains(pixel)) return panels.correlograms[i].b;
  }
  return 0;
}

}  // namespace kestrelvane

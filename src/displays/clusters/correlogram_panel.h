// A correlogram as a small panel or as a window: bars, refractory lines, the count to be
// expected. Somebody else counts (analysis/correlograms.h); this draws the record.
#pragma once

#include <QPainter>
#include <QString>
#include <cstdint>
#include <vector>

#include "analysis/correlograms.h"
#include "displays/clusters/cluster_theme.h"

namespace kestrelvane {

struct correlogram_panel {
  QString title;    // "AC: Unit 3"
  QString caption;  // "0.500 ms bins"
  float bin_ms = 0;
  // Bins -n..n about no difference, an odd number of them; bin i stands at (i - n) * bin_ms.
  std::vector<std::int32_t> counts;
  std::int16_t mark = 0;  // the colour of the bars; 0: neutral
  // Count per bin if the trains were independent, dashed; below 0: none is drawn.
  double expected = -1;
  // What a count is multiplied with to be a rate, spikes per second; 0: counts are shown.
  double rate_per_count = 0;
};

// In the colour of its cluster, and neutral for a cross-correlogram, which is of neither.
correlogram_panel make_correlogram_panel(const correlogram& shown, bool as_rate);

// Into a rectangle of the painter; one too small for axes gets bars, title and caption alone.
void paint_correlogram(QPainter& painter, const QRectF& rect, const correlogram_panel& panel,
                       const cluster_theme& theme);

// The bin under the pointer, -n..n, and whether there is one.
struct correlogram_hit {
  bool found = false;
  std::int32_t bin = 0, count = 0;
};
correlogram_hit correlogram_bin_at(const QRectF& rect, const correlogram_panel& panel,
                                   QPointF pixel);

// Clusters against each other: autocorrelograms on the diagonal, and above it, in the row of the
// one and the column of the other, their cross-correlograms. Counts the spikes of each cluster
// once. bin_ms: width of the bins.
void paint_correlogram_matrix(QPainter& painter, const QRectF& rect, const session_state& session,
                              const std::vector<std::int32_t>& clusters, float bin_ms,
                              const cluster_theme& theme);

// Panels of equal size side by side, in rows where there are many.
std::vector<QRectF> lay_out_panels(const QRectF& rect, std::int32_t n);

}  // namespace kestrelvane

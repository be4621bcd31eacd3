// A unit against those that lie nearest to it: its autocorrelogram, and the cross-correlograms with
// one neighbour after the other. A neighbour with a gap round 0 that the two share is likely the
// same neuron; one with a peak there is likely seen through the other's spikes.
#pragma once

#include <QPainter>
#include <cstdint>
#include <vector>

#include "analysis/correlograms.h"
#include "displays/clusters/cluster_theme.h"

namespace kestrelvane {

// Neighbours in one picture; sixteen panels with the unit's own are still legible in a window.
constexpr std::int32_t neighbours_per_page = 15;

struct train_panels {
  bool supported = true;  // times of stored records are no trains
  std::int32_t unit = 0;
  std::int32_t first = 0;                 // of the others, from 0, on this page
  std::vector<std::int32_t> others;       // all clusters but the unit, the nearest centre first
  std::vector<correlogram> correlograms;  // the unit's own, then those of the page
};

// The width of the bins is that in review_settings. first is moved to the last of them where it
// lies beyond.
train_panels count_trains(const session_state& session, std::int32_t unit, std::int32_t first);
// The same with chosen others.
train_panels count_trains(const session_state& session, std::int32_t unit, std::int32_t first,
                          std::vector<std::int32_t> others);

// Panels that a rectangle has room for, the unit's own among them.
std::int32_t panels_in(const QRectF& rect, const train_panels& panels);
void paint_trains(QPainter& painter, const QRectF& rect, const train_panels& panels, bool as_rate,
                  const cluster_theme& theme);
// The other unit of the panel under the pointer; the unit itself for its own, 0 for none.
std::int32_t train_at(const QRectF& rect, const train_panels& panels, QPointF pixel);

}  // namespace kestrelvane

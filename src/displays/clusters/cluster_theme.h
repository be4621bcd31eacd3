// Colours of the cluster displays: light or dark, with the user's own for clusters and labels.
#pragma once

#include <QColor>
#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

struct cluster_theme {
  QColor background, text, axes, grid;
  QColor neutral;   // events without a label, unclustered events
  QColor selected;  // the event or cluster that the user has chosen
  // The ten of the preferences, mixed with the text's where they would not be seen.
  std::array<QColor, 10> colours;
};

cluster_theme make_cluster_theme(const preferences_record& preferences, bool dark);

// Outliers carry this label, whatever the other labels are.
constexpr std::int32_t outlier_label = 100;

// What an event is coloured by: 0, a label, or for a cluster one of 1..10 in turn, so that
// cluster 11 looks like cluster 1.
inline std::int16_t mark_of_cluster(std::int32_t cluster) {
  return static_cast<std::int16_t>(cluster < 1 ? 0 : (cluster - 1) % 10 + 1);
}
// The ten colours in turn; neutral for 0 and for outliers.
QColor colour_of_mark(const cluster_theme& theme, std::int32_t mark);

// Part of the way from one colour to another.
QColor mix_colours(const QColor& a, const QColor& b, double of_b);

// By what the events of the clusters on show are coloured: their labels as soon as one event has
// one, the labels of a pair once all of its events have one; else the number of a cluster, and 1
// and 2 for those of a pair, as the labels of a pair under review are.
enum class mark_source { labels, clusters, places };
// lists: the events of the clusters, together or each for itself.
mark_source find_mark_source(const session_state& session,
                             const std::vector<std::span<const std::int32_t>>& lists,
                             std::size_t n_clusters);
// The mark of an event of the cluster at that place on show, from 0.
std::int16_t mark_of_event(const session_state& session, mark_source source, std::int32_t event,
                           std::size_t place);

}  // namespace kestrelvane

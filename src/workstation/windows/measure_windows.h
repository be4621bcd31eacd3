// Windows that measure the clusters on show: the intervals between the spikes of the current
// cluster, its correlograms with the clusters that lie nearest to it, and why a pair overlaps as
// much as it does. They follow the current cluster, or the pair that a review has on show; the menu
// opens them, also beside a review.
#pragma once

#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

inline constexpr graph_kind measure_kinds[] = {graph_kind::overlap, graph_kind::intervals,
                                               graph_kind::spike_trains};

graph_routines interval_routines(workstation& w);
// Page keys go through the neighbours; a click shows the pair in "Auto- and cross-correlations".
graph_routines train_routines(workstation& w);
// Counted anew for each picture, but while an operation runs: it needs a scratch template.
graph_routines overlap_routines(workstation& w);

}  // namespace kestrelvane

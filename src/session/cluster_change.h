// What an edit did to the clusters: the one record that displays and dialogs listen to.
//
// Numbers are dense, so most edits change the numbers of clusters they have nothing to do
// with. Whoever keeps a cluster number over an edit follows it with number_after; nobody
// reads a changed number by itself.
#pragma once

#include <cstdint>
#include <vector>

namespace kestrelvane {

enum class cluster_change_kind {
  deleted,         // before: the clusters that went
  merged,          // two or more before, one after
  split,           // one or more before, more after
  moved_events,    // from the clusters before to those after
  removed_events,  // from the clusters before; those emptied are missing after
  renumbered,      // all clusters, in their new order
  cleared,         // there are no clusters any more
  restored,        // all clusters are those of an earlier state
  rebuilt,         // all clusters are new
};

struct cluster_change {
  cluster_change_kind kind = cluster_change_kind::rebuilt;
  std::vector<std::int32_t> before;  // clusters concerned, by the numbers that they had
  std::vector<std::int32_t> after;   // and by those that they have now, with new ones
  // Element c: the number that cluster c has now, 0 when it is gone. Empty when nothing can be
  // followed: cleared, restored, rebuilt.
  std::vector<std::int32_t> number_now;
};

// The number after a change of the cluster that had this one before; 0 when it is gone.
inline std::int32_t number_after(const cluster_change& change, std::int32_t cluster) {
  const bool known = cluster >= 1 && cluster < static_cast<std::int32_t>(change.number_now.size());
  return known ? change.number_now[cluster] : 0;
}

}  // namespace kestrelvane

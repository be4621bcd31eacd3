// The events of every cluster, found once for all cluster displays.
//
// A scan over all events takes too long for each window and each press of a key; the index
// takes one scan and is good until events or clusters change. It belongs to whoever owns the
// windows, as the summary of peaks does: refresh_displays and every cluster_change are the
// moments to forget it. Labels may change under it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "clustering/membership.h"
#include "session/session_state.h"

namespace kestrelvane {

struct cluster_index {
  cluster_event_lists events;
  std::uint64_t stamp = 0;  // another one whenever the index was made anew; 0: not made yet
  bool valid = false;
};

void forget_cluster_index(cluster_index& index);
// Makes it when it is not there.
void update_cluster_index(const session_state& session, cluster_index& index);

// Empty for what is no cluster; 0 gives the unclustered events.
std::span<const std::int32_t> events_of_cluster(const cluster_index& index, std::int32_t cluster);

// Which clusters a display shows: each a number of a cluster, none twice, in the order given.
std::vector<std::int32_t> clusters_on_show(const session_state& session,
                                           const std::vector<std::int32_t>& wanted);

// Position i of n in an order that spreads any first part of it evenly over all: what is shown
// of many events before the rest is ready. Each position comes once for i = 0..n-1.
struct spread_order {
  std::int64_t n = 0, step = 1;
  explicit spread_order(std::int64_t count);
  std::int64_t at(std::int64_t i) const { return i * step % n; }
};

}  // namespace kestrelvane

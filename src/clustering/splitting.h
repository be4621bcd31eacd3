// Splitting a cluster until nothing can be cut off.
//
// One long-lived sub-cluster is chosen from the stage tables and cut off, and the
// rest is clustered afresh, until the cluster is signed off: final, unless a
// clean-up removed enough events to make a further run worthwhile. Runs on the
// Autosort worker; pause and interrupt are polled after each cut.
#pragma once

#include <cstdint>
#include <vector>

#include "clustering/gradient_ascent.h"
#include "session/session_state.h"

namespace kestrelvane {

struct split_outcome {
  std::int32_t cluster;  // the cluster as it was left: empty numbers are passed over
  bool too_small;        // fewer than min_cluster_size events stay: the caller deletes it
  bool limit_reached;    // no room for a further cluster; it stays unsigned
};

split_outcome split_cluster(session_state& session, std::int32_t cluster);

// The automatic choice of the bandwidth: of the chains of stages that long-lived
// clusters form, the one of smallest mean size, at the stage where it is largest
// (the later on ties).
struct subcluster_choice {
  bool found = false;
  std::int32_t stage = 0;
  std::int32_t label = 0;
};
subcluster_choice choose_subcluster(const session_state& session, const gac_tables& tables);

// Cuts a cluster at a stage: the chosen label becomes a new cluster, or, when the
// rest is too small to stand alone, the rest is removed. list: the cluster's
// events, in the order of the labels.
struct split_result {
  bool created = false;
  bool limit_reached = false;
};
split_result apply_split(session_state& session, std::int32_t cluster,
                         const std::vector<std::int32_t>& list,
                         const std::vector<std::int32_t>& labels, std::int32_t chosen_label);

// Marks sub-clusters of current_cluster without moving events.
void autosplit_current_cluster(session_state& session);

}  // namespace kestrelvane

// Operations on the cluster table: which cluster an event belongs to, and how
// many clusters there are.
//
// Cluster numbers stay dense: removing one moves every record above it down and
// rewrites event_cluster in the same step. The status lists are told of every
// change. Called from one thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// Removes a cluster: its events become unclustered, higher numbers drop by one.
void delete_cluster(session_state& session, std::int32_t cluster);
// Merges two clusters into the lower number: template, alignment, removal of
// coincident events, comment, status rows.
void merge_clusters(session_state& session, std::int32_t a, std::int32_t b);

// Makes the events of current_cluster with sub-cluster label k a new cluster.
void split_marked_to_new_cluster(session_state& session, std::int32_t k);

// Asks, then forgets all assignments and comments.
void clear_clusters(session_state& session);

// Takes coincident events (coincidence_ms) out of a cluster; returns how many left.
std::int32_t remove_coincident_cluster_events(session_state& session, std::int32_t cluster);

}  // namespace kestrelvane

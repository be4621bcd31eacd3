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

// Events of a cluster: their number, or their event numbers in ascending order.
std::int32_t count_cluster_events(const session_state& session, std::int32_t cluster);
std::vector<std::int32_t> list_cluster_events(const session_state& session, std::int32_t cluster);
// Events of every cluster in one pass: element c for cluster c, element 0 the unclustered.
std::vector<std::int32_t> count_events_by_cluster(const session_state& session);

// The last net: too many clusters are told and the count is set to 4000.
void check_cluster_limit(session_state& session);
// False, with a box, when no cluster can be added.
bool cluster_can_grow(session_state& session);

// Removes a cluster: its events become unclustered, higher numbers drop by one.
void delete_cluster(session_state& session, std::int32_t cluster);
// The light form of the Plexon reader: events and counts alone, no records.
void delete_current_cluster_events(session_state& session);

// Merges two clusters into the lower number: template, alignment, removal of
// coincident events, comment, status rows.
void merge_clusters(session_state& session, std::int32_t a, std::int32_t b);

// Makes the events of current_cluster with sub-cluster label k a new cluster.
void split_marked_to_new_cluster(session_state& session, std::int32_t k);

// Asks, then forgets all assignments and comments.
void clear_clusters(session_state& session);

// Blanks the comments of all cluster slots.
void blank_cluster_comments(session_state& session);

// Zeroes the record of a cluster that is about to be made at a slot; cluster_sigma
// keeps what stands there.
void clear_cluster_record(session_state& session, std::int32_t cluster);

// Removes empty labels 1..100: sizes[label] counts them; labels are rewritten.
void compact_subcluster_labels(std::int32_t* labels, std::int64_t n, const std::int32_t* sizes);

// Events of a cluster inside an epoch; the epoch of a time is the last whose
// start is below it.
std::int32_t count_epoch_events(const session_state& session, std::int32_t cluster,
                                std::int32_t epoch);

// Takes coincident events (coincidence_ms) out of a cluster; returns how many left.
std::int32_t remove_coincident_cluster_events(session_state& session, std::int32_t cluster);

// Squared distance of an event's site from the centre of a cluster's template, µm².
float distance_from_centre_squared(const session_state& session, std::int32_t event,
                                   std::int32_t cluster);

}  // namespace kestrelvane

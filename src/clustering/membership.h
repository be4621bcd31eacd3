// Who belongs to whom: the events of a cluster, and what a cluster's record holds.
//
// Nothing here moves a cluster number; sorting/cluster_edits.h does. Counts and lists are
// plain scans over all events, but for work on many clusters that leaves events where they are
// (standing_events). Reading runs on any thread, changing on one at a time.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// Whether the number is that of a cluster, 1 to n_clusters.
bool is_cluster(const session_state& session, std::int32_t cluster);

// Events of a cluster: their number, or their event numbers in ascending order.
std::int32_t count_cluster_events(const session_state& session, std::int32_t cluster);
std::vector<std::int32_t> list_cluster_events(const session_state& session, std::int32_t cluster);
// Events of every cluster in one pass: element c for cluster c, element 0 the unclustered.
std::vector<std::int32_t> count_events_by_cluster(const session_state& session);

// The events of all clusters, one cluster after the other: those of cluster c, in ascending order,
// are list[first[c]] .. list[first[c + 1] - 1]; element 0 is the unclustered.
struct cluster_event_lists {
  std::vector<std::int64_t> first;
  std::vector<std::int32_t> list;

  // Empty for what is no cluster.
  std::span<const std::int32_t> of(std::int32_t cluster) const;
};
// In two passes over all events. Events under removal belong nowhere.
void list_all_events(const session_state& session, cluster_event_lists& lists);

// While one lives, counts and lists of this session's clusters come from lists made at its
// beginning: a scan over all events for each of a million pairs takes longer than the rest of the
// work. No event may change its cluster meanwhile. Inside another one it does nothing.
struct standing_events {
  explicit standing_events(session_state& session);
  standing_events(const standing_events&) = delete;
  standing_events& operator=(const standing_events&) = delete;
  ~standing_events();

 private:
  session_state& session_;
  cluster_event_lists lists_;
};

// Fewest events that make a cluster: min_cluster_size, and one where the user allows any
// size, since an empty cluster is none and always goes.
std::int32_t least_cluster_size(const session_state& session);

// The last net: too many clusters are told and the count is set to 4000.
void check_cluster_limit(session_state& session);
// False, with a box, when no cluster can be added.
bool cluster_can_grow(const session_state& session);

// Blanks the comments of all cluster slots.
void blank_cluster_comments(session_state& session);

// Zeroes the record of a cluster that is about to be made at a slot; cluster_sigma
// keeps what stands there.
void clear_cluster_record(session_state& session, std::int32_t cluster);

// Removes empty labels 1..100: sizes[label] counts them; labels are rewritten.
void compact_subcluster_labels(std::int32_t* labels, std::int64_t n, const std::int32_t* sizes);

// Squared distance of an event's site from the centre of a cluster's template, µm².
float distance_from_centre_squared(const session_state& session, std::int32_t event,
                                   std::int32_t cluster);

}  // namespace kestrelvane

// Edits of the clusters: which cluster an event belongs to, and how many there are.
//
// Cluster numbers stay dense. Every edit moves records, events and pairs together: it
// makes the templates that it changed anew, keeps pair lists and match lists in step,
// deletes the clusters that it emptied, and ends in one cluster_change for whoever
// listens. A caller has nothing to keep up. Called from one thread at a time.
//
// Without pair lists (n_kv_pairs = 0) their upkeep does nothing. cluster_sigma stays at
// its number, whatever moves.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "session/cluster_change.h"
#include "session/session_state.h"

namespace kestrelvane {

// Removes clusters: their events become unclustered, higher numbers close up. Numbers that
// are no clusters are passed over.
void delete_cluster(session_state& session, std::int32_t cluster);
void delete_clusters(session_state& session, const std::vector<std::int32_t>& clusters);
// Those of fewer events than size; returns how many went.
std::int32_t delete_small_clusters(session_state& session, std::int32_t size);

// Merges two clusters into the lower number: template, alignment, removal of
// coincident events, comment, status rows.
void merge_clusters(session_state& session, std::int32_t a, std::int32_t b);

// The plain merge of two clusters that clustering found to be one: all events go to a and
// get label 1, b is deleted; no shift, no removal of coincident events.
void absorb_cluster(session_state& session, std::int32_t a, std::int32_t b);

// Makes the events of current_cluster with sub-cluster label k a new cluster. Nothing
// happens when none has the label, or all have it.
void split_marked_to_new_cluster(session_state& session, std::int32_t k);

// Where the events of some clusters go: place p of event events[i] stands for clusters[p - 1],
// or for the (p - clusters.size())-th new one; place 0 leaves all clusters, and a negative
// one stays where it is. Places 1..n_places each have events, and n_places is at least 1; where
// they are fewer than the clusters, the clusters without a place keep no event and are deleted.
struct event_places {
  std::vector<std::int32_t> clusters;
  std::vector<std::int32_t> events;  // ascending
  std::vector<std::int32_t> place;   // of each event
  std::int32_t n_places = 0;
  // Called when the old clusters and their pairs are up to date and the new ones are still to
  // be added; may be empty.
  std::function<void()> old_ones_done;
};
// Shares the events out; new clusters come at the end of the table, which must have room.
// Labels and current_cluster stay. Returns the clusters of places 1..n_places.
std::vector<std::int32_t> share_out_events(session_state& session, const event_places& places);

// What an edit does for the templates of the clusters that it changed. Their pairs follow in
// any case.
enum class template_renewal {
  done,        // the caller has made them anew
  calculated,  // template and centre, without alignment
  realigned,   // recalculate_cluster
};

// Events (event numbers, ascending) leave their clusters: cluster 0, label 0, templates and
// centres by default without alignment. Unclustered ones are passed over. Returns how many left.
std::int32_t remove_events(session_state& session, const std::vector<std::int32_t>& events,
                           template_renewal renewal = template_renewal::calculated);
// Events go to one cluster, likewise; returns how many were not in it before.
std::int32_t move_events(session_state& session, const std::vector<std::int32_t>& events,
                         std::int32_t cluster);

// For tools that move events in time, or that take unclustered ones in: the upkeep of the
// clusters that they changed, as above, and the change told (moved_events).
void renew_clusters(session_state& session, const std::vector<std::int32_t>& clusters,
                    template_renewal renewal);

// Renumbers all clusters: order[i] is the present number of the cluster that gets number
// i + 1. Records, events, pairs and their shift owners move, and so do the selections.
// False, and nothing moves, when order does not name each cluster once or the table is full.
bool permute_clusters(session_state& session, const std::vector<std::int32_t>& order);

// Asks, then forgets all assignments and comments.
void clear_clusters(session_state& session);

// Takes coincident events (coincidence_ms) out of a cluster; returns how many left. A step
// of other edits: the template and the lists are theirs to keep.
std::int32_t remove_coincident_cluster_events(session_state& session, std::int32_t cluster);

// For runs that change clusters wholesale and do their upkeep once: begin notes the clusters
// as they are, end tells whoever listens. The numbers in number_now and after are the
// caller's to set in between.
cluster_change begin_change(const session_state& session, cluster_change_kind kind,
                            std::vector<std::int32_t> before = {});
void end_change(session_state& session, cluster_change& change);
// Clusters 1..n_clusters.
std::vector<std::int32_t> all_clusters(const session_state& session);

}  // namespace kestrelvane

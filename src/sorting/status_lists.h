// Status lists: what is known of every pair, kept in step as clusters change.
//
// After the first full build the lists are edited pair by pair for the clusters
// that changed. Without lists (n_kv_pairs = 0) every routine of upkeep does
// nothing. Pairs are computed in parallel, each by one thread alone, so the
// values do not depend on the number of threads.
//
//   cluster merged, H into L    remove H, renumber, update L   (merge_clusters)
//   cluster deleted             remove it, renumber            (delete_cluster)
//   cluster split               update what changed, add what is new
//   events realigned, template  update the cluster (or all)
//   recalculated
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// The one definition of a distinct pair.
bool pair_is_distinct(const session_state& session, std::int64_t k);

// Clusters all of whose pairs are distinct, and whether one is.
std::int32_t count_stable_clusters(const session_state& session);
bool cluster_is_stable(const session_state& session, std::int32_t cluster);

// "Pairs to examine": neither distinct nor marked ambiguous.
std::int32_t count_pairs_to_examine(const session_state& session);

// Full build; forgets all user marks.
void build_status_lists(session_state& session);

// Recomputes every pair of a cluster; marks and tries stay. but_not: another
// cluster whose pair with this one the caller will have computed later; 0 for none.
void update_lists_for_cluster(session_state& session, std::int32_t cluster,
                              std::int32_t but_not = 0);

// Recomputes every pair after all templates have changed; marks and tries stay.
void update_all_lists(session_state& session);

// Makes room for the cluster just added at the end (n_clusters is the new count)
// and computes its pairs.
void add_cluster_to_lists(session_state& session);

// Drops every pair of a cluster, the old count still in force. The caller then
// renumbers the shift owners above it.
void remove_cluster_from_lists(session_state& session, std::int32_t cluster);
void renumber_shift_owners(session_state& session, std::int32_t removed);

// Empties the lists before a full Autosort: overlap -1, everything else 0.
void clear_status_lists(session_state& session);

// Builds and sorts the match lists of the selected match method. A pair that the method cannot
// measure is left out, and so are those that an interrupt kept from being reached; an empty list
// is told in a box.
void get_match_lists(session_state& session);

// Values and places of the pairs of these clusters, after an edit of them; the others stay. The
// list is then the one that would be built anew, as long as none of its pairs has been cut off.
void update_match_lists(session_state& session, const std::vector<std::int32_t>& clusters);

// Self-checks of the lists, with their reports in the log. Each is true when it
// found nothing wrong.
bool check_shift_owners(const session_state& session);
bool check_match_values(const session_state& session);
bool check_shift_values(const session_state& session);
bool check_overlap_flags(const session_state& session);
// Builds the lists plainly and threaded and compares them bit for bit.
bool check_threaded_lists(session_state& session);

}  // namespace kestrelvane

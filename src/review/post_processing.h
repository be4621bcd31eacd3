// Post-processing: tools that clean and renumber a finished sort.
//
// Each works on all clusters, does its own upkeep of templates, pairs and numbers, says in the
// log what it did, and polls the interrupt between clusters: what that leaves is told with each
// tool. A count that is returned is -1 when the tool was refused or the user would rather not;
// why has been said. Marked events are those with a label, event_subcluster above 0.
//
// One undo, of all tools together: begin_post_processing saves the sort, undo_post_processing
// brings it back.
#pragma once

#include <cstdint>

#include "review/reclaim.h"
#include "session/session_state.h"

namespace kestrelvane {

constexpr const char* post_processing_title = "Post-processing";

// Guards of review_guards.h; then saves. False when there is nothing to work on.
bool begin_post_processing(session_state& session);
// "All changes undone!"; false, after a word, when another tool has saved since.
bool undo_post_processing(session_state& session);

// "# of clusters", "# of events", "# unclustered", "% clustered"; and the marked events of all
// clusters.
struct sort_counts {
  std::int32_t n_clusters = 0, n_events = 0, n_unclustered = 0, n_marked = 0;
  double percent_clustered = 0;  // to two decimals; 0 without events
};
sort_counts count_sort(const session_state& session);

// ---------------------------------------------------------------- duplicates

// "Mark" is mark_duplicate_events (sorting/duplicates.h), and a count alone
// remove_duplicate_events(session, false).
//
// "Remove": the worse of each two leaves its cluster and gets back its time of detection.
// Returns how often one was found, as a count alone does.
std::int32_t remove_duplicates_after_sort(session_state& session);

// "Attempt to" "Relocate": of each duplicate pair the event that has moved farther from where it
// was detected (the earlier on ties) is put back there and fitted within twice the realignment
// window, at most 50 samples. It stays at its new place when that is more than the realignment
// window away from the old one and the fit is sharp: its logarithm above the mean of the
// cluster plus relocate_sd_factor s.d. Events without a time of detection are passed over.
// Interrupted, the clusters so far are done.
struct relocation_counts {
  std::int32_t n_relocated = -1;   // "# relocated ="
  std::int32_t n_duplicates = -1;  // those that are left, "# found ="
};
relocation_counts relocate_duplicate_events(session_state& session);

// ---------------------------------------------------------------- events

// Alignment scores below clean_threshold: "Mark" clears all labels and gives those events label
// 1, "Remove" takes them out of their clusters. Interrupted, nothing has changed (-1).
std::int32_t alignment_clean(session_state& session, bool mark_only);

// Asks, then takes out the events that lie farther than realign_window_ms from where they were
// detected.
std::int32_t delete_shifted_events(session_state& session);

// "Remove" of labels: events stay where they are.
void clear_subcluster_labels(session_state& session);
// "Delete" of labelled events: asks, then takes them out of their clusters.
std::int32_t remove_labelled_events(session_state& session);

// "Reclaim" is reclaim_lost_events (review/reclaim.h).

// ---------------------------------------------------------------- clusters

// Deletes the clusters below delete_snr_limit or delete_size_limit, as delete_measure says;
// asks when none would be left.
std::int32_t delete_weak_clusters(session_state& session);

// "Reorder": by renumber_order, in the direction of renumber_increasing; equal keys keep their
// order, and what is not a number comes last. current_cluster becomes 1. False when refused: by
// S/N on an event-based recording, by marks without any, by ambiguity without lists.
bool renumber_clusters(session_state& session);

// Template quality: (max - min) / sqrt(2 (s1^2 + s2^2)) on the centre channel, s1 and s2 being
// the s.d. at maximum and minimum. 0 for a template without channels.
double template_quality(const session_state& session, std::int32_t cluster);

}  // namespace kestrelvane

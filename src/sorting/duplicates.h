// Duplicate events: one spike left as two events of one cluster.
//
// Two events of a cluster within the lockout time are duplicates; the one
// registered farther from the template's centre is the worse, the earlier on a
// tie. Each event is compared with the 50 that follow it.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// The lockout time in samples.
std::int32_t duplicate_window_samples(const session_state& session);

// Counts the duplicates; with remove, takes the worse of each two out of its
// cluster and gives it back its time of detection. Returns the count.
std::int32_t remove_duplicate_events(session_state& session, bool remove);

// The worse events among the duplicates of one cluster, ascending: those that a removal takes.
std::vector<std::int32_t> list_duplicate_events(session_state& session, std::int32_t cluster);

// "Remove" of post-processing: removes, logs, and returns the count.
std::int32_t remove_duplicates_by_hand(session_state& session);

// Labels the worse events with sub-cluster 1, after clearing all labels; returns
// how many were found.
std::int32_t mark_duplicate_events(session_state& session);

}  // namespace kestrelvane

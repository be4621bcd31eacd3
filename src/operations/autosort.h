// Autosort: from a filtered recording to units, without further attention.
//
// Detection, one cluster per channel, splitting of every cluster until it cannot
// be split, removal of duplicates and small clusters, realignment, and rounds of
// merging and of merge-and-split over pairs. Runs on one worker thread; the
// interrupt flag is polled between stages, clusters and pairs. An interrupted run
// leaves a consistent session: the clusters stay as they are at that point.
#pragma once

#include <chrono>
#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Where a run may be told to end (autosort_state::stop_after).
enum autosort_stop : std::int32_t {
  stop_after_all = 0,
  stop_after_detection = 1,         // after coincident and large events are removed
  stop_after_channel_clusters = 2,  // after the realignment that follows the first clusters
  stop_after_first_pass = 3,        // before the status lists
  stop_after_lists = 4,             // after the first build of the status lists
};

// What closing the dialog does: templates of an earlier window are made anew, with a word
// before and after. True when Guided Merge should open: the user asked for the next stage and
// there are pairs to examine, which are compared by these templates.
bool leave_autosort(session_state& session);

// The whole pipeline with the settings in force. What it has to say it says
// through the boundary; it begins with the offer of high_pass_offer.h. Returns false when it
// stopped at a guard, found no events, or was interrupted; a run without clusters tells why
// and is a run like any other.
bool autosort(session_state& session);

}  // namespace kestrelvane

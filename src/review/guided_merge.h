// Guided Merge: the pairs that Autosort could not settle, one after the other, for the user to
// decide.
//
// A walk goes from pair to pair. The next one is chosen from the lists as the last decision
// left them, so that a pair can come up more than once, until every pair is distinct or marked.
// begin_guided_merge shows the first pair, each command acts on the pair on show and shows the
// next; the dialog that asks how to split (pair_split.h) stands in between where one is needed.
// While a pair is on show its events carry the labels 1 (of a) and 2 (of b), a is the current
// cluster, and the pair is that of the comparison as well. One level of undo. The walk must not
// outlive the recording. Worker's work throughout.
#pragma once

#include <cstdint>
#include <string>

#include "review/pair_split.h"
#include "review/pair_values.h"
#include "session/session_state.h"

namespace kestrelvane {

// review_settings::search_order; any other number is taken as the first.
enum search_order_row : std::int32_t {
  order_most_overlap = 1,
  order_least_overlap = 2,
  order_best_match = 3,  // lowest template correlation first
};

// What the decision dialog sends.
enum guided_command : std::int32_t {
  guided_none = -1,
  guided_finish = 0,
  guided_merge = 1,
  guided_distinct = 2,
  guided_ambiguous = 3,
  guided_merge_and_split = 4,
  guided_undo = 5,
};

// What is to be done next.
enum class guided_step {
  decide,    // a pair is on show
  ask,       // the dialog of pair_split.h is to be opened over walk.split
  finished,  // the walk is over; the dialogs close
};

struct guided_walk {
  cluster_pair pair{0, 0};                    // on show, a < b
  std::int32_t pairs_left = 0;                // "Pairs left to examine"
  std::int32_t n_clusters = 0, n_stable = 0;  // "# of stable clusters"
  bool can_undo = false;                      // a decision can be taken back
  pair_split split;                           // of the pair on show, while it is asked for

  // What undo and the way back need.
  guided_command last_command = guided_none;
  cluster_pair last_pair{0, 0};     // that it was about
  cluster_pair undone_split{0, 0};  // its merge and split has just been taken back
  std::int32_t home_event = 0;      // of the cluster that was current when the walk began
};

// The next pair in an order, and how many candidates there are: neither distinct nor ambiguous.
// An overlap that is not a number comes after all others. k = 0: there is none.
struct guided_search {
  std::int64_t k = 0;
  std::int32_t pairs_left = 0;
};
// Pairs that the template pass has proposed come before all others.
guided_search guided_next_pair(const session_state& session, std::int32_t search_order);
// Whether there is a pair to show: one in doubt, or one that is proposed.
bool has_pairs_to_examine(const session_state& session);
// Why a pair was proposed; empty: it was not.
std::string proposal_of(const session_state& session, cluster_pair pair);

// Guards, lists if there are none, templates if the window has changed; shows the first pair.
// finished, after a box: the dialog does not open.
guided_step begin_guided_merge(session_state& session, guided_walk& walk);

// A decision about the pair on show, by the order in review_settings::search_order. A command
// that is none is logged, and the pair stays.
guided_step decide_pair(session_state& session, guided_walk& walk, guided_command command);

// The dialog over walk.split has been left with an answer.
guided_step end_guided_split(session_state& session, guided_walk& walk, ugm_message answer);

}  // namespace kestrelvane

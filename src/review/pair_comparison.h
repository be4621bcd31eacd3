// Comparing cluster pairs: any two units side by side, in the order of any measure.
//
// The pair on show and its place in the match list are of the session (review_place), since
// Guided Merge shares them; a pair_comparison holds what one opening of the dialog needs
// beside them. Each routine below is one control. Those that change clusters save first, keep
// the match list in step entry by entry, and have one level of undo; a comparison takes back
// only what it saved itself. An empty match list is told when it is built; moving in it does
// nothing. Worker's work but for the moves.
#pragma once

#include <cstdint>
#include <string>

#include "review/pair_split.h"
#include "review/pair_values.h"
#include "session/session_state.h"

namespace kestrelvane {

struct pair_comparison {
  bool can_undo = false;
  cluster_pair saved_pair{0, 0};  // on show when undo was saved
  pair_split split;               // while "Re-split" asks
};

// What the dialog does next.
enum class comparison_step {
  refresh,  // the pair on show may have changed
  ask,      // the dialog of pair_split.h is to be opened over comparison.split
  close,
};

// Guards, then self-checks of the lists when threading times are logged; a method above 4 is
// set back, so that no expensive list is built on opening; the pair is brought into range.
// False, after a box: the dialog does not open. With one cluster there is nothing to compare.
bool open_pair_comparison(session_state& session, pair_comparison& comparison);
// The second half, once the dialog is up: builds the match list, and shows its first entry, or
// that of the stored position.
void fill_pair_comparison(session_state& session);

// Shows a pair: makes a the current cluster. False, after a log line, for numbers out of range.
bool compare_refresh(session_state& session, std::int32_t a, std::int32_t b);
// Any pair, by its numbers: its place in the list no longer applies. Two equal ones are none.
bool compare_typed_pair(session_state& session, std::int32_t a, std::int32_t b);

struct comparison_values {
  pair_values pair;
  std::string title;         // "Comparing templates 3 and 7"
  std::string warning;       // on different tetrodes
  std::string match_value;   // to three decimals; "0" for an empty list, empty for no entry
  std::int32_t n_match = 0;  // the list controls are on when there are any
};
comparison_values make_comparison_values(const session_state& session);

// Moves through the list; false when it has nothing to move to. Entries stand by likeness, so
// that the first that holds a cluster is the best that does.
bool compare_most_similar(session_state& session);
bool compare_most_similar_to_a(session_state& session);  // b becomes the other cluster
bool compare_most_similar_to_b(session_state& session);
bool compare_step(session_state& session, int direction);         // -1 or 1, through all
bool compare_step_with_a(session_state& session, int direction);  // entries that hold a

// Builds the list by another method and shows its first entry.
void compare_by_method(session_state& session, std::int32_t match_method);
// Displays that a method turns on.
inline bool method_shows_correlograms(std::int32_t method) { return method == match_doublets; }
inline bool method_shows_time_plot(std::int32_t method) { return method == match_rates; }

// "Merge -|" stays with the merged cluster, "Merge |<" goes back to the first entry.
comparison_step compare_merge(session_state& session, pair_comparison& comparison, bool stay);
comparison_step compare_resplit(session_state& session, pair_comparison& comparison);
comparison_step end_compare_resplit(session_state& session, pair_comparison& comparison,
                                    ugm_message answer);
// "user says distinct?"
void compare_set_distinct(session_state& session, pair_comparison& comparison, bool distinct);
// The pair is left for later: Guided Merge passes it over.
void compare_set_ambiguous(session_state& session, pair_comparison& comparison, bool ambiguous);
// Takes back the last of these; false when there is nothing to take back.
bool compare_undo(session_state& session, pair_comparison& comparison);

}  // namespace kestrelvane

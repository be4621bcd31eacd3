#include "review/pair_comparison.h"

#include <fmt/format.h>

#include <algorithm>

#include "review/recorded_edit.h"
#include "review/review_guards.h"
#include "sorting/status_lists.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

namespace {

constexpr const char* dialog_title = "Compare cluster pairs";

cluster_pair pair_on_show(const session_state& session) {
  return {session.reviewed.compare_a, session.reviewed.compare_b};
}

cluster_pair entry_pair(const session_state& session, std::int32_t position) {
  return {session.lists.match_a[position], session.lists.match_b[position]};
}

bool holds(cluster_pair pair, std::int32_t cluster) {
  return pair.a == cluster || pair.b == cluster;
}

// First place of an entry, from a place on in a direction, that holds a cluster; 0 for any.
std::int32_t find_entry(const session_state& session, std::int32_t from, int direction,
                        std::int32_t cluster) {
  for (std::int32_t i = from; i >= 1 && i <= session.lists.n_match; i += direction) {
    if (cluster == 0 || holds(entry_pair(session, i), cluster)) return i;
  }
  return 0;
}

std::int32_t find_entry_of_pair(const session_state& session, cluster_pair pair) {
  for (std::int32_t i = 1; i <= session.lists.n_match; ++i) {
    const cluster_pair entry = entry_pair(session, i);
    if (holds(entry, pair.a) && holds(entry, pair.b)) return i;
  }
  return 0;
}

bool show_entry(session_state& session, std::int32_t position) {
  if (position < 1 || position > session.lists.n_match) return false;
  session.reviewed.match_position = position;
  const auto [a, b] = entry_pair(session, position);
  return compare_refresh(session, a, b);
}

// The numbers into range, and different; clusters may have gone since the pair was shown.
void clamp_pair(session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  review_place& place = session.reviewed;
  if (is_cluster_pair(session, {place.compare_a, place.compare_b})) return;
  place.compare_a = 1;
  // Where one cluster is left there is no second; the window closes then.
  place.compare_b = std::min(2, n);
  place.match_position = 0;
}

// After clusters have changed: the pair that is on show stays, by its place in the list if it
// has one.
void settle_on_pair(session_state& session) {
  clamp_pair(session);
  session.reviewed.match_position = find_entry_of_pair(session, pair_on_show(session));
  compare_refresh(session, session.reviewed.compare_a, session.reviewed.compare_b);
}

void save_comparison(session_state& session, pair_comparison& comparison) {
  comparison.can_undo = save_undo_state(session, undo_owner::pair_comparison);
  comparison.saved_pair = pair_on_show(session);
}

}  // namespace

// ---------------------------------------------------------------- opening

namespace {

void check_lists(const session_state& session) {
  // Checks of the lists against themselves take as long as the lists: for who measures, and not for
  // every opening.
  if (!session.log.log_threading_times) return;
  check_shift_owners(session);
  check_match_values(session);
  check_shift_values(session);
  check_overlap_flags(session);
}

}  // namespace

bool open_pair_comparison(session_state& session, pair_comparison& comparison) {
  comparison = {};
  if (!can_review(session, dialog_title)) return false;
  if (session.clusters.n_clusters == 1) {
    tell(session, "There is only one cluster", dialog_title, box_icon::information);
    return false;
  }
  if (!can_review_pairs(session, dialog_title)) return false;
  check_lists(session);
  std::int32_t& method = session.review.match_method;
  if (method < match_separation || method > match_rms_distance) method = match_correlation;
  clamp_pair(session);
  return true;
}

void fill_pair_comparison(session_state& session) {
  prepare_undo(session);
  prepare_history(session);
  get_match_lists(session);
  const std::int32_t stored = session.reviewed.match_position;
  // Where the user left it; a list that has become shorter ends earlier.
  if (show_entry(session, std::min(std::max(1, stored), session.lists.n_match))) return;
  session.reviewed.match_position = 0;
  compare_refresh(session, session.reviewed.compare_a, session.reviewed.compare_b);
}

// ---------------------------------------------------------------- showing

bool compare_refresh(session_state& session, std::int32_t a, std::int32_t b) {
  const std::int32_t n = session.clusters.n_clusters;
  if (a < 1 || a > n) log_message(session, fmt::format("Error, N_TEMPLATE1={}", a));
  if (b < 1 || b > n) log_message(session, fmt::format("Error, N_TEMPLATE2={}", b));
  if (a < 1 || a > n || b < 1 || b > n) return false;
  session.reviewed.compare_a = a;
  session.reviewed.compare_b = b;
  // Windows of one cluster follow the first of the pair.
  session.clusters.current_cluster = a;
  refresh_displays(session);
  return true;
}

bool compare_typed_pair(session_state& session, std::int32_t a, std::int32_t b) {
  if (a == b || !compare_refresh(session, a, b)) return false;
  session.reviewed.match_position = 0;
  return true;
}

comparison_values make_comparison_values(const session_state& session) {
  const cluster_pair pair = pair_on_show(session);
  const std::int32_t position = session.reviewed.match_position;
  comparison_values values;
  values.pair = make_pair_values(session, pair);
  values.title = fmt::format("Comparing templates {} and {}", pair.a, pair.b);
  if (values.pair.on_different_tetrodes) {
    values.warning = "Clusters belong to different tetrodes";
  }
  values.n_match = session.lists.n_match;
  if (values.n_match == 0) {
    values.match_value = std::string(1, '0');
  } else if (position >= 1 && position <= values.n_match) {
    values.match_value = fmt::format("{:.3f}", session.lists.match_values[position]);
  }
  return values;
}

// ---------------------------------------------------------------- moving

bool compare_most_similar(session_state& session) { return show_entry(session, 1); }

bool compare_most_similar_to_a(session_state& session) {
  const std::int32_t a = session.reviewed.compare_a;
  // From the top: the list is in order of likeness, so that the first entry with a is its most
  // similar.
  const std::int32_t position = find_entry(session, 1, 1, a);
  if (position == 0) return false;
  const cluster_pair entry = entry_pair(session, position);
  session.reviewed.match_position = position;
  return compare_refresh(session, a, entry.a == a ? entry.b : entry.a);
}

bool compare_most_similar_to_b(session_state& session) {
  const std::int32_t b = session.reviewed.compare_b;
  const std::int32_t position = find_entry(session, 1, 1, b);
  if (position == 0) return false;
  const cluster_pair entry = entry_pair(session, position);
  session.reviewed.match_position = position;
  return compare_refresh(session, entry.a == b ? entry.b : entry.a, b);
}

bool compare_step(session_state& session, int direction) {
  const std::int32_t position = session.reviewed.match_position;
  // From a pair that was typed the way into the list leads to its beginning.
  if (position == 0) return show_entry(session, 1);
  return show_entry(session, find_entry(session, position + direction, direction, 0));
}

bool compare_step_with_a(session_state& session, int direction) {
  const std::int32_t a = session.reviewed.compare_a;
  const std::int32_t position = session.reviewed.match_position;
  if (position == 0) return compare_most_similar_to_a(session);
  const std::int32_t next = find_entry(session, position + direction, direction, a);
  if (next == 0) return false;
  const cluster_pair entry = entry_pair(session, next);
  session.reviewed.match_position = next;
  // The cluster that is followed stays the first, or the next step would follow another.
  return compare_refresh(session, a, entry.a == a ? entry.b : entry.a);
}

void compare_by_method(session_state& session, std::int32_t match_method) {
  session.review.match_method = std::clamp<std::int32_t>(match_method, 1, match_pc_adjacency);
  get_match_lists(session);
  if (!compare_most_similar(session)) settle_on_pair(session);
}

// ---------------------------------------------------------------- changing

comparison_step compare_merge(session_state& session, pair_comparison& comparison, bool stay) {
  const auto [a, b] = pair_on_show(session);
  if (!is_cluster_pair(session, {a, b})) return comparison_step::refresh;
  log_message(session, fmt::format("Compare templates: user merged clusters {} and {}", a, b));
  save_comparison(session, comparison);
  merge_pair(session, {a, b});
  // The lower number takes the events of both, and keeps its number whatever moves down.
  const std::int32_t merged = std::min(a, b);
  // Said while the windows show what has become of the two, and not yet the next pair.
  tell(session, fmt::format("Clusters {} and {} were merged", a, b), "Merge clusters",
       box_icon::information);
  update_match_lists(session, {merged});
  const std::int32_t position = stay ? find_entry(session, 1, 1, merged) : 1;
  if (!show_entry(session, position)) {
    // The merged cluster is like no other: it stays on show beside a neighbour in number.
    session.reviewed.compare_a = merged;
    session.reviewed.compare_b = merged > 1 ? merged - 1 : 2;
    settle_on_pair(session);
  }
  if (session.clusters.n_clusters > 1) return comparison_step::refresh;
  tell(session, "Only one cluster is left - exiting dialog", dialog_title, box_icon::information);
  return comparison_step::close;
}

namespace {

comparison_step settle_after_split(session_state& session, pair_comparison& comparison) {
  update_match_lists(session, comparison.split.changed);
  comparison.split = {};
  settle_on_pair(session);
  if (session.clusters.n_clusters > 1) return comparison_step::refresh;
  tell(session, "Only one cluster is left - exiting dialog", dialog_title, box_icon::information);
  return comparison_step::close;
}

}  // namespace

comparison_step compare_resplit(session_state& session, pair_comparison& comparison) {
  const cluster_pair pair = pair_on_show(session);
  if (!is_cluster_pair(session, pair)) return comparison_step::refresh;
  save_comparison(session, comparison);
  comparison.split = guided_split(session, pair, false);
  return comparison.split.message == ugm_none ? settle_after_split(session, comparison)
                                              : comparison_step::ask;
}

comparison_step end_compare_resplit(session_state& session, pair_comparison& comparison,
                                    ugm_message answer) {
  finish_split(session, comparison.split, answer);
  return settle_after_split(session, comparison);
}

namespace {

void set_mark(session_state& session, pair_comparison& comparison, pair_mark mark, bool on) {
  const std::int64_t k = find_pair(session, pair_on_show(session));
  // Before anything is saved: a mark that is there already must not cost the user his undo.
  if (k == 0 || marks_of(session, mark)[k] == on) return;
  save_comparison(session, comparison);
  set_pair_mark(session, pair_on_show(session), mark, on);
  refresh_displays(session);
}

}  // namespace

void compare_set_distinct(session_state& session, pair_comparison& comparison, bool distinct) {
  set_mark(session, comparison, pair_mark::distinct, distinct);
}

void compare_set_ambiguous(session_state& session, pair_comparison& comparison, bool ambiguous) {
  set_mark(session, comparison, pair_mark::ambiguous, ambiguous);
}

bool compare_undo(session_state& session, pair_comparison& comparison) {
  if (!comparison.can_undo || !restore_recorded(session, undo_owner::pair_comparison)) {
    return false;
  }
  // One level: the saved state has been used up by the restoring.
  comparison.can_undo = false;
  // The list that was saved may be that of another method.
  get_match_lists(session);
  session.reviewed.compare_a = comparison.saved_pair.a;
  session.reviewed.compare_b = comparison.saved_pair.b;
  settle_on_pair(session);
  return true;
}

}  // namespace kestrelvane

#include "review/guided_merge.h"

#include <fmt/format.h>

#include <cmath>

#include "clustering/membership.h"
#include "review/recorded_edit.h"
#include "review/review_guards.h"
#include "sorting/realign_steps.h"
#include "sorting/status_lists.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

// ---------------------------------------------------------------- the next pair

namespace {

constexpr const char* dialog_title = "Guided Merge and Split";

// The larger, the sooner.
float rank_of_pair(const status_lists_table& lists, std::int64_t k, std::int32_t search_order) {
  switch (search_order) {
    case order_least_overlap:
      return -lists.kv_cluster_overlap[k];
    case order_best_match:
      return -lists.kv_template_correlation[k];
    default:
      return lists.kv_cluster_overlap[k];
  }
}

std::int64_t count_proposals(const session_state& session) {
  return static_cast<std::int64_t>(session.clusters.proposal_reasons.size());
}

// Pairs that nobody has judged yet. Measures keep the pieces of a unit apart that lie far from each
// other, and the user alone can say that they are not one.
std::vector<std::int64_t> open_proposals(const session_state& session) {
  const cluster_table& clusters = session.clusters;
  const status_lists_table& lists = session.lists;
  const std::int32_t n = clusters.n_clusters;
  std::vector<std::int64_t> open;
  if (count_proposals(session) == 0 || lists.n_kv_pairs == 0) return open;
  for (std::int32_t a = 1; a <= n; ++a) {
    for (std::int32_t b = a + 1; b <= n && clusters.cluster_proposal[a] > 0; ++b) {
      if (clusters.cluster_proposal[a] != clusters.cluster_proposal[b]) continue;
      const std::int64_t k = pair_index(n, a, b);
      if (!lists.kv_user_ambiguous[k] && !lists.kv_user_distinct[k]) open.push_back(k);
    }
  }
  return open;
}

}  // namespace

std::string proposal_of(const session_state& session, cluster_pair pair) {
  const cluster_table& clusters = session.clusters;
  if (pair.a < 1 || pair.b < 1) return "";
  const std::int32_t number = clusters.cluster_proposal[pair.a];
  const bool proposed = number > 0 && number == clusters.cluster_proposal[pair.b] &&
                        number <= count_proposals(session);
  return proposed ? clusters.proposal_reasons[static_cast<std::size_t>(number - 1)] : "";
}

guided_search guided_next_pair(const session_state& session, std::int32_t search_order) {
  const status_lists_table& lists = session.lists;
  guided_search search;
  float best = 0.0f;
  for (std::int64_t k = 1; k <= lists.n_kv_pairs; ++k) {
    // What the user has judged is not asked again, and what the measures keep apart needs no judge.
    if (lists.kv_user_ambiguous[k] || pair_is_distinct(session, k)) continue;
    ++search.pairs_left;
    const float rank = rank_of_pair(lists, k, search_order);
    // Strictly above: the first of equal ones stays. What is not a number holds the place only
    // until a number comes.
    if (search.k == 0 || rank > best || (std::isnan(best) && !std::isnan(rank))) {
      best = rank;
      search.k = k;
    }
  }
  const std::vector<std::int64_t> proposed = open_proposals(session);
  if (proposed.empty()) return search;
  // Those that the measures keep apart are not among the ones that were counted.
  for (const std::int64_t k : proposed) search.pairs_left += pair_is_distinct(session, k);
  search.k = proposed.front();
  return search;
}

bool has_pairs_to_examine(const session_state& session) {
  return guided_next_pair(session, order_most_overlap).k > 0;
}

// ---------------------------------------------------------------- walking

namespace {

// The cluster that the user came with, by one of its events: numbers change on the way.
void go_home(session_state& session, const guided_walk& walk) {
  cluster_table& clusters = session.clusters;
  const std::int32_t of = walk.home_event == 0 ? 0 : session.events.event_cluster[walk.home_event];
  if (of > 0) clusters.current_cluster = of;
  clusters.current_cluster = std::min(clusters.current_cluster, clusters.n_clusters);
}

void refresh_counts(const session_state& session, guided_walk& walk, std::int32_t pairs_left) {
  walk.pairs_left = pairs_left;
  walk.n_clusters = session.clusters.n_clusters;
  walk.n_stable = count_stable_clusters(session);
}

void show_pair(session_state& session, guided_walk& walk, std::int64_t k) {
  walk.pair = pair_from_index(session.clusters.n_clusters, k);
  session.clusters.current_cluster = walk.pair.a;
  session.reviewed.compare_a = walk.pair.a;
  session.reviewed.compare_b = walk.pair.b;
  // Its place in the match list, if it has one, is not known here.
  session.reviewed.match_position = 0;
  label_pair(session, walk.pair);
  refresh_displays(session);
}

guided_step show_next_pair(session_state& session, guided_walk& walk) {
  const guided_search search = guided_next_pair(session, session.review.search_order);
  refresh_counts(session, walk, search.pairs_left);
  if (search.k != 0) {
    show_pair(session, walk, search.k);
    return guided_step::decide;
  }
  cluster_table& clusters = session.clusters;
  // The last pair stays on show; a merge at the end may have taken its higher number.
  clusters.current_cluster = std::min(walk.pair.a, clusters.n_clusters);
  clusters.previous_cluster = std::min(walk.pair.b, clusters.n_clusters);
  refresh_displays(session);
  tell(session, "Finished!", "Guided merge", box_icon::information);
  return guided_step::finished;
}

}  // namespace

guided_step begin_guided_merge(session_state& session, guided_walk& walk) {
  walk = {};
  if (!can_review(session, dialog_title)) return guided_step::finished;
  // Made for another window, templates say nothing of the pairs that are to be judged.
  renew_outdated_templates(session);
  if (!can_review_pairs(session, dialog_title)) return guided_step::finished;
  std::int32_t& order = session.review.search_order;
  if (order < order_most_overlap || order > order_best_match) order = order_most_overlap;
  const guided_search search = guided_next_pair(session, order);
  refresh_counts(session, walk, search.pairs_left);
  if (search.k == 0) {
    tell(session, "There are no pairs left to examine", dialog_title, box_icon::information);
    return guided_step::finished;
  }
  const std::vector<std::int32_t> home =
      list_cluster_events(session, session.clusters.current_cluster);
  if (session.clusters.current_cluster > 0 && !home.empty()) walk.home_event = home.front();
  prepare_undo(session);
  prepare_history(session);
  show_pair(session, walk, search.k);
  return guided_step::decide;
}

// ---------------------------------------------------------------- decisions

namespace {

bool same_pair(cluster_pair x, cluster_pair y) { return x.a == y.a && x.b == y.b; }

guided_step merge_pair_on_show(session_state& session, guided_walk& walk) {
  log_message(session, fmt::format("Merging clusters {} and {}", walk.pair.a, walk.pair.b));
  merge_pair(session, walk.pair);
  return show_next_pair(session, walk);
}

guided_step mark_pair(session_state& session, guided_walk& walk, pair_mark mark) {
  set_pair_mark(session, walk.pair, mark, true);
  return show_next_pair(session, walk);
}

guided_step merge_and_split(session_state& session, guided_walk& walk, bool manual) {
  walk.split = guided_split(session, walk.pair, manual);
  return walk.split.message == ugm_none ? show_next_pair(session, walk) : guided_step::ask;
}

guided_step take_back(session_state& session, guided_walk& walk) {
  if (!walk.can_undo || !restore_recorded(session, undo_owner::guided_merge)) {
    return guided_step::decide;
  }
  walk.can_undo = false;
  // Asked for once more, the split that was not liked is left to the user.
  walk.undone_split =
      walk.last_command == guided_merge_and_split ? walk.last_pair : cluster_pair{0, 0};
  walk.last_command = guided_undo;
  return show_next_pair(session, walk);
}

guided_step finish_walk(session_state& session, guided_walk& walk) {
  go_home(session, walk);
  refresh_displays(session);
  return guided_step::finished;
}

guided_step act_on_pair(session_state& session, guided_walk& walk, guided_command command,
                        bool manual) {
  switch (command) {
    case guided_merge:
      return merge_pair_on_show(session, walk);
    case guided_distinct:
      return mark_pair(session, walk, pair_mark::distinct);
    case guided_ambiguous:
      return mark_pair(session, walk, pair_mark::ambiguous);
    default:
      return merge_and_split(session, walk, manual);
  }
}

}  // namespace

guided_step decide_pair(session_state& session, guided_walk& walk, guided_command command) {
  if (command == guided_finish) return finish_walk(session, walk);
  if (command == guided_undo) return take_back(session, walk);
  if (command < guided_merge || command > guided_merge_and_split) {
    log_message(session, "Unrecognised command");
    return guided_step::decide;
  }
  const bool manual = walk.last_command == guided_undo && same_pair(walk.undone_split, walk.pair);
  // Before every decision, marks included: each can be taken back, the last one alone.
  walk.can_undo = save_undo_state(session, undo_owner::guided_merge);
  walk.last_command = command;
  walk.last_pair = walk.pair;
  // Only the very next decision may be the second try.
  walk.undone_split = {0, 0};
  return act_on_pair(session, walk, command, manual);
}

guided_step end_guided_split(session_state& session, guided_walk& walk, ugm_message answer) {
  finish_split(session, walk.split, answer);
  walk.split = {};
  return show_next_pair(session, walk);
}

}  // namespace kestrelvane

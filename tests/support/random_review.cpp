#include "support/random_review.h"

#include <fmt/format.h>

#include "clustering/membership.h"
#include "review/cluster_marks.h"
#include "review/guided_merge.h"
#include "review/manage_clusters.h"
#include "review/pair_comparison.h"
#include "review/post_processing.h"
#include "review/reclaim.h"

namespace kestrelvane::test {

void random_review::mark_some(session_state& session) {
  session.clusters.current_cluster = any(1, session.clusters.n_clusters);
  for (const std::int32_t e : list_cluster_events(session, session.clusters.current_cluster)) {
    session.events.event_subcluster[e] = static_cast<std::int16_t>(any(0, 3) == 0 ? 1 : 0);
  }
}

void random_review::edit_a_pair(session_state& session) {
  guided_walk walk;
  if (begin_guided_merge(session, walk) == guided_step::finished) return;
  constexpr guided_command commands[] = {guided_merge, guided_distinct, guided_ambiguous,
                                         guided_merge_and_split, guided_merge_and_split};
  const guided_step step = decide_pair(session, walk, commands[any(0, 4)]);
  if (step == guided_step::ask) end_guided_split(session, walk, ugm_split_as_shown);
  if (any(0, 2) == 0) decide_pair(session, walk, guided_undo);
}

void random_review::edit_in_management(session_state& session) {
  cluster_management management;
  if (!open_cluster_management(session, management)) return;
  const std::int32_t n = session.clusters.n_clusters;
  remove_cluster_duplicates(session, management, any(1, n));
  if (n > 4) delete_managed_cluster(session, management, any(1, n));
  if (any(0, 1) == 0) cancel_cluster_management(session, management);
}

void random_review::clean_up(session_state& session) {
  session.review.clean_threshold = static_cast<float>(any(10, 30)) / 10;
  begin_post_processing(session);
  alignment_clean(session, false);
  if (any(0, 1) == 0) undo_post_processing(session);
  session.strategy.realign_window_ms = static_cast<float>(any(2, 8)) / 20;
  relocate_duplicate_events(session);
  remove_duplicates_after_sort(session);
}

void random_review::edit(session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  if (n < 3) return;
  switch (any(0, 9)) {
    case 0:
    case 1:
      begin_cluster_review(session);
      mark_some(session);
      split_label(session, 1);
      break;
    case 2:
      mark_some(session);
      delete_label(session, any(0, 1));
      break;
    case 3:
      session.clusters.current_cluster = any(1, n);
      annotate_current_cluster(session, fmt::format("a \"word\" {}", any(0, 99)));
      label_unit(session, any(1, n), static_cast<unit_label>(any(0, 3)));
      label_units(session, {1, n}, {unit_label::good, static_cast<unit_label>(any(0, 3))});
      break;
    case 4: {
      session.clusters.current_cluster = any(1, n);
      reclaim_counts counts;
      reclaim_events(session, reclaim_selectivity::low, counts);
      break;
    }
    case 5:
      session.review.renumber_order = any(1, 6);
      renumber_clusters(session);
      break;
    case 6:
      clean_up(session);
      break;
    case 7:
      edit_in_management(session);
      break;
    case 8:
      undo_cluster_review(session);
      break;
    default:
      edit_a_pair(session);
  }
}

}  // namespace kestrelvane::test

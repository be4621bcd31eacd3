// The upkeep that every edit ends with: records, events, pairs and the change told.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <utility>
#include <vector>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "results/work_file_rows.h"
#include "session/pair_index.h"
#include "session/template_window.h"
#include "sorting/cluster_edits.h"
#include "sorting/status_lists.h"
#include "sorting/undo_state.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Clusters with events, templates and lists; cluster 2 of the first has a comment.
struct edit_test : ::testing::Test {
  small_session session;

  edit_test() {
    make_busy_recording(*session, 4, 60000, 17);
    session->clusters.current_cluster = 1;
    session->detection.coincidence_ms = 0.2f;
    realign_all_clusters(*session);
    build_status_lists(*session);
    session->clusters.cluster_comment[2].assign("second");
    session->clusters.cluster_sigma[2] = 2.5f;
    session.user.changes.clear();
  }
  std::int32_t n() const { return session.state->clusters.n_clusters; }
  std::vector<std::int32_t> events_of(std::int32_t c) { return list_cluster_events(*session, c); }
  const cluster_change& last_change() { return session.user.changes.back(); }
  void expect_consistent() { ASSERT_EQ(check_session(*session), ""); }

  // The values of every pair are what a full build gives for the clusters as they are.
  void expect_lists_in_step() {
    const status_lists_table& lists = session->lists;
    const std::int32_t n_pairs = lists.n_kv_pairs;
    const std::vector<float> overlap(lists.kv_cluster_overlap.first(),
                                     lists.kv_cluster_overlap.first() + n_pairs);
    const std::vector<float> correlation(lists.kv_template_correlation.first(),
                                         lists.kv_template_correlation.first() + n_pairs);
    const std::vector<std::int32_t> owner(lists.kv_n_shift_template.first(),
                                          lists.kv_n_shift_template.first() + n_pairs);
    update_all_lists(*session);
    ASSERT_EQ(lists.n_kv_pairs, n_pairs);
    for (std::int32_t k = 1; k <= n_pairs; ++k) {
      EXPECT_EQ(lists.kv_cluster_overlap[k], overlap[static_cast<std::size_t>(k - 1)]) << k;
      EXPECT_EQ(lists.kv_template_correlation[k], correlation[static_cast<std::size_t>(k - 1)]);
      EXPECT_EQ(lists.kv_n_shift_template[k], owner[static_cast<std::size_t>(k - 1)]) << k;
    }
  }
};

// A template and its centre are those of the events as they lie.
void expect_template_in_step(session_state& s, std::int32_t c) {
  const std::int32_t centre = s.templates.centre_channel(c);
  const std::vector<float> mean(s.templates.mean(c, centre) + 1,
                                s.templates.mean(c, centre) + 1 + s.templates.template_points);
  const float x = s.templates.template_x[c], y = s.templates.template_y[c];
  calculate_template(s, c);
  calculate_template_centre(s, c);
  EXPECT_EQ(s.templates.centre_channel(c), centre);
  EXPECT_EQ(s.templates.template_x[c], x);
  EXPECT_EQ(s.templates.template_y[c], y);
  EXPECT_TRUE(std::equal(mean.begin(), mean.end(), s.templates.mean(c, centre) + 1));
}

TEST_F(edit_test, events_that_leave_change_templates_and_pairs_and_nothing_else) {
  const std::vector<std::int32_t> of_2 = events_of(2), of_3 = events_of(3);
  std::vector<std::int32_t> leaving(of_2.begin(), of_2.begin() + 20);
  leaving.insert(leaving.end(), of_3.begin(), of_3.begin() + 5);
  std::sort(leaving.begin(), leaving.end());
  session->events.event_subcluster[leaving[0]] = 7;
  const std::int32_t time = session->events.event_time[leaving[0]];
  const std::int32_t n_before = n();
  EXPECT_EQ(remove_events(*session, leaving), 25);
  EXPECT_EQ(n(), n_before);
  EXPECT_EQ(session->events.event_cluster[leaving[0]], 0);
  EXPECT_EQ(session->events.event_subcluster[leaving[0]], 0);
  EXPECT_EQ(session->events.event_time[leaving[0]], time);
  EXPECT_EQ(session->clusters.cluster_comment[2].view(), "second");
  EXPECT_EQ(last_change().kind, cluster_change_kind::removed_events);
  EXPECT_THAT(last_change().before, ElementsAre(2, 3));
  EXPECT_THAT(last_change().after, ElementsAre(2, 3));
  expect_consistent();
  expect_template_in_step(*session, 2);
  expect_template_in_step(*session, 3);
  expect_lists_in_step();
  // A second time there is nothing to remove, and nothing to tell.
  const std::size_t told = session.user.changes.size();
  EXPECT_EQ(remove_events(*session, leaving), 0);
  EXPECT_EQ(session.user.changes.size(), told);
}

TEST_F(edit_test, an_emptied_cluster_goes) {
  session->clusters.current_cluster = 3;
  const std::int32_t n_before = n();
  const std::vector<std::int32_t> all_of_1 = events_of(1);
  remove_events(*session, all_of_1);
  EXPECT_EQ(n(), n_before - 1);
  EXPECT_EQ(session->clusters.cluster_comment[1].view(), "second");
  EXPECT_EQ(number_after(last_change(), 1), 0);
  EXPECT_EQ(number_after(last_change(), 3), 2);
  EXPECT_THAT(last_change().after, IsEmpty());
  expect_consistent();
  expect_lists_in_step();
  // Moving the last events of one cluster into another is a merge without its comment.
  const std::vector<std::int32_t> of_1 = events_of(1), of_2 = events_of(2);
  EXPECT_EQ(move_events(*session, of_1, 2), static_cast<std::int32_t>(of_1.size()));
  EXPECT_EQ(count_cluster_events(*session, 1),
            static_cast<std::int32_t>(of_1.size() + of_2.size()));
  EXPECT_EQ(number_after(last_change(), 2), 1);
  EXPECT_THAT(last_change().after, ElementsAre(1));
  expect_consistent();
  expect_lists_in_step();
  EXPECT_EQ(move_events(*session, events_of(1), n() + 1), 0) << "no such cluster";
}

TEST_F(edit_test, a_permutation_carries_records_events_and_pairs) {
  const std::int32_t n_clusters = n();
  ASSERT_GE(n_clusters, 4);
  std::vector<std::int32_t> order = all_clusters(*session);
  std::rotate(order.begin(), order.begin() + 1, order.end());  // 2, 3, .. n, 1
  std::swap(order[0], order[1]);                               // 3, 2, 4 .. n, 1
  const std::vector<std::int32_t> of_3 = events_of(3);
  const float x_1 = session->templates.template_x[1], y_1 = session->templates.template_y[1];
  const std::int64_t k = pair_index(n_clusters, 1, 3);
  session->lists.kv_user_distinct[k] = true;
  session->lists.kv_split_tries[k] = 3;
  const std::int32_t owner = session->lists.kv_n_shift_template[k];
  const float overlap = session->lists.kv_cluster_overlap[k];
  session->clusters.current_cluster = 3;
  ASSERT_TRUE(permute_clusters(*session, order));
  EXPECT_EQ(events_of(1), of_3);
  EXPECT_EQ(session->clusters.current_cluster, 1);
  EXPECT_EQ(session->clusters.cluster_comment[2].view(), "second");
  EXPECT_EQ(session->clusters.cluster_sigma[2], 2.5f);
  EXPECT_EQ(session->templates.template_x[n_clusters], x_1);
  EXPECT_EQ(session->templates.template_y[n_clusters], y_1);
  // Old 1 is the last now and old 3 the first: the pair has turned round.
  const std::int64_t now = pair_index(n_clusters, 1, n_clusters);
  EXPECT_TRUE(session->lists.kv_user_distinct[now]);
  EXPECT_EQ(session->lists.kv_split_tries[now], 3);
  EXPECT_EQ(session->lists.kv_cluster_overlap[now], overlap);
  EXPECT_EQ(session->lists.kv_n_shift_template[now], owner == 3 ? 1 : n_clusters);
  EXPECT_EQ(last_change().kind, cluster_change_kind::renumbered);
  EXPECT_EQ(last_change().before, order);
  expect_consistent();
  for (std::int32_t c = 1; c <= n_clusters; ++c) expect_template_in_step(*session, c);

  // What is no permutation moves nothing.
  const std::size_t told = session.user.changes.size();
  EXPECT_FALSE(permute_clusters(*session, {1, 2}));
  order[0] = order[1];
  EXPECT_FALSE(permute_clusters(*session, order));
  EXPECT_EQ(events_of(1), of_3);
  EXPECT_EQ(session.user.changes.size(), told);
}

TEST_F(edit_test, match_lists_follow_the_numbers) {
  status_lists_table& lists = session->lists;
  lists.n_match = 3;
  const std::int32_t a[] = {1, 1, 2}, b[] = {2, 3, 4};
  for (std::int32_t i = 1; i <= 3; ++i) {
    lists.match_a[i] = a[i - 1];
    lists.match_b[i] = b[i - 1];
    lists.match_values[i] = static_cast<float>(i);
  }
  delete_cluster(*session, 1);
  ASSERT_EQ(lists.n_match, 1);
  EXPECT_EQ(lists.match_a[1], 1);
  EXPECT_EQ(lists.match_b[1], 3);
  EXPECT_EQ(lists.match_values[1], 3.0f);
  std::vector<std::int32_t> order = all_clusters(*session);
  std::reverse(order.begin(), order.end());
  permute_clusters(*session, order);
  EXPECT_LT(lists.match_a[1], lists.match_b[1]);
  EXPECT_EQ(lists.match_a[1] + lists.match_b[1], 2 * (n() + 1) - 4);
}

TEST_F(edit_test, a_label_that_all_events_have_splits_nothing) {
  session->clusters.current_cluster = 2;
  for (const std::int32_t e : events_of(2)) session->events.event_subcluster[e] = 1;
  const std::int32_t n_before = n();
  split_marked_to_new_cluster(*session, 1);
  EXPECT_EQ(n(), n_before);
  EXPECT_THAT(session.user.changes, IsEmpty());
  session->events.event_subcluster[events_of(2)[0]] = 2;
  split_marked_to_new_cluster(*session, 2);
  EXPECT_EQ(n(), n_before + 1);
  EXPECT_THAT(last_change().after, ElementsAre(2, n_before + 1));
  expect_consistent();
}

TEST_F(edit_test, an_undo_is_the_owners_of_the_same_recording) {
  ASSERT_TRUE(save_undo_state(*session, undo_owner::guided_merge));
  const std::int32_t n_before = n();
  merge_clusters(*session, 1, 2);
  EXPECT_FALSE(can_undo(*session, undo_owner::management));
  EXPECT_FALSE(restore_undo_state(*session, undo_owner::management));
  EXPECT_EQ(n(), n_before - 1);
  const std::string path = session->recording.recording_path;
  session->recording.recording_path = "another.tsf";
  EXPECT_FALSE(restore_undo_state(*session, undo_owner::guided_merge));
  session->recording.recording_path = path;
  ASSERT_TRUE(restore_undo_state(*session, undo_owner::guided_merge));
  EXPECT_EQ(n(), n_before);
  EXPECT_EQ(last_change().kind, cluster_change_kind::restored);
  EXPECT_EQ(number_after(last_change(), 1), 0) << "nothing can be followed";
  expect_lists_in_step();
}

// Templates of a window that comes back hold again, and have moved whole in the meantime.
TEST_F(edit_test, an_edit_under_a_narrower_window_moves_the_whole_template) {
  const template_table& templates = session->templates;
  const std::int32_t points = templates.template_points;
  const auto print = [&](std::int32_t c) {
    std::vector<float> values;
    for (std::int32_t channel = 1; channel <= 4; ++channel) {
      const float *mean = templates.mean(c, channel), *sd = templates.sd(c, channel);
      values.insert(values.end(), mean + 1, mean + 1 + points);
      values.insert(values.end(), sd + 1, sd + 1 + points);
    }
    return values;
  };
  const std::vector<float> third = print(3);
  const float end_ms = session->strategy.template_window_end_ms;
  session->strategy.template_window_end_ms = 0.2f;
  compute_template_points(*session);
  ASSERT_LT(templates.template_points, points);
  delete_cluster(*session, 1);
  session->strategy.template_window_end_ms = end_ms;
  compute_template_points(*session);
  ASSERT_FALSE(templates_are_outdated(*session));
  EXPECT_EQ(print(2), third);
}

TEST_F(edit_test, stable_clusters_are_counted_as_each_is_told) {
  vector_random random{5};
  status_lists_table& lists = session->lists;
  for (int again = 0; again < 20; ++again) {
    for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
      const std::uint32_t draw = random.next() >> 16 & 15;
      lists.kv_cluster_overlap[k] = draw == 0 ? 0.5f : 0.0f;
      lists.kv_user_distinct[k] = draw == 1;
    }
    std::int32_t stable = 0;
    for (std::int32_t c = 1; c <= n(); ++c) stable += cluster_is_stable(*session, c) ? 1 : 0;
    EXPECT_EQ(count_stable_clusters(*session), stable);
  }
}

// Event after event as the table has them, times read anew for each two.
std::vector<std::int32_t> coincident_losers(session_state& s, std::int32_t cluster,
                                            std::int32_t window) {
  event_table& events = s.events;
  const std::vector<std::int32_t> list = list_cluster_events(s, cluster);
  std::vector<std::int32_t> losers;
  for (std::size_t i = 0; i < list.size(); ++i) {
    for (std::size_t j = i + 1; j < list.size() && j <= i + 50; ++j) {
      if (std::abs(events.event_time[list[j]] - events.event_time[list[i]]) > window) continue;
      const bool later = distance_from_centre_squared(s, list[j], cluster) >
                         distance_from_centre_squared(s, list[i], cluster);
      const std::int32_t e = list[later ? j : i];
      losers.push_back(e);
      if (events.event_detected_time[e] != 0) events.event_time[e] = events.event_detected_time[e];
    }
  }
  std::sort(losers.begin(), losers.end());
  losers.erase(std::unique(losers.begin(), losers.end()), losers.end());
  return losers;
}

TEST_F(edit_test, coincident_events_leave_as_by_the_plain_form) {
  vector_random random{31};
  event_table& events = session->events;
  const auto window = static_cast<std::int32_t>(25000 * session->detection.coincidence_ms / 1000);
  for (std::int32_t c = 1; c <= n(); ++c) {
    const std::vector<std::int32_t> list = events_of(c);
    // Crowded, on several channels, and some put back on top of others.
    std::int32_t time = 500;
    for (const std::int32_t e : list) {
      events.event_time[e] = time += static_cast<std::int32_t>(random.next() >> 16 & 15);
      events.event_channel[e] = 1 + static_cast<std::int32_t>(random.next() >> 16 & 3);
      events.event_detected_time[e] =
          (random.next() >> 16 & 1) != 0
              ? time + static_cast<std::int32_t>(random.next() >> 16 & 31)
              : 0;
    }
    std::vector<std::int32_t> before;
    for (const std::int32_t e : list) before.push_back(events.event_time[e]);
    const std::vector<std::int32_t> losers = coincident_losers(*session, c, window);
    std::vector<std::int32_t> expected;
    for (std::size_t i = 0; i < list.size(); ++i) {
      expected.push_back(std::exchange(events.event_time[list[i]], before[i]));
    }
    ASSERT_EQ(remove_coincident_cluster_events(*session, c),
              static_cast<std::int32_t>(losers.size()));
    EXPECT_FALSE(losers.empty());
    for (std::size_t i = 0; i < list.size(); ++i)
      EXPECT_EQ(events.event_time[list[i]], expected[i]);
    for (const std::int32_t e : losers) EXPECT_EQ(events.event_cluster[e], 0);
  }
}

// Follows every cluster by a marker event: the changes told lead to where it really is.
TEST_F(edit_test, hundreds_of_edits_leave_a_whole_session) {
  vector_random random{99};
  const auto draw = [&](std::int32_t limit) {
    return static_cast<std::int32_t>((random.next() >> 16) % static_cast<std::uint32_t>(limit)) + 1;
  };
  for (int step = 0; step < 150 && n() >= 2; ++step) {
    const std::int32_t c = draw(n());
    std::vector<std::int32_t> marker(static_cast<std::size_t>(n()) + 1);
    for (std::int32_t of = 1; of <= n(); ++of)
      marker[static_cast<std::size_t>(of)] = events_of(of).back();
    std::vector<std::int32_t> some = events_of(c);
    some.resize(std::min<std::size_t>(some.size() - 1, 3));
    session.user.changes.clear();
    switch (draw(6)) {
      case 1:
        if (n() > 6) delete_cluster(*session, c);
        break;
      case 2:
        if (n() > 4) merge_clusters(*session, c, draw(n()));
        break;
      case 3:
        remove_events(*session, some);
        break;
      case 4:
        move_events(*session, some, draw(n()));
        break;
      case 5:
        session->clusters.current_cluster = c;
        for (const std::int32_t e : events_of(c)) {
          session->events.event_subcluster[e] = static_cast<std::int16_t>(draw(2));
        }
        split_marked_to_new_cluster(*session, 1);
        break;
      case 6: {
        std::vector<std::int32_t> order = all_clusters(*session);
        std::rotate(order.begin(), order.begin() + c - 1, order.end());
        ASSERT_TRUE(permute_clusters(*session, order));
        // A pair that has turned round keeps its values; a build may see it the other way.
        update_all_lists(*session);
        break;
      }
    }
    expect_consistent();
    if (session.user.changes.empty()) continue;
    ASSERT_EQ(session.user.changes.size(), 1u) << "one edit, one change";
    using enum cluster_change_kind;
    if (last_change().kind != deleted && last_change().kind != renumbered) continue;
    for (std::size_t of = 1; of < marker.size(); ++of) {
      EXPECT_EQ(session->events.event_cluster[marker[of]],
                number_after(last_change(), static_cast<std::int32_t>(of)));
    }
  }
  expect_lists_in_step();
}

// A column that the work file does not know would be lost with it: each is a row, or is one of
// those that live for the session alone or that the file keeps in another form.
TEST(event_columns, stand_in_the_work_file) {
  small_session session;
  std::vector<const void*> rows;
  for (const work_file_row& row : work_file_rows()) {
    if (row.first != nullptr) rows.push_back(row.first(*session));
  }
  int missing = 0;
  const auto look_for = [&](const auto& column) {
    missing += std::find(rows.begin(), rows.end(), column.first()) == rows.end();
  };
  for_each_column(look_for, session->events);
  EXPECT_EQ(missing, 3) << "event_subcluster; amplitudes and gains stand behind the comments";
  missing = 0;
  for_each_column(look_for, session->lists);
  EXPECT_EQ(missing, 1) << "kv_split_tries";
}

}  // namespace
}  // namespace kestrelvane::test

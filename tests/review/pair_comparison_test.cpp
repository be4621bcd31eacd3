// Comparing pairs: moving through the match list, and the list after merges and splits
// against one that is built anew.
#include "review/pair_comparison.h"

#include <gtest/gtest.h>

#include <cmath>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct match_entry_copy {
  std::int32_t a, b;
  float value;
  bool operator==(const match_entry_copy&) const = default;
};

struct comparison_test : ::testing::Test {
  small_session session;
  pair_comparison comparison;

  comparison_test() {
    make_busy_recording(*session, 4, 60000, 23);
    session->strategy.min_cluster_size = 10;
    realign_all_clusters(*session);
    build_status_lists(*session);
    // Every pair is worth a look.
    for (std::int64_t k = 1; k <= session->lists.n_kv_pairs; ++k) {
      session->lists.kv_templates_dont_overlap[k] = false;
    }
  }
  review_place& place() { return session->reviewed; }
  void open() {
    ASSERT_TRUE(open_pair_comparison(*session, comparison));
    fill_pair_comparison(*session);
  }
  std::vector<match_entry_copy> list() {
    std::vector<match_entry_copy> entries;
    const status_lists_table& lists = session->lists;
    for (std::int32_t i = 1; i <= lists.n_match; ++i) {
      entries.push_back({lists.match_a[i], lists.match_b[i], lists.match_values[i]});
    }
    return entries;
  }
  void expect_list_as_built_anew() {
    const std::vector<match_entry_copy> in_place = list();
    get_match_lists(*session);
    EXPECT_TRUE(list() == in_place);
    EXPECT_EQ(check_session(*session), "");
  }
};

TEST_F(comparison_test, opens_on_the_most_similar_pair) {
  session->review.match_method = match_pc_adjacency;
  open();
  EXPECT_EQ(session->review.match_method, match_correlation);
  ASSERT_EQ(session->lists.n_match, 15);
  EXPECT_EQ(place().match_position, 1);
  EXPECT_EQ(place().compare_a, session->lists.match_a[1]);
  EXPECT_EQ(session->clusters.current_cluster, place().compare_a);
  const comparison_values values = make_comparison_values(*session);
  EXPECT_EQ(std::stof(values.match_value),
            std::round(session->lists.match_values[1] * 1000) / 1000);
  EXPECT_EQ(values.title, "Comparing templates " + std::to_string(place().compare_a) + " and " +
                              std::to_string(place().compare_b));
  EXPECT_EQ(values.pair.n_a, count_cluster_events(*session, place().compare_a));
  // A stored position is where the next opening begins, or the end of a shorter list.
  place().match_position = 4;
  open();
  EXPECT_EQ(place().compare_b, session->lists.match_b[4]);
  place().match_position = 400;
  open();
  EXPECT_EQ(place().match_position, 15);
}

TEST_F(comparison_test, moves_end_at_the_ends) {
  open();
  EXPECT_FALSE(compare_step(*session, -1));
  EXPECT_EQ(place().match_position, 1);
  for (int i = 0; i < 30; ++i) compare_step(*session, 1);
  EXPECT_EQ(place().match_position, 15);
  EXPECT_EQ(place().compare_b, session->lists.match_b[15]);

  ASSERT_TRUE(compare_typed_pair(*session, 5, 2));
  EXPECT_EQ(place().match_position, 0);
  EXPECT_TRUE(make_comparison_values(*session).match_value.empty());
  EXPECT_FALSE(compare_typed_pair(*session, 3, 3));
  EXPECT_FALSE(compare_typed_pair(*session, 0, 9));
  EXPECT_TRUE(session.user.logged("Error, N_TEMPLATE1=0"));
  EXPECT_TRUE(session.user.logged("Error, N_TEMPLATE2=9"));
  EXPECT_EQ(place().compare_a, 5);

  // Five entries hold cluster 5, in falling likeness.
  ASSERT_TRUE(compare_most_similar_to_a(*session));
  EXPECT_EQ(place().compare_a, 5);
  int seen = 1;
  float value = session->lists.match_values[place().match_position];
  while (compare_step_with_a(*session, 1)) {
    EXPECT_EQ(place().compare_a, 5);
    EXPECT_LE(session->lists.match_values[place().match_position], value);
    value = session->lists.match_values[place().match_position];
    ++seen;
  }
  EXPECT_EQ(seen, 5);
  EXPECT_FALSE(compare_step_with_a(*session, 1));
  place().compare_b = 6;
  ASSERT_TRUE(compare_most_similar_to_b(*session));
  EXPECT_EQ(place().compare_b, 6);
  EXPECT_NE(place().compare_a, 6);
}

TEST_F(comparison_test, the_list_after_a_merge_is_the_one_built_anew) {
  for (int method = 1; method <= 7; ++method) {
    small_session other;
    make_busy_recording(*other, 4, 60000, 23);
    realign_all_clusters(*other);
    build_status_lists(*other);
    for (std::int64_t k = 1; k <= other->lists.n_kv_pairs; ++k) {
      other->lists.kv_templates_dont_overlap[k] = k % 4 == 0;
    }
    ASSERT_TRUE(open_pair_comparison(*other, comparison));
    compare_by_method(*other, method);
    ASSERT_TRUE(compare_typed_pair(*other, 4, 2));
    compare_merge(*other, comparison, true);
    EXPECT_TRUE(other.user.told("Clusters 4 and 2 were merged", "Merge clusters"));
    const status_lists_table& lists = other->lists;
    std::vector<match_entry_copy> in_place, anew;
    const auto copy = [&](std::vector<match_entry_copy>& out) {
      for (std::int32_t i = 1; i <= lists.n_match; ++i) {
        out.push_back({lists.match_a[i], lists.match_b[i], lists.match_values[i]});
      }
    };
    copy(in_place);
    get_match_lists(*other);
    copy(anew);
    EXPECT_TRUE(in_place == anew) << mode_name(match_methods(), method);
    if (lists.n_match > 0 && other->reviewed.match_position > 0) {
      EXPECT_TRUE(other->reviewed.compare_a == 2 || other->reviewed.compare_b == 2);
    }
  }
}

TEST_F(comparison_test, two_ways_on_after_a_merge_and_back) {
  open();
  const std::vector<match_entry_copy> before = list();
  const std::int32_t* of = session->events.event_cluster.first();
  const std::vector<std::int32_t> members(of, of + session->events.n_events);
  for (int i = 0; i < 6; ++i) compare_step(*session, 1);
  const cluster_pair pair{place().compare_a, place().compare_b};
  EXPECT_EQ(compare_merge(*session, comparison, false), comparison_step::refresh);
  EXPECT_EQ(place().match_position, 1);
  expect_list_as_built_anew();
  session->review.match_method = match_separation;
  EXPECT_TRUE(compare_undo(*session, comparison));
  EXPECT_FALSE(compare_undo(*session, comparison));
  EXPECT_TRUE(std::equal(members.begin(), members.end(), of));
  EXPECT_EQ(place().compare_a, pair.a);
  EXPECT_EQ(place().compare_b, pair.b);
  expect_list_as_built_anew();
  compare_by_method(*session, match_correlation);
  EXPECT_EQ(list().size(), before.size());

  // The mark of the user goes on and off, and comes back with an undo.
  const std::int64_t k = find_pair(*session, {place().compare_a, place().compare_b});
  compare_set_distinct(*session, comparison, true);
  EXPECT_TRUE(make_comparison_values(*session).pair.distinct);
  EXPECT_TRUE(compare_undo(*session, comparison));
  EXPECT_FALSE(session->lists.kv_user_distinct[k]);
}

TEST_F(comparison_test, a_resplit_keeps_list_and_pair) {
  open();
  ASSERT_TRUE(compare_typed_pair(*session, 1, 3));
  comparison_step step = compare_resplit(*session, comparison);
  if (step == comparison_step::ask) {
    step = end_compare_resplit(*session, comparison, ugm_split_as_shown);
  }
  EXPECT_EQ(step, comparison_step::refresh);
  expect_list_as_built_anew();
  EXPECT_EQ(place().compare_a, 1);
  EXPECT_TRUE(compare_undo(*session, comparison));
  EXPECT_EQ(session->clusters.n_clusters, 6);
  expect_list_as_built_anew();
}

TEST_F(comparison_test, the_last_merge_closes) {
  open();
  comparison_step step = comparison_step::refresh;
  while (session->clusters.n_clusters > 1) step = compare_merge(*session, comparison, true);
  EXPECT_EQ(step, comparison_step::close);
  EXPECT_TRUE(session.user.told("Only one cluster is left - exiting dialog"));
  EXPECT_FALSE(open_pair_comparison(*session, comparison));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(comparison_test, an_empty_list_is_told_and_pairs_can_be_typed) {
  for (std::int64_t k = 1; k <= session->lists.n_kv_pairs; ++k) {
    session->lists.kv_templates_dont_overlap[k] = true;
  }
  open();
  EXPECT_TRUE(session.user.told("There are no pairs in this list", "Pair comparisons"));
  EXPECT_EQ(session.user.boxes.size(), 1u);
  EXPECT_EQ(make_comparison_values(*session).match_value, "0");
  EXPECT_EQ(place().compare_a, 1);
  EXPECT_EQ(place().compare_b, 2);
  EXPECT_FALSE(compare_step(*session, 1));
  EXPECT_FALSE(compare_most_similar_to_a(*session));
  EXPECT_TRUE(compare_typed_pair(*session, 3, 4));
  EXPECT_EQ(session.user.boxes.size(), 1u);
}

TEST_F(comparison_test, an_interrupt_leaves_what_was_reached) {
  ASSERT_TRUE(open_pair_comparison(*session, comparison));
  fill_pair_comparison(*session);
  EXPECT_EQ(session->lists.n_match, 15);
  session->operation.interrupt_at_poll = session->operation.polls + 1;
  compare_by_method(*session, match_pc_adjacency);
  EXPECT_EQ(session->lists.n_match, 0);
  session->operation.interrupt_at_poll = -1;
  // As whoever starts the next operation does.
  set_interrupts(session->operation, false);
  EXPECT_TRUE(is_cluster_pair(*session, {place().compare_a, place().compare_b}));
  compare_by_method(*session, match_overlap);
  // A merge ends with a whole list, whatever is asked meanwhile.
  session->operation.autosort_interrupt = true;
  compare_merge(*session, comparison, true);
  EXPECT_EQ(session->lists.n_match, 10);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(comparison_test, without_lists_they_are_offered) {
  session->lists.n_kv_pairs = 0;
  EXPECT_FALSE(open_pair_comparison(*session, comparison));
  EXPECT_EQ(session.user.questions.size(), 1u);
  session.user.default_answer = true;
  session->log.log_threading_times = true;
  open();
  EXPECT_EQ(session->lists.n_kv_pairs, 15);
  EXPECT_TRUE(session.user.logged("n_shift_template values appear correct"));
}

}  // namespace
}  // namespace kestrelvane::test

// The walk of Guided Merge: order of pairs, decisions, splits, and the one level of undo.
#include "review/guided_merge.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "sorting/cluster_edits.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;

// Six clusters, each of one unit; units 5 and 6 share their channels with 1 and 2.
struct guided_test : ::testing::Test {
  small_session session;
  guided_walk walk;

  guided_test() {
    make_busy_recording(*session, 4, 60000, 17);
    session->strategy.min_cluster_size = 10;
    realign_all_clusters(*session);
    build_status_lists(*session);
    // Everything is distinct but what a test makes doubtful.
    for (std::int64_t k = 1; k <= session->lists.n_kv_pairs; ++k) put_pair(k, 0.0f, 0.5f);
    session.user.changes.clear();
  }
  void put_pair(std::int64_t k, float overlap, float correlation) {
    session->lists.kv_templates_dont_overlap[k] = false;
    session->lists.kv_cluster_overlap[k] = overlap;
    session->lists.kv_template_correlation[k] = correlation;
  }
  void put_pair(std::int32_t a, std::int32_t b, float overlap, float correlation = 0.5f) {
    put_pair(find_pair(*session, {a, b}), overlap, correlation);
  }
  std::int32_t n() { return session->clusters.n_clusters; }
  std::vector<std::int32_t> membership() {
    const std::int32_t* of = session->events.event_cluster.first();
    return {of, of + session->events.n_events};
  }
  // Events, cluster records and pairs, byte for byte.
  std::vector<char> bytes_of_sort() {
    std::vector<char> bytes;
    const auto put = [&bytes](std::int32_t count) {
      return [&bytes, count](const auto& column) {
        const char* first = reinterpret_cast<const char*>(column.first());
        bytes.insert(bytes.end(), first, first + sizeof(column[1]) * count);
      };
    };
    for_each_column(put(session->events.n_events), session->events);
    for_each_column(put(n()), session->clusters);
    for_each_column(put(n()), session->templates);
    for_each_column(put(session->lists.n_kv_pairs), session->lists);
    return bytes;
  }
  void expect_consistent() { ASSERT_EQ(check_session(*session), ""); }
  void expect_on_show(std::int32_t a, std::int32_t b) {
    EXPECT_EQ(walk.pair.a, a);
    EXPECT_EQ(walk.pair.b, b);
    EXPECT_EQ(session->clusters.current_cluster, a);
    EXPECT_EQ(session->reviewed.compare_b, b);
    for (const std::int32_t e : list_cluster_events(*session, a)) {
      ASSERT_EQ(session->events.event_subcluster[e], 1);
    }
    for (const std::int32_t e : list_cluster_events(*session, b)) {
      ASSERT_EQ(session->events.event_subcluster[e], 2);
    }
  }
  // A pool with labels as if a stage had found them: row sizes as given, the rest in the last.
  void put_rows(pair_split& split, const std::vector<std::int32_t>& sizes) {
    gac_tables& tables = *split.tables;
    std::vector<std::int32_t>& labels = tables.stage_labels[1];
    labels.assign(split.events.size(), static_cast<std::int32_t>(sizes.size()));
    std::size_t next = 0;
    for (std::size_t row = 0; row < sizes.size(); ++row) {
      tables.as_cl_sizes[1][row + 1] = sizes[row];
      for (std::int32_t i = 0; i < sizes[row]; ++i) {
        labels[next++] = static_cast<std::int32_t>(row) + 1;
      }
    }
    split.folded[1] = true;
    show_split_stage(*session, split, 1);
  }
  pair_split ask_about(std::int32_t a, std::int32_t b) {
    return guided_split(*session, {a, b}, true);
  }
};

TEST_F(guided_test, the_order_decides_and_ties_take_the_first) {
  EXPECT_EQ(guided_next_pair(*session, order_most_overlap).k, 0);
  put_pair(1, 2, 0.4f, 0.9f);
  put_pair(1, 3, 0.7f, 0.2f);
  put_pair(2, 4, 0.7f, 0.2f);
  put_pair(3, 4, 0.2f, 0.6f);
  put_pair(2, 3, std::nanf(""), 0.7f);
  put_pair(5, 6, 0.9f, 0.15f);
  session->lists.kv_user_ambiguous[find_pair(*session, {5, 6})] = true;
  const auto next = [&](std::int32_t order) {
    const guided_search search = guided_next_pair(*session, order);
    EXPECT_EQ(search.pairs_left, 5);
    const cluster_pair pair = pair_from_index(n(), search.k);
    return 10 * pair.a + pair.b;
  };
  EXPECT_EQ(next(order_most_overlap), 13);
  EXPECT_EQ(next(order_least_overlap), 34);
  EXPECT_EQ(next(order_best_match), 13);
  EXPECT_EQ(next(99), 13);
  for (const auto [a, b] : {cluster_pair{1, 2}, {1, 3}, {2, 4}, {3, 4}}) put_pair(a, b, 0);
  EXPECT_EQ(pair_from_index(n(), guided_next_pair(*session, order_most_overlap).k).a, 2)
      << "what is not a number comes last, but it comes";
}

TEST_F(guided_test, what_the_template_pass_proposes_comes_first) {
  put_pair(2, 3, 0.9f);
  session->clusters.proposal_reasons = {"in turn", "in turn, too"};
  session->clusters.cluster_proposal[4] = session->clusters.cluster_proposal[6] = 2;
  session->clusters.cluster_proposal[1] = 1;  // its other cluster is gone
  ASSERT_EQ(begin_guided_merge(*session, walk), guided_step::decide);
  // Its templates do not overlap, so that no measure would have brought it up.
  expect_on_show(4, 6);
  EXPECT_EQ(proposal_of(*session, walk.pair), "in turn, too");
  EXPECT_EQ(walk.pairs_left, 2);
  ASSERT_EQ(decide_pair(*session, walk, guided_ambiguous), guided_step::decide);
  expect_on_show(2, 3);
  EXPECT_EQ(proposal_of(*session, walk.pair), "");
  ASSERT_EQ(decide_pair(*session, walk, guided_undo), guided_step::decide);
  expect_on_show(4, 6);
  ASSERT_EQ(decide_pair(*session, walk, guided_merge), guided_step::decide);
  expect_on_show(2, 3);
  expect_consistent();
}

TEST_F(guided_test, all_open_proposals_are_counted) {
  session->clusters.proposal_reasons = {"in turn", "in turn, too"};
  EXPECT_FALSE(has_pairs_to_examine(*session)) << "no measure is in doubt";
  session->clusters.cluster_proposal[4] = session->clusters.cluster_proposal[6] = 2;
  session->clusters.cluster_proposal[1] = session->clusters.cluster_proposal[5] = 1;
  EXPECT_TRUE(has_pairs_to_examine(*session));
  EXPECT_EQ(guided_next_pair(*session, order_most_overlap).pairs_left, 2);
  ASSERT_EQ(begin_guided_merge(*session, walk), guided_step::decide);
  expect_on_show(1, 5);
  ASSERT_EQ(decide_pair(*session, walk, guided_distinct), guided_step::decide);
  expect_on_show(4, 6);
  EXPECT_EQ(walk.pairs_left, 1);
  EXPECT_EQ(decide_pair(*session, walk, guided_distinct), guided_step::finished);
  EXPECT_FALSE(has_pairs_to_examine(*session));
}

TEST_F(guided_test, marks_lead_on_until_all_are_settled) {
  put_pair(2, 3, 0.9f);
  put_pair(1, 4, 0.5f);
  session->clusters.current_cluster = 4;
  session->review.search_order = 17;
  ASSERT_EQ(begin_guided_merge(*session, walk), guided_step::decide);
  EXPECT_EQ(session->review.search_order, order_most_overlap);
  expect_on_show(2, 3);
  EXPECT_EQ(walk.pairs_left, 2);
  EXPECT_EQ(walk.n_stable, n() - 4);
  EXPECT_EQ(decide_pair(*session, walk, guided_undo), guided_step::decide) << "nothing to undo";
  EXPECT_EQ(decide_pair(*session, walk, guided_command{77}), guided_step::decide);
  EXPECT_TRUE(session.user.logged("Unrecognised command"));
  EXPECT_EQ(decide_pair(*session, walk, guided_ambiguous), guided_step::decide);
  expect_on_show(1, 4);
  EXPECT_EQ(walk.n_stable, n() - 4) << "an ambiguous pair is not stable";
  EXPECT_EQ(decide_pair(*session, walk, guided_undo), guided_step::decide);
  expect_on_show(2, 3);
  EXPECT_EQ(walk.pairs_left, 2);
  EXPECT_EQ(decide_pair(*session, walk, guided_undo), guided_step::decide);
  EXPECT_EQ(walk.pairs_left, 2) << "one level";
  decide_pair(*session, walk, guided_distinct);
  EXPECT_EQ(decide_pair(*session, walk, guided_distinct), guided_step::finished);
  EXPECT_TRUE(session.user.told("Finished!", "Guided merge"));
  EXPECT_EQ(session->clusters.current_cluster, 1);
  EXPECT_EQ(session->clusters.previous_cluster, 4);
  EXPECT_EQ(walk.n_stable, n());
  // Nothing is left to open the dialog for.
  EXPECT_EQ(begin_guided_merge(*session, walk), guided_step::finished);
}

TEST_F(guided_test, a_merge_is_undone_to_the_byte_and_finish_leads_home) {
  put_pair(1, 3, 0.9f);
  put_pair(2, 4, 0.5f);
  session->clusters.current_cluster = 5;
  const std::vector<std::int32_t> home = list_cluster_events(*session, 5);
  ASSERT_EQ(begin_guided_merge(*session, walk), guided_step::decide);
  const std::vector<std::int32_t> before = membership();
  const std::int32_t times_before = session->events.event_time[1];
  decide_pair(*session, walk, guided_merge);
  EXPECT_TRUE(session.user.logged("Merging clusters 1 and 3"));
  EXPECT_EQ(n(), 5);
  expect_consistent();
  decide_pair(*session, walk, guided_undo);
  EXPECT_EQ(membership(), before);
  EXPECT_EQ(session->events.event_time[1], times_before);
  expect_on_show(1, 3);
  decide_pair(*session, walk, guided_merge);
  EXPECT_EQ(decide_pair(*session, walk, guided_finish), guided_step::finished);
  EXPECT_EQ(list_cluster_events(*session, session->clusters.current_cluster), home);
  // Another opening takes nothing back that an earlier one did.
  put_pair(1, 2, 0.9f);
  ASSERT_EQ(begin_guided_merge(*session, walk), guided_step::decide);
  decide_pair(*session, walk, guided_undo);
  EXPECT_EQ(n(), 5);
}

TEST_F(guided_test, two_units_in_wrong_hands_are_told_apart_without_a_question) {
  // Every third event of unit 1 stands in the cluster of unit 3 and the other way round.
  std::vector<std::int32_t> unit(session->events.n_events + 1);
  std::int32_t i = 0;
  for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
    std::int32_t& of = session->events.event_cluster[e];
    unit[e] = of;
    if ((of == 1 || of == 3) && ++i % 3 == 0) of = 4 - of;
  }
  for (const std::int32_t c : {1, 3}) recalculate_cluster(*session, c);
  build_status_lists(*session);
  for (std::int64_t k = 1; k <= session->lists.n_kv_pairs; ++k) put_pair(k, 0.0f, 0.5f);
  put_pair(1, 3, 0.9f);
  session->preferences.verbose_log = true;
  const bool b_larger = count_cluster_events(*session, 3) > count_cluster_events(*session, 1);
  ASSERT_EQ(begin_guided_merge(*session, walk), guided_step::decide);
  const guided_step step = decide_pair(*session, walk, guided_merge_and_split);
  ASSERT_EQ(step, guided_step::finished) << ugm_text(walk.split.message);
  EXPECT_TRUE(session.user.logged(b_larger ? "Split list=2 1" : "Split list=1 2"));
  EXPECT_GT(session->reviewed.last_split_sigma, 0.0f);
  // By size, the two may have changed their numbers.
  std::int32_t in_1 = 0, pool = 0;
  for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
    if (unit[e] != 1 && unit[e] != 3) continue;
    ++pool;
    in_1 += (unit[e] == 1) == (session->events.event_cluster[e] == 1);
  }
  EXPECT_LE(std::min(in_1, pool - in_1), 2) << pool;
  EXPECT_GE(count_cluster_events(*session, 3), 10);
  EXPECT_TRUE(session->lists.kv_user_ambiguous[find_pair(*session, {1, 3})]);
  expect_consistent();
  // Undone and asked for again, it is the user's to split.
  ASSERT_EQ(decide_pair(*session, walk, guided_undo), guided_step::decide);
  expect_on_show(1, 3);
  ASSERT_EQ(decide_pair(*session, walk, guided_merge_and_split), guided_step::ask);
  EXPECT_STREQ(ugm_text(walk.split.message), "Pair could not be split");
  EXPECT_EQ(end_guided_split(*session, walk, ugm_none), guided_step::decide);
  expect_on_show(1, 3);
}

// The numbers stand in what dialogs and the walk hand each other.
TEST(ugm_texts, every_finding_has_its_own) {
  EXPECT_STREQ(ugm_text(static_cast<ugm_message>(1)), "Pair could not be split");
  EXPECT_STREQ(ugm_text(static_cast<ugm_message>(2)), "Only one good cluster can be found");
  EXPECT_STREQ(ugm_text(static_cast<ugm_message>(3)), "Three clusters appear to be present");
  EXPECT_STREQ(ugm_text(static_cast<ugm_message>(4)),
               "Two clusters + possibly spurious clusters present");
}

TEST_F(guided_test, three_units_in_two_clusters_are_asked_about) {
  // Half of unit 4 stands in the cluster of unit 1.
  const std::vector<std::int32_t> of_4 = list_cluster_events(*session, 4);
  const auto half = static_cast<std::int32_t>(of_4.size() / 2);
  for (std::int32_t i = 0; i < half; ++i) session->events.event_cluster[of_4[i]] = 1;
  for (const std::int32_t c : {1, 4}) recalculate_cluster(*session, c);
  put_pair(1, 3, 0.9f);
  ASSERT_EQ(begin_guided_merge(*session, walk), guided_step::decide);
  ASSERT_EQ(decide_pair(*session, walk, guided_merge_and_split), guided_step::ask);
  EXPECT_STREQ(ugm_text(walk.split.message), "Three clusters appear to be present");
  ASSERT_GE(walk.split.rows.size(), 3u);
  EXPECT_GT(split_sigma_uv(*session, walk.split), 0.0f);
  EXPECT_FALSE(offers_merge(walk.split));
  end_guided_split(*session, walk, ugm_split_as_shown);
  ASSERT_EQ(n(), 7);
  EXPECT_NEAR(count_cluster_events(*session, 7), half, 2);
  std::int32_t strays = 0;
  for (const std::int32_t e : list_cluster_events(*session, 7)) {
    strays += std::find(of_4.begin(), of_4.end(), e) == of_4.end();
  }
  EXPECT_LE(strays, 2);
  EXPECT_EQ(session->clusters.cluster_source[7], 1);
  expect_consistent();
}

TEST_F(guided_test, rows_are_by_size_and_the_larger_cluster_keeps_its_label) {
  pair_split split = ask_about(1, 2);
  EXPECT_EQ(split.n_a, count_cluster_events(*session, 1));
  const auto pool = static_cast<std::int32_t>(split.events.size());
  const bool b_larger = split.n_b > split.n_a;
  put_rows(split, {40, 30, pool - 70});
  ASSERT_EQ(split.rows.size(), 3u);
  EXPECT_EQ(split.rows[0].n_events, pool - 70);
  EXPECT_EQ(split.rows[0].label, b_larger ? 2 : 1);
  EXPECT_EQ(split.rows[1].label, b_larger ? 1 : 2);
  EXPECT_EQ(split.rows[2].label, 3);
  EXPECT_EQ(split.labels[0], split.rows[1].label);
  ASSERT_TRUE(delete_split_row(*session, split, 2));
  EXPECT_EQ(session->events.event_subcluster[split.events[45]], label_of_deleted);
  ASSERT_TRUE(merge_split_rows(*session, split, 0));
  ASSERT_EQ(split.rows.size(), 2u);
  EXPECT_EQ(split.rows[0].n_events, pool - 30);
  EXPECT_TRUE(split.rows[1].deleted) << "the mark goes with its row";
  EXPECT_FALSE(merge_split_rows(*session, split, 1));
  EXPECT_FALSE(delete_split_row(*session, split, 2));
  show_split_stage(*session, split, 1);
  EXPECT_EQ(split.rows.size(), 3u);
  EXPECT_FALSE(split.rows[2].deleted);
}

TEST_F(guided_test, reverted_rows_change_nothing) {
  pair_split split = ask_about(1, 2);
  revert_split(*session, split);
  const std::vector<std::int32_t> before = membership();
  session.user.changes.clear();
  finish_split(*session, split, ugm_split_as_shown);
  EXPECT_EQ(membership(), before);
  EXPECT_TRUE(session.user.changes.empty());
  EXPECT_TRUE(split.changed.empty());
  EXPECT_FALSE(session->lists.kv_user_ambiguous[find_pair(*session, {1, 2})]);
}

TEST_F(guided_test, a_split_as_shown_goes_where_rows_say) {
  pair_split split = ask_about(1, 2);
  const auto pool = static_cast<std::int32_t>(split.events.size());
  // Five rows; 25 events are beyond four, the fourth of 9 is too small.
  session->strategy.min_cluster_size = 30;
  put_rows(split, {pool - 145, 60, 35, 26, 24});
  const bool b_larger = split.n_b > split.n_a;
  const std::vector<std::int32_t> events = split.events;
  ASSERT_EQ(count_other_events(split), 24);
  ASSERT_TRUE(apply_manual_split(*session, split));
  EXPECT_TRUE(session.user.told("24 events of other subclusters become unclustered",
                                "What do you want to do?"));
  EXPECT_THAT(split.changed, ElementsAre(1, 2, 7));
  EXPECT_NE(session->clusters.cluster_source[7], 0);
  EXPECT_EQ(count_cluster_events(*session, b_larger ? 2 : 1), pool - 145);
  EXPECT_EQ(count_cluster_events(*session, b_larger ? 1 : 2), 60);
  EXPECT_EQ(count_cluster_events(*session, 7), 35);
  EXPECT_EQ(session->events.event_cluster[events.back()], 0);
  EXPECT_EQ(session->events.event_subcluster[events.back()], 0);
  EXPECT_TRUE(session->lists.kv_user_ambiguous[find_pair(*session, {1, 2})]);
  EXPECT_FALSE(session->lists.kv_user_ambiguous[find_pair(*session, {1, 7})]);
  expect_consistent();
}

TEST_F(guided_test, one_row_left_takes_all_and_none_asks) {
  pair_split split = ask_about(2, 4);
  const auto pool = static_cast<std::int32_t>(split.events.size());
  const std::vector<std::int32_t> of_5 = list_cluster_events(*session, 5);
  put_rows(split, {pool - 40, 40});
  delete_split_row(*session, split, 1);
  ASSERT_TRUE(apply_manual_split(*session, split));
  EXPECT_THAT(split.changed, ElementsAre(2));
  EXPECT_EQ(n(), 5);
  EXPECT_EQ(count_cluster_events(*session, 2), pool - 40);
  EXPECT_EQ(list_cluster_events(*session, 4), of_5);
  ASSERT_EQ(session.user.changes.size(), 1u);
  EXPECT_EQ(number_after(session.user.changes[0], 4), 2);
  EXPECT_EQ(number_after(session.user.changes[0], 5), 4);
  expect_consistent();

  split = ask_about(1, 3);
  put_rows(split, {static_cast<std::int32_t>(split.events.size())});
  delete_split_row(*session, split, 0);
  EXPECT_FALSE(apply_manual_split(*session, split));
  EXPECT_EQ(n(), 5);
  session.user.default_answer = true;
  EXPECT_TRUE(apply_manual_split(*session, split));
  EXPECT_TRUE(session.user.asked("There will be no points left: delete the whole cluster?",
                                 "What do you want to do?"));
  EXPECT_EQ(n(), 3);
  expect_consistent();
}

TEST_F(guided_test, what_finds_no_room_stays_in_a) {
  pair_split split = ask_about(1, 2);
  const auto pool = static_cast<std::int32_t>(split.events.size());
  const bool b_larger = split.n_b > split.n_a;
  put_rows(split, {pool - 120, 60, 35, 25});
  session->max_clusters = n() + 1;
  ASSERT_TRUE(apply_manual_split(*session, split));
  EXPECT_TRUE(session.user.told("Cannot add new cluster as maximum number has been reached",
                                "Create new cluster"));
  EXPECT_EQ(n(), 7);
  EXPECT_EQ(count_cluster_events(*session, 1), (b_larger ? 60 : pool - 120) + 25);
  expect_consistent();
}

TEST_F(guided_test, answers_follow_the_question) {
  pair_split split = ask_about(1, 2);
  ASSERT_TRUE(offers_merge(split));
  split.message = ugm_three_clusters;
  finish_split(*session, split, ugm_merge);
  EXPECT_TRUE(session.user.logged("Unrecognised ugm_message"));
  EXPECT_EQ(n(), 6);
  split.message = ugm_one_cluster;
  finish_split(*session, split, ugm_merge);
  EXPECT_EQ(n(), 5);
  EXPECT_THAT(split.changed, ElementsAre(1));
  EXPECT_TRUE(session.user.logged("Merging clusters 1 and 2"));
}

// The user presses whatever comes: the session stays whole, and each undo leads back to the
// same membership and times.
struct guided_player : guided_test {
  void TestBody() override {}
  void play(int threads);
};

void guided_player::play(int threads) {
  use_threads(*session, threads);
  vector_random random{5};
  const auto draw = [&](std::uint32_t limit) { return (random.next() >> 16) % limit; };
  session.user.default_answer = true;
  for (int step = 0, opened = 0; step < 60 && opened < 40; ++step) {
    if (n() < 3) break;
    for (std::int64_t k = 1; k <= session->lists.n_kv_pairs; ++k) {
      if (draw(3) == 0) put_pair(k, 0.5f, 0.5f);
      session->lists.kv_user_ambiguous[k] = false;
      session->lists.kv_user_distinct[k] = false;
    }
    if (begin_guided_merge(*session, walk) != guided_step::decide) continue;
    ++opened;
    const std::vector<char> before = bytes_of_sort();
    const auto command = static_cast<guided_command>(n() > 4 ? 1 + draw(4) : 2 + draw(3));
    guided_step next = decide_pair(*session, walk, command);
    expect_consistent();
    if (next == guided_step::ask) {
      show_split_stage(*session, walk.split, static_cast<std::int32_t>(draw(60)));
      merge_split_rows(*session, walk.split, draw(4));
      delete_split_row(*session, walk.split, draw(4));
      expect_consistent();
      next = end_guided_split(*session, walk, ugm_split_as_shown);
      expect_consistent();
    }
    if (draw(2) == 0) {
      decide_pair(*session, walk, guided_undo);
      EXPECT_TRUE(bytes_of_sort() == before);
      expect_consistent();
    }
  }
}

TEST(guided_walk, dozens_of_decisions_leave_a_whole_session_at_any_number_of_threads) {
  guided_player alone, threaded;
  alone.play(1);
  threaded.play(3);
  EXPECT_TRUE(alone.bytes_of_sort() == threaded.bytes_of_sort());
}

}  // namespace
}  // namespace kestrelvane::test

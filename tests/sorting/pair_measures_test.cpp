// Pair measures and status lists.
#include "sorting/pair_measures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "session/pair_index.h"
#include "sorting/cluster_edits.h"
#include "sorting/merge_split.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

void make_aligned(session_state& session) {
  make_busy_recording(session, 4, 150000, 41);
  session.lists.template_shift_on = true;
  realign_all_clusters(session);
}

TEST(pair_measures, overlap_equals_its_plain_form) {
  small_session session;
  make_aligned(*session);
  for (const bool equal_numbers : {true, false}) {
    for (const int dimensions : {2, 3, 5}) {
      session->strategy.equal_numbers_for_overlap = equal_numbers;
      session->strategy.pca_dimensions = dimensions;
      for (std::int32_t b = 2; b <= session->clusters.n_clusters; ++b) {
        const pair_shift shift = template_shift(*session, 1, b, 100, 90);
        const std::int32_t slot = session->clusters.n_clusters + 1;
        EXPECT_EQ(cluster_overlap(*session, 1, b, slot, shift),
                  plain_cluster_overlap(*session, 1, b, slot, shift));
      }
    }
  }
}

TEST(pair_measures, nearest_neighbours_with_ties) {
  vector_random random(6);
  for (const auto& [n_a, n_b] : {std::pair{40, 40}, {17, 200}, {200, 3}, {1, 1}, {33, 31}}) {
    for (const int dimensions : {2, 3}) {
      std::vector<float> points;
      // A coarse grid: many points at equal distance, and many at the same place.
      for (int i = 0; i < (n_a + n_b) * dimensions; ++i) {
        points.push_back(static_cast<float>((random.next() >> 16) % 6));
      }
      EXPECT_EQ(nearest_neighbour_overlap(points, dimensions, n_a, n_b),
                plain_nearest_neighbour_overlap(points, dimensions, n_a, n_b));
    }
  }
}

TEST(pair_measures, a_moved_copy_is_found_at_its_shift) {
  small_session session;
  make_aligned(*session);
  template_table& templates = session->templates;
  session->clusters.n_clusters = 8;
  for (int c = 1; c <= 4; ++c) {
    for (int p = 1; p <= 41; ++p) {
      templates.mean(8, c)[p] = p >= 4 ? templates.mean(1, c)[p - 3] : 0.0f;
    }
  }
  templates.template_n_channels[8] = templates.template_n_channels[1];
  std::memcpy(templates.channels(8) + 1, templates.channels(1) + 1, 4 * sizeof(std::int32_t));
  const pair_shift later = template_shift(*session, 1, 8, 100, 50);
  EXPECT_EQ(later.n_shift, 8);
  EXPECT_NEAR(later.shift, 3.0f, 0.2f);
  EXPECT_GT(template_correlation(*session, 1, 8, later), 0.98f);
  EXPECT_FALSE(templates_dont_overlap(*session, 1, 8, later).dont_overlap);
  // The smaller one moves.
  EXPECT_EQ(template_shift(*session, 1, 8, 50, 100).n_shift, 1);
  EXPECT_NEAR(template_shift(*session, 1, 8, 50, 100).shift, -3.0f, 0.2f);
  session->lists.template_shift_on = false;
  EXPECT_EQ(template_shift(*session, 1, 8, 50, 100).n_shift, 8);
  EXPECT_EQ(template_shift(*session, 1, 8, 50, 100).shift, 0.0f);
}

TEST(pair_measures, comparison_values) {
  small_session session;
  make_recording(*session, 2, 25000 * 60 * 2);
  event_table& events = session->events;
  // b follows a by 5 ms, a is larger: a doublet. One pair 0.5 ms apart counts neither way.
  for (int i = 0; i < 100; ++i) {
    const int t = 5000 + 25000 * i;
    for (int member = 1; member <= 2; ++member) {
      const std::int32_t e = ++events.n_events;
      events.event_time[e] = t + (member == 2 ? (i == 7 ? 12 : 125) : 0);
      events.event_channel[e] = 1;
      events.event_cluster[e] = member;
    }
  }
  session->clusters.n_clusters = 2;
  for (int c = 1; c <= 2; ++c) {
    session->templates.template_n_channels[c] = 1;
    session->templates.channels(c)[1] = 1;
    session->templates.mean(c, 1)[10] = c == 1 ? -100.0f : -80.0f;
  }
  EXPECT_FLOAT_EQ(doublet_value(*session, 1, 2, 20.0f), 0.99f);
  EXPECT_FLOAT_EQ(doublet_value(*session, 2, 1, 20.0f), 0.99f);
  session->recording.is_continuous = false;
  EXPECT_EQ(doublet_value(*session, 1, 2, 20.0f), -1.0f);
  session->recording.is_continuous = true;
  // Units that fire in turns complement each other.
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    events.event_cluster[e] = events.event_time[e] / 25000 % 20 < 10 ? 1 : 2;
  }
  EXPECT_GT(rate_complementarity(*session, 1, 2), 0.7f);
  session->templates.template_x[2] = 3.0f;
  session->templates.template_y[2] = 4.0f;
  EXPECT_EQ(spatial_separation(*session, 1, 2), 5.0f);
}

TEST(pair_measures, adjacency_is_high_for_one_cloud_cut_in_two) {
  small_session session;
  make_aligned(*session);
  // Cluster 1 cut by time into two: no border between them. Cluster 3 is apart.
  const std::vector<std::int32_t> list = list_cluster_events(*session, 1);
  for (std::size_t i = 0; i < list.size(); i += 2) session->events.event_cluster[list[i]] = 2;
  for (std::int32_t c = 1; c <= 2; ++c) calculate_template(*session, c);
  const optional_value value = pc_adjacency(*session, 1, 3, 0);
  EXPECT_TRUE(value.is_set);
  EXPECT_TRUE(std::isfinite(value.value));
}

TEST(status_lists, threads_do_not_change_a_bit) {
  small_session session;
  make_aligned(*session);
  for (const int threads : {2, 7}) {
    session->n_threads = threads;
    EXPECT_TRUE(check_threaded_lists(*session));
  }
  EXPECT_TRUE(session.user.logged("overlap values pass test"));
  EXPECT_TRUE(session.user.logged("template shift values pass test"));
  EXPECT_TRUE(session.user.logged("kv_n_shift_template values pass test"));
}

// A long row of sites, each with clusters of its own, of which one is without events.
void make_long(session_state& session) {
  make_busy_recording(session, 20, 150000, 43);
  session.lists.template_shift_on = true;
  event_table& events = session.events;
  const std::int32_t n_units = session.clusters.n_clusters;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    std::int32_t& cluster = events.event_cluster[e];
    if (e % 3 == 0) cluster += n_units;
    if (e % 17 == 0) cluster = 0;
    if (cluster == 7) cluster = 8;
  }
  session.clusters.n_clusters = 2 * n_units;
  calculate_all_templates(session);
}

TEST(status_lists, pairs_that_do_not_meet_need_no_work) {
  small_session session;
  make_long(*session);
  plain_status_lists(*session);
  const std::size_t n = static_cast<std::size_t>(session->lists.n_kv_pairs) + 1;
  std::vector<std::vector<char>> plain;
  const auto each_column = [&](auto&& visit) {
    for_each_column(
        [&](auto& column) {
          const char* const bytes = reinterpret_cast<const char*>(column.base());
          visit(std::vector<char>(bytes, bytes + sizeof(column[1]) * n));
        },
        session->lists);
  };
  each_column([&](std::vector<char> column) { plain.push_back(std::move(column)); });
  for (const std::int32_t n_threads : {1, 2, 5}) {
    use_threads(*session, n_threads);
    build_status_lists(*session);
    std::size_t i = 0;
    each_column([&](const std::vector<char>& column) {
      EXPECT_TRUE(column == plain[i]) << "column " << i << ", threads " << n_threads;
      ++i;
    });
    EXPECT_EQ(session->event_lists, nullptr);
  }
  std::int32_t n_apart = 0, n_compared = 0;
  for (std::int32_t k = 1; k < static_cast<std::int32_t>(n); ++k) {
    n_apart += session->lists.kv_template_correlation[k] == 0.0f;
    n_compared += !session->lists.kv_templates_dont_overlap[k];
  }
  EXPECT_GT(n_apart, 100);
  EXPECT_GT(n_compared, 20);

  // Every method gives what it gives without lists of events at hand.
  for (session->review.match_method = 1; session->review.match_method <= 7;
       ++session->review.match_method) {
    get_match_lists(*session);
    const status_lists_table& lists = session->lists;
    for (std::int32_t i = 1; i <= lists.n_match; ++i) {
      const std::int32_t a = lists.match_a[i], b = lists.match_b[i];
      const std::int64_t k = pair_index(session->clusters.n_clusters, a, b);
      const optional_value value = match_value(
          *session, a, b, k, {lists.rms_template_shift[k], lists.kv_n_shift_template[k]}, 0);
      EXPECT_EQ(std::memcmp(&value.value, &lists.match_values[i], sizeof(float)), 0);
      if (session->review.match_method == match_doublets) {
        EXPECT_EQ(value.value, plain_doublet_value(*session, a, b, 20.0f)) << a << ' ' << b;
      }
    }
  }
}

TEST(status_lists, upkeep_equals_a_full_build) {
  small_session session;
  make_aligned(*session);
  use_threads(*session, 2);
  build_status_lists(*session);
  const auto expect_like_full_build = [&](const char* after) {
    const std::size_t n = static_cast<std::size_t>(session->lists.n_kv_pairs) + 1;
    const std::vector<float> overlap(session->lists.kv_cluster_overlap.base(),
                                     session->lists.kv_cluster_overlap.base() + n);
    const std::vector<std::int32_t> owner(session->lists.kv_n_shift_template.base(),
                                          session->lists.kv_n_shift_template.base() + n);
    build_status_lists(*session);
    ASSERT_EQ(static_cast<std::size_t>(session->lists.n_kv_pairs) + 1, n) << after;
    for (std::size_t k = 1; k < n; ++k) {
      EXPECT_EQ(session->lists.kv_cluster_overlap[k], overlap[k]) << after << k;
      EXPECT_EQ(session->lists.kv_n_shift_template[k], owner[k]) << after << k;
    }
    EXPECT_EQ(check_session(*session), "") << after;
  };
  delete_cluster(*session, 2);
  expect_like_full_build("delete");
  merge_clusters(*session, 1, 3);
  // Coincident events leave after the template is made; the lists see both.
  update_lists_for_cluster(*session, 1);
  expect_like_full_build("merge");
  session->clusters.current_cluster = 2;
  for (const std::int32_t e : list_cluster_events(*session, 2)) {
    session->events.event_subcluster[e] = e % 3 == 0 ? 1 : 0;
  }
  split_marked_to_new_cluster(*session, 1);
  expect_like_full_build("split");
  EXPECT_TRUE(check_shift_owners(*session));
  EXPECT_TRUE(check_match_values(*session));
  EXPECT_TRUE(check_shift_values(*session));
  EXPECT_TRUE(check_overlap_flags(*session));
  session->lists.kv_n_shift_template[1] = 9;
  EXPECT_FALSE(check_shift_owners(*session));
  EXPECT_TRUE(session.user.logged("List position error at"));
}

TEST(status_lists, marks_and_tries_travel_with_their_pairs) {
  small_session session;
  make_aligned(*session);
  build_status_lists(*session);
  const int n = session->clusters.n_clusters;
  session->lists.kv_user_distinct[pair_index(n, 3, 5)] = true;
  session->lists.kv_split_tries[pair_index(n, 3, 5)] = 3;
  delete_cluster(*session, 1);
  EXPECT_TRUE(session->lists.kv_user_distinct[pair_index(n - 1, 2, 4)]);
  EXPECT_EQ(session->lists.kv_split_tries[pair_index(n - 1, 2, 4)], 3);
  update_lists_for_cluster(*session, 2);
  EXPECT_TRUE(session->lists.kv_user_distinct[pair_index(n - 1, 2, 4)]);
  build_status_lists(*session);
  EXPECT_FALSE(session->lists.kv_user_distinct[pair_index(n - 1, 2, 4)]);
}

TEST(status_lists, distinct_safe_and_stable) {
  small_session session;
  make_recording(*session, 3, 400);
  session->clusters.n_clusters = 1;
  EXPECT_EQ(count_stable_clusters(*session), 1);
  session->clusters.n_clusters = 2;
  session->lists.n_kv_pairs = 1;
  status_lists_table& lists = session->lists;
  lists.kv_n_shift_template[1] = 2;
  for (int c = 1; c <= 2; ++c) {
    session->templates.template_n_channels[c] = 1;
    session->templates.channels(c)[1] = 1;
  }
  const auto distinct = [&](float overlap, float correlation) {
    lists.kv_cluster_overlap[1] = overlap;
    lists.kv_template_correlation[1] = correlation;
    return pair_is_distinct(*session, 1);
  };
  EXPECT_TRUE(distinct(0.15f, 0.9f));
  EXPECT_FALSE(distinct(0.1501f, 0.9f));
  EXPECT_FALSE(distinct(0.5f, 0.1f));
  EXPECT_TRUE(distinct(0.5f, 0.099f));
  distinct(0.6f, 0.95f);
  EXPECT_FALSE(pair_is_safe(*session, 1));
  EXPECT_EQ(count_stable_clusters(*session), 0);
  EXPECT_EQ(count_pairs_to_examine(*session), 1);
  distinct(0.7f, 0.95f);
  EXPECT_TRUE(pair_is_safe(*session, 1));
  lists.kv_user_distinct[1] = true;
  EXPECT_TRUE(pair_is_safe(*session, 1));  // the safe test does not ask the user's marks
  EXPECT_EQ(count_stable_clusters(*session), 2);
}

TEST(match_lists, every_method_sorts_its_way) {
  small_session session;
  make_aligned(*session);
  use_threads(*session, 2);
  build_status_lists(*session);
  for (int method = 1; method <= 7; ++method) {
    session->review.match_method = method;
    get_match_lists(*session);
    const status_lists_table& lists = session->lists;
    ASSERT_GT(lists.n_match, method == 6 ? 0 : 2) << mode_name(match_methods(), method);
    for (std::int32_t i = 2; i <= lists.n_match; ++i) {
      const bool ascending = method == 1 || method == 4;
      EXPECT_TRUE(ascending ? lists.match_values[i] >= lists.match_values[i - 1]
                            : lists.match_values[i] <= lists.match_values[i - 1]);
      EXPECT_LT(lists.match_a[i], lists.match_b[i]);
    }
  }
  session->lists.n_kv_pairs = 0;
  get_match_lists(*session);
  EXPECT_TRUE(session.user.told("There are no pairs in this list", "Pair comparisons"));
}

}  // namespace
}  // namespace kestrelvane::test

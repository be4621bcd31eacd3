// What a run says on its way: the words that follow from what it meets, which a run over a plain
// recording does not bring up.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "clustering/membership.h"
#include "operations/autosort.h"
#include "session/pair_index.h"
#include "session/settings_table.h"
#include "sorting/cluster_edits.h"
#include "sorting/merge_split.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// Sorted up to the lists of its pairs: nothing has been merged.
void sort_without_merges(session_state& session) {
  make_busy_recording(session, 4, 500000, 51);
  session.events.n_events = 0;
  session.clusters.n_clusters = 0;
  session.clusters.current_cluster = 0;
  session.autosort.stop_after = stop_after_lists;
  ASSERT_TRUE(autosort(session));
  session.autosort.stop_after = stop_after_all;
  session.strategy.skip_event_detection = session.strategy.skip_clustering = true;
}

void call_all_distinct(session_state& session, bool distinct) {
  session.strategy.overlap_threshold = distinct ? 5.0f : -5.0f;
  session.strategy.correlation_threshold = distinct ? 2.0f : -2.0f;
}

// Every second event of a cluster becomes one of its own, at the end of the table.
void halve_cluster(session_state& session, std::int32_t cluster) {
  session.clusters.current_cluster = cluster;
  std::int16_t label = 0;
  for (const std::int32_t e : list_cluster_events(session, cluster)) {
    session.events.event_subcluster[e] = label = static_cast<std::int16_t>(1 - label);
  }
  split_marked_to_new_cluster(session, 1);
}

std::int32_t count_clustered(const session_state& session) {
  std::int32_t n = 0;
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    n += session.events.event_cluster[e] > 0;
  }
  return n;
}

std::int32_t halve_largest(session_state& session) {
  std::int32_t largest = 1;
  for (std::int32_t c = 2; c <= session.clusters.n_clusters; ++c) {
    if (count_cluster_events(session, c) > count_cluster_events(session, largest)) largest = c;
  }
  halve_cluster(session, largest);
  return largest;
}

TEST(autosort_words, tell_which_thresholds_are_in_force) {
  for (const auto& [mode, words] :
       {std::pair{threshold_fixed, "Detecting events with fixed threshold =75"},
        std::pair{threshold_automatic, "Detecting events with automatic thresholding"}}) {
    small_session session;
    make_busy_recording(*session, 4, 100000, 51);
    session->autosort.stop_after = stop_after_detection;
    session->detection.threshold_mode = mode;
    session->detection.fixed_threshold_uv = 75;
    EXPECT_TRUE(autosort(*session));
    EXPECT_TRUE(session.user.logged(words)) << session.user.all_lines();
    EXPECT_GT(session->events.n_events, 100);
  }
}

// The user has had enough of the scan, but not of the sort: the table of points has not come to the
// end of the recording, as when it is full.
TEST(autosort_words, a_scan_that_is_cut_short_is_repeated_with_the_lockout_detector) {
  const auto detect = [](small_session& session, bool lockout) {
    make_busy_recording(*session, 4, 100000, 51);
    session->autosort.stop_after = stop_after_detection;
    session->detection.variable_multiplier = 3;  // noise, of which they see different parts
    session->detection.use_lockout = lockout;
    EXPECT_TRUE(autosort(*session));
  };
  small_session session, by_lockout, by_points;
  int scans = 0;
  session.user.on_status = [&](const std::string& text) {
    if (text.starts_with("Event detection method is ") && ++scans == 1) {
      session->operation.detection_interrupted = true;
    }
  };
  detect(session, false);
  detect(by_lockout, true);
  detect(by_points, false);
  EXPECT_EQ(scans, 2);
  EXPECT_TRUE(
      session.user.logged("Incomplete event detection; repeating detection with STL lockout"))
      << session.user.all_lines();
  EXPECT_TRUE(session.user.told("Repeating event detection with Spatio-temporal lockout",
                                "Incomplete event detection"));
  EXPECT_FALSE(session->detection.use_lockout) << "as the user has it";
  const auto times = [](const small_session& of) {
    const event_table& events = of.state->events;
    return std::vector<std::int32_t>(events.event_time.first(),
                                     events.event_time.first() + events.n_events);
  };
  EXPECT_EQ(times(session), times(by_lockout));
  EXPECT_NE(times(session), times(by_points));
  EXPECT_TRUE(by_points.user.boxes.empty());
}

// Sorts given events up to the first pass; those of the list stand there a second time, two samples
// later. What was said after the pass that holds the given words.
void sort_with_doubles(small_session& session, std::vector<std::int32_t> doubled,
                       std::int32_t least_size) {
  make_busy_recording(*session, 4, 500000, 51);
  session->strategy.skip_event_detection = true;
  session->strategy.min_cluster_size = least_size;
  event_table& events = session->events;
  std::sort(doubled.rbegin(), doubled.rend());
  for (const std::int32_t e : doubled) {
    for_each_column(
        [&](auto& column) {
          for (std::int32_t i = events.n_events; i >= e; --i) column[i + 1] = column[i];
        },
        events);
    ++events.n_events;
    events.event_time[e + 1] += 2;
  }
  session->autosort.stop_after = stop_after_first_pass;
  EXPECT_TRUE(autosort(*session));
  EXPECT_EQ(check_session(*session), "");
}

TEST(autosort_words, count_the_duplicates_that_went) {
  small_session plain, one, three;
  sort_with_doubles(plain, {}, 50);
  EXPECT_TRUE(plain.user.logged("No duplicate events found after 1st pass"));
  EXPECT_THAT(plain.user.statuses, testing::Contains("No duplicate events after 1st pass"));
  EXPECT_THAT(plain.user.statuses,
              testing::Contains("Realigning all clusters after channel-based clustering"));
  sort_with_doubles(one, {700}, 50);
  EXPECT_TRUE(one.user.logged("One duplicate event was removed after 1st pass"));
  sort_with_doubles(three, {700, 900, 2000}, 50);
  EXPECT_TRUE(three.user.logged("3 duplicate events were removed after 1st pass"));
  EXPECT_THAT(plain.user.statuses,
              testing::Contains(testing::StartsWith("Now on cluster 1 of 4: ")));
}

// The user asks for larger clusters while the first pass ends.
TEST(autosort_words, count_the_clusters_that_were_too_small) {
  small_session plain;
  sort_with_doubles(plain, {}, 50);
  std::vector<std::int32_t> sizes = count_events_by_cluster(*plain);
  std::sort(sizes.begin() + 1, sizes.end());
  for (const std::size_t n_small : {1u, 2u}) {
    const std::int32_t least = sizes[n_small] + 1;
    ASSERT_LE(least, sizes[n_small + 1]);
    small_session session;
    session.user.on_status = [&](const std::string& text) {
      if (text.starts_with("Finished first pass")) session->strategy.min_cluster_size = least;
    };
    sort_with_doubles(session, {}, 50);
    EXPECT_TRUE(session.user.logged(fmt::format(
        "{} <{} members {} removed", n_small == 1 ? "One cluster with" : "2 clusters with", least,
        n_small == 1 ? "was" : "were")))
        << session.user.all_lines();
    EXPECT_EQ(session->clusters.n_clusters + static_cast<int>(n_small), plain->clusters.n_clusters);
  }
}

// Only the largest is kept from the start: nothing is left that it could be compared with.
TEST(autosort_words, a_single_cluster_is_told_and_compared_with_nothing) {
  small_session plain, session;
  sort_with_doubles(plain, {}, 50);
  std::vector<std::int32_t> sizes = count_events_by_cluster(*plain);
  std::sort(sizes.begin() + 1, sizes.end());
  session->autosort.stop_after = stop_after_all;
  sort_with_doubles(session, {}, sizes.back());
  EXPECT_TRUE(session.user.logged("1 cluster found")) << session.user.all_lines();
  EXPECT_FALSE(session.user.logged("1 clusters found"));
  EXPECT_EQ(session->clusters.n_clusters, 1);
  EXPECT_FALSE(session.user.logged("Making status lists"));
}

TEST(autosort_words, the_last_box_tells_what_to_do_next) {
  small_session session;
  sort_without_merges(*session);
  session->strategy.merge_split_pairs = session->strategy.merge_safe_pairs = false;
  call_all_distinct(*session, true);
  EXPECT_TRUE(autosort(*session));
  EXPECT_TRUE(session.user.told("Finished Autosort!", "Done!"));
  call_all_distinct(*session, false);
  EXPECT_TRUE(autosort(*session));
  EXPECT_TRUE(session.user.told("Finished Autosort, now do Guided Merge", "Done!"));

  // No room for what the pairs may come to.
  session->strategy.merge_split_pairs = true;
  const std::int32_t n = session->clusters.n_clusters;
  halve_largest(*session);
  session->max_clusters = n;
  EXPECT_TRUE(autosort(*session));
  EXPECT_TRUE(session.user.told("Cannot add new cluster as maximum number has been reached",
                                "Create new cluster"));
  EXPECT_TRUE(session.user.told(
      "You are at, or close to, the maximum number of clusters the program can support. Autosort "
      "did not complete.",
      "Warning!"));
  EXPECT_TRUE(session.user.logged("Initial # of pairs to look at=")) << session.user.all_lines();
  EXPECT_TRUE(session.user.logged("# of pairs actually looked at=1"));
  EXPECT_EQ(session->clusters.n_clusters, n + 1);
  session->max_clusters = n + 1;
  EXPECT_EQ(check_session(*session), "");
}

TEST(autosort_words, safe_merges_are_counted) {
  small_session session;
  sort_without_merges(*session);
  const std::int32_t n = session->clusters.n_clusters;
  halve_largest(*session);
  session->strategy.merge_split_pairs = false;
  EXPECT_TRUE(autosort(*session));
  EXPECT_EQ(session->clusters.n_clusters, n);
  for (const char* words :
       {"Automerging safe pairs", "n pairs to merge =1", "Automerge #1 merging clusters ",
        "Finished final merging check, no merges made"}) {
    EXPECT_TRUE(session.user.logged(words)) << words << '\n' << session.user.all_lines();
  }
}

// Half of a unit is hidden in another cluster: together with the other half it is no pair that is
// plainly one unit, and from the final check on it is.
TEST(autosort_words, what_the_final_check_brings_to_light_is_merged) {
  struct hiding {
    std::int32_t in, half_of;
    const char* words;
    bool folded;  // with scattered events, which no sub-cluster of the list has
  };
  for (const hiding& h : {hiding{3, 2, "Finished final merging check, 1 merge made", false},
                          hiding{1, 2, "Finished final merging check,2 merges made", true}}) {
    small_session session;
    sort_without_merges(*session);
    const std::int32_t n = session->clusters.n_clusters;
    halve_cluster(*session, h.half_of);
    absorb_cluster(*session, h.in, h.half_of);
    ASSERT_EQ(session->clusters.n_clusters, n);
    call_all_distinct(*session, true);
    const std::int32_t n_clustered = count_clustered(*session);
    EXPECT_TRUE(autosort(*session));
    EXPECT_TRUE(session.user.logged(h.words)) << session.user.all_lines();
    EXPECT_EQ(session.user.logged("Small subcluster was merged"), h.folded);
    EXPECT_EQ(count_clustered(*session), n_clustered) << "all of them have gone to a neighbour";
    EXPECT_EQ(session->clusters.n_clusters, n);
    EXPECT_EQ(check_session(*session), "");
  }
}

// Events of two halves that are one spike: the merge keeps one of each, and whoever pauses is told.
TEST(autosort_words, a_paused_merge_tells_what_it_has_cost) {
  small_session session;
  sort_without_merges(*session);
  const std::int32_t a = halve_largest(*session);
  const std::int32_t b = session->clusters.n_clusters;
  event_table& events = session->events;
  std::int32_t moved = 0;
  for (std::int32_t e = 1; e < events.n_events && moved < 3; ++e) {
    if (events.event_cluster[e] == a && events.event_cluster[e + 1] == b) {
      events.event_time[e + 1] = events.event_time[e] + 1;
      ++moved;
    }
  }
  ASSERT_EQ(moved, 3);
  build_status_lists(*session);
  session->operation.pause_requested = true;
  EXPECT_EQ(automerge_safe_pairs(*session, 0, 20), 1);
  EXPECT_EQ(session.user.pauses, 1);
  for (const char* words : {"events deleted, original-final cluster sizes=3",
                            "globally 3 events were deleted as a result of the merge!"}) {
    EXPECT_TRUE(session.user.logged(words)) << words << '\n' << session.user.all_lines();
  }
  EXPECT_EQ(check_session(*session), "");
}

std::string with_pair(const char* words, std::int32_t a, std::int32_t b) {
  return fmt::format("{}{} & {}", words, a, b);
}

// Only the pair is in doubt, and of such an overlap.
void doubt_pair(session_state& session, std::int32_t a, std::int32_t b) {
  build_status_lists(session);
  for (std::int64_t k = 1; k <= session.lists.n_kv_pairs; ++k) {
    session.lists.kv_cluster_overlap[k] = -10.0f;
  }
  session.lists.kv_cluster_overlap[pair_index(session.clusters.n_clusters, a, b)] = 0.5f;
}

TEST(autosort_words, pairs_are_pooled_and_split_or_merged) {
  small_session session;
  sort_without_merges(*session);
  session->preferences.verbose_log = true;
  const std::int32_t n = session->clusters.n_clusters;
  call_all_distinct(*session, false);
  // Two units in one cluster: with a third it comes apart into three.
  absorb_cluster(*session, 1, n);
  doubt_pair(*session, 1, 2);
  const std::int32_t size = count_cluster_events(*session, 1);
  const std::int32_t other_size = count_cluster_events(*session, 2);
  merge_split_pairs_pass(*session, 20, 120);
  EXPECT_EQ(session->clusters.n_clusters, n);
  for (const std::string& words :
       {std::string("There is 1 pair left"),
        fmt::format(" # of comparisons=1 next pair=1 2; sizes={} {}", size, other_size),
        with_pair("Merging & splitting clusters ", 1, 2), std::string("split list = 1 2 3"),
        std::string("  overlaps before and after split =0.5 and "),
        std::string("Adding new cluster"), std::string("Splitting into3")}) {
    EXPECT_TRUE(session.user.logged(words)) << words << '\n' << session.user.all_lines();
  }
  // Two units in either: four come of it.
  absorb_cluster(*session, 1, 2);
  absorb_cluster(*session, 2, 3);
  doubt_pair(*session, 1, 2);
  session.user.lines.clear();
  merge_split_pairs_pass(*session, 20, 120);
  EXPECT_EQ(session->clusters.n_clusters, n);
  EXPECT_TRUE(session.user.logged("Adding new clusters")) << session.user.all_lines();
  EXPECT_TRUE(session.user.logged("Splitting into4"));
  // Halves of one unit are one again, and nobody says that they were split.
  halve_largest(*session);
  doubt_pair(*session, session->clusters.current_cluster, n + 1);
  session.user.lines.clear();
  merge_split_pairs_pass(*session, 20, 120);
  EXPECT_EQ(session->clusters.n_clusters, n);
  EXPECT_TRUE(session.user.logged("Merging pair that can't be split; initial overlap =0.5"))
      << session.user.all_lines();
  EXPECT_EQ(check_session(*session), "");
  // In doubt, and none with an overlap to begin with.
  call_all_distinct(*session, false);
  for (std::int64_t k = 1; k <= session->lists.n_kv_pairs; ++k) {
    session->lists.kv_cluster_overlap[k] = k <= 3 ? 0.0f : -10.0f;
    session->lists.kv_templates_dont_overlap[k] = false;
  }
  merge_split_pairs_pass(*session, 20, 120);
  EXPECT_TRUE(session.user.logged("There are 3 pairs left")) << session.user.all_lines();
  EXPECT_TRUE(session.user.logged("!!!!!!!!!!!Error looking for cluster pair!!!!!!!!!!!!!"));
}

TEST(autosort_words, the_final_check_finds_what_a_cluster_hides) {
  for (const bool room : {true, false}) {
    small_session session;
    sort_without_merges(*session);
    session->preferences.verbose_log = true;
    const std::int32_t n = session->clusters.n_clusters;
    absorb_cluster(*session, 1, n);
    build_status_lists(*session);
    if (!room) session->max_clusters = n - 1;
    final_split_check(*session, 130, 140);
    const std::int32_t found = session->clusters.n_clusters - (n - 1);
    EXPECT_EQ(found > 0, room);
    EXPECT_EQ(session->autosort.max_clusters_reached, !room);
    const std::string ends =
        fmt::format("{}; made {} further splits",
                    room ? "Finished final check for subclusters"
                         : "Stopping final check for subclusters as max clusters reached",
                    found);
    for (const std::string& words :
         {std::string("Checking cluster 1"), ends,
          fmt::format("initial, final clusters ={} {}", n - 1, n - 1 + found)}) {
      EXPECT_TRUE(session.user.logged(words)) << words << '\n' << session.user.all_lines();
    }
    for (const char* words : {"Splitting cluster", "Split list =1 2", "Cannot find subclusters"}) {
      EXPECT_EQ(session.user.logged(words), room) << words;
    }
    EXPECT_EQ(check_session(*session), "");
  }
}

}  // namespace
}  // namespace kestrelvane::test

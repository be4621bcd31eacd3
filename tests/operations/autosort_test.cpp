// The whole road: words, stages, threads, and an interrupt at every poll.
#include "operations/autosort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include <string>
#include <thread>
#include <vector>

#include "clustering/membership.h"
#include "operations/open_recording.h"
#include "session/settings_table.h"
#include "session/template_window.h"
#include "sorting/cluster_edits.h"
#include "sorting/merge_split.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"
#include "synthesis/test_recording.h"

namespace kestrelvane::test {
namespace {

// A recording of about a minute, its events forgotten.
void make_raw(session_state& session, std::uint32_t seed = 51) {
  make_busy_recording(session, 4, 500000, seed);
  session.events.n_events = 0;
  session.clusters.n_clusters = 0;
  session.clusters.current_cluster = 0;
}

std::vector<std::int32_t> digest(const session_state& session) {
  std::vector<std::int32_t> all{session.events.n_events, session.clusters.n_clusters,
                                session.lists.n_kv_pairs};
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    all.push_back(session.events.event_time[e]);
    all.push_back(session.events.event_cluster[e]);
    std::int32_t shift;
    std::memcpy(&shift, &session.events.event_shift[e], 4);
    all.push_back(shift);
  }
  for (std::int32_t k = 1; k <= session.lists.n_kv_pairs; ++k) {
    std::int32_t overlap;
    std::memcpy(&overlap, &session.lists.kv_cluster_overlap[k], 4);
    all.push_back(overlap);
  }
  return all;
}

// Pieces of a few events merge and are split again, as pairs that have not been tried. The count
// of polls stands in for a watch; the longest of these needs a tenth of it.
TEST(autosort, ends_at_any_cluster_size) {
  temporary_directory folder;
  const std::string path = folder.file("small.tsf");
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    test_recording_options options;
    options.electrode = test_electrode::polytrode;
    options.n_channels = 4;
    options.n_units = 4;
    options.minutes = 0.02;
    options.seed = seed;
    std::string problem;
    ASSERT_TRUE(make_test_recording(options, path, {}, problem)) << problem;
    for (const std::int32_t size : {static_cast<std::int32_t>(seed % 2), 2}) {
      small_session session;
      session.user.default_answer = true;
      ASSERT_TRUE(open_recording(*session, path));
      session->strategy.min_cluster_size = size;
      ASSERT_TRUE(set_setting(*session, "variable_multiplier", "3", problem)) << problem;
      session->operation.interrupt_at_poll = 5000;
      EXPECT_TRUE(autosort(*session)) << "seed " << seed << ", size " << size;
      EXPECT_EQ(check_session(*session), "") << "seed " << seed << ", size " << size;
    }
  }
}

TEST(autosort, runs_to_the_end_and_says_so) {
  small_session session;
  make_raw(*session);
  EXPECT_TRUE(autosort(*session));
  EXPECT_GE(session->clusters.n_clusters, 4);
  EXPECT_EQ(check_session(*session), "");
  for (const char* words :
       {"Beginning autosort", "Detecting events with variable threshold =5 x noise level",
        "Event detection method is Dynamic multiphasic filter",
        "Removing any coincident events, please wait ...", " finished!",
        "coincident events were removed from the record",
        "large events were removed from the record", "events were detected",
        "Events clustered based on channel assignments; ", " Realigning all clusters ...",
        "Finished first pass. Time so far =", "Deleting any clusters < threshold size ...",
        "Aligning templates ...", "Making status lists ...", "Making final check ... please wait",
        "Doing final search for merges ...", "Finished final merging check",
        "Finished autosort. Total time taken="}) {
    EXPECT_TRUE(session.user.logged(words)) << words;
  }
  EXPECT_EQ(session.user.boxes.back().title, "Done!");
  EXPECT_EQ(session.user.stages,
            (std::vector<std::string>{"detection", "channel-clusters", "first-pass", "lists",
                                      "merge-and-split", "final-check"}));
  EXPECT_TRUE(session->lists.template_shift_on);

  // Both skips: only lists and merging, on what is there.
  session->strategy.skip_event_detection = true;
  session->strategy.skip_clustering = true;
  session.user.stages.clear();
  EXPECT_TRUE(autosort(*session));
  EXPECT_EQ(session.user.stages.front(), "lists");
  EXPECT_EQ(check_session(*session), "");
}

// Every setting in its bytes' own form, but for what belongs to the lists.
std::vector<std::string> all_settings(session_state& session) {
  std::vector<std::string> all;
  for (const setting_row& row : settings_table()) {
    if (row.address == nullptr || std::string_view{row.name} == "template_shift_on") continue;
    for (std::int32_t i = 0; i < row.count; ++i) {
      all.push_back(std::string{row.name} + " = " + setting_text(session, row, i));
    }
  }
  return all;
}

TEST(autosort, the_wait_under_the_last_box_is_none_of_its_time) {
  small_session session;
  make_raw(*session);
  session->ui.tell = [](void*, const std::string&, const std::string&, box_icon) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  };
  EXPECT_TRUE(autosort(*session));
  const std::string lines = session.user.all_lines(), words = "Total time taken=";
  const double told = std::stod(lines.substr(lines.find(words) + words.size()));
  const double shown = std::stod(session.user.fields[status_field::elapsed_time]);
  // Minutes in hundredths, of which the box would be two.
  EXPECT_NEAR(shown, told, 0.0101);
}

TEST(autosort, leaves_the_settings_as_the_user_has_them) {
  small_session session;
  make_raw(*session);
  session->strategy.split_obvious = false;
  session->strategy.remove_duplicates_after_first_pass = false;
  session->strategy.realign_after_channel_clusters = false;
  const std::vector<std::string> before = all_settings(*session);
  EXPECT_TRUE(autosort(*session));
  EXPECT_EQ(all_settings(*session), before);
  small_session with_defaults;
  make_raw(*with_defaults);
  EXPECT_TRUE(autosort(*with_defaults));
  EXPECT_EQ(digest(*session), digest(*with_defaults)) << "every run does what they ask for";
}

TEST(autosort, guards_and_empty_recordings) {
  small_session session;
  make_recording(*session, 2, 5000);
  session->strategy.skip_event_detection = true;
  EXPECT_FALSE(autosort(*session));
  EXPECT_TRUE(session.user.told("There are no events, turn event detection back on", "Autosort"));
  session->strategy.skip_event_detection = false;
  session->strategy.skip_clustering = true;
  EXPECT_FALSE(autosort(*session));
  EXPECT_TRUE(session.user.told("There are no clusters, turn clustering back on", "Autosort"));
  session->strategy.skip_clustering = false;
  session->detection.threshold_mode = -1;
  EXPECT_FALSE(autosort(*session));
  EXPECT_TRUE(session.user.told("No events detected: use lower threshold", "Autosort"));
  EXPECT_TRUE(session.user.logged("Autosort terminated because no events were detected"));
  EXPECT_EQ(session->clusters.n_clusters, 0);
}

TEST(autosort, every_stage_at_any_thread_count) {
  for (const int stop : {stop_after_detection, stop_after_channel_clusters, stop_after_first_pass,
                         stop_after_lists, stop_after_all}) {
    std::vector<std::int32_t> serial;
    for (const int threads : {0, 1, 2, 7}) {
      small_session session;
      make_raw(*session);
      session->autosort.stop_after = stop;
      session->preferences.multi_threaded = threads > 0;
      session->n_threads = std::max(threads, 1);
      autosort(*session);
      EXPECT_EQ(check_session(*session), "");
      if (threads == 0) {
        serial = digest(*session);
      } else {
        EXPECT_EQ(digest(*session), serial) << stop << " " << threads;
      }
    }
  }
}

TEST(autosort, an_interrupt_at_any_poll_leaves_a_consistent_session) {
  std::int64_t n_polls = 0;
  {
    small_session session;
    make_raw(*session, 52);
    autosort(*session);
    n_polls = session->operation.polls;
  }
  ASSERT_GT(n_polls, 20);
  for (std::int64_t poll = 1; poll <= n_polls; ++poll) {
    small_session session;
    make_raw(*session, 52);
    session->operation.interrupt_at_poll = poll;
    autosort(*session);
    ASSERT_EQ(check_session(*session), "") << "poll " << poll << " of " << n_polls;
  }
}

TEST(autosort, interrupted_runs_use_their_words) {
  small_session session;
  make_raw(*session);
  session->autosort.stop_after = stop_after_lists;
  autosort(*session);
  session->autosort.stop_after = stop_after_all;
  session->strategy.skip_event_detection = true;
  session->strategy.skip_clustering = true;
  session->operation.polls = 0;
  session->operation.interrupt_at_poll = 1;
  EXPECT_FALSE(autosort(*session));
  EXPECT_TRUE(session.user.told("Autosort interrupted by user!", "Autosort"));
  EXPECT_TRUE(session.user.logged("User terminated autosort"));

  small_session early;
  make_raw(*early);
  early->autosort.stop_after = stop_after_detection;
  autosort(*early);
  early->autosort.stop_after = stop_after_all;
  early->strategy.skip_event_detection = true;
  early->operation.polls = 0;
  early->operation.interrupt_at_poll = 1;
  EXPECT_FALSE(autosort(*early));
  EXPECT_TRUE(early.user.told("Autosort terminated by user", "Autosort"));
}

TEST(autosort, pauses_and_resumes) {
  small_session session, straight;
  make_raw(*session);
  make_raw(*straight);
  autosort(*straight);
  // The user asks for a pause whenever a cluster comes up, or a pair.
  session.user.on_status = [&](const std::string&) { session->operation.pause_requested = true; };
  session.user.on_pause = [&] {
    EXPECT_EQ(session.user.fields[status_field::clusters_found],
              std::to_string(session->clusters.n_clusters))
        << session.user.stages.back();
  };
  EXPECT_TRUE(autosort(*session));
  EXPECT_GT(session.user.pauses, 5);
  EXPECT_TRUE(session.user.logged("Paused, press resume button to continue ..."));
  EXPECT_TRUE(session.user.logged("resuming"));
  EXPECT_EQ(digest(*session), digest(*straight));
}

bool set_window_end(session_state& session, const char* ms) {
  std::string problem;
  return set_setting(session, "template_window_end_ms", ms, problem);
}

TEST(autosort, a_new_window_makes_new_templates_before_pairs_are_looked_at) {
  small_session session;
  make_raw(*session);
  autosort(*session);
  session->autosort.next_stage_requested = false;
  const std::size_t n_statuses = session.user.statuses.size();
  EXPECT_FALSE(leave_autosort(*session));
  ASSERT_TRUE(set_window_end(*session, "1.0"));
  ASSERT_TRUE(set_window_end(*session, "0.8"));
  EXPECT_FALSE(leave_autosort(*session));
  EXPECT_EQ(session.user.statuses.size(), n_statuses) << "nothing had changed";

  // "Next", with pairs to examine.
  ASSERT_TRUE(set_window_end(*session, "1.0"));
  EXPECT_EQ(session->templates.template_points, 46);
  session->autosort.next_stage_requested = true;
  session->strategy.overlap_threshold = -5.0f;  // nothing is distinct by its overlap
  session->strategy.correlation_threshold = -2.0f;
  ASSERT_GT(count_pairs_to_examine(*session), 0);
  EXPECT_TRUE(leave_autosort(*session));
  EXPECT_EQ(std::count(session.user.statuses.begin(), session.user.statuses.end(),
                       "Spikes are being realigned and templates\r\nrecalculated because the spike "
                       "window was\r\nchanged"),
            1);
  EXPECT_EQ(session.user.statuses.back(), "Finished ... press OK to continue");
  EXPECT_FALSE(templates_are_outdated(*session));
  const std::int32_t centre = session->templates.centre_channel(1);
  EXPECT_NE(session->templates.mean(1, centre)[46], 0.0f);

  // A run that keeps the clusters compares them by templates of the window in force.
  ASSERT_TRUE(set_window_end(*session, "1.2"));
  session->strategy.skip_event_detection = true;
  session->strategy.skip_clustering = true;
  autosort(*session);
  EXPECT_FALSE(templates_are_outdated(*session));
  EXPECT_NE(session->templates.mean(1, centre)[50], 0.0f);
}

TEST(autosort, an_empty_cluster_goes_whatever_the_least_size) {
  for (const int least : {0, 1, 2}) {
    small_session session;
    make_raw(*session);
    session->strategy.min_cluster_size = least;
    EXPECT_TRUE(autosort(*session)) << least;
    EXPECT_EQ(check_session(*session), "") << least;
    EXPECT_FALSE(session.user.logged("Invalid cluster #")) << least;
  }
}

TEST(autosort, the_cluster_limit_is_told_at_the_end) {
  small_session session;
  make_raw(*session);
  session->max_clusters = 4;
  autosort(*session);
  EXPECT_LE(session->clusters.n_clusters, 4);
  EXPECT_EQ(check_session(*session), "");
  EXPECT_TRUE(session->autosort.max_clusters_reached);
}

// Two halves of one unit merge; the pooled pair is one cluster to the judge.
TEST(merge_split, halves_of_a_unit_come_together) {
  small_session session;
  make_raw(*session);
  autosort(*session);
  const std::int32_t n = session->clusters.n_clusters;
  std::int32_t largest = 1;
  for (std::int32_t c = 2; c <= n; ++c) {
    if (count_cluster_events(*session, c) > count_cluster_events(*session, largest)) largest = c;
  }
  const std::int32_t whole = count_cluster_events(*session, largest);
  session->clusters.current_cluster = largest;
  for (const std::int32_t e : list_cluster_events(*session, largest)) {
    session->events.event_subcluster[e] = static_cast<std::int16_t>(1 + e % 2);
  }
  split_marked_to_new_cluster(*session, 1);
  ASSERT_EQ(session->clusters.n_clusters, n + 1);
  const std::int32_t merges = automerge_safe_pairs(*session, 0, 20);
  if (merges == 0) merge_split_pairs_pass(*session, 20, 120);
  EXPECT_EQ(session->clusters.n_clusters, n);
  EXPECT_NEAR(count_cluster_events(*session, largest), whole, 0.02 * whole);
  EXPECT_EQ(check_session(*session), "");
}

TEST(merge_split, folding_votes_for_the_nearest) {
  gac_points points;
  points.n = 6;
  points.dimensions = 2;
  points.values = {0, 0, 1, 0, 10, 0, 11, 0, 9, 0, 2, 0};
  gac_tables tables;
  tables.n = 6;
  tables.stage_labels[1] = {1, 1, 2, 2, 3, 3};
  for (int c = 1; c <= 3; ++c) tables.as_cl_sizes[1][c] = 2;
  EXPECT_TRUE(fold_subcluster(points, tables, 1, 3, 3));  // one vote each: the lowest wins
  EXPECT_EQ(tables.stage_labels[1], (std::vector<std::int32_t>{1, 1, 2, 2, 1, 1}));
  EXPECT_EQ(tables.as_cl_sizes[1][1], 4);
  EXPECT_EQ(tables.as_cl_sizes[1][3], 0);
  small_session session;
  session->strategy.min_cluster_size = 5;
  EXPECT_FALSE(fold_small_subcluster(*session, points, tables, 1, 1));  // nobody large enough
}

}  // namespace
}  // namespace kestrelvane::test

// Review of a finished sort: the summary, undo, realignment by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "session/pair_index.h"
#include "session/template_window.h"
#include "sorting/cluster_edits.h"
#include "sorting/realign_steps.h"
#include "sorting/sorting_summary.h"
#include "sorting/status_lists.h"
#include "sorting/undo_state.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

void make_sorted(session_state& session) {
  make_busy_recording(session, 4, 100000, 41);
  session.clusters.current_cluster = 1;
  realign_all_clusters(session);
}

// Everything of a sort that an undo has to bring back, as plain numbers.
struct sort_print {
  std::vector<double> values;
  bool operator==(const sort_print&) const = default;
};

sort_print print_sort(const session_state& s) {
  sort_print p;
  const auto add = [&p](auto... v) { (p.values.push_back(static_cast<double>(v)), ...); };
  add(s.events.n_events, s.clusters.n_clusters, s.clusters.current_cluster, s.lists.n_kv_pairs);
  for (std::int32_t e = 1; e <= s.events.n_events; ++e) {
    add(s.events.event_time[e], s.events.event_shift[e], s.events.event_detected_time[e],
        s.events.event_channel[e], s.events.event_cluster[e], s.events.event_subcluster[e]);
  }
  for (std::int32_t c = 1; c <= s.clusters.n_clusters; ++c) {
    add(s.clusters.cluster_sigma[c], s.clusters.cluster_comment[c].bytes[0],
        bool{s.clusters.cluster_signed_off[c]}, s.clusters.cluster_ellipse[c].angle,
        s.templates.template_n_channels[c], s.templates.template_x[c], s.templates.template_y[c]);
    for (std::int32_t k = 1; k <= s.templates.template_n_channels[c]; ++k) {
      add(s.templates.channels(c)[k]);
    }
    for (std::int32_t ch = 1; ch <= s.recording.n_channels; ++ch) {
      for (std::int32_t t = 1; t <= s.templates.template_points; ++t) {
        add(s.templates.mean(c, ch)[t], s.templates.sd(c, ch)[t]);
      }
    }
  }
  for (std::int32_t k = 1; k <= s.lists.n_kv_pairs; ++k) {
    add(s.lists.kv_cluster_overlap[k], s.lists.kv_template_correlation[k],
        bool{s.lists.kv_templates_dont_overlap[k]}, s.lists.rms_template_shift[k],
        s.lists.kv_n_shift_template[k], bool{s.lists.kv_user_distinct[k]},
        bool{s.lists.kv_user_ambiguous[k]}, s.lists.kv_split_tries[k]);
  }
  return p;
}

TEST(undo_state, brings_back_what_was_changed) {
  small_session session;
  make_sorted(*session);
  build_status_lists(*session);
  session->lists.kv_user_distinct[3] = true;
  session->clusters.cluster_comment[2].assign("kept");
  session->events.event_subcluster[7] = 4;
  EXPECT_FALSE(restore_undo_state(*session, undo_owner::realignment)) << "nothing was saved";
  const sort_print before = print_sort(*session);
  ASSERT_TRUE(save_undo_state(*session, undo_owner::realignment));

  delete_cluster(*session, 2);
  merge_clusters(*session, 1, 3);
  session->clusters.current_cluster = 2;
  // Removed events are brought back, too.
  event_table& events = session->events;
  for (std::int32_t e = 1; e < events.n_events; ++e) {
    events.event_time[e] = events.event_time[e + 1];
    events.event_channel[e] = events.event_channel[e + 1];
    events.event_detected_time[e] = events.event_detected_time[e + 1] + 1;
    events.event_cluster[e] = events.event_cluster[e + 1];
  }
  --events.n_events;
  ASSERT_FALSE(print_sort(*session) == before);
  for (int again = 0; again < 2; ++again) {
    ASSERT_TRUE(restore_undo_state(*session, undo_owner::realignment));
    EXPECT_TRUE(print_sort(*session) == before);
    EXPECT_EQ(check_session(*session), "");
    delete_cluster(*session, 1);
  }

  // A second save takes the place of the first.
  const sort_print later = print_sort(*session);
  ASSERT_TRUE(save_undo_state(*session, undo_owner::realignment));
  delete_cluster(*session, 1);
  ASSERT_TRUE(restore_undo_state(*session, undo_owner::realignment));
  EXPECT_TRUE(print_sort(*session) == later);
}

// A save fills the memory of the one before where it fits, and outgrows it where it does not.
TEST(undo_state, saves_of_a_sort_that_grows_and_shrinks) {
  small_session session;
  make_sorted(*session);
  build_status_lists(*session);
  const std::int32_t n_before = session->clusters.n_clusters;
  for (int step = 0; step < 32; ++step) {
    const sort_print before = print_sort(*session);
    ASSERT_TRUE(save_undo_state(*session, undo_owner::realignment));
    const auto edit = [&] {
      // Twenty splits outgrow any room that a slot may have to spare.
      if (step >= 20) return delete_cluster(*session, 1 + step % 3);
      session->clusters.current_cluster = 1 + step % n_before;
      const std::vector<std::int32_t> list =
          list_cluster_events(*session, session->clusters.current_cluster);
      session->events.event_subcluster.clear();
      for (std::size_t i = 0; i < list.size() / 8 + 1; ++i) {
        session->events.event_subcluster[list[i]] = 1;
      }
      split_marked_to_new_cluster(*session, 1);
    };
    edit();
    ASSERT_FALSE(print_sort(*session) == before);
    ASSERT_TRUE(restore_undo_state(*session, undo_owner::realignment));
    ASSERT_TRUE(print_sort(*session) == before) << step;
    ASSERT_EQ(check_session(*session), "");
    edit();
  }
  EXPECT_EQ(session->clusters.n_clusters, n_before + 8);
}

TEST(undo_state, follows_the_recording_and_the_spike_window) {
  small_session session;
  make_sorted(*session);
  ASSERT_TRUE(save_undo_state(*session, undo_owner::realignment));
  session->strategy.template_window_end_ms = 1.2f;
  compute_template_points(*session);
  ASSERT_TRUE(restore_undo_state(*session, undo_owner::realignment));
  const float mean = session->templates.mean(1, 1)[session->templates.template_points];
  calculate_template(*session, 1);
  EXPECT_EQ(session->templates.mean(1, 1)[session->templates.template_points], mean);
  EXPECT_EQ(check_session(*session), "");
  reset_session(*session);
  EXPECT_FALSE(restore_undo_state(*session, undo_owner::realignment));
  // An empty session can be saved and restored.
  EXPECT_TRUE(save_undo_state(*session, undo_owner::realignment));
  EXPECT_TRUE(restore_undo_state(*session, undo_owner::realignment));
}

TEST(undo_state, follows_masks_that_came_and_went_since) {
  small_session session;
  make_sorted(*session);
  build_status_lists(*session);
  const sort_print whole = print_sort(*session);
  ASSERT_TRUE(save_undo_state(*session, undo_owner::realignment));
  const std::int32_t masked = session->templates.centre_channel(1);
  session->recording.chan_mask[masked] = true;
  renew_masked_templates(*session);
  ASSERT_EQ(check_session(*session), "");
  const sort_print narrow = print_sort(*session);
  ASSERT_TRUE(restore_undo_state(*session, undo_owner::realignment));
  EXPECT_EQ(check_session(*session), "") << "a template on a channel that takes no part";
  EXPECT_TRUE(print_sort(*session) == narrow);
  session->recording.chan_mask[masked] = false;
  ASSERT_TRUE(restore_undo_state(*session, undo_owner::realignment));
  EXPECT_TRUE(print_sort(*session) == whole);
}

TEST(sorting_summary, measures_every_cluster) {
  small_session session;
  make_sorted(*session);
  session->recording.vscale_HP = 0.1f;
  session->recording.file_type = file_type_tsf;
  for (std::int32_t c = 1; c <= 4; ++c) session->recording.chan_noise[c] = 7;
  session->events.event_cluster[5] = 0;
  const std::int32_t n = session->clusters.n_clusters;
  sorting_summary summary = make_sorting_summary(*session);
  EXPECT_EQ(summary.file_type, "TSF format");
  ASSERT_EQ(summary.rows.size(), static_cast<std::size_t>(n));
  EXPECT_EQ(summary.n_clustered, session->events.n_events - count_cluster_events(*session, 0));
  EXPECT_EQ(summary.n_clustered + summary.n_unclustered, summary.n_events);
  EXPECT_NEAR(summary.percent_clustered, 100.0 * summary.n_clustered / summary.n_events, 1e-9);
  for (const unit_row& row : summary.rows) {
    EXPECT_EQ(row.n_events, count_cluster_events(*session, row.cluster));
    const double bits = double{template_peak_to_peak(*session, row.cluster, row.channel)};
    EXPECT_NEAR(row.peak_to_peak, 0.1 * bits, 1e-4);
    EXPECT_NEAR(std::stod(summary_text(row, summary_column::peak_to_peak)), 0.1 * bits, 0.0500001);
    EXPECT_NEAR(row.snr, bits / 7, 1e-6);
    EXPECT_EQ(summary_text(row, summary_column::status), " unknown");
  }
  EXPECT_EQ(summary.n_stable, 0) << "without lists nothing is known";

  build_status_lists(*session);
  const std::int64_t k = pair_index(n, 2, 3);
  session->lists.kv_cluster_overlap[k] = 0.9f;
  session->lists.kv_template_correlation[k] = 1.0f;
  session->lists.kv_templates_dont_overlap[k] = false;
  summary = make_sorting_summary(*session);
  EXPECT_EQ(summary.rows[2].status, cluster_status::unstable);
  EXPECT_EQ(summary.n_stable, count_stable_clusters(*session));
  for (const unit_row& row : summary.rows) {
    EXPECT_STREQ(cluster_status_text(row.status),
                 cluster_is_stable(*session, row.cluster) ? "  stable" : "unstable");
  }
  session->recording.is_continuous = false;
  EXPECT_EQ(make_sorting_summary(*session).rows[0].snr, 0);
  delete_cluster(*session, 2);
  EXPECT_EQ(make_sorting_summary(*session).rows.back().cluster, n - 1);
  // One that is alone counts as stable; its line has no pairs to tell from.
  while (session->clusters.n_clusters > 1) delete_cluster(*session, 1);
  summary = make_sorting_summary(*session);
  EXPECT_EQ(summary.n_stable, 1);
  EXPECT_EQ(summary.rows[0].status, cluster_status::unknown);
}

TEST(sorting_summary, sorts_by_each_column_and_keeps_ties) {
  const auto unknown = cluster_status::unknown, stable = cluster_status::stable;
  const std::vector<unit_row> rows{{1, 4, 0, 30, 500, 0, 90.1, 8, unknown},
                                   {2, 3, 0, 10, 900, 0, 120, 6, stable},
                                   {3, 4, 0, 20, 500, 0, 80, 7, stable}};
  const auto order = [&](summary_column column, bool ascending) {
    std::vector<unit_row> sorted = rows;
    sort_summary(sorted, column, ascending);
    return 100 * sorted[0].cluster + 10 * sorted[1].cluster + sorted[2].cluster;
  };
  EXPECT_EQ(order(summary_column::cluster, false), 321);
  EXPECT_EQ(order(summary_column::channel, true), 213);
  EXPECT_EQ(order(summary_column::channel, false), 132);
  EXPECT_EQ(order(summary_column::y, true), 231);
  EXPECT_EQ(order(summary_column::events, true), 132);
  EXPECT_EQ(order(summary_column::events, false), 213);
  EXPECT_EQ(order(summary_column::peak_to_peak, true), 312);
  EXPECT_EQ(order(summary_column::snr, true), 231);
  EXPECT_EQ(order(summary_column::status, true), 231);
  EXPECT_EQ(summary_text(rows[0], summary_column::peak_to_peak), "90.1");
}

TEST(realign_steps, one_cluster_and_back) {
  small_session session;
  make_sorted(*session);
  build_status_lists(*session);
  session->lists.kv_user_ambiguous[1] = true;
  const sort_print before = print_sort(*session);
  const event_times_copy copy = copy_event_times(*session, 1);
  const std::int32_t other = list_cluster_events(*session, 2).front();
  const std::int32_t other_time = session->events.event_time[other];

  realign_cluster_template(*session, 1, 2);
  EXPECT_EQ(session->strategy.template_align_mode, 2);
  // The trough of the template now lies at the aligned time.
  const float* t = session->templates.mean(1, session->templates.centre_channel(1));
  const std::int64_t trough =
      std::min_element(t + 1, t + 1 + session->templates.template_points) - t;
  EXPECT_NEAR(static_cast<double>(trough), 1.0 - window_first_sample(*session), 1.0);
  EXPECT_FALSE(print_sort(*session) == before);
  EXPECT_EQ(session->events.event_time[other], other_time);
  const sort_print realigned = print_sort(*session);
  update_all_lists(*session);
  EXPECT_TRUE(print_sort(*session) == realigned) << "the pairs of the cluster are in step";
  ASSERT_TRUE(put_back_event_times(*session, copy));
  EXPECT_TRUE(print_sort(*session) == before);

  realign_cluster_events(*session, 1, 3);
  EXPECT_EQ(session->strategy.event_align_mode, 3);
  EXPECT_FALSE(print_sort(*session) == before);
  ASSERT_TRUE(put_back_event_times(*session, copy));
  EXPECT_TRUE(print_sort(*session) == before);

  session->events.event_cluster[list_cluster_events(*session, 1).back()] = 0;
  const sort_print shrunk = print_sort(*session);
  EXPECT_FALSE(put_back_event_times(*session, copy)) << "the list is another one";
  EXPECT_FALSE(put_back_event_times(*session, {}));
  EXPECT_TRUE(print_sort(*session) == shrunk);
}

TEST(realign_steps, every_cluster_with_its_pairs) {
  small_session session;
  make_sorted(*session);
  build_status_lists(*session);
  session->lists.kv_user_ambiguous[2] = true;
  session->lists.kv_split_tries[3] = 5;
  const std::vector<float> overlap(
      session->lists.kv_cluster_overlap.first(),
      session->lists.kv_cluster_overlap.first() + session->lists.n_kv_pairs);
  realign_every_template(*session, 1);
  realign_every_event(*session, 9);
  EXPECT_EQ(session->strategy.template_align_mode, 1);
  EXPECT_EQ(session->strategy.event_align_mode, 9);
  EXPECT_TRUE(session.user.logged("Serial realign clusters took "));
  EXPECT_TRUE(session->lists.kv_user_ambiguous[2]);
  EXPECT_EQ(session->lists.kv_split_tries[3], 5);
  EXPECT_FALSE(
      std::equal(overlap.begin(), overlap.end(), session->lists.kv_cluster_overlap.first()));
  EXPECT_TRUE(check_shift_values(*session));
  EXPECT_EQ(check_session(*session), "");
  double sum = 0;
  for (std::int32_t c = 1; c <= session->clusters.n_clusters; ++c) {
    sum += template_sd_uv(*session, c);
  }
  EXPECT_GT(sum, 0);
  EXPECT_DOUBLE_EQ(mean_template_sd_uv(*session), sum / session->clusters.n_clusters);
}

TEST(realign_steps, recalculating_needs_clusters_and_moves_no_event) {
  small_session session;
  EXPECT_FALSE(recalculate_all_templates(*session));
  EXPECT_TRUE(session.user.told("No recording data in memory", "Error "));
  make_recording(*session, 2, 1000);
  EXPECT_FALSE(recalculate_all_templates(*session));
  EXPECT_TRUE(session.user.told("There are no clusters", "Recalculate templates"));
  EXPECT_FALSE(session.user.told("Templates recalculated"));
  EXPECT_EQ(mean_template_sd_uv(*session), 0);

  small_session sorted;
  make_sorted(*sorted);
  const sort_print before = print_sort(*sorted);
  sorted->templates.mean(1, 1)[1] = 999;
  sorted->templates.template_y[1] = -5;
  EXPECT_TRUE(recalculate_all_templates(*sorted));
  EXPECT_TRUE(print_sort(*sorted) == before);
  EXPECT_TRUE(sorted.user.logged(" finished"));
  EXPECT_TRUE(sorted.user.told("Templates recalculated", "Done!"));
}

}  // namespace
}  // namespace kestrelvane::test

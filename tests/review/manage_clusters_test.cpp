// Manage clusters: figures of one cluster, deleting by rule, and going back.
#include "review/manage_clusters.h"

#include <gtest/gtest.h>

#include <cmath>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "review/pair_values.h"
#include "review/replay.h"
#include "sorting/cluster_edits.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct manage_test : ::testing::Test {
  small_session session;
  cluster_management management;

  manage_test() {
    make_busy_recording(*session, 4, 60000, 31);
    realign_all_clusters(*session);
    build_status_lists(*session);
    for (std::int32_t c = 1; c <= 4; ++c) session->recording.chan_noise[c] = 10;
  }
  std::int32_t n() { return session->clusters.n_clusters; }
  void expect_consistent() { ASSERT_EQ(check_session(*session), ""); }
  std::int32_t delete_by(std::int32_t rule) {
    session->review.manage_option_4 = rule;
    const std::int32_t before = n();
    delete_clusters_by_rule(*session, management);
    return before - n();
  }
};

TEST_F(manage_test, figures_by_hand) {
  // A template of one height on channels 1 and 2, 40 µm apart, and twice that on 1.
  template_table& t = session->templates;
  t.template_n_channels[1] = 2;
  t.channels(1)[1] = 1;
  t.channels(1)[2] = 2;
  for (const std::int32_t channel : {1, 2}) {
    for (std::int32_t p = 1; p <= t.template_points; ++p) {
      t.mean(1, channel)[p] = 0;
      t.sd(1, channel)[p] = 1;
    }
  }
  t.mean(1, 1)[3] = -90;
  t.mean(1, 1)[6] = 30;
  t.sd(1, 1)[3] = 3;
  t.sd(1, 1)[6] = 4;
  t.mean(1, 2)[3] = -60;
  t.template_x[1] = 0;
  t.template_y[1] = 10;
  const managed_cluster shown = show_managed_cluster(*session, 1);
  EXPECT_NEAR(shown.width, 2 * std::sqrt((120 * 100 + 60 * 900) / 180.0), 1e-9);
  EXPECT_NEAR(shown.quality, 120 / std::sqrt(2 * 25.0), 1e-9);
  EXPECT_NEAR(shown.peak_to_peak, 120 * 0.25, 1e-9);
  EXPECT_NEAR(shown.snr, 12, 1e-6);
  EXPECT_EQ(shown.source, 0);
  EXPECT_EQ(shown.status, find_cluster_status(*session, 1));
  const managed_cluster none = show_managed_cluster(*session, 0);
  EXPECT_EQ(none.cluster + none.n_events + none.registered.n_events, 0);
  EXPECT_EQ(none.n_clusters, n());
  session->lists.n_kv_pairs = 0;
  EXPECT_EQ(find_cluster_status(*session, 1), cluster_status::unknown);
}

TEST_F(manage_test, registrations_add_up) {
  const std::vector<std::int32_t> list = list_cluster_events(*session, 2);
  template_table& t = session->templates;
  t.template_n_channels[2] = 2;
  t.channels(2)[1] = 3;
  t.channels(2)[2] = 1;
  for (const std::int32_t e : list) session->events.event_channel[e] = 3;
  session->events.event_channel[list[0]] = 1;
  session->events.event_channel[list[1]] = 4;
  session->events.event_channel[list[2]] = 2;
  // Three events within 4 samples make three pairs; one that lies 5 away makes none more. The
  // third lies before the second.
  const std::int32_t at = session->events.event_time[list[10]];
  session->events.event_time[list[11]] = at + 4;
  session->events.event_time[list[12]] = at + 2;
  session->events.event_time[list[13]] = at + 9;
  const auto size = static_cast<std::int32_t>(list.size());
  const registration_counts counts = count_registrations(*session, 2);
  EXPECT_EQ(counts.template_channel, size - 3);
  EXPECT_EQ(counts.neighbours, 1);
  EXPECT_EQ(counts.other_channels, 2);
  EXPECT_EQ(counts.duplicates, 3);
  EXPECT_NEAR(registration_percent(counts, 1), 100.0 / size, 1e-9);
  EXPECT_FALSE(session.user.logged("ERROR CHECKING"));

  // Removal takes those of this cluster alone, and gives them back the time of detection.
  const std::vector<std::int32_t> of_1 = list_cluster_events(*session, 1);
  session->events.event_time[of_1[1]] = session->events.event_time[of_1[0]] + 1;
  session->events.event_detected_time[list[12]] = 1000;
  EXPECT_GE(remove_cluster_duplicates(*session, management, 2), 2);
  EXPECT_EQ(count_cluster_events(*session, 1), static_cast<std::int32_t>(of_1.size()));
  EXPECT_LT(count_registrations(*session, 2).duplicates, 3);
  EXPECT_TRUE(session->events.event_cluster[list[12]] == 2 ||
              session->events.event_time[list[12]] == 1000);
  EXPECT_TRUE(management.changed);
  expect_consistent();
  EXPECT_EQ(remove_cluster_duplicates(*session, management, 2), 0);
}

TEST_F(manage_test, rules_judge_all_before_any_goes) {
  ASSERT_TRUE(open_cluster_management(*session, management));
  for (std::int64_t k = 1; k <= session->lists.n_kv_pairs; ++k) {
    session->lists.kv_templates_dont_overlap[k] = true;
  }
  EXPECT_EQ(delete_by(rule_ambiguous), 0);
  EXPECT_TRUE(session.user.told("0 clusters were deleted", "Cluster management"));
  EXPECT_FALSE(management.changed);
  const std::int64_t k = find_pair(*session, {2, 5});
  session->lists.kv_templates_dont_overlap[k] = false;
  session->lists.kv_cluster_overlap[k] = 0.9f;
  session->lists.kv_template_correlation[k] = 0.9f;
  EXPECT_EQ(delete_by(rule_ambiguous), 2) << "both members of the pair";
  EXPECT_TRUE(session.user.told("2 clusters were deleted", "Cluster management"));
  expect_consistent();

  const std::int32_t smallest = count_cluster_events(*session, 3);
  std::int32_t n_below = 0;
  for (std::int32_t c = 1; c <= n(); ++c) n_below += count_cluster_events(*session, c) < smallest;
  session->review.delete_size_limit = smallest;
  EXPECT_EQ(delete_by(rule_by_size), n_below) << "strictly below";
  session->recording.is_continuous = false;
  EXPECT_EQ(delete_by(rule_by_snr), 0);
  EXPECT_TRUE(session.user.told("Can't sort based on S/N ratio for event based recording!"));
  session->recording.is_continuous = true;
  session->review.delete_snr_limit = static_cast<float>(template_snr(*session, 1)) + 0.01f;
  EXPECT_GE(delete_by(rule_by_snr), 1);
  session->review.manage_option_1 = 1000000;
  EXPECT_GE(delete_by(rule_by_height), 1);
  EXPECT_EQ(n(), 0);
  EXPECT_FALSE(delete_clusters_by_rule(*session, management));
  expect_consistent();
}

TEST_F(manage_test, cancel_brings_back_what_there_was) {
  ASSERT_TRUE(open_cluster_management(*session, management));
  cancel_cluster_management(*session, management);
  EXPECT_TRUE(session.user.boxes.empty()) << "nothing had changed";
  session->clusters.current_cluster = n();
  const std::int32_t* of = session->events.event_cluster.first();
  const std::vector<std::int32_t> before(of, of + session->events.n_events);
  const float overlap = session->lists.kv_cluster_overlap[3];
  EXPECT_TRUE(delete_managed_cluster(*session, management, n()));
  EXPECT_EQ(session->clusters.current_cluster, n());
  EXPECT_FALSE(delete_managed_cluster(*session, management, n() + 1));
  EXPECT_FALSE(delete_all_clusters(*session, management)) << "he would rather not";
  session.user.default_answer = true;
  EXPECT_TRUE(delete_all_clusters(*session, management));
  cancel_cluster_management(*session, management);
  EXPECT_TRUE(session.user.told("All changes undone!", "Manage clusters"));
  EXPECT_TRUE(std::equal(before.begin(), before.end(), of));
  EXPECT_EQ(session->lists.kv_cluster_overlap[3], overlap);
  expect_consistent();
}

TEST_F(manage_test, a_cluster_knows_where_it_came_from) {
  session->clusters.current_cluster = 3;
  const std::vector<std::int32_t> of_3 = list_cluster_events(*session, 3);
  for (std::size_t i = 0; i < of_3.size(); ++i) {
    session->events.event_subcluster[of_3[i]] = static_cast<std::int16_t>(i % 2);
  }
  split_marked_to_new_cluster(*session, 1);
  EXPECT_EQ(show_managed_cluster(*session, 7).source, 3);
  EXPECT_EQ(show_managed_cluster(*session, 3).source, 0);
  ASSERT_TRUE(open_cluster_management(*session, management));
  delete_managed_cluster(*session, management, 1);
  EXPECT_EQ(show_managed_cluster(*session, 6).source, 3) << "it moves with its cluster";
  cancel_cluster_management(*session, management);
  EXPECT_EQ(show_managed_cluster(*session, 7).source, 3);
}

TEST_F(manage_test, labels_of_several_units_are_one_edit_and_one_step_back) {
  label_unit(*session, 2, unit_label::noise);
  EXPECT_FALSE(undo_unit_labels(*session)) << "a single label has saved nothing";
  const std::size_t before = session->history.records.size();
  ASSERT_TRUE(label_units(*session, {1, 2, 4},
                          {unit_label::good, unit_label::multi_unit, unit_label::noise}));
  ASSERT_EQ(session->history.records.size(), before + 1);
  EXPECT_EQ(edit_text(session->history.records.back()), "Label clusters 1, 2, 4 by their figures");
  EXPECT_EQ(session->history.records.back().places, "123");
  EXPECT_FALSE(label_units(*session, {4}, {unit_label::noise})) << "nothing new";
  EXPECT_FALSE(label_units(*session, {n() + 1}, {unit_label::noise}));
  const auto labels = [&] {
    std::vector<unit_label> all;
    for (std::int32_t c = 1; c <= 4; ++c) all.push_back(session->clusters.cluster_label[c]);
    return all;
  };
  using enum unit_label;
  EXPECT_EQ(labels(), (std::vector<unit_label>{good, multi_unit, unsorted, noise}));
  ASSERT_TRUE(undo_unit_labels(*session));
  EXPECT_EQ(labels(), (std::vector<unit_label>{unsorted, noise, unsorted, unsorted}));
  EXPECT_EQ(session->history.records.back().back_to, static_cast<std::int32_t>(before));
  expect_consistent();
}

}  // namespace
}  // namespace kestrelvane::test

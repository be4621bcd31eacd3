// Operations on the cluster table: numbers, records, comments, limits and words.
#include "sorting/cluster_edits.h"
#include "clustering/membership.h"

#include <gtest/gtest.h>

#include "clustering/splitting.h"
#include "clustering/templates.h"
#include "sorting/channel_clusters.h"
#include "sorting/duplicates.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// Three clusters of events far apart on three channels.
void make_three_clusters(session_state& session, int events_each = 60) {
  make_recording(session, 3, 100000);
  event_table& events = session.events;
  for (int i = 0; i < events_each; ++i) {
    for (int c = 1; c <= 3; ++c) {
      const std::int32_t e = ++events.n_events;
      events.event_time[e] = 500 + 600 * i + 100 * c;
      events.event_channel[e] = c;
      events.event_cluster[e] = c;
      put_samples(session, c, events.event_time[e] - 2, {-30, -90, -140 - 10 * c, -80, 10, 60, 40});
    }
  }
  session.clusters.n_clusters = 3;
  session.clusters.current_cluster = 3;
  calculate_all_templates(session);
}

TEST(cluster_operations, deleting_closes_the_gap_and_moves_records) {
  small_session session;
  make_three_clusters(*session);
  cluster_table& clusters = session->clusters;
  clusters.cluster_comment[3].assign("third");
  clusters.cluster_signed_off[3] = true;
  for (int c = 1; c <= 3; ++c) clusters.cluster_sigma[c] = static_cast<float>(c);
  build_status_lists(*session);
  delete_cluster(*session, 1);
  EXPECT_EQ(clusters.n_clusters, 2);
  EXPECT_EQ(clusters.current_cluster, 2);
  EXPECT_EQ(count_cluster_events(*session, 0), 60);
  EXPECT_EQ(session->templates.centre_channel(2), 3);
  EXPECT_EQ(clusters.cluster_comment[2].view(), "third");
  EXPECT_TRUE(clusters.cluster_signed_off[2]);
  EXPECT_EQ(clusters.cluster_sigma[2], 2.0f);  // sigma stays where it was
  EXPECT_EQ(session->lists.n_kv_pairs, 1);
  EXPECT_EQ(check_session(*session), "");
  delete_cluster(*session, 2);
  delete_cluster(*session, 1);
  EXPECT_EQ(clusters.current_cluster, 0);
  delete_cluster(*session, 1);  // nothing left: nothing happens
  EXPECT_EQ(clusters.n_clusters, 0);
}

TEST(cluster_operations, merging_takes_the_lower_number_and_its_comment) {
  small_session session;
  make_three_clusters(*session);
  cluster_table& clusters = session->clusters;
  clusters.cluster_comment[3].assign("goes");
  for (int c = 1; c <= 3; ++c) clusters.cluster_sigma[c] = static_cast<float>(c);
  build_status_lists(*session);
  merge_clusters(*session, 2, 2);
  EXPECT_EQ(clusters.current_cluster, 2);
  EXPECT_EQ(clusters.n_clusters, 3);
  merge_clusters(*session, 3, 1);
  EXPECT_EQ(clusters.n_clusters, 2);
  EXPECT_EQ(clusters.current_cluster, 1);
  EXPECT_EQ(clusters.cluster_sigma[1], 2.0f);
  EXPECT_TRUE(clusters.cluster_comment[1].is_blank());
  EXPECT_EQ(count_cluster_events(*session, 1), 120);
  EXPECT_EQ(session->templates.centre_channel(2), 2);
  EXPECT_TRUE(session.user.logged("0 coincident events were removed from the merged cluster"));
  EXPECT_EQ(check_session(*session), "");
  clusters.cluster_comment[1].assign("mine");
  clusters.cluster_label[1] = unit_label::good;
  clusters.cluster_label[2] = unit_label::noise;
  merge_clusters(*session, 1, 2);
  EXPECT_EQ(clusters.cluster_comment[1].view(),
            "Comment deleted because it was merged with another unit");
  EXPECT_EQ(clusters.cluster_label[1], unit_label::unsorted) << "two words, and none of the whole";
}

TEST(cluster_operations, coincident_events_of_a_cluster) {
  small_session session;
  make_recording(*session, 3, 4000);
  event_table& events = session->events;
  // Pairs 5 samples apart (the window) and 6 apart; equal distance takes the earlier.
  const int times[] = {100, 105, 300, 306, 500, 501}, channels[] = {1, 1, 1, 1, 1, 3};
  for (int e = 1; e <= 6; ++e) {
    events.event_time[e] = times[e - 1];
    events.event_detected_time[e] = e == 1 ? 90 : 0;
    events.event_channel[e] = channels[e - 1];
    events.event_cluster[e] = 1;
  }
  events.n_events = 6;
  session->clusters.n_clusters = 1;
  session->templates.template_n_channels[1] = 1;
  session->templates.channels(1)[1] = 1;
  EXPECT_EQ(remove_coincident_cluster_events(*session, 1), 2);
  EXPECT_EQ(events.event_cluster[1], 0);
  EXPECT_EQ(events.event_time[1], 90);
  EXPECT_EQ(events.event_cluster[2], 1);
  EXPECT_EQ(events.event_cluster[6], 0);  // farther from the centre at (0, 0)
}

TEST(cluster_operations, limits_say_so) {
  small_session session;
  make_three_clusters(*session);
  session->max_clusters = 3;
  EXPECT_FALSE(cluster_can_grow(*session));
  EXPECT_TRUE(session.user.told("Cannot add new cluster as maximum number has been reached",
                                "Create new cluster"));
  session->max_clusters = 2;
  check_cluster_limit(*session);
  EXPECT_TRUE(session.user.told("Number of clusters has reached upper limit", "Warning!"));
  EXPECT_EQ(session->clusters.n_clusters, 4000);
}

TEST(cluster_operations, splitting_marked_events_by_hand) {
  small_session session;
  make_three_clusters(*session);
  build_status_lists(*session);
  session->clusters.current_cluster = 2;
  for (const std::int32_t e : list_cluster_events(*session, 2)) {
    session->events.event_subcluster[e] = e % 2 == 0 ? 3 : 0;
  }
  split_marked_to_new_cluster(*session, 3);
  EXPECT_EQ(session->clusters.n_clusters, 4);
  EXPECT_EQ(session->clusters.current_cluster, 2);
  EXPECT_EQ(session->clusters.previous_cluster, 2);
  EXPECT_EQ(session->lists.n_kv_pairs, 6);
  EXPECT_TRUE(session.user.told("New cluster 4 created", "Create new cluster"));
  EXPECT_EQ(check_session(*session), "");
  split_marked_to_new_cluster(*session, 3);  // none left with that label
  EXPECT_EQ(session->clusters.n_clusters, 4);
}

TEST(cluster_operations, clearing_asks_first) {
  small_session session;
  make_three_clusters(*session);
  clear_clusters(*session);
  EXPECT_EQ(session->clusters.n_clusters, 3);
  session.user.default_answer = true;
  clear_clusters(*session);
  EXPECT_TRUE(session.user.asked("This will delete all the cluster assignments to events!",
                                 "Are you sure?"));
  EXPECT_EQ(session->clusters.n_clusters, 0);
  EXPECT_EQ(count_cluster_events(*session, 0), 180);
  EXPECT_EQ(check_session(*session), "");
}

TEST(cluster_operations, empty_labels_close_up) {
  std::int32_t sizes[101] = {};
  sizes[2] = sizes[5] = sizes[100] = 1;
  std::int32_t labels[] = {0, 2, 5, 100};
  compact_subcluster_labels(labels, 4, sizes);
  EXPECT_EQ(std::vector<int>(labels, labels + 4), (std::vector<int>{0, 1, 2, 3}));
}

TEST(channel_clusters, small_channels_leave_no_gap) {
  small_session session;
  make_three_clusters(*session);
  session->clusters.n_clusters = 0;
  // Channel 1 loses events until it is one short.
  for (std::int32_t e = 1, seen = 0; e <= session->events.n_events; ++e) {
    if (session->events.event_channel[e] == 1 && ++seen > 49) session->events.event_channel[e] = 2;
  }
  convert_channels_to_clusters(*session);
  EXPECT_EQ(session->clusters.n_clusters, 2);
  EXPECT_EQ(session->templates.centre_channel(1), 2);
  EXPECT_TRUE(session.user.told("Events clustered by channel, 2 clusters found.", "Done!"));
  EXPECT_TRUE(
      session.user.logged("Forming clusters based on initial channel assignments of events"));
  EXPECT_TRUE(session.user.logged("# of events far from their template channel ="));
  EXPECT_EQ(check_session(*session), "");
  convert_channels_to_clusters(*session);  // asks, and the user declines
  EXPECT_TRUE(session.user.asked(
      "Converting channels to clusters will overwrite all current cluster assignments!",
      "Are you sure?"));

  // Without a channel that takes part there are no clusters, not those of before.
  for (std::int32_t ch = 1; ch <= session->recording.n_channels; ++ch) {
    session->recording.chan_mask[ch] = true;
  }
  form_channel_clusters(*session);
  EXPECT_EQ(session->clusters.n_clusters, 0);
  EXPECT_EQ(check_session(*session), "");

  small_session empty;
  convert_channels_to_clusters(*empty);
  make_recording(*empty, 1, 400);
  convert_channels_to_clusters(*empty);
  EXPECT_TRUE(empty.user.told("There are no events to cluster!", "Error"));
}

TEST(channel_clusters, one_cluster_per_tetrode_when_forced) {
  small_session session;
  make_three_clusters(*session);
  session->recording.electrode_type = electrode_tetrode;
  session->recording.n_tetrodes = 1;
  for (int c = 1; c <= 3; ++c) session->recording.tetrode_of_channel[c] = 1;
  session->strategy.force_one_cluster_per_tetrode = true;
  session->strategy.channel_threshold_1 = 0.0f;  // every channel belongs to the template
  session->strategy.channel_threshold_2 = 0.0f;
  form_channel_clusters(*session);
  EXPECT_EQ(session->clusters.n_clusters, 1);
  EXPECT_EQ(count_cluster_events(*session, 1), 180);
}

TEST(channel_clusters, the_cluster_limit_ends_the_conversion) {
  small_session session;
  make_three_clusters(*session);
  session->max_clusters = 2;
  form_channel_clusters(*session);
  EXPECT_EQ(session->clusters.n_clusters, 2);
  EXPECT_TRUE(
      session.user.told("Stopping conversion as maximum number of clusters has been reached",
                        "Convert channels to clusters"));
}

// A cluster of two kinds of labels cut as the splitter would.
TEST(splitting, what_is_left_decides) {
  for (const int rest : {50, 49, 5}) {
    small_session session;
    make_three_clusters(*session, 130);
    const std::vector<std::int32_t> list = list_cluster_events(*session, 1);
    std::vector<std::int32_t> labels(list.size(), 2);
    for (int i = 0; i < rest; ++i) labels[i] = 1;
    labels[rest] = gac_label_limit;
    const split_result result = apply_split(*session, 1, list, labels, 2);
    EXPECT_EQ(result.created, rest == 50);
    EXPECT_EQ(session->clusters.n_clusters, rest == 50 ? 4 : 3);
    EXPECT_EQ(count_cluster_events(*session, 1), rest == 50 ? 50 : 130 - rest - 1);
    EXPECT_EQ(session.user.logged("Not enough events in remaining cluster; will delete them"),
              rest != 50);
  }
  small_session full;
  make_three_clusters(*full, 130);
  full->max_clusters = 3;
  const std::vector<std::int32_t> list = list_cluster_events(*full, 1);
  std::vector<std::int32_t> labels(list.size(), 2);
  for (int i = 0; i < 60; ++i) labels[i] = 1;
  EXPECT_TRUE(apply_split(*full, 1, list, labels, 2).limit_reached);
  EXPECT_TRUE(full.user.logged("Cannot create new cluster, maximum number reached"));
  EXPECT_EQ(count_cluster_events(*full, 1), 130);
}

TEST(splitting, a_cluster_of_two_units_is_cut_and_signed_off) {
  small_session session;
  make_busy_recording(*session, 4, 400000, 77);
  // Everything on channel 2 in one cluster: a unit of its own and the wide one.
  for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
    session->events.event_cluster[e] = session->events.event_channel[e] == 2 ? 1 : 0;
  }
  session->clusters.n_clusters = 1;
  calculate_all_templates(*session);
  const split_outcome outcome = split_cluster(*session, 1);
  EXPECT_FALSE(outcome.too_small);
  const std::int32_t n = session->clusters.n_clusters;
  EXPECT_GE(n, 2);
  EXPECT_TRUE(session->clusters.cluster_signed_off[1]);
  EXPECT_GT(session->clusters.cluster_sigma[1], 5.0f);
  EXPECT_TRUE(session.user.logged(" Unable to find subclusters"));
  EXPECT_EQ(check_session(*session), "");

  // An empty number is passed over with a word.
  session->events.event_cluster.clear();
  EXPECT_EQ(split_cluster(*session, 1).cluster, n + 1);
  EXPECT_TRUE(session.user.logged("Invalid cluster #1"));
}

TEST(duplicates, the_worse_of_two_leaves) {
  small_session session;
  make_recording(*session, 3, 4000);
  event_table& events = session->events;
  const int times[] = {100, 103, 108, 900, 912}, channels[] = {2, 2, 1, 1, 3};
  for (int e = 1; e <= 5; ++e) {
    events.event_time[e] = times[e - 1];
    events.event_channel[e] = channels[e - 1];
    events.event_cluster[e] = 1;
    events.event_detected_time[e] = times[e - 1] + 1;
  }
  events.n_events = 5;
  session->clusters.n_clusters = 1;
  session->templates.template_y[1] = 40.0f;  // the site of channel 2
  EXPECT_EQ(remove_duplicate_events(*session, false), 4);
  EXPECT_EQ(mark_duplicate_events(*session), 4);
  EXPECT_EQ(events.event_subcluster[1], 1);
  EXPECT_EQ(remove_duplicates_by_hand(*session), 3);
  EXPECT_TRUE(session.user.logged("Post-processing:3 duplicate events removed from clusters"));
  EXPECT_EQ(events.event_cluster[1], 0);  // equal distance: the earlier
  EXPECT_EQ(events.event_time[1], 101);
  EXPECT_EQ(events.event_cluster[2], 1);
  EXPECT_EQ(events.event_cluster[3], 0);
  EXPECT_EQ(events.event_cluster[4], 0);
  EXPECT_EQ(events.event_cluster[5], 1);
}

}  // namespace
}  // namespace kestrelvane::test

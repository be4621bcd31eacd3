// Tools over a whole sort: what they take, what they leave, and the order of clusters.
#include "review/post_processing.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <set>

#include "clustering/templates.h"
#include "review/alignment_score.h"
#include "review_fixture.h"
#include "session/modes.h"
#include "session/pair_index.h"
#include "sorting/cluster_edits.h"
#include "sorting/duplicates.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;

struct post_processing_test : review_test {
  // An event of the first on the same spike, so many samples away from it, at the end of the table.
  std::int32_t add_twin(std::int32_t e, std::int32_t samples) {
    event_table& events = session->events;
    const std::int32_t twin = ++events.n_events;
    for_each_column([&](auto& column) { column[twin] = column[e]; }, events);
    events.event_time[twin] += samples;
    events.event_detected_time[twin] += samples;
    return twin;
  }
};

TEST_F(post_processing_test, counts_and_one_undo) {
  session->clusters.n_clusters = 0;
  EXPECT_FALSE(begin_post_processing(*session));
  session->clusters.n_clusters = 6;
  ASSERT_TRUE(begin_post_processing(*session));
  const std::vector<double> before = fingerprint();
  const std::vector<std::int32_t> of_1 = events_of(1);
  remove_events(*session, {of_1[0], of_1[1], of_1[2]});
  label(of_1[3]) = 1;
  label(of_1[0]) = 1;
  const sort_counts counts = count_sort(*session);
  EXPECT_EQ(counts.n_unclustered, 3);
  EXPECT_EQ(counts.n_marked, 1) << "what is in no cluster is not marked";
  const double per_cent = 100.0 * (counts.n_events - 3) / counts.n_events;
  EXPECT_NEAR(counts.percent_clustered, per_cent, 0.005 + 1e-9);
  delete_cluster(*session, 2);
  ASSERT_TRUE(undo_post_processing(*session));
  EXPECT_TRUE(session.user.told("All changes undone!", "Post-processing"));
  EXPECT_EQ(fingerprint(), before);
}

TEST_F(post_processing_test, duplicates_leave_and_everything_follows) {
  // The events of one cluster lie 40 samples apart or more, and the lockout is below that.
  const std::int32_t e = session->events.n_events;
  const std::int32_t cluster = session->events.event_cluster[e];
  const std::int32_t twin = add_twin(e, 3);
  session->events.event_time[e] += 1;  // since it was detected
  ASSERT_EQ(remove_duplicate_events(*session, false), 1);
  EXPECT_EQ(remove_duplicates_after_sort(*session), 1);
  // On a tie of distances the earlier goes, to where it was detected.
  EXPECT_EQ(session->events.event_cluster[e], 0);
  EXPECT_EQ(session->events.event_time[e], session->events.event_detected_time[e]);
  EXPECT_EQ(session->events.event_cluster[twin], cluster);
  EXPECT_TRUE(session.user.logged("Post-processing:1 duplicate events removed from clusters"));
  EXPECT_THAT(session.user.changes.back().before, ElementsAre(cluster));
  expect_consistent();
  EXPECT_EQ(remove_duplicates_after_sort(*session), 0);
}

TEST_F(post_processing_test, a_duplicate_is_relocated_to_its_own_spike) {
  event_table& events = session->events;
  session->events.event_detected_time.clear();
  EXPECT_EQ(relocate_duplicate_events(*session).n_relocated, -1);
  EXPECT_TRUE(session.user.told("Initial event times not present in data", "Post-processing"));
  // Two neighbours of cluster 3; the later was detected near its own spike and has wandered to the
  // earlier one's.
  std::int32_t a = 0, b = 0;
  for (const std::int32_t e : events_of(3)) {
    a = b;
    b = e;
    if (a != 0 && events.event_time[b] - events.event_time[a] > 200 && b - a < 50) break;
  }
  const std::int32_t own_place = events.event_time[b];
  events.event_detected_time[a] = events.event_time[a];
  events.event_detected_time[b] = own_place + 5;
  events.event_time[b] = events.event_time[a] + 2;
  session->review.relocate_sd_factor = -1000;
  relocation_counts counts = relocate_duplicate_events(*session);
  EXPECT_EQ(counts.n_relocated, 1);
  EXPECT_EQ(counts.n_duplicates, 0);
  EXPECT_NEAR(events.event_time[b], own_place, 1);
  EXPECT_EQ(session.user.changes.size(), 1u);
  expect_consistent();
  // A fit that is not sharp enough puts it back, and so does one that ends where it was.
  events.event_time[b] = events.event_time[a] + 2;
  session->review.relocate_sd_factor = 1000;
  EXPECT_EQ(relocate_duplicate_events(*session).n_relocated, 0);
  session->review.relocate_sd_factor = -1000;
  events.event_detected_time[b] = events.event_time[a] + 3;
  counts = relocate_duplicate_events(*session);
  EXPECT_EQ(counts.n_relocated, 0);
  EXPECT_EQ(counts.n_duplicates, 1);
  EXPECT_EQ(events.event_time[b], events.event_time[a] + 2);
  // Without a time of detection it is passed over.
  events.event_detected_time[b] = 0;
  EXPECT_EQ(relocate_duplicate_events(*session).n_relocated, 0);
}

TEST_F(post_processing_test, badly_aligned_events_are_marked_or_removed) {
  std::vector<std::int32_t> bad;
  session->review.clean_threshold = 6.0f;
  for (std::int32_t c = 1; c <= n(); ++c) {
    std::vector<float> scores;
    const std::vector<std::int32_t> list = events_of(c);
    ASSERT_TRUE(measure_alignment(*session, c, list, scores));
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (scores[i] < 6.0f) bad.push_back(list[i]);
    }
  }
  std::sort(bad.begin(), bad.end());
  ASSERT_GT(bad.size(), 5u);
  label(events_of(1)[0]) = 3;
  const std::string count = std::to_string(bad.size());
  // Interrupted, it has done nothing.
  const std::vector<double> before = fingerprint();
  session->operation.polls = 0;
  session->operation.interrupt_at_poll = 3;
  EXPECT_EQ(alignment_clean(*session, false), -1);
  EXPECT_EQ(fingerprint(), before);
  session->operation.interrupt_at_poll = -1;
  session->operation.autosort_interrupt = false;
  EXPECT_EQ(alignment_clean(*session, true), static_cast<std::int32_t>(bad.size()));
  EXPECT_EQ(labelled(), bad);
  EXPECT_TRUE(labelled(3).empty());
  EXPECT_TRUE(session.user.logged("Alignment marking marked " + count));
  EXPECT_TRUE(session.user.logged("sharpness value for cluster 6"));
  const std::int32_t n_events = session->events.n_events;
  EXPECT_EQ(alignment_clean(*session, false), static_cast<std::int32_t>(bad.size()));
  EXPECT_EQ(count_events_by_cluster(*session)[0], static_cast<std::int32_t>(bad.size()));
  EXPECT_EQ(session->events.n_events, n_events);
  EXPECT_TRUE(session.user.logged("Alignment cleaning removed " + count + " events"));
  EXPECT_TRUE(session.user.logged("Post-processing: alignment cleaning removed " + count +
                                  " events from clusters"));
  expect_consistent();
}

TEST_F(post_processing_test, shifted_and_labelled_events_leave_after_a_question) {
  event_table& events = session->events;
  const std::vector<std::int32_t> of_4 = events_of(4);
  // The window is 0.5 ms, 12.5 samples.
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    events.event_detected_time[e] = events.event_time[e];
  }
  events.event_detected_time[of_4[0]] = events.event_time[of_4[0]] + 12;
  events.event_detected_time[of_4[1]] = events.event_time[of_4[1]] + 13;
  events.event_detected_time[of_4[2]] = events.event_time[of_4[2]] - 13;
  events.event_detected_time[of_4[3]] = 0;
  EXPECT_EQ(delete_shifted_events(*session), -1) << "he would rather not";
  EXPECT_TRUE(session.user.asked(
      "This will delete events that have shifted in time since they were detected. These are "
      "usually small and noisy.",
      "Are you sure?"));
  session.user.default_answer = true;
  EXPECT_EQ(delete_shifted_events(*session), 2);
  EXPECT_EQ(events.event_cluster[of_4[0]], 4);
  EXPECT_EQ(events.event_cluster[of_4[1]], 0);
  EXPECT_EQ(events.event_cluster[of_4[2]], 0);
  EXPECT_EQ(events.event_cluster[of_4[3]], 4);

  EXPECT_EQ(remove_labelled_events(*session), -1) << "there is none";
  label(of_4[0]) = 1;
  label(of_4[4]) = 100;
  label(of_4[1]) = 1;  // in no cluster
  session.user.default_answer = false;
  EXPECT_EQ(remove_labelled_events(*session), -1);
  EXPECT_TRUE(
      session.user.asked("This will delete 2 marked events from clusters!", "Are you sure?"));
  session.user.default_answer = true;
  EXPECT_EQ(remove_labelled_events(*session), 2);
  EXPECT_EQ(events.event_cluster[of_4[0]], 0);
  EXPECT_EQ(label(of_4[0]), 0);
  EXPECT_TRUE(session.user.logged("Post-processing:2 marked events removed from clusters"));
  clear_subcluster_labels(*session);
  EXPECT_EQ(label(of_4[1]), 0);
  EXPECT_TRUE(session.user.told("All sub-cluster labelling removed; events remain in clusters"));
  expect_consistent();
}

TEST_F(post_processing_test, weak_clusters_go) {
  // Neighbours in the table, which close up when one goes.
  std::vector<std::int32_t> leaving;
  for (const std::int32_t c : {3, 4}) {
    const std::vector<std::int32_t> list = events_of(c);
    leaving.insert(leaving.end(), list.begin() + 5, list.end());
  }
  std::sort(leaving.begin(), leaving.end());
  remove_events(*session, leaving);
  session->review.delete_measure = delete_by_size;
  session->review.delete_size_limit = 5;
  EXPECT_EQ(delete_weak_clusters(*session), 0) << "strictly below";
  session->review.delete_size_limit = 6;
  EXPECT_EQ(delete_weak_clusters(*session), 2);
  EXPECT_EQ(n(), 4);
  EXPECT_TRUE(session.user.logged("Post-processing:2 clusters were deleted"));
  expect_consistent();
  session->review.delete_size_limit = 1'000'000;
  EXPECT_EQ(delete_weak_clusters(*session), -1);
  EXPECT_TRUE(session.user.asked("This will delete all the clusters!", "Are you sure?"));
  EXPECT_EQ(n(), 4);
  session->review.delete_measure = delete_by_snr;
  session->recording.is_continuous = false;
  EXPECT_EQ(delete_weak_clusters(*session), -1);
  EXPECT_TRUE(session.user.told("Can't sort based on S/N ratio for event based recording!"));
}

// The keys of the orders in another form, read after the renumbering.
double key_of(session_state& s, std::int32_t order, std::int32_t c) {
  const std::int32_t channel = s.templates.centre_channel(c);
  const float* mean = s.templates.mean(c, channel);
  const float* sd = s.templates.sd(c, channel);
  const std::int32_t points = s.templates.template_points;
  const auto [low, high] = std::minmax_element(mean + 1, mean + 1 + points);
  double key = 0;
  switch (order) {
    case order_by_y:
      return s.templates.template_y[c];
    case order_by_x:
      return s.templates.template_x[c];
    case order_by_channel:
      return channel;
    case order_by_amplitude:
      return *high - *low;
    case order_by_snr:
      return (*high - *low) / s.recording.chan_noise[channel];
    case order_by_size:
      return count_cluster_events(s, c);
    case order_by_ambiguity:
      key = -1e9;
      for (std::int32_t other = 1; other <= s.clusters.n_clusters; ++other) {
        if (other == c) continue;
        const auto [a, b] = std::minmax(c, other);
        const float overlap = s.lists.kv_cluster_overlap[pair_index(s.clusters.n_clusters, a, b)];
        key = std::max(key, double{overlap});
      }
      return key;
    case order_by_quality: {
      const double s1 = sd[high - mean], s2 = sd[low - mean];
      return (*high - *low) / std::sqrt(2 * (s1 * s1 + s2 * s2));
    }
    case order_by_marks:
      for (const std::int32_t e : list_cluster_events(s, c))
        key += s.events.event_subcluster[e] > 0;
      return key;
    default:
      for (std::int32_t t = 1; t <= points; ++t) {
        if (std::fabs(mean[t]) == std::max(std::fabs(*low), std::fabs(*high))) return t;
      }
  }
  return key;
}

TEST_F(post_processing_test, ten_orders) {
  for (std::int32_t c = 1; c <= 4; ++c) {
    session->recording.chan_noise[c] = static_cast<float>(10 + 7 * c % 5);
  }
  vector_random random{3};
  for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
    label(e) = (random.next() >> 16) % 3 == 0 ? 1 : 0;
  }
  std::set<std::string> messages;
  for (const mode_label& row : renumber_orders()) {
    for (const bool increasing : {true, false}) {
      session->review.renumber_order = row.value;
      session->review.renumber_increasing = increasing;
      std::vector<double> old_keys;
      for (std::int32_t c = 1; c <= n(); ++c) old_keys.push_back(key_of(*session, row.value, c));
      session->clusters.current_cluster = 3;
      session.user.lines.clear();
      ASSERT_TRUE(renumber_clusters(*session)) << row.label;
      EXPECT_EQ(session->clusters.current_cluster, 1);
      const std::vector<std::int32_t> order = session.user.changes.back().before;
      EXPECT_NE(session.user.logged("Updating cluster number"),
                std::is_sorted(order.begin(), order.end()))
          << row.label;
      for (std::int32_t c = 1; c < n(); ++c) {
        const double here = key_of(*session, row.value, c);
        const double next = key_of(*session, row.value, c + 1);
        EXPECT_TRUE(increasing ? here <= next : here >= next) << row.label << " " << c;
        EXPECT_NEAR(here, old_keys[static_cast<std::size_t>(order[c - 1] - 1)], 1e-6);
        // Equal ones keep their order.
        EXPECT_TRUE(here != next || order[c - 1] < order[c]) << row.label;
      }
      expect_consistent();
    }
    messages.insert(session.user.lines.back());
  }
  std::set<std::string> known;
  for (const char* key : {"vertical position", "horizontal position", "channel number",
                          "P-P amplitude", "spike S/N ratio", "size", "ambiguity",
                          "template quality", "number of marked events", "time to peak"}) {
    known.insert(std::string("Clusters renumbered by ") + key + ".");
  }
  EXPECT_EQ(messages, known);
}

TEST_F(post_processing_test, orders_that_are_refused) {
  const std::vector<double> before = fingerprint();
  session->review.renumber_order = order_by_marks;
  EXPECT_FALSE(renumber_clusters(*session));
  EXPECT_TRUE(session.user.told("There are no marked events!"));
  session->review.renumber_order = order_by_snr;
  session->recording.is_continuous = false;
  EXPECT_FALSE(renumber_clusters(*session));
  EXPECT_TRUE(session.user.told("Can't sort based on S/N ratio for event based recording!"));
  EXPECT_EQ(fingerprint(), before);
  // Ambiguity needs lists, which are made when the user says so.
  session->recording.is_continuous = true;
  session->lists.n_kv_pairs = 0;
  session->review.renumber_order = order_by_ambiguity;
  EXPECT_FALSE(renumber_clusters(*session));
  session.user.default_answer = true;
  EXPECT_TRUE(renumber_clusters(*session));
  EXPECT_EQ(session->lists.n_kv_pairs, 15);
}

// All tools in any order, with the interrupt now and then.
TEST_F(post_processing_test, random_tools_leave_a_whole_session) {
  session.user.default_answer = true;
  session->review.delete_measure = delete_by_size;
  session->review.delete_size_limit = 20;
  session->review.relocate_sd_factor = -3;
  session->review.clean_threshold = 4.0f;
  const std::vector<std::function<void()>> tools = {
      [&] { mark_duplicate_events(*session); },
      [&] { remove_duplicates_after_sort(*session); },
      [&] { relocate_duplicate_events(*session); },
      [&] { alignment_clean(*session, true); },
      [&] { alignment_clean(*session, false); },
      [&] { remove_labelled_events(*session); },
      [&] { delete_shifted_events(*session); },
      [&] { reclaim_lost_events(*session, reclaim_selectivity::low); },
      [&] { delete_weak_clusters(*session); },
      [&] { renumber_clusters(*session); },
  };
  ASSERT_TRUE(begin_post_processing(*session));
  const std::vector<double> before = fingerprint();
  vector_random random{8};
  for (int step = 0; step < 80 && n() > 1; ++step) {
    session->review.renumber_order = 1 + step % 10;
    session->operation.polls = 0;
    session->operation.interrupt_at_poll = step % 7 == 0 ? step % 5 + 1 : -1;
    tools[(random.next() >> 16) % tools.size()]();
    session->operation.autosort_interrupt = false;
    expect_consistent();
  }
  ASSERT_TRUE(undo_post_processing(*session));
  EXPECT_EQ(fingerprint(), before);
}

}  // namespace
}  // namespace kestrelvane::test

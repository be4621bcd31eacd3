// Lost events come back to the cluster that they belong to, and others stay where they are.
#include "review/reclaim.h"

#include <gmock/gmock.h>

#include "review/cluster_marks.h"
#include "review_fixture.h"
#include "session/template_window.h"
#include "sorting/cluster_edits.h"

namespace kestrelvane::test {
namespace {

// Every fifth event of cluster 2 is lost, and lies two samples off.
struct reclaim_test : review_test {
  std::vector<std::int32_t> lost;

  reclaim_test() : review_test(200000) {
    const std::vector<std::int32_t> list = events_of(2);
    for (std::size_t i = 0; i < list.size(); i += 5) lost.push_back(list[i]);
    remove_events(*session, lost);
    for (const std::int32_t e : lost) session->events.event_time[e] += 2;
    session->clusters.current_cluster = 2;
  }
  std::int32_t cluster_of(std::int32_t e) { return session->events.event_cluster[e]; }
};

TEST_F(reclaim_test, most_come_back_to_their_own_cluster) {
  session->preferences.verbose_log = true;
  reclaim_counts counts;
  ASSERT_TRUE(reclaim_events(*session, reclaim_selectivity::medium, counts));
  EXPECT_EQ(counts.n_candidates, static_cast<std::int32_t>(lost.size()));
  EXPECT_GE(counts.n_first_match, counts.n_restored);
  std::int32_t n_back = 0;
  for (const std::int32_t e : lost) {
    n_back += cluster_of(e) == 2;
    EXPECT_EQ(label(e), cluster_of(e) == 2 ? 1 : 0);
  }
  EXPECT_EQ(n_back, counts.n_gained());
  EXPECT_GT(n_back, static_cast<std::int32_t>(lost.size() / 3));
  EXPECT_EQ(session.user.changes.back().kind, cluster_change_kind::moved_events);
  EXPECT_TRUE(session.user.logged("imax="));
  EXPECT_TRUE(session.user.logged(" thr="));
  EXPECT_TRUE(session.user.logged("# of events restored  =" + std::to_string(counts.n_restored)));
  EXPECT_TRUE(session.user.logged("n_first match  =" + std::to_string(counts.n_first_match)));
  EXPECT_TRUE(session.user.logged("# of potential matches=" + std::to_string(lost.size())));
  EXPECT_TRUE(session.user.logged("n relabelled on final check="));
  EXPECT_THAT(session.user.run_log_window,
              testing::Contains(testing::HasSubstr("restoring event ")));
  expect_consistent();
  const std::vector<double> after = fingerprint();

  // Another cluster that shares channels takes none of them; high selectivity takes fewer.
  ASSERT_TRUE(undo_cluster_review(*session));
  session->clusters.current_cluster = 3;
  ASSERT_TRUE(reclaim_events(*session, reclaim_selectivity::medium, counts));
  for (const std::int32_t e : lost) EXPECT_NE(cluster_of(e), 3);
  session->clusters.current_cluster = 2;
  ASSERT_TRUE(reclaim_events(*session, reclaim_selectivity::high, counts));
  EXPECT_LT(counts.n_gained(), n_back);

  // Any number of threads gives the same bits.
  undo_cluster_review(*session);
  session->clusters.current_cluster = 2;
  use_threads(*session, 3);
  ASSERT_TRUE(reclaim_events(*session, reclaim_selectivity::medium, counts));
  EXPECT_EQ(fingerprint(), after);
}

// What is refused lies where it lay: to the sample and to its fraction.
TEST_F(reclaim_test, refused_events_are_put_back) {
  const event_table& events = session->events;
  // A second sight of a spike that the cluster has, and noise.
  const std::int32_t twin = lost[0], noise = lost[1];
  const std::int32_t member = events_of(2)[7];
  session->events.event_time[twin] = events.event_time[member] + 1;
  session->events.event_time[noise] = events.event_time[member] + 60;
  const std::vector<std::int32_t> times(events.event_time.first(),
                                        events.event_time.first() + events.n_events);
  const std::vector<float> shifts(events.event_shift.first(),
                                  events.event_shift.first() + events.n_events);
  reclaim_counts counts;
  ASSERT_TRUE(reclaim_events(*session, reclaim_selectivity::low, counts));
  EXPECT_EQ(cluster_of(twin), 0);
  EXPECT_EQ(cluster_of(noise), 0);
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (cluster_of(e) != 0) continue;
    EXPECT_EQ(events.event_time[e], times[static_cast<std::size_t>(e - 1)]);
    EXPECT_EQ(events.event_shift[e], shifts[static_cast<std::size_t>(e - 1)]);
  }
}

// Two components see little of a waveform: what does not show in them must lie near the template.
TEST_F(reclaim_test, the_whole_waveform_counts) {
  reclaim_counts counts;
  ASSERT_TRUE(reclaim_events(*session, reclaim_selectivity::medium, counts));
  std::vector<std::int32_t> restored;
  for (const std::int32_t e : lost) {
    if (cluster_of(e) == 2) restored.push_back(e);
  }
  ASSERT_GT(restored.size(), 5u);
  // Something stands on the quiet start of the window, where no component looks.
  std::int16_t* v = session->recording.vd.channel(2) + window_first_sample(*session);
  for (const std::int32_t e : restored) {
    for (std::int32_t i = 1; i <= 4; ++i) v[session->events.event_time[e] + i] += 300;
  }
  undo_cluster_review(*session);
  ASSERT_TRUE(reclaim_events(*session, reclaim_selectivity::medium, counts));
  EXPECT_GT(counts.n_first_match, static_cast<std::int32_t>(restored.size() / 2));
  for (const std::int32_t e : restored) EXPECT_EQ(cluster_of(e), 0);
}

// Interrupted at any of its polls, it leaves a whole session.
TEST_F(reclaim_test, all_clusters_in_turn_until_interrupted) {
  const std::vector<double> before = fingerprint();
  for (const std::int64_t poll : {1, 2, 3, 4, 7}) {
    session->operation.polls = 0;
    session->operation.interrupt_at_poll = poll;
    reclaim_lost_events(*session, reclaim_selectivity::medium);
    expect_consistent();
    if (poll == 1) {
      EXPECT_EQ(fingerprint(), before);
    }
    session->operation.autosort_interrupt = false;
  }
  session->operation.interrupt_at_poll = -1;
  remove_events(*session, lost);
  const std::int32_t n = reclaim_lost_events(*session, reclaim_selectivity::medium);
  std::int32_t n_back = 0, n_right = 0;
  for (const std::int32_t e : lost) {
    n_back += cluster_of(e) != 0;
    n_right += cluster_of(e) == 2;
  }
  EXPECT_EQ(n, n_back);
  EXPECT_GE(10 * n_right, 9 * n_back);
  EXPECT_GT(n_right, 0);
  expect_consistent();
}

}  // namespace
}  // namespace kestrelvane::test

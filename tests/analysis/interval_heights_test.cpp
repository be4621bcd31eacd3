// Heights after intervals, and the test of their difference, by known numbers.
#include "analysis/interval_heights.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct height_test : ::testing::Test {
  small_session session;

  height_test() { make_recording(*session, 2, 60000, 20000, 0.5f); }
  // A trough of so many bits on channel 2.
  void put_spike(std::int32_t time, int height, std::int32_t unit) {
    put_samples(*session, 2, time, {-height, height / 2});
    event_table& events = session->events;
    const std::int32_t e = ++events.n_events;
    events.event_time[e] = time;
    events.event_channel[e] = 2;
    events.event_cluster[e] = unit;
    session->clusters.n_clusters = std::max(session->clusters.n_clusters, unit);
    session->templates.channels(unit)[1] = 2;
  }
};

TEST_F(height_test, a_spike_is_paired_with_the_last_before_it) {
  put_spike(1000, 100, 1);
  put_spike(1100, 80, 1);   // 5 ms
  put_spike(1500, 96, 1);   // 20 ms
  put_spike(1560, 40, 2);   // 3 ms after the last of unit 1
  put_spike(9500, 100, 1);  // 400 ms
  const interval_heights own = measure_interval_heights(*session, 1, 1, 100, 10);
  EXPECT_EQ(own.n_spikes, 4);
  EXPECT_EQ(own.ms, (std::vector<float>{5, 20}));
  EXPECT_EQ(own.uv, (std::vector<float>{60, 72}));
  EXPECT_EQ(own.n_short, 1);
  EXPECT_EQ(own.p_value, 1.0f) << "too few to tell";
  const interval_heights cross = measure_interval_heights(*session, 2, 1, 100, 10);
  EXPECT_EQ(cross.ms, std::vector<float>{3});
  EXPECT_EQ(cross.uv, std::vector<float>{30});
  EXPECT_EQ(interval_heights_title(own), "ISI dependence Unit 1");
  const graph_data graph = make_interval_heights_graph(cross);
  EXPECT_EQ(graph.title, "ISI co-dependence");
  EXPECT_EQ(graph.labels[label_x_axis], "msecs");
  EXPECT_EQ(graph.labels[label_y_axis], "Spike height");
  EXPECT_TRUE(measure_interval_heights(*session, 7, 1, 100, 10).ms.empty());
}

TEST_F(height_test, the_p_value_is_that_of_the_t_distribution) {
  // Intervals of 5 and 30 ms in turn. After short ones 80, 84, 88 and 92 bits, after long ones
  // 96, 100, 104 and 108: in µV means of 64.5 and 76.5, t = -12 / sqrt(15 / 2) with 6 degrees
  // of freedom.
  std::int32_t time = 1000;
  put_spike(time, 100, 1);
  for (int i = 0; i < 4; ++i) {
    put_spike(time += 100, 80 + 4 * i, 1);
    put_spike(time += 600, 96 + 4 * i, 1);
  }
  const interval_heights result = measure_interval_heights(*session, 1, 1, 100, 10);
  ASSERT_EQ(result.ms.size(), 8u);
  EXPECT_EQ(result.n_short, 4);
  EXPECT_NEAR(result.p_value, 0.0046592, 1e-6);
  EXPECT_EQ(session.user.logged("ysum=0"), false);
}

TEST_F(height_test, ByItselfTheMedianSplitsAndAMeanRuns) {
  // Intervals of 2, 3, .. 41 ms, each height as many bits as 100 and the interval in ms.
  std::int32_t time = 1000;
  put_spike(time, 100, 1);
  for (int i = 2; i <= 41; ++i) put_spike(time += 20 * i, 100 + 2 * i, 1);
  const interval_heights result = measure_interval_heights(*session, 1, 1, 200);
  EXPECT_EQ(result.dt_ms, 21.0f) << "the 20th of 40";
  EXPECT_EQ(result.n_short, 19);
  EXPECT_LT(result.p_value, 1e-6f);
  const graph_data graph = make_interval_heights_graph(result);
  ASSERT_EQ(graph.series[1].x.size(), 30u) << "five at either end have too few neighbours";
  for (std::size_t i = 0; i < 30; ++i) {
    // A line stays a line.
    EXPECT_NEAR(graph.series[1].y[i], 0.75f * (100 + 2 * graph.series[1].x[i]), 1e-3f);
  }
}

}  // namespace
}  // namespace kestrelvane::test

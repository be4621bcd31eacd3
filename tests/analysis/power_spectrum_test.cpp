// The power spectrum and the autocorrelogram against time, by signals and trains that are known.
#include "analysis/power_spectrum.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <random>

#include "analysis/autocorrelation_time.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct spectrum_test : ::testing::Test {
  small_session session;

  // White noise of 20 bits on three channels of 10 kHz, 0.5 µV a bit.
  spectrum_test() {
    make_recording(*session, 3, 100'000, 10'000, 0.5f);
    std::mt19937 random(3);
    std::normal_distribution<double> noise(0, 20);
    for (std::int32_t c = 1; c <= 3; ++c) {
      std::int16_t* v = session->recording.vd.channel(c);
      for (std::int32_t t = 1; t <= 100'000; ++t)
        v[t] = static_cast<std::int16_t>(std::lround(noise(random)));
    }
  }
  void add_sine(std::int32_t channel, double hz, double bits) {
    std::int16_t* v = session->recording.vd.channel(channel);
    for (std::int32_t t = 1; t <= 100'000; ++t) {
      v[t] = static_cast<std::int16_t>(
          std::lround(v[t] + bits * std::sin(2 * M_PI * hz * t / 10'000)));
    }
  }
  static double power_of(const power_spectrum& s, const std::vector<float>& density) {
    return double{s.step_hz} * std::accumulate(density.begin(), density.end(), 0.0);
  }
};

TEST_F(spectrum_test, the_density_adds_up_to_the_power_of_the_signal) {
  const power_spectrum s = measure_power_spectrum(*session);
  ASSERT_EQ(s.channels, (std::vector<std::int32_t>{1, 2, 3}));
  // 20 bits are 10 µV: 100 µV² over 5000 Hz.
  EXPECT_NEAR(power_of(s, s.mean), 100, 2);
  for (std::size_t k = 10; k < 2000; k += 100) EXPECT_NEAR(s.mean[k], 0.02, 0.006) << k;
  for (std::size_t k = 1; k < s.mean.size(); ++k) {
    ASSERT_LE(s.low[k], s.mean[k]);
    ASSERT_GE(s.high[k], s.mean[k]);
  }
  // A sine of 40 µV has a power of 800 µV², all of it near its frequency.
  add_sine(2, 1000, 80);
  const power_spectrum sine = measure_power_spectrum(*session, {2});
  const auto at = static_cast<std::ptrdiff_t>(std::lround(1000 / sine.step_hz));
  const auto line = sine.mean.begin() + at;
  EXPECT_NEAR(double{sine.step_hz} * std::accumulate(line - 3, line + 4, 0.0), 800, 5);
  EXPECT_EQ(sine.mean, sine.low);
}

TEST_F(spectrum_test, mains_lines_are_found_where_they_are) {
  EXPECT_TRUE(find_mains_lines(measure_power_spectrum(*session)).empty());
  for (const std::int32_t c : {1, 2, 3}) {
    add_sine(c, 50, 10);
    add_sine(c, 150, 10);
  }
  const power_spectrum s = measure_power_spectrum(*session);
  EXPECT_EQ(find_mains_lines(s), (std::vector<float>{50, 150}));
  const graph_data graph = make_spectrum_graph(s, 2);
  EXPECT_EQ(graph.labels[label_legend + 3], "Channel 2");
  EXPECT_EQ(graph.labels[label_legend + 4], "Mains: 50, 150 Hz");
  EXPECT_NEAR(graph.series[0].y[999], 10 * std::log10(s.mean[1000]), 1e-4);
}

TEST_F(spectrum_test, the_same_bits_at_any_number_of_threads) {
  const power_spectrum one = measure_power_spectrum(*session);
  use_threads(*session, 3);
  EXPECT_EQ(measure_power_spectrum(*session).of_channel, one.of_channel);
  session->recording.chan_mask[2] = true;
  EXPECT_EQ(measure_power_spectrum(*session).channels, (std::vector<std::int32_t>{1, 3}));
  session->operation.autosort_interrupt = true;
  EXPECT_TRUE(measure_power_spectrum(*session).mean.empty());
  // Shorter than a stretch.
  make_recording(*session, 1, 4000, 10'000);
  session->operation.autosort_interrupt = false;
  EXPECT_TRUE(measure_power_spectrum(*session).mean.empty());
  EXPECT_TRUE(make_spectrum_graph({}, 1).series[0].x.empty());
}

TEST(autocorrelation_time, each_window_has_the_pairs_of_its_own_spikes) {
  small_session session;
  make_recording(*session, 1, 600'000, 10'000);  // 60 s: twelve windows of 5 s
  session->clusters.n_clusters = 1;
  // Every 20 ms for 5 s, then none, then every 10 ms from 50 s on for 1 s.
  event_table& events = session->events;
  const auto add = [&](std::int32_t time) {
    events.event_time[++events.n_events] = time;
    events.event_cluster[events.n_events] = 1;
  };
  for (std::int32_t i = 0; i < 250; ++i) add(50 + 200 * i);
  for (std::int32_t i = 0; i < 100; ++i) add(500'050 + 100 * i);
  const autocorrelation_time result = measure_autocorrelation_time(*session, 1, 1);
  ASSERT_EQ(result.n_windows, 12);
  EXPECT_EQ(result.spikes[0], 250);
  EXPECT_EQ(result.spikes[10], 100);
  EXPECT_EQ(std::accumulate(result.spikes.begin(), result.spikes.end(), 0), 350);
  EXPECT_DOUBLE_EQ(result.rate(0), 50);
  const auto pairs = [&](int window, int lag) {
    return result.pairs[window * result.n_lags + lag];
  };
  EXPECT_EQ(pairs(0, 20), 249);
  EXPECT_EQ(pairs(0, 40), 248);
  EXPECT_EQ(pairs(0, 10), 0);
  EXPECT_EQ(pairs(10, 10), 99);
  // 249 of 250 spikes are followed by one in a bin of 1 ms.
  EXPECT_NEAR(result.conditional_rate(0, 20), 996, 1e-6);
  EXPECT_EQ(result.conditional_rate(5, 20), 0);
  const graph_data graph = make_autocorrelation_time_graph(result);
  ASSERT_TRUE(has_image(graph));
  EXPECT_EQ(graph.series[0].third[20 * 12], 996);
  // The rate of 50 Hz, the greatest, at the top of the strip, none at the image's edge.
  EXPECT_EQ(graph.series[1].y[0], 75);
  EXPECT_EQ(graph.series[1].y[5], 60);
  EXPECT_EQ(measure_autocorrelation_time(*session, 2, 1).unit, 0);
  EXPECT_FALSE(has_image(make_autocorrelation_time_graph({})));
}

}  // namespace
}  // namespace kestrelvane::test

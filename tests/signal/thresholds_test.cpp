#include "signal/thresholds.h"

#include <gtest/gtest.h>

#include <cmath>

#include "signal/noise.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::small_session;

constexpr float vscale = 0.25f;

// Writes samples where the histogram looks, every fifth from the 50th on.
struct histogram_writer {
  std::int16_t* v;
  std::int32_t t = 50;

  void put(int value, int count) {
    for (int i = 0; i < count; ++i, t += 5) v[t] = static_cast<std::int16_t>(value);
  }
  // Counts of a Gaussian, s.d. in bins of four bits, without any tail.
  void put_gaussian(double sd) {
    for (int bin = -40; bin <= 40; ++bin) {
      const double count = 1000 * std::exp(-0.5 * bin * bin / (sd * sd));
      put(4 * bin + (bin == 0 ? 1 : 0), static_cast<int>(std::lround(bin == 0 ? 750 : count)));
    }
  }
};

struct threshold_session : small_session {
  threshold_session() {
    make_recording(*state, 4, 120000, 25000, vscale);
    for (int c = 1; c <= 4; ++c) state->recording.chan_noise[c] = 20;
  }
  histogram_writer channel(int c) { return {state->recording.vd.channel(c)}; }
};

TEST(AutoThresholds, WhereTheHistogramLeavesItsGaussian) {
  threshold_session s;
  histogram_writer first = s.channel(1);
  first.put_gaussian(5);
  for (const int bin : {-40, -26, 24, 22, 30}) first.put(4 * bin + 3, 4);
  first.put(32000, 50);  // beyond the histogram
  histogram_writer second = s.channel(2);
  second.put_gaussian(6);
  second.put(4 * -30, 4);
  s.channel(3).put_gaussian(5);
  s->recording.chan_mask[4] = true;  // an empty channel: nothing to fit
  compute_auto_thresholds(*s);
  const detection_state& d = s->detector;
  EXPECT_NEAR(d.auto_threshold_neg[1], -26 * 4 + 0.5f - 0.5f, 1e-3f);
  EXPECT_NEAR(d.auto_threshold_pos[1], 22 * 4 + 0.5f + 0.5f, 1e-3f);
  EXPECT_NEAR(d.auto_threshold_neg[2], -30 * 4, 1e-3f);
  // No shoulder: the mean of the others, of the same polarity.
  EXPECT_NEAR(d.auto_threshold_pos[2], 89, 1e-3f);
  EXPECT_NEAR(d.auto_threshold_neg[3], -112, 1e-3f);
  EXPECT_NEAR(d.auto_threshold_pos[4], 89, 1e-3f);
  EXPECT_TRUE(s.user.logged("Fixing some zero values derived from voltage shoulders"));
  EXPECT_TRUE(s.user.logged("Fitting error on channel 4"));
  EXPECT_FALSE(s.user.logged("Fitting error on channel 1"));
  EXPECT_TRUE(s.user.logged("   1    -25.88     22.12"));
  EXPECT_FALSE(s.user.logged("   4    "));  // masked

  s->detection.threshold_mode = 1;
  threshold_for_channel(*s, 1);
  EXPECT_EQ(s->detector.threshold_pos, 89);
  EXPECT_EQ(s->detector.threshold_neg, -104);

  for (int c = 2; c <= 4; ++c) {
    histogram_writer h = s.channel(c);
    h.put_gaussian(5);
    h.put(4 * 35, 3);
    h.put(4 * -35, 3);
  }
  compute_auto_thresholds(*s);
  EXPECT_TRUE(s.user.logged("Channel thresholds"));
}

TEST(AutoThresholds, NoShoulderAnywhereIsNeverReached) {
  threshold_session s;
  for (int c = 1; c <= 4; ++c) {
    histogram_writer h = s.channel(c);
    h.put_gaussian(5);
    h.put(4 * -25, 5);
  }
  compute_auto_thresholds(*s);
  s->detection.threshold_mode = 1;
  threshold_for_channel(*s, 2);
  EXPECT_GT(s->detector.threshold_pos, 32767);
  EXPECT_EQ(s->detector.threshold_neg, -100);
}

TEST(AutoThresholds, SameBitsOnThreadsAndOnShortRecordings) {
  threshold_session s;
  for (int c = 1; c <= 4; ++c) {
    s.channel(c).put_gaussian(3 + c);
    s.channel(c).put(4 * -30, 7 - c);
  }
  compute_auto_thresholds(*s);
  std::vector<float> alone;
  for (int c = 1; c <= 4; ++c) alone.push_back(s->detector.auto_threshold_neg[c]);
  s->multi_threaded_now = true;
  s->n_threads = 3;
  compute_auto_thresholds(*s);
  for (int c = 1; c <= 4; ++c) EXPECT_EQ(s->detector.auto_threshold_neg[c], alone[c - 1]);

  small_session small;
  make_recording(*small, 1, 100);
  test::put_samples(*small, 1, 50, {500, 500, 500});
  compute_auto_thresholds(*small);  // too short to be looked at
  EXPECT_TRUE(small.user.logged("Fitting error on channel 1"));
}

TEST(Thresholds, FixedVariableAndBadMode) {
  threshold_session s;
  s->detection.threshold_mode = -1;
  s->detection.fixed_threshold_uv = -80.2f;
  set_fixed_threshold_bits(*s);
  threshold_for_channel(*s, 1);
  EXPECT_EQ(s->detector.threshold_bits, -320);  // the sign tells the polarity
  EXPECT_EQ(s->detector.threshold_pos, 320);
  EXPECT_EQ(s->detector.threshold_neg, -320);

  s->detection.threshold_mode = 0;
  s->detection.variable_multiplier = 4.99f;
  threshold_for_channel(*s, 2);
  EXPECT_EQ(s->detector.threshold_bits, 99);
  EXPECT_EQ(s->detector.threshold_neg, -99);
  s->recording.chan_noise[2] = 30000;  // more than two bytes hold
  threshold_for_channel(*s, 2);
  EXPECT_EQ(s->detector.threshold_pos, 32767);
  s->recording.chan_noise[2] = 0;
  threshold_for_channel(*s, 2);
  EXPECT_EQ(s->detector.threshold_pos, 0);

  threshold_for_channel(*s, 1);
  s->detection.threshold_mode = 7;
  threshold_for_channel(*s, 2);
  EXPECT_TRUE(s.user.logged("Error in threshold selection flag"));
  EXPECT_EQ(s->detector.threshold_pos, 99);
}

}  // namespace
}  // namespace kestrelvane

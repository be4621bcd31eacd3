// Filters sample by sample, against numbers worked out by hand and against plain loops.
#include <gtest/gtest.h>

#include "signal/plain_filters.h"
#include "signal/time_filters.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::put_samples;
using test::samples;
using test::small_session;

samples channel_of(const session_state& session, std::int32_t c, std::int64_t n) {
  const std::int16_t* v = session.recording.vd.channel(c) + 1;
  return {v, v + n};
}

std::vector<samples> all_channels(const session_state& session) {
  std::vector<samples> all;
  for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
    all.push_back(channel_of(session, c, session.recording.n_samples));
  }
  return all;
}

// Samples over the whole range of two bytes.
void fill(session_state& session, std::uint32_t seed) {
  test::vector_random random(seed);
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      r.vd.channel(c)[t] = static_cast<std::int16_t>((random.next() >> 12) - 32768);
    }
  }
}

void run(session_state& session, void (*step)(session_state&, filter_progress&)) {
  filter_progress progress{session};
  progress.range = 100;
  begin_filter_step(progress, "step", 100);
  step(session, progress);
  end_filter_step(progress);
}

TEST(ChannelMeans, RunningMeanOfASubSample) {
  small_session s;
  make_recording(*s, 3, 25000);
  s->recording.chan_mask[3] = true;
  // Every third sample counts, from the first on; the others would move the mean.
  for (std::int32_t t = 1; t <= 25000; ++t) {
    s->recording.vd.channel(1)[t] = static_cast<std::int16_t>(t % 3 == 1 ? 7 : 1000);
    s->recording.vd.channel(2)[t] = static_cast<std::int16_t>(t % 3 == 1 ? t % 2 : 5);
    s->recording.vd.channel(3)[t] = -32768;
  }
  EXPECT_EQ(channel_mean(*s, 1), 7);
  EXPECT_NEAR(channel_mean(*s, 2), 0.5, 1e-4);
  put_samples(*s, 1, 2, {-32768});
  run(*s, zero_channel_means);
  EXPECT_EQ(channel_of(*s, 1, 3), (samples{0, 32761, 993}));  // -32775 wraps
  EXPECT_EQ(channel_of(*s, 3, 2), (samples{0, 0}));           // masked all the same
  EXPECT_TRUE(s->recording.means_zeroed);
  EXPECT_TRUE(s.user.logged("Channel means set to ~ 0"));
}

TEST(ChannelMeans, HalvesGoAwayFromZero) {
  small_session s;
  make_recording(*s, 1, 4);
  put_samples(*s, 1, 1, {1, 2, 3, 4});  // mean 2.5
  run(*s, zero_channel_means);
  EXPECT_EQ(channel_of(*s, 1, 4), (samples{-2, -1, 1, 2}));
}

TEST(CommonMean, AgreesWithThePlainLoopAtAnyThreadCount) {
  small_session s;
  for (const std::int32_t n_channels : {1, 5, 300}) {
    for (const int threads : {1, 2, 7}) {
      const std::int32_t n = n_channels == 300 ? 1100 : 30011;
      make_recording(*s, n_channels, n);
      s->recording.chan_mask.clear();
      std::vector<bool> masked(static_cast<std::size_t>(n_channels), false);
      masked.back() = n_channels > 1;
      s->recording.chan_mask[n_channels] = n_channels > 1;
      fill(*s, 5);
      test::use_threads(*s, threads);
      const auto expected = test::plain_common_mean(all_channels(*s), masked);
      run(*s, remove_common_mean);
      EXPECT_EQ(all_channels(*s), expected) << n_channels << " channels, threads " << threads;
      EXPECT_EQ(s->recording.vd.channel(1)[0], 0);
      EXPECT_EQ(s->recording.vd.channel(1)[n + 1], 0);
    }
  }
}

TEST(CommonMean, AllMaskedChangesNothingButSaysSo) {
  small_session s;
  make_recording(*s, 2, 100);
  fill(*s, 3);
  s->recording.chan_mask[1] = s->recording.chan_mask[2] = true;
  const auto before = all_channels(*s);
  run(*s, remove_common_mean);
  run(*s, spatial_smooth);
  run(*s, temporal_smooth);
  EXPECT_EQ(all_channels(*s), before);
  EXPECT_TRUE(s.user.logged("Common mean subtracted"));
  EXPECT_TRUE(s->recording.common_mean_removed);
}

TEST(SpatialSmooth, AgreesWithThePlainLoopAtAnyThreadCount) {
  small_session s;
  for (const float radius : {5.0f, 30.0f, 400.0f}) {  // sites are 40 µm apart
    for (const int threads : {1, 2, 7}) {
      make_recording(*s, 9, 5003);
      std::vector<bool> masked(9, false);
      s->recording.chan_mask.clear();
      masked[3] = true;
      s->recording.chan_mask[4] = true;
      fill(*s, 9);
      test::use_threads(*s, threads);
      s->filter.smooth_radius_um = radius;
      const auto expected = test::plain_spatial(all_channels(*s), masked, 40, radius);
      run(*s, spatial_smooth);
      EXPECT_EQ(all_channels(*s), expected) << radius << " threads " << threads;
    }
  }
  EXPECT_TRUE(s.user.logged("Spatial smooth done with radius 400"));
}

TEST(TemporalSmooth, RoundsEachTermAndWraps) {
  const std::vector<std::pair<std::vector<int>, int>> cases = {
      {{3, 5, 4}, 3},  {{-3, -5, -4}, -3},         {{1, 1, 1}, 0},
      {{-1, 3, 0}, 1}, {{20000, 0, 20000}, -6384}, {{7, -3, 9}, 3}};
  for (const auto& [x, y] : cases) {
    small_session s;
    make_recording(*s, 1, 3);
    put_samples(*s, 1, 1, x);
    run(*s, temporal_smooth);
    EXPECT_EQ(s->recording.vd.channel(1)[1], x[0]);
    EXPECT_EQ(s->recording.vd.channel(1)[2], y) << x[0] << ' ' << x[1] << ' ' << x[2];
  }
}

TEST(TemporalSmooth, BlocksAndSpareSamplesLikeThePlainLoop) {
  // At 1001 the last block would read beyond what is allocated.
  for (const std::int32_t n : {1, 999, 1000, 1001, 1002, 4321}) {
    small_session s;
    make_recording(*s, 2, n);
    fill(*s, 21);
    s->recording.chan_mask[2] = true;
    const samples before = channel_of(*s, 1, n + 1000), masked = channel_of(*s, 2, n + 1000);
    run(*s, temporal_smooth);
    EXPECT_EQ(channel_of(*s, 1, n + 1000),
              test::plain_temporal(before, static_cast<std::size_t>(n)))
        << n;
    EXPECT_EQ(channel_of(*s, 2, n + 1000), masked);
    EXPECT_TRUE(s->recording.temporal_smoothed);
  }
}

TEST(CompressiveTransform, ThreeQuartersAtThePoint) {
  small_session s;
  make_recording(*s, 1, 8, 25000, 0.25f);
  s->recording.chan_mask[1] = true;  // takes part all the same
  s->filter.compressive_75pct_uv = 150;
  put_samples(*s, 1, 1, {0, 100, 600, -600, 1000, -4000, -100, 4000});
  run(*s, compressive_transform);
  EXPECT_EQ(channel_of(*s, 1, 8), (samples{0, 95, 450, -450, 643, -1241, -95, 1241}));
}

TEST(TimeFilters, AnEmptyRecordingIsNoTrouble) {
  small_session s;
  for (const auto step : {zero_channel_means, remove_common_mean, spatial_smooth, temporal_smooth,
                          compressive_transform}) {
    s->recording.n_channels = 0;
    run(*s, step);
    s->recording.n_channels = 3;  // none of their samples exist
    run(*s, step);
  }
}

}  // namespace
}  // namespace kestrelvane

#include "signal/noise.h"

#include <gtest/gtest.h>

#include <cmath>

#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::put_samples;
using test::small_session;

// Noise-like samples, triangular round 0, every channel its own size.
void fill_with_noise(session_state& session) {
  test::vector_random random(17);
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    std::int16_t* v = r.vd.channel(c);
    const int size = 20 + 10 * c;
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      const auto sum =
          static_cast<int>((random.next() >> 16) % size + (random.next() >> 16) % size);
      v[t] = static_cast<std::int16_t>(sum - size);
    }
  }
}

TEST(StaticNoise, MedianOfMagnitudes) {
  small_session s;
  make_recording(*s, 4, 12);
  s->detection.noise_method = 2;
  put_samples(*s, 1, 1, {5, -1, 4, -2, 7, 3, -3, 9});  // then blanked: 8 samples, the 4th is 3
  put_samples(*s, 2, 3, {-40, 50, -60, 70});           // with the zero in front of them 5: too few
  put_samples(*s, 3, 1, {-32768, -32768, -32768, -32768, -32768, -32768, 1});
  compute_noise(*s);
  EXPECT_EQ(s->recording.chan_noise[1], 3 / 0.6745f);
  EXPECT_EQ(s->recording.chan_noise[2], 0);
  EXPECT_EQ(s->recording.chan_noise[3], 32768 / 0.6745f);
  EXPECT_EQ(s->recording.chan_noise[4], 0);  // zeros all along

  // The zero before a value counts: it is not followed by another.
  put_samples(*s, 2, 3, {0, 0, 0, 0, 0, 0, 0, 0, 0});
  put_samples(*s, 2, 1, {0, 8, 0, 8, 0, 8, 8});
  compute_noise(*s);
  EXPECT_EQ(s->recording.chan_noise[2], 8 / 0.6745f);
}

TEST(StaticNoise, LongRecordingIsSubSampled) {
  small_session s;
  make_recording(*s, 2, 30007);
  s->detection.noise_method = 2;
  std::int16_t* v = s->recording.vd.channel(1);
  // Every fourth sample, from the first on, is looked at; the others are large.
  for (std::int32_t t = 1; t <= 30007; ++t) v[t] = t % 4 == 1 ? 10 : 1000;
  compute_noise(*s);
  EXPECT_EQ(s->recording.chan_noise[1], 10 / 0.6745f);
  s->detection.noise_method = 1;
  compute_noise(*s);
  EXPECT_EQ(s->recording.chan_noise[1], 0);  // never moves
}

TEST(StaticNoise, DeviationAndThreads) {
  small_session s;
  make_recording(*s, 9, 25000);
  fill_with_noise(*s);
  for (const int method : {1, 2}) {
    s->detection.noise_method = method;
    s->multi_threaded_now = false;
    compute_noise(*s);
    std::vector<float> alone;
    for (int c = 1; c <= 9; ++c) alone.push_back(s->recording.chan_noise[c]);
    for (int c = 1; c <= 9; ++c) {
      const double sd = (20 + 10 * c) / std::sqrt(6.0);  // of the sum of two uniforms
      EXPECT_NEAR(alone[c - 1], method == 1 ? sd : 1.06 * sd, 0.05 * sd);
    }
    for (const int threads : {2, 7}) {
      s->multi_threaded_now = true;
      s->n_threads = threads;
      s->recording.chan_noise[20] = 5;
      compute_noise(*s);
      for (int c = 1; c <= 9; ++c) EXPECT_EQ(s->recording.chan_noise[c], alone[c - 1]);
      EXPECT_EQ(s->recording.chan_noise[20], 0);  // cleared beyond the recording's channels
    }
  }
}

TEST(StaticNoise, StoredEventsWithoutTheirPadding) {
  small_session s;
  make_recording(*s, 1, 20);
  s->recording.is_continuous = false;
  put_samples(*s, 1, 1, {3, -5, 0, 7, 0, -9, 11, 0, 0, 13});
  s->detection.noise_method = 2;
  compute_noise(*s);
  EXPECT_EQ(s->recording.chan_noise[1], 7 / 0.6745f);
  s->detection.noise_method = 1;
  compute_noise(*s);
  EXPECT_EQ(s->recording.chan_noise[1], static_cast<float>(std::sqrt((454 - 400 / 6.0) / 5)));
}

TEST(WindowNoise, ClipsAtTheEndsAndKeepsZeros) {
  small_session s;
  make_recording(*s, 1, 1000, 100);  // window of 10 s: 500 samples on each side
  fill_with_noise(*s);
  s->detection.noise_window_secs = 10;
  std::int16_t* v = s->recording.vd.channel(1);
  const auto reference = [&](int first, int last) {
    double sum = 0, squares = 0;
    for (int t = first; t <= last; ++t) sum += v[t], squares += double(v[t]) * v[t];
    const int n = last - first + 1;
    return static_cast<float>(std::sqrt((squares - sum * sum / n) / (n - 1)));
  };
  s->detection.noise_method = 1;
  EXPECT_EQ(window_noise(*s, 1, 500), reference(1, 1000));
  EXPECT_EQ(window_noise(*s, 1, 100), reference(1, 600));
  EXPECT_EQ(window_noise(*s, 1, 1400), reference(900, 1000));
  EXPECT_EQ(window_noise(*s, 1, 2000), 0);
  s->detection.noise_method = 2;
  put_samples(*s, 1, 1, std::vector<int>(1000, 0));
  put_samples(*s, 1, 1, std::vector<int>(499, -12));
  EXPECT_EQ(window_noise(*s, 1, 499), 0);  // 499 of the 999 samples; zeros count
  EXPECT_EQ(window_noise(*s, 1, 497), 12 / 0.6745f);
  EXPECT_EQ(window_noise(*s, 1, 2000), 0);
}

TEST(MaskQuietChannels, KeepsWhatWasMasked) {
  small_session s;
  make_recording(*s, 3, 100, 25000, 0.5f);
  s->detection.mask_noise_below_uv = 5;
  s->recording.chan_noise[1] = 9;
  s->recording.chan_noise[2] = 10;
  s->recording.chan_noise[3] = 30;
  s->recording.chan_mask[3] = true;
  mask_quiet_channels(*s);
  EXPECT_TRUE(s->recording.chan_mask[1]);
  EXPECT_FALSE(s->recording.chan_mask[2]);
  EXPECT_TRUE(s->recording.chan_mask[3]);
}

}  // namespace
}  // namespace kestrelvane

// Filters on the spectrum, against the same in 64 bits and in the plainest form.
#include <gtest/gtest.h>

#include "signal/frequency_filters.h"
#include "signal/noise.h"
#include "signal/plain_filters.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::samples;
using test::small_session;

constexpr std::int32_t segment = 1 << 20;

samples channel_of(const session_state& session, std::int32_t c) {
  const std::int16_t* v = session.recording.vd.channel(c) + 1;
  return {v, v + session.recording.n_samples};
}

// Noise on a slow wave, every channel its own.
void fill(session_state& session) {
  test::vector_random random(11);
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      const double wave = 800 * std::sin(t * 0.002 * c);
      r.vd.channel(c)[t] = static_cast<std::int16_t>(wave + random.next() % 1001 - 500);
    }
  }
}

bool run(session_state& session, bool (*step)(session_state&, filter_progress&)) {
  filter_progress progress{session};
  progress.range = 100;
  begin_filter_step(progress, "step", 100);
  const bool done = step(session, progress);
  end_filter_step(progress);
  return done;
}

// The two are rounded from sums of different width: a value near a half may fall on the
// other side, once in each of two segments where they overlap.
void expect_alike(const samples& fast, const samples& plain, const std::string& what) {
  ASSERT_EQ(fast.size(), plain.size());
  std::size_t n_other = 0;
  int worst = 0;
  for (std::size_t i = 0; i < fast.size(); ++i) {
    const int d = std::abs(fast[i] - plain[i]);
    worst = std::max(worst, d);
    n_other += d != 0 ? 1 : 0;
  }
  EXPECT_LE(worst, 1) << what;
  EXPECT_LE(n_other, fast.size() / 200) << what;
}

TEST(Gains, Butterworth) {
  EXPECT_EQ(bin_of_frequency(0.5f, 25000), 20971);
  EXPECT_EQ(bin_of_frequency(0.5f, 30000), 17476);
  EXPECT_EQ(bin_of_frequency(2.0f, 24414), 85899);
  const auto high = butterworth_gains(20971, 4, false), low = butterworth_gains(20971, 4, true);
  const std::vector<std::pair<int, double>> rows = {
      {1, 1.0},           {5001, 0.9999948},   {10001, 0.9986660},
      {15001, 0.9674086}, {20972, 0.7071068},  {30001, 0.2322475},
      {41944, 0.0623724}, {100001, 0.0019341}, {209710, 0.0001000}};
  for (const auto& [i, gain] : rows) {
    EXPECT_NEAR(low[i - 1], gain, 6e-8) << i;
    EXPECT_NEAR(high[i - 1], 1 - gain, 6e-8) << i;
  }
  EXPECT_EQ(high[0], 0);
  EXPECT_EQ(high[209710], 1);
  EXPECT_LT(low[segment / 2 - 1], 1e-5);
  EXPECT_EQ(low[segment / 2], 1) << "the middle bin is not touched";
}

TEST(Gains, HostileSettings) {
  EXPECT_EQ(bin_of_frequency(-1, 25000), 0);
  EXPECT_EQ(bin_of_frequency(std::nanf(""), 25000), 0);
  EXPECT_EQ(bin_of_frequency(0.0f, 0), 0);
  EXPECT_GT(bin_of_frequency(1.0f, 0), segment);
  for (const bool low_pass : {false, true}) {
    for (const std::int32_t cutoff : {0, 1, 100'000'000}) {
      for (const std::int32_t poles : {0, 1, 10}) {
        for (const float g : butterworth_gains(cutoff, poles, low_pass)) {
          ASSERT_TRUE(g >= 0 && g <= 1) << cutoff << ' ' << poles;
        }
      }
    }
  }
  const auto none = butterworth_gains(0, 4, false);
  EXPECT_EQ(none[0], 0);
  EXPECT_EQ(none[1], 1);
  for (const std::int32_t frequency : {0, 1, 100, 479, 480, 2'000'000}) {
    for (const float g : notch_gains(frequency)) ASSERT_TRUE(g >= 0 && g <= 1) << frequency;
  }
  EXPECT_EQ(notch_gains(25000)[2516], 0);   // 60 Hz
  EXPECT_EQ(notch_gains(25000)[10066], 0);  // 240 Hz
  EXPECT_EQ(notch_gains(25000)[12567], 1);
}

TEST(Butterworth, OnePassWithAnOddChannelCount) {
  small_session s;
  make_recording(*s, 3, 200'000);
  s->recording.chan_mask[2] = true;  // filtered like the others
  fill(*s);
  std::vector<samples> before;
  for (int c = 1; c <= 3; ++c) before.push_back(channel_of(*s, c));
  s->filter.bw_f0_khz = 0.5f;
  s->filter.bw_poles = 4;
  ASSERT_TRUE(run(*s, butterworth_filter));
  for (int c = 1; c <= 3; ++c) {
    const samples after = channel_of(*s, c);
    expect_alike(after, test::plain_butterworth(before[c - 1], 20971, 4, false), "high pass");
    EXPECT_LT(std::abs(after[0]), 60);  // faded in from 0, and out to it
    EXPECT_LT(std::abs(after.back()), 60);
  }
  EXPECT_EQ(s->recording.vd.channel(3)[200'001], 0);
  EXPECT_EQ(s->recording.vd.channel(4)[1], 0) << "there is no fourth channel";
  EXPECT_TRUE(s.user.logged("High-pass filtering done with f0=0.5 and 4 poles"));
}

TEST(Butterworth, SegmentsCrossFadeAndThreadsAgree) {
  small_session s;
  std::vector<samples> alone;
  std::vector<samples> before;
  for (const int threads : {1, 2, 7}) {
    make_recording(*s, 3, 1'300'000, 30000);
    fill(*s);
    if (threads == 1) before = {channel_of(*s, 1), channel_of(*s, 3)};
    test::use_threads(*s, threads);
    s->filter.bw_f0_khz = 3;
    s->filter.bw_poles = 2;
    s->filter.make_low_pass = true;
    ASSERT_TRUE(run(*s, butterworth_filter));
    const std::vector<samples> after = {channel_of(*s, 1), channel_of(*s, 2), channel_of(*s, 3)};
    if (threads == 1) alone = after;
    EXPECT_TRUE(after == alone) << threads;
  }
  for (const int c : {0, 1}) {
    expect_alike(alone[2 * c], test::plain_butterworth(before[c], 104857, 2, true), "low pass");
  }
  EXPECT_TRUE(s.user.logged("Low-pass filtering done with f0=3 and 2 poles"));
}

// Where a pass more is counted than is needed, it goes over the last 65 samples again.
TEST(Segments, LengthsRoundTheLimits) {
  for (const std::int32_t n : {1, 64, 100, 129}) {
    small_session s;
    make_recording(*s, 1, n);
    fill(*s);
    const samples before = channel_of(*s, 1);
    s->filter.bw_f0_khz = 5;
    ASSERT_TRUE(run(*s, butterworth_filter));
    expect_alike(channel_of(*s, 1), test::plain_butterworth(before, 209715, 4, false),
                 std::to_string(n));
  }
  for (const std::int32_t n : {segment - 65, segment - 64, segment, segment + 1}) {
    small_session s;
    make_recording(*s, 1, n);
    fill(*s);
    const samples before = channel_of(*s, 1);
    s->filter.bw_f0_khz = 0.01f;
    ASSERT_TRUE(run(*s, butterworth_filter));
    expect_alike(channel_of(*s, 1), test::plain_butterworth(before, 419, 4, false),
                 std::to_string(n));
  }
}

TEST(Segments, OutOfRangeWraps) {
  small_session s;
  make_recording(*s, 1, 20000);
  // Without the offset, a leap from one limit to the other does not fit any more.
  for (std::int32_t t = 1; t <= 20000; ++t) {
    s->recording.vd.channel(1)[t] = t % 1000 == 0 ? 32767 : -32768;
  }
  const samples before = channel_of(*s, 1);
  s->filter.bw_f0_khz = 0.5f;
  ASSERT_TRUE(run(*s, butterworth_filter));
  const samples after = channel_of(*s, 1);
  expect_alike(after, test::plain_butterworth(before, 20971, 4, false), "wrapped");
  EXPECT_LT(after[9999], 0) << "65,535 less some of the offset";
  EXPECT_GT(after[9999], -4000);
}

TEST(Notch, TakesTheMainsOut) {
  small_session s;
  make_recording(*s, 3, 1'100'000, 25000);
  fill(*s);
  for (std::int32_t t = 1; t <= 1'100'000; ++t) {
    const double hum = 500 * std::sin(2 * std::numbers::pi * 60 * t / 25000.0);
    s->recording.vd.channel(3)[t] = static_cast<std::int16_t>(std::lround(hum));
  }
  const samples before = channel_of(*s, 2);
  test::use_threads(*s, 2);
  ASSERT_TRUE(run(*s, notch_filter));
  expect_alike(channel_of(*s, 2), test::plain_notch(before, 25000), "notch");
  const samples hum = channel_of(*s, 3);
  for (std::size_t i = 100'000; i < 900'000; ++i) ASSERT_LE(std::abs(hum[i]), 1) << i;
  EXPECT_TRUE(s.user.logged("60 + 120 Hz notch filtering completed"));
}

TEST(PhaseCorrection, TurnsByDecades) {
  small_session s;
  std::vector<samples> alone;
  samples before;
  for (const int threads : {1, 2, 7}) {
    make_recording(*s, 2, 1'060'000, 25000);
    fill(*s);
    before = channel_of(*s, 2);
    test::use_threads(*s, threads);
    s->filter.phase_f0_khz = 2;
    s->filter.phase_shift_degs_per_decade = 90;
    ASSERT_TRUE(run(*s, phase_correct));
    const std::vector<samples> after = {channel_of(*s, 1), channel_of(*s, 2)};
    if (threads == 1) alone = after;
    EXPECT_TRUE(after == alone) << threads;
  }
  expect_alike(alone[1], test::plain_phase(before, 83886, 90), "phase");
  EXPECT_TRUE(
      s.user.logged("Hardware phase distortion corrected at f=90KHz and 90 degs per decade"));
}

TEST(PhaseCorrection, OneDecadeAboveIsAQuarterTurnForward) {
  small_session s;
  make_recording(*s, 1, segment, 25000);
  const double step = 2 * std::numbers::pi * 83886 / segment;
  for (std::int32_t t = 1; t <= segment; ++t) {
    s->recording.vd.channel(1)[t] =
        static_cast<std::int16_t>(std::lround(1e4 * std::cos(step * t)));
  }
  s->filter.phase_f0_khz = 0.2f;  // bin 8388
  s->filter.phase_shift_degs_per_decade = 90;
  ASSERT_TRUE(run(*s, phase_correct));
  for (std::int32_t t = 1000; t < segment - 1000; t += 777) {
    ASSERT_NEAR(s->recording.vd.channel(1)[t], -1e4 * std::sin(step * t), 12) << t;
  }
}

TEST(OneOverF, KeepsTheNoiseAndReportsOverflow) {
  small_session s;
  make_recording(*s, 2, 1'100'000, 25000, 0.5f);
  fill(*s);
  for (std::int32_t t = 1; t <= 1'100'000; ++t) {
    s->recording.vd.channel(2)[t] = t % 100'000 < 90'000 ? 30000 : -30000;
  }
  ASSERT_TRUE(run(*s, one_over_f_filter));
  const samples after = channel_of(*s, 1);
  double sum = 0, squares = 0;
  for (const std::int16_t v : after) {
    sum += v;
    squares += double{1} * v * v;
  }
  const double n = static_cast<double>(after.size());
  const double deviation = std::sqrt(squares / n - sum / n * sum / n);
  EXPECT_NEAR(deviation, s->recording.chan_noise[1], 0.02 * deviation);
  EXPECT_GT(deviation, 300);
  ASSERT_FALSE(s.user.run_log_window.empty());
  EXPECT_EQ(s.user.run_log_window[0].find("2 byte overflow "), 0u);
  EXPECT_TRUE(s.user.logged("1/f filtering completed"));
}

}  // namespace
}  // namespace kestrelvane

// What is taken for an unfiltered recording, and what is not.
#include "signal/slow_waves.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct slow_waves_test : testing::Test {
  small_session session;
  static constexpr std::int32_t rate = 25'000, n_samples = 100'000;

  slow_waves_test() { make_recording(*session, 3, n_samples, rate); }

  // Noise of s.d. 100, an offset, and a sine of the given amplitude.
  void fill(std::int32_t channel, double hz, double amplitude, int offset = 0) {
    vector_random random(static_cast<std::uint32_t>(channel));
    std::int16_t* v = session->recording.vd.channel(channel);
    for (std::int32_t t = 1; t <= n_samples; ++t) {
      const double noise = (random.next() / 2147483648.0 - 0.5) * 100 * std::sqrt(12.0);
      const double wave = amplitude * std::sin(2 * std::numbers::pi * hz * t / rate);
      v[t] = static_cast<std::int16_t>(std::lround(noise + wave) + offset);
    }
  }
  void fill_all(double hz, double amplitude, int offset = 0) {
    for (std::int32_t c = 1; c <= 3; ++c) fill(c, hz, amplitude, offset);
  }
};

TEST_F(slow_waves_test, the_share_is_that_of_the_band_below_300_hz) {
  // White noise up to 12.5 kHz has 2.4 % of its power there.
  fill_all(0, 0);
  EXPECT_NEAR(slow_power_share(*session), 0.025, 0.005);
  // A sine of twice the power of the noise.
  for (const double hz : {3.0, 40.0, 200.0}) {
    fill_all(hz, 200);
    EXPECT_NEAR(slow_power_share(*session), 2.0 / 3, 0.03) << hz;
    EXPECT_TRUE(looks_unfiltered(*session));
  }
  // As much of it in the band of spikes, or as an offset, is none of it.
  fill_all(900, 200);
  EXPECT_LT(slow_power_share(*session), 0.03);
  fill_all(0, 0, 5000);
  EXPECT_LT(slow_power_share(*session), 0.03);
  EXPECT_FALSE(looks_unfiltered(*session));
}

TEST_F(slow_waves_test, most_of_the_channels_that_take_part_decide) {
  fill_all(0, 0);
  fill(1, 20, 900);
  EXPECT_FALSE(looks_unfiltered(*session));
  fill(2, 20, 900);
  EXPECT_TRUE(looks_unfiltered(*session));
  session->recording.chan_mask[2] = true;  // one of two is not most of them
  EXPECT_FALSE(looks_unfiltered(*session));
}

TEST_F(slow_waves_test, nothing_is_said_where_nothing_can_be) {
  EXPECT_EQ(slow_power_share(*session), 0);  // flat
  fill_all(20, 900);
  session->recording.is_continuous = false;
  EXPECT_EQ(slow_power_share(*session), 0);
  session->recording.is_continuous = true;
  session->recording.sampling_frequency = 2000;
  EXPECT_EQ(slow_power_share(*session), 0);
  session->recording.sampling_frequency = rate;
  session->recording.n_samples = 300;  // shorter than a second
  EXPECT_GT(slow_power_share(*session), 0);
  for (std::int32_t c = 1; c <= 3; ++c) session->recording.chan_mask[c] = true;
  EXPECT_EQ(slow_power_share(*session), 0);
}

}  // namespace
}  // namespace kestrelvane::test

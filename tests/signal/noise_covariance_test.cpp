#include "signal/noise_covariance.h"

#include <gtest/gtest.h>

#include <cmath>

#include "signal/noise.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::small_session;
using test::use_threads;

constexpr std::int32_t n_points = 30;

double uniform(test::vector_random& random) {
  return static_cast<double>(random.next() >> 8) / static_cast<double>(1 << 23) - 0.5;
}
double bell(test::vector_random& random) {
  double sum = 0;
  for (int i = 0; i < 12; ++i) sum += uniform(random);
  return sum;
}

// Channel 1 remembers 0.8 of its last sample, channel 2 is half of channel 1 three samples ago and
// half its own, channel 8 lies 280 µm from channel 1.
void fill(session_state& session) {
  test::vector_random random(5);
  recording_store& r = session.recording;
  double before = 0;
  for (std::int32_t t = 1; t <= r.n_samples; ++t) {
    before = 0.8 * before + 60 * bell(random);
    r.vd.channel(1)[t] = static_cast<std::int16_t>(std::lround(before));
    const double late = t > 3 ? static_cast<double>(r.vd.channel(1)[t - 3]) : 0.0;
    r.vd.channel(2)[t] = static_cast<std::int16_t>(std::lround(late + 100 * bell(random)));
    for (std::int32_t c = 3; c <= 8; ++c) {
      r.vd.channel(c)[t] = static_cast<std::int16_t>(std::lround(50 * bell(random)));
    }
  }
  compute_noise(session);
}

// The same by its definition: one stretch after the other, pair by pair.
double plain_lag(const session_state& session, std::int32_t i, std::int32_t j, std::int32_t k) {
  const recording_store& r = session.recording;
  const std::int32_t length = noise_stretch_samples + n_points;
  const std::int64_t room = r.n_samples - length;
  const auto guard = static_cast<std::int32_t>(
      std::ceil(noise_guard_ms * static_cast<float>(r.sampling_frequency) / 1000.0f));
  const auto is_clean = [&](std::int32_t c, std::int64_t start, std::int32_t t) {
    for (std::int32_t u = std::max(0, t - guard); u <= std::min(length - 1, t + guard); ++u) {
      const float x = static_cast<float>(r.vd.channel(c)[start + u]) / r.chan_noise[c];
      if (std::fabs(x) > noise_clip) return false;
    }
    return true;
  };
  double sum = 0, n = 0;
  for (std::int32_t s = 0; s < noise_stretches; ++s) {
    const std::int64_t start = 1 + room * s / (noise_stretches - 1);
    for (std::int32_t t = std::max(0, -k); t < std::min(length, length - k); ++t) {
      if (!is_clean(i, start, t) || !is_clean(j, start, t + k)) continue;
      sum += static_cast<double>(r.vd.channel(i)[start + t]) *
             static_cast<double>(r.vd.channel(j)[start + t + k]);
      ++n;
    }
  }
  return sum / n;
}

TEST(NoiseCovariance, IsThatOfItsDefinitionAndOfTheProcess) {
  small_session s;
  make_recording(*s, 8, 200'000);
  fill(*s);
  // No noise: gaps in both channels at many distances from one another.
  for (std::int32_t t = 500; t < 200'000; t += 700) s->recording.vd.channel(1)[t] = 32'000;
  for (std::int32_t t = 510; t < 200'000; t += 713) s->recording.vd.channel(2)[t] = 32'000;
  s->recording.chan_mask[7] = true;
  const noise_covariance c = measure_noise_covariance(*s, n_points);
  const auto at = [&](std::int32_t i, std::int32_t j, std::int32_t k) {
    return static_cast<double>(c.of(i, j)[k + n_points - 1]);
  };
  for (const std::int32_t k : {-29, -3, 0, 1, 29}) {
    const double scale = static_cast<double>(c.sigma[1]) * static_cast<double>(c.sigma[2]);
    EXPECT_NEAR(at(1, 2, k), plain_lag(*s, 1, 2, k) / scale, 2e-5) << k;
    EXPECT_EQ(at(1, 2, k), at(2, 1, -k));
  }
  EXPECT_FLOAT_EQ(c.of(3, 3)[n_points - 1], 1.0f);
  EXPECT_NEAR(at(1, 1, 1), 0.8, 0.02);
  EXPECT_NEAR(at(1, 1, 4), 0.41, 0.03);
  EXPECT_NEAR(at(1, 2, 3), 0.71, 0.02);  // 100 of 100 and 100
  EXPECT_EQ(c.of(1, 8), nullptr) << "280 µm apart";
  EXPECT_EQ(c.of(7, 6), nullptr) << "masked";
  EXPECT_EQ(c.sigma[7], 0);
}

TEST(NoiseCovariance, HasTheSameBitsAtAnyThreadCountAndBearsShortAndSilentRecordings) {
  small_session s;
  make_recording(*s, 8, 60'000);
  fill(*s);
  const noise_covariance one = measure_noise_covariance(*s, n_points);
  for (const std::int32_t n : {2, 7}) {
    use_threads(*s, n);
    EXPECT_EQ(measure_noise_covariance(*s, n_points).lags, one.lags) << n;
  }
  s->recording.n_samples = 300;
  const noise_covariance brief = measure_noise_covariance(*s, n_points);
  for (const float lag : brief.lags) EXPECT_TRUE(std::isfinite(lag));
  s->recording.vd.release();
  make_recording(*s, 8, 60'000);
  compute_noise(*s);
  EXPECT_TRUE(measure_noise_covariance(*s, n_points).lags.empty()) << "no channel has noise";
}

}  // namespace
}  // namespace kestrelvane

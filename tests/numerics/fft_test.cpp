#include "numerics/fft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <thread>

namespace kestrelvane {
namespace {

constexpr double n = fft_points;

// A repeatable noise of whole numbers.
void fill(fft_buffer& buffer, std::uint32_t seed) {
  ASSERT_TRUE(buffer.allocate());
  for (float* x : {buffer.re, buffer.im}) {
    for (std::int32_t i = 0; i < fft_points; ++i) {
      seed = seed * 1664525u + 1013904223u;
      x[i] = static_cast<float>(static_cast<std::int32_t>(seed >> 20) - 2048);
    }
  }
}

TEST(Fft, ForwardIsTheUnscaledSum) {
  fft_buffer x;
  ASSERT_TRUE(x.allocate());
  // A turning pointer has one line: at its own frequency, not at the mirror of it.
  constexpr std::int32_t line = 77777;
  for (std::int32_t i = 0; i < fft_points; ++i) {
    const double angle = 2 * std::numbers::pi * std::fmod(double{line} * i, n) / n;
    x.re[i] = static_cast<float>(3 * std::cos(angle));
    x.im[i] = static_cast<float>(3 * std::sin(angle));
  }
  fft_1m(fft_direction::forward, x);
  double elsewhere = 0;
  for (std::int32_t k = 0; k < fft_points; ++k) {
    if (k != line) elsewhere = std::max<double>(elsewhere, std::hypot(x.re[k], x.im[k]));
  }
  EXPECT_NEAR(x.re[line], 3 * n, 1);
  EXPECT_NEAR(x.im[line], 0, 1);
  EXPECT_LT(elsewhere, 1);

  // A late impulse falls back in phase.
  std::memset(x.re, 0, sizeof(float) * fft_points);
  std::memset(x.im, 0, sizeof(float) * fft_points);
  x.re[1] = 1;
  fft_1m(fft_direction::forward, x);
  for (const std::int32_t k : {0, 1, 1000, 262144, 524288, 1048575}) {
    EXPECT_NEAR(x.re[k], std::cos(2 * std::numbers::pi * k / n), 1e-6) << k;
    EXPECT_NEAR(x.im[k], -std::sin(2 * std::numbers::pi * k / n), 1e-6) << k;
  }
}

TEST(Fft, BackwardIsTheInverse) {
  fft_buffer before, x;
  fill(before, 1);
  fill(x, 1);
  fft_1m(fft_direction::forward, x);
  fft_1m(fft_direction::backward, x);
  double worst = 0;
  for (std::int32_t i = 0; i < fft_points; ++i) {
    worst = std::max<double>(worst, std::fabs(x.re[i] - before.re[i]));
    worst = std::max<double>(worst, std::fabs(x.im[i] - before.im[i]));
  }
  EXPECT_LT(worst, 0.01);  // of 2048
  EXPECT_GT(worst, 0);     // something has been computed
}

TEST(Fft, BitsDoNotDependOnTheThread) {
  fft_buffer alone, first, second;
  fill(alone, 7);
  fill(first, 7);
  fill(second, 7);
  fft_1m(fft_direction::forward, alone);
  std::thread one([&] { fft_1m(fft_direction::forward, first); });
  std::thread two([&] { fft_1m(fft_direction::forward, second); });
  one.join();
  two.join();
  for (const fft_buffer* other : {&first, &second}) {
    EXPECT_EQ(std::memcmp(alone.re, other->re, sizeof(float) * fft_points), 0);
    EXPECT_EQ(std::memcmp(alone.im, other->im, sizeof(float) * fft_points), 0);
  }
}

}  // namespace
}  // namespace kestrelvane

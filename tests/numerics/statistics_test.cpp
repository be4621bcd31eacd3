// Special functions, Brent's methods, line fit, Levene's test and smoothing
// filter, against values known in closed form.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "numerics/brent.h"
#include "numerics/levene.h"
#include "numerics/line_fit.h"
#include "numerics/savgol.h"
#include "numerics/special_functions.h"

namespace kestrelvane {
namespace {

struct kept_words {
  std::vector<std::string> lines;
  failure_log log() {
    return {this, [](void* self, const std::string& text) {
              static_cast<kept_words*>(self)->lines.push_back(text);
            }};
  }
};

using lines = std::vector<std::string>;

TEST(SpecialFunctions, Values) {
  EXPECT_NEAR(log_gamma(0.5), 0.57236494292470, 1e-9);
  EXPECT_NEAR(log_gamma(10), std::log(362880.0), 1e-9);
  EXPECT_NEAR(betai(2, 3, 0.5f), 0.6875f, 1e-6f);
  EXPECT_NEAR(betai(2, 3, 0.9f), 0.9963f, 1e-6f);
  EXPECT_NEAR(betai(0.5f, 0.5f, 0.25f), 1.0f / 3, 1e-6f);
  EXPECT_NEAR(betai(3, 1, 0.7f) + betai(1, 3, 0.3f), 1, 1e-6f);
  EXPECT_EQ(betai(2, 3, 0), 0);
  EXPECT_EQ(betai(2, 3, 1), 1);
  EXPECT_NEAR(gammq(1, 2), std::exp(-2.0f), 1e-6f);
  EXPECT_NEAR(gammq(0.5f, 1), std::erfc(1.0f), 1e-6f);
  EXPECT_NEAR(gammq(0.5f, 4), std::erfc(2.0f), 1e-7f);
  EXPECT_NEAR(gammq(3, 1), 2.5f * std::exp(-1.0f), 1e-6f);
  EXPECT_EQ(gammq(3, 0), 1);
}

TEST(SpecialFunctions, BadArgumentsAreTold) {
  kept_words words;
  EXPECT_EQ(betai(1, 1, 1.5f, words.log()), 1);
  EXPECT_EQ(betai(1, 1, -0.5f, words.log()), 0);
  EXPECT_TRUE(std::isfinite(betacf(1e8f, 1e8f, 0.5f, words.log())));
  gammq(1, -1, words.log());
  gammq(0, 1, words.log());
  EXPECT_EQ(words.lines,
            (lines{"Error in argument x to betai function", "Error in argument x to betai function",
                   "a or b too big,or MAXIT too small in betacf", "Bad argument to routine gammq",
                   "Bad argument to routine gammq"}));
}

TEST(Brent, MinimumAndRoot) {
  const scalar_function parabola{nullptr, [](void*, float x) { return (x - 2) * (x - 2) + 3; }};
  float at = 0;
  EXPECT_NEAR(brent(-5, 1, 9, parabola, 1e-4f, at), 3, 1e-6f);
  EXPECT_NEAR(at, 2, 1e-3f);
  const scalar_function wavy{nullptr, [](void*, float x) { return std::cos(x) + 0.01f * x; }};
  brent(2, 3, 5, wavy, 1e-4f, at);
  EXPECT_NEAR(at, 3.13159f, 3e-3f);  // pi - asin 0.01
  const scalar_function cubic{nullptr, [](void*, float x) { return x * x * x - 2; }};
  EXPECT_NEAR(zbrent(cubic, 0, 5, 1e-6f), std::cbrt(2.0f), 2e-6f);
  EXPECT_NEAR(zbrent(cubic, 5, 0, 1e-6f), std::cbrt(2.0f), 2e-6f);
  const scalar_function step{nullptr, [](void*, float x) { return x < 0.3f ? -1.0f : 1e6f; }};
  EXPECT_NEAR(zbrent(step, -1, 1, 1e-6f), 0.3f, 2e-6f);
}

TEST(Brent, FailuresAreTold) {
  kept_words words;
  const scalar_function positive{nullptr, [](void*, float x) { return x * x + 1; }};
  EXPECT_EQ(zbrent(positive, -1, 4, 1e-6f, words.log()), 4);
  // A precision that 32-bit floats of this size do not have.
  const scalar_function far{nullptr, [](void*, float x) { return std::fabs(x - 1.5e10f); }};
  float at = 0;
  brent(1e10f, 1.4e10f, 2e10f, far, 1e-20f, at, words.log());
  EXPECT_NEAR(at, 1.5e10f, 1e5f);
  EXPECT_EQ(words.lines, (lines{"root must be bracketed for zbrent",
                                "routine brent exceeded maximum iterations"}));
}

struct line_points {
  std::vector<float> x, y, zero, error;
  double mean_x = 0, mean_y = 0, sxx = 0, syy = 0, sxy = 0;
};

line_points scattered_line() {
  line_points p;
  const float wobble[5] = {0.3f, -0.5f, 0.1f, 0.4f, -0.3f};
  for (int i = 0; i < 40; ++i) {
    p.x.push_back(static_cast<float>(i) * 0.25f + wobble[(i * 3 + 1) % 5]);
    p.y.push_back(2.0f + 3.0f * 0.25f * static_cast<float>(i) + wobble[i % 5]);
    p.mean_x += p.x.back() / 40.0;
    p.mean_y += p.y.back() / 40.0;
  }
  p.zero.assign(40, 0.0f);
  p.error.assign(40, 0.35f);
  for (int i = 0; i < 40; ++i) {
    const double dx = p.x[i] - p.mean_x, dy = p.y[i] - p.mean_y;
    p.sxx += dx * dx, p.syy += dy * dy, p.sxy += dx * dy;
  }
  return p;
}

TEST(Fitexy, ClosedForms) {
  const line_points p = scattered_line();
  line_fit fit;
  // Exact x: ordinary least squares and its errors.
  ASSERT_TRUE(fitexy(40, p.x.data(), p.y.data(), p.zero.data(), p.error.data(), fit));
  const double slope = p.sxy / p.sxx;
  EXPECT_NEAR(fit.slope, slope, 0.002);
  EXPECT_NEAR(fit.intercept, p.mean_y - slope * p.mean_x, 0.01);
  EXPECT_NEAR(fit.slope_error, 0.35 / std::sqrt(p.sxx), 0.0015);
  EXPECT_NEAR(fit.intercept_error, 0.35 * std::sqrt(1 / 40.0 + p.mean_x * p.mean_x / p.sxx), 0.008);
  const double chi = (p.syy - slope * p.sxy) / (0.35 * 0.35);
  EXPECT_NEAR(fit.chi_squared, chi, 0.01 * chi);
  EXPECT_NEAR(fit.probability, gammq(19, fit.chi_squared / 2), 1e-6f);
  // Equal errors in both: the principal axis.
  ASSERT_TRUE(fitexy(40, p.x.data(), p.y.data(), p.error.data(), p.error.data(), fit));
  const double d = p.syy - p.sxx;
  EXPECT_NEAR(fit.slope, (d + std::sqrt(d * d + 4 * p.sxy * p.sxy)) / (2 * p.sxy), 0.002);
  EXPECT_FALSE(fitexy(2, p.x.data(), p.y.data(), p.error.data(), p.error.data(), fit));
}

TEST(Levene, HandMadeGroups) {
  const std::vector<float> a = {1, 2, 3}, b = {2, 4, 6}, none, flat = {5, 5}, one = {1};
  kept_words words;
  levene_result result;
  const auto run = [&](std::vector<std::span<const float>> groups) {
    return levene_test(groups, result, words.log());
  };
  ASSERT_TRUE(run({a, b}));
  EXPECT_NEAR(result.w, 0.8f, 1e-6f);
  EXPECT_NEAR(result.probability, 0.421648f, 1e-5f);
  EXPECT_FALSE(run({a}));
  EXPECT_FALSE(run({a, none}));
  EXPECT_FALSE(run({one, one}));
  EXPECT_FALSE(run({flat, flat}));
  EXPECT_EQ(words.lines,
            (lines{"Levene's W, prob.= 0.8 0.421648", "1 error calculating k",
                   "2 error calculating k", "2 error calculating k", "3 error calculating k"}));
}

TEST(Savgol, PublishedCoefficients) {
  float c[5];
  ASSERT_TRUE(savgol(c, 2, 2, 0, 2));
  const float smooth[5] = {-3, 12, 17, 12, -3};
  for (int i = 0; i < 5; ++i) EXPECT_NEAR(c[i], smooth[i] / 35, 1e-6f);
  ASSERT_TRUE(savgol(c, 2, 2, 1, 2));
  for (int i = 0; i < 5; ++i) EXPECT_NEAR(c[i], 0.1f * static_cast<float>(i - 2), 1e-6f);
  ASSERT_TRUE(savgol(c, 4, 0, 0, 2));
  const float one_sided[5] = {0.086f, -0.143f, -0.086f, 0.257f, 0.886f};
  for (int i = 0; i < 5; ++i) EXPECT_NEAR(c[i], one_sided[i], 6e-4f);

  kept_words words;
  EXPECT_FALSE(savgol(c, 1, 1, 0, 4, words.log()));
  double singular[4] = {1, 2, 2, 4}, empty[4] = {0, 0, 1, 1};
  std::int32_t rows[2];
  EXPECT_FALSE(ludcmp(singular, 2, 2, rows, words.log()));
  EXPECT_FALSE(ludcmp(empty, 2, 2, rows, words.log()));
  EXPECT_EQ(words.lines, (lines{"invalid parameters for savgol", "singular matrix in ludcmp",
                                "singular matrix in ludcmp"}));
}

}  // namespace
}  // namespace kestrelvane

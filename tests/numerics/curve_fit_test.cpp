#include "numerics/curve_fit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "numerics/gauss_jordan.h"

namespace kestrelvane {
namespace {

curve_fit start_at(std::initializer_list<float> p) {
  curve_fit fit;
  for (const float value : p) {
    fit.p[++fit.n_parameters] = value;
    fit.is_free[fit.n_parameters] = true;
  }
  return fit;
}

fit_points rounded_gaussian() {
  fit_points points;
  for (int x = -40; x <= 40; ++x) {
    points.fit_x.push_back(static_cast<float>(x));
    points.fit_y.push_back(
        std::round(1000.0f * std::exp(-static_cast<float>((x - 2) * (x - 2)) / 162)));
  }
  return points;
}

TEST(LmFit, GaussianOfAHistogram) {
  const fit_points points = rounded_gaussian();
  ASSERT_EQ(points.fit_y[20], 50);
  curve_fit fit = start_at({1000, 1, 7});
  lm_fit(points, fit, 500);
  EXPECT_EQ(fit.status, 0);
  EXPECT_EQ(fit.iterations, 28);
  EXPECT_NEAR(fit.p[1], 1000.19f, 0.01f);
  EXPECT_NEAR(fit.p[2], 2.0f, 0.0001f);
  EXPECT_NEAR(fit.p[3], 8.99869f, 0.0001f);
  EXPECT_NEAR(fit.p[fit_residual], 0.2602f, 0.0001f);
}

TEST(LmFit, EndsOnIterationsAndOnASingularMatrix) {
  const fit_points points = rounded_gaussian();
  curve_fit fit = start_at({1000, 1, 7});
  lm_fit(points, fit, 0);
  EXPECT_EQ(fit.status, -1);
  EXPECT_EQ(fit.iterations, 0);
  lm_fit(points, fit, 2);
  EXPECT_EQ(fit.status, -1);
  EXPECT_EQ(fit.iterations, 2);
  EXPECT_GT(fit.p[3], 7.5f);  // the last accepted parameters stay

  curve_fit flat = start_at({0, 1, 7});  // no amplitude: the others have no effect
  lm_fit(points, flat, 500);
  EXPECT_EQ(flat.status, 1);
  EXPECT_EQ(flat.p[2], 1.0f);
  curve_fit no_width = start_at({1000, 1, 0});  // as from a channel without noise
  lm_fit(points, no_width, 500);
  EXPECT_EQ(no_width.status, 1);
}

TEST(LmFit, HeldParametersStay) {
  curve_fit fit = start_at({1000, 1, 7});
  fit.is_free[2] = false;
  lm_fit(rounded_gaussian(), fit, 500);
  EXPECT_EQ(fit.status, 0);
  EXPECT_EQ(fit.p[2], 1.0f);
  EXPECT_GT(fit.p[fit_residual], 5.0f);
}

TEST(LmFit, OtherModels) {
  fit_points points;
  for (int i = 0; i < 200; ++i) {
    const float x = static_cast<float>(i) * 0.1f;
    points.fit_x.push_back(x);
    points.fit_y.push_back(80.0f * std::exp(-0.3f * x));
  }
  points.fit_model = fit_decay;
  curve_fit fit = start_at({50, 0.5f});
  lm_fit(points, fit, 200);
  EXPECT_NEAR(fit.p[1], 80, 0.01f);
  EXPECT_NEAR(fit.p[2], 0.3f, 0.0001f);

  for (int i = 0; i < 200; ++i) {
    const float u = 0.02f * std::pow(points.fit_x[i], 1.5f);
    points.fit_y[i] = (1.0f + 12.0f * u) / (1.0f + u);
  }
  points.fit_model = fit_saturation;
  fit = start_at({8, 0.05f, 1});
  lm_fit(points, fit, 500);
  EXPECT_NEAR(fit.p[1], 12, 0.3f);
  EXPECT_NEAR(fit.p[3], 1.5f, 0.03f);
  EXPECT_NEAR(fit_value(fit_saturation, fit.p, 10), points.fit_y[100], 0.02f);
}

// Beyond the core a point counts with the residual of the last point inside, so
// heavy tails do not pull the width.
TEST(LmFit, CoreOfAHistogramWithTails) {
  fit_points points = rounded_gaussian();
  for (std::size_t i = 0; i < points.fit_x.size(); ++i) {
    if (std::fabs(points.fit_x[i]) > 16) points.fit_y[i] += 200;
  }
  curve_fit whole = start_at({900, 1, 9});
  lm_fit(points, whole, 500);
  points.fit_model = fit_core_gaussian;
  curve_fit core = start_at({900, 1, 9});
  lm_fit(points, core, 500);
  EXPECT_GT(std::fabs(whole.p[3] - 9), 0.5f);
  EXPECT_NEAR(core.p[3], 9, 0.2f);

  // One point outside after one inside: the merit is that of the inner one twice.
  points.fit_x = {0, 50};
  points.fit_y = {7, 1000};
  curve_fit fixed = start_at({5, 0, 10});
  fixed.is_free[2] = fixed.is_free[3] = false;
  lm_fit(points, fixed, 1);
  EXPECT_NEAR(fixed.p[1], 7, 0.01f);
  EXPECT_LT(fixed.p[fit_residual], 0.01f);
}

TEST(GaussJordan, SolvesInvertsAndRefuses) {
  float a[3][4] = {{0, 2, 1}, {4, -1, 3}, {1, 5, -2}};
  float b[3] = {7, 11, 5};  // of x = (1, 2, 3)
  ASSERT_TRUE(gauss_jordan(&a[0][0], 3, 4, b));
  const float x[3] = {1, 2, 3};
  const float matrix[3][3] = {{0, 2, 1}, {4, -1, 3}, {1, 5, -2}};
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(b[i], x[i], 1e-5f);
    for (int k = 0; k < 3; ++k) {
      float product = 0;
      for (int j = 0; j < 3; ++j) product += matrix[i][j] * a[j][k];
      EXPECT_NEAR(product, i == k ? 1.0f : 0.0f, 1e-6f);
    }
  }
  float twice[2][2] = {{1, 2}, {2, 4}};
  float c[2] = {1, 2};
  EXPECT_FALSE(gauss_jordan(&twice[0][0], 2, 2, c));
  float nothing[2][2] = {{std::numeric_limits<float>::quiet_NaN(), 0}, {0, 0}};
  EXPECT_FALSE(gauss_jordan(&nothing[0][0], 2, 2, c));
}

}  // namespace
}  // namespace kestrelvane

// Fitting curves to points: Levenberg and Marquardt's method.
//
// Used on histograms of voltages (thresholds, amplitude analysis) and on noise
// against distance (channel check). Unweighted; the figure of merit is the mean
// squared residual. In 32-bit floats, exp and pow evaluated in 64 bits.
#pragma once

#include <cstdint>
#include <vector>

namespace kestrelvane {

constexpr std::int32_t fit_parameter_limit = 19;
constexpr std::int32_t fit_point_limit = 10000;
// The place in curve_fit::p of the root of the mean squared residual.
constexpr std::int32_t fit_residual = 20;

// Numbers of the models, as they stand in logs.
enum fit_model_code : std::int32_t {
  fit_gaussian = 4,        // p1 exp(-(x - p2)^2 / (2 p3^2))
  fit_decay = 8,           // p1 exp(-p2 x)
  fit_core_gaussian = 14,  // the Gaussian, whose residuals beyond |x| = 1.5 p3 are the last within
  fit_two_gaussians = 15,  // the sum of two, of p1 to p3 and of p4 to p6
  fit_saturation = 102,    // (1 + p1 p2 x^p3) / (1 + p2 x^p3)
};

struct fit_points {
  std::int32_t fit_model = fit_gaussian;
  std::vector<float> fit_x, fit_y;  // of equal length, at most fit_point_limit
};

struct curve_fit {
  std::int32_t n_parameters = 0;        // at most fit_parameter_limit
  float p[fit_residual + 1] = {};       // counted from 1; the start values, then the result
  bool is_free[fit_residual + 1] = {};  // counted from 1; the others stay as given
  std::int32_t iterations = 0;          // made
  std::int32_t status = 0;              // 0 settled, -1 out of iterations, 1 singular matrix
};

// Iterates until the merit has moved by less than 0.00001 in 25 iterations on
// end (status 0), at most max_iterations times. In any case fit.p are the best
// parameters met, and p[fit_residual] is their residual if an iteration was made.
void lm_fit(const fit_points& points, curve_fit& fit, std::int32_t max_iterations);

// Value of a model at x.
float fit_value(std::int32_t fit_model, const float* p, float x);

}  // namespace kestrelvane

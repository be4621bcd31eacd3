#include "numerics/curve_fit.h"

#include <algorithm>
#include <cmath>

#include "numerics/gauss_jordan.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t n_slots = fit_parameter_limit + 1;  // parameters count from 1
constexpr std::int32_t settled_after = 24;
constexpr float settled_change = 0.00001f;

float exp_of(float x) { return static_cast<float>(std::exp(static_cast<double>(x))); }
float power_of(float x, float y) {
  return static_cast<float>(std::pow(static_cast<double>(x), static_cast<double>(y)));
}

// Value at x and its derivatives by the parameters.
float gaussian(const float* p, float x, float* slope) {
  const float deviation = (x - p[2]) / p[3];
  const float shape = exp_of(-0.5f * deviation * deviation);
  slope[1] = shape;
  slope[2] = p[1] * shape * deviation / p[3];
  slope[3] = slope[2] * deviation;
  return p[1] * shape;
}

float two_gaussians(const float* p, float x, float* slope) {
  const float first = gaussian(p, x, slope);
  // Parameters count from 1: those of the second begin behind the third.
  return first + gaussian(p + 3, x, slope + 3);
}

float decay(const float* p, float x, float* slope) {
  const float shape = exp_of(-p[2] * x);
  slope[1] = shape;
  slope[2] = -p[1] * x * shape;
  return p[1] * shape;
}

float saturation(const float* p, float x, float* slope) {
  const float power = power_of(x, p[3]);
  const float u = p[2] * power;
  const float by_u = (p[1] - 1.0f) / ((1.0f + u) * (1.0f + u));
  slope[1] = u / (1.0f + u);
  slope[2] = by_u * power;
  // At 0 every power is 0, and the logarithm has no value.
  slope[3] = x > 0.0f ? by_u * u * static_cast<float>(std::log(static_cast<double>(x))) : 0.0f;
  return (1.0f + p[1] * u) / (1.0f + u);
}

float value_and_slope(std::int32_t fit_model, const float* p, float x, float* slope) {
  switch (fit_model) {
    case fit_decay:
      return decay(p, x, slope);
    case fit_saturation:
      return saturation(p, x, slope);
    case fit_two_gaussians:
      return two_gaussians(p, x, slope);
    default:
      return gaussian(p, x, slope);
  }
}

// What is known at one set of parameters, over the free ones alone: half the
// second and first derivatives of the summed squares, and their mean.
struct merit {
  float alpha[n_slots][n_slots];
  float beta[n_slots];
  float chi;
};

void measure(const fit_points& points, const float* p, const std::int32_t* free_parameters,
             std::int32_t n_free, merit& m) {
  const auto n = static_cast<std::int32_t>(points.fit_x.size());
  m = {};
  float residual = 0.0f;
  float slope[n_slots] = {};
  for (std::int32_t i = 0; i < n; ++i) {
    const float x = points.fit_x[i];
    const float f = value_and_slope(points.fit_model, p, x, slope);
    // Outside its core the core model keeps the residual of the point before.
    const bool keeps = points.fit_model == fit_core_gaussian && !(std::fabs(x) <= 1.5f * p[3]);
    if (!keeps) residual = points.fit_y[i] - f;
    for (std::int32_t j = 0; j < n_free; ++j) {
      const float weight = slope[free_parameters[j]];
      for (std::int32_t k = 0; k <= j; ++k) m.alpha[j][k] += weight * slope[free_parameters[k]];
      m.beta[j] += residual * weight;
    }
    m.chi += residual * residual;
  }
  // Only the lower half has been summed.
  for (std::int32_t j = 1; j < n_free; ++j) {
    for (std::int32_t k = 0; k < j; ++k) m.alpha[k][j] = m.alpha[j][k];
  }
  m.chi /= static_cast<float>(n);
}

}  // namespace

float fit_value(std::int32_t fit_model, const float* p, float x) {
  float slope[n_slots];
  return value_and_slope(fit_model, p, x, slope);
}

void lm_fit(const fit_points& points, curve_fit& fit, std::int32_t max_iterations) {
  fit.iterations = 0;
  fit.status = -1;
  if (max_iterations < 1) return;
  std::int32_t free_parameters[n_slots];
  std::int32_t n_free = 0;
  for (std::int32_t i = 1; i <= std::min(fit.n_parameters, fit_parameter_limit); ++i) {
    if (fit.is_free[i]) free_parameters[n_free++] = i;
  }
  merit best, trial;
  measure(points, fit.p, free_parameters, n_free, best);
  float lambda = 0.001f;
  std::int32_t n_settled = 0;
  while (fit.iterations < max_iterations) {
    merit damped = best;
    // Times and not plus, so that parameters of any unit are damped alike.
    for (std::int32_t j = 0; j < n_free; ++j) damped.alpha[j][j] *= 1.0f + lambda;
    if (!gauss_jordan(&damped.alpha[0][0], n_free, n_slots, damped.beta)) {
      fit.status = 1;
      return;
    }
    float p[n_slots];
    std::copy_n(fit.p, n_slots, p);
    for (std::int32_t j = 0; j < n_free; ++j) p[free_parameters[j]] += damped.beta[j];
    measure(points, p, free_parameters, n_free, trial);
    const float chi_before = best.chi;
    // A merit that is not a number is no better than any other.
    if (trial.chi < best.chi) {
      lambda *= 0.1f;
      std::copy_n(p, n_slots, fit.p);
      best = trial;
    } else {
      lambda *= 10.0f;
    }
    ++fit.iterations;
    fit.p[fit_residual] = std::sqrt(best.chi);
    const float change = chi_before - best.chi;
    // A refused step changes nothing and counts as settled. One small change may be chance; so many
    // in a row are not.
    n_settled = change >= 0.0f && change < settled_change ? n_settled + 1 : 0;
    if (n_settled > settled_after) {
      fit.status = 0;
      return;
    }
  }
}

}  // namespace kestrelvane

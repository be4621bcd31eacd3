#include "numerics/special_functions.h"

#include <cmath>

namespace kestrelvane {

namespace {

constexpr int max_terms = 100;
constexpr float relative_accuracy = 3e-7f;
constexpr float smallest = 1e-30f;

float away_from_zero(float x) { return std::fabs(x) < smallest ? smallest : x; }

// One continued fraction b0 + a1/(b1 + a2/(b2 + ..)), by the modified Lentz method:
// c and d are the ratios of successive numerators and denominators.
struct lentz {
  float value, c, d;

  // Takes a level in; true when it has changed nothing any more.
  bool level(float a, float b) {
    d = 1.0f / away_from_zero(b + a * d);
    c = away_from_zero(b + a / c);
    const float factor = c * d;
    value *= factor;
    return std::fabs(factor - 1.0f) < relative_accuracy;
  }
};

// x^a e^-x / Gamma(a), the common factor of both forms of the incomplete gamma.
float gamma_factor(float a, float x) {
  return static_cast<float>(std::exp(-double{x} + double{a} * std::log(double{x}) - log_gamma(a)));
}

float lower_gamma_series(float a, float x) {
  float denominator = a;
  float term = 1.0f / a;
  float sum = term;
  for (int n = 1; n <= max_terms && std::fabs(term) >= std::fabs(sum) * relative_accuracy; ++n) {
    denominator += 1.0f;
    term *= x / denominator;
    sum += term;
  }
  return sum * gamma_factor(a, x);
}

float upper_gamma_fraction(float a, float x) {
  float b = x + 1.0f - a;
  lentz fraction{};
  fraction.c = 1.0f / smallest;
  fraction.d = 1.0f / away_from_zero(b);
  fraction.value = fraction.d;
  for (int n = 1; n <= max_terms; ++n) {
    const auto k = static_cast<float>(n);
    b += 2.0f;
    if (fraction.level(-k * (k - a), b)) break;
  }
  return fraction.value * gamma_factor(a, x);
}

}  // namespace

double log_gamma(double x) {
  constexpr double series[6] = {76.18009172947146,  -86.50532032941677,    24.01409824083091,
                                -1.231739572450155, 0.1208650973866179e-2, -0.5395239384953e-5};
  constexpr double root_two_pi = 2.5066282746310005;
  const double base = x + 5.5;
  double sum = 1.000000000190015;
  for (int k = 0; k < 6; ++k) sum += series[k] / (x + 1.0 + k);
  return (x + 0.5) * std::log(base) - base + std::log(root_two_pi * sum / x);
}

float betacf(float a, float b, float x, const failure_log& log) {
  lentz fraction{};
  fraction.c = 1.0f;
  fraction.d = 1.0f / away_from_zero(1.0f - (a + b) * x / (a + 1.0f));
  fraction.value = fraction.d;
  for (int m = 1; m <= max_terms; ++m) {
    const auto k = static_cast<float>(m);
    const float two_k = 2.0f * k;
    fraction.level(k * (b - k) * x / ((a - 1.0f + two_k) * (a + two_k)), 1.0f);
    if (fraction.level(-(a + k) * (a + b + k) * x / ((a + two_k) * (a + 1.0f + two_k)), 1.0f)) {
      return fraction.value;
    }
  }
  log("a or b too big,or MAXIT too small in betacf");
  return fraction.value;
}

float betai(float a, float b, float x, const failure_log& log) {
  if (!(x >= 0.0f && x <= 1.0f)) log("Error in argument x to betai function");
  // Negated, so that what is no number takes this way out.
  if (!(x > 0.0f)) return 0.0f;
  if (!(x < 1.0f)) return 1.0f;
  const double powers = a * std::log(double{x}) + b * std::log1p(-double{x});
  const auto front =
      static_cast<float>(std::exp(log_gamma(double{a} + b) - log_gamma(a) - log_gamma(b) + powers));
  // The fraction converges fast below the mean; above it the symmetry helps.
  if (x < (a + 1.0f) / (a + b + 2.0f)) return front * betacf(a, b, x, log) / a;
  return 1.0f - front * betacf(b, a, 1.0f - x, log) / b;
}

float gammq(float a, float x, const failure_log& log) {
  if (!(x >= 0.0f) || !(a > 0.0f)) {
    log("Bad argument to routine gammq");
    return 1.0f;
  }
  if (x == 0.0f) return 1.0f;
  // The series converges fast here, the fraction beyond.
  if (x < a + 1.0f) return 1.0f - lower_gamma_series(a, x);
  return upper_gamma_fraction(a, x);
}

}  // namespace kestrelvane

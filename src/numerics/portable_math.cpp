#include "numerics/portable_math.h"

#include <cmath>
#include <numbers>

namespace kestrelvane {

double portable_log(double x) {
  int exponent = 0;
  double mantissa = std::frexp(x, &exponent);  // 0.5 <= mantissa < 1
  if (mantissa < std::numbers::sqrt2 / 2) {
    mantissa *= 2;
    // Halfway on a scale of ratios: the series below converges fast on both sides of 1.
    --exponent;
  }
  // log m = 2 artanh((m - 1) / (m + 1)); |s| < 0.172, so s^22 is below 1e-16.
  const double s = (mantissa - 1) / (mantissa + 1);
  const double square = s * s;
  double sum = 0;
  for (int k = 21; k >= 1; k -= 2) sum = sum * square + 1.0 / k;
  return 2 * s * sum + exponent * std::numbers::ln2;
}

double portable_exp(double x) {
  // Below the range of 64-bit floats.
  if (x < -700) return 0;
  const double k = std::floor(x / std::numbers::ln2 + 0.5);
  const double rest = x - k * std::numbers::ln2;  // |rest| < 0.35
  double sum = 1;
  for (int n = 16; n >= 1; --n) sum = sum * rest / n + 1;
  return std::ldexp(sum, static_cast<int>(k));
}

double portable_sin(double x) {
  const double turns = std::floor(x / (2 * std::numbers::pi) + 0.5);
  const double rest = x - turns * (2 * std::numbers::pi);  // |rest| <= pi
  double sum = 1;
  // The series by Horner's rule; pi^29 / 29! is below 1e-16.
  for (int n = 13; n >= 1; --n) sum = 1 - sum * rest * rest / ((2.0 * n) * (2.0 * n + 1));
  return rest * sum;
}

}  // namespace kestrelvane

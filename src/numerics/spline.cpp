#include "numerics/spline.h"

#include <algorithm>
#include <vector>

namespace kestrelvane {

void make_spline(std::int32_t n, const float* x, const float* y, float* second) {
  if (n <= 0) return;
  // Tridiagonal equations for the second derivatives, solved by elimination
  // downward (second and right keep the reduced row) and substitution back.
  std::vector<float> right(n, 0.0f);
  // A natural spline: no bend at either end.
  second[0] = 0.0f;
  for (std::int32_t i = 1; i < n - 1; ++i) {
    const float before = x[i] - x[i - 1];
    const float after = x[i + 1] - x[i];
    const float share = before / (before + after);
    const float pivot = share * second[i - 1] + 2.0f;
    const float bend = (y[i + 1] - y[i]) / after - (y[i] - y[i - 1]) / before;
    second[i] = (share - 1.0f) / pivot;
    right[i] = (6.0f * bend / (before + after) - share * right[i - 1]) / pivot;
  }
  second[n - 1] = 0.0f;
  for (std::int32_t i = n - 2; i >= 1; --i) second[i] = second[i] * second[i + 1] + right[i];
}

float spline_value(std::int32_t n, const float* x, const float* y, const float* second, float at,
                   const failure_log& log) {
  if (n <= 0) return 0.0f;
  if (n == 1) return y[0];
  const auto above = static_cast<std::int32_t>(std::upper_bound(x, x + n, at) - x);
  // Outside the points the first or the last piece goes on.
  const std::int32_t high = std::clamp(above, 1, n - 1);
  const std::int32_t low = high - 1;
  const float width = x[high] - x[low];
  if (!(width > 0.0f)) {
    log("Error in spline routine");
    return y[low];
  }
  const float a = (x[high] - at) / width;
  const float b = (at - x[low]) / width;
  return a * y[low] + b * y[high] +
         ((a * a * a - a) * second[low] + (b * b * b - b) * second[high]) * (width * width) / 6.0f;
}

}  // namespace kestrelvane

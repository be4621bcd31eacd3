#include "numerics/line_fit.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "numerics/brent.h"
#include "numerics/special_functions.h"

namespace kestrelvane {

namespace {

constexpr float unbounded = 1e30f;
constexpr float angle_accuracy = 1e-3f;
constexpr float pi = std::numbers::pi_v<float>;
constexpr int n_trial_angles = 32;

// The points with both coordinates in units of their own spread, so that no angle
// is favoured; and what the last angle tried gave.
struct scaled_points {
  std::vector<float> x, y, sx, sy;
  float offset = 0.0f;  // subtracted from chi squared: its root bounds the error
  float intercept = 0.0f;
  float sum_of_weights = 0.0f;
};

// Chi squared of the best line at an angle, less the offset.
float chi_at_angle(void* context, float angle) {
  scaled_points& s = *static_cast<scaled_points*>(context);
  const double slope = std::tan(double{angle});
  double sum_w = 0.0, sum_x = 0.0, sum_y = 0.0;
  const auto weight = [&](std::size_t i) {
    const double across = slope * s.sx[i];
    const double variance = across * across + double{s.sy[i]} * s.sy[i];
    // A point without any error decides the line by itself, but must not divide by 0.
    return variance < 1e-30 ? 1e30 : 1.0 / variance;
  };
  for (std::size_t i = 0; i < s.x.size(); ++i) {
    const double w = weight(i);
    sum_w += w;
    sum_x += w * s.x[i];
    sum_y += w * s.y[i];
  }
  const double intercept = (sum_y - slope * sum_x) / sum_w;
  double chi = 0.0;
  for (std::size_t i = 0; i < s.x.size(); ++i) {
    const double residual = s.y[i] - intercept - slope * s.x[i];
    chi += weight(i) * residual * residual;
  }
  s.intercept = static_cast<float>(intercept);
  s.sum_of_weights = static_cast<float>(sum_w);
  return static_cast<float>(chi - s.offset);
}

double spread(std::int32_t n, const float* v) {
  double mean = 0.0, sum = 0.0;
  for (std::int32_t i = 0; i < n; ++i) mean += v[i];
  mean /= n;
  for (std::int32_t i = 0; i < n; ++i) sum += (v[i] - mean) * (v[i] - mean);
  return std::sqrt(sum / (n - 1));
}

}  // namespace

bool fitexy(std::int32_t n, const float* x, const float* y, const float* sx, const float* sy,
            line_fit& fit, const failure_log& log) {
  fit = {};
  // Two points leave no degree of freedom to judge the line by.
  if (n < 3) return false;
  const double spread_x = spread(n, x), spread_y = spread(n, y);
  // All points on one spot have no line.
  if (!(spread_x > 0.0) && !(spread_y > 0.0)) return false;
  const auto scale = static_cast<float>(spread_x > 0.0 && spread_y > 0.0 ? spread_x / spread_y : 1);
  scaled_points s{{x, x + n}, {y, y + n}, {sx, sx + n}, {sy, sy + n}};
  for (float& v : s.y) v *= scale;
  for (float& v : s.sy) v *= scale;
  const scalar_function chi{&s, chi_at_angle};
  // The lowest of evenly spread angles and its neighbours bracket the minimum;
  // angles repeat after half a turn.
  const float spacing = pi / n_trial_angles;
  float lowest_angle = 0.0f, lowest = unbounded;
  for (int k = 0; k < n_trial_angles; ++k) {
    // Half a spacing off, so that no angle is vertical, where the tangent has no end.
    const float angle = -0.5f * pi + (static_cast<float>(k) + 0.5f) * spacing;
    const float value = chi(angle);
    if (value < lowest) lowest = value, lowest_angle = angle;
  }
  float best = lowest_angle;
  brent(lowest_angle - spacing, lowest_angle, lowest_angle + spacing, chi, angle_accuracy * 1e-3f,
        best, log);
  fit.chi_squared = chi(best);
  const float intercept = s.intercept;
  const float intercept_variance = 1.0f / s.sum_of_weights;
  fit.probability =
      // Rounding may leave a little below 0.
      gammq(0.5f * static_cast<float>(n - 2), 0.5f * std::max(0.0f, fit.chi_squared), log);
  fit.intercept = intercept / scale;
  fit.slope = static_cast<float>(std::tan(double{best}) / scale);
  fit.intercept_error = fit.slope_error = unbounded;
  // One standard error lies where chi squared has risen by 1, on either side.
  s.offset = fit.chi_squared + 1.0f;
  float above = 0.0f, below = 0.0f;
  for (int k = 1; k <= n_trial_angles && (above == 0.0f || below == 0.0f); ++k) {
    const float away = static_cast<float>(k) * spacing;
    if (above == 0.0f && chi(best + away) > 0.0f) above = away;
    if (below == 0.0f && chi(best - away) > 0.0f) below = away;
  }
  // The line holds; its errors have no bound.
  if (above == 0.0f || below == 0.0f) return true;
  const float up = zbrent(chi, best, best + above, angle_accuracy * 1e-2f, log) - best;
  const float intercept_up = s.intercept - intercept;
  const float down = zbrent(chi, best, best - below, angle_accuracy * 1e-2f, log) - best;
  const float intercept_down = s.intercept - intercept;
  const auto cosine = static_cast<float>(std::cos(double{best}));
  // The derivative of the tangent turns an error of the angle into one of the slope.
  fit.slope_error = std::sqrt(0.5f * (up * up + down * down)) / (scale * cosine * cosine);
  fit.intercept_error =
      std::sqrt(0.5f * (intercept_up * intercept_up + intercept_down * intercept_down) +
                intercept_variance) /
      scale;
  return true;
}

}  // namespace kestrelvane

// Straight line through points with errors in both coordinates.
#pragma once

#include <cstdint>

#include "numerics/failure_log.h"

namespace kestrelvane {

struct line_fit {
  float intercept = 0, slope = 0;
  float intercept_error = 0, slope_error = 0;  // standard errors; 1e30 when not bounded
  float chi_squared = 0;
  float probability = 0;  // that chance gives a chi squared as large
};

// Least chi squared of y = intercept + slope x, each point with its standard
// errors sx, sy (not both 0), found over the angle of the line (Press et al.,
// Numerical Recipes, 15.3). At least 3 points; false with fewer, or when all
// points are one.
bool fitexy(std::int32_t n, const float* x, const float* y, const float* sx, const float* sy,
            line_fit& fit, const failure_log& log = {});

}  // namespace kestrelvane

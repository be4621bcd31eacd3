// Natural cubic splines.
#pragma once

#include <cstdint>

#include "numerics/failure_log.h"

namespace kestrelvane {

// second[0..n-1] becomes the second derivatives at the knots x (ascending), y:
// zero at both ends.
void make_spline(std::int32_t n, const float* x, const float* y, float* second);

// The spline at a place; beyond the ends its outermost cubics go on. Two knots at
// one x are told as "Error in spline routine" and give the first of their values.
float spline_value(std::int32_t n, const float* x, const float* y, const float* second, float at,
                   const failure_log& log = {});

}  // namespace kestrelvane

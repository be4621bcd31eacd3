// Special functions of statistics (Press et al., Numerical Recipes, chapter 6;
// Lanczos 1964 for log-gamma). 32-bit arguments and results; bad arguments are
// told to the log and give the nearest limit, or what has been reached.
#pragma once

#include "numerics/failure_log.h"

namespace kestrelvane {

// Logarithm of the gamma function, x > 0, in 64 bits.
double log_gamma(double x);

// Regularised incomplete beta function I_x(a, b), 0 <= x <= 1.
float betai(float a, float b, float x, const failure_log& log = {});

// Its continued fraction, by the modified Lentz method.
float betacf(float a, float b, float x, const failure_log& log = {});

// Regularised upper incomplete gamma function Q(a, x), a > 0, x >= 0.
float gammq(float a, float x, const failure_log& log = {});

}  // namespace kestrelvane

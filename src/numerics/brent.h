// Minimum and root of a function of one variable, both by Brent's methods
// (Brent 1973; Press et al., Numerical Recipes, 9.3 and 10.2).
#pragma once

#include "numerics/failure_log.h"

namespace kestrelvane {

// A function with what it needs beside its argument.
struct scalar_function {
  void* context = nullptr;
  float (*value)(void* context, float x) = nullptr;

  float operator()(float x) const { return value(context, x); }
};

// Minimum inside the bracket ax, bx, cx (bx between the others and lowest), to a
// fractional precision of tolerance. Returns the value, its place in xmin. Past
// 100 iterations says so and returns what it has.
float brent(float ax, float bx, float cx, const scalar_function& f, float tolerance, float& xmin,
            const failure_log& log = {});

// Root between x1 and x2, to within tolerance. The values at x1 and x2 must
// differ in sign; if they do not, says so and returns x2.
float zbrent(const scalar_function& f, float x1, float x2, float tolerance,
             const failure_log& log = {});

}  // namespace kestrelvane

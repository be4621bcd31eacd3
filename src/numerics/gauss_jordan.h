// Linear equations by Gauss-Jordan elimination with full pivoting.
#pragma once

#include <cstdint>

namespace kestrelvane {

// Solves a x = b in place: a (n x n, element (i, k) at a[i * stride + k]) becomes
// its inverse, b (n) the solution. False when the matrix is singular: a pivot is
// zero or not a number, or a pivot column turns up twice; a and b are then part
// way through.
bool gauss_jordan(float* a, std::int32_t n, std::int32_t stride, float* b);

}  // namespace kestrelvane

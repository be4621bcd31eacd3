// Smoothing filters of Savitzky and Golay (1964), and the LU decomposition that
// they are computed with.
#pragma once

#include <cstdint>

#include "numerics/failure_log.h"

namespace kestrelvane {

// Replaces a (n x n, element (i, k) at a[i * stride + k]) by the LU decomposition
// of a row-wise permutation of itself, unit diagonal in L, and writes that
// permutation to rows: step k exchanged rows k and rows[k]. False, after
// "singular matrix in ludcmp", for a row of zeros or a zero pivot.
bool ludcmp(double* a, std::int32_t n, std::int32_t stride, std::int32_t* rows,
            const failure_log& log = {});

// Coefficients that give the derivative-th derivative (0 smooths) at a sample
// from n_left samples before it to n_right after it, by a fitted polynomial of
// the given degree: coefficients[k] belongs to sample k - n_left. Per sample
// interval; a derivative is not yet multiplied by its factorial. False, after
// "invalid parameters for savgol", when the numbers do not fit together; the
// coefficients are then left alone.
bool savgol(float* coefficients, std::int32_t n_left, std::int32_t n_right, std::int32_t derivative,
            std::int32_t degree, const failure_log& log = {});

}  // namespace kestrelvane

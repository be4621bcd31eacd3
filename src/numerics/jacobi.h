// Eigenvalues and eigenvectors of a symmetric matrix by Jacobi rotations.
//
// Cyclic sweeps in 32-bit floats (Press et al., Numerical Recipes, 11.1;
// Rutishauser 1966). The signs of the eigenvectors, and which of two equal
// eigenvalues comes first, are what the rotations leave, and sorting depends on
// them. Rows are worked on many elements at a time, each element through the
// operations of the plain loops, so the result has the same bits on any machine.
//
// Reentrant. Work space is allocated when n is above 128.
#pragma once

#include <cstdint>

#include "numerics/failure_log.h"

namespace kestrelvane {

// a: n x n, element (i, k) at a[i * stride + k], counted from 0; only its upper
// triangle is read, and it is left unchanged. eigenvalues: n, unsorted.
// vectors: component p of eigenvector d at vectors[d * stride + p].
// n_rotations: rotations done.
//
// False after 50 sweeps without an end, with the line "Too many iterations in
// routine Jacobi; ", n and the rotations; the values are then those reached.
bool jacobi(const float* a, std::int32_t n, std::int32_t stride, float* eigenvalues, float* vectors,
            std::int32_t& n_rotations, const failure_log& log = {});

// jacobi, then sorted by descending magnitude of the eigenvalue (index_sort on the
// negated magnitudes). When jacobi fails nothing is reordered.
bool eigen_decomposition(const float* a, std::int32_t n, std::int32_t stride, float* eigenvalues,
                         float* vectors, std::int32_t& n_rotations, const failure_log& log = {});

}  // namespace kestrelvane

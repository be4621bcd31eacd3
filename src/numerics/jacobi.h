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

// The line of a failed jacobi.
void report_too_many_iterations(std::int32_t n, std::int32_t n_rotations, const failure_log& log);

// Sorts eigenvalues by descending magnitude (index_sort on the negated magnitudes)
// and their vectors with them.
void sort_eigenvectors(std::int32_t n, std::int32_t stride, float* eigenvalues, float* vectors);

// jacobi, then sort_eigenvectors. When jacobi fails nothing is reordered.
bool eigen_decomposition(const float* a, std::int32_t n, std::int32_t stride, float* eigenvalues,
                         float* vectors, std::int32_t& n_rotations, const failure_log& log = {});

// One of several matrices of the same order; fields as the arguments of
// eigen_decomposition.
struct eigen_task {
  const float* a = nullptr;
  float* eigenvalues = nullptr;
  float* vectors = nullptr;
  std::int32_t n_rotations = 0;
  bool done = false;
};

// eigen_decomposition of each task, with the same bits. Matrices are worked on
// sixteen at a time where the processor's registers hold sixteen numbers, one
// matrix to a lane, which takes less than half the time; elsewhere one by one.
void eigen_decomposition_many(eigen_task* tasks, std::int32_t n_tasks, std::int32_t n,
                              std::int32_t stride, const failure_log& log = {});

}  // namespace kestrelvane

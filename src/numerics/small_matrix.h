// Symmetric positive definite systems of some dozens of unknowns, in 64 bits.
//
// Matrices are square, row after row, elements counted from 0. Sums go in ascending order.
#pragma once

#include <cstddef>
#include <vector>

namespace kestrelvane {

double dot(const std::vector<double>& a, const std::vector<double>& b);

// Cholesky's root of an n x n matrix, of which the lower triangle is read and overwritten: a is
// root times its transpose. A pivot below the least counts as that: a covariance of few samples
// may have a direction of no noise at all.
void take_root(std::vector<double>& a, std::size_t n, double least_pivot);

// x <- x over the root, and over its transpose. Both together solve the system.
void solve_by_root(const std::vector<double>& root, std::vector<double>& x);
void solve_by_transpose(const std::vector<double>& root, std::vector<double>& x);

}  // namespace kestrelvane

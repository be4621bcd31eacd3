#include "numerics/gauss_jordan.h"

#include <cmath>
#include <utility>
#include <vector>

namespace kestrelvane {

namespace {

struct square_matrix {
  float* a;
  std::int32_t n, stride;

  float* row(std::int32_t i) const { return a + std::int64_t{i} * stride; }
};

// The largest element outside rows and columns already used. False when there is
// none, or when a pivot has come to a column for the second time.
bool find_pivot(const square_matrix& m, const std::vector<int>& used, std::int32_t& pivot_row,
                std::int32_t& pivot_column) {
  float largest = 0.0f;
  bool found = false;
  for (std::int32_t i = 0; i < m.n; ++i) {
    if (used[i] == 1) continue;
    for (std::int32_t k = 0; k < m.n; ++k) {
      if (used[k] > 1) return false;
      // Of equal ones the last.
      if (used[k] == 0 && std::fabs(m.row(i)[k]) >= largest) {
        largest = std::fabs(m.row(i)[k]);
        pivot_row = i;
        pivot_column = k;
        found = true;
      }
    }
  }
  return found;
}

}  // namespace

bool gauss_jordan(float* a, std::int32_t n, std::int32_t stride, float* b) {
  const square_matrix m{a, n, stride};
  std::vector<int> used(n, 0);
  std::vector<std::pair<std::int32_t, std::int32_t>> exchanges;
  for (std::int32_t step = 0; step < n; ++step) {
    std::int32_t from = 0, pivot = 0;
    if (!find_pivot(m, used, from, pivot)) return false;
    if (++used[pivot] > 1) return false;
    // The pivot goes to the diagonal by an exchange of rows; the columns of the
    // inverse that this mixes up are put back at the end.
    if (from != pivot) {
      for (std::int32_t k = 0; k < n; ++k) std::swap(m.row(from)[k], m.row(pivot)[k]);
      std::swap(b[from], b[pivot]);
    }
    exchanges.emplace_back(from, pivot);
    float* pivot_row = m.row(pivot);
    // Neither 0 nor a value that is no number can be divided by.
    if (!(pivot_row[pivot] != 0.0f) || std::isnan(pivot_row[pivot])) return false;
    const float inverse = 1.0f / pivot_row[pivot];
    // The inverse grows in the place of the matrix; this is where the pivot's column of it begins.
    pivot_row[pivot] = 1.0f;
    for (std::int32_t k = 0; k < n; ++k) pivot_row[k] *= inverse;
    b[pivot] *= inverse;
    for (std::int32_t i = 0; i < n; ++i) {
      if (i == pivot) continue;
      const float factor = m.row(i)[pivot];
      m.row(i)[pivot] = 0.0f;
      for (std::int32_t k = 0; k < n; ++k) m.row(i)[k] -= pivot_row[k] * factor;
      b[i] -= b[pivot] * factor;
    }
  }
  // Undone from the last to the first.
  for (std::int32_t step = n - 1; step >= 0; --step) {
    const auto [from, pivot] = exchanges[step];
    if (from == pivot) continue;
    for (std::int32_t i = 0; i < n; ++i) std::swap(m.row(i)[from], m.row(i)[pivot]);
  }
  return true;
}

}  // namespace kestrelvane

#include "numerics/savgol.h"

#include <cmath>
#include <utility>
#include <vector>

namespace kestrelvane {

bool ludcmp(double* a, std::int32_t n, std::int32_t stride, std::int32_t* rows,
            const failure_log& log) {
  const auto row = [&](std::int32_t i) { return a + std::int64_t{i} * stride; };
  // Pivots are compared as parts of the largest element of their row.
  std::vector<double> scale(n);
  for (std::int32_t i = 0; i < n; ++i) {
    double largest = 0.0;
    for (std::int32_t k = 0; k < n; ++k) largest = std::fmax(largest, std::fabs(row(i)[k]));
    if (largest == 0.0) {
      log("singular matrix in ludcmp");
      return false;
    }
    scale[i] = 1.0 / largest;
  }
  for (std::int32_t k = 0; k < n; ++k) {
    std::int32_t pivot = k;
    for (std::int32_t i = k + 1; i < n; ++i) {
      // By their share of the largest in their row, so that the scale of an equation does not
      // matter.
      if (scale[i] * std::fabs(row(i)[k]) > scale[pivot] * std::fabs(row(pivot)[k])) pivot = i;
    }
    rows[k] = pivot;
    if (pivot != k) {
      for (std::int32_t j = 0; j < n; ++j) std::swap(row(k)[j], row(pivot)[j]);
      std::swap(scale[k], scale[pivot]);
    }
    if (row(k)[k] == 0.0) {
      log("singular matrix in ludcmp");
      return false;
    }
    for (std::int32_t i = k + 1; i < n; ++i) {
      const double factor = row(i)[k] /= row(k)[k];
      for (std::int32_t j = k + 1; j < n; ++j) row(i)[j] -= factor * row(k)[j];
    }
  }
  return true;
}

namespace {

// Solves for b in place with what ludcmp left.
void lu_solve(const double* a, std::int32_t n, std::int32_t stride, const std::int32_t* rows,
              double* b) {
  const auto row = [&](std::int32_t i) { return a + std::int64_t{i} * stride; };
  for (std::int32_t k = 0; k < n; ++k) std::swap(b[k], b[rows[k]]);
  for (std::int32_t i = 1; i < n; ++i) {
    for (std::int32_t j = 0; j < i; ++j) b[i] -= row(i)[j] * b[j];
  }
  for (std::int32_t i = n - 1; i >= 0; --i) {
    for (std::int32_t j = i + 1; j < n; ++j) b[i] -= row(i)[j] * b[j];
    b[i] /= row(i)[i];
  }
}

}  // namespace

bool savgol(float* coefficients, std::int32_t n_left, std::int32_t n_right, std::int32_t derivative,
            std::int32_t degree, const failure_log& log) {
  if (n_left < 0 || n_right < 0 || derivative < 0 || derivative > degree ||
      n_left + n_right < degree) {
    log("invalid parameters for savgol");
    return false;
  }
  // Normal equations of the fit over powers of the offset: element (i, k) is the
  // sum of offset^(i + k). The row of the inverse that gives the wanted
  // polynomial coefficient, times the powers at an offset, is its coefficient.
  const std::int32_t n = degree + 1;
  std::vector<double> a(static_cast<std::size_t>(n) * n, 0.0);
  for (std::int32_t offset = -n_left; offset <= n_right; ++offset) {
    for (std::int32_t i = 0; i < n; ++i) {
      // 0 to the power of 0 is 1 here, as the equations want it.
      for (std::int32_t k = 0; k < n; ++k) a[i * n + k] += std::pow(offset, i + k);
    }
  }
  std::vector<std::int32_t> rows(n);
  if (!ludcmp(a.data(), n, n, rows.data(), log)) return false;
  std::vector<double> b(n, 0.0);
  b[derivative] = 1.0;
  lu_solve(a.data(), n, n, rows.data(), b.data());
  for (std::int32_t offset = -n_left; offset <= n_right; ++offset) {
    double sum = 0.0;
    for (std::int32_t i = degree; i >= 0; --i) sum = sum * offset + b[i];
    coefficients[offset + n_left] = static_cast<float>(sum);
  }
  return true;
}

}  // namespace kestrelvane

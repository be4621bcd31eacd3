#include "numerics/small_matrix.h"

#include <algorithm>
#include <cmath>

namespace kestrelvane {

double dot(const std::vector<double>& a, const std::vector<double>& b) {
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += a[i] * b[i];
  return sum;
}

void take_root(std::vector<double>& a, std::size_t n, double least_pivot) {
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t k = 0; k <= i; ++k) {
      double sum = a[i * n + k];
      for (std::size_t m = 0; m < k; ++m) sum -= a[i * n + m] * a[k * n + m];
      a[i * n + k] = i == k ? std::sqrt(std::max(sum, least_pivot)) : sum / a[k * n + k];
    }
  }
}

void solve_by_root(const std::vector<double>& root, std::vector<double>& x) {
  const std::size_t n = x.size();
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t m = 0; m < i; ++m) x[i] -= root[i * n + m] * x[m];
    x[i] /= root[i * n + i];
  }
}

void solve_by_transpose(const std::vector<double>& root, std::vector<double>& x) {
  const std::size_t n = x.size();
  for (std::size_t i = n; i-- > 0;) {
    for (std::size_t m = i + 1; m < n; ++m) x[i] -= root[m * n + i] * x[m];
    x[i] /= root[i * n + i];
  }
}

}  // namespace kestrelvane

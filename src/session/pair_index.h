// Numbering of cluster pairs: (1,2), (1,3) .. (1,n), (2,3) .. (n-1,n), from 1.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace kestrelvane {

// Number of the pair (a, b), a < b, among n clusters.
inline std::int64_t pair_index(std::int64_t n, std::int64_t a, std::int64_t b) {
  return a * (n - 1) - n - (a - 1) * a / 2 + b;
}

struct cluster_pair {
  std::int32_t a, b;
};

// The pair with number k among n clusters.
inline cluster_pair pair_from_index(std::int64_t n, std::int64_t k) {
  // Row a begins after a - 1 rows of n - 1, n - 2 .. pairs: the root of a quadratic, which rounding
  // may put into the row before or after.
  const double width = 2.0 * static_cast<double>(n) - 1.0;
  const double root = std::sqrt(std::max(0.0, width * width - 8.0 * static_cast<double>(k - 1)));
  std::int64_t a = std::clamp<std::int64_t>(static_cast<std::int64_t>((width - root) / 2.0) + 1, 1,
                                            std::max<std::int64_t>(n - 1, 1));
  while (a > 1 && k < pair_index(n, a, a + 1)) --a;
  while (a < n - 1 && k >= pair_index(n, a + 1, a + 2)) ++a;
  return {static_cast<std::int32_t>(a),
          static_cast<std::int32_t>(a + 1 + (k - pair_index(n, a, a + 1)))};
}

inline std::int64_t pair_count(std::int64_t n) { return n * (n - 1) / 2; }

}  // namespace kestrelvane

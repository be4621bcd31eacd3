// Numbering of cluster pairs: (1,2), (1,3) .. (1,n), (2,3) .. (n-1,n), from 1.
#pragma once

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
  std::int32_t a = 1;
  std::int64_t row = n - 1;
  while (k > row && row > 0) {
    k -= row;
    --row;
    ++a;
  }
  return {a, static_cast<std::int32_t>(a + k)};
}

inline std::int64_t pair_count(std::int64_t n) { return n * (n - 1) / 2; }

}  // namespace kestrelvane

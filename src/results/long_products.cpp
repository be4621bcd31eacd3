#include "results/long_products.h"

#include <algorithm>
#include <cmath>

#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "session/limits.h"

namespace kestrelvane {

namespace {

// ---------------------------------------------------------------- values and samples

// An addition takes four cycles, and two begin in each.
constexpr std::size_t chains_at_once = 8;

// The products first, which wait for nothing and fill whole vectors; then the sums, one point of
// every chain after the other.
KESTRELVANE_CLONES void add_products_of(product_chain* chains, std::int32_t n_points) {
  alignas(64) double products[chains_at_once][whole_lanes(template_point_limit)];
  for (std::size_t k = 0; k < chains_at_once; ++k) {
    const double* values = chains[k].values;
    const std::int16_t* samples = chains[k].samples;
    for (std::int32_t p = 0; p < n_points; ++p) products[k][p] = values[p] * samples[p];
  }
  double sums[chains_at_once];
  for (std::size_t k = 0; k < chains_at_once; ++k) sums[k] = chains[k].sum;
  for (std::int32_t p = 0; p < n_points; ++p) {
    for (std::size_t k = 0; k < chains_at_once; ++k) sums[k] += products[k][p];
  }
  for (std::size_t k = 0; k < chains_at_once; ++k) chains[k].sum = sums[k];
}

}  // namespace

void add_products(std::vector<product_chain>& chains, std::int32_t n_points) {
  const std::size_t n = chains.size(), whole = n / chains_at_once * chains_at_once;
  for (std::size_t k = 0; k < whole; k += chains_at_once) add_products_of(&chains[k], n_points);
  if (whole == n) return;
  // The last few with copies of themselves, whose sums nobody asks for.
  product_chain last[chains_at_once];
  for (std::size_t k = 0; k < chains_at_once; ++k) last[k] = chains[std::min(whole + k, n - 1)];
  add_products_of(last, n_points);
  std::copy_n(last, n - whole, chains.begin() + static_cast<std::ptrdiff_t>(whole));
}

// ---------------------------------------------------------------- rows and rows

namespace {

// Rows whose values stand side by side, value by value, so that one row is multiplied with all of
// them at once.
constexpr std::size_t rows_of_block = n_lanes;
// Sums of four rows in vectors as wide as a register: eight of them, and none waits.
constexpr std::size_t rows_at_once = 4;

template <int L>
struct double_lanes {
  typedef double values __attribute__((vector_size(sizeof(float) * L)));
  typedef float narrow __attribute__((vector_size(sizeof(float) * L / 2), aligned(4), may_alias));
};

// Sums of the products of rows_at_once rows with those of a block; rows_of_block sums for each.
template <int L>
KESTRELVANE_INTO_CALLER void multiply_rows_by(const float* const* rows, const float* block,
                                              std::size_t size, double* sums) {
  using values = typename double_lanes<L>::values;
  constexpr std::size_t width = L / 2, at_once = 2 * width;
  for (std::size_t lane = 0; lane < rows_of_block; lane += at_once) {
    values low[rows_at_once] = {}, high[rows_at_once] = {};
    for (std::size_t i = 0; i < size; ++i) {
      const float* others = block + i * rows_of_block + lane;
      const values a = __builtin_convertvector(
          *reinterpret_cast<const typename double_lanes<L>::narrow*>(others), values);
      const values b = __builtin_convertvector(
          *reinterpret_cast<const typename double_lanes<L>::narrow*>(others + width), values);
      for (std::size_t r = 0; r < rows_at_once; ++r) {
        const double value = rows[r][i];
        low[r] += value * a;
        high[r] += value * b;
      }
    }
    for (std::size_t r = 0; r < rows_at_once; ++r) {
      for (std::size_t k = 0; k < width; ++k) {
        sums[r * rows_of_block + lane + k] = low[r][k];
        sums[r * rows_of_block + lane + width + k] = high[r][k];
      }
    }
  }
}
KESTRELVANE_BY_WIDTH(multiply_rows,
                     (const float* const* rows, const float* block, std::size_t size, double* sums),
                     (rows, block, size, sums))

struct row_set {
  const float* values;
  std::size_t n, size;
  const float* row(std::size_t k) const { return values + k * size; }
};

std::vector<double> lengths_of(const row_set& rows) {
  std::vector<double> lengths(rows.n);
  for (std::size_t k = 0; k < rows.n; ++k) {
    double sum = 0;
    for (std::size_t i = 0; i < rows.size; ++i) {
      sum += double{rows.row(k)[i]} * double{rows.row(k)[i]};
    }
    lengths[k] = std::sqrt(sum);
  }
  return lengths;
}

// Cosines of the rows from first on with themselves and all before them, in both places.
void compare_block(const row_set& rows, const std::vector<double>& lengths, std::size_t first,
                   std::vector<float>& cosines) {
  const std::size_t last = std::min(first + rows_of_block, rows.n);
  std::vector<float> block(rows.size * rows_of_block, 0.0f);
  for (std::size_t b = first; b < last; ++b) {
    for (std::size_t i = 0; i < rows.size; ++i) {
      block[i * rows_of_block + (b - first)] = rows.row(b)[i];
    }
  }
  for (std::size_t a = 0; a < last; a += rows_at_once) {
    const float* wanted[rows_at_once];
    double sums[rows_at_once * rows_of_block];
    for (std::size_t r = 0; r < rows_at_once; ++r) wanted[r] = rows.row(std::min(a + r, last - 1));
    multiply_rows(wanted, block.data(), rows.size, sums);
    for (std::size_t k = a; k < std::min(a + rows_at_once, last); ++k) {
      // Each pair once, from the lower of the two: another block may be at work on its own.
      for (std::size_t b = std::max(k, first); b < last; ++b) {
        const double scale = lengths[k] * lengths[b];
        if (scale <= 0) continue;
        const auto cosine = static_cast<float>(sums[(k - a) * rows_of_block + (b - first)] / scale);
        cosines[k * rows.n + b] = cosines[b * rows.n + k] = cosine;
      }
    }
  }
}

}  // namespace

std::vector<float> find_cosines(const std::vector<float>& rows, std::size_t n,
                                std::int32_t n_threads) {
  std::vector<float> cosines(n * n, 0.0f);
  if (n == 0) return cosines;
  const row_set all{rows.data(), n, rows.size() / n};
  const std::vector<double> lengths = lengths_of(all);
  const std::size_t n_blocks = (n + rows_of_block - 1) / rows_of_block;
  // The longest first, so that no thread begins one when the others are done.
  parallel_for_dealt(n_threads, 1, static_cast<std::int64_t>(n_blocks),
                     [&](std::int64_t i, std::int32_t) {
                       const std::size_t block = n_blocks - static_cast<std::size_t>(i);
                       compare_block(all, lengths, block * rows_of_block, cosines);
                     });
  return cosines;
}

}  // namespace kestrelvane

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

std::vector<double> lengths_of(const row_source& rows) {
  std::vector<double> lengths(rows.n);
  std::vector<float> row(rows.size);
  for (std::size_t k = 0; k < rows.n; ++k) {
    rows.copy(k, row.data());
    double sum = 0;
    for (const float value : row) sum += double{value} * double{value};
    lengths[k] = std::sqrt(sum);
  }
  return lengths;
}

// Rows first to last - 1 side by side, zeros in the place of what a whole block has beyond them.
std::vector<float> make_block(const row_source& rows, std::size_t first, std::size_t last) {
  std::vector<float> block(rows.size * rows_of_block, 0.0f), row(rows.size);
  for (std::size_t b = first; b < last; ++b) {
    rows.copy(b, row.data());
    for (std::size_t i = 0; i < rows.size; ++i) block[i * rows_of_block + (b - first)] = row[i];
  }
  return block;
}

// Rows that are held at a time, for all blocks to be compared with. It begins where a block does,
// so that the block's own rows are in one piece or behind it.
struct row_piece {
  std::size_t first = 0, end = 0, size = 0;
  std::vector<float> values;
  float* row(std::size_t k) { return values.data() + (k - first) * size; }
  const float* row(std::size_t k) const { return values.data() + (k - first) * size; }
};
constexpr std::size_t bytes_of_piece = 8 << 20;

// Cosines of the rows of a block, from first on, with those of the piece that are not behind them,
// in both places.
void compare_block(const row_source& rows, const row_piece& piece,
                   const std::vector<double>& lengths, std::size_t first,
                   std::vector<float>& cosines) {
  const std::size_t last = std::min(first + rows_of_block, rows.n);
  const std::vector<float> block = make_block(rows, first, last);
  const std::size_t end = std::min(last, piece.end);
  for (std::size_t a = piece.first; a < end; a += rows_at_once) {
    const float* wanted[rows_at_once];
    double sums[rows_at_once * rows_of_block];
    for (std::size_t r = 0; r < rows_at_once; ++r) wanted[r] = piece.row(std::min(a + r, end - 1));
    multiply_rows(wanted, block.data(), rows.size, sums);
    for (std::size_t k = a; k < std::min(a + rows_at_once, end); ++k) {
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

std::vector<float> find_cosines(const row_source& rows, std::int32_t n_threads) {
  std::vector<float> cosines(rows.n * rows.n, 0.0f);
  const std::vector<double> lengths = lengths_of(rows);
  const std::size_t n_blocks = (rows.n + rows_of_block - 1) / rows_of_block;
  const std::size_t blocks_of_piece =
      bytes_of_piece / std::max<std::size_t>(rows.size * rows_of_block * sizeof(float), 1);
  const std::size_t n_held = std::max<std::size_t>(blocks_of_piece, 1) * rows_of_block;
  row_piece piece{0, 0, rows.size, std::vector<float>(std::min(n_held, rows.n) * rows.size)};
  for (; piece.end < rows.n; piece.first = piece.end) {
    piece.end = std::min(piece.first + n_held, rows.n);
    parallel_for(n_threads, static_cast<std::int64_t>(piece.first),
                 static_cast<std::int64_t>(piece.end) - 1, [&](std::int64_t k, std::int32_t) {
                   rows.copy(static_cast<std::size_t>(k), piece.row(static_cast<std::size_t>(k)));
                 });
    // The longest first, so that no thread begins one when the others are done: those of the
    // piece's own rows are shorter.
    parallel_for_dealt(n_threads, 1,
                       static_cast<std::int64_t>(n_blocks - piece.first / rows_of_block),
                       [&](std::int64_t i, std::int32_t) {
                         const std::size_t block = n_blocks - static_cast<std::size_t>(i);
                         compare_block(rows, piece, lengths, block * rows_of_block, cosines);
                       });
  }
  return cosines;
}

}  // namespace kestrelvane

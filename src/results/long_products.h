// Sums of products over waveforms, many of them at once.
//
// Each sum is one chain of additions in 64 bits in the order of its values, as a plain loop has
// it, so that the bits are those of that loop. A chain waits for each of its additions; what is
// gained comes from chains side by side, which do not wait for one another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace kestrelvane {

// Values times the samples under them, added to sum.
struct product_chain {
  const double* values = nullptr;
  const std::int16_t* samples = nullptr;
  double sum = 0;
};

// Adds n_points products to the sum of each chain. At most 151 points.
void add_products(std::vector<product_chain>& chains, std::int32_t n_points);

// Rows of so many values each, made when they are asked for: all of them at once may be more than
// there is memory for. Called on several threads.
struct row_source {
  std::size_t n = 0, size = 0;
  std::function<void(std::size_t k, float* row)> copy;
};

// Cosines of the angles between all pairs of rows, row by row; 0 for a row of zeros, which is like
// nothing. On so many threads.
std::vector<float> find_cosines(const row_source& rows, std::int32_t n_threads);

}  // namespace kestrelvane

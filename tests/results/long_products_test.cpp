// Chains of products side by side, against one loop after the other, bit for bit.
#include "results/long_products.h"

#include <gtest/gtest.h>

#include <cmath>

#include "session/limits.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

float random_voltage(vector_random& random) {
  return static_cast<float>(static_cast<std::int32_t>(random.next() >> 8) % 100'003) / 37.0f;
}

TEST(long_products, are_those_of_a_plain_loop) {
  vector_random random(3);
  for (const std::int32_t n_points : {3, 33, template_point_limit}) {
    for (std::size_t n = 0; n <= 17; ++n) {
      std::vector<std::vector<double>> values(n);
      std::vector<std::vector<std::int16_t>> samples(n);
      std::vector<product_chain> chains(n);
      std::vector<double> plain(n);
      for (std::size_t k = 0; k < n; ++k) {
        chains[k].sum = plain[k] = random_voltage(random);
        for (std::int32_t p = 0; p < n_points; ++p) {
          values[k].push_back(random_voltage(random));
          samples[k].push_back(static_cast<std::int16_t>(random.next() >> 16));
          plain[k] += values[k].back() * samples[k].back();
        }
        chains[k].values = values[k].data();
        chains[k].samples = samples[k].data();
      }
      add_products(chains, n_points);
      for (std::size_t k = 0; k < n; ++k) EXPECT_EQ(chains[k].sum, plain[k]) << n << ' ' << k;
    }
  }
}

void expect_cosines_of(std::size_t n, std::size_t size) {
  vector_random random(4);
  std::vector<float> rows(n * size);
  for (float& value : rows) value = random_voltage(random);
  // One that is like nothing.
  if (n > 5) std::fill_n(rows.begin() + static_cast<std::ptrdiff_t>(3 * size), size, 0.0f);
  std::vector<double> products(n * n);
  for (std::size_t a = 0; a < n; ++a) {
    for (std::size_t b = 0; b <= a; ++b) {
      double sum = 0;
      for (std::size_t i = 0; i < size; ++i) {
        sum += double{rows[a * size + i]} * double{rows[b * size + i]};
      }
      products[a * n + b] = products[b * n + a] = sum;
    }
  }
  const row_source source{
      n, size, [&](std::size_t k, float* row) { std::copy_n(&rows[k * size], size, row); }};
  for (const std::int32_t n_threads : {1, 3}) {
    const std::vector<float> cosines = find_cosines(source, n_threads);
    ASSERT_EQ(cosines.size(), n * n);
    for (std::size_t a = 0; a < n; ++a) {
      for (std::size_t b = 0; b < n; ++b) {
        const double scale = std::sqrt(products[a * n + a]) * std::sqrt(products[b * n + b]);
        const double expected = scale > 0 ? products[a * n + b] / scale : 0;
        ASSERT_EQ(cosines[a * n + b], static_cast<float>(expected)) << a << ' ' << b;
      }
    }
  }
}

TEST(long_products, cosines_are_those_of_pairs_one_by_one) {
  for (const std::size_t n : {0, 1, 5, 16, 17, 50}) expect_cosines_of(n, 311);
  // Rows of which few are held at a time.
  expect_cosines_of(34, 140'000);
  expect_cosines_of(16, 140'000);
}

}  // namespace
}  // namespace kestrelvane::test

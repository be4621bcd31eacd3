#include "numerics/jacobi.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <string>
#include <vector>

#include "numerics/plain_jacobi.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::plain_eigen;
using test::plain_jacobi;
using test::vector_random;

std::uint32_t bits(float f) { return std::bit_cast<std::uint32_t>(f); }

enum class kind { random, covariance, blocks };

// Symmetric matrices of the kinds met in sorting: covariances of few patterns plus
// noise, some with points that are the same twice, and plain random ones.
std::vector<float> make_matrix(std::int32_t n, kind which, std::uint32_t seed) {
  vector_random random(seed);
  const auto number = [&] { return static_cast<float>((random.next() >> 16) % 2001) - 1000.0f; };
  std::vector<float> a(n * n, 0.0f);
  if (which == kind::covariance) {
    std::vector<float> patterns(4 * n);
    for (float& v : patterns) v = 0.05f * number();
    for (std::int32_t i = 0; i < n; ++i) {
      for (std::int32_t k = i; k < n; ++k) {
        for (std::int32_t p = 0; p < 4; ++p)
          a[i * n + k] += patterns[p * n + i] * patterns[p * n + k];
        a[i * n + k] += 0.01f * number();
      }
    }
  } else {
    for (std::int32_t i = 0; i < n; ++i) {
      for (std::int32_t k = i; k < n; ++k) {
        if (which == kind::random || (i / 3 == k / 3)) a[i * n + k] = number();
      }
    }
  }
  for (std::int32_t i = 0; i < n; ++i) {
    for (std::int32_t k = 0; k < i; ++k) a[i * n + k] = a[k * n + i];
  }
  return a;
}

TEST(Jacobi, SameBitsAsPlainForm) {
  for (const kind which : {kind::random, kind::covariance, kind::blocks}) {
    for (const std::int32_t n : {1, 2, 3, 7, 15, 16, 17, 31, 32, 33, 50, 64, 100, 130}) {
      SCOPED_TRACE(std::to_string(static_cast<int>(which)) + " n " + std::to_string(n));
      const std::vector<float> a = make_matrix(n, which, 11 + n);
      const plain_eigen plain = plain_jacobi(a, n);
      const std::int32_t stride = n + 5;
      std::vector<float> wide(stride * n, 77.0f), values(n), vectors(stride * n, -5.0f);
      for (std::int32_t i = 0; i < n; ++i) {
        for (std::int32_t k = i; k < n; ++k) wide[i * stride + k] = a[i * n + k];
      }
      std::int32_t n_rotations = -1;
      ASSERT_EQ(jacobi(wide.data(), n, stride, values.data(), vectors.data(), n_rotations),
                plain.done);
      EXPECT_EQ(n_rotations, plain.n_rotations);
      int different = 0;
      for (std::int32_t d = 0; d < n; ++d) {
        different += bits(values[d]) != bits(plain.values[d]);
        for (std::int32_t p = 0; p < n; ++p) {
          different += bits(vectors[d * stride + p]) != bits(plain.vectors[p * n + d]);
        }
        for (std::int32_t p = n; p < stride; ++p) different += vectors[d * stride + p] != -5.0f;
      }
      EXPECT_EQ(different, 0);
    }
  }
}

struct eigen_case {
  std::vector<float> a;
  std::int32_t n_rotations;
  std::vector<std::uint32_t> value_bits;
  std::vector<float> vectors;  // one after the other
};

TEST(EigenDecomposition, KnownMatrices) {
  const eigen_case cases[] = {
      {{4, 1, -2, 1, 3, 0.5f, -2, 0.5f, 5},
       11,
       {0x40D27255, 0x4075B7B0, 0x3FCAC749},
       {-0.62794828f, -0.067181885f, 0.77535003f, 0.44533956f, 0.78601438f, 0.42878208f,
        -0.63824266f, 0.61454695f, -0.46365765f}},
      {{10, 2, 3, 0, 2, -12, 1, 4, 3, 1, 8, -1, 0, 4, -1, 1},
       18,
       {0xC15565DF, 0x4145DEA7, 0x40C12699, 0x3FF79F5E},
       {-0.076113775f, 0.95850682f, -0.046906058f, -0.27068654f, 0.80929875f, 0.08688727f,
        0.5805738f, -0.020500366f, -0.5675534f, -0.065406695f, 0.79353881f, -0.20952614f,
        -0.13086423f, 0.26350948f, 0.17615326f, 0.93936533f}}};
  for (const eigen_case& c : cases) {
    const auto n = static_cast<std::int32_t>(c.value_bits.size());
    std::vector<float> values(n), vectors(n * n);
    std::int32_t n_rotations = 0;
    ASSERT_TRUE(eigen_decomposition(c.a.data(), n, n, values.data(), vectors.data(), n_rotations));
    EXPECT_EQ(n_rotations, c.n_rotations);
    for (std::int32_t i = 0; i < n; ++i) EXPECT_EQ(bits(values[i]), c.value_bits[i]) << values[i];
    for (std::int32_t i = 0; i < n * n; ++i) EXPECT_EQ(bits(vectors[i]), bits(c.vectors[i])) << i;
  }
}

TEST(EigenDecomposition, LargestMagnitudeFirstAndVectorsSolve) {
  const std::int32_t n = 50;
  const std::vector<float> a = make_matrix(n, kind::random, 5);
  std::vector<float> values(n), vectors(n * n);
  std::int32_t n_rotations = 0;
  ASSERT_TRUE(eigen_decomposition(a.data(), n, n, values.data(), vectors.data(), n_rotations));
  for (std::int32_t d = 0; d < n; ++d) {
    EXPECT_GE(std::fabs(values[d > 0 ? d - 1 : 0]), std::fabs(values[d]));
    for (std::int32_t i = 0; i < n; ++i) {
      double product = 0;
      for (std::int32_t k = 0; k < n; ++k) product += double{a[i * n + k]} * vectors[d * n + k];
      EXPECT_NEAR(product, double{values[d]} * vectors[d * n + i], 0.02);
    }
  }
}

TEST(EigenDecomposition, FailureIsToldAndLeavesTheOrder) {
  // An element that is not a number never becomes zero.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> a = {1, nan, 0, nan, 2, 0, 0, 0, 3};
  std::vector<float> values(3), vectors(9);
  std::int32_t n_rotations = 0;
  std::string words;
  const failure_log log{
      &words, [](void* w, const std::string& text) { *static_cast<std::string*>(w) += text; }};
  EXPECT_FALSE(
      eigen_decomposition(a.data(), 3, 3, values.data(), vectors.data(), n_rotations, log));
  EXPECT_EQ(words, "Too many iterations in routine Jacobi; 3 " + std::to_string(n_rotations));
  EXPECT_EQ(values, (std::vector<float>{1, 2, 3}));  // not by magnitude
}

}  // namespace
}  // namespace kestrelvane

#include "numerics/spectral_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <thread>

#include "signal/plain_filters.h"
#include "support/library_transform.h"

namespace kestrelvane {
namespace {

constexpr std::int32_t n = spectral_points;
constexpr std::int32_t half = n / 2;

struct complex_points {
  std::vector<float> re = std::vector<float>(n), im = std::vector<float>(n);
  bool operator==(const complex_points&) const = default;
};

// A repeatable noise of whole numbers on a slow wave, as samples are.
complex_points noise(std::uint32_t seed) {
  complex_points x;
  for (std::vector<float>* part : {&x.re, &x.im}) {
    for (std::int32_t i = 0; i < n; ++i) {
      seed = seed * 1664525u + 1013904223u;
      const double wave = 300 * std::sin(i * 0.001);
      (*part)[i] =
          static_cast<float>(static_cast<std::int32_t>(seed >> 22) - 512 + std::lround(wave));
    }
  }
  return x;
}

std::vector<float> high_pass() {
  std::vector<float> gains(half + 1, 1.0f);
  for (std::int32_t k = 0; k < 209710; ++k) {
    gains[k] = static_cast<float>(1 - test::low_pass_gain(k, 20971, 4));
  }
  return gains;
}

complex_points filtered(const complex_points& x, const spectral_factors& factors, int lanes) {
  spectral_buffer buffer;
  EXPECT_TRUE(buffer.allocate());
  for (std::int32_t i = 0; i < n; ++i) {
    buffer.re[spectral_place(i)] = x.re[i];
    buffer.im[spectral_place(i)] = x.im[i];
  }
  filter_spectrum(buffer, factors, lanes);
  complex_points out;
  for (std::int32_t i = 0; i < n; ++i) {
    out.re[i] = buffer.re[spectral_place(i)];
    out.im[i] = buffer.im[spectral_place(i)];
  }
  return out;
}

std::vector<int> lanes_here() {
  std::vector<int> lanes;
  for (const int l : {4, 8, 16}) {
    if (l <= spectral_lanes()) lanes.push_back(l);
  }
  return lanes;
}

// ---------------------------------------------------------------- the plain form

// One column after the other, in the same stages and the same order of additions.
using point = std::complex<float>;

// exp(-2 pi i m / size)
point plain_root(std::int64_t m, std::int64_t size) {
  static const std::vector<point> roots = [] {
    std::vector<point> all(n);
    // A long double puts a quarter of a turn beside its axis by less than any float.
    const auto on_axis = [](long double x) { return std::fabs(x) < 1e-15L ? 0.0L : x; };
    for (std::int32_t i = 0; i < n; ++i) {
      const long double angle = 2 * std::numbers::pi_v<long double> * i / n;
      all[i] = {static_cast<float>(on_axis(std::cos(angle))),
                static_cast<float>(on_axis(-std::sin(angle)))};
    }
    return all;
  }();
  return roots[m * (n / size) % n];
}

point product(point x, point w) {
  return {x.real() * w.real() - x.imag() * w.imag(), x.real() * w.imag() + x.imag() * w.real()};
}

point product_with_conjugate(point x, point w) {
  return {x.real() * w.real() + x.imag() * w.imag(), x.imag() * w.real() - x.real() * w.imag()};
}

point times_i(point x) { return {-x.imag(), x.real()}; }

void plain_four(point (&x)[4], bool forward) {
  const point even = x[0] + x[2], across = x[0] - x[2], odd = x[1] + x[3];
  const point turned = times_i(x[1] - x[3]);
  x[0] = even + odd;
  x[2] = even - odd;
  x[forward ? 1 : 3] = across - turned;
  x[forward ? 3 : 1] = across + turned;
}

// Transforms of 1024 points: forward leaves the digits of the bin reversed, backward takes them so.
void plain_column(std::vector<point>& x, bool forward) {
  for (int s = 0; s < 5; ++s) {
    const int quarter = forward ? 256 >> 2 * s : 1 << 2 * s;
    for (int first = 0; first < 1024; first += 4 * quarter) {
      for (int j = 0; j < quarter; ++j) {
        point four[4];
        for (int i = 0; i < 4; ++i) {
          const point in = x[first + j + i * quarter];
          const bool turns = !forward && i > 0 && quarter > 1;
          four[i] = turns ? product_with_conjugate(in, plain_root(i * j, 4 * quarter)) : in;
        }
        plain_four(four, forward);
        for (int i = 0; i < 4; ++i) {
          const bool turns = forward && i > 0 && quarter > 1;
          x[first + j + i * quarter] =
              turns ? product(four[i], plain_root(i * j, 4 * quarter)) : four[i];
        }
      }
    }
  }
}

int reversed(int p) {
  return (p & 3) << 8 | (p >> 2 & 3) << 6 | (p >> 4 & 3) << 4 | (p >> 6 & 3) << 2 | p >> 8;
}

void plain_columns(std::vector<point>& x, bool forward) {
  std::vector<point> column(1024);
  for (int c = 0; c < 1024; ++c) {
    const auto turn = [&](int p) {
      return product(plain_root(c % 16 * reversed(p), n),
                     plain_root(std::int64_t{c - c % 16} * reversed(p), n));
    };
    for (int p = 0; p < 1024; ++p) {
      const point in = x[1024 * p + c];
      column[p] = forward ? in : product_with_conjugate(in, turn(p));
    }
    plain_column(column, forward);
    for (int p = 0; p < 1024; ++p) {
      x[1024 * p + c] = forward ? product(column[p], turn(p)) : column[p];
    }
  }
}

complex_points plain_filtered(const complex_points& in, const std::vector<float>& gains) {
  std::vector<point> x(n);
  for (std::int32_t i = 0; i < n; ++i) x[i] = {in.re[i], in.im[i]};
  plain_columns(x, true);
  for (int r = 0; r < 1024; ++r) {
    std::vector<point> row(x.begin() + 1024 * r, x.begin() + 1024 * (r + 1));
    plain_column(row, true);
    for (int p = 0; p < 1024; ++p) {
      const int k = reversed(r) + 1024 * reversed(p);
      row[p] *= gains[std::min(k, n - k)] * 0x1p-20f;
    }
    plain_column(row, false);
    std::copy(row.begin(), row.end(), x.begin() + 1024 * r);
  }
  plain_columns(x, false);
  complex_points out;
  for (std::int32_t i = 0; i < n; ++i) {
    out.re[i] = x[i].real();
    out.im[i] = x[i].imag();
  }
  return out;
}

// ---------------------------------------------------------------- tests

TEST(SpectralFilter, EveryWidthHasTheBitsOfThePlainForm) {
  const complex_points x = noise(3);
  const complex_points plain = plain_filtered(x, high_pass());
  const spectral_factors factors = real_factors(high_pass());
  for (const int lanes : lanes_here()) {
    const complex_points fast = filtered(x, factors, lanes);
    EXPECT_EQ(std::memcmp(fast.re.data(), plain.re.data(), sizeof(float) * n), 0) << lanes;
    EXPECT_EQ(std::memcmp(fast.im.data(), plain.im.data(), sizeof(float) * n), 0) << lanes;
  }
}

// Root of the mean square, over both parts, of what differs from the answer in 64 bits.
struct deviation {
  double rms = 0, largest = 0;
  std::int32_t n_rounded_otherwise = 0;
};

deviation deviation_of(const std::vector<float>& re, const std::vector<float>& im,
                       const test::spectrum& exact) {
  deviation d;
  for (std::int32_t i = 0; i < n; ++i) {
    // The reference went back by a transform of the conjugate.
    for (const auto& [x, answer] :
         {std::pair{re[i], exact[i].real() / n}, std::pair{im[i], -exact[i].imag() / n}}) {
      d.rms += (x - answer) * (x - answer);
      d.largest = std::max(d.largest, std::fabs(x - answer));
      d.n_rounded_otherwise += std::nearbyint(x) != std::nearbyint(answer) ? 1 : 0;
    }
  }
  d.rms = std::sqrt(d.rms / (2.0 * n));
  return d;
}

TEST(SpectralFilter, ErrorIsNoLargerThanTheLibrarys) {
  const complex_points x = noise(5);
  const std::vector<float> gains = high_pass();
  test::spectrum exact(n);
  for (std::int32_t i = 0; i < n; ++i) exact[i] = {x.re[i], x.im[i]};
  test::plain_transform(exact);
  for (std::int32_t k = 0; k < n; ++k) {
    exact[k] = std::conj(exact[k] * double{gains[std::min(k, n - k)]});
  }
  test::plain_transform(exact);

  test::library_filter library(gains);
  library.re = x.re;
  library.im = x.im;
  library.run();
  const deviation theirs = deviation_of(library.re, library.im, exact);
  const complex_points fast = filtered(x, real_factors(gains), spectral_lanes());
  const deviation ours = deviation_of(fast.re, fast.im, exact);
  EXPECT_LE(ours.rms, theirs.rms);
  EXPECT_LE(ours.largest, theirs.largest * 1.05);
  EXPECT_GT(theirs.rms, 0) << "nothing is exact here";
  // Of two million, where whole numbers are made of both.
  EXPECT_LE(ours.n_rounded_otherwise, 200);
  EXPECT_LE(theirs.n_rounded_otherwise, 200);
}

// A turning pointer has one line; its mirror must not be taken for it.
TEST(SpectralFilter, ABinHasItsOwnFactor) {
  std::vector<float> re(half + 1), im(half + 1);
  for (std::int32_t k = 0; k <= half; ++k) {
    re[k] = static_cast<float>(k % 1009) / 1009;
    im[k] = k == 0 || k == half ? 0.0f : static_cast<float>(k % 733) / 733;
  }
  const spectral_factors real = real_factors(re), both = complex_factors(re, im);
  for (const std::int32_t line : {0, 1, 77777, half - 1, half, n - 77777, n - 1}) {
    complex_points x;
    for (std::int32_t i = 0; i < n; ++i) {
      const double angle = 2 * std::numbers::pi * std::fmod(1.0 * line * i, n) / n;
      x.re[i] = static_cast<float>(1000 * std::cos(angle));
      x.im[i] = static_cast<float>(1000 * std::sin(angle));
    }
    const std::int32_t bin = std::min(line, n - line);
    const std::complex<double> factor(re[bin], line > half ? -im[bin] : im[bin]);
    for (const int lanes : lanes_here()) {
      const complex_points scaled = filtered(x, real, lanes), turned = filtered(x, both, lanes);
      for (std::int32_t i = 0; i < n; i += 9973) {
        const std::complex<double> in(x.re[i], x.im[i]);
        EXPECT_NEAR(scaled.re[i], (in * factor.real()).real(), 0.002) << line << ' ' << i;
        EXPECT_NEAR(turned.re[i], (in * factor).real(), 0.002) << line << ' ' << i;
        EXPECT_NEAR(turned.im[i], (in * factor).imag(), 0.002) << line << ' ' << i;
      }
    }
  }
}

TEST(SpectralFilter, BitsDoNotDependOnTheThread) {
  const complex_points x = noise(7);
  const spectral_factors factors = real_factors(high_pass());
  complex_points first, second;
  std::thread one([&] { first = filtered(x, factors, spectral_lanes()); });
  std::thread two([&] { second = filtered(x, factors, spectral_lanes()); });
  one.join();
  two.join();
  EXPECT_TRUE(first == second);
  EXPECT_TRUE(first == filtered(x, factors, spectral_lanes()));
}

}  // namespace
}  // namespace kestrelvane

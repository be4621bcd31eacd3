// The 2^20 points are a square of 1024 x 1024: a transform down every column, a turn of every
// point, a transform along every row (D. H. Bailey, FFTs in external or hierarchical memory,
// J. Supercomputing 4, 1990, 23-35). Sixteen columns, or rows, go through their five stages of
// radix 4 together, one to a lane, in a scratch array that stays in the second-level cache; so
// the square is walked three times in all, with the factors in the middle of the second walk.
//
// Forward stages divide the frequencies and leave their bins with the digits of the number, to
// the base 4, reversed (W. M. Gentleman and G. Sande, Fast Fourier transforms: for fun and
// profit, AFIPS 29, 1966, 563-578). Backward stages undo them one by one and take their points
// in that order, so nothing is ever sorted.
#include "numerics/spectral_filter.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numbers>
#include <utility>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t n_points = spectral_row;        // of one column or row
constexpr std::int32_t n_groups = n_points / n_lanes;  // of sixteen columns or rows
constexpr std::ptrdiff_t scratch_stride =
    std::ptrdiff_t{2} * n_lanes;                        // a point: real parts, imaginary parts
constexpr std::int32_t largest_quarter = n_points / 4;  // of the first stage forward

// ---------------------------------------------------------------- tables

struct root {
  float re, im;
};

// exp(-2 pi i m / n), 0 <= m < n, n a multiple of 8. From an angle of an eighth of a turn at most,
// so that whole quarters are exact, and in the widest arithmetic: the library's routines for 64
// bits are others on processors that can fuse additions.
root unit_root(std::int32_t m, std::int32_t n) {
  const std::int32_t quarter = n / 4;
  std::int32_t rest = m % quarter;
  const bool mirrored = rest > n / 8;
  if (mirrored) rest = quarter - rest;
  const long double angle = 2.0L * std::numbers::pi_v<long double> * rest / n;
  long double c = std::cos(angle);
  long double s = std::sin(angle);
  if (mirrored) std::swap(c, s);
  for (std::int32_t i = m / quarter; i > 0; --i) c = std::exchange(s, c) * -1.0L;
  return {static_cast<float>(c), static_cast<float>(-s)};
}

// The five digits of 0 .. 1023 to the base 4 in reverse.
std::int32_t reversed_digits(std::int32_t k) {
  std::int32_t reversed = 0;
  for (std::int32_t i = 1; i < n_points; i *= 4, k /= 4) reversed = 4 * reversed + k % 4;
  return reversed;
}

// A stage turns the second, third and fourth of its four points by w, w^2 and w^3.
struct stage_roots {
  root first, second, third;
};

// A point of column 16 g + l and row p is turned by exp(-2 pi i (16 g + l) k / N), k being the
// bin that lies in row p. Two tables that stay in the caches, whose product costs less than
// a table of all points; the error of the whole grows by three hundredths.
struct root_tables {
  stage_roots stages[4][largest_quarter];  // quarters of 256, 64, 16 and 4 points
  root groups[n_groups][n_points];         // exp(-2 pi i 16 g k / N)
  float lanes[n_points][2][n_lanes];       // exp(-2 pi i l k / N), real parts, imaginary parts

  root_tables() {
    std::int32_t quarter = largest_quarter;
    for (stage_roots(&stage)[largest_quarter] : stages) {
      for (std::int32_t j = 0; j < quarter; ++j) {
        const std::int32_t n = 4 * quarter;
        stage[j] = {unit_root(j, n), unit_root(2 * j, n), unit_root(3 * j, n)};
      }
      quarter /= 4;
    }
    for (std::int32_t p = 0; p < n_points; ++p) {
      const std::int32_t k = reversed_digits(p);
      for (std::int32_t g = 0; g < n_groups; ++g) {
        groups[g][p] = unit_root(n_lanes * g * k, spectral_points);
      }
      for (std::int32_t l = 0; l < n_lanes; ++l) {
        const root w = unit_root(l * k, spectral_points);
        lanes[p][0][l] = w.re;
        lanes[p][1][l] = w.im;
      }
    }
  }
};

const root_tables& roots() {
  static const root_tables made;
  return made;
}

// ---------------------------------------------------------------- lanes

// Where the points of sixteen columns lie: point p of lane l at [p * stride + l].
struct lane_points {
  float* re;
  float* im;
  std::ptrdiff_t stride;
};

lane_points points_from(const lane_points& points, std::int32_t first) {
  return {points.re + first * points.stride, points.im + first * points.stride, points.stride};
}

lane_points scratch_points(const spectral_buffer& buffer) {
  return {buffer.columns, buffer.columns + n_lanes, scratch_stride};
}

// One point of L lanes.
template <int L>
struct value {
  typename lanes_of<L>::floats re, im;
};

template <int L>
KESTRELVANE_INTO_CALLER void load(typename lanes_of<L>::floats& x, const float* from) {
  x = *reinterpret_cast<const typename lanes_of<L>::in_memory*>(from);
}

template <int L>
KESTRELVANE_INTO_CALLER void store(const typename lanes_of<L>::floats& x, float* to) {
  *reinterpret_cast<typename lanes_of<L>::in_memory*>(to) = x;
}

template <int L>
KESTRELVANE_INTO_CALLER void load(value<L>& x, const lane_points& points, std::int32_t p,
                                  int lane) {
  load<L>(x.re, points.re + p * points.stride + lane);
  load<L>(x.im, points.im + p * points.stride + lane);
}

template <int L>
KESTRELVANE_INTO_CALLER void store(const value<L>& x, const lane_points& points, std::int32_t p,
                                   int lane) {
  store<L>(x.re, points.re + p * points.stride + lane);
  store<L>(x.im, points.im + p * points.stride + lane);
}

enum class turn { forward, backward };

// Times the factor, which is one number or one to a lane; backward times its conjugate.
template <turn Way, int L, typename Factor>
KESTRELVANE_INTO_CALLER void multiply(value<L>& x, const Factor& re, const Factor& im) {
  const auto old = x.re;
  if constexpr (Way == turn::forward) {
    x.re = old * re - x.im * im;
    x.im = old * im + x.im * re;
  } else {
    x.re = old * re + x.im * im;
    x.im = x.im * re - old * im;
  }
}

// The transform of four points.
template <turn Way, int L>
KESTRELVANE_INTO_CALLER void four_points(value<L> (&x)[4]) {
  const auto even_re = x[0].re + x[2].re, even_im = x[0].im + x[2].im;
  const auto across_re = x[0].re - x[2].re, across_im = x[0].im - x[2].im;
  const auto odd_re = x[1].re + x[3].re, odd_im = x[1].im + x[3].im;
  const auto turned_re = x[1].re - x[3].re, turned_im = x[1].im - x[3].im;
  // Forward the second bin takes -i times the last difference, backward the fourth.
  constexpr int second = Way == turn::forward ? 1 : 3;
  x[0].re = even_re + odd_re;
  x[0].im = even_im + odd_im;
  x[2].re = even_re - odd_re;
  x[2].im = even_im - odd_im;
  x[second].re = across_re + turned_im;
  x[second].im = across_im - turned_re;
  x[4 - second].re = across_re - turned_im;
  x[4 - second].im = across_im + turned_re;
}

template <turn Way, int L>
KESTRELVANE_INTO_CALLER void turn_by_stage(value<L> (&x)[4], const stage_roots& w) {
  multiply<Way>(x[1], w.first.re, w.first.im);
  multiply<Way>(x[2], w.second.re, w.second.im);
  multiply<Way>(x[3], w.third.re, w.third.im);
}

// A stage over the points of four quarters. Forward the points are turned after their
// transform, backward before.
template <turn Way, int L>
KESTRELVANE_INTO_CALLER void stage(const lane_points& in, const lane_points& out,
                                   std::int32_t quarter, const stage_roots* w) {
  for (std::int32_t j = 0; j < quarter; ++j) {
    for (int lane = 0; lane < n_lanes; lane += L) {
      value<L> x[4];
      for (int i = 0; i < 4; ++i) load(x[i], in, j + i * quarter, lane);
      if constexpr (Way == turn::backward) turn_by_stage<Way>(x, w[j]);
      four_points<Way>(x);
      if constexpr (Way == turn::forward) turn_by_stage<Way>(x, w[j]);
      for (int i = 0; i < 4; ++i) store(x[i], out, j + i * quarter, lane);
    }
  }
}

// The three middle stages of 256 points, which stay in the first-level cache.
template <turn Way, int L>
KESTRELVANE_INTO_CALLER void middle_stages(const lane_points& points, const root_tables& w) {
  if constexpr (Way == turn::forward) stage<Way, L>(points, points, 64, w.stages[1]);
  for (std::int32_t b = 0; b < 256; b += 64) {
    const lane_points part = points_from(points, b);
    if constexpr (Way == turn::forward) stage<Way, L>(part, part, 16, w.stages[2]);
    for (std::int32_t c = 0; c < 64; c += 16) {
      const lane_points smallest = points_from(part, c);
      stage<Way, L>(smallest, smallest, 4, w.stages[3]);
    }
    if constexpr (Way == turn::backward) stage<Way, L>(part, part, 16, w.stages[2]);
  }
  if constexpr (Way == turn::backward) stage<Way, L>(points, points, 64, w.stages[1]);
}

// ---------------------------------------------------------------- columns

lane_points column_points(const spectral_buffer& buffer, std::int32_t group) {
  const std::ptrdiff_t first = std::ptrdiff_t{n_lanes} * group;
  return {buffer.re + first, buffer.im + first, spectral_row_stride};
}

template <turn Way, int L>
KESTRELVANE_INTO_CALLER void turn_point(value<L>& x, const root& group,
                                        const float (&lanes)[2][n_lanes], int lane) {
  value<L> w;
  load<L>(w.re, lanes[0] + lane);
  load<L>(w.im, lanes[1] + lane);
  multiply<turn::forward>(w, group.re, group.im);
  multiply<Way>(x, w.re, w.im);
}

// The stage of four neighbours, on its way between the scratch array and the columns.
template <turn Way, int L>
KESTRELVANE_INTO_CALLER void neighbours_and_turns(const lane_points& in, const lane_points& out,
                                                  std::int32_t first, const root* group,
                                                  const root_tables& w) {
  for (std::int32_t p = first; p < first + 256; p += 4) {
    for (int lane = 0; lane < n_lanes; lane += L) {
      value<L> x[4];
      for (int i = 0; i < 4; ++i) load(x[i], in, p + i, lane);
      if constexpr (Way == turn::forward) four_points<Way>(x);
      for (int i = 0; i < 4; ++i) turn_point<Way>(x[i], group[p + i], w.lanes[p + i], lane);
      if constexpr (Way == turn::backward) four_points<Way>(x);
      for (int i = 0; i < 4; ++i) store(x[i], out, p + i, lane);
    }
  }
}

template <turn Way, int L>
KESTRELVANE_INTO_CALLER void transform_columns(spectral_buffer& buffer, const root_tables& w) {
  const lane_points scratch = scratch_points(buffer);
  for (std::int32_t group = 0; group < n_groups; ++group) {
    const lane_points columns = column_points(buffer, group);
    if constexpr (Way == turn::forward) {
      stage<Way, L>(columns, scratch, largest_quarter, w.stages[0]);
    }
    for (std::int32_t first = 0; first < n_points; first += 256) {
      const lane_points part = points_from(scratch, first);
      if constexpr (Way == turn::forward) {
        middle_stages<Way, L>(part, w);
        neighbours_and_turns<Way, L>(scratch, columns, first, w.groups[group], w);
      } else {
        neighbours_and_turns<Way, L>(columns, scratch, first, w.groups[group], w);
        middle_stages<Way, L>(part, w);
      }
    }
    if constexpr (Way == turn::backward) {
      stage<Way, L>(scratch, columns, largest_quarter, w.stages[0]);
    }
  }
}

// ---------------------------------------------------------------- rows

// Element i of the first or second of two rows that exchange blocks of Half elements.
constexpr int exchanged(int i, int half, int n, bool second) {
  if (second) return (i & half) != 0 ? i + n : i + half;
  return (i & half) != 0 ? i - half + n : i;
}

template <int L, int Half, int... I>
KESTRELVANE_INTO_CALLER void exchange(typename lanes_of<L>::floats& a,
                                      typename lanes_of<L>::floats& b,
                                      std::integer_sequence<int, I...>) {
  const auto old = a;
  a = __builtin_shufflevector(old, b, exchanged(I, Half, L, false)...);
  b = __builtin_shufflevector(old, b, exchanged(I, Half, L, true)...);
}

// A square of L x L, by exchanging blocks of half its size and so on down to single elements.
template <int L, int Half = L / 2>
KESTRELVANE_INTO_CALLER void transpose(typename lanes_of<L>::floats (&rows)[L]) {
#pragma GCC unroll 16
  for (int i = 0; i < L; ++i) {
    if ((i & Half) == 0) {
      exchange<L, Half>(rows[i], rows[i + Half], std::make_integer_sequence<int, L>());
    }
  }
  if constexpr (Half > 1) transpose<L, Half / 2>(rows);
}

template <int L>
KESTRELVANE_INTO_CALLER void transpose_square(const float* in, std::ptrdiff_t in_stride, float* out,
                                              std::ptrdiff_t out_stride) {
  typename lanes_of<L>::floats rows[L];
#pragma GCC unroll 16
  for (int i = 0; i < L; ++i) load<L>(rows[i], in + i * in_stride);
  transpose<L>(rows);
#pragma GCC unroll 16
  for (int i = 0; i < L; ++i) store<L>(rows[i], out + i * out_stride);
}

// Between sixteen rows and the lanes of the scratch array.
template <turn Way, int L>
KESTRELVANE_INTO_CALLER void transpose_rows(float* rows, float* scratch) {
  for (std::int32_t p = 0; p < n_points; p += L) {
    for (int lane = 0; lane < n_lanes; lane += L) {
      float* const square = rows + std::ptrdiff_t{lane} * spectral_row_stride + p;
      float* const lanes = scratch + p * scratch_stride + lane;
      if constexpr (Way == turn::forward) {
        transpose_square<L>(square, spectral_row_stride, lanes, scratch_stride);
      } else {
        transpose_square<L>(lanes, scratch_stride, square, spectral_row_stride);
      }
    }
  }
}

// The last stage forward, the factors, and the first stage backward.
template <bool Complex, int L>
KESTRELVANE_INTO_CALLER void apply_factors(const lane_points& points, std::int32_t first,
                                           const float* re, const float* im) {
  for (std::int32_t p = first; p < first + 256; p += 4) {
    for (int lane = 0; lane < n_lanes; lane += L) {
      value<L> x[4];
      for (int i = 0; i < 4; ++i) load(x[i], points, p + i, lane);
      four_points<turn::forward>(x);
      for (int i = 0; i < 4; ++i) {
        const std::ptrdiff_t at = std::ptrdiff_t{p + i} * n_lanes + lane;
        value<L> factor;
        load<L>(factor.re, re + at);
        if constexpr (Complex) {
          load<L>(factor.im, im + at);
          multiply<turn::forward>(x[i], factor.re, factor.im);
        } else {
          x[i].re *= factor.re;
          x[i].im *= factor.re;
        }
      }
      four_points<turn::backward>(x);
      for (int i = 0; i < 4; ++i) store(x[i], points, p + i, lane);
    }
  }
}

template <bool Complex, int L>
KESTRELVANE_INTO_CALLER void filter_rows(spectral_buffer& buffer, const spectral_factors& factors,
                                         const root_tables& w) {
  const lane_points scratch = scratch_points(buffer);
  for (std::int32_t group = 0; group < n_groups; ++group) {
    const std::ptrdiff_t row = std::ptrdiff_t{n_lanes} * group * spectral_row_stride;
    const std::ptrdiff_t of_group = std::ptrdiff_t{n_lanes} * n_points * group;
    transpose_rows<turn::forward, L>(buffer.re + row, scratch.re);
    transpose_rows<turn::forward, L>(buffer.im + row, scratch.im);
    stage<turn::forward, L>(scratch, scratch, largest_quarter, w.stages[0]);
    for (std::int32_t first = 0; first < n_points; first += 256) {
      const lane_points part = points_from(scratch, first);
      middle_stages<turn::forward, L>(part, w);
      apply_factors<Complex, L>(scratch, first, factors.re.data() + of_group,
                                Complex ? factors.im.data() + of_group : nullptr);
      middle_stages<turn::backward, L>(part, w);
    }
    stage<turn::backward, L>(scratch, scratch, largest_quarter, w.stages[0]);
    transpose_rows<turn::backward, L>(buffer.re + row, scratch.re);
    transpose_rows<turn::backward, L>(buffer.im + row, scratch.im);
  }
}

// ---------------------------------------------------------------- entries

template <int L>
KESTRELVANE_INTO_CALLER void filter_by_lanes(spectral_buffer& buffer,
                                             const spectral_factors& factors) {
  const root_tables& w = roots();
  transform_columns<turn::forward, L>(buffer, w);
  if (factors.im.empty()) {
    filter_rows<false, L>(buffer, factors, w);
  } else {
    filter_rows<true, L>(buffer, factors, w);
  }
  transform_columns<turn::backward, L>(buffer, w);
}

// All above is compiled into each of the three, for its vector width.
__attribute__((target("avx512f"))) void filter_16(spectral_buffer& b, const spectral_factors& f) {
  filter_by_lanes<16>(b, f);
}

__attribute__((target("avx2"))) void filter_8(spectral_buffer& b, const spectral_factors& f) {
  filter_by_lanes<8>(b, f);
}

void filter_4(spectral_buffer& b, const spectral_factors& f) { filter_by_lanes<4>(b, f); }

// factor_of(k) of every bin, in the order in which apply_factors walks them.
template <typename Factor>
std::vector<float> in_transform_order(Factor&& factor_of) {
  // A power of two, so that the scaling is exact.
  constexpr float one_in_all = 1.0f / spectral_points;
  std::int32_t reversed[n_points];
  for (std::int32_t p = 0; p < n_points; ++p) reversed[p] = reversed_digits(p);
  std::vector<float> ordered(spectral_points);
  std::size_t at = 0;
  for (std::int32_t row = 0; row < n_points; row += n_lanes) {
    for (std::int32_t p = 0; p < n_points; ++p) {
      for (std::int32_t l = 0; l < n_lanes; ++l) {
        ordered[at++] = one_in_all * factor_of(reversed[row + l] + n_points * reversed[p]);
      }
    }
  }
  return ordered;
}

std::int32_t mirrored_bin(std::int32_t k) { return std::min(k, spectral_points - k); }

}  // namespace

spectral_buffer::~spectral_buffer() { std::free(re); }

bool spectral_buffer::allocate() {
  constexpr std::size_t array = std::size_t{spectral_row_stride} * spectral_row;
  // The two arrays and the scratch begin in different sets of the caches.
  constexpr std::size_t apart = scratch_stride;
  constexpr std::size_t scratch = scratch_stride * n_points;
  // On a large page from its first byte: the strides are hard on the table of pages.
  constexpr std::size_t large_page = std::size_t{2} << 20;
  constexpr std::size_t wanted = sizeof(float) * (2 * (array + apart) + scratch);
  constexpr std::size_t bytes = (wanted + large_page - 1) / large_page * large_page;
  std::free(re);
  re = static_cast<float*>(std::aligned_alloc(large_page, bytes));
  if (re == nullptr) return false;
  madvise(re, bytes, MADV_HUGEPAGE);
  im = re + array + apart;
  columns = im + array + apart;
  return true;
}

spectral_factors real_factors(const std::vector<float>& gains) {
  return {in_transform_order([&](std::int32_t k) { return gains[mirrored_bin(k)]; }), {}};
}

spectral_factors complex_factors(const std::vector<float>& re, const std::vector<float>& im) {
  return {in_transform_order([&](std::int32_t k) { return re[mirrored_bin(k)]; }),
          in_transform_order(
              [&](std::int32_t k) { return k == mirrored_bin(k) ? im[k] : -im[mirrored_bin(k)]; })};
}

std::int32_t spectral_lanes() { return vector_lanes(); }

void filter_spectrum(spectral_buffer& buffer, const spectral_factors& factors, std::int32_t lanes) {
  if (lanes == 16) {
    filter_16(buffer, factors);
  } else if (lanes == 8) {
    filter_8(buffer, factors);
  } else {
    filter_4(buffer, factors);
  }
}

}  // namespace kestrelvane

// Filtering by the spectrum: 2^20 complex points forward, a factor to each bin, and back.
//
// One routine, since the spectrum is never wanted by itself: what lies between the two
// transforms stays in the order in which it falls out of the first, and the factors are put
// into that order once for all segments of a recording. The result is the inverse of the
// unscaled sum over n of x[n] exp(-2 pi i k n / N), every bin k multiplied by its factor.
//
// Bits: a lane of the vector units holds a row or a column of its own and adds in the order of
// the plain form, without fused additions, so 4, 8 and 16 lanes give the same bits on every
// x86-64 processor, in every run and on every thread.
//
// Any thread may call; each needs a buffer of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrelvane {

constexpr std::int32_t spectral_points = 1 << 20;
// Points lie in rows of 1024. Between rows there is room for 16 floats more: without it the
// points of a column would all fall into the same few sets of the caches.
constexpr std::int32_t spectral_row = 1024;
constexpr std::int32_t spectral_row_stride = spectral_row + 16;

// Where point i = 0 .. spectral_points - 1 lies in either array of a buffer.
constexpr std::size_t spectral_place(std::int32_t i) {
  return static_cast<std::size_t>(i / spectral_row) * spectral_row_stride +
         static_cast<std::size_t>(i % spectral_row);
}

// Work arrays of one thread, 9 MB.
struct spectral_buffer {
  float* re = nullptr;  // [spectral_place(i)]
  float* im = nullptr;
  float* columns = nullptr;  // scratch: 16 rows or columns side by side

  spectral_buffer() = default;
  spectral_buffer(const spectral_buffer&) = delete;
  spectral_buffer& operator=(const spectral_buffer&) = delete;
  ~spectral_buffer();
  // False when the system has no memory for it.
  bool allocate();
};

// The factor of every bin, in the order of the transform and scaled by 2^-20.
struct spectral_factors {
  std::vector<float> re;
  std::vector<float> im;  // empty: all are real
};

// From those of bins 0 .. N/2. Bin N - k has the gain of bin k, or the conjugate of its factor,
// so that what is real stays real.
spectral_factors real_factors(const std::vector<float>& gains);
spectral_factors complex_factors(const std::vector<float>& re, const std::vector<float>& im);

// As many lanes as this processor has: 4, 8 or 16.
std::int32_t spectral_lanes();

// In place. Fewer lanes than there are give the same bits, and are for tests.
void filter_spectrum(spectral_buffer& buffer, const spectral_factors& factors,
                     std::int32_t lanes = spectral_lanes());

}  // namespace kestrelvane

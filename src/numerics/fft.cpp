#include "numerics/fft.h"

#include <fftw3.h>
#include <sys/mman.h>

#include <cstdlib>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

constexpr std::size_t array_bytes = sizeof(float) * fft_points;
// The strides of a transform this long are hard on the table of pages.
constexpr std::size_t large_page = std::size_t{2} << 20;

struct fft_plans {
  fftwf_plan forward, backward;

  // By formula: the arrays are looked at, not written.
  explicit fft_plans(const fft_buffer& b) : forward(make(b.re, b.im)), backward(make(b.im, b.re)) {}
  static fftwf_plan make(float* re, float* im) {
    const fftwf_iodim axis{fft_points, 1, 1};
    return fftwf_plan_guru_split_dft(1, &axis, 0, nullptr, re, im, re, im,
                                     FFTW_ESTIMATE | FFTW_NO_SIMD | FFTW_DESTROY_INPUT);
  }
};

// Made by the first caller, while others wait: the planner is for one thread at a time.
const fft_plans& plans(const fft_buffer& buffer) {
  static const fft_plans made(buffer);
  return made;
}

KESTRELVANE_CLONES void scale_array(float* x, float factor) {
  for (std::int32_t i = 0; i < fft_points; ++i) x[i] *= factor;
}

}  // namespace

fft_buffer::~fft_buffer() { std::free(re); }

bool fft_buffer::allocate() {
  std::free(re);
  // On a large page from its first byte, or the advice below would be lost on the rest.
  re = static_cast<float*>(std::aligned_alloc(large_page, 2 * array_bytes));
  im = re == nullptr ? nullptr : re + fft_points;
  if (re != nullptr) madvise(re, 2 * array_bytes, MADV_HUGEPAGE);
  return re != nullptr;
}

void fft_1m(fft_direction direction, fft_buffer& buffer) {
  if (direction == fft_direction::forward) {
    fftwf_execute_split_dft(plans(buffer).forward, buffer.re, buffer.im, buffer.re, buffer.im);
    return;
  }
  // With the arrays exchanged the forward sum runs backward.
  fftwf_execute_split_dft(plans(buffer).backward, buffer.im, buffer.re, buffer.im, buffer.re);
  // A power of two, so that the scaling is exact.
  constexpr float one_in_all = 1.0f / fft_points;
  scale_array(buffer.re, one_in_all);
  scale_array(buffer.im, one_in_all);
}

}  // namespace kestrelvane

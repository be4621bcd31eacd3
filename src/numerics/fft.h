// The complex transform of the frequency-domain filters: 2^20 points, single precision.
//
// The sum over n of x[n] exp(-2 pi i k n / N) goes forward unscaled; backward it is the
// inverse, scaled by 2^-20. Both work in place on the two arrays of one fft_buffer.
//
// Bits: the library runs its plain codelets, without the vector units, under a plan that
// it takes from a formula and not from timings. So a given version of the library gives
// the same bits on every x86-64 processor, in every run and on every thread. Its vector
// codelets would need 0.6 of the time, but differ in the last bit from one generation of
// processors to the next, and with them what a sort finds. Another version of the library
// may group its additions differently; a filtered sample then differs, rarely, by 1 bit.
//
// The plans are made once per process, at the first transform. Any thread may call; each
// needs a buffer of its own.
#pragma once

#include <cstdint>

namespace kestrelvane {

constexpr std::int32_t fft_points = 1 << 20;

// Work arrays of one thread, 8 MB. The plans know how far apart the two arrays lie, so
// they always come from here.
struct fft_buffer {
  float* re = nullptr;  // 0 .. fft_points - 1
  float* im = nullptr;

  fft_buffer() = default;
  fft_buffer(const fft_buffer&) = delete;
  fft_buffer& operator=(const fft_buffer&) = delete;
  ~fft_buffer();
  // False when the system has no memory for it.
  bool allocate();
};

enum class fft_direction { forward, backward };

void fft_1m(fft_direction direction, fft_buffer& buffer);

}  // namespace kestrelvane

// Wide loops that keep their bits.
//
// KESTRELVANE_CLONES compiles a routine once per vector width and picks the
// widest that the processor has when the program starts. Loops inside keep the
// order of every sum (lanes hold independent items), and nothing is fused, so
// each clone gives the same bits as the plain loop. Sanitizer builds and other
// compilers get the plain routine.
#pragma once

#include <cstdint>

// Bits of the widest vectors to use; less only where a build is to prove that it makes no difference.
#if !defined(KESTRELVANE_WIDEST_BITS)
#define KESTRELVANE_WIDEST_BITS 512
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__) || \
    KESTRELVANE_WIDEST_BITS == 128
#define KESTRELVANE_CLONES
#elif KESTRELVANE_WIDEST_BITS == 256
#define KESTRELVANE_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define KESTRELVANE_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#endif

namespace kestrelvane {

// Sixteen lanes; the compiler splits them to the width at hand.
constexpr int n_lanes = 16;
typedef float float_lanes __attribute__((vector_size(64), aligned(4), may_alias));
typedef std::int16_t short_lanes __attribute__((vector_size(32), aligned(2), may_alias));
typedef std::int32_t int_lanes __attribute__((vector_size(64), aligned(4), may_alias));

// n rounded up to whole lanes.
constexpr int whole_lanes(int n) { return (n + n_lanes - 1) / n_lanes * n_lanes; }

// Asks for the cache lines of a run of samples that will be read soon. Waveforms
// of one cluster lie all over the recording, and waiting for each in turn costs
// more than the arithmetic on them.
inline void prefetch_samples(const std::int16_t* v, int n) {
  constexpr int samples_per_line = 32;
  for (int i = 0; i < n + samples_per_line; i += samples_per_line) __builtin_prefetch(v + i);
}
constexpr int prefetch_distance = 6;  // items ahead

}  // namespace kestrelvane

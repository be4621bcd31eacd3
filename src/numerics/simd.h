// Wide loops that keep their bits.
//
// KESTRELVANE_CLONES compiles a routine once per vector width and picks the
// widest that the processor has when the program starts. Loops inside keep the
// order of every sum (lanes hold independent items), and nothing is fused, so
// each clone gives the same bits as the plain loop. Sanitizer builds and other
// compilers get the plain routine.
#pragma once

#include <cstdint>

// Bits of the widest vectors to use; less only where a build is to prove that it makes no
// difference.
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

// L lanes as a value, and as they lie at any address.
template <int L>
struct lanes_of {
  typedef float floats __attribute__((vector_size(sizeof(float) * L)));
  typedef float in_memory __attribute__((vector_size(sizeof(float) * L), aligned(4), may_alias));
  typedef std::int16_t shorts __attribute__((vector_size(2 * L), aligned(2), may_alias));
};

// Lanes that the processor adds at once: 16, 8 or 4.
inline int vector_lanes() {
  if (KESTRELVANE_WIDEST_BITS >= 512 && __builtin_cpu_supports("avx512f")) return 16;
  return KESTRELVANE_WIDEST_BITS >= 256 && __builtin_cpu_supports("avx2") ? 8 : 4;
}

// Sums that a loop carries from turn to turn stay in registers only where a register is as wide as
// they are: wider ones lie in memory, where each turn waits for the one before, ten times as long.
// So such loops are written for L lanes, name_by<L>, and this makes of them the form of each width
// and name, which takes the widest that the processor has.
#define KESTRELVANE_INTO_CALLER inline __attribute__((always_inline))
#define KESTRELVANE_BY_WIDTH(name, parameters, arguments)                                   \
  __attribute__((target("avx512f"))) void name##_16 parameters { name##_by<16> arguments; } \
  __attribute__((target("avx2"))) void name##_8 parameters { name##_by<8> arguments; }      \
  void name##_4 parameters { name##_by<4> arguments; }                                      \
  void name parameters {                                                                    \
    if (vector_lanes() == 16) {                                                             \
      name##_16 arguments;                                                                  \
    } else if (vector_lanes() == 8) {                                                       \
      name##_8 arguments;                                                                   \
    } else {                                                                                \
      name##_4 arguments;                                                                   \
    }                                                                                       \
  }

template <int L>
KESTRELVANE_INTO_CALLER const typename lanes_of<L>::in_memory& lanes_at(const float* p) {
  return *reinterpret_cast<const typename lanes_of<L>::in_memory*>(p);
}
template <int L>
KESTRELVANE_INTO_CALLER typename lanes_of<L>::in_memory& lanes_at(float* p) {
  return *reinterpret_cast<typename lanes_of<L>::in_memory*>(p);
}
// Samples as floats, n rounded up to L.
template <int L>
KESTRELVANE_INTO_CALLER void convert_samples(const std::int16_t* v, std::int32_t n, float* out) {
  for (std::int32_t i = 0; i < n; i += L) {
    lanes_at<L>(out + i) =
        __builtin_convertvector(*reinterpret_cast<const typename lanes_of<L>::shorts*>(v + i),
                                typename lanes_of<L>::floats);
  }
}

// n rounded up to whole lanes.
constexpr int whole_lanes(int n) { return (n + n_lanes - 1) / n_lanes * n_lanes; }

// Asks for the cache lines of a run of samples that will be read soon. Waveforms
// of one cluster lie all over the recording, and waiting for each in turn costs
// more than the arithmetic on them. Into the caller: a call that only asks for memory is to the
// compiler one without effect, which it leaves out.
KESTRELVANE_INTO_CALLER void prefetch_samples(const std::int16_t* v, int n) {
  constexpr int samples_per_line = 32;
  for (int i = 0; i < n + samples_per_line; i += samples_per_line) __builtin_prefetch(v + i);
}
constexpr int prefetch_distance = 6;  // items ahead

}  // namespace kestrelvane

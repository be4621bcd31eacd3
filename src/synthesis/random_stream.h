// Random numbers that are the same on every machine.
//
// xoshiro256** (Blackman and Vigna 2018) seeded by SplitMix64, and transforms
// that use only additions, multiplications, divisions and square roots of 64-bit
// floats: the C library's logarithm and exponential may differ in the last bit
// from one processor to the next.
#pragma once

#include <cstdint>

namespace kestrelvane {

// Natural logarithm (x > 0) and exponential, to about 1e-15 relative.
double portable_log(double x);
double portable_exp(double x);
// Sine, to about 1e-13.
double portable_sin(double x);

struct random_stream {
  std::uint64_t state[4];

  // Streams with different purpose or index are independent.
  random_stream(std::int64_t seed, std::uint64_t purpose, std::uint64_t index);

  std::uint64_t next();
  double uniform();  // 0 <= u < 1
  double uniform(double low, double high) { return low + (high - low) * uniform(); }
  double log_uniform(double low, double high);
  double exponential(double mean);
  double normal();                                 // mean 0, s.d. 1
  double log_normal(double median, double sigma);  // sigma of the logarithm
  std::int32_t below(std::int32_t n);              // 0 .. n - 1
  bool chance(double probability) { return uniform() < probability; }
};

}  // namespace kestrelvane

// Random numbers that are the same on every machine.
//
// xoshiro256** (Blackman and Vigna 2018) seeded by SplitMix64, and transforms
// that use only what numerics/portable_math.h has, and square roots.
#pragma once

#include <cstdint>

namespace kestrelvane {

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

#include "synthesis/random_stream.h"

#include <bit>
#include <cmath>

#include "numerics/portable_math.h"

namespace kestrelvane {

namespace {

std::uint64_t split_mix(std::uint64_t& x) {
  x += 0x9e3779b97f4a7c15u;
  std::uint64_t z = x;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
  return z ^ (z >> 31);
}

}  // namespace

random_stream::random_stream(std::int64_t seed, std::uint64_t purpose, std::uint64_t index) {
  auto x = static_cast<std::uint64_t>(seed);
  // Purpose and index enter apart, so that neighbouring numbers give streams that have nothing in
  // common.
  x = split_mix(x) ^ (purpose * 0xd1342543de82ef95u);
  x = split_mix(x) ^ (index * 0xaf251af3b0f025b5u);
  for (std::uint64_t& word : state) word = split_mix(x);
}

std::uint64_t random_stream::next() {
  const std::uint64_t result = std::rotl(state[1] * 5, 7) * 9;
  const std::uint64_t shifted = state[1] << 17;
  state[2] ^= state[0];
  state[3] ^= state[1];
  state[1] ^= state[2];
  state[0] ^= state[3];
  state[2] ^= shifted;
  state[3] = std::rotl(state[3], 45);
  return result;
}

// 53 bits: all that the fraction of a float holds.
double random_stream::uniform() { return static_cast<double>(next() >> 11) * 0x1p-53; }

double random_stream::log_uniform(double low, double high) {
  return low * portable_exp(uniform() * portable_log(high / low));
}

// 1 - u is above 0, as the logarithm wants it.
double random_stream::exponential(double mean) { return -mean * portable_log(1 - uniform()); }

// Marsaglia's polar method; the second of each pair is not kept, so that a number
// depends on the state alone.
double random_stream::normal() {
  for (;;) {
    const double x = uniform(-1, 1);
    const double y = uniform(-1, 1);
    const double square = x * x + y * y;
    // Points outside the circle are thrown away, and its centre, which has no logarithm.
    if (square >= 1 || square == 0) continue;
    return x * std::sqrt(-2 * portable_log(square) / square);
  }
}

double random_stream::log_normal(double median, double sigma) {
  return median * portable_exp(sigma * normal());
}

std::int32_t random_stream::below(std::int32_t n) {
  return static_cast<std::int32_t>(uniform() * n);
}

}  // namespace kestrelvane

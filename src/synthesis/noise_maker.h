// Coloured noise, fast: the sensor noise of test recordings.
//
// Sums of uniform numbers, sixteen generators side by side (xoshiro128+, Blackman
// and Vigna 2018), smoothed over time. Noise of a channel is its own plus that of
// sources spread along the electrode, which neighbouring channels share. The
// numbers depend on seed and source alone: on no thread and no processor.
#pragma once

#include <cstdint>
#include <vector>

#include "synthesis/planted_units.h"

namespace kestrelvane {

constexpr std::int32_t noise_block = 1024;  // samples made at a time
constexpr std::int32_t noise_history = 16;  // samples kept in front for smoothing

struct noise_source {
  std::uint32_t state[4][16];
  float weight;  // with which the channel takes it; the s.d. of a number is 1
};

// A source of white numbers; those of different purpose or index have nothing in common.
noise_source start_source(std::int64_t seed, std::uint64_t purpose, std::uint64_t index);
// Adds its weight times its next noise_block numbers.
void add_numbers(noise_source& source, float* out);

struct noise_maker {
  noise_source own;
  std::vector<noise_source> shared;
  alignas(64) float own_numbers[noise_history + noise_block] = {};
  alignas(64) float shared_numbers[noise_history + noise_block] = {};
};

// Noise of a channel (from 1) with s.d. 1.
noise_maker start_noise(std::int64_t seed, const std::vector<site_position>& sites,
                        std::int32_t channel);

// out[i] = size times the next noise_block numbers of the channel.
void make_noise(noise_maker& maker, float size, float* out);

}  // namespace kestrelvane

#include "synthesis/noise_maker.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "numerics/simd.h"
#include "synthesis/random_stream.h"

namespace kestrelvane {

namespace {

enum random_purpose : std::uint64_t { for_own_noise = 101, for_shared_noise = 102 };

constexpr double shared_part = 0.25;  // of the variance
constexpr double shared_reach_um = 50;
constexpr double farthest_source_um = 110;
constexpr std::size_t most_sources = 3;

typedef std::uint32_t generator_lanes __attribute__((vector_size(64), aligned(4), may_alias));

// Smoothing kernels; the shared one reaches lower, as field potentials do.
constexpr int own_taps[3] = {1, 2, 1};
constexpr int shared_taps[7] = {1, 2, 3, 4, 3, 2, 1};

template <int N>
float norm_of(const int (&taps)[N]) {
  // Sums of squares: independent numbers keep an s.d. of 1 when they are smoothed.
  int sum = 0;
  for (const int tap : taps) sum += tap * tap;
  return static_cast<float>(1 / std::sqrt(static_cast<double>(sum)));
}

KESTRELVANE_CLONES void smooth(const float* own, const float* shared, float own_size,
                               float shared_size, float* out) {
  for (std::int32_t i = 0; i < noise_block; i += n_lanes) {
    float_lanes fine = {}, coarse = {};
    for (int k = 0; k < 3; ++k) {
      const auto tap = static_cast<float>(own_taps[k]);
      // A look back only: the numbers before the block are kept in front of it.
      fine += tap * *reinterpret_cast<const float_lanes*>(own + i - k);
    }
    for (int k = 0; k < 7; ++k) {
      const auto tap = static_cast<float>(shared_taps[k]);
      coarse += tap * *reinterpret_cast<const float_lanes*>(shared + i - k);
    }
    *reinterpret_cast<float_lanes*>(out + i) = own_size * fine + shared_size * coarse;
  }
}

void keep_history(float* numbers) {
  std::copy(numbers + noise_block, numbers + noise_block + noise_history, numbers);
  // The sources add to what is there.
  std::fill(numbers + noise_history, numbers + noise_history + noise_block, 0.0f);
}

}  // namespace

noise_source start_source(std::int64_t seed, std::uint64_t purpose, std::uint64_t index) {
  noise_source source{};
  random_stream random(seed, purpose, index);
  for (auto& lanes : source.state) {
    // The upper half of a word is the better mixed one.
    for (std::uint32_t& word : lanes) word = static_cast<std::uint32_t>(random.next() >> 32);
  }
  return source;
}

// A number is the sum of four
// 16-bit uniforms; mixing and smoothing bring it nearer still to a normal one.
KESTRELVANE_CLONES void add_numbers(noise_source& source, float* out) {
  generator_lanes s0, s1, s2, s3;
  std::memcpy(&s0, source.state[0], sizeof s0);
  std::memcpy(&s1, source.state[1], sizeof s1);
  std::memcpy(&s2, source.state[2], sizeof s2);
  std::memcpy(&s3, source.state[3], sizeof s3);
  // s.d. of the sum: sqrt(4 (2^32 - 1) / 12).
  const float weight = source.weight / 37837.227f;
  for (std::int32_t i = 0; i < noise_block; i += n_lanes) {
    generator_lanes sum = {};
    // Two words to a number, each of them two uniforms of 16 bits.
    for (int part = 0; part < 2; ++part) {
      const generator_lanes result = s0 + s3;
      const generator_lanes shifted = s1 << 9;
      s2 ^= s0;
      s3 ^= s1;
      s1 ^= s2;
      s0 ^= s3;
      s2 ^= shifted;
      s3 = (s3 << 11) | (s3 >> 21);
      sum += (result & 0xffffu) + (result >> 16);
    }
    // The mean of four: 4 times 65535 over 2.
    const int_lanes centred = (int_lanes)sum - 131070;
    *reinterpret_cast<float_lanes*>(out + i) +=
        weight * __builtin_convertvector(centred, float_lanes);
  }
  std::memcpy(source.state[0], &s0, sizeof s0);
  std::memcpy(source.state[1], &s1, sizeof s1);
  std::memcpy(source.state[2], &s2, sizeof s2);
  std::memcpy(source.state[3], &s3, sizeof s3);
}

noise_maker start_noise(std::int64_t seed, const std::vector<site_position>& sites,
                        std::int32_t channel) {
  noise_maker maker{};
  maker.own = start_source(seed, for_own_noise, static_cast<std::uint64_t>(channel));
  // A shared source stands at every other site; the nearest few are heard.
  struct heard {
    double distance;
    std::size_t site;
  };
  std::vector<heard> near;
  const site_position& here = sites[channel - 1];
  // At sites, and not at channels that hear it: neighbours then share the very same numbers.
  for (std::size_t i = 0; i < sites.size(); i += 2) {
    const double dx = here.x - sites[i].x;
    const double dy = here.y - sites[i].y;
    const double distance = std::sqrt(dx * dx + dy * dy);
    if (distance <= farthest_source_um) near.push_back({distance, i});
  }
  // Stable: of equal distances the lower site.
  std::stable_sort(near.begin(), near.end(),
                   [](const heard& a, const heard& b) { return a.distance < b.distance; });
  if (near.size() > most_sources) near.resize(most_sources);
  double sum_of_squares = 0;
  for (const heard& h : near) {
    noise_source source = start_source(seed, for_shared_noise, h.site);
    const double ratio = h.distance / shared_reach_um;
    const double weight = 1 / (1 + ratio * ratio);
    sum_of_squares += weight * weight;
    source.weight = static_cast<float>(weight);
    maker.shared.push_back(source);
  }
  // With no source in reach all of the variance is the channel's own.
  const double part = near.empty() ? 0 : shared_part;
  maker.own.weight = static_cast<float>(std::sqrt(1 - part));
  for (noise_source& source : maker.shared) {
    // The shares of the sources, however many there are, make up the same part.
    source.weight *= static_cast<float>(std::sqrt(part / sum_of_squares));
  }
  return maker;
}

void make_noise(noise_maker& maker, float size, float* out) {
  keep_history(maker.own_numbers);
  keep_history(maker.shared_numbers);
  add_numbers(maker.own, maker.own_numbers + noise_history);
  for (noise_source& source : maker.shared) {
    add_numbers(source, maker.shared_numbers + noise_history);
  }
  smooth(maker.own_numbers + noise_history, maker.shared_numbers + noise_history,
         size * norm_of(own_taps), size * norm_of(shared_taps), out);
}

}  // namespace kestrelvane

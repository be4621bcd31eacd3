#include "clustering/alignment_scores.h"

#include <cmath>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

// The samples that all offsets of all points of one channel read, converted once.
constexpr std::int32_t most_samples = template_point_limit + 8 * n_lanes;

__attribute__((always_inline)) inline void convert_samples(const std::int16_t* v, std::int32_t n,
                                                           float* samples) {
  for (std::int32_t i = 0; i < n; i += n_lanes) {
    const short_lanes s = *reinterpret_cast<const short_lanes*>(v + i);
    *reinterpret_cast<float_lanes*>(samples + i) = __builtin_convertvector(s, float_lanes);
  }
}

enum class score_term { product, squared_difference };

// Lanes are offsets; each adds its terms in the order of the plain loop. Blocks of
// 16 offsets stay in registers while the points go by.
template <int blocks, score_term term>
__attribute__((always_inline)) inline void add_terms(const float* samples, const float* values,
                                                     std::int32_t n_points, std::int32_t step,
                                                     float_lanes* sums) {
  float_lanes local[blocks];
  for (int b = 0; b < blocks; ++b) local[b] = sums[b];
  for (std::int32_t i = 0; i < n_points; ++i) {
    for (int b = 0; b < blocks; ++b) {
      const float_lanes sample =
          *reinterpret_cast<const float_lanes*>(samples + i * step + b * n_lanes);
      if constexpr (term == score_term::product) {
        local[b] += sample * values[i];
      } else {
        const float_lanes difference = values[i] - sample;
        local[b] += difference * difference;
      }
    }
  }
  for (int b = 0; b < blocks; ++b) sums[b] = local[b];
}

// v points at the first sample of the first offset on one channel.
template <score_term term>
__attribute__((always_inline)) inline void add_channel(const std::int16_t* v, const float* values,
                                                       std::int32_t n_points, std::int32_t step,
                                                       std::int32_t n_blocks, float_lanes* sums) {
  float samples[most_samples];
  convert_samples(v, (n_points - 1) * step + n_blocks * n_lanes, samples);
  // Two blocks hold the default window of 25 offsets; seven the widest of 101.
  std::int32_t b = 0;
  for (; b + 2 <= n_blocks; b += 2) {
    add_terms<2, term>(samples + b * n_lanes, values, n_points, step, sums + b);
  }
  if (b < n_blocks) add_terms<1, term>(samples + b * n_lanes, values, n_points, step, sums + b);
}

KESTRELVANE_CLONES void sum_products(const std::int16_t* v, const float* values,
                                     std::int32_t n_points, std::int32_t step,
                                     std::int32_t n_blocks, float_lanes* sums) {
  add_channel<score_term::product>(v, values, n_points, step, n_blocks, sums);
}

KESTRELVANE_CLONES void sum_differences(const std::int16_t* v, const float* values,
                                        std::int32_t n_points, std::int32_t n_blocks,
                                        float_lanes* sums) {
  add_channel<score_term::squared_difference>(v, values, n_points, 1, n_blocks, sums);
}

// Signed roots of the negated sums: -sqrt(sum) for a positive sum.
KESTRELVANE_CLONES void finish_products(const float* sums, std::int32_t n, float scale, float terms,
                                        float* scores) {
  for (std::int32_t i = 0; i < n; ++i) {
    const float q = -sums[i];
    scores[i] = std::copysign(std::sqrt(std::fabs(q)), q) * scale / terms;
  }
}

std::int32_t count_blocks(const alignment_target& target) {
  return whole_lanes(2 * target.w + 1) / n_lanes;
}

const std::int16_t* first_sample(const session_state& session, const alignment_target& target,
                                 std::size_t k, std::int32_t time) {
  return session.recording.vd.channel(target.channels[k]) + time + target.start - target.w;
}

}  // namespace

void score_differences(const session_state& session, const alignment_target& target,
                       std::int32_t time, float* scores) {
  float_lanes sums[7] = {};
  for (std::size_t k = 0; k < target.channels.size(); ++k) {
    sum_differences(first_sample(session, target, k, time),
                    target.values.data() + k * target.n_points, target.n_points,
                    count_blocks(target), sums);
  }
  const float scale = session.recording.vscale_HP;
  const auto terms = static_cast<float>(target.values.size());
  for (std::int32_t i = 0; i <= 2 * target.w; ++i) {
    scores[i] = sums[i / n_lanes][i % n_lanes] * scale / terms;
  }
}

void score_products(const session_state& session, const alignment_target& target, std::int32_t time,
                    float* scores) {
  float_lanes sums[7] = {};
  for (std::size_t k = 0; k < target.channels.size(); ++k) {
    sum_products(first_sample(session, target, k, time), target.values.data() + k * target.n_points,
                 target.n_points, target.step, count_blocks(target), sums);
  }
  const float scale = session.recording.vscale_HP;
  const auto terms = static_cast<float>(target.values.size());
  finish_products(reinterpret_cast<const float*>(sums), 2 * target.w + 1, scale, terms, scores);
}

}  // namespace kestrelvane

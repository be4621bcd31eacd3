#include "clustering/alignment_scores.h"

#include <cmath>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

// Lanes are offsets; each adds its terms in the order of the plain loop. Up to
// seven blocks of 16 offsets cover -50..50; v points at the first sample of the
// first offset on one channel.
template <int blocks>
__attribute__((always_inline)) inline void add_products(const std::int16_t* v, const float* values,
                                                        std::int32_t n_points, std::int32_t step,
                                                        float_lanes* sums) {
  float_lanes local[blocks];
  for (int b = 0; b < blocks; ++b) local[b] = sums[b];
  for (std::int32_t i = 0; i < n_points; ++i) {
    for (int b = 0; b < blocks; ++b) {
      const short_lanes samples = *reinterpret_cast<const short_lanes*>(v + i * step + b * n_lanes);
      local[b] += __builtin_convertvector(samples, float_lanes) * values[i];
    }
  }
  for (int b = 0; b < blocks; ++b) sums[b] = local[b];
}

template <int blocks>
__attribute__((always_inline)) inline void add_differences(const std::int16_t* v,
                                                           const float* values,
                                                           std::int32_t n_points,
                                                           float_lanes* sums) {
  float_lanes local[blocks];
  for (int b = 0; b < blocks; ++b) local[b] = sums[b];
  for (std::int32_t i = 0; i < n_points; ++i) {
    for (int b = 0; b < blocks; ++b) {
      const short_lanes samples = *reinterpret_cast<const short_lanes*>(v + i + b * n_lanes);
      const float_lanes difference = values[i] - __builtin_convertvector(samples, float_lanes);
      local[b] += difference * difference;
    }
  }
  for (int b = 0; b < blocks; ++b) sums[b] = local[b];
}

KESTRELVANE_CLONES void sum_products(const std::int16_t* v, const float* values,
                                     std::int32_t n_points, std::int32_t step,
                                     std::int32_t n_blocks, float_lanes* sums) {
  // Two blocks hold the default window of 25 offsets.
  std::int32_t b = 0;
  for (; b + 2 <= n_blocks; b += 2) {
    add_products<2>(v + b * n_lanes, values, n_points, step, sums + b);
  }
  if (b < n_blocks) add_products<1>(v + b * n_lanes, values, n_points, step, sums + b);
}

KESTRELVANE_CLONES void sum_differences(const std::int16_t* v, const float* values,
                                        std::int32_t n_points, std::int32_t n_blocks,
                                        float_lanes* sums) {
  std::int32_t b = 0;
  for (; b + 2 <= n_blocks; b += 2) {
    add_differences<2>(v + b * n_lanes, values, n_points, sums + b);
  }
  if (b < n_blocks) add_differences<1>(v + b * n_lanes, values, n_points, sums + b);
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
  for (std::int32_t i = 0; i <= 2 * target.w; ++i) {
    float q = -sums[i / n_lanes][i % n_lanes];
    if (q < 0.0f) {
      q = -std::sqrt(-q);
    } else if (q > 0.0f) {
      q = std::sqrt(q);
    }
    scores[i] = q * scale / terms;
  }
}

}  // namespace kestrelvane

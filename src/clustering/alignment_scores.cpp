#include "clustering/alignment_scores.h"

#include <cmath>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

// The samples that all offsets of all points of one channel read.
constexpr std::int32_t most_samples = template_point_limit + 8 * n_lanes;
constexpr std::int32_t most_offsets = 7 * n_lanes;  // 101 in whole lanes

enum class score_term { product, squared_difference };

// Lanes are offsets; each adds its terms in the order of the plain loop. B vectors of offsets stay
// in registers while the points go by.
template <int L, int B, score_term term>
KESTRELVANE_INTO_CALLER void add_terms(const float* samples, const float* values,
                                       const alignment_target& target, float* sums) {
  typename lanes_of<L>::floats local[B];
  for (int b = 0; b < B; ++b) local[b] = lanes_at<L>(sums + b * L);
  for (std::int32_t i = 0; i < target.n_points; ++i) {
    for (int b = 0; b < B; ++b) {
      const typename lanes_of<L>::floats sample = lanes_at<L>(samples + i * target.step + b * L);
      if constexpr (term == score_term::product) {
        local[b] += sample * values[i];
      } else {
        const typename lanes_of<L>::floats difference = values[i] - sample;
        local[b] += difference * difference;
      }
    }
  }
  for (int b = 0; b < B; ++b) lanes_at<L>(sums + b * L) = local[b];
}

const std::int16_t* first_sample(const session_state& session, const alignment_target& target,
                                 std::size_t k, std::int32_t time) {
  return session.recording.vd.channel(target.channels[k]) + time + target.start - target.w;
}

std::int32_t count_offsets(const alignment_target& target) { return whole_lanes(2 * target.w + 1); }

// The sums of all channels, by offset.
template <int L, score_term term>
KESTRELVANE_INTO_CALLER void add_all(const session_state& session, const alignment_target& target,
                                     std::int32_t time, float* sums) {
  // The next channel is converted ahead: a load of what is just being stored waits for it.
  float samples[2][most_samples];
  const std::int32_t n_offsets = count_offsets(target);
  const std::int32_t n_samples = (target.n_points - 1) * target.step + n_offsets;
  const std::size_t n = target.channels.size();
  if (n > 0) convert_samples<L>(first_sample(session, target, 0, time), n_samples, samples[0]);
  for (std::size_t k = 0; k < n; ++k) {
    if (k + 1 < n) {
      convert_samples<L>(first_sample(session, target, k + 1, time), n_samples,
                         samples[(k + 1) & 1]);
    }
    const float* const from = samples[k & 1];
    const float* const values = target.values.data() + k * target.n_points;
    // The default window has 25 offsets, the widest 101.
    constexpr int at_once = L == 16 ? 2 : 4;
    std::int32_t d = 0;
    for (; d + at_once * L <= n_offsets; d += at_once * L) {
      add_terms<L, at_once, term>(from + d, values, target, sums + d);
    }
    for (; d < n_offsets; d += L) add_terms<L, 1, term>(from + d, values, target, sums + d);
  }
}

template <int L>
KESTRELVANE_INTO_CALLER void add_products_by(const session_state& session,
                                             const alignment_target& target, std::int32_t time,
                                             float* sums) {
  add_all<L, score_term::product>(session, target, time, sums);
}
template <int L>
KESTRELVANE_INTO_CALLER void add_differences_by(const session_state& session,
                                                const alignment_target& target, std::int32_t time,
                                                float* sums) {
  add_all<L, score_term::squared_difference>(session, target, time, sums);
}
KESTRELVANE_BY_WIDTH(add_products,
                     (const session_state& session, const alignment_target& target,
                      std::int32_t time, float* sums),
                     (session, target, time, sums))
KESTRELVANE_BY_WIDTH(add_differences,
                     (const session_state& session, const alignment_target& target,
                      std::int32_t time, float* sums),
                     (session, target, time, sums))

// Signed roots of the negated sums: -sqrt(sum) for a positive sum.
KESTRELVANE_CLONES void finish_products(const float* sums, std::int32_t n, float scale, float terms,
                                        float* scores) {
  for (std::int32_t i = 0; i < n; ++i) {
    const float q = -sums[i];
    scores[i] = std::copysign(std::sqrt(std::fabs(q)), q) * scale / terms;
  }
}

}  // namespace

void score_differences(const session_state& session, const alignment_target& target,
                       std::int32_t time, float* scores) {
  float sums[most_offsets] = {};
  add_differences(session, target, time, sums);
  const float scale = session.recording.vscale_HP;
  const auto terms = static_cast<float>(target.values.size());
  for (std::int32_t i = 0; i <= 2 * target.w; ++i) scores[i] = sums[i] * scale / terms;
}

void score_products(const session_state& session, const alignment_target& target, std::int32_t time,
                    float* scores) {
  float sums[most_offsets] = {};
  add_products(session, target, time, sums);
  const float scale = session.recording.vscale_HP;
  const auto terms = static_cast<float>(target.values.size());
  finish_products(sums, 2 * target.w + 1, scale, terms, scores);
}

}  // namespace kestrelvane

#include "signal/interpolation.h"

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t run_block = 10 * n_lanes;

// B times L samples of a run.
template <int L, int B>
KESTRELVANE_INTO_CALLER void filter_lanes(const float* samples, const float* taps,
                                          std::int32_t n_taps, float* out) {
  typename lanes_of<L>::floats sums[B] = {};
  for (std::int32_t j = 0; j < n_taps; ++j) {
    for (int b = 0; b < B; ++b) sums[b] += lanes_at<L>(samples + j + b * L) * taps[j];
  }
  for (int b = 0; b < B; ++b) lanes_at<L>(out + b * L) = sums[b];
}

// out[i] = sum over taps j of v[i + j - width] * taps[j], taps in rising order:
// lanes are neighbouring samples. Works in whole lanes; samples are converted once,
// as many as a block of the longest run needs.
template <int L>
KESTRELVANE_INTO_CALLER void filter_run_by(const std::int16_t* v, const float* taps,
                                           std::int32_t width, std::int32_t n, float* out) {
  float samples[run_block + 2 * 50 + 2 * n_lanes];
  for (std::int32_t first = 0; first < n; first += run_block) {
    const std::int32_t end = n - first < run_block ? n - first : run_block;
    // Reads up to a lane or two beyond the run; the margins of vd take that.
    convert_samples<L>(v + first - width, whole_lanes(whole_lanes(end) + 2 * width), samples);
    std::int32_t i = 0;
    for (; i + 4 * L <= whole_lanes(end); i += 4 * L) {
      filter_lanes<L, 4>(samples + i, taps, 2 * width + 1, out + first + i);
    }
    for (; i < whole_lanes(end); i += L) {
      filter_lanes<L, 1>(samples + i, taps, 2 * width + 1, out + first + i);
    }
  }
}

KESTRELVANE_BY_WIDTH(filter_run,
                     (const std::int16_t* v, const float* taps, std::int32_t width, std::int32_t n,
                      float* out),
                     (v, taps, width, n, out))

KESTRELVANE_CLONES void copy_run(const std::int16_t* v, std::int32_t n, float* out) {
  for (std::int32_t i = 0; i < n; ++i) out[i] = static_cast<float>(v[i]);
}

}  // namespace

void interp_taps(const session_state& session, std::int32_t s, float* taps) {
  const interpolation_tables& tables = session.tables;
  for (std::int32_t j = -tables.width; j <= tables.width; ++j) {
    // The table is symmetric, so that it holds one side alone.
    const std::int32_t k = tables.depth * j - s;
    taps[j + tables.width] = s == 0 ? (j == 0 ? 1.0f : 0.0f) : tables.interp_table[k < 0 ? -k : k];
  }
}

void interp_run(const session_state& session, const std::int16_t* v, std::int32_t s, std::int32_t n,
                float* out) {
  if (s == 0) {
    copy_run(v, n, out);
    return;
  }
  float taps[101];
  interp_taps(session, s, taps);
  filter_run(v, taps, session.tables.width, n, out);
}

}  // namespace kestrelvane

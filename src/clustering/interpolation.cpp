#include "clustering/interpolation.h"

#include <cmath>
#include <cstring>

#include "numerics/simd.h"

namespace kestrelvane {

void build_interp_table(session_state& session) {
  interpolation_tables& tables = session.tables;
  std::int32_t depth = session.strategy.interp_depth;
  std::int32_t width = session.strategy.interp_width;
  depth = depth < 1 ? 1 : depth > 50 ? 50 : depth;
  width = width < 1 ? 1 : width > 50 ? 50 : width;
  while (depth * width > 1000) --width;
  tables.depth = depth;
  tables.width = width;

  constexpr double pi = 3.1415927410125732;
  std::memset(tables.interp_table, 0, sizeof tables.interp_table);
  tables.interp_table[0] = 1.0f;
  const std::int32_t n = depth * width;
  for (std::int32_t k = 1; k < n; ++k) {
    // Arguments in 64 bits, rounded; the functions in 64 bits, rounded.
    const float window_angle =
        static_cast<float>(pi * static_cast<double>(n - 1 + k) / static_cast<double>(n - 1));
    const float sinc_angle = static_cast<float>(pi * static_cast<double>(k) / depth);
    const float cosine = static_cast<float>(std::cos(static_cast<double>(window_angle)));
    const float sine = static_cast<float>(std::sin(static_cast<double>(sinc_angle)));
    tables.interp_table[k] = (0.54f - 0.46f * cosine) * sine / sinc_angle;
  }
}

void build_gac_table(session_state& session) {
  for (std::int32_t k = 0; k <= 10000; ++k) {
    session.tables.gac_table[k] = static_cast<float>(std::exp(-k / 500.0));
  }
}

namespace {

// out[i] = sum over taps j of v[i + j - width] * taps[j], taps in rising order:
// lanes are neighbouring samples. Works in whole lanes.
KESTRELVANE_CLONES void filter_run(const std::int16_t* v, const float* taps, std::int32_t width,
                                   std::int32_t n, float* out) {
  for (std::int32_t i = 0; i < n; i += n_lanes) {
    float_lanes sum = {};
    for (std::int32_t j = 0; j <= 2 * width; ++j) {
      const short_lanes samples = *reinterpret_cast<const short_lanes*>(v + i + j - width);
      sum += __builtin_convertvector(samples, float_lanes) * taps[j];
    }
    *reinterpret_cast<float_lanes*>(out + i) = sum;
  }
}

KESTRELVANE_CLONES void copy_run(const std::int16_t* v, std::int32_t n, float* out) {
  for (std::int32_t i = 0; i < n; ++i) out[i] = static_cast<float>(v[i]);
}

}  // namespace

void interp_run(const session_state& session, const std::int16_t* v, std::int32_t s, std::int32_t n,
                float* out) {
  if (s == 0) {
    copy_run(v, n, out);
    return;
  }
  const interpolation_tables& tables = session.tables;
  float taps[101];
  for (std::int32_t j = -tables.width; j <= tables.width; ++j) {
    const std::int32_t k = tables.depth * j - s;
    taps[j + tables.width] = tables.interp_table[k < 0 ? -k : k];
  }
  filter_run(v, taps, tables.width, n, out);
}

}  // namespace kestrelvane

#include "clustering/interpolation.h"

#include <cmath>
#include <cstring>
#include <string>

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

void change_interpolation(session_state& session, std::int32_t depth, std::int32_t width) {
  session.strategy.interp_depth = depth;
  session.strategy.interp_width = width;
  log_message(session, "Recalculating interpolation table");
  log_message(session, "Changing interpolation parameters, depth, width = " +
                           std::to_string(depth) + " " + std::to_string(width));
  build_interp_table(session);
}

void build_gac_table(session_state& session) {
  for (std::int32_t k = 0; k <= 10000; ++k) {
    // The argument is a 32-bit float, its exponential is taken in 64 bits.
    const float argument = -static_cast<float>(k) / 500.0f;
    session.tables.gac_table[k] = static_cast<float>(std::exp(static_cast<double>(argument)));
  }
}

namespace {

// out[i] = sum over taps j of v[i + j - width] * taps[j], taps in rising order:
// lanes are neighbouring samples. Works in whole lanes; samples are converted once,
// as many as a block of the longest run needs.
constexpr std::int32_t run_block = 10 * n_lanes;

KESTRELVANE_CLONES void filter_run(const std::int16_t* v, const float* taps, std::int32_t width,
                                   std::int32_t n, float* out) {
  float samples[run_block + 2 * 50 + 2 * n_lanes];
  for (std::int32_t first = 0; first < n; first += run_block) {
    const std::int32_t end = n - first < run_block ? n - first : run_block;
    const std::int32_t n_samples = whole_lanes(whole_lanes(end) + 2 * width);
    for (std::int32_t i = 0; i < n_samples; i += n_lanes) {
      const short_lanes s = *reinterpret_cast<const short_lanes*>(v + first + i - width);
      *reinterpret_cast<float_lanes*>(samples + i) = __builtin_convertvector(s, float_lanes);
    }
    for (std::int32_t i = 0; i < end; i += n_lanes) {
      float_lanes sum = {};
      for (std::int32_t j = 0; j <= 2 * width; ++j) {
        sum += *reinterpret_cast<const float_lanes*>(samples + i + j) * taps[j];
      }
      *reinterpret_cast<float_lanes*>(out + first + i) = sum;
    }
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

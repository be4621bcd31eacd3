#include "session/interpolation_tables.h"

#include <cmath>
#include <cstring>
#include <string>

namespace kestrelvane {

void build_interp_table(session_state& session) {
  interpolation_tables& tables = session.tables;
  std::int32_t depth = session.strategy.interp_depth;
  std::int32_t width = session.strategy.interp_width;
  depth = depth < 1 ? 1 : depth > 50 ? 50 : depth;
  width = width < 1 ? 1 : width > 50 ? 50 : width;
  // The table has room for 1000 values. Depth is kept, which says how finely a shift is read; fewer
  // neighbours on each side only make the kernel less sharp.
  while (depth * width > 1000) --width;
  tables.depth = depth;
  tables.width = width;

  // The 32-bit pi, widened: the last bits of every interpolated sample follow from it.
  constexpr double pi = 3.1415927410125732;
  std::memset(tables.interp_table, 0, sizeof tables.interp_table);
  // sin(0) / 0 by its limit, so that a sample at its own place is read back as it is.
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

void log_interpolation(const session_state& session) {
  log_message(session, "Recalculating interpolation table");
  log_message(session, "Changing interpolation parameters, depth, width = " +
                           std::to_string(session.strategy.interp_depth) + " " +
                           std::to_string(session.strategy.interp_width));
}

void fill_gac_table(float* table) {
  for (std::int32_t k = 0; k <= 10000; ++k) {
    // The argument is a 32-bit float, its exponential is taken in 64 bits.
    const float argument = -static_cast<float>(k) / 500.0f;
    table[k] = static_cast<float>(std::exp(static_cast<double>(argument)));
  }
  // What lies beyond the table weighs nothing.
  table[10001] = 0.0f;
}

void build_gac_table(session_state& session) { fill_gac_table(session.tables.gac_table); }

}  // namespace kestrelvane

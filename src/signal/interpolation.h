// Sinc interpolation: voltages at a fraction of a sample.
//
// Every consumer that cuts a waveform out of vd at an aligned time reads it
// through one windowed sinc: D steps to the sample (interp_depth), W taps on each
// side (interp_width). Shifts are whole numbers of 1/D sample. Shift 0 returns
// the stored sample; any other shift filters. Voltages are in bits. Cut to W taps by a
// Hamming window, it is the band-limited interpolation of the sampling theorem (Shannon,
// Proc. IRE 37, 1949).
//
// Reentrant; the table (session/interpolation_tables.h) changes only when settings do.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Voltage of a channel at t + s / depth.
inline float interp_voltage(const session_state& session, std::int64_t t, std::int32_t channel,
                            std::int32_t s) {
  const std::int16_t* v = session.recording.vd.channel(channel) + t;
  if (s == 0) return static_cast<float>(v[0]);
  const interpolation_tables& tables = session.tables;
  const std::int32_t depth = tables.depth;
  const std::int32_t width = tables.width;
  float sum = 0.0f;
  for (std::int32_t j = -width; j <= width; ++j) {
    const std::int32_t k = depth * j - s;
    sum += static_cast<float>(v[j]) * tables.interp_table[k < 0 ? -k : k];
  }
  return sum;
}

// Step of the interpolation table for an event's fraction: int(depth * shift).
inline std::int32_t interp_step(const session_state& session, float event_shift) {
  return static_cast<std::int32_t>(static_cast<float>(session.tables.depth) * event_shift);
}

// What interp_voltage multiplies the samples at -width .. width with; room for 101.
void interp_taps(const session_state& session, std::int32_t s, float* taps);

// out[i] = interp_voltage at v + i, i = 0..n-1, v pointing into a channel of vd: the
// same sums, many at a time. Works in whole lanes: out must have room for n rounded
// up to 16, and what stands there beyond n has no meaning.
void interp_run(const session_state& session, const std::int16_t* v, std::int32_t s, std::int32_t n,
                float* out);

}  // namespace kestrelvane

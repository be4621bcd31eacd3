// Where rows, samples and columns of the voltage record lie. Plain numbers, no painter.
//
// Rows count from 1 and show the channels of chan_sort_order; a row is known by its
// baseline, the y of 0 µV. The time axis is cut into pixel columns, counted from 1: column
// k stands at x = margin + k - 1 and shows the voltage k / vd_time_scale samples after
// vd_first_sample. Everything is in logical pixels.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// The picture of one moment: worked out anew for every draw.
struct voltage_layout {
  std::int32_t width = 0, height = 0;
  std::int32_t margin = 0;     // left of the traces, for the channel numbers
  std::int32_t trace_end = 0;  // x behind the last column
  std::int32_t n_columns = 0;  // 0 when the window is too narrow for any
  std::int32_t first_sample = 1, n_samples = 0;
  float time_scale = 1.0f;  // pixels per sample
  std::int32_t spacing = 1, top_offset = 0;
  std::int32_t first_row = 1, last_row = 0;  // drawn; none when last_row < first_row
  bool tetrode_gaps = false;
  std::vector<std::int32_t> row_of_channel;  // by channel
};

// Lays the view out, and writes what follows from it: vd_lead_samples, vd_first_channel.
voltage_layout lay_out_voltage(session_state& session);

// 5 ms in samples, as the sampling frequency has it; also kept in vd_lead_samples.
std::int32_t update_lead_samples(session_state& session);

std::int32_t row_baseline(const voltage_layout& layout, std::int32_t row);

// Row of a channel, or 0 when it is not drawn.
std::int32_t drawn_row(const voltage_layout& layout, std::int32_t channel);

// x of a time index, not yet truncated, so that a far-off sample is no overflow.
inline float place_of_sample(const voltage_layout& layout, std::int32_t t, std::int32_t margin) {
  return static_cast<float>(std::int64_t{t} - layout.first_sample) * layout.time_scale +
         static_cast<float>(margin);
}

// What each column reads: the sample at first_sample + offset, and the step of the
// interpolation table behind it. The same for every row. Element 0 is unused.
struct column_samples {
  std::vector<std::int32_t> offset, step;
  bool interpolated = false;
  std::vector<float> taps;  // of every step, n_taps each, in the order of time
  std::int32_t n_taps = 0;
};

// Columns 1..n. offset is held to the recording's length.
column_samples find_column_samples(const session_state& session, const voltage_layout& layout,
                                   std::int32_t n);
// The same for traces, which begin with the sample after first_sample as it is stored.
column_samples find_trace_samples(const session_state& session, const voltage_layout& layout);

// values[k] = voltage in bits of columns 1..n on a channel; 0 after the recording's end.
void read_columns(const session_state& session, const voltage_layout& layout,
                  const column_samples& columns, std::int32_t channel, float* values);

// y of voltages in bits, truncated; held to what a painter's integers take.
struct voltage_to_pixels {
  float pixels_per_bit;
  explicit voltage_to_pixels(const session_state& session)
      : pixels_per_bit(session.display.vd_voltage_scale * session.recording.vscale_HP) {}
  std::int32_t y(std::int32_t baseline, float bits) const {
    constexpr float limit = 1e6f;
    const float exact = static_cast<float>(baseline) - pixels_per_bit * bits;
    const float held = exact < -limit ? -limit : exact > limit ? limit : exact;
    return static_cast<std::int32_t>(held);
  }
};

}  // namespace kestrelvane

#include "displays/voltage/voltage_geometry.h"

#include <algorithm>
#include <cmath>

namespace kestrelvane {

namespace {

constexpr std::int32_t right_border = 28;  // the voltage bar stands there
constexpr std::int32_t tetrode_gap = 20;   // pixels between groups of four rows

// The first row whose plain baseline leaves room for half a row below the read-out.
std::int32_t first_visible_row(std::int32_t spacing, std::int32_t top_offset) {
  const std::int64_t twice_missing = spacing + 22 - 2 * std::int64_t{top_offset};
  if (twice_missing <= 0) return 1;
  // Rounded upwards, in 64 bits: offsets may be far outside the window.
  const std::int64_t rows = (twice_missing + 2 * spacing - 1) / (2 * std::int64_t{spacing});
  return static_cast<std::int32_t>(rows + 1);
}

void place_rows(voltage_layout& layout, const session_state& session) {
  const recording_store& r = session.recording;
  layout.spacing = std::max(session.display.vd_channel_spacing, 1);
  layout.top_offset = session.view.vd_top_offset;
  layout.tetrode_gaps = r.electrode_type == electrode_tetrode;
  layout.first_row = first_visible_row(layout.spacing, layout.top_offset);
  // One row more than fits, which is seen in part.
  layout.last_row = std::min(layout.height / layout.spacing + layout.first_row, r.n_channels);
  layout.row_of_channel.assign(static_cast<std::size_t>(r.n_channels) + 1, 0);
  for (std::int32_t row = 1; row <= r.n_channels; ++row) {
    const std::int32_t channel = r.chan_sort_order[row];
    if (channel >= 1 && channel <= r.n_channels) layout.row_of_channel[channel] = row;
  }
}

}  // namespace

std::int32_t update_lead_samples(session_state& session) {
  return session.view.vd_lead_samples = session.recording.sampling_frequency / 200;
}

voltage_layout lay_out_voltage(session_state& session) {
  const recording_store& r = session.recording;
  voltage_layout layout;
  layout.width = session.view.vd_width;
  layout.height = session.view.vd_height;
  layout.margin = r.n_channels >= 100 ? 24 : 16;
  layout.trace_end = layout.width - right_border;
  layout.n_columns = std::max(layout.trace_end - layout.margin, 0);
  layout.first_sample = session.view.vd_first_sample;
  layout.n_samples = r.n_samples;
  layout.time_scale = session.display.vd_time_scale;
  place_rows(layout, session);
  update_lead_samples(session);
  session.view.vd_first_channel = layout.first_row;
  return layout;
}

std::int32_t row_baseline(const voltage_layout& layout, std::int32_t row) {
  std::int32_t y = layout.top_offset + layout.spacing * (row - 1);
  // Gaps count from the group at the top, or scrolling would move rows by them.
  if (layout.tetrode_gaps) y += tetrode_gap * ((row - 1) / 4 - (layout.first_row - 1) / 4);
  return y;
}

std::int32_t drawn_row(const voltage_layout& layout, std::int32_t channel) {
  if (channel < 1 || static_cast<std::size_t>(channel) >= layout.row_of_channel.size()) return 0;
  const std::int32_t row = layout.row_of_channel[channel];
  return row >= layout.first_row && row <= layout.last_row ? row : 0;
}

namespace {

void fill_taps(column_samples& columns, const interpolation_tables& tables) {
  columns.n_taps = 2 * tables.width + 1;
  // For every step between samples one set of taps, in the order of the samples.
  for (std::int32_t s = 0; s <= tables.depth; ++s) {
    for (std::int32_t j = -tables.width; j <= tables.width; ++j) {
      columns.taps.push_back(tables.interp_table[std::abs(tables.depth * j - s)]);
    }
  }
}

}  // namespace

column_samples find_column_samples(const session_state& session, const voltage_layout& layout,
                                   std::int32_t n) {
  column_samples columns;
  columns.offset.assign(static_cast<std::size_t>(n) + 1, 0);
  columns.step.assign(static_cast<std::size_t>(n) + 1, 0);
  columns.interpolated = layout.time_scale != 1.0f;
  fill_taps(columns, session.tables);
  const auto depth = static_cast<float>(session.tables.depth);
  // One beyond the end is as good as any farther, and fits an integer.
  const auto limit = static_cast<float>(layout.n_samples) + 1.0f;
  for (std::int32_t k = 1; k <= n; ++k) {
    if (!columns.interpolated) {
      columns.offset[k] = k;
      continue;
    }
    const float s = static_cast<float>(k) / layout.time_scale;
    if (s >= limit) {
      columns.offset[k] = layout.n_samples;
      continue;
    }
    const auto whole = static_cast<std::int32_t>(s);
    columns.offset[k] = whole;
    columns.step[k] = static_cast<std::int32_t>(depth * (s - static_cast<float>(whole)));
  }
  return columns;
}

column_samples find_trace_samples(const session_state& session, const voltage_layout& layout) {
  column_samples columns = find_column_samples(session, layout, layout.n_columns);
  if (layout.n_columns > 0) {
    // The first column shows the sample at its edge as it is stored.
    columns.offset[1] = 1;
    columns.step[1] = 0;
  }
  return columns;
}

namespace {

void read_stored(const std::int16_t* v, const column_samples& columns, std::int32_t n,
                 float* values) {
  for (std::int32_t k = 1; k <= n; ++k) values[k] = static_cast<float>(v[columns.offset[k]]);
}

// The sums of interp_voltage, tap by tap. Zoomed out, every column lies in memory that was
// not read yet: asked for some columns ahead.
void read_interpolated(const std::int16_t* v, const column_samples& columns, std::int32_t n,
                       float* values) {
  constexpr std::int32_t ahead = 16;
  const bool scattered = n > 1 && columns.offset[n] / n > 16;
  for (std::int32_t k = 1; k <= n; ++k) {
    const std::int16_t* at = v + columns.offset[k];
    if (scattered && k + ahead <= n) {
      const std::int16_t* next = v + columns.offset[k + ahead];
      __builtin_prefetch(next - columns.n_taps / 2);
      __builtin_prefetch(next + columns.n_taps / 2);
    }
    if (columns.step[k] == 0) {
      values[k] = static_cast<float>(at[0]);
      continue;
    }
    at -= columns.n_taps / 2;
    const float* taps = columns.taps.data() + columns.step[k] * columns.n_taps;
    float sum = 0.0f;
    for (std::int32_t j = 0; j < columns.n_taps; ++j) sum += static_cast<float>(at[j]) * taps[j];
    values[k] = sum;
  }
}

}  // namespace

void read_columns(const session_state& session, const voltage_layout& layout,
                  const column_samples& columns, std::int32_t channel, float* values) {
  const auto n = static_cast<std::int32_t>(columns.offset.size()) - 1;
  const std::int16_t* v = session.recording.vd.channel(channel) + layout.first_sample;
  // Columns run in the order of time, so those after the end are the last ones.
  std::int32_t n_inside = n;
  while (n_inside > 0 && columns.offset[n_inside] > layout.n_samples - layout.first_sample) {
    --n_inside;
  }
  if (columns.interpolated) {
    read_interpolated(v, columns, n_inside, values);
  } else {
    read_stored(v, columns, n_inside, values);
  }
  std::fill(values + n_inside + 1, values + n + 1, 0.0f);
}

}  // namespace kestrelvane

#include "displays/voltage/voltage_readout.h"

#include <fmt/format.h>

#include <QFontMetrics>
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "displays/display_colours.h"
#include "displays/display_fonts.h"
#include "displays/voltage/peak_summary.h"
#include "displays/voltage/voltage_geometry.h"
#include "recording/acquisition_facts.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t nearest_counts = 4;  // pixels; from there on nothing is found

// The nearest place so far.
struct nearest_place {
  std::int32_t distance = 1000;
  std::int32_t channel = 0, index = 0;
  float bits = 0.0f;

  void offer(std::int32_t new_distance, std::int32_t new_channel, std::int32_t new_index,
             float new_bits) {
    // Strictly nearer: the first of equal places.
    if (new_distance < distance) *this = {new_distance, new_channel, new_index, new_bits};
  }
};

// Columns whose place, less two pixels, is nearer to the pointer than the width of a
// sample: none when last < first.
struct column_run {
  std::int32_t first = 1, last = 0;
};

column_run columns_at_pointer(const session_state& session, const voltage_layout& layout) {
  column_run run;
  for (std::int32_t k = 2; k <= layout.n_columns; ++k) {
    const std::int32_t away = layout.margin + k - 2 - session.view.vd_mouse_x;
    // Strictly: at a scale of one pixel only the column under the pointer.
    if (!(static_cast<float>(std::abs(away)) < layout.time_scale)) continue;
    if (run.last < run.first) run.first = k;
    run.last = k;
  }
  return run;
}

// The time index that a column stands for.
std::int32_t index_of_column(const voltage_layout& layout, std::int32_t k) {
  const double behind = static_cast<double>(k) / layout.time_scale;
  return static_cast<std::int32_t>(std::min(layout.first_sample + behind, 2147483647.0));
}

void search_samples(const session_state& session, const voltage_layout& layout,
                    nearest_place& nearest) {
  const column_run run = columns_at_pointer(session, layout);
  if (run.last < run.first) return;
  const voltage_to_pixels pixels(session);
  const column_samples all = find_trace_samples(session, layout);
  // A copy with its taps, of which only the columns of the run are kept.
  column_samples columns = all;  // those of the run alone
  columns.offset.assign(1, 0);
  columns.step.assign(1, 0);
  for (std::int32_t k = run.first; k <= run.last; ++k) {
    columns.offset.push_back(all.offset[k]);
    columns.step.push_back(all.step[k]);
  }
  std::vector<float> values(columns.offset.size());
  for (std::int32_t row = layout.first_row; row <= layout.last_row; ++row) {
    const std::int32_t channel = session.recording.chan_sort_order[row];
    read_columns(session, layout, columns, channel, values.data());
    const std::int32_t baseline = row_baseline(layout, row);
    for (std::int32_t k = run.first; k <= run.last; ++k) {
      const float bits = values[k - run.first + 1];
      // By pixels, as the user sees it, and not by voltage.
      const std::int32_t away = std::abs(pixels.y(baseline, bits) - session.view.vd_mouse_y);
      nearest.offer(away, channel, index_of_column(layout, k), bits);
    }
  }
}

// The column under the pointer, sample by sample.
void search_peaks(const session_state& session, const voltage_layout& layout,
                  nearest_place& nearest) {
  const std::int32_t k = session.view.vd_mouse_x - layout.margin + 1;
  if (k < 1 || k > layout.n_columns) return;
  const peak_columns columns = find_peak_columns(layout);
  const std::int64_t first = columns.begin[k], last = columns.begin[k + 1] - 1;
  // A column beyond the end of the recording has no samples.
  if (last < first) return;
  const voltage_to_pixels pixels(session);
  for (std::int32_t row = layout.first_row; row <= layout.last_row; ++row) {
    const std::int32_t channel = session.recording.chan_sort_order[row];
    const std::int16_t* v = session.recording.vd.channel(channel);
    const auto [least, greatest] = std::minmax_element(v + first, v + last + 1);
    for (const std::int16_t* peak : {least, greatest}) {
      const std::int32_t y = pixels.y(row_baseline(layout, row), *peak);
      nearest.offer(std::abs(y - session.view.vd_mouse_y), channel,
                    static_cast<std::int32_t>(peak - v), *peak);
    }
  }
}

// To one decimal, halves upwards; far below zero the last digit is cut instead.
float rounded_microvolts(float v) {
  const float tenths = std::clamp(v * 10.0f + 10000.5f, -2e9f, 2e9f);
  // Raised first, so that the cut is downwards for all voltages that a recording has.
  return static_cast<float>(static_cast<std::int32_t>(tenths)) / 10.0f - 1000.0f;
}

// A field of the line: its label, the longest value it has room for, what follows.
struct readout_field {
  const char* label;
  const char* longest;
  const char* unit;
  std::string value;
};

std::vector<readout_field> fields_of(const voltage_reading& reading) {
  return {
      {"Voltage= ", "-9999.9", " µV; ", fmt::format("{:6.1f}", reading.microvolts)},
      {"Channel #= ", "9999", "; ", fmt::format("{:3}", reading.channel)},
      {"time= ", "9999.9999", " mins = ", fmt::format("{:8.4f}", reading.minutes)},
      {"", "99999.9999", " s; ", fmt::format("{:.4f}", reading.minutes * 60.0)},
      {"index= ", "9999999999", "", fmt::format("{}", reading.index)},
  };
}

// Values stand at the right of their room, so that digits do not jump under the pointer. Returns
// the x behind the last field.
std::int32_t draw_fields(QPainter& painter, const voltage_reading& reading, bool only_measure) {
  const QFontMetrics metrics = painter.fontMetrics();
  std::int32_t x = 7;
  const auto put = [&](const QString& text, std::int32_t room) {
    const std::int32_t width = metrics.horizontalAdvance(text);
    if (!only_measure) draw_text(painter, x + std::max(room - width, 0), 1, text);
    x += std::max(room, width);
  };
  for (const readout_field& field : fields_of(reading)) {
    const QString value = QString::fromStdString(field.value).trimmed();
    put(field.label, 0);
    put(reading.found ? value : QString(), metrics.horizontalAdvance(field.longest));
    x += 2;
    put(field.unit, 0);
  }
  return x;
}

// Real time of a time index in minutes: by the sampling frequency, or by the time stamp of
// the stored record in an event-based recording.
double minutes_of_index(const session_state& session, std::int32_t index, std::int32_t channel) {
  const recording_store& r = session.recording;
  // A slot on the time axis tells nothing of real time there.
  if (!r.is_continuous && !session.preferences.treat_as_continuous) {
    return static_cast<double>(event_record_time_ms(session, index, channel)) / 60000.0;
  }
  const double rate = exact_rate(r);
  return rate > 0 ? index / (rate * 60.0) : 0.0;
}

}  // namespace

voltage_reading read_voltage_at_pointer(session_state& session) {
  voltage_reading reading;
  if (session.recording.n_samples == 0) return reading;
  const voltage_layout layout = lay_out_voltage(session);
  nearest_place nearest;
  if (keeps_peaks(session)) {
    search_peaks(session, layout, nearest);
  } else {
    search_samples(session, layout, nearest);
  }
  reading.distance = nearest.distance;
  // Fewer than four pixels away.
  reading.found = nearest.distance < nearest_counts;
  if (!reading.found) return reading;
  reading.channel = nearest.channel;
  reading.index = nearest.index;
  reading.microvolts = rounded_microvolts(nearest.bits * session.recording.vscale_HP);
  reading.minutes = minutes_of_index(session, nearest.index, nearest.channel);
  return reading;
}

void draw_readout(session_state& session, QPainter& painter, const voltage_reading& reading) {
  const bool reversed = session.view.vd_reverse_contrast;
  painter.save();
  use_font(session, painter, "t'Arial'h16w5");
  const std::int32_t end = draw_fields(painter, reading, true);
  painter.fillRect(5, 2, end + 2 - 5, 15, colour_of_word(reversed ? 0 : 0xF2F2F2));
  painter.setPen(colour_of_word(reversed ? 0xFFFFFF : 0xFF));
  draw_fields(painter, reading, false);
  painter.restore();
}

}  // namespace kestrelvane

#include "signal/display_scale.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "numerics/sort.h"

namespace kestrelvane {

namespace {

constexpr float centre_voltage_scale = 0.2f;  // pixels per µV at position 50
constexpr float voltage_step = 1.1040895f;
constexpr float log_voltage_step = 0.09902101f;
constexpr float time_step = 1.1486983f;  // the fifth root of 2
constexpr float log_time_step = 0.13862942f;
constexpr float least_time_scale = 1e-6f, greatest_time_scale = 1e6f;

// Pixels above the top row, for the read-out and the time bar.
constexpr std::int32_t rows_begin = 20;

std::int32_t row_at_top(const session_state& session) {
  const std::int32_t spacing = std::max(session.display.vd_channel_spacing, 1);
  return (spacing + rows_begin - session.view.vd_top_offset) / spacing + 1;
}

// The whole part, held; also where the scale is so extreme that it fits no integer.
std::int32_t spinner_position(float exact, std::int32_t last) {
  return static_cast<std::int32_t>(std::clamp(exact, 1.0f, static_cast<float>(last)));
}

float median_of(std::vector<float>& values) {
  return select_median(static_cast<std::int32_t>(values.size()), values.data());
}

// What a trace is made of, bits: how far it stands from 0, how far it swings about that, and
// how far within half a millisecond, in which slow waves hardly move.
struct trace_swing {
  float offset = 0.0f, all = 0.0f, fast = 0.0f;
};

trace_swing swing_of(const recording_store& r, std::int32_t channel) {
  constexpr std::int32_t most = 2000;  // samples that are looked at
  constexpr float sd_of_median = 0.6745f;
  const std::int32_t lag = std::max(r.sampling_frequency / 2000, 1);
  const std::int32_t step = std::max((r.n_samples - lag) / most, 1);
  const std::int16_t* v = r.vd.channel(channel);
  std::vector<float> values, steps;
  for (std::int32_t t = 1; t + lag <= r.n_samples; t += step) {
    if (v[t] == 0 && v[t + lag] == 0) continue;  // blanked
    values.push_back(v[t]);
    steps.push_back(std::abs(static_cast<float>(v[t + lag] - v[t])));
  }
  trace_swing swing;
  const float centre = median_of(values);
  swing.offset = std::abs(centre);
  for (float& value : values) value = std::abs(value - centre);
  swing.all = median_of(values) / sd_of_median;
  // Of the difference of two samples.
  swing.fast = median_of(steps) / sd_of_median / std::sqrt(2.0f);
  return swing;
}

// The noise to scale by where most of it is slow waves or an offset: spikes are as large as on
// filtered samples, unless the waves would then leave their rows, or the rows the window.
float noise_to_see(const recording_store& r, float noise) {
  trace_swing mean;
  float n = 0.0f;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (r.chan_mask[c]) continue;
    const trace_swing swing = swing_of(r, c);
    mean.offset += swing.offset;
    mean.all += swing.all;
    mean.fast += swing.fast;
    ++n;
  }
  if (n == 0.0f || mean.fast <= 0.0f || mean.fast / n > 0.5f * noise) return noise;
  // A third of a row for the waves' standard deviation, five rows for the offset.
  return std::max({mean.fast, 0.18f * mean.all, 0.012f * mean.offset}) / n;
}

}  // namespace

void autoscale_voltage_display(session_state& session) {
  const recording_store& r = session.recording;
  float sum = 0.0f;
  std::int32_t n = 0;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (r.chan_mask[c]) continue;
    sum += r.chan_noise[c];
    ++n;
  }
  float mean = n > 0 ? sum / static_cast<float>(n) : 0.0f;
  if (mean > 0.0f && !session.recording.recording_filtered) mean = noise_to_see(r, mean);
  float factor = 1.0f;
  // Noise that was not measured is 0 on every channel.
  if (mean * r.vscale_HP != 0.0f) {
    factor = 1.1999999f / (mean * r.vscale_HP);
  } else {
    log_message(session, "Unexpected error getting noise values");
  }
  display_settings& display = session.display;
  display.vd_voltage_scale = static_cast<float>(display.vd_channel_spacing) * factor / 20.0f;
}

void find_start_of_signal(session_state& session) {
  // What is flat before the amplifier is switched on still holds one value here.
  constexpr std::int32_t reference = 500;
  const recording_store& r = session.recording;
  session.view.vd_first_sample = 1;
  if (r.n_samples < 1506) return;
  // The middle one of three or fewer, counted from the end.
  const std::int32_t middle = r.n_channels == 3 ? 2 : std::max(r.n_channels / 2, 1);
  const std::int16_t* channels[] = {r.vd.channel(1), r.vd.channel(middle),
                                    r.vd.channel(r.n_channels)};
  for (std::int32_t k = reference + 5; k < r.n_samples - 1000; k += 100) {
    for (const std::int16_t* v : channels) {
      if (v[k] == v[reference]) continue;
      session.view.vd_first_sample = k;
      return;
    }
  }
}

void reset_voltage_view(session_state& session) {
  voltage_view& view = session.view;
  view.vd_first_channel = 1;
  view.vd_grey_scale = false;
  view.vd_highlight_on = false;
  view.vd_slider_position = 1;
  scroll_to_row(session, 1);
}

void scroll_to_row(session_state& session, std::int32_t p) {
  const std::int32_t spacing = session.display.vd_channel_spacing;
  p = std::clamp(p, 1, session.recording.n_channels + 9);
  session.view.vd_top_offset = spacing - (p - 1) * spacing + rows_begin;
}

void set_channel_spacing(session_state& session, std::int32_t spacing) {
  // Before the spacing changes: the offset is in pixels of the old one.
  const std::int32_t p = row_at_top(session);
  session.display.vd_channel_spacing = std::clamp(spacing, 1, 500);
  scroll_to_row(session, p);
}

float voltage_scale_at(std::int32_t position) {
  return centre_voltage_scale *
         std::pow(voltage_step, static_cast<float>(std::clamp(position, 1, 100) - 50));
}

std::int32_t position_of_voltage_scale(float scale) {
  return spinner_position(
      (std::log(scale) - std::log(centre_voltage_scale)) / log_voltage_step + 50.0f, 100);
}

float time_scale_at(std::int32_t position) {
  const float scale = std::pow(time_step, static_cast<float>(std::clamp(position, 1, 2000) - 1000));
  return std::clamp(scale, least_time_scale, greatest_time_scale);
}

std::int32_t position_of_time_scale(float scale) {
  return spinner_position(std::log(scale) / log_time_step + 1000.0f, 2000);
}

}  // namespace kestrelvane

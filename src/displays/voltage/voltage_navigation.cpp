#include "displays/voltage/voltage_navigation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "displays/voltage/voltage_geometry.h"
#include "recording/acquisition_facts.h"
#include "signal/display_scale.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t slider_steps = 269;  // of positions 1..270
constexpr std::int32_t coarse_pixels = 250;
constexpr std::int32_t fine_pixels = 10;
constexpr std::int32_t near_end = 50;  // samples

void update_slider(session_state& session) {
  const std::int64_t n = std::max(session.recording.n_samples, 1);
  // In 64 bits: samples times steps.
  const std::int64_t steps = (session.view.vd_first_sample - std::int64_t{1}) * slider_steps / n;
  session.view.vd_slider_position =
      static_cast<std::int32_t>(std::clamp<std::int64_t>(steps, 1, slider_steps + 1));
}

// Puts a sample at the left edge, between 1 and the control's own upper bound.
void show_from_sample(session_state& session, std::int64_t first, std::int64_t upper) {
  first = std::max<std::int64_t>(std::min(first, upper), 1);
  session.view.vd_first_sample = static_cast<std::int32_t>(first);
  update_slider(session);
}

// The bounds: the last window's worth of samples, or a little more than what is ringed.
std::int64_t last_full_window(const session_state& session) {
  return std::int64_t{session.recording.n_samples} - session.view.vd_width;
}
std::int64_t last_coarse_place(const session_state& session) {
  return std::int64_t{session.recording.n_samples} - coarse_pixels;
}

// Samples of so many pixels, at least one, so that every press moves.
std::int64_t samples_of_pixels(const session_state& session, std::int32_t pixels) {
  const float samples = static_cast<float>(pixels) / session.display.vd_time_scale;
  return std::max<std::int64_t>(static_cast<std::int64_t>(std::min(samples, 2e9f)), 1);
}

// The row comes to the middle of the window.
void centre_channel_row(session_state& session, std::int32_t channel) {
  const recording_store& r = session.recording;
  std::int32_t row = 1;
  // A channel that is in no row counts as the last.
  while (row < r.n_channels && r.chan_sort_order[row] != channel) ++row;
  const std::int32_t n_rows =
      (session.view.vd_height - 20) / std::max(session.display.vd_channel_spacing, 1);
  session.view.vd_first_channel = std::max(row - n_rows / 2, 1);
  scroll_to_row(session, session.view.vd_first_channel);
}

// Where "next" counts from.
std::int64_t present_position(const session_state& session) {
  return std::max<std::int64_t>(
      // A sample further than the left edge, or the same event would be found again.
      session.view.vd_first_sample + std::int64_t{1} + session.view.vd_lead_samples, 0);
}

// The first event after p that the test accepts, 0 when there is none; last is the last
// one it accepts at any time.
template <typename Accepts>
std::int32_t find_next_event(const event_table& events, std::int64_t p, Accepts&& accepts,
                             std::int32_t& last) {
  last = 0;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (!accepts(e)) continue;
    // Strictly after: the event at hand is not the next one.
    if (events.event_time[e] > p) return e;
    last = e;
  }
  return 0;
}

// Rings the place and tells of the event, unless the view stands at the end.
event_jump finish_jump(session_state& session, std::int64_t first, std::int32_t channel,
                       std::int32_t event) {
  voltage_view& view = session.view;
  // From here on the view cannot bring an event to its place.
  const std::int64_t end = std::int64_t{session.recording.n_samples} - view.vd_lead_samples;
  show_from_sample(session, first, session.recording.n_samples);
  view.vd_highlight_on = true;
  view.vd_highlight_time = view.vd_first_sample;
  view.vd_highlight_channel = channel;
  event_jump jump{.done = true};
  if (event != 0 && view.vd_first_sample < end) {
    jump.event = event;
    jump.time = session.events.event_time[event];
  }
  return jump;
}

// Settings from elsewhere may hold any scale.
void hold_time_scale(session_state& session) {
  const time_scale_range range = find_time_scale_range(session);
  float& scale = session.display.vd_time_scale;
  scale = std::clamp(scale, range.least, range.greatest);
}

}  // namespace

void prepare_voltage_dialog(session_state& session) {
  session.view.vd_highlight_on = false;
  hold_time_scale(session);
  // A tick that shows nothing would look like a detection without events.
  if (session.detector.n_proto_marks == 0) session.display.vd_show_proto_events = false;
  show_from_sample(session, session.view.vd_first_sample, last_full_window(session));
}

void move_to_slider(session_state& session, std::int32_t position) {
  position = std::clamp(position, 1, slider_steps + 1);
  const float part = static_cast<float>(position - 1) / static_cast<float>(slider_steps);
  const float first = part * static_cast<float>(session.recording.n_samples) + 1.0f;
  show_from_sample(session, static_cast<std::int64_t>(first), last_full_window(session));
}

void step_slider(session_state& session, std::int32_t steps) {
  const std::int32_t before = session.view.vd_slider_position, way = steps < 0 ? -1 : 1;
  for (std::int32_t p = before + steps; p >= 1 && p <= slider_steps + 1; p += way) {
    move_to_slider(session, p);
    // In a short recording several positions show the same sample; the press goes on until the
    // slider moves.
    if ((session.view.vd_slider_position - before) * way > 0) return;
  }
  move_to_slider(session, way < 0 ? 1 : slider_steps + 1);
}

void move_coarsely(session_state& session, std::int32_t direction) {
  const std::int64_t step = samples_of_pixels(session, coarse_pixels);
  show_from_sample(session, session.view.vd_first_sample + direction * step,
                   last_coarse_place(session));
}

void move_finely(session_state& session, std::int32_t direction) {
  // Five samples more than the pixels, so that a press moves at any scale.
  const float step = 5.0f + static_cast<float>(fine_pixels) / session.display.vd_time_scale;
  const auto whole = static_cast<std::int64_t>(std::min(step, 2e9f));
  show_from_sample(session, session.view.vd_first_sample + direction * whole,
                   last_full_window(session));
}

bool go_to_index(session_state& session, std::int32_t index) {
  if (index <= 50 || index >= session.recording.n_samples) return false;
  session.view.vd_highlight_on = false;
  show_from_sample(session, std::int64_t{index} - update_lead_samples(session),
                   last_coarse_place(session));
  return true;
}

bool go_to_event(session_state& session, std::int32_t event) {
  if (event < 1 || event > session.events.n_events) return false;
  const std::int64_t time = session.events.event_time[event];
  show_from_sample(session, time - update_lead_samples(session), last_full_window(session));
  return true;
}

event_jump go_to_next_event_on_channel(session_state& session, std::int32_t channel) {
  const recording_store& r = session.recording;
  if (r.n_samples == 0 || channel < 1 || channel > r.n_channels) return {};
  const std::int64_t lead = update_lead_samples(session);
  const std::int64_t end = r.n_samples - lead;
  centre_channel_row(session, channel);
  std::int32_t last = 0;
  std::int32_t event = find_next_event(
      session.events, present_position(session),
      [&](std::int32_t e) { return session.events.event_channel[e] == channel; }, last);
  if (event == 0) event = last;
  // Near the end the view would not move any more.
  std::int64_t first = event == 0 ? end : session.events.event_time[event] - lead;
  if (first >= r.n_samples - near_end) first = end;
  return finish_jump(session, first, channel, event);
}

event_jump go_to_next_event_in_cluster(session_state& session) {
  const recording_store& r = session.recording;
  const std::int32_t cluster = session.clusters.current_cluster;
  if (r.n_samples == 0 || cluster < 1 || cluster > session.clusters.n_clusters) return {};
  if (session.templates.template_n_channels[cluster] < 1) return {};
  const std::int64_t lead = update_lead_samples(session);
  const std::int32_t channel = session.templates.centre_channel(cluster);
  centre_channel_row(session, channel);
  std::int32_t last = 0;
  const std::int32_t event = find_next_event(
      session.events, present_position(session),
      [&](std::int32_t e) { return session.events.event_cluster[e] == cluster; }, last);
  const std::int64_t first =
      event == 0 ? std::int64_t{r.n_samples} - near_end : session.events.event_time[event] - lead;
  return finish_jump(session, std::min(first, r.n_samples - lead), channel, event);
}

bool choose_current_cluster(session_state& session, std::int32_t cluster) {
  if (cluster < 1 || cluster > session.clusters.n_clusters) return false;
  session.clusters.current_cluster = cluster;
  return true;
}

std::string jump_event_text(const event_jump& jump) {
  return jump.event == 0 ? " " : std::to_string(jump.event);
}

std::string jump_index_text(const event_jump& jump) {
  return jump.event == 0 ? " " : std::to_string(jump.time);
}

std::string position_minutes_text(const session_state& session) {
  const recording_store& r = session.recording;
  const std::int32_t first = session.view.vd_first_sample;
  if (r.is_continuous || session.preferences.treat_as_continuous) {
    const double rate = exact_rate(r);
    return rate > 0 ? fmt::format("{:.4f}", first / rate / 60.0) : std::string{};
  }
  if (r.electrode_type != electrode_tetrode || r.n_tetrodes != 1 || r.samples_per_event <= 0) {
    return {};
  }
  // Records stand apart by twice their length, from index 100 on.
  const std::int64_t record = (first - 100) / (2 * std::int64_t{r.samples_per_event}) + 1;
  const bool stored = record >= 1 && record <= r.records_per_unit;
  const double time = stored ? static_cast<double>(r.timestamp(record, 1)) : 0.0;
  return fmt::format("{:.4f}", time / 6.0e7);
}

shown_range_text displaying_events_text(std::int32_t first_event, std::int32_t n_events_shown) {
  if (n_events_shown < 1) return {};
  return {std::to_string(first_event), std::to_string(first_event + n_events_shown - 1)};
}

std::string time_scale_text(const session_state& session) {
  const float scale = session.display.vd_time_scale;
  // Three decimals, or as many digits where they would be naughts.
  return scale < 0.1f ? fmt::format("{:.3g}", scale) : fmt::format("{:.3f}", scale);
}

time_scale_range find_time_scale_range(const session_state& session) {
  constexpr float narrowest = 100.0f;  // pixels; a window that is not yet drawn has no width
  const float width = std::max(static_cast<float>(session.view.vd_width), narrowest);
  const auto n = static_cast<float>(std::max(session.recording.n_samples, 1));
  time_scale_range range;
  range.least = std::min(width / n, 1.0f);
  range.greatest = 100.0f;
  // The position at the limit is the one below it; the limit itself is reached by typing.
  range.first = position_of_time_scale(range.least) + 1;
  range.last = position_of_time_scale(range.greatest);
  return range;
}

void wheel_through_time(session_state& session, std::int32_t notches) {
  const std::int64_t step = samples_of_pixels(session, session.view.vd_width / 10);
  show_from_sample(session, session.view.vd_first_sample - notches * step,
                   last_coarse_place(session));
}

void wheel_time_scale(session_state& session, std::int32_t notches, std::int32_t mouse_x) {
  display_settings& display = session.display;
  const float old_scale = display.vd_time_scale;
  display.vd_time_scale = time_scale_at(position_of_time_scale(old_scale) + notches);
  hold_time_scale(session);
  const voltage_layout layout = lay_out_voltage(session);
  const double pixels = mouse_x - layout.margin;
  // What lies under the pointer stays there.
  const double moved = pixels / old_scale - pixels / display.vd_time_scale;
  const double first = session.view.vd_first_sample + std::clamp(moved, -2e9, 2e9);
  show_from_sample(session, std::llround(first), last_coarse_place(session));
}

void wheel_voltage_scale(session_state& session, std::int32_t notches) {
  float& scale = session.display.vd_voltage_scale;
  const float factor = voltage_scale_at(51) / voltage_scale_at(50);
  scale *= std::pow(factor, static_cast<float>(notches));
  scale = std::clamp(scale, voltage_scale_at(1), voltage_scale_at(100));
}

}  // namespace kestrelvane

#include "displays/clusters/waveform_layout.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "displays/clusters/cluster_index.h"

namespace kestrelvane {

namespace {

// Part of the distance of two sites that a panel takes.
constexpr float fill = 0.88f;
// Room round all panels, pixels: titles above, numbers at the left, axes below.
constexpr float left_room = 34, right_room = 12, top_room = 30, bottom_room = 30;

struct site_spread {
  float x_min, x_max, y_min, y_max;  // µm
  float gap_x, gap_y;                // between neighbours of a row, and of rows one over another
};

site_spread measure_sites(const recording_store& r, const std::vector<std::int32_t>& channels) {
  constexpr float far = std::numeric_limits<float>::max();
  site_spread s = {far, -far, far, -far, far, far};
  float any_gap = far;
  for (const std::int32_t a : channels) {
    const float x = r.chan_x[a], y = r.chan_y[a];
    s = {std::min(s.x_min, x),
         std::max(s.x_max, x),
         std::min(s.y_min, y),
         std::max(s.y_max, y),
         s.gap_x,
         s.gap_y};
    for (const std::int32_t b : channels) {
      const float dx = std::abs(x - r.chan_x[b]);
      if (dx == 0) continue;
      any_gap = std::min(any_gap, dx);
      if (r.chan_y[b] == r.chan_y[a]) s.gap_x = std::min(s.gap_x, dx);
    }
  }
  // Where rows hold one site each, the columns stand side by side.
  if (s.gap_x == far) s.gap_x = any_gap;
  if (s.gap_x == far) s.gap_x = 0;
  for (const std::int32_t a : channels) {
    for (const std::int32_t b : channels) {
      const float dx = std::abs(static_cast<float>(r.chan_x[a] - r.chan_x[b]));
      const float dy = std::abs(static_cast<float>(r.chan_y[a] - r.chan_y[b]));
      // Only sites whose panels would overlap sideways stand over one another; staggered columns do
      // not.
      if (dy > 0 && (s.gap_x == 0 || dx < fill * s.gap_x)) s.gap_y = std::min(s.gap_y, dy);
    }
  }
  if (s.gap_y == far) s.gap_y = 0;
  return s;
}

// The largest scale at which no panel's template leaves the window, and the largest of all is no
// higher than a limit in pixels: it may reach into the rows beside its own, which hold less of it.
float fitting_scale(const session_state& session, const waveform_view& view, float limit,
                    const waveform_layout& layout) {
  constexpr float edge = 6;  // pixels that stay free
  const template_table& t = session.templates;
  float scale = std::numeric_limits<float>::max();
  for (const std::int32_t c : clusters_on_show(session, view.clusters)) {
    for (const waveform_panel& panel : layout.panels) {
      // With two s.d., so that single events have room.
      const float* mean = t.mean(c, panel.channel);
      const float* sd = t.sd(c, panel.channel);
      float up = 0, down = 0;
      for (std::int32_t p = 1; p <= layout.n_points; ++p) {
        up = std::max(up, (mean[p] + 2 * sd[p]) * session.recording.vscale_HP);
        down = std::max(down, (2 * sd[p] - mean[p]) * session.recording.vscale_HP);
      }
      if (up + down > 0) scale = std::min(scale, limit / (up + down));
      if (up > 0) scale = std::min(scale, (panel.y - top_room + edge) / up);
      const float below = static_cast<float>(view.height) - edge - panel.y;
      if (down > 0) scale = std::min(scale, below / down);
    }
  }
  // Flat templates alone ask for no scale.
  return scale < std::numeric_limits<float>::max() ? std::max(scale, 1e-6f) : 0.5f;
}

void put_panels(const session_state& session, const std::vector<std::int32_t>& channels,
                const site_spread& sites, float left, float top, float per_um_x, float per_um_y,
                waveform_layout& layout) {
  for (const std::int32_t channel : channels) {
    const float x = session.recording.chan_x[channel], y = session.recording.chan_y[channel];
    layout.panels.push_back(
        {channel, left + (x - sites.x_min) * per_um_x, top + (y - sites.y_min) * per_um_y});
  }
}

// Sites fill the window, each axis with its own scale: columns stand close, rows far apart.
void lay_out_to_fit(const session_state& session, const waveform_view& view,
                    const std::vector<std::int32_t>& channels, const site_spread& sites,
                    waveform_layout& layout) {
  const float width = std::max(static_cast<float>(view.width) - left_room - right_room, 10.0f);
  const float height = std::max(static_cast<float>(view.height) - top_room - bottom_room, 10.0f);
  const float spread_x = sites.x_max - sites.x_min, spread_y = sites.y_max - sites.y_min;
  const float per_x = spread_x > 0 ? width / (spread_x + fill * sites.gap_x) : 0;
  const float per_y = spread_y > 0 ? height / (spread_y + std::max(sites.gap_y, 1.0f)) : 0;
  const float panel_width = spread_x > 0 ? fill * sites.gap_x * per_x : width;
  const float row_height = spread_y > 0 ? std::max(sites.gap_y, 1.0f) * per_y : height;
  layout.step = panel_width / static_cast<float>(std::max(layout.n_points - 1, 1));
  put_panels(session, channels, sites, left_room, top_room + 0.5f * row_height, per_x, per_y,
             layout);
  const float limit = spread_y > 0 ? std::min(1.9f * row_height, 0.7f * height) : 0.7f * height;
  layout.pixels_per_uv = fitting_scale(session, view, limit, layout);
}

// The scales as they are set, the first channel in the middle.
void lay_out_to_scale(const session_state& session, const waveform_view& view,
                      const std::vector<std::int32_t>& channels, const site_spread& sites,
                      waveform_layout& layout) {
  const recording_store& r = session.recording;
  const float ms = 1000.0f / static_cast<float>(std::max(r.sampling_frequency, 1));
  layout.step = view.time_scale * ms;
  layout.pixels_per_uv = view.voltage_scale;
  const float per_um = view.channel_spacing;
  const float panel_width = layout.step * static_cast<float>(layout.n_points - 1);
  const float left = 0.5f * (static_cast<float>(view.width) - panel_width) -
                     (static_cast<float>(r.chan_x[channels[0]]) - sites.x_min) * per_um;
  const float top = 0.5f * static_cast<float>(view.height) -
                    (static_cast<float>(r.chan_y[channels[0]]) - sites.y_min) * per_um;
  put_panels(session, channels, sites, left, top, per_um, per_um, layout);
}

std::vector<std::int32_t> nearest_channels(const session_state& session, std::int32_t centre,
                                           std::int32_t n) {
  const recording_store& r = session.recording;
  std::vector<std::int32_t> channels;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    // A masked channel shows nothing of a spike; the centre stays, round which the others are
    // looked for.
    if (!r.chan_mask[c] || c == centre) channels.push_back(c);
  }
  // Of equally far channels the lower number first, or the choice would change from machine to
  // machine.
  std::stable_sort(channels.begin(), channels.end(), [&](std::int32_t a, std::int32_t b) {
    return r.distance(centre, a) < r.distance(centre, b);
  });
  if (static_cast<std::int32_t>(channels.size()) > n) channels.resize(static_cast<std::size_t>(n));
  return channels;
}

// The centre channel stays where it is, so that what is looked at does not run away.
void zoom_layout(const waveform_view& view, waveform_layout& layout) {
  const float half = 0.5f * layout.step * static_cast<float>(layout.n_points - 1);
  const float x = layout.panels.front().x + half, y = layout.panels.front().y;
  for (waveform_panel& panel : layout.panels) {
    panel.x = x + (panel.x - x) * view.zoom;
    panel.y = y + (panel.y - y) * view.zoom - view.offset * static_cast<float>(view.height);
  }
  layout.step *= view.zoom;
  layout.pixels_per_uv *= view.zoom;
}

}  // namespace

waveform_view view_of_settings(const session_state& session) {
  const display_settings& d = session.display;
  waveform_view view;
  view.mode = d.sw_show_templates ? waveform_mode::templates : waveform_mode::events;
  view.autoscale = d.sw_autoscale;
  view.time_scale = d.sw_time_scale;
  view.voltage_scale = d.sw_voltage_scale;
  view.channel_spacing = d.sw_channel_spacing;
  view.first_item = d.sw_first_item;
  // 0 stands for those of the templates, which "Autoscale" shows unless a number is asked for; 1 is
  // what nobody has asked for.
  view.n_channels = d.sw_autoscale && d.sw_show_channels <= 1 ? 0 : d.sw_show_channels;
  view.line_thickness = d.sw_line_thickness;
  view.voltage_axis_uv = d.sw_voltage_axis;
  view.show_axes = d.sw_show_axes;
  view.show_channel_numbers = d.sw_show_channel_numbers;
  view.show_cluster_numbers = d.sw_show_cluster_numbers;
  return view;
}

std::vector<std::int32_t> channels_on_show(const session_state& session,
                                           const waveform_view& view) {
  constexpr std::size_t fewest = 4;  // a channel alone does not tell where a unit lies
  const template_table& t = session.templates;
  std::vector<std::int32_t> shown;
  std::int32_t centre = 0;
  for (const std::int32_t c : clusters_on_show(session, view.clusters)) {
    for (std::int32_t k = 1; k <= t.template_n_channels[c]; ++k) {
      const std::int32_t channel = t.channels(c)[k];
      if (centre == 0) centre = channel;
      if (std::find(shown.begin(), shown.end(), channel) == shown.end()) shown.push_back(channel);
    }
  }
  if (centre == 0) return {};
  if (view.n_channels > 0) return nearest_channels(session, centre, view.n_channels);
  for (const std::int32_t channel : nearest_channels(session, centre, fewest)) {
    if (shown.size() >= fewest) break;
    if (std::find(shown.begin(), shown.end(), channel) == shown.end()) shown.push_back(channel);
  }
  return shown;
}

waveform_layout lay_out_waveforms(const session_state& session, const waveform_view& view) {
  waveform_layout layout;
  layout.n_points = session.templates.template_points;
  layout.first_sample = session.templates.first_sample;
  const std::vector<std::int32_t> channels = channels_on_show(session, view);
  if (channels.empty() || layout.n_points < 1) return layout;
  const site_spread sites = measure_sites(session.recording, channels);
  if (view.autoscale) {
    lay_out_to_fit(session, view, channels, sites, layout);
  } else {
    lay_out_to_scale(session, view, channels, sites, layout);
  }
  if (view.zoom != 1 || view.offset != 0) zoom_layout(view, layout);
  // After the layout, which the wheel must not change: panels stay where they are.
  layout.pixels_per_uv *= view.voltage_gain;
  layout.pixels_per_ms =
      layout.step * static_cast<float>(session.recording.sampling_frequency) / 1000.0f;
  return layout;
}

waveform_window window_of_corners(const waveform_layout& layout, const waveform_panel& panel,
                                  float x0, float y0, float x1, float y1) {
  const auto point = [&](float at) {
    const float exact = (at - panel.x) / layout.step;
    return 1 + static_cast<std::int32_t>(
                   std::lround(std::clamp(exact, 0.0f, static_cast<float>(layout.n_points - 1))));
  };
  const auto microvolts = [&](float at) { return (panel.y - at) / layout.pixels_per_uv; };
  return {panel.channel, point(std::min(x0, x1)), point(std::max(x0, x1)),
          microvolts(std::max(y0, y1)), microvolts(std::min(y0, y1))};
}

}  // namespace kestrelvane

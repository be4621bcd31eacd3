// Where channels, times and voltages lie in the display of sorted waveforms. Plain numbers.
//
// Every channel has a panel at the place of its site: x to the right, y downwards, as the rows
// of the voltage record run. A panel begins at the first point of the template window and is
// known by the y of its 0 µV. Logical pixels from the upper left corner of the display.
#pragma once

#include <cstdint>
#include <vector>

#include "review/cluster_marks.h"
#include "session/session_state.h"

namespace kestrelvane {

enum class waveform_mode { events, density, templates };

// What the user sees; begin with view_of_settings.
struct waveform_view {
  std::vector<std::int32_t> clusters;  // one, or the two of a pair; the last is drawn on top
  waveform_mode mode = waveform_mode::events;
  bool template_over_events = true;  // mean and s.d. band
  bool error_bars = true;            // the band wherever the mean is
  bool autoscale = true;             // sites and voltages fill the window; the scales rest
  float time_scale = 100;            // pixels per ms
  float voltage_scale = 0.5f;        // pixels per µV
  float channel_spacing = 1;         // pixels per µm
  float voltage_gain = 1;            // on top of either scale: the scroll bar
  float zoom = 1;                    // of all, about the centre channel
  float offset = 0;                  // of all upwards, in heights of the window
  std::int32_t first_item = 1;       // first event on show of each cluster's, from 1
  std::int32_t n_items = 100;        // events on show of each
  std::int32_t n_channels =
      0;  // nearest to the centre of the first cluster; 0: those of the clusters
  std::int32_t line_thickness = 1;  // pixels
  std::int32_t voltage_axis_uv = 100;
  bool show_axes = true, show_channel_numbers = true, show_cluster_numbers = true;
  // Labels on show, 0..100; empty: all of them.
  std::vector<std::int16_t> labels;
  std::int32_t selected_event = 0;
  std::int32_t width = 800, height = 600;  // logical pixels
  double pixel_ratio = 1;                  // of the device to one of them, for the density
  // Waveforms that one call may read for the density; about a hundredth of a second.
  std::int64_t waveforms_per_call = 12'000;
  bool operator==(const waveform_view&) const = default;
};

// Scales and choices of the sw_ settings, but for the background, which is the theme's affair.
// With "Autoscale" the channels are those of the clusters, unless more than one is asked for.
waveform_view view_of_settings(const session_state& session);

struct waveform_panel {
  std::int32_t channel = 0;
  float x = 0, y = 0;  // of the first point, of 0 µV
};

struct waveform_layout {
  std::vector<waveform_panel> panels;  // by ascending distance from the centre
  std::int32_t n_points = 0;           // of the template window
  std::int32_t first_sample = 0;       // of it, relative to the aligned time
  float step = 1;                      // pixels from point to point
  float pixels_per_uv = 1;
  float pixels_per_ms = 1;
};

// Channels on show: without masked ones, except where the cluster has no other.
std::vector<std::int32_t> channels_on_show(const session_state& session, const waveform_view& view);
waveform_layout lay_out_waveforms(const session_state& session, const waveform_view& view);

// The window that a rectangle of two corners makes of a panel.
waveform_window window_of_corners(const waveform_layout& layout, const waveform_panel& panel,
                                  float x0, float y0, float x1, float y1);

}  // namespace kestrelvane

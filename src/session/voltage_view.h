// What the voltage record shows at the moment: place, size, marks, read-out.
//
// The part of the display's state that lives and dies with the run; scales and the
// choice of marks that are kept between runs are in display_settings. Written by the
// display, by its dialog and by the open worker, all while nothing draws.
#pragma once

#include <cstdint>

#include "session/logical.h"

namespace kestrelvane {

struct voltage_view {
  std::int32_t vd_width = 0, vd_height = 0;  // pixels of the drawing area
  std::int32_t vd_first_sample = 1;          // time index at the left edge
  std::int32_t vd_first_channel = 1;         // row at the top, a position in chan_sort_order
  std::int32_t vd_top_offset = 0;            // pixels, y of row 1
  std::int32_t vd_lead_samples = 0;          // samples, 5 ms; what a jump leaves to the left
  std::int32_t vd_slider_position = 1;       // 1..270 along the recording
  logical vd_highlight_on;                   // a jump's target is ringed
  std::int32_t vd_highlight_time = 0;        // time index at the left edge when it was ringed
  std::int32_t vd_highlight_channel = 0;
  logical vd_show_template_channel;  // clustered events on their template's centre channel
  logical vd_reverse_contrast;       // black background
  logical vd_grey_scale;             // grey image instead of traces
  logical vd_keep_peaks;             // minimum and maximum of each pixel column
  std::int32_t vd_mouse_x = 0, vd_mouse_y = 0;  // pixels, last pointer position
};

}  // namespace kestrelvane

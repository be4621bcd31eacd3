// Drawing the voltage record: traces or grey image, events, bars and labels.
//
// The view is session.view and session.display; vd_width and vd_height say how large the
// picture is. A routine paints into (0, 0)..(vd_width, vd_height) of the painter in logical
// pixels, on whatever the painter draws to: a window of any resolution, an image, SVG, PDF
// or a printer. Nothing is kept between draws but the optional peak summary. Reads samples
// and events without a lock: call while no operation rewrites them.
#pragma once

#include <QPainter>
#include <cstdint>

#include "displays/voltage/peak_summary.h"
#include "session/session_state.h"

namespace kestrelvane {

struct drawn_events {
  std::int32_t first_event = 0;     // number of the first event drawn, 0 when none is
  std::int32_t n_events_shown = 0;  // how many were drawn
  // False while peak-keeping traces wait for their summary: draw again soon.
  bool complete = true;
};

// The traces. peaks serves vd_keep_peaks; without it every sample in view is read.
drawn_events draw_voltage(session_state& session, QPainter& painter, peak_summary* peaks = nullptr);

// Whichever of the two vd_grey_scale asks for.
drawn_events draw_voltage_display(session_state& session, QPainter& painter,
                                  peak_summary* peaks = nullptr);

}  // namespace kestrelvane

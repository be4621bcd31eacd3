// What the pointer finds in the voltage record, and the line that tells it.
#pragma once

#include <QPainter>
#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

struct voltage_reading {
  bool found = false;            // a trace runs within 3 pixels of the pointer
  std::int32_t channel = 0;      // of the nearest trace
  std::int32_t index = 0;        // time index of its nearest column
  float microvolts = 0;          // of the trace there, to one decimal
  double minutes = 0;            // from the recording's start; shown in seconds, too
  std::int32_t distance = 1000;  // pixels, vertical
};

// Reads the traces at vd_mouse_x, vd_mouse_y; nothing else of the view changes but what
// every draw works out. Peak-keeping traces are read where they stand: the peak of the
// column that is nearer to the pointer, at its own time.
voltage_reading read_voltage_at_pointer(session_state& session);

// Draws the line at the top left: labels, and the values when something was found. Each field
// has room for its longest value.
void draw_readout(session_state& session, QPainter& painter, const voltage_reading& reading);

}  // namespace kestrelvane

// The tables behind reading between samples and behind the clustering kernel.
//
// Both follow from settings, so they are built where settings are kept: at start-up and
// whenever depth or width change. signal/interpolation.h reads through the first, gradient
// ascent clustering through the second.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// Fills interp_table for the settings in force; their rows apply it. Depth times width beyond the
// table narrows the width to what fits.
void build_interp_table(session_state& session);

// Says in the log that the user has changed depth or width.
void log_interpolation(const session_state& session);

// Fills the kernel table exp(-k/500), k = 0..10000.
void build_gac_table(session_state& session);
void fill_gac_table(float* table);  // the same into 10,002 entries

}  // namespace kestrelvane

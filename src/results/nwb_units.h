// Sorted units as a file of Neurodata Without Borders, NWB schema 2.7.0.
//
// /units has a row per cluster, under its cluster number: spike times in seconds from the
// first sample, the interval in which the unit was looked for, the electrode of the
// template's centre channel, the template there in volts, and what is known of the unit's
// quality. /general/extracellular_ephys/electrodes has a row per channel. The file is
// written beside its target and renamed over it.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// Writes, and tells the user how it went.
bool write_nwb_units(const session_state& session, const std::string& path);

}  // namespace kestrelvane

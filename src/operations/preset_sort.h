// A sort by a preset: its settings for the run, its filters, then Autosort.
#pragma once

#include "session/presets.h"
#include "session/session_state.h"

namespace kestrelvane {

// As autosort(), which it ends in. What the preset sets is in force already, and held by hold;
// it and the settings of the filter dialog are afterwards what they were before. False also when
// a filter was stopped.
bool autosort_by_preset(session_state& session, const sort_preset& preset, preset_hold& hold);

}  // namespace kestrelvane

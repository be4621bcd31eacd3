// Presets: ways to sort, by name.
//
// A preset is a filter chain and some settings that go together, and is chosen for a run. What
// it sets holds for that run alone: afterwards the settings are what they were before, so that
// "Standard" stays what the user has stored. Whoever runs one puts what the user asks for
// besides on top of it.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

struct setting_row;

struct preset_setting {
  const char* name;  // of a row of the settings table
  double value;      // a logical is 0 or 1
};

struct sort_preset {
  const char* name;
  const char* purpose;                       // what it is for, in a line of a dialog
  std::span<const char* const> filters;      // "highpass:0.3:2", see operations/planned_filters.h
  std::span<const preset_setting> settings;  // of the run
};

// "Standard", which sets nothing, first.
std::span<const sort_preset> sort_presets();

// Capitals count for nothing; null when there is none of that name.
const sort_preset* find_preset(std::string_view name);
// All names, for a help text.
std::string preset_names();

// What the settings of a preset were before, to be given back.
struct preset_hold {
  struct kept_value {
    const setting_row* row;
    double before, during;
  };
  std::vector<kept_value> values;
};

// Puts the settings of a preset in force, under the lock of settings.
preset_hold hold_preset(session_state& session, const sort_preset& preset);
// Gives back what it had set; a setting that somebody has changed since stays as it is.
void release_preset(session_state& session, preset_hold& hold);

// "Preset Sensitive: highpass:0.3:2, lowpass:6:2; detection_method=2, ..."
std::string describe_preset(const sort_preset& preset);

}  // namespace kestrelvane

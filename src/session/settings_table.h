// The settings table: one row per setting, in the order of the two settings files.
//
// Whatever walks all settings walks these rows: the defaults, the readers and
// writers of settings_files.h, the dialogs' ranges, and the batch command's --set.
// A row knows where its value lies in the session, its type, default, range and
// label; its position in a file follows from the rows above it. Rows with more than
// one element are small arrays.
//
// A setting that stands in both files has a row in each, over one value. A row also knows the
// routine by which what is computed from the setting follows it; whoever changes settings
// goes through store_setting, or calls apply_settings once.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "session/session_state.h"

namespace kestrelvane {

enum class setting_type { integer, real, logical_word };

// Which file a row belongs to; extra rows are in neither.
enum class setting_file { parameters, preferences, extra };

// Which routine gives a row its default.
enum class setting_group {
  preferences,  // set_default_preferences
  parameters,   // set_default_parameters: detection, filters, review
  strategy,     // set_default_strategy: alignment, clustering, splitting, merging
  display,      // set_display_defaults: at start-up only; what starts with its display, and what
                // is merely carried
};

// What a reader does with the value in the file.
enum class setting_reading { stored, dropped };

struct setting_row {
  const char* name;
  setting_file file;
  setting_group group;
  setting_type type;
  std::int32_t count;                // elements of 4 bytes each
  void* (*address)(session_state&);  // of the first element; null: the file gets the default
  const double* defaults;            // count values; null: default_value for every element
  double default_value;
  double low, high;   // range that a dialog or --set accepts
  const char* label;  // as a dialog words it, with unit
  setting_reading reading = setting_reading::stored;
  // Brings in step what is computed from the setting; null: nothing is.
  void (*apply)(session_state&) = nullptr;

  double default_of(std::int32_t element) const {  // from 0
    return defaults != nullptr ? defaults[element] : default_value;
  }
};

// All rows: kv_parameters.sav in file order, kv_prefs.sav in file order, the rest.
std::span<const setting_row> settings_table();
std::span<const setting_row> settings_of(setting_file file);

// The row of that name, those of kv_parameters.sav first; null when there is none.
const setting_row* find_setting(std::string_view name);

// One element (from 0) of a row as a number; a logical is 0 or 1.
double setting_value(const session_state& session, const setting_row& row,
                     std::int32_t element = 0);
// Applies the row when the value is another one.
void store_setting(session_state& session, const setting_row& row, std::int32_t element,
                   double value);
// Applies all rows, after settings were written as bytes of a file.
void apply_settings(session_state& session);
// The same in the form that set_setting reads.
std::string setting_text(const session_state& session, const setting_row& row,
                         std::int32_t element = 0);

// The name of an element (from 0) as set_setting reads it: of an array "name.2".
std::string setting_name(const setting_row& row, std::int32_t element);

// Sets a setting by name from text: a number, or true/false, yes/no, on/off, 1/0. An
// element of an array is named "name.2", counted from 1. False for an unknown name, a
// text that does not read as such a value, or one out of range; problem then says so
// and nothing has changed.
bool set_setting(session_state& session, std::string_view name, std::string_view text,
                 std::string& problem);

// True when a value lies in the row's range, compared in the width of the setting.
bool setting_in_range(const setting_row& row, double value);

// Before a long operation, and before the first window: what a file may have brought and
// no stage or window can bear goes back to its default, with a line in the log for each.
// Returns how many did.
std::int32_t settle_settings(session_state& session);

// A session without a recording that has the settings of this one, for whoever looks at what others
// would be: what is only shown must not stand in the session.
std::unique_ptr<session_state> copy_settings(const session_state& session);

// The built-in defaults. Start-up applies them in this order; "Restore defaults" and
// "Default" of the dialogs call the one concerned.
void set_default_preferences(session_state& session);
void set_default_parameters(session_state& session);
void set_default_strategy(session_state& session);
// Scales and marks of the displays, window layout, format of the open dialog, carried bytes.
void set_display_defaults(session_state& session);

}  // namespace kestrelvane

// Filters as a user, or a preset, asks for them in words: "highpass:0.5:4", "notch".
//
// A filter is named once, in any order: a chain has an order of its own. Values are
// checked against the ranges of the settings that they become.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "session/presets.h"
#include "session/session_state.h"
#include "signal/filter_chain.h"

namespace kestrelvane {

struct filter_word;  // a row of the table of filters

struct planned_filter {
  const filter_word* filter = nullptr;
  std::vector<double> values;
  bool of_preset = false;
};

// Reads the texts of all --filter options. False, with the reason, for one that is none.
bool parse_filters(const std::vector<std::string>& texts, std::vector<planned_filter>& filters,
                   std::string& problem);

// Adds the filters of a preset; one that was asked for by name already stays as it was asked for.
// False, with the reason, when the two do not go together.
bool add_preset_filters(const sort_preset& preset, std::vector<planned_filter>& filters,
                        std::string& problem);

// Takes filters of a preset out, with a line in the log, where they have no place: the samples
// have been through such a filter before, or events that were found on them are kept.
void drop_idle_preset_filters(session_state& session, std::vector<planned_filter>& filters);

// Takes "auto" out where the recording looks filtered already; true when it was there and has
// gone.
bool drop_automatic_filter(const session_state& session, std::vector<planned_filter>& filters);

// Runs the filters over the recording; a high and a low pass in one walk over the samples. False
// when stopped or out of memory. run: run_filter_chain, or run_filter_steps for an operation that
// goes on and must not wait for somebody to close a box.
bool run_planned_filters(session_state& session, std::span<const planned_filter> filters,
                         bool (*run)(session_state&) = run_filter_chain);

}  // namespace kestrelvane

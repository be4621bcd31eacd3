// Filters as a user asks for them on the command line: "highpass:0.5:4", "notch".
//
// A filter is named once, in any order: a chain has an order of its own. Values are
// checked against the ranges of the settings that they become.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

struct filter_word;  // a row of the table of filters

struct planned_filter {
  const filter_word* filter = nullptr;
  std::vector<double> values;
};

// Reads the texts of all --filter options. False, with the reason, for one that is none.
bool parse_filters(const std::vector<std::string>& texts, std::vector<planned_filter>& filters,
                   std::string& problem);

// Takes "auto" out where the recording looks filtered already; true when it was there and has
// gone.
bool drop_automatic_filter(const session_state& session, std::vector<planned_filter>& filters);

// Runs the filters over the recording. A chain has one Butterworth filter; with both a
// high and a low pass there are two chains, the second beginning with the low pass, so
// that together they keep the order. False when stopped or out of memory.
bool run_planned_filters(session_state& session, std::span<const planned_filter> filters);

}  // namespace kestrelvane

// The table of units: what a sort found, one row per cluster.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

enum class unit_stability { unknown, stable, unstable };  // unknown: there are no pair lists

struct unit_row {
  std::int32_t cluster = 0;
  std::int32_t channel = 0;  // centre channel
  float x = 0, y = 0;        // µm, centre of gravity of the template
  std::int32_t n_events = 0;
  double rate = 0;          // events per second of the recording
  double peak_to_peak = 0;  // µV, of the template on the centre channel
  double snr = 0;           // peak-to-peak over the noise of the channel; 0 without noise
  unit_stability stability = unit_stability::unknown;
};

std::vector<unit_row> make_unit_table(const session_state& session);

// The rows in columns, under a heading; ends with a line break.
std::string print_unit_table(const std::vector<unit_row>& units);

// "stable", "not stable" or "-".
const char* stability_text(unit_stability stability);

}  // namespace kestrelvane

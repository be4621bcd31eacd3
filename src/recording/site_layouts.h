// Positions given to channels where the file has none.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "session/session_state.h"

namespace kestrelvane {

// One above the other at x = 0, y = 100 (c - 1) µm: far enough apart that no channel has
// neighbours. Logs that such positions do not support sorting.
void place_channels_in_line(session_state& session);

// In columns 200 µm apart, as many as the count suggests, sites 200 µm apart within a
// column. Logs the same.
void place_channels_in_columns(session_state& session);

// Four sites of every tetrode at the corners of a square of 25 µm, the tetrodes far enough
// apart to have nothing to do with each other. Sets n_tetrodes, tetrode_of_channel,
// site_columns and electrode_type.
void set_tetrode_map(session_state& session);

// Site of a named polytrode, µm, y growing towards the tip. Channels in order from 1.
struct polytrode_site {
  std::int16_t x, y;
};
struct polytrode_map {
  const char* name;
  std::span<const polytrode_site> sites;
  std::span<const std::int32_t> grounded;  // channels without a site of their own
};

// The map of a name, with or without a micro sign or "u" in front of it; null for an
// unknown one.
const polytrode_map* find_polytrode_map(std::string_view name);

}  // namespace kestrelvane

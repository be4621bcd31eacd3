// Which events the voltage record shows. Plain numbers, no painter.
//
// Events stand in order of discovery, so every draw looks at all of them; ten million
// take a few milliseconds.
#pragma once

#include <cstdint>
#include <vector>

#include "displays/voltage/voltage_geometry.h"

namespace kestrelvane {

struct visible_event {
  std::int32_t event;    // its number
  std::int32_t x;        // pixels
  std::int32_t channel;  // the one it is shown on
  std::int32_t row;      // of that channel, drawn
};

// Events with left < x < right on rows that are drawn, in order of their numbers. x counts
// from the given margin.
std::vector<visible_event> find_visible_events(const session_state& session,
                                               const voltage_layout& layout, std::int32_t margin,
                                               std::int32_t left, std::int32_t right);

// The same for the proto-events of the last detection run; event is the mark's number.
std::vector<visible_event> find_visible_proto_events(const session_state& session,
                                                     const voltage_layout& layout,
                                                     std::int32_t margin, std::int32_t left,
                                                     std::int32_t right);

}  // namespace kestrelvane

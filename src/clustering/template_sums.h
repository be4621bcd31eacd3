// The sums behind a template, for callers that have the event list in hand.
//
// Internal to clustering/: templates.h holds the operations for everybody else.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// Mean and s.d. of one channel from exactly the listed events (already thinned).
void average_waveforms(session_state& session, std::int32_t cluster,
                       const std::vector<std::int32_t>& list, std::int32_t channel);

// The same when the channel is in the cluster's electrode group; zeros otherwise.
// Returns whether it is.
bool template_sums_channel(session_state& session, std::int32_t cluster,
                           const std::vector<std::int32_t>& list, std::int32_t channel);

// calculate_template_values with the event list given.
void calculate_listed_template(session_state& session, std::int32_t cluster,
                               std::vector<std::int32_t> list);

// The same on the assigned channels alone: inside an alignment nothing reads the
// others before they are calculated anew.
void calculate_assigned_template(session_state& session, std::int32_t cluster,
                                 std::vector<std::int32_t> list);

}  // namespace kestrelvane

// Clean-up of the event table after a detector has run.
//
// Both passes mark events and compact the table in order. They move event_time,
// event_channel and event_cluster together; event_shift is not moved, so after
// the first removed event each offset stands against a later event than its own.
// Alignment to templates puts that right before anything depends on it.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Deletes the later of two events on one channel within coincidence_ms; looks 50
// entries ahead. Returns how many went.
std::int32_t delete_coincident_events(session_state& session);

// Deletes events whose peak-to-peak within 2 lockout_ms exceeds max_event_pp_uv.
// Returns how many went.
std::int32_t delete_large_events(session_state& session);

// Deletes the marked events (event_cluster = -1) with all their arrays together:
// the removal that every other part uses. Returns how many went.
std::int32_t delete_marked_events(session_state& session);

}  // namespace kestrelvane

// Proto-event clustering: the default detector.
//
// Every single-channel trigger stands as a proto-event, a point in a space of two
// electrode coordinates and time, scaled by pe_sigma_um and pe_sigma_ms. Points
// climb the density of their fixed neighbours, weighted by voltage, and merge
// where they meet; each survivor is one event, aligned on its channel.
//
// An interrupt during the scan clusters what has been found and sets
// detection_incomplete; during clustering it clears n_events. Storage lives as
// long as the run.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

enum class detection_end {
  done,       // events stand, perhaps incomplete (detection_incomplete)
  no_memory,  // after the box; nothing was detected
  stopped,    // interrupted while clustering; no events
};

// Replaces all events.
detection_end detect_events_proto(session_state& session);

// The points of a run. Arrays count from 1; x and y are in units of pe_sigma_um,
// t in units of pe_sigma_ms.
struct proto_event_table {
  std::int32_t n_proto_events = 0;
  std::int32_t max_proto_events = 0;
  std::int64_t pe_table_limit = 0;
  table<std::int32_t> pe_time;     // sample of the trigger
  table<std::int16_t> pe_channel;  // channel of the trigger
  table<std::int16_t> pe_volts;    // bits at the trigger
  table<float> pe_x0, pe_y0;       // initial position
  table<double> pe_t0;
  table<float> pe_x, pe_y;  // current position
  table<double> pe_t;
  table<char> pe_done;           // has only itself in range: stays alive, does not move
  table<std::int32_t> pe_label;  // cluster label, starts as its own number
  table<std::int64_t> pe_head;   // its entry in pe_table; 0 once merged away
  table<std::int32_t> pe_table;  // neighbour count, then neighbours in rising order
  std::int32_t n_rounds = 0;     // rounds made
};

// The phases, in order; tests call them one by one.
bool allocate_proto_events(session_state& session, proto_event_table& points);
void compile_proto_events(session_state& session, proto_event_table& points);
void build_proto_neighbours(session_state& session, proto_event_table& points);
// False when interrupted.
bool cluster_proto_events(session_state& session, proto_event_table& points);
void make_events(session_state& session, const proto_event_table& points);

}  // namespace kestrelvane

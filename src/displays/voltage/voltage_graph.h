// The voltage record in view as a graph: numbers for other programs.
#pragma once

#include "analysis/graph_data.h"
#include "session/session_state.h"

namespace kestrelvane {

// The first ten rows in view as series, x in ms from the recording's start and y in µV,
// one point for every sample between the left and the right edge.
graph_data make_voltage_graph(session_state& session);

}  // namespace kestrelvane

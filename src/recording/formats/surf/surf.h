// Surf recordings of polytrodes: a stream of typed records; see surf_records.h.
#pragma once

#include <string>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// The reader of the format table. Spike blocks go to vd at the times of their stamps, LFP
// blocks, digital values and stimulus headers are kept for the exports. Positions are
// those of the polytrode that the file names.
bool read_srf(session_state& session, const recording_request& request);

// Positions, name and grounded channels of a polytrode named by a file; false, after the
// words, for one that is not known.
bool place_sites_of_polytrode(session_state& session, const std::string& name);

}  // namespace kestrelvane

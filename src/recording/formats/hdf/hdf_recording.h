// Recordings in HDF5 containers: files of Multi Channel Systems (".hdf5", ".h5") and of
// Neurodata Without Borders (".nwb").
//
// Neither has one fixed layout, so the user walks to the dataset of voltages and states or
// confirms rate and scale (hdf_walk.h). Integers of up to 16 bits become bits as they
// stand; wider ones and floating point become bits of the accepted scale, nearest integer,
// limited to 16 bits. Samples go straight to their channels, a tile of the dataset at a
// time, so that there is never a second copy of the recording. Site positions come from
// an electrode configuration alone.
#pragma once

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// Readers of the format table. Failures are told as "Error #", a code of hdf_error and
// " reading hdf file"; a user who gives up is only logged.
bool read_hdf_recording(session_state& session, const recording_request& request);
bool read_hdf_folder(session_state& session, const recording_request& request);

}  // namespace kestrelvane

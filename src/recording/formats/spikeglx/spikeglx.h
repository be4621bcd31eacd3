// SpikeGLX recordings of Neuropixels probes: a ".bin" of interleaved 16-bit samples, a
// ".meta" text of the same name, and "geometry.txt" with the site positions.
#pragma once

#include <cstdint>
#include <string>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// The reader of the format table. Spike channels alone are stored; LF and sync channels,
// which follow them in each time point, are read past. Whole blocks of 50,000 bytes are
// read. Without "geometry.txt" the positions come from the ".meta".
bool read_bin_recording(session_state& session, const recording_request& request);

// Positions from a text of one site per line, x and y in µm, into chan_x and chan_y.
// False when the file cannot be read; n_sites is the count of lines with two numbers.
bool read_geometry_file(session_state& session, const std::string& path, std::int32_t& n_sites);

}  // namespace kestrelvane

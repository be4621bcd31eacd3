// The data packets of an .nsx file as stretches of time points, and how they are read.
//
// A packet is a marker, a time stamp, a count of points and the points, channels side by
// side. Files of a network clock write one packet for every point; a million of them make
// one stretch here, whose points stand a few bytes apart.
#pragma once

#include <cstdint>
#include <vector>

#include "files/input_file.h"
#include "recording/interleaved.h"
#include "session/session_state.h"

namespace kestrelvane {

struct nsx_stream {
  std::int64_t at = 0;           // offset of the first packet
  std::int64_t n_channels = 0;   // values of a point
  std::int64_t stamp_bytes = 4;  // of a time stamp: 4 or 8
  std::int64_t resolution = 0;   // counts of a time stamp per second
  std::int64_t rate = 0;         // points per second
};

// Points without a gap, in order of time index; first_index from 1.
struct nsx_run {
  std::int64_t at = 0;           // offset of the first point
  std::int64_t n_points = 0;     // at least 1
  std::int64_t first_index = 1;  // time index of the first
  std::int64_t skip_bytes = 0;   // between one point and the next
};

// Walks the packets. What departs from a plain file is logged: a stamp that runs back, a
// count that the file does not hold. False when the user interrupts or the file fails.
bool list_nsx_runs(session_state& session, const input_file& file, const nsx_stream& stream,
                   std::vector<nsx_run>& runs);

// Reads the runs into vd, which must hold their time indices. False when the user
// interrupts or, after a line, when the file fails.
bool read_nsx_runs(session_state& session, const input_file& file,
                   const interleaved_channels& channels, const std::vector<nsx_run>& runs);

}  // namespace kestrelvane

// Blackrock .ns1 to .ns9: continuous voltages of one sampling rate; versions 2.1, 2.2, 2.3
// and 3.0.
//
// Versions from 2.2 on hold packets, each a stretch of time points with the time stamp of its
// first. Every packet goes to the time of its stamp, counted from the clock's zero, and the
// time between packets is zero volts; a stamp that runs back starts after the last sample.
// A wall clock (nanoseconds of a network) counts from the first packet instead, and its
// packets of a single point follow each other unless a point is missing. Version 2.1 is one
// stretch without scale, which is taken from the .nev file of the same name.
#pragma once

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// The reader of the format; open_recording's contract. A channel whose scale is not that of
// channel 1 is rescaled to it, within 16 bits.
bool read_nsx(session_state& session, const recording_request& request);

}  // namespace kestrelvane

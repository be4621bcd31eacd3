// Blackrock .nev: waveforms cut out round spikes of a Utah array, with the units that
// the acquisition system gave them; versions 2.x and 3.0.
//
// An event-based recording. Usually each waveform becomes a record on the synthetic time
// axis of event_records.h, with its true time in event_timestamp; when event-based
// recordings are treated as continuous it goes to the time of its stamp instead, and
// channel_event_count stays 0. Every waveform that the system did not take for noise is an
// event; units, which the file counts anew on each channel, become clusters.
#pragma once

#include <cstdint>
#include <string>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// The reader of the format; open_recording's contract.
bool read_nev(session_state& session, const recording_request& request);

// Writes a copy of the loaded file in which each waveform's unit is that of the event's
// cluster, numbered 1, 2, ... on the centre channel of the cluster's template. A waveform
// without an event becomes noise (255); one whose event is unclustered keeps its unit, and
// so does one of a cluster with a number above n_channels. All else is copied, but for a
// comment that names this program.
//
// path may be the loaded file itself: that is renamed to ".___tmp" until the copy is whole,
// and has its name back after a failure. Tells the user how it went.
bool write_nev_with_units(const session_state& session, const std::string& path);

}  // namespace kestrelvane

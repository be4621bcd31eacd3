// Plexon ".plx": continuous, event-based and tetrode files, read and written.
//
// A file with continuous ("slow") channels becomes a continuous recording of these, its
// spikes the events. Without them, each spike waveform becomes a record on the synthetic
// time axis (event_records.h), or with treat_as_continuous stands at its own time; the
// time stamps of the records are kept, in µs from the first. A sorted unit becomes a
// cluster, numbered through the channels, or the tetrodes.
//
// Tetrode files bring their own map of sites; all others need an electrode configuration.
// Time stamps run from 0: the sample of tick 0 has time index 1.
#pragma once

#include <string>

#include "recording/formats/plexon/plx_blocks.h"
#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// Reads a file into an empty session. On the worker. False after the words that say why;
// what was read so far is for the caller to reset.
bool read_plx(session_state& session, const recording_request& request);

// The save path of a Plexon file, for any recording: an opened ".plx" file is written
// again, with the user's answer about its voltage records, and once more where spikes that it
// holds would go; other recordings become a new file. Tells how it went.
bool save_plx(const session_state& session, const std::string& path);

// A new file from the recording in memory. False when it cannot be written; an old file of
// that name is then whole.
bool export_plx(const session_state& session, const std::string& path);

// The file source, which the recording in memory came from, with the units of the session:
// as target, or in its own place. With overwrite_samples its voltages are those in memory.
// Spikes of channels that took no part in the sort stay as they are, units and all. False when
// either file fails; the source then stands as it did.
bool rewrite_plx(const session_state& session, const std::string& source, const std::string& target,
                 bool overwrite_samples);

// Spikes that a file of continuous channels holds itself: those that a rewrite passes on, and
// those that make way for the events of the session. The records of event-based files all stay.
// False when the file cannot be read.
struct plx_stored_spikes {
  std::int64_t n_kept = 0, n_replaced = 0;
};
bool count_plx_stored_spikes(const session_state& session, const std::string& source,
                             plx_stored_spikes& counts);

// What is added to the channel number of a slow block to count from 1: 1, or 0 for files
// of foreign origin that count from 1 already.
std::int32_t plx_slow_offset(const plx_headers& headers);

// Unit number of every cluster, from 1 in cluster order, within its centre channel (by_tetrode:
// within the tetrode of it); element 0 is unused.
std::vector<std::int16_t> number_plx_units(const session_state& session, bool by_tetrode);

}  // namespace kestrelvane

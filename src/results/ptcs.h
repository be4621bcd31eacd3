// ".ptcs": multi-unit spike files, each unit with its templates and its spike times.
//
// Little-endian. A header with the electrode, then one record per unit: comment, position,
// mean and deviation of the template on every unmasked channel in µV, and spike times in µs.
// Channels count from 0 in the file.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// Writes the sort. A recording of several epochs becomes one file per epoch, named after
// it, in the folder of path (or in path, if that is a folder), with files of its stimuli
// beside each. Tells how it went; false when a file could not be written.
bool export_ptcs(const session_state& session, const std::string& path);

// Replaces the events and clusters by the units of a file. The recording must have its
// geometry: as many channels. On a bad file what was read so far stays, and the log says
// so. False when nothing could be read.
bool import_ptcs(session_state& session, const std::string& path);

// The menu entry: asks for the file and imports it.
bool import_ptcs_dialog(session_state& session);

}  // namespace kestrelvane

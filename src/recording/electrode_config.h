// Electrode configuration: the ".cfg" text file that gives channels and positions to
// formats which carry none.
//
// Line 1 is the electrode's name; every further line of up to 80 characters holds four
// numbers, separated by blanks or commas: file channel, program channel, x and y in µm.
// Numbers are read as floating point and truncated. Lines without numbers are skipped.
// File channels count from 1, and so do program channels; each program channel up to
// the largest must be there once.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// Paths at which the configuration of a recording may lie, in the order in which they are tried.
std::vector<std::string> config_files_looked_for(const std::string& recording_path);
// The first of them that is there; "" for none.
std::string config_file_beside(const std::string& recording_path);

// The configuration of a recording: the one the user has named in the request, the file of
// its name, else "electrode.cfg" beside it, then the same with ".prb" and ".json"
// (probe_files.h), else one that the user chooses. False when there is none.
bool find_config_file(const session_state& session, const recording_request& request,
                      std::string& path);

// The file dialog alone; false when the user cancels.
bool choose_config_file(const session_state& session, std::string& path);

// Reads a configuration into channel_map, chan_x, chan_y and electrode_name. n_mapped is
// the count of mapped channels. On success no_config_file is false, config_path is path
// and show_config_in_title is show_in_title. On failure, after its log lines,
// no_config_file is true and positions read so far stay.
bool read_config_file(session_state& session, const std::string& path, std::int32_t& n_mapped,
                      bool show_in_title);

// find_config_file and read_config_file in one, with the configuration named in the title:
// true when one is in use. One that cannot be read counts as none.
bool load_configuration(session_state& session, const recording_request& request);

// Saves the present map and positions as a ".cfg" beside the recording; a recording
// without a map gets channel for channel. False when the file cannot be written.
bool write_config_file(const session_state& session);

}  // namespace kestrelvane

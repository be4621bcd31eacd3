// Electrode positions from files of other tools, wherever a ".cfg" is accepted.
//
// probeinterface JSON describes probes contact by contact, each with the recording channel
// it is wired to; a ".prb" is the assignment channel_groups = {...} of a scripting
// language, which is parsed as literals and never run. Both count channels from 0.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelvane {

// A recording channel and where it is.
struct wired_contact {
  std::int32_t file_channel = 0;  // from 1
  double x = 0, y = 0;            // µm
};

// True for the extensions ".json" and ".prb" in any case.
bool is_probe_file(const std::string& path);

// The wired contacts in the order of their channels, each channel once. False with the
// problem in words; contacts is then empty.
bool read_probe_file(const std::string& path, std::vector<wired_contact>& contacts,
                     std::string& problem);

// True when a ".json" says that it describes probes.
bool describes_probes(const std::string& path);

}  // namespace kestrelvane

// The folder that curation tools of the Kilosort family read: one array file per property
// of spikes, templates and channels, the samples beside them, and tables of the clusters.
//
// Clusters keep their numbers; templates count from 0, cluster c having template c - 1.
// Masked channels and unclustered events are left out. Spike times are samples from 0.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// Writes the folder, creating it; a folder that already holds a sort is replaced only when
// the user says so. Tells how it went; false when a file could not be written.
bool export_phy(const session_state& session, const std::string& path);

}  // namespace kestrelvane

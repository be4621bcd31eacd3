// The first clusters: one for every channel, or for every tetrode.
//
// Overwrites every assignment. On return each event is in a cluster or
// unclustered and all templates are valid; nothing is signed off.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// The menu entry: refuses or asks, converts, reports.
void convert_channels_to_clusters(session_state& session);

// The conversion without questions. Channels with fewer than min_cluster_size
// events form no cluster; events whose channel is not on their cluster's template
// leave it, and clusters that this makes too small are deleted.
void form_channel_clusters(session_state& session);

}  // namespace kestrelvane

// Tables derived from the electrode geometry: distances, neighbours, pitch and
// the display order of channels. Built after every read; positions are in µm.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Fills site_distance, site_neighbours, the lockout neighbour list and the bounding box.
// A channel's neighbours are those nearer than 1.2 times its nearest site (250 µm on a
// Utah array); one whose nearest site is 100 µm away or more has none.
void build_site_tables(session_state& session);

// Sets site_pitch, 100000 when all rows are level, 0 with one channel.
void compute_site_pitch(session_state& session);

// Sets the bounding box of the sites.
void compute_site_bounds(session_state& session);

// chan_sort_order along the scan angle (degrees); equal projections keep their
// channel order.
void sort_channels(session_state& session, float scan_angle);
// chan_sort_order(i) = i.
void order_channels_linearly(session_state& session);

}  // namespace kestrelvane

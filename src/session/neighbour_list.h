// The neighbours of the lockout: which channels may veto a trigger.
//
// The list follows from a setting, the lockout radius, and from the distances of the sites, so
// it is built where settings are kept: the setting's row applies it, and whoever changes the
// sites builds it again.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// Fills neighbour_list for lockout_radius_um: channels within the radius, not at distance 0,
// in channel order. On a Utah array all channels when the radius is 2500 µm or more, otherwise
// none. Needs site_distance; empty without a recording.
void build_neighbour_list(session_state& session);

}  // namespace kestrelvane

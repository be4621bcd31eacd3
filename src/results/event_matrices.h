// What stands round the events of each cluster, and where they lie in its components, as arrays for
// other programs.
//
// Folders of .npy files, which come as a whole (files/safe_folder.h); of an interrupted export
// nothing does. Events and clusters have their numbers, from 1; channels too.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// False, after a box, without clusters, or with templates that waveforms cannot be compared with.
bool has_matrices(const session_state& session);

// The noise round the events: their waveforms less the template, at sub-sample alignment, µV. Of
// each unit N that has any:
//
//     noise_unit_N.npy             <f4  events x channels x points
//     noise_unit_N_events.npy      <i4  their numbers; those at the rims are left out
//     noise_unit_N_channels.npy    <i4  those of the template, centre channel first
//     noise_unit_N_covariance.npy  <f4  of channels x points, µV²: row channel * points + point;
//                                       of at most 2000 events, evenly; mean not subtracted
//     units.npy                    <i4  the units, written last
//
// Tells how it went; false when a file could not be written or it was interrupted.
bool write_event_noise(const session_state& session, const std::string& folder);

// The principal components by which the sort splits each cluster, by its settings:
//
//     features.npy                 <f4  events x components, in units of the clustering
//     events.npy                   <i4  their numbers, cluster by cluster
//     clusters.npy                 <i4  of each event, written last
bool write_feature_matrices(const session_state& session, const std::string& folder);

}  // namespace kestrelvane

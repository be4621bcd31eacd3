// Movement of the tissue along the probe: measured from where spikes arise, and taken out.
//
// For each second or so a picture is made of how many spikes arise at each depth, by their
// height. Every two pictures give the way by which one must be moved to be most like the other,
// and the ways of all pairs together the place of the tissue at each time: what a single pair gets
// wrong, the others outvote (Varol et al., IEEE ICASSP 2021; Windolf et al., Nature Methods 22,
// 2025). Then each channel is read at the place where its tissue has gone: voltages between the
// sites are those that are most likely given those at the sites, for a field that goes along with
// itself over about 20 µm (Krige, J. Chem. Metall. Min. Soc. S. Afr. 52, 1951).
//
// The tissue is taken to move as a whole. Where sites lie along a line of more than 30 µm from one
// to the next nothing can be read between them, and nothing is done.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"
#include "signal/filter_progress.h"
#include "signal/spike_places.h"

namespace kestrelvane {

constexpr std::int32_t motion_channels = 16;  // in use; the fewest along which a way can be seen
constexpr float motion_spacing_um = 30;       // µm along the probe from site to site, at most
constexpr float motion_span_um = 120;         // µm of the probe, at least
constexpr float motion_reach_um = 60;         // µm, the longest way between two pictures
constexpr double motion_bin_s = 1, motion_longest_bin_s = 10;  // s of a picture
constexpr double motion_bin_spikes = 100;                      // that a picture should have
// Movement counts when the tissue goes that far (97th less 3rd percentile of its places) and the
// pictures are that much more alike for it. In still tissue: 0.7 to 2.6 µm, and 0.000.
constexpr float motion_least_um = 4;
constexpr double motion_least_gain = 0.004;

// Whether sites lie so that movement can be seen and followed.
bool can_follow_motion(const session_state& session);

// Not moved, and without places, when nothing could be measured.
tissue_motion measure_motion(const session_state& session);
// The same from spikes and their depths; n_samples and frequency tell the duration.
tissue_motion measure_motion(const std::vector<spike_place>& spikes, std::int64_t n_samples,
                             double sampling_frequency, std::int32_t n_threads);

// µm at a time in seconds: on a line between two places, 0 where nothing was measured.
double motion_at(const tissue_motion& motion, double seconds);

// Whether a channel still reads its tissue when that has gone so far, µm: beyond the end of the
// probe there is no site to read it from, and its samples are 0.
bool reads_tissue(const recording_store& recording, std::int32_t channel, double way);

// Step of a chain: moves the samples of all channels in use to where the tissue is at home.
// By recording.motion; where that is not known it is measured before, with the same result.
void correct_motion(session_state& session, filter_progress& progress);

}  // namespace kestrelvane

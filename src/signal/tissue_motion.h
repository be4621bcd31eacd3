// Movement of the tissue along the probe: measured from where spikes arise, and taken out.
//
// For each second or so a picture is made of how many spikes arise at each depth, by their height
// and their place across the probe. Every two pictures of a short time give the way by which one
// must be moved to be most likely by the other, and the ways of all pairs together the place of the
// tissue at each time: what a single pair gets wrong, the others outvote (Varol et al., IEEE ICASSP
// 2021; Windolf et al., Nature Methods 22, 2025). Then each second is compared with the two minutes
// round it, of which the places are known by now, which tells slow movement better, some times
// over. Pictures far apart in time are never compared: other units fire in them, and where a unit
// falls silent and another begins that looks like it 20 µm off, all spikes together seem to leap.
// With the movement known about, or but a hint of it, spikes are placed again where tissue is at
// home, for as long as that helps, and the rest of it is measured: the error of a place depends on
// where the spike lies between the sites, so that movement by half a row is seen too large or too
// small.
//
// Then each channel is read at the place where its tissue has gone (signal/site_reading.h).
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
// logarithm of how likely a spike is by others of its time has grown by so much. Of simulated
// tissue: 0.4 to 1.6 µm and below 0.01 where it is still, above 0.1 where it moves by 10 µm or
// more; spikes without any order, 6 a second or more, seem to move, but come to 0.04 at most.
constexpr float motion_least_um = 4;
constexpr double motion_least_gain = 0.05;

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

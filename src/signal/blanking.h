// Stretches in which an artefact covers the spikes: found, and set to zero.
//
// A jolt or a muscle drives many channels at once far beyond any spike; what is detected there
// is no unit, and distorts the units that are there. Blanked stretches stand in
// recording.blanked; they count as no data. Two zeros on end are left out of the noise
// (noise.h), which so stays what it was. Masked channels take no part and keep their samples.
//
// Both steps belong to a filter chain: they are listed in the filter history and done again
// when a work file is opened, on the same samples and masks with the same result.
#pragma once

#include <vector>

#include "session/session_state.h"
#include "signal/filter_progress.h"

namespace kestrelvane {

// Artefacts on many channels: a sample is one when at least half of the unmasked channels, and
// at least so many, exceed the level within the width. At a level of 4 spikes of dense tissue
// begin to be taken for one. A big spike is on half of a short probe, too. So where fewer than
// half of the channels that are not near the largest exceed the level, the sample is one only
// when it goes on for longer than spikes do, bursts among them: when that many of the
// milliseconds round it have such samples.
constexpr float artefact_level = 5;               // times the noise of the channel
constexpr double artefact_width_ms = 0.2;         // ms, from the first channel to the last
constexpr double artefact_margin_ms = 3;          // ms, blanked on either side
constexpr float artefact_near_um = 120;           // µm, as far as a spike reaches
constexpr std::int32_t artefact_round_ms = 10;    // ms to either side that are looked at
constexpr std::int32_t artefact_lasting_ms = 12;  // of twenty of them
constexpr std::int32_t artefact_channels = 8;     // the fewest that tell an artefact from a spike

// Artefacts on one channel, where there are too few channels or not all are hit: a window is
// one when a quarter of its samples exceed the level. A fifth would take dense firing for one.
constexpr float channel_artefact_level = 4;        // times the noise
constexpr double channel_artefact_window_ms = 10;  // ms
constexpr double channel_artefact_part = 0.25;     // of the samples of the window
constexpr double channel_artefact_margin_ms = 5;   // ms

// Ascending and apart, of channel 0: all channels. Empty with fewer than artefact_channels.
// By chan_noise, which must be that of the samples.
std::vector<blanked_stretch> find_artefacts(const session_state& session);
// By channel, of each ascending and apart.
std::vector<blanked_stretch> find_channel_artefacts(const session_state& session);

// Steps of a chain: measure the noise, find, set to zero and list, with the total in the log.
void blank_artefacts(session_state& session, filter_progress& progress);
void blank_channel_artefacts(session_state& session, filter_progress& progress);

// The stretches of a channel (0: of all of them) that are blanked, ascending and apart.
std::vector<blanked_stretch> blanked_on(const session_state& session, std::int32_t channel);
// Their length in seconds.
double blanked_seconds(const session_state& session, std::int32_t channel);

}  // namespace kestrelvane

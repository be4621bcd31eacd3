// Waveforms of single events at their aligned times, in µV: what the displays draw and what the
// shapes drawn over them mark.
#pragma once

#include <cstdint>

#include "review/plane_shapes.h"
#include "session/session_state.h"

namespace kestrelvane {

// Room for one waveform: reading works in whole lanes.
constexpr std::int32_t waveform_room = template_point_limit + 17;

// values[p - 1], µV, for the points of the template window; 0 where the window leaves the
// recording.
void read_event_waveform(const session_state& session, std::int32_t event, std::int32_t channel,
                         float* values);

// Peak-to-peak of the waveform on a channel, µV.
float event_height_uv(const session_state& session, std::int32_t event, std::int32_t channel);

// Centre of mass over the cluster's channels, µm, sites weighted by the square of the
// peak-to-peak: the noise of the weak ones would otherwise draw every event to the middle.
shape_point event_place(const session_state& session, std::int32_t event, std::int32_t cluster);

}  // namespace kestrelvane

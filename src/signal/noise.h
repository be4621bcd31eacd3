// Noise of each channel, in bits.
//
// Method 1 is the standard deviation, method 2 the median of |v| / 0.6745, which spikes
// hardly move (Quian Quiroga, Nadasdy & Ben-Shaul, Neural Comput. 16, 2004).
// Results go to recording.chan_noise; a channel with too few samples keeps 0.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Recomputes chan_noise, of a continuous recording or of an event-based one.
void compute_noise(session_state& session);

// Noise of one channel in noise_window_secs round a sample (dynamic noise).
float window_noise(const session_state& session, std::int32_t channel, std::int32_t centre_sample);

// "Mask all" and "Unmask all".
void mask_all_channels(session_state& session, bool masked);

// "Mask": masks every channel whose noise is below mask_noise_below_uv.
void mask_quiet_channels(session_state& session);

}  // namespace kestrelvane

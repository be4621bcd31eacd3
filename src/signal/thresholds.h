// Detection thresholds of each channel, in bits.
//
// Fixed (µV), variable (times the channel's noise) or automatic (where the
// voltage histogram leaves a fitted Gaussian).
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Fills auto_threshold_pos and auto_threshold_neg for all channels; logs.
void compute_auto_thresholds(session_state& session);

// threshold_bits from fixed_threshold_uv: once per detection pass.
void set_fixed_threshold_bits(session_state& session);

// Sets threshold_pos and threshold_neg (and, in variable mode, threshold_bits)
// for the sample test on one channel. A bad mode logs and keeps what was there.
void threshold_for_channel(session_state& session, std::int32_t channel);

}  // namespace kestrelvane

// Alignment of a detected event to a feature of its waveform on one channel.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Whole sample and offset in samples; the aligned time is their sum.
struct aligned_time {
  std::int32_t time;
  float offset;
};

// Aligns to a feature (align_mode, 1..9) within samples t - h .. t + h of a
// channel. Without the feature in the window: t, 0.
aligned_time align_to_feature(const session_state& session, std::int32_t feature,
                              std::int32_t channel, std::int32_t t, std::int32_t h);

// The same to align_feature of the settings. An event stays inside the recording: a feature
// in the margin before or after it is not taken.
aligned_time align_event(const session_state& session, std::int32_t channel, std::int32_t t,
                         std::int32_t h);

}  // namespace kestrelvane

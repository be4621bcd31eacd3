// Scores of an event against a template at every offset of the realignment
// window: the hot loop of alignment. Internal to clustering/.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// The assigned channels of a template, in slot order, ready for scoring.
struct alignment_target {
  std::int32_t w = 0;         // offsets run from -w to w, at most 50
  std::int32_t start = 0;     // first sample of the window relative to the event
  std::int32_t step = 1;      // every step-th template point enters
  std::int32_t n_points = 0;  // points that enter, per channel
  std::vector<std::int32_t> channels;
  std::vector<float> values;  // bits, channel outer, point inner
};

// scores[d + w], d = -w..w; scores needs room for 16 more. Both read vd at whole
// samples; sums run channel outer, point inner, in 32 bits.

// (sum of (template - vd)^2) * vscale_HP / terms, low for a good fit.
void score_differences(const session_state& session, const alignment_target& target,
                       std::int32_t time, float* scores);
// Signed root of -(sum of vd * template), times vscale_HP / terms, low likewise.
void score_products(const session_state& session, const alignment_target& target, std::int32_t time,
                    float* scores);

}  // namespace kestrelvane

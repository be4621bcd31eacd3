// Long loops of the review over the events of one cluster.
#pragma once

#include <algorithm>
#include <cstdint>

#include "session/long_operation.h"
#include "session/session_state.h"

namespace kestrelvane {

// Whether a loop over one cluster moves the meter, or a loop over all clusters round it does.
enum class block_meter { moves, rests };

// Calls body(first, end) for stretches of 0..n-1 in order, polls between them and
// moves meter::clusters. False when the user has interrupted; body has then seen the stretches so
// far.
template <typename Body>
bool for_each_block(const session_state& session, std::size_t n, block_meter meters, Body&& body) {
  // Long enough for all threads, short enough for a tenth of a second.
  constexpr std::size_t block = 16384;
  for (std::size_t first = 0; first < n; first += block) {
    if (autosort_interrupted(session)) return false;
    const std::size_t end = std::min(n, first + block);
    body(first, end);
    if (meters == block_meter::rests) continue;
    set_progress(session, meter::clusters, static_cast<std::int32_t>(100 * end / n), 100);
  }
  return true;
}

}  // namespace kestrelvane

// Automated merge and split: repairing the first pass on the basis of the lists.
//
// Automerge merges pairs that are clearly one unit. The merge-and-split pass pools
// each pair that is not distinct, clusters the pool afresh and replaces the two by
// what it finds. The final check tries once more to split each cluster alone. All
// run on the Autosort worker; interrupt and pause are polled after each pair or
// cluster, and what was done by then stands.
#pragma once

#include <cstdint>

#include "clustering/gradient_ascent.h"
#include "clustering/stage_judge.h"
#include "session/session_state.h"

namespace kestrelvane {

// Safe to merge without a look: correlation + 1.25 overlap - 1.75 above 0, and at
// least 0.25 when the channel lists differ by 6 or more.
bool pair_is_safe(const session_state& session, std::int64_t k);

// At most 100 merges a call. Returns how many were made.
std::int32_t automerge_safe_pairs(session_state& session, std::int32_t meter_from,
                                  std::int32_t meter_to);

void merge_split_pairs_pass(session_state& session, std::int32_t meter_from, std::int32_t meter_to);

void final_split_check(session_state& session, std::int32_t meter_from, std::int32_t meter_to);

}  // namespace kestrelvane

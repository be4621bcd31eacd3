// What a review needs before it can begin.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

// A recording in memory, and clusters; says which is missing otherwise, in a box. title: of the
// dialog that was asked for.
bool can_review(const session_state& session, const char* title);

// The same, and pair lists over all clusters. Without them the user is told what they are for
// and asked whether to make them now, which takes a while; false when he would rather not.
bool can_review_pairs(session_state& session, const char* title);

}  // namespace kestrelvane

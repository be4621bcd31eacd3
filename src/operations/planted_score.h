// The score of the sort in memory, where the recording has planted units.
//
// Test recordings have their truth beside them: NAME.truth.csv (synthesis/planted_files.h).
#pragma once

#include <string>

#include "session/session_state.h"
#include "synthesis/score.h"

namespace kestrelvane {

// The recording's file of planted spikes; empty when there is none.
std::string find_truth(const session_state& session);

// Clusters are the sorted units. False, with the words in problem, without a truth or clusters.
bool score_session(const session_state& session, sort_score& score, std::string& problem);

// After a sort: a line of the log with the score; nothing where there is no truth.
void log_planted_score(const session_state& session);

}  // namespace kestrelvane

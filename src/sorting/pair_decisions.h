// What the automatic rules would do with each pair of clusters as they are now, and why.
//
// Autosort first merges the pairs that are safe, then pools and splits those that are not distinct.
// The rules themselves are pair_is_safe and pair_is_distinct; here they are asked, and nothing is
// changed. Read from the lists of pairs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

enum class pair_verdict {
  merge,            // safe to merge
  merge_and_split,  // not distinct: pooled and clustered afresh
  left,             // not distinct, and the setting of the rule is off, or it has been tried enough
  distinct,
};
const char* pair_verdict_text(pair_verdict verdict);

// The clause that decided.
struct pair_decision {
  std::int32_t a = 0, b = 0;
  pair_verdict verdict = pair_verdict::distinct;
  const char* measure = "";
  float value = 0, limit = 0;
  const char* relation = "";  // of value to limit; empty: the measure is a mark or a fact
  float overlap = 0, correlation = 0;
};

struct pair_decisions {
  std::vector<pair_decision> rows;  // merges first, then in the order above; pairs in theirs
  std::int64_t n_far_apart = 0;     // pairs without a common channel: distinct, and no rows
};
// Empty without lists. One pass over the pairs: work for the worker.
pair_decisions list_pair_decisions(const session_state& session);

// "cluster overlap 0.42 > 0.15", "marked distinct by the user".
std::string reason_text(const pair_decision& decision);

}  // namespace kestrelvane

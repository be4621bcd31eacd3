// The filter chain that the samples in memory have been through, in order.
#pragma once

#include <cmath>
#include <cstdint>

#include "session/limits.h"

namespace kestrelvane {

// A low pass that was done in one walk over the samples with the high pass before it has this added
// to its number of poles, which every reader of the history rounds to a whole number. A replay
// needs to know: two walks round the samples twice.
constexpr float same_walk_mark = 0.25f;

struct filter_history_table {
  std::int32_t n_entries = 0;                        // at most filter_history_limit
  std::int32_t code[filter_history_limit + 1] = {};  // operation; entries count from 1
  float param1[filter_history_limit + 1] = {};
  float param2[filter_history_limit + 1] = {};
};

// Whether entry i is the low pass of one walk with the high pass of entry i - 1.
inline bool is_of_same_walk(const filter_history_table& history, std::int32_t i) {
  if (i < 2 || i > history.n_entries || history.code[i] != -5 || history.code[i - 1] != 5)
    return false;
  const float poles = history.param2[i];
  return poles > 0.0f && poles - std::floor(poles) == same_walk_mark;
}

}  // namespace kestrelvane

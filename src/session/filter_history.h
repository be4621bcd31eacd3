// The filter chain that the samples in memory have been through, in order.
#pragma once

#include <cstdint>

#include "session/limits.h"

namespace kestrelvane {

struct filter_history_table {
  std::int32_t n_entries = 0;                        // at most filter_history_limit
  std::int32_t code[filter_history_limit + 1] = {};  // operation; entries count from 1
  float param1[filter_history_limit + 1] = {};
  float param2[filter_history_limit + 1] = {};
};

}  // namespace kestrelvane

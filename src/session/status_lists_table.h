// What is known of every pair of clusters.
//
// Parallel arrays over pairs, addressed by pair_index(a, b) with a < b; with n
// clusters the pairs are (1,2), (1,3) .. (1,n), (2,3) .. (n-1,n), counted from 1.
// n_kv_pairs = 0 means that no lists exist. sorting/status_lists.h alone writes
// them, and every change of clusters must be followed by one of its calls.
#pragma once

#include <cstdint>

#include "numerics/table.h"
#include "session/limits.h"
#include "session/logical.h"

namespace kestrelvane {

struct status_lists_table {
  std::int32_t n_kv_pairs = 0;
  table<logical> kv_templates_dont_overlap{pair_limit};
  table<float> kv_template_correlation{pair_limit};  // -1..1
  table<float> kv_cluster_overlap{pair_limit};       // 0 apart, about 1 mixed; -1, -10 not computed
  table<float> rms_template_shift{pair_limit};       // samples
  table<std::int32_t> kv_n_shift_template{pair_limit};  // cluster to which the shift applies
  table<logical> kv_user_distinct{pair_limit};
  table<logical> kv_user_ambiguous{pair_limit};
  table<std::int16_t> kv_split_tries{pair_limit};

  // The match lists of the pair comparison.
  std::int32_t n_match = 0;
  table<std::int32_t> match_a{pair_limit}, match_b{pair_limit};
  table<float> match_values{pair_limit};
};

}  // namespace kestrelvane

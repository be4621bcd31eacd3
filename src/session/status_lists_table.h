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
  // Measures read the later member of a pair at its template shift. Autosort turns it on,
  // and it stays on, so that lists that are made or mended later agree with its lists.
  logical template_shift_on = false;
  table<logical> kv_templates_dont_overlap;
  table<float> kv_template_correlation;     // -1..1
  table<float> kv_cluster_overlap;          // 0 apart, about 1 mixed; -1, -10 not computed
  table<float> rms_template_shift;          // samples
  table<std::int32_t> kv_n_shift_template;  // cluster to which the shift applies
  table<logical> kv_user_distinct;
  table<logical> kv_user_ambiguous;
  table<std::int16_t> kv_split_tries;

  // The match lists of the pair comparison.
  std::int32_t n_match = 0;
  table<std::int32_t> match_a, match_b;
  table<float> match_values;

  status_lists_table() : status_lists_table(pair_limit) {}
  explicit status_lists_table(std::int64_t capacity);
};

// Calls visit for each of the eight lists, which move together.
template <typename Visit, record_of<status_lists_table>... Tables>
void for_each_column(Visit&& visit, Tables&... of) {
  visit(of.kv_templates_dont_overlap...);
  visit(of.kv_template_correlation...);
  visit(of.kv_cluster_overlap...);
  visit(of.rms_template_shift...);
  visit(of.kv_n_shift_template...);
  visit(of.kv_user_distinct...);
  visit(of.kv_user_ambiguous...);
  visit(of.kv_split_tries...);
}

// Calls visit for each of the match lists.
template <typename Visit, record_of<status_lists_table>... Tables>
void for_each_match_column(Visit&& visit, Tables&... of) {
  visit(of.match_a...);
  visit(of.match_b...);
  visit(of.match_values...);
}

inline status_lists_table::status_lists_table(std::int64_t capacity) {
  const auto reserve = [capacity](auto& list) { list.reserve(capacity); };
  for_each_column(reserve, *this);
  for_each_match_column(reserve, *this);
}

}  // namespace kestrelvane

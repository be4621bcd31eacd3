// What a review shows of a pair of clusters, and the words for it.
//
// The one source of these figures for Guided Merge and for the comparison of pairs. Read from
// the tables as they are; nothing is computed but sizes and the distance of the two centres.
#pragma once

#include <cstdint>
#include <string>

#include "session/pair_index.h"
#include "session/session_state.h"

namespace kestrelvane {

struct pair_values {
  std::int32_t a = 0, b = 0;
  std::int64_t k = 0;                         // number of the pair; 0 without lists, or a = b
  std::int32_t channel_a = 0, channel_b = 0;  // centre channels
  std::int32_t n_a = 0, n_b = 0;              // events
  std::int32_t n_common = 0, n_union = 0;     // channels
  float separation = 0;                       // µm
  float overlap = 0, correlation = 0;         // of the lists
  bool distinct = false, user_distinct = false, user_ambiguous = false;
  bool on_different_tetrodes = false;
};

// Numbers that are no clusters give an empty record.
pair_values make_pair_values(const session_state& session, cluster_pair pair);

// "4 of 7".
std::string common_channels_text(const pair_values& values);

// Number of the pair in the lists, the lower cluster first or not; 0 without lists and for
// what is no pair.
std::int64_t find_pair(const session_state& session, cluster_pair pair);

bool is_cluster_pair(const session_state& session, cluster_pair pair);

// Labels 1 for the events of a, 2 for those of b: how displays tell them apart.
void label_pair(session_state& session, cluster_pair pair);

}  // namespace kestrelvane

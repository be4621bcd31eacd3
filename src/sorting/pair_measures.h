// Measures of two clusters taken together.
//
// How far one template must slide to lie on the other, how alike the aligned
// templates are, whether the two clouds of events overlap, and the values offered
// for comparing pairs by eye. Routines read tables and return numbers; storing
// them is the business of status_lists.h. Measures of different pairs may run at
// the same time, each with a scratch template slot of its own where one is asked
// for.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// A template is read at t + shift on cluster n_shift to lie on the other's.
struct pair_shift {
  float shift = 0.0f;        // samples
  std::int32_t n_shift = 0;  // cluster to which it applies
};

std::int32_t n_common_channels(const session_state& session, std::int32_t a, std::int32_t b);
std::int32_t n_union_channels(const session_state& session, std::int32_t a, std::int32_t b);

// The smaller cluster slides (b on a tie). Sizes are passed in: n_a, n_b events.
pair_shift template_shift(const session_state& session, std::int32_t a, std::int32_t b,
                          std::int32_t n_a, std::int32_t n_b);

// Normalised dot product over the union channels, -1..1; no means subtracted.
float template_correlation(const session_state& session, std::int32_t a, std::int32_t b,
                           pair_shift shift);

// Whether the templates are too different to be one unit: common share of channels
// plus correlation below 1.1; on tetrodes, centres on different tetrodes.
struct template_overlap {
  bool dont_overlap;
  float correlation;
};
template_overlap templates_dont_overlap(const session_state& session, std::int32_t a,
                                        std::int32_t b, pair_shift shift);

// 0 when the smaller cluster's points have only their own kind as nearest
// neighbours in the principal components of the pair, about 1 when the two are
// intermingled. The count of nearest neighbours of the own kind is that of the two-sample
// tests of Schilling (J. Am. Stat. Assoc. 81, 1986), with one neighbour, scaled by the sizes.
// Overwrites scratch_slot. Not a number when a sample is empty.
float cluster_overlap(session_state& session, std::int32_t a, std::int32_t b,
                      std::int32_t scratch_slot, pair_shift shift);
// The same where the caller has the events of one of the two listed already.
struct listed_cluster {
  std::int32_t cluster = 0;  // 0: none
  std::vector<std::int32_t> events;
};
float listed_cluster_overlap(session_state& session, std::int32_t a, std::int32_t b,
                             std::int32_t scratch_slot, pair_shift shift,
                             const listed_cluster& listed);

// Nearest-neighbour part of the overlap: rows of a before rows of b, coordinates
// d to a row (2 or 3 are looked at).
float nearest_neighbour_overlap(const std::vector<float>& coordinates, std::int32_t dimensions,
                                std::int32_t n_a, std::int32_t n_b);

// What the overlap of a pair is counted from, for those who want to see why it is what it is.
struct overlap_points {
  std::int32_t n_a = 0, n_b = 0;   // points; of large clusters a share of the events
  std::int32_t dimensions = 0;     // of a row; 2 or 3 of them are looked at
  std::vector<float> coordinates;  // rows of a before rows of b
  bool a_asks = false;             // the smaller cluster asks, b when they are equal
  std::vector<char> foreign;       // by row: it asks, and its nearest neighbour is of the other
  std::int32_t n_foreign = 0;
  float overlap = 0;
};
// Empty where cluster_overlap is no number. Overwrites scratch_slot.
overlap_points find_overlap_points(session_state& session, std::int32_t a, std::int32_t b,
                                   std::int32_t scratch_slot, pair_shift shift);

// --- values for comparison lists

float spatial_separation(const session_state& session, std::int32_t a, std::int32_t b);  // µm
float doublet_value(const session_state& session, std::int32_t a, std::int32_t b, float window_ms);
float rate_complementarity(const session_state& session, std::int32_t a, std::int32_t b);
// Set only when both clusters have at least 2 events; -1 without a gradient.
struct optional_value {
  bool is_set;
  float value;
};
optional_value pc_adjacency(session_state& session, std::int32_t a, std::int32_t b,
                            std::int32_t rank);

// The value of the selected match method for the pair numbered k. rank: the
// calling thread, whose scratch slot match_pc_adjacency uses.
optional_value match_value(session_state& session, std::int32_t a, std::int32_t b, std::int64_t k,
                           pair_shift shift, std::int32_t rank);

}  // namespace kestrelvane

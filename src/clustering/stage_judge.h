// Judging the stages of a clustering run: how many sub-clusters to keep.
//
// The one judgement shared by automated merge and split, the final check and
// hand-started autosplits. Each stage gets a merit and a number of clusters to
// keep; the stage of highest merit wins, and it may be one that stands for "this
// is one cluster".
//
// A sub-cluster counts when it has min_cluster_size events, is long-lived when its score,
// the number of stages it lasts, reaches the threshold, short-lived otherwise, and fleeting
// when it lasts three stages or less. The merit of a stage is 20 for each long-lived
// sub-cluster, changed by the rule that fits its numbers of both, plus up to 9.9 for even
// sizes when that leaves it above 0.
#pragma once

#include <cstdint>
#include <vector>

#include "clustering/gradient_ascent.h"
#include "session/session_state.h"

namespace kestrelvane {

// The rules in the order in which they are tried; the first that fits decides. Their
// conditions and what they do are the table in stage_judge.cpp.
enum class stage_rule : std::int32_t {
  none,  // the stage was not judged
  one_or_none,
  all_long_lived,
  one_short_lived,
  two_other_fleeting,
  two_one_long_lived,
  two_short_lived,
  all_but_a_fleeting_one,
  all_but_one,
  three_one_long_lived_worst_fleeting,
  three_one_long_lived,
  three_short_lived,
  three_short_lived_worst_fleeting,
  four_two_long_lived,
  four_two_long_lived_worst_fleeting,
  four_one_long_lived,
  four_short_lived,
  four_short_lived_worst_fleeting,
  five_three_long_lived_smallest_weak,
  five_three_long_lived,
  five_two_long_lived,
  all_but_two,
  all_but_three,
  many_short_lived,
};

// The rule as a sentence, "all long-lived: each is a unit"; empty for none.
const char* stage_rule_words(stage_rule rule);

struct stage_verdict {
  std::int32_t n_keep = 0;
  std::int32_t best_stage = 0;
  bool found = false;
  std::vector<std::int32_t> kept;  // up to 10 sub-cluster numbers, ascending
  // Per stage: the rule that decided, merit, number to keep.
  stage_rule rule[gac_stage_limit + 1] = {};
  float stage_value[gac_stage_limit + 1] = {};
  std::int32_t stage_keep[gac_stage_limit + 1] = {};
};

// Judges stages 1..final_stage. Folding changes labels and sizes of the stages it
// judges.
stage_verdict judge_stages(const session_state& session, const gac_points& points,
                           gac_tables& tables);

// Assigns every event of sub-cluster j at a stage to one neighbour, by the vote of
// its points' nearest points outside it (first two components; voting ends with
// the 101st vote; most votes win, the lowest number on a tie). Candidates are
// sub-clusters up to limit, or those of at least min_cluster_size events. Nothing
// happens without a candidate. Returns whether events were folded.
bool fold_subcluster(const gac_points& points, gac_tables& tables, std::int32_t stage,
                     std::int32_t j, std::int32_t limit);
bool fold_small_subcluster(const session_state& session, const gac_points& points,
                           gac_tables& tables, std::int32_t stage, std::int32_t j);

}  // namespace kestrelvane

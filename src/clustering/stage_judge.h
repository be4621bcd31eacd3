// Judging the stages of a clustering run: how many sub-clusters to keep.
//
// The one judgement shared by automated merge and split, the final check and
// hand-started autosplits. Each stage gets a merit and a number of clusters to
// keep; the stage of highest merit wins, and it may be one that stands for "this
// is one cluster".
#pragma once

#include <cstdint>
#include <vector>

#include "clustering/gradient_ascent.h"
#include "session/session_state.h"

namespace kestrelvane {

struct stage_verdict {
  std::int32_t n_keep = 0;
  std::int32_t best_stage = 0;
  bool found = false;
  std::vector<std::int32_t> kept;  // up to 10 sub-cluster numbers, ascending
  // Per stage, for tests and the verbose log: row of the rule table, merit, keep.
  std::int32_t row[gac_stage_limit + 1] = {};
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

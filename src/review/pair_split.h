// Merge and split of one pair: the pool of both is clustered afresh, and what is found is
// applied at once where it is clear, or shown to the user, who may look at every bandwidth.
//
// A pair_split is the state of the dialog that asks: what is on show, and what the user has
// joined or marked for deletion. Nothing leaves a cluster before the split is applied; until
// then only labels change (event_subcluster): label p is the p-th row but for the first two,
// of which label 1 is what goes to a and 2 what goes to b; label 100 is marked for deletion.
// The caller saves an undo state first, if he offers to undo. Guided Merge and the comparison
// of pairs use the same routines. Worker's work: a pool of 20,000 takes a second or so.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "clustering/gradient_ascent.h"
#include "session/pair_index.h"
#include "session/session_state.h"

namespace kestrelvane {

// Why the user is asked, and what he answers.
enum ugm_message : std::int32_t {
  ugm_none = 0,  // nothing is to be asked; as an answer: the dialog was left
  ugm_not_split = 1,
  ugm_one_cluster = 2,
  ugm_three_clusters = 3,
  ugm_two_and_spurious = 4,
  ugm_split_as_shown = 10,
  ugm_merge = 11,
};
// The line on top of the dialog; empty for answers.
const char* ugm_text(ugm_message message);

constexpr std::int16_t label_of_deleted = 100;
// As many subclusters can become clusters; those beyond make up one row, "others".
constexpr std::size_t split_row_limit = 4;

struct split_row {
  std::int16_t label = 0;
  std::int32_t n_events = 0;
  bool deleted = false;  // its events become unclustered
};

struct pair_split {
  cluster_pair pair{0, 0};
  std::int32_t n_a = 0, n_b = 0;  // events, when it began
  ugm_message message = ugm_none;
  std::int32_t n_stages = 0;        // the slider runs from 1 to here
  std::int32_t selected_stage = 0;  // on show; 0 after "Revert"
  std::vector<split_row> rows;      // by falling size; those beyond four are the others
  // The clusters that the pair has become; empty while nothing has been changed.
  std::vector<std::int32_t> changed;

  // What rows stand for, and the stages behind them.
  std::vector<std::int32_t> events;  // of the pool, ascending
  std::vector<std::int16_t> labels;  // of each
  gac_points points;
  std::unique_ptr<gac_tables> tables;
  std::array<bool, gac_stage_limit + 1> folded{};  // its small subclusters have been folded
};

// Clusters the pool of a pair. A clear split in two is applied, and message is ugm_none;
// otherwise message says what the user is to be asked, and rows and labels are those of the
// best stage. manual: always ask.
pair_split guided_split(session_state& session, cluster_pair pair, bool manual);

// "select sigma": the subclusters of a stage; what was joined or marked is forgotten. Stages
// that are not there are taken as the nearest.
void show_split_stage(session_state& session, pair_split& split, std::int32_t stage);
// Sigma of the stage on show, µV.
float split_sigma_uv(const session_state& session, const pair_split& split);
// "Merge" below a row, from 0: the next one joins it. False without a next one among the four.
bool merge_split_rows(session_state& session, pair_split& split, std::size_t row);
// "delete" of a row, from 0; a second time takes it back.
bool delete_split_row(session_state& session, pair_split& split, std::size_t row);
// "Revert": the two clusters as they are.
void revert_split(session_state& session, pair_split& split);
// Events in the row "others".
std::int32_t count_other_events(const pair_split& split);
// Whether "Merge" of the whole pair answers the question.
bool offers_merge(const pair_split& split);

// "Split as shown": the largest row goes to the larger of the two clusters, the next to the
// other, the third and fourth to new clusters. Rows that are marked, too small or beyond four
// become unclustered. One row left: b is deleted; none: asks whether to delete both. What finds
// no room below the cluster limit stays in a. The pair is marked ambiguous, so that it does not
// come up again. False when membership is as it was, or the user would rather not: nothing
// changes.
bool apply_manual_split(session_state& session, pair_split& split);

// The answer of the dialog: ugm_split_as_shown, ugm_merge, or anything else for nothing.
void finish_split(session_state& session, pair_split& split, ugm_message answer);

// The merge of a pair by hand: the events of its shifted cluster move by the pair's template
// shift, and then the two are merged.
void merge_pair(session_state& session, cluster_pair pair);

}  // namespace kestrelvane

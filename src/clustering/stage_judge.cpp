#include "clustering/stage_judge.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace kestrelvane {

// ---------------------------------------------------------------- folding

namespace {

// Index of the candidate nearest to point i, the first on ties.
std::int32_t find_nearest(const gac_points& points, const std::vector<std::int32_t>& candidates,
                          std::int32_t i) {
  const float* at = points.row(i);
  const bool plane = points.dimensions > 1;
  std::int32_t nearest = candidates.front();
  float best = -1.0f;
  for (const std::int32_t k : candidates) {
    const float* other = points.row(k);
    const float dx = other[0] - at[0];
    const float dy = plane ? other[1] - at[1] : 0.0f;
    const float d = dx * dx + dy * dy;
    if (best < 0.0f || d < best) {
      best = d;
      nearest = k;
    }
  }
  return nearest;
}

template <typename Accepts>
bool fold_into_neighbour(const gac_points& points, gac_tables& tables, std::int32_t stage,
                         std::int32_t j, Accepts&& accepts) {
  std::vector<std::int32_t>& labels = tables.stage_labels[stage];
  std::int32_t* sizes = tables.as_cl_sizes[stage];
  std::vector<std::int32_t> candidates;
  for (std::int32_t i = 0; i < tables.n; ++i) {
    if (labels[i] != j && accepts(labels[i])) candidates.push_back(i);
  }
  if (candidates.empty() || sizes[j] == 0) return false;
  constexpr std::int32_t most_votes = 101;
  std::int32_t votes[gac_label_limit + 1] = {};
  std::int32_t cast = 0;
  for (std::int32_t i = 0; i < tables.n && cast < most_votes; ++i) {
    if (labels[i] != j) continue;
    ++votes[labels[find_nearest(points, candidates, i)]];
    ++cast;
  }
  const auto winner =
      static_cast<std::int32_t>(std::max_element(votes + 1, votes + gac_label_limit + 1) - votes);
  for (std::int32_t& label : labels) {
    if (label == j) label = winner;
  }
  sizes[winner] += sizes[j];
  sizes[j] = 0;
  return true;
}

}  // namespace

bool fold_subcluster(const gac_points& points, gac_tables& tables, std::int32_t stage,
                     std::int32_t j, std::int32_t limit) {
  return fold_into_neighbour(points, tables, stage, j,
                             [&](std::int32_t label) { return label <= limit; });
}

bool fold_small_subcluster(const session_state& session, const gac_points& points,
                           gac_tables& tables, std::int32_t stage, std::int32_t j) {
  const std::int32_t* sizes = tables.as_cl_sizes[stage];
  return fold_into_neighbour(points, tables, stage, j, [&](std::int32_t label) {
    return sizes[label] >= session.strategy.min_cluster_size;
  });
}

// ---------------------------------------------------------------- one stage

namespace {

struct stage_judge {
  const session_state& session;
  const gac_points& points;
  gac_tables& tables;
  std::int32_t stage;
  std::int32_t nt, nc;
  float threshold;
  // Scores of the nt leading sub-clusters, falling; sorted_id their numbers.
  std::int32_t sorted_score[gac_label_limit + 1] = {};
  std::int32_t sorted_id[gac_label_limit + 1] = {};
  float mean = 0.0f;           // M: plain mean score of the qualified sub-clusters
  float weighted_mean = 0.0f;  // R: weighted by the inverse of their size
  float value = 0.0f;          // V
  std::int32_t keep = 0;       // K
};

// Selection sort, falling: on equal scores the earlier stays first.
void sort_scores(stage_judge& judge) {
  for (std::int32_t i = 1; i <= judge.nt; ++i) {
    judge.sorted_id[i] = i;
    judge.sorted_score[i] = judge.tables.as_cl_scores[judge.stage][i];
  }
  for (std::int32_t i = 1; i < judge.nt; ++i) {
    std::int32_t best = i;
    for (std::int32_t k = i + 1; k <= judge.nt; ++k) {
      if (judge.sorted_score[k] > judge.sorted_score[best]) best = k;
    }
    std::swap(judge.sorted_score[i], judge.sorted_score[best]);
    std::swap(judge.sorted_id[i], judge.sorted_id[best]);
  }
}

void take_means(stage_judge& judge) {
  const std::int32_t* sizes = judge.tables.as_cl_sizes[judge.stage];
  const std::int32_t* scores = judge.tables.as_cl_scores[judge.stage];
  float sum = 0.0f, weighted = 0.0f, weights = 0.0f;
  std::int32_t qualified = 0;
  for (std::int32_t c = 1; c <= gac_label_limit; ++c) {
    if (sizes[c] < judge.session.strategy.min_cluster_size || sizes[c] == 0) continue;
    const auto score = static_cast<float>(scores[c]);
    const auto size = static_cast<float>(sizes[c]);
    sum += score;
    weighted += score / size;
    weights += 1.0f / size;
    ++qualified;
  }
  judge.mean = qualified > 0 ? sum / static_cast<float>(qualified) : 0.0f;
  judge.weighted_mean = qualified > 0 ? weighted / weights : 0.0f;
}

// Folds the sub-cluster at a place of the sorted scores.
void fold_sorted(stage_judge& judge, std::int32_t place, std::int32_t limit) {
  fold_subcluster(judge.points, judge.tables, judge.stage, judge.sorted_id[place], limit);
  take_means(judge);
}

void fold_worst(stage_judge& judge, std::int32_t how_many, std::int32_t limit) {
  for (std::int32_t k = 0; k < how_many && judge.nt - k >= 1; ++k) {
    fold_sorted(judge, judge.nt - k, limit);
  }
}

// Balance of the sizes of sub-clusters 2 and 1.
float balance_bonus(const stage_judge& judge) {
  const auto x = static_cast<float>(judge.tables.as_cl_sizes[judge.stage][2]);
  const auto y = static_cast<float>(judge.tables.as_cl_sizes[judge.stage][1]);
  return 5.0f * std::sqrt(1.0f - std::fabs((x - y) / (x + y)));
}

void give_up(stage_judge& judge) {
  judge.value = 0.0f;
  judge.keep = 0;
}

// V += (M - 6) + bonus for K sub-clusters, if the condition holds; zero otherwise.
void accept_if(stage_judge& judge, bool condition, std::int32_t keep, float bonus = 0.0f) {
  if (!condition) return give_up(judge);
  judge.keep = keep;
  judge.value += (judge.mean - 6.0f) + bonus;
}

std::int32_t judge_two(stage_judge& j) {
  if (j.nc == 1 && j.sorted_score[2] <= 3) {
    j.keep = 0;
    return 4;
  }
  if (j.nc == 1) {
    accept_if(j, !(j.weighted_mean < 6.0f), 2, balance_bonus(j));
    return 5;
  }
  if (j.weighted_mean < 6.0f || j.sorted_score[2] <= 3) {
    give_up(j);
  } else {
    j.keep = 2;
    j.value = 0.1f * (j.mean - 6.0f);
  }
  return 6;
}

std::int32_t judge_one_short(stage_judge& j) {
  if (j.sorted_score[j.nt] <= 3) {
    fold_worst(j, 1, j.nt);
    accept_if(j, !(j.weighted_mean < 6.0f || j.sorted_score[j.nc] < 3), j.nt - 1, balance_bonus(j));
    return 7;
  }
  accept_if(j, !(j.weighted_mean < 6.0f), j.nt, balance_bonus(j));
  return 8;
}

std::int32_t judge_three(stage_judge& j) {
  if (j.nc == 1 && j.sorted_score[3] <= 3) {
    fold_worst(j, 1, j.nt);
    accept_if(j, !(j.weighted_mean <= 6.0f || j.sorted_score[2] <= 3), 2);
    return 9;
  }
  if (j.nc == 1) {
    accept_if(j, !(j.weighted_mean < 6.0f || j.sorted_score[2] <= 3), 3);
    return 10;
  }
  if (j.sorted_score[3] > 3) {
    j.value = 0.0f;
    accept_if(j, j.weighted_mean >= 6.0f && j.sorted_score[2] > 3, 3);
    return 11;
  }
  fold_worst(j, 1, 3);
  accept_if(j, j.weighted_mean > 6.0f && j.sorted_score[2] > 3, 2);
  return 12;
}

std::int32_t judge_four(stage_judge& j) {
  if (j.nc == 2 && j.sorted_score[4] > 3) {
    accept_if(j, !(j.weighted_mean < 6.0f), 3);
    return 13;
  }
  if (j.nc == 2) {
    fold_worst(j, 1, 4);
    if (j.weighted_mean > 6.0f && j.sorted_score[3] > 3) {
      accept_if(j, true, 3);
    } else {
      fold_sorted(j, 3, 4);
      accept_if(j, j.weighted_mean > 6.0f && j.sorted_score[2] > 3, 2);
    }
    return 14;
  }
  if (j.nc == 1) {
    fold_worst(j, 3, j.nt);
    j.keep = j.nc;
    return 15;
  }
  if (j.sorted_score[4] > 3) {
    j.value = 0.0f;
    accept_if(j, j.weighted_mean >= 6.0f && j.sorted_score[3] > 3, 4);
    return 16;
  }
  fold_worst(j, 1, 4);
  accept_if(j, j.weighted_mean > 6.0f && j.sorted_score[3] > 3, 3);
  return 17;
}

std::int32_t judge_rest(stage_judge& j) {
  if (j.nt == 5 && j.nc == 3) {
    const auto fifth = static_cast<float>(j.tables.as_cl_scores[j.stage][5]);
    if (fifth < j.threshold * 0.5f) {
      give_up(j);
    } else {
      fold_worst(j, 2, 5);
      j.keep = 3;
    }
    return 18;
  }
  j.keep = j.nc;
  if (j.nt == 5 && j.nc == 2) {
    fold_worst(j, 3, j.nt);
    return 19;
  }
  if (j.nt - j.nc == 2) {
    fold_worst(j, 2, 5);
    return 20;
  }
  if (j.nt - j.nc == 3) {
    fold_worst(j, 3, j.nt);
    return 21;
  }
  j.value += static_cast<float>(j.nc - j.nt);
  return 22;
}

// Applies the first rule that fits; returns its row.
std::int32_t apply_rules(stage_judge& j) {
  if (j.nt == j.nc && j.nc <= 1) {
    give_up(j);
    return 1;
  }
  if (j.nt == j.nc) {
    j.keep = j.nc;
    j.value += j.mean + 5.0f - j.threshold;
    return 2;
  }
  if (j.nt == 1 && j.nc == 0) {
    j.keep = 0;
    return 3;
  }
  if (j.nt == 2) return judge_two(j);
  if (j.nt - j.nc == 1 && j.nt >= 3) return judge_one_short(j);
  if (j.nt == 3 && j.nc <= 1) return judge_three(j);
  if (j.nt == 4 && j.nc <= 2) return judge_four(j);
  return judge_rest(j);
}

// What a stage of positive merit gains for sizes that are alike and for few
// events left over.
float evenness_bonus(const stage_judge& judge, std::int32_t pool_size) {
  const std::int32_t* sizes = judge.tables.as_cl_sizes[judge.stage];
  std::vector<float> qualified;
  std::int32_t rest = 0;
  float sum = 0.0f;
  for (std::int32_t c = 1; c <= gac_label_limit; ++c) {
    if (c > judge.nt) rest += sizes[c];
    if (sizes[c] < judge.session.strategy.min_cluster_size || sizes[c] == 0) continue;
    qualified.push_back(static_cast<float>(sizes[c]));
    sum += qualified.back();
  }
  float sd = 0.0f;
  const auto n = static_cast<float>(qualified.size());
  if (qualified.size() > 1) {
    float squares = 0.0f;
    for (const float size : qualified) {
      const float difference = size - sum / n;
      squares += difference * difference;
    }
    sd = std::sqrt(squares / (n - 1.0f));
  }
  return 9.9f - (sd + static_cast<float>(rest)) / static_cast<float>(pool_size);
}

void choose_best_stage(const gac_tables& tables, stage_verdict& verdict) {
  float best = -10000.0f;
  std::int32_t best_stage = 0;
  for (std::int32_t s = 1; s <= tables.final_stage; ++s) {
    if (verdict.stage_value[s] == 0.0f || !(verdict.stage_value[s] > best)) continue;
    best = verdict.stage_value[s];
    best_stage = s;
  }
  verdict.n_keep = best_stage == 0 ? 0 : verdict.stage_keep[best_stage];
  if (verdict.n_keep < 2) return;
  verdict.best_stage = best_stage;
  verdict.found = true;
  // The list ends with the n_keep-th sub-cluster that still has events.
  for (std::int32_t c = 1; c <= 10; ++c) {
    if (tables.as_cl_sizes[best_stage][c] == 0) continue;
    if (static_cast<std::int32_t>(verdict.kept.size()) == verdict.n_keep) break;
    verdict.kept.push_back(c);
  }
}

}  // namespace

stage_verdict judge_stages(const session_state& session, const gac_points& points,
                           gac_tables& tables) {
  stage_verdict verdict;
  if (tables.final_stage < 1) return verdict;
  const std::int32_t pool_size = tables.as_cl_sizes[tables.final_stage][1];
  for (std::int32_t s = 1; s <= tables.final_stage; ++s) {
    std::int32_t nt = tables.nc_ge_min[s], nc = tables.nc_ge_threshold[s];
    if (nt > 50 || nc > 50) {
      log_message(session, fmt::format("nc, nt = {} {}", nc, nt));
      tell(session, "Limiting nc or nt", "Autosort", box_icon::warning);
      nt = std::min(nt, 50);
      nc = std::min(nc, 50);
    }
    stage_judge judge{
        session, points, tables, s, nt, nc, static_cast<float>(session.strategy.gac_threshold)};
    judge.value = 20.0f * static_cast<float>(nc);
    sort_scores(judge);
    take_means(judge);
    verdict.row[s] = apply_rules(judge);
    if (judge.value > 0.0f) judge.value += evenness_bonus(judge, pool_size);
    verdict.stage_value[s] = judge.value;
    verdict.stage_keep[s] = judge.keep;
  }
  choose_best_stage(tables, verdict);
  return verdict;
}

}  // namespace kestrelvane

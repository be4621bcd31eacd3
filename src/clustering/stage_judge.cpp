#include "clustering/stage_judge.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numeric>

#include "clustering/membership.h"

namespace kestrelvane {

// ---------------------------------------------------------------- folding

namespace {

// Index of the candidate nearest to point i, the first on ties.
std::int32_t find_nearest(const gac_points& points, const std::vector<std::int32_t>& candidates,
                          std::int32_t i) {
  const float* at = points.row(i);
  const bool plane = points.dimensions > 1;
  std::int32_t nearest = candidates.front();
  // The sums of squares are never negative, so -1 stands for none yet.
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
  // The size moves as well, so that later votes and means see what is left.
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
    return sizes[label] >= least_cluster_size(session);
  });
}

// ---------------------------------------------------------------- one stage

namespace {

// A sub-cluster of so few stages is a passing shape of the density.
constexpr std::int32_t fleeting_score = 3;
// Mean number of stages from which the sub-clusters of a stage are taken as real;
// its merit is what the mean has above it.
constexpr float real_mean_score = 6.0f;
// What a stage starts with for each long-lived sub-cluster. It outweighs most of what
// the rules give, so that a stage that shows more units wins.
constexpr float long_lived_merit = 20.0f;
// Lead of a stage on which all are long-lived, and most of what equal sizes can give.
constexpr float all_long_lived_merit = 5.0f;
constexpr float balance_merit = 5.0f;
// Two that are both short-lived may be two units, if no better stage is found.
constexpr float short_lived_share = 0.1f;
// Most that even sizes and few events left over can give.
constexpr float evenness_merit = 9.9f;

struct stage_judge {
  const session_state& session;
  const gac_points& points;
  gac_tables& tables;
  std::int32_t stage;
  std::int32_t n_leading;     // leading sub-clusters of at least min_cluster_size
  std::int32_t n_long_lived;  // of these, with a score of at least the threshold
  float threshold;
  // Scores of the leading sub-clusters, falling; sorted_id their numbers.
  std::int32_t sorted_score[gac_label_limit + 1] = {};
  std::int32_t sorted_id[gac_label_limit + 1] = {};
  std::int32_t n_folded = 0;         // of the leading ones, the worst first
  float mean_score = 0.0f;           // of the qualified sub-clusters
  float weighted_mean_score = 0.0f;  // weighted by the inverse of their size
  float merit = 0.0f;
  std::int32_t n_keep = 0;
};

// Falling. Of equal scores the earlier, which is the larger sub-cluster, stays first: the last
// is folded first, and that should cost the fewest events.
void sort_scores(stage_judge& judge) {
  const std::int32_t* scores = judge.tables.as_cl_scores[judge.stage];
  std::int32_t* ids = judge.sorted_id + 1;
  std::iota(ids, ids + judge.n_leading, 1);
  std::stable_sort(ids, ids + judge.n_leading,
                   [&](std::int32_t a, std::int32_t b) { return scores[a] > scores[b]; });
  for (std::int32_t i = 1; i <= judge.n_leading; ++i) {
    judge.sorted_score[i] = scores[judge.sorted_id[i]];
  }
}

void take_means(stage_judge& judge) {
  const std::int32_t* sizes = judge.tables.as_cl_sizes[judge.stage];
  const std::int32_t* scores = judge.tables.as_cl_scores[judge.stage];
  float sum = 0.0f, weighted = 0.0f, weights = 0.0f;
  std::int32_t qualified = 0;
  for (std::int32_t c = 1; c <= gac_label_limit; ++c) {
    if (sizes[c] < least_cluster_size(judge.session)) continue;
    const auto score = static_cast<float>(scores[c]);
    const auto size = static_cast<float>(sizes[c]);
    sum += score;
    weighted += score / size;
    weights += 1.0f / size;
    ++qualified;
  }
  judge.mean_score = qualified > 0 ? sum / static_cast<float>(qualified) : 0.0f;
  judge.weighted_mean_score = qualified > 0 ? weighted / weights : 0.0f;
}

// Folds the worst of the leading sub-clusters that is still there. The means are
// those of what the folding leaves.
void fold_worst(stage_judge& judge, std::int32_t limit) {
  const std::int32_t place = judge.n_leading - judge.n_folded;
  fold_subcluster(judge.points, judge.tables, judge.stage, judge.sorted_id[place], limit);
  ++judge.n_folded;
  take_means(judge);
}

// Balance of the sizes of sub-clusters 2 and 1: most when they are equal.
float balance_bonus(const stage_judge& judge) {
  const auto x = static_cast<float>(judge.tables.as_cl_sizes[judge.stage][2]);
  const auto y = static_cast<float>(judge.tables.as_cl_sizes[judge.stage][1]);
  return balance_merit * std::sqrt(1.0f - std::fabs((x - y) / (x + y)));
}

// ---------------------------------------------------------------- words of the rules

bool counts_are(const stage_judge& j, std::int32_t n_leading, std::int32_t n_long_lived) {
  return j.n_leading == n_leading && j.n_long_lived == n_long_lived;
}
bool all_but(const stage_judge& j, std::int32_t n) { return j.n_leading - j.n_long_lived == n; }

// The sub-cluster at a place of the falling scores is more than a passing shape.
bool lasts(const stage_judge& j, std::int32_t place) {
  return j.sorted_score[place] > fleeting_score;
}
bool worst_is_fleeting(const stage_judge& j) { return !lasts(j, j.n_leading); }

bool mean_reaches_real(const stage_judge& j) { return j.weighted_mean_score >= real_mean_score; }
// Asked where a fleeting one was folded away on weak evidence: exactly 6 does not do.
bool mean_exceeds_real(const stage_judge& j) { return j.weighted_mean_score > real_mean_score; }
bool always(const stage_judge& /*judge*/) { return true; }

enum class kept { none, leading, all_but_worst, unfolded, long_lived };

std::int32_t count_kept(const stage_judge& j, kept what) {
  switch (what) {
    case kept::leading:
      return j.n_leading;
    case kept::all_but_worst:
      return j.n_leading - 1;
    case kept::unfolded:
      return j.n_leading - j.n_folded;
    case kept::long_lived:
      return j.n_long_lived;
    default:
      return 0;
  }
}

// What becomes of the merit that the long-lived sub-clusters have brought.
void no_merit(stage_judge& j) { j.merit = 0.0f; }
void same_merit(stage_judge& /*judge*/) {}
void lead_of_all(stage_judge& j) { j.merit += j.mean_score + all_long_lived_merit - j.threshold; }
void mean_above_real(stage_judge& j) { j.merit += j.mean_score - real_mean_score; }
void mean_and_balance(stage_judge& j) {
  j.merit += (j.mean_score - real_mean_score) + balance_bonus(j);
}
void share_of_mean(stage_judge& j) {
  j.merit = short_lived_share * (j.mean_score - real_mean_score);
}
void less_each_short_lived(stage_judge& j) {
  j.merit += static_cast<float>(j.n_long_lived - j.n_leading);
}

// ---------------------------------------------------------------- the rules

constexpr std::int32_t any_leading = 0;  // fold limit: candidates are all leading sub-clusters

// How many of the worst are folded into their neighbours before the rule decides; most:
// when it then refuses, up to so many, one by one. Candidates are sub-clusters up to limit.
struct folding {
  std::int32_t first = 0;
  std::int32_t most = 0;
  std::int32_t limit = any_leading;
};
constexpr folding no_folding{};
constexpr folding fold_one{1, 1};
constexpr folding fold_one_or_two{1, 2};
constexpr folding fold_three{3, 3};
// Only the five largest take events over, however many there are.
constexpr folding fold_two_into_five{2, 2, 5};

struct judging_rule {
  stage_rule rule;
  const char* words;
  bool (*applies)(const stage_judge&);
  folding fold;
  bool (*accepts)(const stage_judge&);  // asked after folding; refused: no merit, none kept
  kept keep;
  void (*give_merit)(stage_judge&);
};

// The first rule that applies decides.
using judged = const stage_judge&;
// clang-format off
constexpr judging_rule rules[] = {
    {stage_rule::one_or_none, "one long-lived sub-cluster or none: one unit, and no stage to go by",
     [](judged j) { return all_but(j, 0) && j.n_long_lived <= 1; },
     no_folding, always, kept::none, no_merit},
    {stage_rule::all_long_lived, "all long-lived: each is a unit",
     [](judged j) { return all_but(j, 0); },
     no_folding, always, kept::long_lived, lead_of_all},
    {stage_rule::one_short_lived, "a single short-lived one: one unit",
     [](judged j) { return counts_are(j, 1, 0); },
     no_folding, always, kept::none, same_merit},

    {stage_rule::two_other_fleeting, "two, one long-lived, the other fleeting: one unit",
     [](judged j) { return counts_are(j, 2, 1) && worst_is_fleeting(j); },
     no_folding, always, kept::none, same_merit},
    {stage_rule::two_one_long_lived, "two, one long-lived, the other not fleeting: two units",
     [](judged j) { return counts_are(j, 2, 1); },
     no_folding, mean_reaches_real, kept::leading, mean_and_balance},
    {stage_rule::two_short_lived, "two, both short-lived: two units for want of a better stage",
     [](judged j) { return j.n_leading == 2; },
     no_folding, [](judged j) { return mean_reaches_real(j) && lasts(j, 2); },
     kept::leading, share_of_mean},

    {stage_rule::all_but_a_fleeting_one, "all long-lived but a fleeting one: it is folded",
     [](judged j) { return j.n_leading >= 3 && all_but(j, 1) && worst_is_fleeting(j); },
     fold_one, [](judged j) {
       // A threshold of 2 stages calls long-lived what is fleeting.
       return mean_reaches_real(j) && j.sorted_score[j.n_long_lived] >= fleeting_score;
     }, kept::unfolded, mean_and_balance},
    {stage_rule::all_but_one, "all long-lived but one that is not fleeting: all are units",
     [](judged j) { return j.n_leading >= 3 && all_but(j, 1); },
     no_folding, mean_reaches_real, kept::leading, mean_and_balance},

    {stage_rule::three_one_long_lived_worst_fleeting,
     "three, one long-lived, the worst fleeting: it is folded",
     [](judged j) { return counts_are(j, 3, 1) && worst_is_fleeting(j); },
     fold_one, [](judged j) { return mean_exceeds_real(j) && lasts(j, 2); },
     kept::unfolded, mean_above_real},
    {stage_rule::three_one_long_lived, "three, one long-lived, none fleeting: three units",
     [](judged j) { return counts_are(j, 3, 1); },
     no_folding, [](judged j) { return mean_reaches_real(j) && lasts(j, 2); },
     kept::leading, mean_above_real},
    {stage_rule::three_short_lived, "three, all short-lived, none fleeting: three units",
     [](judged j) { return j.n_leading == 3 && !worst_is_fleeting(j); },
     no_folding, [](judged j) { return mean_reaches_real(j) && lasts(j, 2); },
     kept::leading, mean_above_real},
    {stage_rule::three_short_lived_worst_fleeting,
     "three, all short-lived, the worst fleeting: it is folded",
     [](judged j) { return j.n_leading == 3; },
     fold_one, [](judged j) { return mean_exceeds_real(j) && lasts(j, 2); },
     kept::unfolded, mean_above_real},

    {stage_rule::four_two_long_lived, "four, two long-lived, none fleeting: the best three",
     [](judged j) { return counts_are(j, 4, 2) && !worst_is_fleeting(j); },
     no_folding, mean_reaches_real, kept::all_but_worst, mean_above_real},
    {stage_rule::four_two_long_lived_worst_fleeting,
     "four, two long-lived, the worst fleeting: it is folded, and the third if that one is weak",
     [](judged j) { return counts_are(j, 4, 2); },
     fold_one_or_two, [](judged j) { return mean_exceeds_real(j) && lasts(j, j.n_leading - j.n_folded); },
     kept::unfolded, mean_above_real},
    {stage_rule::four_one_long_lived, "four, one long-lived: it takes the others",
     [](judged j) { return counts_are(j, 4, 1); },
     fold_three, always, kept::long_lived, same_merit},
    {stage_rule::four_short_lived, "four, all short-lived, none fleeting: four units",
     [](judged j) { return counts_are(j, 4, 0) && !worst_is_fleeting(j); },
     no_folding, [](judged j) { return mean_reaches_real(j) && lasts(j, 3); },
     kept::leading, mean_above_real},
    {stage_rule::four_short_lived_worst_fleeting,
     "four, all short-lived, the worst fleeting: it is folded",
     [](judged j) { return counts_are(j, 4, 0); },
     fold_one, [](judged j) { return mean_exceeds_real(j) && lasts(j, 3); },
     kept::unfolded, mean_above_real},

    {stage_rule::five_three_long_lived_smallest_weak,
     "five, three long-lived, the smallest of less than half the threshold: nothing to go by",
     [](judged j) {
       const auto smallest = static_cast<float>(j.tables.as_cl_scores[j.stage][5]);
       return counts_are(j, 5, 3) && smallest < j.threshold * 0.5f;
     }, no_folding, always, kept::none, no_merit},
    {stage_rule::five_three_long_lived, "five, three long-lived: they take the other two",
     [](judged j) { return counts_are(j, 5, 3); },
     fold_two_into_five, always, kept::long_lived, same_merit},
    {stage_rule::five_two_long_lived, "five, two long-lived: they take the other three",
     [](judged j) { return counts_are(j, 5, 2); },
     fold_three, always, kept::long_lived, same_merit},

    {stage_rule::all_but_two, "all long-lived but two: they take the two",
     [](judged j) { return all_but(j, 2); },
     fold_two_into_five, always, kept::long_lived, same_merit},
    {stage_rule::all_but_three, "all long-lived but three: they take the three",
     [](judged j) { return all_but(j, 3); },
     fold_three, always, kept::long_lived, same_merit},
    {stage_rule::many_short_lived, "many short-lived ones: the stage loses by each",
     always,
     no_folding, always, kept::long_lived, less_each_short_lived},
};
// clang-format on

bool offer(stage_judge& judge, const judging_rule& rule) {
  if (!rule.accepts(judge)) return false;
  judge.n_keep = count_kept(judge, rule.keep);
  rule.give_merit(judge);
  return true;
}

void apply_rule(stage_judge& judge, const judging_rule& rule) {
  const std::int32_t limit = rule.fold.limit == any_leading ? judge.n_leading : rule.fold.limit;
  while (judge.n_folded < rule.fold.first) fold_worst(judge, limit);
  while (!offer(judge, rule)) {
    if (judge.n_folded == rule.fold.most) return no_merit(judge);
    fold_worst(judge, limit);
  }
}

// Applies the first rule that fits.
stage_rule apply_first_rule(stage_judge& judge) {
  const judging_rule* rule =
      std::find_if(std::begin(rules), std::end(rules),
                   [&](const judging_rule& candidate) { return candidate.applies(judge); });
  apply_rule(judge, *rule);
  return rule->rule;
}

// ---------------------------------------------------------------- the best stage

// What a stage of positive merit gains for sizes that are alike and for few
// events left over.
float evenness_bonus(const stage_judge& judge, std::int32_t pool_size) {
  const std::int32_t* sizes = judge.tables.as_cl_sizes[judge.stage];
  std::vector<float> qualified;
  std::int32_t rest = 0;
  float sum = 0.0f;
  for (std::int32_t c = 1; c <= gac_label_limit; ++c) {
    if (c > judge.n_leading) rest += sizes[c];
    if (sizes[c] < least_cluster_size(judge.session)) continue;
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
  return evenness_merit - (sd + static_cast<float>(rest)) / static_cast<float>(pool_size);
}

stage_judge open_stage(const session_state& session, const gac_points& points, gac_tables& tables,
                       std::int32_t s) {
  constexpr std::int32_t most_judged = 50;
  std::int32_t n_leading = tables.nc_ge_min[s], n_long_lived = tables.nc_ge_threshold[s];
  if (n_leading > most_judged || n_long_lived > most_judged) {
    log_message(session, fmt::format("nc, nt = {} {}", n_long_lived, n_leading));
    tell(session, "Limiting nc or nt", "Autosort", box_icon::warning);
    n_leading = std::min(n_leading, most_judged);
    n_long_lived = std::min(n_long_lived, most_judged);
  }
  stage_judge judge{session,
                    points,
                    tables,
                    s,
                    n_leading,
                    n_long_lived,
                    static_cast<float>(session.strategy.gac_threshold)};
  judge.merit = long_lived_merit * static_cast<float>(n_long_lived);
  sort_scores(judge);
  take_means(judge);
  return judge;
}

void choose_best_stage(const gac_tables& tables, stage_verdict& verdict) {
  float best = -10000.0f;
  std::int32_t best_stage = 0;
  for (std::int32_t s = 1; s <= tables.final_stage; ++s) {
    // A merit of exactly 0 is that of a stage that was refused. Of equal ones the first wins.
    if (verdict.stage_value[s] == 0.0f || !(verdict.stage_value[s] > best)) continue;
    best = verdict.stage_value[s];
    best_stage = s;
  }
  verdict.n_keep = best_stage == 0 ? 0 : verdict.stage_keep[best_stage];
  if (verdict.n_keep < 2) return;
  verdict.best_stage = best_stage;
  verdict.found = true;
  // The list ends with the n_keep-th sub-cluster that still has events.
  // Ten at most: what the lists of kept sub-clusters hold.
  for (std::int32_t c = 1; c <= 10; ++c) {
    if (tables.as_cl_sizes[best_stage][c] == 0) continue;
    if (static_cast<std::int32_t>(verdict.kept.size()) == verdict.n_keep) break;
    verdict.kept.push_back(c);
  }
}

}  // namespace

const char* stage_rule_words(stage_rule rule) {
  for (const judging_rule& row : rules) {
    if (row.rule == rule) return row.words;
  }
  return "";
}

stage_verdict judge_stages(const session_state& session, const gac_points& points,
                           gac_tables& tables) {
  stage_verdict verdict;
  if (tables.final_stage < 1) return verdict;
  // Not the number of points: what the largest cluster of the last stage has gathered.
  const std::int32_t pool_size = tables.as_cl_sizes[tables.final_stage][1];
  for (std::int32_t s = 1; s <= tables.final_stage; ++s) {
    stage_judge judge = open_stage(session, points, tables, s);
    verdict.rule[s] = apply_first_rule(judge);
    // Only where there is merit: evenness alone makes no unit.
    if (judge.merit > 0.0f) judge.merit += evenness_bonus(judge, pool_size);
    verdict.stage_value[s] = judge.merit;
    verdict.stage_keep[s] = judge.n_keep;
  }
  choose_best_stage(tables, verdict);
  return verdict;
}

}  // namespace kestrelvane

// The judgement of stages on fixed tables, rule by rule.
#include "clustering/stage_judge.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using rule = stage_rule;

struct stage {
  std::vector<int> sizes, scores;
  rule decided;
  std::uint32_t value;
  int keep;
};
struct judged_case {
  std::vector<stage> stages;
  int n_keep, best;
  std::vector<std::int32_t> kept;
};

const std::vector<judged_case>& cases() {
  static const std::vector<judged_case> all = {
      {{{{120, 80, 3}, {9, 9, 1}, rule::all_long_lived, 0x425EFBCA, 2},
        {{203}, {1}, rule::one_short_lived, 0, 0}},
       2,
       1,
       {1, 2}},
      {{{{120, 80, 3}, {9, 9, 1}, rule::all_long_lived, 0x425EFBCA, 2},
        {{119, 81, 3}, {9, 9, 1}, rule::all_long_lived, 0x425F02ED, 2},
        {{203}, {1}, rule::one_short_lived, 0, 0}},
       2,
       2,
       {1, 2}},
      {{{{150, 60}, {9, 3}, rule::two_other_fleeting, 0x41ECC690, 0},
        {{210}, {5}, rule::one_short_lived, 0, 0}},
       0,
       0,
       {}},
      {{{{150, 60}, {9, 6}, rule::two_one_long_lived, 0x420B81A3, 2},
        {{210}, {5}, rule::one_short_lived, 0, 0}},
       2,
       1,
       {1, 2}},
      {{{{150, 60}, {7, 7}, rule::two_short_lived, 0x411B26BA, 2},
        {{210}, {5}, rule::one_short_lived, 0, 0}},
       2,
       1,
       {1, 2}},
      {{{{150, 60}, {7, 4}, rule::two_short_lived, 0, 0},
        {{210}, {5}, rule::one_short_lived, 0, 0}},
       0,
       0,
       {}},
      {{{{90, 70, 60}, {12, 10, 6}, rule::all_but_one, 0x42675D28, 3},
        {{220}, {1}, rule::one_short_lived, 0, 0}},
       3,
       1,
       {1, 2, 3}},
      {{{{90, 70, 60}, {12, 7, 7}, rule::three_one_long_lived, 0x4201FD2B, 3},
        {{220}, {1}, rule::one_short_lived, 0, 0}},
       3,
       1,
       {1, 2, 3}},
      {{{{90, 70, 60}, {7, 7, 7}, rule::three_short_lived, 0x412D4A00, 3},
        {{220}, {1}, rule::one_short_lived, 0, 0}},
       3,
       1,
       {1, 2, 3}},
      {{{{90, 70, 60, 55}, {10, 9, 7, 7}, rule::four_two_long_lived, 0x42505FF6, 3},
        {{275}, {1}, rule::one_short_lived, 0, 0}},
       3,
       1,
       {1, 2, 3}},
      {{{{90, 70, 60, 55}, {7, 7, 7, 7}, rule::four_short_lived, 0x412D7FDA, 4},
        {{275}, {1}, rule::one_short_lived, 0, 0}},
       4,
       1,
       {1, 2, 3, 4}},
      {{{{90, 80, 70, 60, 55, 52}, {10, 9, 1, 1, 1, 1}, rule::many_short_lived, 0x423773EE, 2},
        {{407}, {1}, rule::one_short_lived, 0, 0}},
       2,
       1,
       {1, 2}},
      {{{{100, 90, 80}, {9, 8, 8}, rule::all_long_lived, 0x42966481, 3},
        {{100, 90, 80}, {9, 8, 8}, rule::all_long_lived, 0x42966481, 3},
        {{270}, {12}, rule::one_or_none, 0, 0}},
       3,
       1,
       {1, 2, 3}},
      {{{{200}, {12}, rule::one_or_none, 0, 0}, {{200}, {12}, rule::one_or_none, 0, 0}}, 0, 0, {}}};
  return all;
}

// Tables as a run would leave them for the given sizes and scores.
void fill_tables(const judged_case& known, int threshold, int min_size, gac_tables& tables) {
  tables.final_stage = static_cast<int>(known.stages.size());
  tables.n_stages = tables.final_stage;
  for (int s = 1; s <= tables.final_stage; ++s) {
    const stage& from = known.stages[s - 1];
    int leading = 0, long_lived = 0;
    bool counting = true;
    for (std::size_t c = 1; c <= from.sizes.size(); ++c) {
      tables.as_cl_sizes[s][c] = from.sizes[c - 1];
      tables.as_cl_scores[s][c] = from.scores[c - 1];
      counting = counting && from.sizes[c - 1] >= min_size;
      leading += counting;
      long_lived += counting && from.scores[c - 1] >= threshold;
    }
    tables.nc_ge_min[s] = leading;
    tables.nc_ge_threshold[s] = long_lived;
  }
}

TEST(stage_judge, fixed_tables) {
  for (std::size_t i = 0; i < cases().size(); ++i) {
    const judged_case& known = cases()[i];
    small_session session;
    const auto tables = std::make_unique<gac_tables>();
    fill_tables(known, session->strategy.gac_threshold, session->strategy.min_cluster_size,
                *tables);
    const stage_verdict verdict = judge_stages(*session, gac_points{}, *tables);
    EXPECT_EQ(verdict.n_keep, known.n_keep) << i + 1;
    EXPECT_EQ(verdict.best_stage, known.best) << i + 1;
    EXPECT_EQ(verdict.found, known.best != 0) << i + 1;
    EXPECT_EQ(verdict.kept, known.kept) << i + 1;
    for (std::size_t s = 1; s <= known.stages.size(); ++s) {
      EXPECT_EQ(verdict.rule[s], known.stages[s - 1].decided)
          << i + 1 << " stage " << s << ": " << stage_rule_words(verdict.rule[s]);
      EXPECT_EQ(verdict.stage_value[s], bits(known.stages[s - 1].value)) << i + 1 << " stage " << s;
      EXPECT_EQ(verdict.stage_keep[s], known.stages[s - 1].keep) << i + 1 << " stage " << s;
    }
  }
}

// Sub-clusters in a row, 1 at the left: a folded one goes to its left neighbour, or to the
// right one if there is none.
struct folded_case {
  std::vector<int> sizes, scores;
  rule decided;
  int keep;
  std::vector<int> sizes_after;
  std::vector<float> places = {};
};

TEST(stage_judge, folded_into_neighbours) {
  const folded_case all[] = {
      {{80, 70, 60}, {9, 9, 3}, rule::all_but_a_fleeting_one, 2, {80, 130, 0}},
      {{80, 70, 60}, {9, 3, 7}, rule::three_one_long_lived_worst_fleeting, 2, {150, 0, 60}},
      {{80, 70, 60}, {7, 7, 2}, rule::three_short_lived_worst_fleeting, 2, {80, 130, 0}},
      {{80, 70, 60, 50}, {9, 9, 5, 3}, rule::four_two_long_lived_worst_fleeting, 3, {80, 70, 110}},
      {{80, 70, 60, 50}, {9, 9, 3, 3}, rule::four_two_long_lived_worst_fleeting, 2, {80, 180}},
      {{80, 70, 60, 50}, {3, 9, 3, 3}, rule::four_one_long_lived, 1, {0, 260}},
      {{80, 70, 60, 50}, {7, 7, 7, 2}, rule::four_short_lived_worst_fleeting, 3, {80, 70, 110}},
      {{90, 80, 70, 60, 50}, {9, 9, 9, 2, 3}, rule::five_three_long_lived_smallest_weak, 0, {90}},
      {{90, 80, 70, 60, 50}, {9, 9, 9, 2, 4}, rule::five_three_long_lived, 3, {90, 80, 180}},
      {{90, 80, 70, 60, 50}, {9, 9, 4, 3, 2}, rule::five_two_long_lived, 2, {90, 260}},
      // Of 1 and 3, which last alike, 3 is folded first: to 4, where 1 then finds it nearer
      // than 5. The other way round 3 would be pulled to 5 with 1.
      {{90, 80, 70, 60, 50},
       {2, 1, 2, 9, 9},
       rule::five_two_long_lived,
       2,
       {0, 0, 0, 300, 50},
       {60, 20, 40, 25, 85}},
      {{90, 80, 70, 65, 60, 50}, {9, 9, 9, 9, 1, 2}, rule::all_but_two, 4, {90, 80, 70, 175}},
      {{90, 80, 70, 65, 60, 50}, {9, 9, 9, 1, 2, 3}, rule::all_but_three, 3, {90, 80, 245}}};
  for (const folded_case& known : all) {
    SCOPED_TRACE(stage_rule_words(known.decided));
    small_session session;
    const auto tables = std::make_unique<gac_tables>();
    const judged_case judged{{{known.sizes, known.scores, known.decided, 0, 0}}, 0, 0, {}};
    fill_tables(judged, session->strategy.gac_threshold, session->strategy.min_cluster_size,
                *tables);
    gac_points points;
    points.dimensions = 1;
    for (std::size_t c = 1; c <= known.sizes.size(); ++c) {
      // Steps grow to the right, so that the left neighbour is the nearer one.
      const float place = known.places.empty() ? static_cast<float>(c * c) : known.places[c - 1];
      points.values.insert(points.values.end(), known.sizes[c - 1], place);
      tables->stage_labels[1].insert(tables->stage_labels[1].end(), known.sizes[c - 1],
                                     static_cast<int>(c));
    }
    points.n = tables->n = static_cast<int>(points.values.size());
    const stage_verdict verdict = judge_stages(*session, points, *tables);
    EXPECT_EQ(verdict.rule[1], known.decided);
    EXPECT_EQ(verdict.stage_keep[1], known.keep);
    for (std::size_t c = 1; c <= known.sizes_after.size(); ++c) {
      EXPECT_EQ(tables->as_cl_sizes[1][c], known.sizes_after[c - 1]) << c;
    }
  }
}

TEST(stage_judge, no_more_than_fifty_are_judged) {
  small_session session;
  gac_points points;
  points.dimensions = 1;
  const auto tables = std::make_unique<gac_tables>();
  tables->n_stages = tables->final_stage = 2;
  tables->nc_ge_min[1] = tables->nc_ge_threshold[1] = 51;
  for (int c = 1; c <= 51; ++c) {
    tables->as_cl_sizes[1][c] = 1;
    tables->as_cl_scores[1][c] = 9;
    points.values.push_back(static_cast<float>(c));
    tables->stage_labels[1].push_back(c);
    tables->stage_labels[2].push_back(1);
  }
  tables->as_cl_sizes[2][1] = points.n = tables->n = 51;
  judge_stages(*session, points, *tables);
  EXPECT_TRUE(session.user.told("Limiting nc or nt", "Autosort"));
  EXPECT_TRUE(session.user.logged("nc, nt = 51 51"));
}

}  // namespace
}  // namespace kestrelvane::test

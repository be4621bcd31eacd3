// Gradient ascent clustering of thirty fixed points, stage by stage, and the
// judgement of its stages.
#include "clustering/gradient_ascent.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "clustering/clustering_runs.h"
#include "clustering/splitting.h"
#include "clustering/stage_judge.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

gac_points fixed_points() {
  gac_points points;
  points.n = 30;
  points.dimensions = 2;
  points.values = {1.125f,  1,      -0.25f, -0.875f, -1.75f,  0.375f,  1.125f,  0.625f,  1.25f,
                   1.375f,  0,      -1.75f, 0,       -1.625f, 0.625f,  1.5f,    -1.75f,  1.625f,
                   -0.625f, 0.125f, 1,      -1.875f, 1.875f,  -1.625f, -0.625f, -1.125f, 1,
                   -1.75f,  4,      2.125f, 4.75f,   2.625f,  6.875f,  2.125f,  7.25f,   2.25f,
                   6,       1.25f,  6.625f, 0.375f,  7.125f,  1.5f,    6.625f,  2.375f,  6.75f,
                   0.5f,    7.5f,   1.875f, 5.625f,  0.375f,  -2.625f, 6.5f,    -0.5f,   7.625f,
                   -1.75f,  8.125f, -4,     6.125f,  -3.875f, 8.25f};
  return points;
}

struct known_stage {
  int scouts, iterations;
  std::vector<int> sizes;
  int nt;
  std::vector<int> scores;
};

const std::vector<known_stage>& known_stages() {
  static const std::vector<known_stage> stages = {
      {7, 73, {10, 9, 4, 2, 2, 2, 1}, 2, {1, 1, 1, 1, 1, 1, 1}},
      {7, 58, {10, 9, 4, 2, 2, 2, 1}, 2, {4, 1, 4, 1, 1, 4, 1}},
      {5, 50, {11, 10, 4, 3, 2}, 2, {11, 4, 4, 3, 4}},
      {5, 47, {11, 10, 4, 3, 2}, 2, {11, 4, 4, 3, 4}},
      {5, 72, {11, 10, 4, 3, 2}, 2, {11, 4, 4, 3, 4}},
      {3, 52, {14, 11, 5}, 3, {8, 11, 8}},
      {3, 48, {14, 11, 5}, 3, {8, 11, 8}},
      {3, 45, {14, 11, 5}, 3, {8, 11, 8}},
      {3, 42, {14, 11, 5}, 3, {8, 11, 8}},
      {3, 40, {14, 11, 5}, 3, {8, 11, 8}},
      {3, 37, {14, 11, 5}, 3, {8, 11, 8}},
      {3, 36, {14, 11, 5}, 3, {8, 11, 8}},
      {3, 38, {14, 11, 5}, 3, {8, 11, 8}}};
  return stages;
}

TEST(gradient_ascent, thirty_points_stage_by_stage) {
  for (const bool obvious : {true, false}) {
    small_session session;
    session->strategy.min_cluster_size = 5;
    session->strategy.split_obvious = obvious;
    const auto tables = std::make_unique<gac_tables>();
    ASSERT_EQ(gac_run(gac_parameters_of(*session), fixed_points(), *tables), 13);
    EXPECT_FALSE(tables->obvious);
    for (int s = 1; s <= 13; ++s) {
      const known_stage& known = known_stages()[s - 1];
      EXPECT_EQ(tables->scouts_left[s], known.scouts) << s;
      EXPECT_EQ(tables->iterations[s], known.iterations) << s;
      EXPECT_EQ(tables->nc_ge_min[s], known.nt) << s;
      EXPECT_EQ(tables->n_clusters_ge_tiny_size_list[s], known.nt) << s;
      for (std::size_t c = 1; c <= known.sizes.size(); ++c) {
        EXPECT_EQ(tables->as_cl_sizes[s][c], known.sizes[c - 1]) << s << " " << c;
        EXPECT_EQ(tables->as_cl_scores[s][c], known.scores[c - 1]) << s << " " << c;
      }
    }
    EXPECT_EQ(tables->stage_labels[1],
              (std::vector<std::int32_t>{3, 1, 1, 3, 3, 1, 1, 3, 1, 1, 1, 1, 1, 1, 4,
                                         4, 2, 2, 2, 2, 2, 2, 2, 2, 2, 5, 6, 6, 5, 7}));
    const subcluster_choice choice = choose_subcluster(*session, *tables);
    EXPECT_TRUE(choice.found);
    EXPECT_EQ(choice.stage, 13);
    EXPECT_EQ(choice.label, 3);
  }
}

TEST(gradient_ascent, thirty_points_judged) {
  small_session session;
  session->strategy.min_cluster_size = 5;
  const gac_points points = fixed_points();
  const auto tables = std::make_unique<gac_tables>();
  gac_run(gac_parameters_of(*session), points, *tables);
  const stage_verdict verdict = judge_stages(*session, points, *tables);
  EXPECT_EQ(verdict.n_keep, 3);
  EXPECT_EQ(verdict.best_stage, 6);
  EXPECT_TRUE(verdict.found);
  EXPECT_EQ(verdict.kept, (std::vector<std::int32_t>{1, 2, 3}));
  for (int s = 1; s <= 13; ++s) {
    const stage_rule rule = s <= 2   ? stage_rule::two_short_lived
                            : s <= 5 ? stage_rule::two_one_long_lived
                                     : stage_rule::all_long_lived;
    EXPECT_EQ(verdict.rule[s], rule) << s << ": " << stage_rule_words(verdict.rule[s]);
    const float value = s <= 2 ? 0.0f : s <= 5 ? 35.5861f : 75.5727f;
    EXPECT_NEAR(verdict.stage_value[s], value, 1e-4f) << s;
    EXPECT_EQ(verdict.stage_keep[s], s <= 2 ? 0 : s <= 5 ? 2 : 3) << s;
  }
}

TEST(gradient_ascent, degenerate_clouds_end_at_stage_6) {
  small_session session;
  for (const int n : {1, 2, 40}) {
    gac_points points;
    points.n = n;
    points.dimensions = 3;
    points.values.assign(3 * n, 1.5f);
    const auto tables = std::make_unique<gac_tables>();
    EXPECT_EQ(gac_run(gac_parameters_of(*session), points, *tables), 6);
    EXPECT_EQ(tables->as_cl_sizes[6][1], n);
  }
}

}  // namespace
}  // namespace kestrelvane::test

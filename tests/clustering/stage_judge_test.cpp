// The judgement of stages on fixed tables, row by row.
#include "clustering/stage_judge.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct stage {
  std::vector<int> sizes, scores;
  int row;
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
      {{{{120, 80, 3}, {9, 9, 1}, 2, 0x425EFBCA, 2}, {{203}, {1}, 3, 0, 0}}, 2, 1, {1, 2}},
      {{{{120, 80, 3}, {9, 9, 1}, 2, 0x425EFBCA, 2},
        {{119, 81, 3}, {9, 9, 1}, 2, 0x425F02ED, 2},
        {{203}, {1}, 3, 0, 0}},
       2,
       2,
       {1, 2}},
      {{{{150, 60}, {9, 3}, 4, 0x41ECC690, 0}, {{210}, {5}, 3, 0, 0}}, 0, 0, {}},
      {{{{150, 60}, {9, 6}, 5, 0x420B81A3, 2}, {{210}, {5}, 3, 0, 0}}, 2, 1, {1, 2}},
      {{{{150, 60}, {7, 7}, 6, 0x411B26BA, 2}, {{210}, {5}, 3, 0, 0}}, 2, 1, {1, 2}},
      {{{{150, 60}, {7, 4}, 6, 0, 0}, {{210}, {5}, 3, 0, 0}}, 0, 0, {}},
      {{{{90, 70, 60}, {12, 10, 6}, 8, 0x42675D28, 3}, {{220}, {1}, 3, 0, 0}}, 3, 1, {1, 2, 3}},
      {{{{90, 70, 60}, {12, 7, 7}, 10, 0x4201FD2B, 3}, {{220}, {1}, 3, 0, 0}}, 3, 1, {1, 2, 3}},
      {{{{90, 70, 60}, {7, 7, 7}, 11, 0x412D4A00, 3}, {{220}, {1}, 3, 0, 0}}, 3, 1, {1, 2, 3}},
      {{{{90, 70, 60, 55}, {10, 9, 7, 7}, 13, 0x42505FF6, 3}, {{275}, {1}, 3, 0, 0}},
       3,
       1,
       {1, 2, 3}},
      {{{{90, 70, 60, 55}, {7, 7, 7, 7}, 16, 0x412D7FDA, 4}, {{275}, {1}, 3, 0, 0}},
       4,
       1,
       {1, 2, 3, 4}},
      {{{{90, 80, 70, 60, 55, 52}, {10, 9, 1, 1, 1, 1}, 22, 0x423773EE, 2}, {{407}, {1}, 3, 0, 0}},
       2,
       1,
       {1, 2}},
      {{{{100, 90, 80}, {9, 8, 8}, 2, 0x42966481, 3},
        {{100, 90, 80}, {9, 8, 8}, 2, 0x42966481, 3},
        {{270}, {12}, 1, 0, 0}},
       3,
       1,
       {1, 2, 3}},
      {{{{200}, {12}, 1, 0, 0}, {{200}, {12}, 1, 0, 0}}, 0, 0, {}}};
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
      EXPECT_EQ(verdict.row[s], known.stages[s - 1].row) << i + 1 << " stage " << s;
      EXPECT_EQ(verdict.stage_value[s], bits(known.stages[s - 1].value)) << i + 1 << " stage " << s;
      EXPECT_EQ(verdict.stage_keep[s], known.stages[s - 1].keep) << i + 1 << " stage " << s;
    }
  }
}

}  // namespace
}  // namespace kestrelvane::test

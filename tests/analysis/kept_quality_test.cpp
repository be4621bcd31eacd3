// Kept figures are those measured anew, after any edit and its undo.
#include "analysis/kept_quality.h"

#include <gtest/gtest.h>

#include <cmath>

#include "sorting/cluster_edits.h"
#include "sorting/realign_steps.h"
#include "sorting/undo_state.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct kept_test : ::testing::Test {
  small_session session;
  kept_quality kept;

  kept_test() {
    make_busy_recording(*session, 8, 200'000, 31);
    for (std::int32_t c = 1; c <= 8; ++c) session->recording.chan_noise[c] = 7;
    recalculate_all_templates(*session);
  }
  void expect_fresh() {
    const std::vector<unit_quality> now = renew_quality(*session, kept);
    const std::vector<unit_quality> anew = measure_quality(*session);
    ASSERT_EQ(now.size(), anew.size());
    for (std::size_t i = 0; i < now.size(); ++i) {
      EXPECT_EQ(now[i].unit, anew[i].unit);
      for (const quality_figure& figure : quality_figures()) {
        const double a = now[i].*figure.value, b = anew[i].*figure.value;
        EXPECT_TRUE(a == b || (std::isnan(a) && std::isnan(b))) << figure.name << " " << i;
      }
    }
  }
};

TEST_F(kept_test, OnlyWhatChangedIsMeasured) {
  const std::int32_t n = session->clusters.n_clusters;
  ASSERT_GE(n, 4);
  expect_fresh();
  EXPECT_EQ(kept.n_measured, n);
  expect_fresh();
  EXPECT_EQ(kept.n_measured, 0);
  ASSERT_TRUE(save_undo_state(*session, undo_owner::management));
  merge_clusters(*session, 1, 2);
  expect_fresh();
  EXPECT_EQ(session->clusters.n_clusters, n - 1);
  EXPECT_GE(kept.n_measured, 1);
  EXPECT_LT(kept.n_measured, n - 1) << "units without a part in it are kept";
  // A unit that goes changes the numbers of those behind it.
  delete_cluster(*session, 2);
  expect_fresh();
  ASSERT_TRUE(restore_undo_state(*session, undo_owner::management));
  expect_fresh();
  EXPECT_EQ(kept.n_measured, 0) << "all of it was there before";
}

TEST_F(kept_test, OtherCircumstancesForgetAll) {
  renew_quality(*session, kept);
  session->quality.quality_refractory_ms = 2;
  renew_quality(*session, kept);
  EXPECT_EQ(kept.n_measured, session->clusters.n_clusters);
  session->operation.interrupt_at_poll = session->operation.polls + 1;
  session->quality.quality_refractory_ms = 1.5;
  EXPECT_TRUE(renew_quality(*session, kept).empty());
  session->operation.autosort_interrupt = false;
  session->operation.interrupt_at_poll = -1;
  EXPECT_FALSE(renew_quality(*session, kept).empty());
}

}  // namespace
}  // namespace kestrelvane::test

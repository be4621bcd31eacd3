// Components a stretch of events at a time are those of the whole.
#include <gtest/gtest.h>

#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "clustering/templates.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

std::vector<float> in_stretches(session_state& session, pc_projection& projection, std::int32_t n) {
  while (!project_on(session, n, projection)) {
    EXPECT_EQ(projection.values.n, projection.n_done);
  }
  return projection.values.values;
}

// About the sizes at which the rows of the covariance are thinned otherwise: 5000 rows exactly
// come of 9999 events as well, and of them every one enters.
TEST(pc_projection, a_cluster_of_any_size_in_stretches) {
  small_session s;
  make_busy_recording(*s, 1, 1'200'000, 7);
  const std::int32_t n_events = s->events.n_events;
  ASSERT_GT(n_events, 10'001);
  for (std::int32_t e = 1; e <= n_events; ++e) s->events.event_cluster[e] = 1;
  s->clusters.n_clusters = 1;
  calculate_all_templates(*s);
  for (const std::int32_t method : {pc_voltage_plus_gradient, pc_max_entropy}) {
    s->strategy.pc_point_selection = method;
    for (const std::int32_t n : {0, 1, 4999, 5000, 9999, 10'001}) {
      s->events.n_events = n;
      gac_points whole;
      cluster_pc_values(*s, 1, whole);
      pc_projection projection;
      begin_projection(*s, 1, list_cluster_events(*s, 1), projection);
      EXPECT_EQ(in_stretches(*s, projection, 1237), whole.values) << n << " events";
      EXPECT_EQ(projection.values.n, n);
    }
  }
}

TEST(pc_projection, a_pair_in_stretches) {
  small_session s;
  make_busy_recording(*s, 4, 100'000, 9);
  calculate_all_templates(*s);
  for (const bool equal : {true, false}) {
    s->strategy.equal_numbers_for_overlap = equal;
    gac_points whole;
    pair_pc_values(*s, 2, 5, 0, whole);
    pc_projection projection;
    begin_pair_projection(*s, 2, 5, 0, projection);
    EXPECT_EQ(in_stretches(*s, projection, 17), whole.values);
  }
}

}  // namespace
}  // namespace kestrelvane::test

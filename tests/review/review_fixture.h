// Sorted sessions for the tests of the review.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {

// Six clusters on four channels, aligned, with templates and pair lists.
struct review_test : ::testing::Test {
  small_session session;

  explicit review_test(std::int32_t n_samples = 60000) {
    make_busy_recording(*session, 4, n_samples, 17);
    session->clusters.current_cluster = 1;
    realign_all_clusters(*session);
    build_status_lists(*session);
    session.user.changes.clear();
  }
  std::int32_t n() const { return session.state->clusters.n_clusters; }
  std::vector<std::int32_t> events_of(std::int32_t c) { return list_cluster_events(*session, c); }
  std::int16_t& label(std::int32_t e) { return session->events.event_subcluster[e]; }
  void expect_consistent() { ASSERT_EQ(check_session(*session), ""); }

  // Events with the given label, of all clusters.
  std::vector<std::int32_t> labelled(std::int16_t k = 1) {
    std::vector<std::int32_t> found;
    for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
      if (label(e) == k) found.push_back(e);
    }
    return found;
  }

  // Everything that an undo has to bring back, as numbers.
  std::vector<double> fingerprint() {
    std::vector<double> all{double(n()), double(session->clusters.current_cluster)};
    const auto add = [&all](const auto& column, std::int32_t count) {
      for (std::int32_t i = 1; i <= count; ++i) all.push_back(static_cast<double>(column[i]));
    };
    const std::int32_t n_events = session->events.n_events;
    for_each_column([&](auto& column) { add(column, n_events); }, session->events);
    for_each_column([&](auto& column) { add(column, session->lists.n_kv_pairs); }, session->lists);
    for (std::int32_t c = 1; c <= n(); ++c) {
      for (std::int32_t channel = 1; channel <= session->recording.n_channels; ++channel) {
        add(session->templates.mean(c, channel), session->templates.template_points);
      }
    }
    return all;
  }
};

}  // namespace kestrelvane::test

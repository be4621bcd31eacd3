// The offer that detection and Autosort begin with, and what a run without clusters says.
#include "operations/high_pass_offer.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "operations/autosort.h"
#include "operations/detection_run.h"
#include "session/settings_table.h"
#include "signal/slow_waves.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr std::int32_t n_channels = 4, n_samples = 300'000;

// Spikes on slow waves of many times their noise.
struct broad_band : testing::Test {
  small_session session;

  void SetUp() override {
    make_busy_recording(*session, n_channels, n_samples, 51);
    recording_store& r = session->recording;
    r.recording_path = "/data/night3.tsf";
    session->events.n_events = session->clusters.n_clusters = 0;
    for (std::int32_t c = 1; c <= n_channels; ++c) {
      for (std::int32_t t = 1; t <= n_samples; ++t) {
        std::int16_t& v = r.vd.channel(c)[t];
        v = static_cast<std::int16_t>(v + 3000 * std::sin(0.002 * t + c));
      }
    }
    ASSERT_TRUE(looks_unfiltered(*session));
  }
  void answer(bool yes) { session.user.default_answer = yes; }
  std::size_t n_questions() const { return session.user.questions.size(); }
};

TEST_F(broad_band, is_asked_about_once_and_left_alone_on_no) {
  const std::int16_t before = session->recording.vd.channel(1)[1000];
  EXPECT_TRUE(run_detection(*session));
  ASSERT_EQ(n_questions(), 1u);
  EXPECT_THAT(session.user.questions[0].text,
              testing::StartsWith("night3.tsf looks unfiltered: high pass it first?"));
  EXPECT_EQ(session->recording.vd.channel(1)[1000], before);
  autosort(*session);
  run_detection(*session);
  EXPECT_EQ(n_questions(), 1u);
  // Another recording is another question.
  reset_session(*session);
  EXPECT_FALSE(session->recording.high_pass_offered);
}

TEST_F(broad_band, is_high_passed_on_yes_by_detection_and_by_autosort) {
  for (const bool by_autosort : {false, true}) {
    if (by_autosort) SetUp();
    session->recording.high_pass_offered = false;
    session->filter_history.n_entries = 0;
    session->filter.do_notch = true;  // ticked in the dialog, and not asked for now
    session->filter.bw_f0_khz = 3;
    answer(true);
    by_autosort ? autosort(*session) : run_detection(*session);
    EXPECT_FALSE(looks_unfiltered(*session));
    ASSERT_EQ(session->filter_history.n_entries, 1);
    EXPECT_FLOAT_EQ(session->filter_history.param1[1], 0.5f);
    EXPECT_TRUE(session->recording.recording_filtered);
    EXPECT_TRUE(session->filter.do_notch);
    EXPECT_FLOAT_EQ(session->filter.bw_f0_khz, 3);
    EXPECT_GT(session->events.n_events, 100);
    // A box would hold up the night.
    EXPECT_FALSE(session.user.told("Finished transforming"));
  }
}

TEST_F(broad_band, is_none_of_the_clustering_when_detection_is_skipped) {
  session->strategy.skip_event_detection = true;
  autosort(*session);
  EXPECT_EQ(n_questions(), 0u);
}

TEST(autosort_without_clusters, tells_the_events_and_the_size) {
  small_session session;
  make_busy_recording(*session, n_channels, n_samples, 51);
  session->strategy.min_cluster_size = 100'000;
  EXPECT_TRUE(autosort(*session));
  EXPECT_EQ(session->clusters.n_clusters, 0);
  EXPECT_GT(session->events.n_events, 100);
  const std::string text = fmt::format(
      "No clusters: {} events were found, and no cluster of them has the smallest size of 100000 "
      "events",
      session->events.n_events);
  EXPECT_TRUE(session.user.told(text, "Autosort")) << session.user.all_lines();
  EXPECT_TRUE(session.user.logged(text));
  EXPECT_EQ(check_session(*session), "");
}

}  // namespace
}  // namespace kestrelvane::test

// The detectors' fast forms against the plain ones, and the clean-up passes.
#include <gtest/gtest.h>

#include <vector>

#include "detection/event_cleanup.h"
#include "detection/lockout_detector.h"
#include "detection/proto_events.h"
#include "detection/sample_test.h"
#include "operations/detection_run.h"
#include "session/settings_table.h"
#include "signal/noise.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(sample_scan, finds_what_the_plain_walk_finds_by_every_method) {
  small_session session;
  make_busy_recording(*session, 4, 30000, 31);
  compute_noise(*session);
  session->recording.chan_mask[3] = true;
  for (int method = 1; method <= 5; ++method) {
    for (const int mode : {-1, 0}) {
      for (const float fixed : {60.0f, -60.0f, 0.0f}) {
        session->detection.detection_method = method;
        session->detection.threshold_mode = mode;
        session->detection.fixed_threshold_uv = fixed;
        session->detector.threshold_bits = static_cast<std::int16_t>(fixed / 0.25f);
        session->detector.teager_threshold = 40000.0f;
        const std::vector<trigger> plain = plain_find_triggers(*session, 5, 29990);
        for (const int threads : {1, 2, 7}) {
          use_threads(*session, threads);
          std::vector<trigger> fast;
          find_triggers(*session, 5, 29990, false, fast);
          ASSERT_EQ(fast.size(), plain.size()) << method << " " << mode << " " << fixed;
          for (std::size_t i = 0; i < fast.size(); ++i) {
            ASSERT_EQ(fast[i].time, plain[i].time);
            ASSERT_EQ(fast[i].channel, plain[i].channel);
          }
        }
      }
    }
  }
}

TEST(proto_events, rounds_give_what_the_plain_rounds_give) {
  small_session session;
  make_busy_recording(*session, 6, 60000, 12);
  compute_noise(*session);
  session->detection.variable_multiplier = 3;  // many points, dense neighbourhoods
  proto_event_table plain, fast;
  for (proto_event_table* points : {&plain, &fast}) {
    ASSERT_TRUE(allocate_proto_events(*session, *points));
    compile_proto_events(*session, *points);
  }
  ASSERT_GT(plain.n_proto_events, 1500);
  plain_build_proto_neighbours(*session, plain);
  plain_cluster_proto_events(*session, plain);
  use_threads(*session, 3);
  build_proto_neighbours(*session, fast);
  ASSERT_TRUE(cluster_proto_events(*session, fast));
  EXPECT_EQ(fast.n_rounds, plain.n_rounds);
  for (std::int32_t i = 1; i <= plain.n_proto_events; ++i) {
    ASSERT_EQ(fast.pe_head[i], plain.pe_head[i]) << i;
    ASSERT_EQ(fast.pe_label[i], plain.pe_label[i]) << i;
    if (plain.pe_head[i] == 0) continue;
    ASSERT_EQ(fast.pe_x[i], plain.pe_x[i]);
    ASSERT_EQ(fast.pe_y[i], plain.pe_y[i]);
    ASSERT_EQ(fast.pe_t[i], plain.pe_t[i]);
  }
}

TEST(proto_events, interrupted_scan_keeps_what_it_found) {
  small_session session;
  make_busy_recording(*session, 3, 400000, 12);
  session->operation.interrupt_at_poll = 2;
  EXPECT_EQ(detect_events_proto(*session), detection_end::done);
  EXPECT_TRUE(session->detector.detection_incomplete);
  EXPECT_GT(session->events.n_events, 100);
  check_detected_events(*session);
  EXPECT_TRUE(session.user.told("Event detection was incomplete."));

  // An interrupt while the points climb leaves nothing.
  session->operation.polls = 0;
  session->operation.interrupt_at_poll = 10;
  EXPECT_EQ(detect_events_proto(*session), detection_end::stopped);
  EXPECT_EQ(session->events.n_events, 0);
}

TEST(dynamic_noise, thresholds_step_once_per_window) {
  small_session session;
  make_recording(*session, 1, 600000);
  vector_random random(4);
  // Ten quiet seconds, ten loud ones, four quiet ones.
  for (int t = 1; t <= 600000; ++t) {
    const int range = t > 250000 && t <= 500000 ? 400 : 40;
    session->recording.vd.channel(1)[t] =
        static_cast<std::int16_t>(static_cast<int>((random.next() >> 16) % (2 * range)) - range);
  }
  session->detection.noise_static = false;
  session->detection.noise_window_secs = 10;
  scan_stretch stretch;
  std::vector<std::pair<int, float>> seen;
  while (next_stretch(*session, stretch)) {
    if (seen.empty() || seen.back().second != session->recording.chan_noise[1]) {
      seen.emplace_back(stretch.first, session->recording.chan_noise[1]);
    }
  }
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[1].first, 250000);
  EXPECT_EQ(seen[2].first, 500000);
  EXPECT_GT(seen[1].second, 5 * seen[0].second);
}

TEST(lockout, the_larger_of_two_close_spikes_and_masked_neighbours) {
  small_session session;
  make_recording(*session, 2, 2000);
  const std::vector<int> spike{-30, -90, -140, -80, 10, 60, 40, 10};
  put_samples(*session, 1, 500, spike);
  put_samples(*session, 2, 510, {-30, -90, -240, -80, 10, 60, 40, 10});  // 0.4 ms later, larger
  session->detection.threshold_mode = -1;
  session->detection.fixed_threshold_uv = 70;
  detect_events_lockout(*session);
  ASSERT_EQ(session->events.n_events, 1);
  EXPECT_EQ(session->events.event_time[1], 512);
  EXPECT_EQ(session->events.event_channel[1], 2);
  EXPECT_EQ(session->events.event_detected_time[1], 512);
  // With a radius below the 40 µm between the sites the larger one is out of earshot.
  std::string problem;
  ASSERT_TRUE(set_setting(*session, "lockout_radius_um", "20", problem));
  detect_events_lockout(*session);
  ASSERT_EQ(session->events.n_events, 2);
  EXPECT_EQ(session->events.event_time[1], 502);
  EXPECT_EQ(session->events.event_time[2], 512);
  ASSERT_TRUE(set_setting(*session, "lockout_radius_um", "150", problem));
  session->recording.chan_mask[2] = true;
  detect_events_lockout(*session);
  ASSERT_EQ(session->events.n_events, 1);
  EXPECT_EQ(session->events.event_time[1], 502);
}

TEST(lockout, crossings_keep_the_last_time_when_there_is_none) {
  small_session session;
  make_recording(*session, 1, 2000);
  put_samples(*session, 1, 500, {10, 60, 90, 60, 10});  // never below zero: v = 0 around it
  for (int t = 480; t < 530; ++t) session->recording.vd.channel(1)[t] += 5;
  const lockout_feature feature = find_lockout_feature(*session, 5, 1, 502, 77);
  EXPECT_EQ(feature.time, 77);
  EXPECT_FALSE(feature.reject);
}

TEST(cleanup, later_of_two_goes_and_shifts_stay_behind) {
  small_session session;
  make_recording(*session, 2, 2000);
  event_table& events = session->events;
  const int times[] = {100, 105, 106, 300, 400}, channels[] = {1, 1, 2, 1, 2};
  events.n_events = 5;
  for (int e = 1; e <= 5; ++e) {
    events.event_time[e] = times[e - 1];
    events.event_channel[e] = channels[e - 1];
    events.event_shift[e] = 0.1f * static_cast<float>(e);
  }
  EXPECT_EQ(delete_coincident_events(*session), 1);  // 0.2 ms are 5 samples: both ends count
  ASSERT_EQ(events.n_events, 4);
  EXPECT_EQ(events.event_time[2], 106);
  EXPECT_EQ(events.event_shift[2], 0.2f);  // stood with the event that went
  EXPECT_EQ(delete_coincident_events(*session), 0);

  put_samples(*session, 1, 290, {-900, 200});  // 1100 µV peak to peak near the event at 300
  EXPECT_EQ(delete_large_events(*session), 1);
  EXPECT_EQ(events.n_events, 3);
  EXPECT_EQ(events.event_time[3], 400);

  // Removal by mark moves everything together.
  events.event_cluster[1] = -1;
  events.event_shift[2] = 0.7f;
  EXPECT_EQ(delete_marked_events(*session), 1);
  EXPECT_EQ(events.event_time[1], 106);
  EXPECT_EQ(events.event_shift[1], 0.7f);
}

}  // namespace
}  // namespace kestrelvane::test

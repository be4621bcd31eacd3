// The sample test, alignment of events, and the proto-event detector on cases
// small enough to follow by hand.
#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "detection/event_alignment.h"
#include "detection/proto_events.h"
#include "detection/sample_test.h"
#include "operations/detection_run.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(sample_test, known_samples) {
  struct known {
    std::vector<int> v;
    int method;
    bool triggers, peak, trough;
  };
  for (const auto& k : {
           known{{0, 0, -20, -60, -20, 10, 30, 10, 0, 0}, 4, false, false, true},
           known{{0, 0, -20, -60, -60, -60, -60, -60, -60, -20}, 2, true, false, true},
           known{{0, 0, -20, -60, -60, -60, -60, -60, -60, -60, -20}, 2, false, false, false},
           known{{0, 0, -20, -55, -20, 0, 0, 0, 0, 0}, 3, false, false, true},
           known{{0, 0, -20, -55, -20, 0, 1, 0, 0, 0}, 3, true, false, true},
           known{{0, 0, -20, -50, -20, 45, 50, 10, 0, 0}, 4, false, false, true},
           known{{0, 0, -20, -50, -20, 45, 51, 10, 0, 0}, 4, true, false, true},
       }) {
    small_session session;
    make_recording(*session, 1, 40);
    put_samples(*session, 1, 1, k.v);
    session->detection.threshold_mode = -1;
    session->detection.fixed_threshold_uv = 50;
    session->detection.detection_method = k.method;
    session->detector.threshold_bits = 50;
    const std::int16_t* v = session->recording.vd.channel(1) + 4;
    EXPECT_EQ(is_local_peak(v), k.peak);
    EXPECT_EQ(is_local_trough(v), k.trough);
    EXPECT_EQ(sample_triggers(*session, 1, 4), k.triggers);
  }
}

TEST(event_alignment, every_feature_of_one_spike) {
  small_session session;
  make_recording(*session, 1, 400);
  put_samples(*session, 1, 11,
              {0,  -3, 2,  5,  -1, -10, -40, -95, -120, -118, -80, -20, 15, 40, 52,
               50, 41, 30, 18, 9,  4,   1,   0,   -2,   1,    0,   3,   -1, 2,  0});
  struct known {
    int feature, time;
    std::uint32_t offset;
  };
  for (const auto& k : {known{1, 25, 0x3E99999A},
                        {2, 19, 0x3ECCCCCD},
                        {3, 19, 0x3ECCCCCD},
                        {4, 22, 0x3F124925},
                        {5, 14, 0x3F555555},
                        {6, 21, 0x00000000},
                        {7, 17, 0x3F000000},
                        {8, 20, 0x3EFE4500},
                        {9, 20, 0x00000000}}) {
    const aligned_time aligned = align_to_feature(*session, k.feature, 1, 20, 12);
    EXPECT_EQ(aligned.time, k.time) << k.feature;
    EXPECT_EQ(aligned.offset, bits(k.offset)) << k.feature;
  }
}

TEST(event_alignment, without_a_feature_the_time_stays) {
  small_session session;
  make_recording(*session, 1, 400);
  for (int feature = 1; feature <= 5; ++feature) {
    const aligned_time aligned = align_to_feature(*session, feature, 1, 100, 12);
    EXPECT_EQ(aligned.time, 100);
    EXPECT_EQ(aligned.offset, 0.0f);
  }
}

// A recording that begins high above 0: its margin, which is 0, is then a trough.
TEST(event_alignment, an_event_stays_inside_the_recording) {
  small_session session;
  make_recording(*session, 1, 400);
  put_samples(*session, 1, 1, std::vector<int>(400, 300));
  for (int feature = 1; feature <= 9; ++feature) {
    session->detection.align_feature = feature;
    for (const std::int32_t t : {-3, 0, 1, 3, 398, 400, 405}) {
      const aligned_time aligned = align_event(*session, 1, t, 12);
      EXPECT_GE(aligned.time, 1) << feature << " " << t;
      EXPECT_LE(aligned.time, 400) << feature << " " << t;
    }
    // Where a step of many sigmas may throw a proto-event there are no samples to read.
    constexpr std::int32_t first = std::numeric_limits<std::int32_t>::min();
    for (const std::int32_t t : {first, first + 5, -1000000, 1000000, -(first + 1)}) {
      const aligned_time aligned = align_event(*session, 1, t, 12);
      EXPECT_EQ(aligned.time, t < 0 ? 1 : 400) << feature << " " << t;
      EXPECT_EQ(aligned.offset, 0.0f) << feature << " " << t;
    }
  }
}

TEST(proto_events, two_spikes_on_three_channels) {
  small_session session;
  make_recording(*session, 3, 400);
  put_samples(*session, 1, 100, {-20, -50, -75, -40, 5, 35, 20, 5});
  put_samples(*session, 2, 100, {-30, -90, -140, -80, 10, 60, 40, 10});
  put_samples(*session, 2, 130, {-30, -90, -140, -80, 10, 60, 40, 10});
  put_samples(*session, 3, 101, {-20, -50, -75, -40, 5, 35, 20, 5});
  session->detection.threshold_mode = -1;
  session->detection.fixed_threshold_uv = 50;
  session->detector.threshold_bits = 50;

  proto_event_table points;
  ASSERT_TRUE(allocate_proto_events(*session, points));
  compile_proto_events(*session, points);
  const int known[][3] = {{102, 1, -75}, {102, 2, -140}, {103, 3, -75},
                          {105, 2, 60},  {132, 2, -140}, {135, 2, 60}};
  ASSERT_EQ(points.n_proto_events, 6);
  for (int i = 1; i <= 6; ++i) {
    EXPECT_EQ(points.pe_time[i], known[i - 1][0]);
    EXPECT_EQ(points.pe_channel[i], known[i - 1][1]);
    EXPECT_EQ(points.pe_volts[i], known[i - 1][2]);
  }
  build_proto_neighbours(*session, points);
  ASSERT_TRUE(cluster_proto_events(*session, points));
  EXPECT_EQ(points.n_rounds, 26);
  make_events(*session, points);
  ASSERT_EQ(session->events.n_events, 2);
  EXPECT_EQ(session->events.event_time[1], 102);
  EXPECT_EQ(session->events.event_time[2], 132);
  for (int e = 1; e <= 2; ++e) {
    EXPECT_EQ(session->events.event_channel[e], 2);
    EXPECT_EQ(session->events.event_shift[e], 0.0f);
  }
}

TEST(detection_run, edges_find_nothing_and_complete) {
  small_session session;
  make_recording(*session, 2, 1);
  EXPECT_TRUE(run_detection(*session));
  EXPECT_EQ(session->events.n_events, 0);
  EXPECT_TRUE(session.user.logged("Finished event detection"));

  small_session masked;
  make_recording(*masked, 2, 400);
  put_samples(*masked, 1, 100, {-30, -90, -400, -80, 10, 260, 40, 10});
  masked->recording.chan_mask[1] = true;
  masked->recording.chan_mask[2] = true;
  for (const bool lockout : {false, true}) {
    masked->detection.use_lockout = lockout;
    EXPECT_TRUE(run_detection(*masked));
    EXPECT_EQ(masked->events.n_events, 0);
  }
}

// The button is live before the worker has come to its first line.
TEST(detection_run, a_press_right_after_the_start_counts) {
  small_session session;
  make_busy_recording(*session, 4, 200000, 7);
  for (const bool lockout : {false, true}) {
    session->detection.use_lockout = lockout;
    set_interrupts(session->operation, false);
    session->operation.detection_interrupted = true;
    run_detection(*session);
    EXPECT_TRUE(session->detector.detection_incomplete) << lockout;
    // The lockout detector looks after its first stretch, the scan for proto-events before it.
    EXPECT_TRUE(lockout || session->events.n_events == 0);
    EXPECT_EQ(check_session(*session), "");
  }
}

}  // namespace
}  // namespace kestrelvane::test

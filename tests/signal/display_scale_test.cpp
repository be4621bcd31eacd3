// Scales of the voltage record, and where its view of a recording begins.
#include "signal/display_scale.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "signal/noise.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(display_scale, spinners_and_typed_values) {
  EXPECT_FLOAT_EQ(voltage_scale_at(50), 0.2f);
  EXPECT_NEAR(voltage_scale_at(73), 1.95f, 0.01f);
  EXPECT_EQ(time_scale_at(1000), 1.0f);
  EXPECT_FLOAT_EQ(time_scale_at(1001), 1.1486983f);
  EXPECT_NEAR(time_scale_at(995), 0.5f, 1e-6f);
  // Ends of the spinner are still scales that can be drawn with.
  EXPECT_GT(time_scale_at(1), 0.0f);
  EXPECT_TRUE(std::isfinite(time_scale_at(2000)));
  // A typed value moves the spinner to the position below it, within its range.
  EXPECT_EQ(position_of_voltage_scale(0.2f), 50);
  EXPECT_EQ(position_of_voltage_scale(0.21f), 50);
  EXPECT_EQ(position_of_voltage_scale(0.19f), 49);
  EXPECT_EQ(position_of_voltage_scale(1e-6f), 1);
  EXPECT_EQ(position_of_voltage_scale(1e6f), 100);
  EXPECT_EQ(position_of_time_scale(1.0f), 1000);
  EXPECT_EQ(position_of_time_scale(2.0f), 1005);
  EXPECT_EQ(position_of_time_scale(0.9f), 999);
  for (const std::int32_t position : {901, 990, 999, 1001, 1017, 1099}) {
    EXPECT_EQ(position_of_time_scale(time_scale_at(position)), position);
  }
}

TEST(display_scale, voltage_follows_the_noise_of_unmasked_channels) {
  small_session session;
  make_recording(*session, 4, 4000, 25000, 0.5f);
  session->display.vd_channel_spacing = 40;
  const float noise[] = {0, 10, 20, 1000, 30};
  for (int c = 1; c <= 4; ++c) session->recording.chan_noise[c] = noise[c];
  session->recording.chan_mask[3] = true;
  autoscale_voltage_display(*session);
  // Mean 20 bits are 10 µV; 1.2 of them take 40 / 20 pixels.
  EXPECT_NEAR(session->display.vd_voltage_scale, 1.2 / 10 * 40 / 20, 1e-6);
  EXPECT_FALSE(session.user.logged("Unexpected error getting noise values"));

  for (int c = 1; c <= 4; ++c) session->recording.chan_mask[c] = true;
  autoscale_voltage_display(*session);
  EXPECT_FLOAT_EQ(session->display.vd_voltage_scale, 2.0f);
  EXPECT_TRUE(session.user.logged("Unexpected error getting noise values"));
}

TEST(display_scale, view_begins_behind_a_flat_start) {
  struct flat_start {
    int n_channels, n_samples, channel, first_change, expected;
  };
  for (const flat_start& start : {
           flat_start{4, 5000, 1, 2000, 2005},  // found on the grid 505, 605, ...
           flat_start{4, 5000, 2, 2000, 2005},  // the middle channel
           flat_start{4, 5000, 4, 2000, 2005},
           flat_start{4, 5000, 3, 2000, 1},  // looked at by nobody
           flat_start{3, 5000, 2, 2000, 2005},
           flat_start{2, 5000, 2, 2000, 2005},
           flat_start{1, 5000, 1, 2000, 2005},
           flat_start{4, 5000, 1, 3996, 1},  // only within the last 1000
           flat_start{4, 1505, 1, 100, 1},   // too short
           flat_start{4, 1506, 1, 100, 505},
       }) {
    small_session session;
    make_recording(*session, start.n_channels, start.n_samples);
    std::int16_t* v = session->recording.vd.channel(start.channel);
    for (int t = start.first_change; t <= start.n_samples; ++t) v[t] = static_cast<short>(t % 499);
    session->view.vd_first_sample = 77;
    find_start_of_signal(*session);
    EXPECT_EQ(session->view.vd_first_sample, start.expected)
        << start.n_channels << " " << start.channel << " " << start.first_change;
  }
}

// A period of 100 looks the same at every distance that the steps have: only the value of
// sample 500 itself tells where it begins.
TEST(display_scale, signal_is_what_differs_from_sample_500) {
  small_session session;
  make_recording(*session, 1, 5000);
  std::int16_t* v = session->recording.vd.channel(1);
  for (int t = 1; t <= 600; ++t) v[t] = 7;  // then back to 0, which 500 samples later is 0 still
  for (int t = 1000; t <= 5000; ++t) v[t] = 7;
  find_start_of_signal(*session);
  EXPECT_EQ(session->view.vd_first_sample, 605);
  for (int t = 1; t <= 2000; ++t) v[t] = 7;
  v[105] = v[205] = 3;  // a spike before the reference is not the signal
  find_start_of_signal(*session);
  EXPECT_EQ(session->view.vd_first_sample, 1);
}

TEST(display_scale, rows_keep_their_place_when_the_spacing_changes) {
  small_session session;
  make_recording(*session, 32, 4000);
  session->display.vd_channel_spacing = 20;
  reset_voltage_view(*session);
  EXPECT_EQ(session->view.vd_top_offset, 40);  // row 1 below the read-out
  scroll_to_row(*session, 11);
  EXPECT_EQ(session->view.vd_top_offset, 20 - 10 * 20 + 20);
  set_channel_spacing(*session, 60);
  EXPECT_EQ(session->view.vd_top_offset, 60 - 10 * 60 + 20);
  set_channel_spacing(*session, 0);
  EXPECT_EQ(session->display.vd_channel_spacing, 1);
  set_channel_spacing(*session, 501);
  EXPECT_EQ(session->display.vd_channel_spacing, 500);
  scroll_to_row(*session, 1000);
  EXPECT_EQ(session->view.vd_top_offset, 500 - 40 * 500 + 20);  // held to row 41 of 32 + 9
}

// Broad-band samples: waves of 20 Hz, ten times as large as the noise, on an offset.
TEST(display_scale, unfiltered_traces_are_seen_and_stay_in_their_rows) {
  small_session session;
  make_recording(*session, 2, 60'000, 20'000, 0.5f);
  vector_random random(3);
  for (std::int32_t c = 1; c <= 2; ++c) {
    for (std::int32_t t = 1; t <= 60'000; ++t) {
      const double wave = 100 * std::sin(2 * std::numbers::pi * 20 * t / 20'000.0);
      const auto noise = static_cast<std::int32_t>(random.next() >> 8) % 35 - 17;
      session->recording.vd.channel(c)[t] = static_cast<std::int16_t>(wave + noise + 200);
    }
  }
  session->display.vd_channel_spacing = 20;
  compute_noise(*session);
  const float noise_uv = session->recording.chan_noise[1] * 0.5f;
  ASSERT_GT(noise_uv, 100.0f);
  autoscale_voltage_display(*session);
  const float scale = session->display.vd_voltage_scale;
  EXPECT_GT(50.0f * scale, 3.0f) << "a spike of 50 µV";
  EXPECT_LT(35.0f * scale, 20.0f / 2) << "the waves, 35 µV rms";
  EXPECT_LT(100.0f * scale, 5 * 20.0f) << "the offset";
  // As soon as they have been filtered, the rule of the noise holds again.
  session->recording.recording_filtered = true;
  autoscale_voltage_display(*session);
  EXPECT_FLOAT_EQ(
      session->display.vd_voltage_scale,
      20 *
          (1.1999999f / (session->recording.chan_noise[1] + session->recording.chan_noise[2]) * 2 /
           0.5f) /
          20);
}

}  // namespace
}  // namespace kestrelvane::test

// Moving about in the voltage record: every control with its own bounds.
#include "displays/voltage/voltage_navigation.h"

#include <gtest/gtest.h>

#include "displays/voltage/voltage_geometry.h"
#include "signal/display_scale.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// 100000 samples at 20 kHz, so 5 ms are 100 samples; a window of 800 x 420.
struct view_session : small_session {
  view_session() {
    make_recording(*state, 16, 100'000, 20'000);
    state->display.vd_time_scale = 1.0f;
    state->display.vd_channel_spacing = 40;
    state->view.vd_width = 800;
    state->view.vd_height = 420;
    reset_voltage_view(*state);
  }
  std::int32_t first() const { return state->view.vd_first_sample; }
  void add_event(std::int32_t time, std::int32_t channel, std::int32_t cluster = 0) {
    event_table& events = state->events;
    const std::int32_t e = ++events.n_events;
    events.event_time[e] = time;
    events.event_channel[e] = channel;
    events.event_cluster[e] = cluster;
  }
  void add_cluster(std::int32_t centre) {
    const std::int32_t c = ++state->clusters.n_clusters;
    state->clusters.current_cluster = c;
    state->templates.template_n_channels[c] = 1;
    state->templates.channels(c)[1] = centre;
  }
};

TEST(navigation, slider_and_steps_stop_at_their_own_ends) {
  view_session session;
  move_to_slider(*session, 136);  // 135 / 269 of the recording
  EXPECT_NEAR(session.first(), 135 * 100'000.0 / 269 + 1, 1.0);
  EXPECT_NEAR(session->view.vd_slider_position, 135, 1);
  move_to_slider(*session, 270);
  EXPECT_EQ(session.first(), 100'000 - 800);
  move_coarsely(*session, 1);
  EXPECT_EQ(session.first(), 100'000 - 800 + 250);
  move_coarsely(*session, 1);
  move_coarsely(*session, 1);
  EXPECT_EQ(session.first(), 100'000 - 250);
  move_finely(*session, 1);  // held to the fine control's bound, which lies before
  EXPECT_EQ(session.first(), 100'000 - 800);
  move_finely(*session, -1);
  EXPECT_EQ(session.first(), 100'000 - 800 - 15);
  move_to_slider(*session, 1);
  EXPECT_EQ(session.first(), 1);
  move_coarsely(*session, -1);
  EXPECT_EQ(session.first(), 1);
  EXPECT_EQ(session->view.vd_slider_position, 1);

  session->display.vd_time_scale = 0.1f;
  move_coarsely(*session, 1);
  EXPECT_EQ(session.first(), 1 + 2500);
  move_finely(*session, 1);
  EXPECT_EQ(session.first(), 1 + 2500 + 105);
  session->display.vd_time_scale = 1000.0f;  // 250 pixels are no sample: still a step
  move_coarsely(*session, 1);
  EXPECT_EQ(session.first(), 1 + 2500 + 105 + 1);
}

TEST(navigation, a_recording_shorter_than_the_window_starts_at_one) {
  view_session session;
  session->recording.n_samples = 600;
  for (const std::int32_t position : {1, 135, 270}) {
    move_to_slider(*session, position);
    EXPECT_EQ(session.first(), 1);
  }
  session->view.vd_first_sample = 5000;
  session->view.vd_highlight_on = true;
  session->display.vd_show_proto_events = true;
  prepare_voltage_dialog(*session);
  EXPECT_EQ(session.first(), 1);
  EXPECT_FALSE(session->view.vd_highlight_on);
  EXPECT_FALSE(session->display.vd_show_proto_events);  // none are held
}

TEST(navigation, go_to_index_and_event) {
  view_session session;
  session->view.vd_highlight_on = true;
  EXPECT_FALSE(go_to_index(*session, 50));
  EXPECT_FALSE(go_to_index(*session, 100'000));
  EXPECT_TRUE(session->view.vd_highlight_on);
  EXPECT_TRUE(go_to_index(*session, 51));
  EXPECT_EQ(session.first(), 1);
  EXPECT_FALSE(session->view.vd_highlight_on);
  EXPECT_TRUE(go_to_index(*session, 5000));
  EXPECT_EQ(session.first(), 4900);
  EXPECT_TRUE(go_to_index(*session, 99'999));
  EXPECT_EQ(session.first(), 100'000 - 250);
  session.add_event(99'990, 3);
  EXPECT_FALSE(go_to_event(*session, 0));
  EXPECT_FALSE(go_to_event(*session, 2));
  EXPECT_TRUE(go_to_event(*session, 1));
  EXPECT_EQ(session.first(), 100'000 - 800);
}

TEST(navigation, next_event_on_channel) {
  view_session session;
  for (const std::int32_t time : {1000, 3000, 2000}) session.add_event(time, 7);
  session.add_event(1500, 8);
  event_jump jump = go_to_next_event_on_channel(*session, 7);
  EXPECT_EQ(jump.event, 1);
  EXPECT_EQ(session.first(), 900);
  EXPECT_EQ(jump_event_text(jump), "1");
  EXPECT_EQ(jump_index_text(jump), "1000");
  EXPECT_TRUE(session->view.vd_highlight_on);
  EXPECT_EQ(session->view.vd_highlight_time, 900);
  EXPECT_EQ(session->view.vd_highlight_channel, 7);
  // Ten rows fit; row 7 comes five rows below the top.
  EXPECT_EQ(lay_out_voltage(*session).first_row, 2);
  // By number, not by time: event 2 stands before event 3.
  EXPECT_EQ(go_to_next_event_on_channel(*session, 7).event, 2);
  EXPECT_EQ(session.first(), 2900);
  // Behind the last one the same press returns to the last by number.
  EXPECT_EQ(go_to_next_event_on_channel(*session, 7).event, 3);
  EXPECT_EQ(session.first(), 1900);
  // None at all: the end, and blanks.
  jump = go_to_next_event_on_channel(*session, 1);
  EXPECT_EQ(session.first(), 100'000 - 100);
  EXPECT_EQ(jump_event_text(jump), " ");
  EXPECT_EQ(jump_index_text(jump), " ");
  EXPECT_FALSE(go_to_next_event_on_channel(*session, 17).done);
  EXPECT_FALSE(go_to_next_event_on_channel(*session, 0).done);
}

TEST(navigation, an_event_at_the_very_end_shows_as_the_end) {
  view_session session;
  session->recording.sampling_frequency = 4000;  // 5 ms are 20 samples
  session.add_event(99'975, 2);                  // its view would begin within 50 of the end
  const event_jump jump = go_to_next_event_on_channel(*session, 2);
  EXPECT_EQ(session.first(), 100'000 - 20);
  EXPECT_EQ(jump_event_text(jump), " ");
}

TEST(navigation, next_event_in_cluster) {
  view_session session;
  EXPECT_FALSE(go_to_next_event_in_cluster(*session).done);
  session.add_cluster(4);
  session.add_cluster(9);
  session.add_event(2000, 3, 1);
  session.add_event(2500, 3, 2);
  EXPECT_FALSE(choose_current_cluster(*session, 3));
  EXPECT_TRUE(choose_current_cluster(*session, 1));
  EXPECT_EQ(session->clusters.current_cluster, 1);
  EXPECT_EQ(go_to_next_event_in_cluster(*session).event, 1);
  EXPECT_EQ(session.first(), 1900);
  EXPECT_EQ(session->view.vd_highlight_channel, 4);  // the centre, not the event's own
  // None is left: 50 before the end, held to the lead.
  const event_jump jump = go_to_next_event_in_cluster(*session);
  EXPECT_EQ(session.first(), 100'000 - 100);
  EXPECT_EQ(jump_event_text(jump), " ");
  session->recording.sampling_frequency = 4000;
  session->view.vd_first_sample = 90'000;
  go_to_next_event_in_cluster(*session);
  EXPECT_EQ(session.first(), 100'000 - 50);
}

TEST(navigation, texts_of_the_boxes) {
  view_session session;
  session->view.vd_first_sample = 24'000;
  EXPECT_EQ(position_minutes_text(*session), "0.0200");
  EXPECT_EQ(displaying_events_text(12, 5).first, "12");
  EXPECT_EQ(displaying_events_text(12, 5).last, "16");
  EXPECT_EQ(displaying_events_text(0, 0).last, "");
  session->display.vd_time_scale = time_scale_at(1001);
  EXPECT_EQ(time_scale_text(*session), "1.149");

  recording_store& r = session->recording;
  r.is_continuous = false;
  EXPECT_EQ(position_minutes_text(*session), "");
  r.electrode_type = electrode_tetrode;
  r.n_tetrodes = 1;
  r.samples_per_event = 32;
  r.records_per_unit = 10;
  r.event_timestamp.reserve(11);
  r.timestamp(3, 1) = 90'000'000;  // a minute and a half
  session->view.vd_first_sample = 100 + 2 * 64;
  EXPECT_EQ(position_minutes_text(*session), "1.5000");
  session->view.vd_first_sample = 100 + 200 * 64;  // more records than there are
  EXPECT_EQ(position_minutes_text(*session), "0.0000");
}

TEST(navigation, wheel_keeps_the_sample_under_the_pointer) {
  view_session session;
  session->view.vd_first_sample = 50'000;
  const std::int32_t x = 416;  // 400 pixels behind the margin
  wheel_time_scale(*session, 5, x);
  EXPECT_NEAR(session->display.vd_time_scale, 2.0f, 1e-5f);
  EXPECT_EQ(session.first(), 50'200);
  wheel_time_scale(*session, -5, x);
  EXPECT_EQ(session->display.vd_time_scale, 1.0f);
  EXPECT_EQ(session.first(), 50'000);
  wheel_through_time(*session, 1);
  EXPECT_EQ(session.first(), 50'000 - 80);
  wheel_through_time(*session, -2000);
  EXPECT_EQ(session.first(), 100'000 - 250);
  session->display.vd_voltage_scale = 0.2f;
  wheel_voltage_scale(*session, 2);
  EXPECT_FLOAT_EQ(session->display.vd_voltage_scale, voltage_scale_at(52));
  wheel_voltage_scale(*session, -1000);
  EXPECT_FLOAT_EQ(session->display.vd_voltage_scale, voltage_scale_at(1));
}

// The slider's own formula puts most positions one below the place they lead to.
TEST(navigation, the_slider_steps_on_and_back_through_all_positions) {
  small_session session;
  for (const std::int32_t n_samples : {1000, 123'457, 2'000'000}) {
    make_recording(*session, 1, n_samples, 20'000);
    session->view.vd_width = 100;
    move_to_slider(*session, 1);
    std::int32_t before = session->view.vd_slider_position, n_steps = 0;
    const std::int32_t last_place = n_samples - 100;
    while (session->view.vd_first_sample < last_place && n_steps < 300) {
      step_slider(*session, 1);
      ++n_steps;
      if (session->view.vd_first_sample == last_place) break;
      EXPECT_GT(session->view.vd_slider_position, before) << n_samples;
      before = session->view.vd_slider_position;
    }
    EXPECT_EQ(session->view.vd_first_sample, last_place);
    for (n_steps = 0; session->view.vd_first_sample > 1 && n_steps < 300; ++n_steps) {
      step_slider(*session, -1);
    }
    EXPECT_EQ(session->view.vd_first_sample, 1) << n_samples;
    step_slider(*session, 1000);
    EXPECT_EQ(session->view.vd_first_sample, last_place);
    step_slider(*session, -1000);
    EXPECT_EQ(session->view.vd_first_sample, 1);
  }
}

TEST(navigation, time_zooms_from_the_whole_recording_to_single_samples) {
  small_session session;
  make_recording(*session, 1, 2'000'000, 20'000);
  session->view.vd_width = 1000;
  const time_scale_range range = find_time_scale_range(*session);
  EXPECT_FLOAT_EQ(range.least, 1000.0f / 2'000'000);
  EXPECT_FLOAT_EQ(range.greatest, 100.0f);
  EXPECT_GE(time_scale_at(range.first), range.least);
  EXPECT_LE(time_scale_at(range.last), range.greatest);
  for (int i = 0; i < 100; ++i) wheel_time_scale(*session, -1, 200);
  EXPECT_EQ(session->display.vd_time_scale, range.least);
  EXPECT_EQ(time_scale_text(*session), "0.0005");
  for (int i = 0; i < 200; ++i) wheel_time_scale(*session, 1, 200);
  EXPECT_EQ(session->display.vd_time_scale, range.greatest);
  // What a settings file brings is healed when the dialog opens.
  session->display.vd_time_scale = 1e-6f;
  prepare_voltage_dialog(*session);
  EXPECT_EQ(session->display.vd_time_scale, range.least);
}

}  // namespace
}  // namespace kestrelvane::test

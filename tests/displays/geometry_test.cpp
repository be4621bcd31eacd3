// Where rows, columns and events lie, and what columns read: plain forms against the
// product's.
#include "displays/voltage/voltage_geometry.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "detection/proto_events.h"
#include "displays/voltage/peak_summary.h"
#include "displays/voltage/visible_events.h"
#include "signal/display_scale.h"
#include "signal/interpolation.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

void show(session_state& session, std::int32_t width, std::int32_t height, std::int32_t spacing) {
  session.view.vd_width = width;
  session.view.vd_height = height;
  session.display.vd_channel_spacing = spacing;
  session.display.vd_time_scale = 1.0f;
  reset_voltage_view(session);
}

void fill_with_noise(session_state& session) {
  vector_random random(3);
  for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
    std::int16_t* v = session.recording.vd.channel(c);
    for (std::int32_t t = 1; t <= session.recording.n_samples; ++t) {
      v[t] = static_cast<std::int16_t>((random.next() >> 12 & 4095) - 2048);
    }
  }
}

TEST(geometry, rows_that_are_drawn) {
  small_session session;
  make_recording(*session, 64, 4000, 20'000);
  show(*session, 800, 600, 40);
  voltage_layout layout = lay_out_voltage(*session);
  EXPECT_EQ(layout.first_row, 1);
  EXPECT_EQ(layout.last_row, 600 / 40 + 1);
  EXPECT_EQ(row_baseline(layout, 1), 60);
  EXPECT_EQ(layout.margin, 16);
  EXPECT_EQ(layout.n_columns, 800 - 16 - 28);
  EXPECT_EQ(session->view.vd_lead_samples, 100);

  // The first row with a baseline of at least half a spacing and 11.
  for (std::int32_t top = -200; top <= 100; ++top) {
    session->view.vd_top_offset = top;
    layout = lay_out_voltage(*session);
    std::int32_t k = 1;
    while (static_cast<float>(top + 40 * (k - 1)) < 40 * 0.5f + 11) ++k;
    ASSERT_EQ(layout.first_row, k) << top;
    ASSERT_EQ(session->view.vd_first_channel, k);
  }
  // Scrolled past the end nothing is left to draw.
  scroll_to_row(*session, 73);
  layout = lay_out_voltage(*session);
  EXPECT_LT(layout.last_row, layout.first_row);
}

TEST(geometry, tetrodes_stand_apart_counted_from_the_top_row) {
  small_session session;
  make_recording(*session, 16, 4000);
  session->recording.electrode_type = electrode_tetrode;
  show(*session, 800, 600, 40);
  voltage_layout layout = lay_out_voltage(*session);
  EXPECT_EQ(row_baseline(layout, 4), 60 + 3 * 40);
  EXPECT_EQ(row_baseline(layout, 5), 60 + 4 * 40 + 20);
  EXPECT_EQ(row_baseline(layout, 9), 60 + 8 * 40 + 40);
  scroll_to_row(*session, 6);  // within the second tetrode: no gap up to its end
  layout = lay_out_voltage(*session);
  EXPECT_EQ(row_baseline(layout, 8), 60 + 2 * 40);
  EXPECT_EQ(row_baseline(layout, 9), 60 + 3 * 40 + 20);
}

TEST(geometry, rows_follow_the_display_order) {
  small_session session;
  make_recording(*session, 120, 4000);
  session->recording.chan_sort_order[1] = 7;
  session->recording.chan_sort_order[7] = 1;
  show(*session, 800, 100, 40);
  const voltage_layout layout = lay_out_voltage(*session);
  EXPECT_EQ(layout.margin, 24);  // three digits
  EXPECT_EQ(drawn_row(layout, 7), 1);
  EXPECT_EQ(drawn_row(layout, 1), 0);  // row 7 is not drawn
  EXPECT_EQ(drawn_row(layout, 0), 0);
}

// What a column shows, worked out one by one.
float plain_column(const session_state& session, std::int32_t channel, std::int32_t k, bool trace) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  const float scale = session.display.vd_time_scale;
  const std::int64_t first = session.view.vd_first_sample;
  if (trace && k == 1) return first < session.recording.n_samples ? v[first + 1] : 0.0f;
  if (scale == 1.0f) return first + k <= session.recording.n_samples ? v[first + k] : 0.0f;
  const float s = static_cast<float>(k) / scale;
  const auto whole = static_cast<std::int64_t>(s);
  if (first + whole > session.recording.n_samples) return 0.0f;
  const float step = static_cast<float>(session.tables.depth) * (s - static_cast<float>(whole));
  return interp_voltage(session, first + whole, channel, static_cast<std::int32_t>(step));
}

TEST(geometry, columns_read_what_the_plain_form_reads) {
  small_session session;
  make_recording(*session, 3, 20'000);
  fill_with_noise(*session);
  show(*session, 700, 200, 40);
  for (const float scale : {1.0f, 1.1486983f, 0.3f, 0.02f, 7.5f, 1e-6f, 1e6f}) {
    for (const std::int32_t first : {1, 9000, 19'400, 20'000}) {
      session->display.vd_time_scale = scale;
      session->view.vd_first_sample = first;
      const voltage_layout layout = lay_out_voltage(*session);
      std::vector<float> values(static_cast<std::size_t>(layout.n_columns) + 1);
      read_columns(*session, layout, find_trace_samples(*session, layout), 2, values.data());
      for (std::int32_t k = 1; k <= layout.n_columns; ++k) {
        ASSERT_EQ(values[k], plain_column(*session, 2, k, true))
            << scale << " " << first << " " << k;
      }
      read_columns(*session, layout, find_column_samples(*session, layout, 1), 3, values.data());
      ASSERT_EQ(values[1], plain_column(*session, 3, 1, false));
    }
  }
}

TEST(geometry, visible_events_are_those_of_a_plain_scan) {
  small_session session;
  make_recording(*session, 8, 1'000'000);
  show(*session, 700, 200, 40);
  event_table& events = session->events;
  vector_random random(5);
  events.n_events = 30'000;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    events.event_time[e] = 1 + static_cast<std::int32_t>(random.next() % 1'000'000);
    events.event_channel[e] = 1 + static_cast<std::int32_t>(random.next() >> 8) % 8;
  }
  for (const float scale : {1.0f, 0.013f, 9.0f, 1e-6f}) {
    session->display.vd_time_scale = scale;
    session->view.vd_first_sample = 400'000;
    const voltage_layout layout = lay_out_voltage(*session);
    std::vector<std::int32_t> plain;
    for (std::int32_t e = 1; e <= events.n_events; ++e) {
      const double x = (events.event_time[e] - 400'000) * double(scale) + 16;
      const bool inside = x >= 25 && static_cast<std::int32_t>(x) < 672;
      if (inside && drawn_row(layout, events.event_channel[e]) > 0) plain.push_back(e);
    }
    std::vector<std::int32_t> found;
    for (const visible_event& shown : find_visible_events(*session, layout, 16, 24, 672)) {
      found.push_back(shown.event);
    }
    EXPECT_EQ(found, plain) << scale;
    if (scale == 0.013f) {
      EXPECT_GT(plain.size(), 100u);
    }
  }
}

TEST(geometry, proto_events_are_found_by_their_time) {
  small_session session;
  make_recording(*session, 8, 10'000);
  show(*session, 700, 600, 40);
  detection_state& d = session->detector;
  const std::int32_t times[] = {999, 1000, 1001, 1300, 1655, 1656};
  for (const std::int32_t t : times) {
    d.proto_mark_time[++d.n_proto_marks] = t;
    d.proto_mark_channel[d.n_proto_marks] = 2;
  }
  session->view.vd_first_sample = 1000;
  const voltage_layout layout = lay_out_voltage(*session);
  std::vector<std::int32_t> found;
  for (const visible_event& shown : find_visible_proto_events(*session, layout, 16, 16, 672)) {
    found.push_back(times[shown.event - 1]);
  }
  EXPECT_EQ(found, (std::vector<std::int32_t>{1001, 1300, 1655}));
}

TEST(geometry, proto_events_of_a_run_are_held_until_the_next_recording) {
  small_session session;
  make_recording(*session, 4, 20'000);
  session->detection.threshold_mode = -1;
  session->detection.fixed_threshold_uv = 80;
  for (const std::int32_t t : {5000, 9000}) {
    for (const std::int32_t c : {2, 3}) put_samples(*session, c, t, {-150, -300, -150, 60});
  }
  ASSERT_EQ(detect_events_proto(*session), detection_end::done);
  const detection_state& d = session->detector;
  ASSERT_GE(d.n_proto_marks, 4);
  EXPECT_TRUE(
      std::is_sorted(d.proto_mark_time.base() + 1, d.proto_mark_time.base() + d.n_proto_marks + 1));
  EXPECT_NEAR(d.proto_mark_time[1], 5001, 5);
  EXPECT_EQ(d.proto_mark_channel[1], 2);
  reset_session(*session);
  EXPECT_EQ(d.n_proto_marks, 0);
}

TEST(peaks, every_sample_counts_in_one_column) {
  small_session session;
  make_recording(*session, 2, 300'000);
  fill_with_noise(*session);
  show(*session, 300, 200, 40);
  for (const float scale : {0.9f, 0.1f, 1.0f / 256, 1.0f / 300, 1.0f / 1100, 1e-4f}) {
    session->display.vd_time_scale = scale;
    for (const std::int32_t first : {1, 777, 260'000}) {
      session->view.vd_first_sample = first;
      const voltage_layout layout = lay_out_voltage(*session);
      const peak_columns columns = find_peak_columns(layout);
      const auto n = static_cast<std::size_t>(layout.n_columns);
      std::vector<sample_range> direct(n + 1), summed(n + 1);
      peak_summary peaks;
      ASSERT_TRUE(prepare_peaks(peaks, *session));
      EXPECT_EQ(read_peaks(*session, columns, 2, nullptr, direct.data()), layout.n_columns);
      EXPECT_EQ(read_peaks(*session, columns, 2, &peaks, summed.data()), layout.n_columns);
      const std::int16_t* v = session->recording.vd.channel(2);
      for (std::int32_t k = 1; k <= layout.n_columns; ++k) {
        const std::int64_t begin = columns.begin[k], end = columns.begin[k + 1];
        ASSERT_LE(begin, end);
        ASSERT_NEAR(static_cast<double>(begin),
                    std::min(first + (k - 1) / double(scale), 300'001.0), 0.26 / scale + 1);
        ASSERT_LE(end, 300'001);
        sample_range plain;
        if (begin < end) {
          plain = {*std::min_element(v + begin, v + end), *std::max_element(v + begin, v + end)};
        }
        for (const sample_range& range : {direct[k], summed[k]}) {
          ASSERT_EQ(range.least, plain.least) << scale << " " << first << " " << k;
          ASSERT_EQ(range.greatest, plain.greatest) << scale << " " << first << " " << k;
        }
      }
    }
  }
}

TEST(peaks, the_summary_fills_in_bounded_steps_and_is_forgotten) {
  small_session session;
  make_recording(*session, 1, 400'000);
  show(*session, 300, 200, 40);
  session->display.vd_time_scale = 256.0f / 400'000;
  put_samples(*session, 1, 350'000, {-900});
  const voltage_layout layout = lay_out_voltage(*session);
  const peak_columns columns = find_peak_columns(layout);
  std::vector<sample_range> ranges(static_cast<std::size_t>(layout.n_columns) + 1);
  const auto least = [&] {
    std::int16_t all = 0;
    for (const sample_range& range : ranges) all = std::min(all, range.least);
    return all;
  };
  peak_summary peaks;
  peaks.budget = 100'000;
  std::int32_t n = 0, n_draws = 0;
  while (n < layout.n_columns && n_draws < 20) {
    ASSERT_TRUE(prepare_peaks(peaks, *session));
    const std::int32_t before = n;
    n = read_peaks(*session, columns, 1, &peaks, ranges.data());
    ASSERT_GT(n, before);
    ++n_draws;
  }
  EXPECT_EQ(n, layout.n_columns);
  EXPECT_GE(n_draws, 3);
  EXPECT_EQ(least(), -900);
  put_samples(*session, 1, 350'000, {-500});
  forget_peaks(peaks);
  peaks.budget = 1'000'000;
  ASSERT_TRUE(prepare_peaks(peaks, *session));
  read_peaks(*session, columns, 1, &peaks, ranges.data());
  EXPECT_EQ(least(), -500);
}

}  // namespace
}  // namespace kestrelvane::test

// Pictures of the voltage record, pixel by pixel where that says something.
#include <gtest/gtest.h>

#include <QImage>
#include <QPainter>
#include <algorithm>

#include "displays/display_colours.h"
#include "displays/display_fonts.h"
#include "displays/picture_file.h"
#include "displays/trace_pen.h"
#include "displays/voltage/grey_image.h"
#include "displays/voltage/voltage_geometry.h"
#include "displays/voltage/voltage_readout.h"
#include "displays/voltage/voltage_record.h"
#include "files/safe_file.h"
#include "signal/display_scale.h"
#include "support/full_device.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr QRgb white = 0xFFFFFFFF, black = 0xFF000000, red = 0xFFFF0000, blue = 0xFF0000FF;

// Four flat channels at 20 kHz in a window of 600 x 300; rows at y = 60, 100, 140, 180,
// traces from x = 16 to 571, a pixel to the sample, half a pixel to the bit.
struct picture_session : small_session {
  drawn_events drawn;

  picture_session() {
    make_recording(*state, 4, 20'000, 20'000, 0.5f);
    state->view.vd_width = 600;
    state->view.vd_height = 300;
    state->view.vd_first_sample = 1001;
    state->display.vd_time_scale = 1.0f;
    state->display.vd_voltage_scale = 1.0f;
    state->display.vd_channel_spacing = 40;
    state->display.vd_show_events = true;
    state->display.vd_cluster_colours = false;
    state->display.vd_cluster_numbers = false;
    reset_voltage_view(*state);
    state->clusters.n_clusters = 12;
    for (std::int32_t c = 1; c <= 12; ++c) {
      state->templates.template_n_channels[c] = 1;
      state->templates.channels(c)[1] = 3;
    }
  }
  void add_event(std::int32_t time, std::int32_t channel, std::int32_t cluster) {
    event_table& events = state->events;
    const std::int32_t e = ++events.n_events;
    events.event_time[e] = time;
    events.event_channel[e] = channel;
    events.event_cluster[e] = cluster;
  }
  QImage draw(double ratio = 1.0, peak_summary* peaks = nullptr) {
    QImage image((QSizeF(600, 300) * ratio).toSize(), QImage::Format_RGB32);
    image.setDevicePixelRatio(ratio);
    image.fill(Qt::magenta);
    QPainter painter(&image);
    drawn = draw_voltage_display(*state, painter, peaks);
    return image;
  }
};

std::int32_t count_pixels(const QImage& image, QRgb colour, const QRect& where) {
  std::int32_t n = 0;
  for (std::int32_t y = where.top(); y <= where.bottom(); ++y) {
    for (std::int32_t x = where.left(); x <= where.right(); ++x) n += image.pixel(x, y) == colour;
  }
  return n;
}

TEST(picture, traces_run_from_the_margin_to_the_border) {
  picture_session session;
  put_samples(*session, 1, 1001 + 100, {40});  // 20 pixels up
  session->recording.chan_mask[2] = true;
  QImage image = session.draw();
  EXPECT_EQ(image.pixel(15, 60), white);
  EXPECT_EQ(image.pixel(16, 60), black);
  EXPECT_EQ(image.pixel(571, 60), black);
  EXPECT_EQ(image.pixel(572, 60), white);
  EXPECT_EQ(image.pixel(16 + 99, 40), black);  // column 100 reads sample 1101
  EXPECT_EQ(image.pixel(16 + 99, 39), white);
  EXPECT_EQ(image.pixel(300, 100), 0xFFB0B0B0);
  EXPECT_EQ(image.pixel(300, 180), black);
  EXPECT_EQ(image.pixel(300, 220), white);  // no fifth row
  session->view.vd_reverse_contrast = true;
  image = session.draw();
  EXPECT_EQ(image.pixel(300, 60), white);
  EXPECT_EQ(image.pixel(300, 61), black);
  EXPECT_EQ(image.pixel(300, 100), 0xFFB0B0B0);
  session->recording.n_samples = 0;
  image = session.draw();
  EXPECT_EQ(count_pixels(image, black, image.rect()), 600 * 300);
}

// What a painter's own polyline sets, as against the spans set one by one.
TEST(picture, pixels_of_traces_are_those_of_thin_lines) {
  vector_random random(11);
  for (std::int32_t swing : {1, 2, 3, 9, 60, 1000}) {
    std::vector<column_span> spans;
    for (int i = 0; i < 200; ++i) {
      const std::int32_t y =
          100 + static_cast<std::int32_t>(random.next() >> 8) % swing - swing / 2;
      spans.push_back({y, y});
    }
    QImage plain(200, 200, QImage::Format_RGB32), fast = plain;
    plain.fill(Qt::white);
    fast.fill(Qt::white);
    {
      QPainter painter(&plain);
      painter.setPen(QPen(Qt::black, 0));
      painter.drawPolyline(polyline_of(0, spans.data(), 200));
    }
    {
      QPainter painter(&fast);
      trace_pen pen = start_traces(painter, 200, 200, 1);
      draw_trace(pen, 0, spans.data(), 200, Qt::black);
      finish_traces(pen);
    }
    // Where a painter's line turns back it may set a pixel more or less.
    std::int32_t n_differ = 0;
    for (std::int32_t y = 0; y < 200; ++y) {
      for (std::int32_t x = 0; x < 200; ++x) n_differ += plain.pixel(x, y) != fast.pixel(x, y);
    }
    EXPECT_LE(n_differ, swing < 3 ? 0 : 100) << swing;
  }
}

TEST(picture, a_finer_device_shows_the_same_places) {
  picture_session session;
  put_samples(*session, 1, 1001 + 100, {40, 40, 40, 40});
  session.add_event(1001 + 300, 2, 0);
  const QImage image = session.draw(2.0);
  ASSERT_EQ(image.size(), QSize(1200, 600));
  for (const auto& [x, y] : {std::pair{300, 60}, {16 + 101, 40}, {400, 180}}) {
    for (const QPoint corner : {QPoint(0, 0), QPoint(1, 1)}) {
      EXPECT_EQ(image.pixel(QPoint(2 * x, 2 * y) + corner), black) << x << " " << y;
    }
    EXPECT_EQ(image.pixel(2 * x, 2 * y - 1), white);
    EXPECT_EQ(image.pixel(2 * x, 2 * y + 2), white);
  }
  const std::int32_t x = 16 + 300;
  EXPECT_EQ(image.pixel(2 * x + 1, 2 * 102 + 1), red);  // below the trace
}

TEST(picture, crowded_traces_on_a_finer_device_are_enlarged_pixels) {
  const auto drawn_at = [](double ratio) {
    QImage image((QSizeF(100, 50) * ratio).toSize(), QImage::Format_RGB32);
    image.setDevicePixelRatio(ratio);
    image.fill(Qt::white);
    QPainter painter(&image);
    trace_pen pen = start_traces(painter, 100, 50, 2000);
    const column_span spans[] = {{10, 10}, {12, 30}, {31, 31}, {9, 9}};
    draw_trace(pen, 20, spans, 4, Qt::black);
    finish_traces(pen);
    painter.end();
    image.setDevicePixelRatio(1.0);
    return image;
  };
  EXPECT_EQ(drawn_at(2.0), drawn_at(1.0).scaled(200, 100));
}

TEST(picture, event_marks) {
  picture_session session;
  session.add_event(1001 + 8, 1, 0);       // x = margin + 8: not beyond it
  session.add_event(1001 + 50, 1, 0);      // at home
  session.add_event(1001 + 100, 1, 2);     // shown on channel 3 when asked
  session.add_event(1001 + 555, 2, 0);     // x = 571
  session.add_event(1001 + 556, 2, 0);     // x = 572: out
  session->recording.chan_mask[2] = true;  // still marked
  QImage image = session.draw();
  EXPECT_EQ(session.drawn.first_event, 2);
  EXPECT_EQ(session.drawn.n_events_shown, 3);
  const auto mark_at = [&](std::int32_t x, std::int32_t y, QRgb colour) {
    // The trace covers the middle row of it.
    return count_pixels(image, colour, QRect(x - 3, y - 3, 7, 7));
  };
  EXPECT_EQ(mark_at(66, 60, red), 8);
  EXPECT_EQ(mark_at(116, 60, red), 8);
  EXPECT_EQ(mark_at(24, 60, red), 0);
  EXPECT_EQ(image.pixel(66, 58), red);
  EXPECT_EQ(image.pixel(65, 59), red);
  EXPECT_EQ(image.pixel(65, 58), white);
  session->view.vd_show_template_channel = true;
  image = session.draw();
  EXPECT_EQ(mark_at(116, 60, red), 0);
  EXPECT_EQ(mark_at(116, 140, blue), 8);
  EXPECT_EQ(mark_at(66, 60, red), 8);
  session->display.vd_show_events = false;
  image = session.draw();
  EXPECT_EQ(session.drawn.n_events_shown, 0);
  EXPECT_EQ(count_pixels(image, blue, image.rect()), 0);
}

TEST(picture, cluster_blocks_are_lightened) {
  EXPECT_EQ(lighten_word(0x2A22CD), 0x716BDDu);
  picture_session session;
  session->display.vd_cluster_colours = true;
  session.add_event(1001 + 100, 1, 1);
  session.add_event(1001 + 200, 1, 11);  // the colours begin anew
  session.add_event(1001 + 300, 1, 0);
  session->events.event_subcluster[1] = 1;
  QImage image = session.draw();
  const QRgb first = qRgb(0xDD, 0x6B, 0x71);
  // 17 x 21 pixels less the trace, and the dot of 2 x 2.
  EXPECT_EQ(count_pixels(image, first, QRect(116 - 10, 45, 21, 30)), 17 * 20 - 4);
  EXPECT_EQ(image.pixel(116 + 6, 60 + 7), white);
  EXPECT_EQ(image.pixel(116 + 8, 60 + 10), first);
  EXPECT_EQ(count_pixels(image, first, QRect(216 - 10, 45, 21, 30)), 17 * 20);
  EXPECT_EQ(image.pixel(316, 55), 0xFFE5E5E5);
  session->view.vd_reverse_contrast = true;
  EXPECT_EQ(session.draw().pixel(316, 55), 0xFF212121);
}

TEST(picture, ring_grid_bars_and_proto_events) {
  picture_session session;
  session->display.vd_msec_grid = true;
  session->view.vd_highlight_on = true;
  session->view.vd_highlight_time = 1001;  // 100 samples to the left of the target
  session->view.vd_highlight_channel = 2;
  session->display.vd_show_proto_events = true;
  session->detector.n_proto_marks = 1;
  session->detector.proto_mark_time[1] = 1001 + 400;
  session->detector.proto_mark_channel[1] = 4;
  QImage image = session.draw();
  const QRgb ring = 0xFFFF6060;
  EXPECT_GT(count_pixels(image, ring, QRect(116 - 20, 80, 41, 41)), 100);
  EXPECT_EQ(count_pixels(image, ring, QRect(116 - 10, 90, 21, 21)), 0);
  // 20 pixels to the millisecond.
  EXPECT_EQ(count_pixels(image, 0xFFE0E0E0, QRect(16, 250, 20, 1)), 1);
  EXPECT_EQ(image.pixel(16, 250), 0xFFE0E0E0);
  EXPECT_EQ(image.pixel(36, 299), 0xFFE0E0E0);
  EXPECT_EQ(image.pixel(36, 17), white);
  EXPECT_EQ(count_pixels(image, 0xFF00FF00, QRect(410, 170, 20, 20)), 9);  // over the trace
  // 10 ms are 200 pixels; 200 µV likewise.
  EXPECT_EQ(count_pixels(image, black, QRect(300, 3, 300, 2)), 400);
  EXPECT_EQ(image.pixel(579, 3), black);
  EXPECT_EQ(image.pixel(580, 3), white);
  EXPECT_EQ(count_pixels(image, black, QRect(575, 30, 2, 270)), 400);
  session->view.vd_highlight_time = 1001 - 90;  // the ring would touch the margin
  session->display.vd_time_scale = 0.4f;        // a millisecond is 8 pixels: lines every 10
  image = session.draw();
  EXPECT_EQ(count_pixels(image, ring, image.rect()), 0);
  EXPECT_EQ(count_pixels(image, 0xFFE0E0E0, QRect(16, 250, 160, 1)), 2);
  session->display.vd_time_scale = 2.5f;  // 10 ms would be 500 pixels: the bar shows 5
  image = session.draw();
  EXPECT_EQ(count_pixels(image, black, QRect(100, 3, 500, 1)), 250);
}

// Samples 1101 to 1120 of all channels, and 1201 on of channel 3, stand on grey.
TEST(picture, blanked_stretches_are_seen) {
  picture_session s;
  constexpr QRgb band = 0xFFE8E8E8;
  s->recording.blanked = {{0, 1101, 1120}, {3, 1201, 5000}, {1, 1, 500}};
  const QImage image = s.draw();
  EXPECT_EQ(image.pixel(115, 80), white);
  EXPECT_EQ(image.pixel(116, 80), band);
  EXPECT_EQ(image.pixel(135, 120), band);
  EXPECT_EQ(image.pixel(136, 120), white);
  EXPECT_EQ(image.pixel(400, 150), band);
  EXPECT_EQ(image.pixel(400, 110), white) << "of the channel before";
  EXPECT_EQ(image.pixel(400, 170), white);
  EXPECT_EQ(image.pixel(20, 50), white) << "before the edge";
}

TEST(picture, labels_stay_readable) {
  picture_session session;
  const auto red_rows = [](const QImage& image) {
    std::vector<bool> inked(static_cast<std::size_t>(image.height()));
    for (std::int32_t y = 0; y < image.height(); ++y) {
      for (std::int32_t x = 0; x < 16; ++x) {
        const QColor c = image.pixelColor(x, y);
        if (c.red() > c.blue() + 40) inked[static_cast<std::size_t>(y)] = true;
      }
    }
    return std::count(inked.begin(), inked.end(), true);
  };
  const auto four_numbers = red_rows(session.draw());
  EXPECT_GT(four_numbers, 4 * 6);
  EXPECT_LT(four_numbers, 4 * 12);
  // Rows of two pixels: one number stands for all, instead of four on top of each other.
  set_channel_spacing(*session, 2);
  EXPECT_LT(red_rows(session.draw()), 12);
  // Cluster numbers stand above their rows.
  set_channel_spacing(*session, 40);
  session->display.vd_show_events = false;
  session.add_event(1001 + 100, 1, 12);
  const QRect above(116 - 14, 60 - 22, 28, 14);
  EXPECT_EQ(count_pixels(session.draw(), white, above), 28 * 14);
  session->display.vd_cluster_numbers = true;
  EXPECT_LT(count_pixels(session.draw(), white, above), 28 * 14 - 20);
}

TEST(picture, peaks_that_sampling_misses) {
  picture_session session;
  session->display.vd_time_scale = 0.05f;
  put_samples(*session, 1, 1001 + 2011, {-60});  // in column 101, which ends at sample 3021
  QImage image = session.draw();
  EXPECT_EQ(image.pixel(16 + 100, 85), white);
  session->view.vd_keep_peaks = true;
  peak_summary peaks;
  for (peak_summary* summary : {static_cast<peak_summary*>(nullptr), &peaks}) {
    image = session.draw(1.0, summary);
    EXPECT_TRUE(session.drawn.complete);
    EXPECT_EQ(count_pixels(image, black, QRect(116, 60, 1, 31)), 31);
    EXPECT_EQ(image.pixel(116, 91), white);
  }
  // The read-out knows the peak, at its own time.
  session->view.vd_mouse_x = 116;
  session->view.vd_mouse_y = 88;
  const voltage_reading reading = read_voltage_at_pointer(*session);
  EXPECT_TRUE(reading.found);
  EXPECT_EQ(reading.index, 1001 + 2011);
  EXPECT_EQ(reading.microvolts, -30.0f);
}

TEST(picture, read_out) {
  picture_session session;
  put_samples(*session, 3, 1001 + 200, {-41});  // 20 pixels below 140: trunc(140 + 20.5)
  session->view.vd_mouse_x = 16 + 198;          // column 200 stands two pixels on
  session->view.vd_mouse_y = 157;
  voltage_reading reading = read_voltage_at_pointer(*session);
  EXPECT_TRUE(reading.found);
  EXPECT_EQ(reading.distance, 3);
  EXPECT_EQ(reading.channel, 3);
  EXPECT_EQ(reading.index, 1201);
  EXPECT_FLOAT_EQ(reading.microvolts, -20.5f);
  EXPECT_NEAR(reading.minutes, 1201 / 20'000.0 / 60, 1e-9);
  session->view.vd_mouse_y = 156;  // four pixels off, also from the row itself
  reading = read_voltage_at_pointer(*session);
  EXPECT_FALSE(reading.found);
  EXPECT_EQ(reading.distance, 4);
  // Magnified, any column within a sample's width may be nearest.
  session->display.vd_time_scale = 10.0f;
  session->view.vd_first_sample = 1190;
  session->view.vd_mouse_x = 16 + 110 - 2 + 8;
  session->view.vd_mouse_y = 160;
  reading = read_voltage_at_pointer(*session);
  EXPECT_EQ(reading.index, 1201);
  EXPECT_LE(reading.distance, 1);

  // An event-based recording tells the time of the record.
  recording_store& r = session->recording;
  r.is_continuous = false;
  r.samples_per_event = 32;
  r.records_per_unit = 100;
  r.event_timestamp.reserve(101 * 4);
  r.timestamp((1201 - 100) / 64 + 1, 3) = 120'000'000;
  EXPECT_DOUBLE_EQ(read_voltage_at_pointer(*session).minutes, 2.0);
}

TEST(picture, read_out_line) {
  picture_session session;
  QImage image(600, 40, QImage::Format_RGB32);
  const auto ink = [&](const voltage_reading& reading, const QRect& where) {
    image.fill(Qt::white);
    QPainter painter(&image);
    draw_readout(*session, painter, reading);
    painter.end();
    return where.width() * where.height() - count_pixels(image, 0xFFF2F2F2, where);
  };
  // Where the values of the widest reading leave ink that the labels alone do not.
  const auto inked_columns = [&](const voltage_reading& reading) {
    std::vector<bool> columns;
    for (std::int32_t x = 5; x < 590; ++x) columns.push_back(ink(reading, {x, 3, 1, 12}) > 0);
    return columns;
  };
  const std::vector<bool> labels = inked_columns({});
  const std::vector<bool> all = inked_columns({.found = true,
                                               .channel = 4096,
                                               .index = 1'234'567'890,
                                               .microvolts = -1234.5f,
                                               .minutes = 1234.5678});
  // The labels stay where they are, and no value touches one.
  for (std::size_t x = 1; x + 1 < all.size(); ++x) {
    EXPECT_LE(labels[x], all[x]) << x;
    const bool of_value = all[x] && !labels[x];
    EXPECT_FALSE(of_value && (labels[x - 1] || labels[x + 1])) << x;
  }
  EXPECT_GT(std::count(all.begin(), all.end(), true),
            std::count(labels.begin(), labels.end(), true) + 100);
  EXPECT_EQ(image.pixel(5, 16), 0xFFF2F2F2);
  EXPECT_EQ(image.pixel(4, 16), white);
}

TEST(picture, grey_image) {
  picture_session session;
  session->view.vd_grey_scale = true;
  session->display.vd_voltage_scale = 0.4f;  // 0.9 greys to the bit
  put_samples(*session, 2, 1001 + 50, {100, -100, 1000, -1000});
  session.add_event(1001 + 200, 3, 0);
  QImage image = session.draw();
  // Ten pixels to the row, from y = 11 on; column 1 stands at x = 17.
  EXPECT_EQ(image.pixel(17, 10), white);
  EXPECT_EQ(image.pixel(16, 30), white);
  EXPECT_EQ(image.pixel(17, 11), 0xFF7F7F7F);
  EXPECT_EQ(image.pixel(599, 50), 0xFF7F7F7F);
  EXPECT_EQ(image.pixel(17, 51), white);
  const std::int32_t x = 16 + 50;
  for (const std::int32_t y : {21, 30}) {
    EXPECT_EQ(image.pixel(x, y), qRgb(217, 217, 217));
    EXPECT_EQ(image.pixel(x + 1, y), qRgb(37, 37, 37));
    EXPECT_EQ(image.pixel(x + 2, y), white);
    EXPECT_EQ(image.pixel(x + 3, y), black);
  }
  EXPECT_EQ(count_pixels(image, red, image.rect()), 5);
  EXPECT_EQ(image.pixel(216, 36), red);
  EXPECT_EQ(session.drawn.first_event, 1);
  session->recording.file_type = file_type_ntt;
  image = session.draw();
  EXPECT_EQ(image.pixel(17, 60), white);
  EXPECT_EQ(image.pixel(17, 61), 0xFF7F7F7F);
}

TEST(picture, fonts_by_their_short_names) {
  font_description font;
  EXPECT_TRUE(parse_font("t'Courier'h20w12b", font));
  EXPECT_EQ(font.typeface, "Courier");
  EXPECT_EQ(font.height, 20);
  EXPECT_EQ(font.width, 12);
  EXPECT_TRUE(font.bold);
  EXPECT_FALSE(font.underlined);
  EXPECT_TRUE(parse_font("t'Arial'h14w0u", font));
  EXPECT_TRUE(font.underlined);
  for (const char* name : {"t'Arial'h12w6pe", "t'Arial'h16w5", "t'Courier'h12w8f"}) {
    ASSERT_TRUE(parse_font(name, font));
    const QFontMetricsF metrics(make_font(font));
    EXPECT_LE(metrics.height(), font.height + 1) << name;
    EXPECT_GE(metrics.height(), font.height - 3) << name;
  }
  small_session session;
  QImage image(10, 10, QImage::Format_RGB32);
  QPainter painter(&image);
  use_font(*session, painter, "t'Arial'h12w6pe");
  const QFont before = painter.font();
  for (const char* bad : {"Arial", "t'Arial", "t''h12w0", "t'Arial'h0w0", "t'Arial'h12w6x",
                          "t'Arial'w6h12", "t'Arial'h99999999999w6"}) {
    use_font(*session, painter, bad);
    EXPECT_TRUE(session.user.logged(std::string("Problem loading Font string=") + bad));
    EXPECT_EQ(painter.font(), before);
  }
}

TEST(picture, marks_shrink_with_the_time_scale) {
  picture_session session;
  session.add_event(1001 + 200, 2, 1);
  session->display.vd_cluster_colours = true;
  const auto width_at = [&](float scale) {
    session->display.vd_time_scale = scale;
    const QImage image = session.draw();
    const auto x = 16 + static_cast<std::int32_t>(200 * scale);
    const QRgb colour = image.pixel(x, 105);
    EXPECT_NE(colour, white) << scale;
    return count_pixels(image, colour, {x - 20, 105, 41, 1});
  };
  EXPECT_EQ(width_at(2.0f), 17);
  EXPECT_EQ(width_at(1.0f), 17);
  EXPECT_EQ(width_at(0.5f), 9);
  EXPECT_EQ(width_at(0.25f), 5);
  EXPECT_EQ(width_at(0.1f), 3);
  session->display.vd_cluster_colours = false;
  session->display.vd_time_scale = 0.1f;
  EXPECT_EQ(count_pixels(session.draw(), red, {30, 80, 20, 40}), 4) << "but for the trace over it";
}

// The bar at the upper right, in pixels.
TEST(picture, bars_follow_the_scales) {
  picture_session session;
  const auto time_bar = [&](float scale) {
    session->display.vd_time_scale = scale;
    return count_pixels(session.draw(), black, {100, 3, 500, 1});
  };
  EXPECT_EQ(time_bar(1.0f), 200) << "10 ms of 20 samples";
  EXPECT_EQ(time_bar(0.25f), 50) << "the same 10 ms";
  EXPECT_EQ(time_bar(0.1f), 400) << "200 ms, where 10 would be 20 pixels";
  EXPECT_EQ(time_bar(0.001f), 400) << "20 s";
  session->display.vd_time_scale = 1.0f;
  const auto voltage_bar = [&](float scale) {
    session->display.vd_voltage_scale = scale;
    return count_pixels(session.draw(), black, {575, 30, 1, 270});
  };
  EXPECT_EQ(voltage_bar(1.0f), 200);
  EXPECT_EQ(voltage_bar(0.1f), 20) << "200 µV still";
  EXPECT_EQ(voltage_bar(0.01f), 200) << "20 mV";
  EXPECT_EQ(voltage_bar(10.0f), 200) << "20 µV";
}

TEST(picture, peaks_are_kept_where_a_column_holds_hundreds_of_samples) {
  picture_session session;
  make_recording(*session, 1, 400'000, 20'000, 0.5f);
  session->view.vd_first_sample = 1;
  reset_voltage_view(*session);
  put_samples(*session, 1, 100'150, {60});  // up by 30 pixels, between the columns
  session->view.vd_keep_peaks = false;
  const auto reaches = [&](float scale) {
    session->display.vd_time_scale = scale;
    return count_pixels(session.draw(), black, {17, 31, 500, 2}) > 0;
  };
  EXPECT_FALSE(reaches(1 / 255.0f));
  EXPECT_TRUE(reaches(1 / 300.0f));
}

TEST(picture, a_bitmap_replaces_the_old_one_or_nothing) {
  const temporary_directory folder;
  QImage old(60, 40, QImage::Format_RGB32), newer(300, 200, QImage::Format_RGB32);
  old.fill(red);
  newer.fill(blue);
  for (const char* name : {"picture.png", "picture.BMP"}) {
    const std::string path = folder.file(name);
    ASSERT_TRUE(write_image(path, old)) << name;
    EXPECT_EQ(QImage(QString::fromStdString(path)), old) << name;
  }
  const std::string path = folder.file("picture.BMP");
  {
    const full_device full;
    EXPECT_FALSE(write_image(path, newer));
    EXPECT_EQ(why_not_saved(path), path + ": File too large");
  }
  EXPECT_EQ(QImage(QString::fromStdString(path)), old);
  EXPECT_TRUE(partial_files(path).empty());
  EXPECT_FALSE(write_image(folder.file("picture.unknown"), newer));
  EXPECT_FALSE(write_image(folder.file("picture.png"), QImage()));
}

}  // namespace
}  // namespace kestrelvane::test

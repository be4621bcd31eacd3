#include "displays/voltage/voltage_record.h"

#include <fmt/format.h>

#include <QFontMetrics>
#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <utility>

#include "displays/display_colours.h"
#include "displays/display_fonts.h"
#include "displays/trace_pen.h"
#include "displays/voltage/grey_image.h"
#include "displays/voltage/visible_events.h"
#include "displays/voltage/voltage_geometry.h"

namespace kestrelvane {

namespace {

constexpr std::uint32_t black = 0, white = 0xFFFFFF;
constexpr std::uint32_t red = 0xFF, green = 0xFF00, blue = 0xFF0000;
constexpr std::uint32_t masked_grey = 0xB0B0B0;

// One draw: what it paints, with what, and where.
struct voltage_painting {
  session_state& session;
  QPainter& painter;
  voltage_layout layout;
  bool reversed;

  voltage_painting(session_state& s, QPainter& p)
      : session(s), painter(p), layout(lay_out_voltage(s)), reversed(s.view.vd_reverse_contrast) {}
  QColor text_colour() const { return colour_of_word(reversed ? white : black); }
  void fill(std::int32_t x, std::int32_t y, std::int32_t width, std::int32_t height,
            std::uint32_t word) {
    painter.fillRect(x, y, width, height, colour_of_word(word));
  }
};

// A 3 x 3 block round a pixel.
void mark_place(voltage_painting& p, std::int32_t x, std::int32_t y, std::uint32_t word) {
  p.fill(x - 1, y - 1, 3, 3, word);
}

// Pixels of a millisecond; 0 when the rate is below one sample to the millisecond.
float pixels_per_ms(const voltage_painting& p) {
  // Whole samples to a millisecond, as the bar has always been drawn.
  return static_cast<float>(p.session.recording.sampling_frequency / 1000) * p.layout.time_scale;
}

// ---------------------------------------------------------------- behind the traces

constexpr std::int32_t below_bar = 18;  // y under the time bar and its text

void draw_grid(voltage_painting& p) {
  constexpr float closest = 2.0f;  // pixels; lines nearer than that are no grid
  const float ms = pixels_per_ms(p);
  // Lines every millisecond would stand too close.
  const float step = ms < 10.0f ? 10.0f * ms : ms;
  if (step < closest) return;
  const std::uint32_t word = p.reversed ? 0x404040 : 0xE0E0E0;
  for (std::int32_t i = 0;; ++i) {
    const float x = static_cast<float>(p.layout.margin) + static_cast<float>(i) * step;
    if (x >= static_cast<float>(p.layout.trace_end)) return;
    p.fill(static_cast<std::int32_t>(x), below_bar, 1, p.layout.height - below_bar, word);
  }
}

// A band where samples were blanked, across all rows or in that of its channel.
void draw_blanked(voltage_painting& p) {
  const std::uint32_t word = p.reversed ? 0x303030 : 0xE8E8E8;
  for (const blanked_stretch& s : p.session.recording.blanked) {
    const float from = place_of_sample(p.layout, s.first, p.layout.margin);
    const float to = place_of_sample(p.layout, s.last + 1, p.layout.margin);
    const auto left = static_cast<float>(p.layout.margin);
    const auto right = static_cast<float>(p.layout.trace_end);
    if (to < left || from >= right) continue;
    const std::int32_t row = drawn_row(p.layout, s.channel);
    if (s.channel > 0 && row == 0) continue;
    const auto x = static_cast<std::int32_t>(std::max(from, left));
    // A pixel at least, however far the record is zoomed out.
    const std::int32_t width = std::max(static_cast<std::int32_t>(std::min(to, right)) - x, 1);
    const std::int32_t half = p.layout.spacing / 2;
    if (s.channel == 0) {
      p.fill(x, below_bar, width, p.layout.height - below_bar, word);
    } else {
      p.fill(x, row_baseline(p.layout, row) - half, width, 2 * half, word);
    }
  }
}

void draw_ring(voltage_painting& p) {
  constexpr std::int32_t radius = 18, n_sides = 16;
  const voltage_view& view = p.session.view;
  const voltage_layout& layout = p.layout;
  const std::int32_t row = drawn_row(layout, view.vd_highlight_channel);
  if (!view.vd_highlight_on || row == 0) return;
  const float place =
      place_of_sample(layout, view.vd_highlight_time + view.vd_lead_samples, layout.margin);
  // The ring is drawn whole or not at all.
  if (!(place >= static_cast<float>(layout.margin + radius + 1) &&
        place < static_cast<float>(layout.trace_end - radius))) {
    return;
  }
  const auto x = static_cast<std::int32_t>(place);
  QPolygonF ring;
  for (std::int32_t side = 0; side < n_sides; ++side) {
    const double angle = 2 * std::numbers::pi * side / n_sides;
    ring << QPointF(x + 0.5 + radius * std::cos(angle),
                    row_baseline(layout, row) + 0.5 + radius * std::sin(angle));
  }
  p.painter.setPen(QPen(colour_of_word(0x6060FF), 2));
  p.painter.setBrush(Qt::NoBrush);
  p.painter.drawPolygon(ring);
}

std::uint32_t block_colour(const voltage_painting& p, std::int32_t cluster) {
  if (cluster > 0) return lighten_word(cluster_colour_word(p.session, cluster));
  return p.reversed ? 0x212121 : lighten_word(0xD8D8D8);
}

// Half the width of a mark that is so wide where a sample has a pixel: zoomed out it shrinks
// with its spike, or the marks would run into one band that hides which traces have spikes.
std::int32_t half_width(const voltage_painting& p, std::int32_t full) {
  const float shrunk = static_cast<float>(full) * std::min(p.layout.time_scale, 1.0f);
  return static_cast<std::int32_t>(std::lround(shrunk));
}

void draw_cluster_block(voltage_painting& p, const visible_event& shown) {
  constexpr std::int32_t full = 8;
  const std::int32_t cluster = p.session.events.event_cluster[shown.event];
  const std::int32_t y = row_baseline(p.layout, shown.row), half = half_width(p, full);
  p.fill(shown.x - half, y - 10, 2 * half + 1, 21, block_colour(p, cluster));
  // The mark of sub-cluster 1, in a corner of its block.
  if (half == full && cluster > 0 && p.session.events.event_subcluster[shown.event] == 1) {
    p.fill(shown.x + 6, y + 7, 2, 2, white);
  }
}

void draw_event_mark(voltage_painting& p, const visible_event& shown) {
  // Blue where the template's channel stands in for the event's own.
  const bool at_home = p.session.events.event_channel[shown.event] == shown.channel;
  const std::uint32_t word = at_home ? red : blue;
  const std::int32_t x = shown.x, y = row_baseline(p.layout, shown.row);
  const std::int32_t half = half_width(p, 2);
  p.fill(x - half, y, 2 * half + 1, 1, word);
  if (half > 0) p.fill(x - half / 2, y - 1, 2 * (half / 2) + 1, 3, word);
  p.fill(x, y - 2, 1, 5, word);
}

void draw_events(voltage_painting& p, const std::vector<visible_event>& events) {
  // Below everything else, since it only points to a place.
  draw_ring(p);
  for (const visible_event& shown : events) {
    if (p.session.display.vd_cluster_colours) {
      draw_cluster_block(p, shown);
    } else {
      draw_event_mark(p, shown);
    }
  }
}

// ---------------------------------------------------------------- traces

// Buffers of one draw, used row after row.
struct trace_buffers {
  std::vector<float> values;         // bits, by column
  std::vector<sample_range> ranges;  // by column
  std::vector<column_span> spans;    // from 0
  explicit trace_buffers(std::int32_t n_columns)
      : values(static_cast<std::size_t>(n_columns) + 1),
        ranges(static_cast<std::size_t>(n_columns) + 1),
        spans(static_cast<std::size_t>(n_columns)) {}
};

void sampled_spans(const voltage_painting& p, const column_samples& columns, std::int32_t row,
                   trace_buffers& buffers) {
  const voltage_to_pixels pixels(p.session);
  const std::int32_t baseline = row_baseline(p.layout, row);
  read_columns(p.session, p.layout, columns, p.session.recording.chan_sort_order[row],
               buffers.values.data());
  for (std::int32_t k = 1; k <= p.layout.n_columns; ++k) {
    const std::int32_t y = pixels.y(baseline, buffers.values[k]);
    buffers.spans[k - 1] = {y, y};
  }
}

// From the nearer end of each column's range to the other. How many columns there are:
// fewer than all where the summary is not filled yet.
std::int32_t peak_spans(const voltage_painting& p, const peak_columns& columns, std::int32_t row,
                        peak_summary* peaks, trace_buffers& buffers) {
  const voltage_to_pixels pixels(p.session);
  const std::int32_t baseline = row_baseline(p.layout, row);
  const std::int32_t n = read_peaks(p.session, columns, p.session.recording.chan_sort_order[row],
                                    peaks, buffers.ranges.data());
  std::int32_t last = baseline;
  for (std::int32_t k = 1; k <= n; ++k) {
    column_span span = {pixels.y(baseline, buffers.ranges[k].greatest),
                        pixels.y(baseline, buffers.ranges[k].least)};
    // The shorter way from the column before, so that lines do not cross the trace twice.
    if (std::abs(span.leave - last) < std::abs(span.enter - last))
      std::swap(span.enter, span.leave);
    buffers.spans[k - 1] = span;
    last = span.leave;
  }
  return n;
}

// False when some peaks could not be drawn yet.
bool draw_traces(voltage_painting& p, peak_summary* peaks) {
  const voltage_layout& layout = p.layout;
  const bool keeps = keeps_peaks(p.session);
  if (layout.n_columns == 0) return true;
  // Without memory for the summary the samples are read, however many they are.
  if (peaks != nullptr && keeps && !prepare_peaks(*peaks, p.session)) peaks = nullptr;
  const column_samples columns = find_trace_samples(p.session, layout);
  const peak_columns borders = keeps ? find_peak_columns(layout) : peak_columns{};
  trace_buffers buffers(layout.n_columns);
  trace_pen pen =
      start_traces(p.painter, layout.width, layout.height, layout.last_row - layout.first_row + 1);
  bool complete = true;
  for (std::int32_t row = layout.first_row; row <= layout.last_row; ++row) {
    std::int32_t n = layout.n_columns;
    if (keeps) {
      n = peak_spans(p, borders, row, peaks, buffers);
      // Rows that could not be filled are finished in later rounds.
      complete = complete && n == layout.n_columns;
    } else {
      sampled_spans(p, columns, row, buffers);
    }
    const recording_store& r = p.session.recording;
    const bool masked = r.chan_mask[r.chan_sort_order[row]];
    draw_trace(pen, layout.margin, buffers.spans.data(), n,
               masked ? colour_of_word(masked_grey) : p.text_colour());
  }
  finish_traces(pen);
  return complete;
}

void draw_proto_events(voltage_painting& p) {
  const voltage_to_pixels pixels(p.session);
  for (const visible_event& shown : find_visible_proto_events(
           p.session, p.layout, p.layout.margin, p.layout.margin, p.layout.trace_end)) {
    const std::int32_t t = p.session.detector.proto_mark_time[shown.event];
    // At the sample that triggered, on the trace.
    const auto bits = static_cast<float>(p.session.recording.vd.channel(shown.channel)[t]);
    mark_place(p, shown.x, pixels.y(row_baseline(p.layout, shown.row), bits), green);
  }
}

// ---------------------------------------------------------------- bars and labels

// Whole pixels, and no more than a window can show.
std::int32_t bar_length(float pixels) {
  return static_cast<std::int32_t>(std::clamp(pixels, 0.0f, 1e4f));
}

// The value of a bar: the usual one where that is neither a speck nor too long, else the
// longest of 1, 2, 5 times a power of ten that fits.
double bar_value(double usual, double pixels_per_unit, double shortest, double longest) {
  const double length = usual * pixels_per_unit;
  if (!(pixels_per_unit > 0) || (length >= shortest && length <= longest)) return usual;
  // Scales are 32-bit numbers: 19.999998 is 20.
  const double most = longest / pixels_per_unit * (1 + 1e-6);
  const double power = std::pow(10.0, std::floor(std::log10(most)));
  const double digit = most / power;
  return power * (digit >= 5 ? 5 : digit >= 2 ? 2 : 1);
}

std::string time_text(double ms) {
  // The usual ones in two digits.
  if (ms == 1 || ms == 5 || ms == 10) return fmt::format("{:2} ms", static_cast<int>(ms));
  if (ms < 1) return fmt::format("{:g} µs", ms * 1000);
  if (ms < 1000) return fmt::format("{:g} ms", ms);
  return ms < 60'000 ? fmt::format("{:g} s", ms / 1000) : fmt::format("{:.3g} min", ms / 60'000);
}

void draw_time_bar(voltage_painting& p) {
  constexpr float longest = 400.0f, shortest = 40.0f;
  // By the rate itself where whole samples would not make a millisecond.
  const float whole = pixels_per_ms(p);
  const float ms = whole > 0 ? whole
                             : static_cast<float>(p.session.recording.sampling_frequency) *
                                   p.layout.time_scale / 1000.0f;
  // As long a bar as fits, of ten, five or one.
  const int usual = 10 * ms <= longest ? 10 : 5 * ms <= longest ? 5 : 1;
  const double n_ms = bar_value(usual, ms, shortest, longest);
  const std::int32_t length = bar_length(static_cast<float>(n_ms * ms));
  const std::int32_t end = p.layout.width - 20;
  p.painter.fillRect(end - length, 3, length, 2, p.text_colour());
  draw_text(p.painter, end - length / 2 - 20, 5, QString::fromStdString(time_text(n_ms)));
}

void draw_voltage_bar(voltage_painting& p) {
  const float pixels = p.session.display.vd_voltage_scale;
  const double longest = std::max(p.layout.height - 60, 20);
  const double uv = bar_value(200, pixels, 8, longest);
  const std::int32_t length = bar_length(static_cast<float>(uv * pixels));
  p.painter.fillRect(p.layout.width - 25, 30, 2, length, p.text_colour());
  const std::string text =
      uv < 10'000 ? fmt::format("{:g} µV", uv) : fmt::format("{:g} mV", uv / 1000);
  draw_turned_text(p.painter, p.layout.width - 22, length / 2 + 50, QString::fromStdString(text));
}

void draw_scale_bars(voltage_painting& p) {
  use_font(p.session, p.painter, "t'Arial'h12w6pe");
  p.painter.setPen(p.text_colour());
  draw_time_bar(p);
  draw_voltage_bar(p);
}

// Where rows are closer than a line of text, as many numbers as can be read.
void draw_channel_numbers(voltage_painting& p) {
  constexpr std::int32_t text_height = 11;
  // A lighter red on black, where the pure one is hard to read.
  p.painter.setPen(colour_of_word(p.reversed ? 0x7070FF : red));
  std::int32_t free_from = std::numeric_limits<std::int32_t>::min();
  for (std::int32_t row = p.layout.first_row; row <= p.layout.last_row; ++row) {
    const std::int32_t y = row_baseline(p.layout, row);
    // A number that would run into the one above is left out.
    if (y < free_from) continue;
    free_from = y + text_height;
    const std::int32_t channel = p.session.recording.chan_sort_order[row];
    const std::string text =
        channel < 100 ? fmt::format("{:2}", channel) : fmt::format("{:3}", channel);
    draw_text(p.painter, 1, y - 6, QString::fromStdString(text));
  }
}

// A number that would run into the one before it in its row is left out.
void draw_cluster_numbers(voltage_painting& p, const std::vector<visible_event>& events) {
  const bool roomy = p.layout.spacing > 25;
  use_font(p.session, p.painter, roomy ? "t'Arial'h14w0" : "t'Arial'h10w0");
  p.painter.setPen(p.text_colour());
  const QFontMetrics metrics = p.painter.fontMetrics();
  // Events come in the order of their discovery.
  std::vector<visible_event> in_rows = events;
  std::sort(in_rows.begin(), in_rows.end(), [](const visible_event& a, const visible_event& b) {
    return std::pair(a.row, a.x) < std::pair(b.row, b.x);
  });
  std::int32_t row = 0, free_from = 0;
  for (const visible_event& shown : in_rows) {
    const std::int32_t cluster = p.session.events.event_cluster[shown.event];
    // An event before the left edge has its number where channels have theirs.
    if (cluster <= 0 || p.session.events.event_time[shown.event] < p.layout.first_sample) continue;
    const std::int32_t y = row_baseline(p.layout, shown.row);
    const QString text = QString::fromStdString(fmt::format("{:4}", cluster));
    const std::int32_t left = shown.x - (roomy ? 14 : 10);
    const std::int32_t end = left + metrics.horizontalAdvance(text);
    const std::int32_t first_digit = end - metrics.horizontalAdvance(text.trimmed());
    if (shown.row == row && first_digit < free_from) continue;
    row = shown.row;
    free_from = end + 2;
    draw_text(p.painter, left, y - (roomy ? 22 : 19), text);
  }
}

void clear_picture(voltage_painting& p) {
  // Lines lie on pixels; smoothing would make them pale.
  p.painter.setRenderHint(QPainter::Antialiasing, false);
  p.painter.setRenderHint(QPainter::SmoothPixmapTransform, false);
  p.fill(0, 0, p.layout.width, p.layout.height, p.reversed ? black : white);
}

drawn_events count_events(const std::vector<visible_event>& events) {
  drawn_events drawn;
  drawn.n_events_shown = static_cast<std::int32_t>(events.size());
  if (!events.empty()) drawn.first_event = events.front().event;
  return drawn;
}

}  // namespace

drawn_events draw_voltage(session_state& session, QPainter& painter, peak_summary* peaks) {
  const display_settings& display = session.display;
  voltage_painting p(session, painter);
  painter.save();
  clear_picture(p);
  drawn_events drawn;
  if (session.recording.n_samples > 0) {
    draw_blanked(p);
    if (display.vd_msec_grid) draw_grid(p);
    std::vector<visible_event> events;
    if (display.vd_show_events || display.vd_cluster_numbers) {
      // Blocks reach eight pixels to either side.
      events = find_visible_events(session, p.layout, p.layout.margin, p.layout.margin + 8,
                                   p.layout.trace_end);
    }
    if (display.vd_show_events) {
      draw_events(p, events);
      drawn = count_events(events);
    }
    // After the events, so that traces run over their blocks.
    drawn.complete = draw_traces(p, peaks);
    if (display.vd_show_proto_events) draw_proto_events(p);
    draw_scale_bars(p);
    draw_channel_numbers(p);
    if (display.vd_cluster_numbers) draw_cluster_numbers(p, events);
  }
  painter.restore();
  return drawn;
}

namespace {

// The grey image: one band per channel, mid-grey at 0 µV.
drawn_events draw_grey_scale(session_state& session, QPainter& painter) {
  voltage_painting p(session, painter);
  painter.save();
  clear_picture(p);
  drawn_events drawn;
  if (session.recording.n_samples > 0) {
    const grey_layout grey = lay_out_grey_image(session, p.layout);
    painter.drawImage(grey.left, grey_row_top(grey, 1), make_grey_image(session, p.layout, grey));
    const auto mark = [&](const std::vector<visible_event>& marks, std::uint32_t word) {
      for (const visible_event& shown : marks) {
        const std::int32_t y = grey_row_top(grey, shown.row) + grey.row_height / 2;
        p.fill(shown.x - 1, y, 3, 1, word);
        p.fill(shown.x, y - 1, 1, 3, word);
      }
    };
    // Every row of the image is drawn, whichever the traces would show.
    p.layout.first_row = 1;
    p.layout.last_row = grey.n_rows;
    constexpr std::int32_t margin = 16;
    if (session.display.vd_show_proto_events) {
      mark(find_visible_proto_events(session, p.layout, margin, margin, p.layout.width), green);
    }
    if (session.display.vd_show_events) {
      const auto events = find_visible_events(session, p.layout, margin, margin, p.layout.width);
      mark(events, red);
      drawn = count_events(events);
    }
  }
  painter.restore();
  return drawn;
}

}  // namespace

drawn_events draw_voltage_display(session_state& session, QPainter& painter, peak_summary* peaks) {
  if (session.view.vd_grey_scale) return draw_grey_scale(session, painter);
  return draw_voltage(session, painter, peaks);
}

}  // namespace kestrelvane

#include "displays/clusters/sorted_waveforms.h"

#include <fmt/format.h>

#include <QPainterPath>
#include <algorithm>
#include <cmath>
#include <limits>

#include "displays/clusters/plane_axes.h"
#include "review/event_reading.h"

namespace kestrelvane {

namespace {

// Pixels that one call may count for the density: high waveforms take more time than low ones.
constexpr std::int64_t pixel_budget = 3'000'000;

// Events of a cluster whose labels are on show.
std::vector<std::int32_t> labelled_events(const session_state& session, const cluster_index& index,
                                          const waveform_view& view, std::int32_t cluster) {
  const auto all = events_of_cluster(index, cluster);
  if (view.labels.empty()) return {all.begin(), all.end()};
  // A list of a hundred labels looked through for each event would take longer than drawing.
  std::vector<char> on_show(std::numeric_limits<std::uint16_t>::max() + 1, 0);
  for (const std::int16_t label : view.labels) on_show[static_cast<std::uint16_t>(label)] = 1;
  std::vector<std::int32_t> shown;
  for (const std::int32_t e : all) {
    const auto label = static_cast<std::uint16_t>(session.events.event_subcluster[e]);
    if (on_show[label] != 0) shown.push_back(e);
  }
  return shown;
}

void read_template(const session_state& session, const waveform_layout& layout, waveform_set& set) {
  const float scale = session.recording.vscale_HP;
  for (const waveform_panel& panel : layout.panels) {
    const float* mean = session.templates.mean(set.cluster, panel.channel);
    const float* sd = session.templates.sd(set.cluster, panel.channel);
    for (std::int32_t p = 1; p <= layout.n_points; ++p) {
      set.mean.push_back(mean[p] * scale);
      set.sd.push_back(sd[p] * scale);
    }
  }
}

struct shown_events {
  std::vector<std::int32_t> events;
  std::vector<std::int16_t> marks;
};

// The sets, and all their events with a label on show.
shown_events gather_sets(const session_state& session, const cluster_index& index,
                         const waveform_view& view, waveform_picture& picture) {
  const std::vector<std::int32_t> clusters = clusters_on_show(session, view.clusters);
  // Of all of their events, whatever part of them is on show.
  std::vector<std::span<const std::int32_t>> lists;
  for (const std::int32_t c : clusters) lists.push_back(events_of_cluster(index, c));
  const mark_source source = find_mark_source(session, lists, clusters.size());
  shown_events shown;
  for (std::size_t place = 0; place < clusters.size(); ++place) {
    waveform_set set;
    set.cluster = clusters[place];
    set.mark =
        clusters.size() == 2 ? static_cast<std::int16_t>(place + 1) : mark_of_cluster(set.cluster);
    set.n_events = static_cast<std::int32_t>(events_of_cluster(index, set.cluster).size());
    const std::vector<std::int32_t> events = labelled_events(session, index, view, set.cluster);
    set.n_labelled = static_cast<std::int32_t>(events.size());
    read_template(session, picture.layout, set);
    picture.sets.push_back(std::move(set));
    // A density is of all events, and has no pages.
    const bool whole = view.mode == waveform_mode::density;
    const std::size_t from =
        whole ? 0
              : std::min<std::size_t>(static_cast<std::size_t>(std::max(view.first_item, 1)) - 1,
                                      events.size());
    const std::size_t to =
        whole ? events.size()
              : std::min(events.size(), from + static_cast<std::size_t>(std::max(view.n_items, 0)));
    for (std::size_t i = from; i < to; ++i) {
      shown.events.push_back(events[i]);
      shown.marks.push_back(mark_of_event(session, source, events[i], place));
    }
  }
  return shown;
}

void read_events_on_show(const session_state& session, waveform_picture& picture) {
  const auto n_points = static_cast<std::size_t>(picture.layout.n_points);
  const std::size_t each = picture.layout.panels.size() * n_points;
  picture.values.resize(picture.events.size() * each);
  float values[waveform_room];
  for (std::size_t i = 0; i < picture.events.size(); ++i) {
    float* out = picture.values.data() + i * each;
    for (const waveform_panel& panel : picture.layout.panels) {
      read_event_waveform(session, picture.events[i], panel.channel, values);
      out = std::copy(values, values + n_points, out);
    }
  }
}

void start_picture(const session_state& session, cluster_index& index, const waveform_view& view,
                   waveform_picture& picture) {
  picture = {};
  picture.view = view;
  picture.index_stamp = index.stamp;
  picture.layout = lay_out_waveforms(session, view);
  shown_events shown = gather_sets(session, index, view, picture);
  if (view.mode == waveform_mode::events) {
    picture.events = std::move(shown.events);
    picture.marks = std::move(shown.marks);
    read_events_on_show(session, picture);
  } else if (view.mode == waveform_mode::density && !picture.layout.panels.empty()) {
    picture.counted_events = std::move(shown.events);
    picture.counted_marks = std::move(shown.marks);
    picture.n_to_count = static_cast<std::int64_t>(picture.counted_events.size());
    picture.density =
        make_mark_counts(static_cast<std::int32_t>(std::ceil(view.width * view.pixel_ratio)),
                         static_cast<std::int32_t>(std::ceil(view.height * view.pixel_ratio)));
  }
}

// Returns how many pixels it took.
std::int64_t count_event(const session_state& session, std::size_t i, waveform_picture& picture) {
  std::int64_t n_pixels = 0;
  const waveform_layout& layout = picture.layout;
  const auto ratio = static_cast<float>(picture.view.pixel_ratio);
  std::uint32_t* layer = counts_of_mark(picture.density, picture.counted_marks[i]);
  float values[waveform_room];
  line_point line[waveform_room];
  for (const waveform_panel& panel : layout.panels) {
    read_event_waveform(session, picture.counted_events[i], panel.channel, values);
    for (std::int32_t p = 0; p < layout.n_points; ++p) {
      line[p] = {(panel.x + layout.step * static_cast<float>(p)) * ratio,
                 (panel.y - layout.pixels_per_uv * values[p]) * ratio};
    }
    n_pixels += count_line(picture.density, layer, line, layout.n_points);
  }
  return n_pixels;
}

void count_on(const session_state& session, waveform_picture& picture) {
  const auto n_panels = static_cast<std::int64_t>(picture.layout.panels.size());
  const spread_order order(picture.n_to_count);
  // Two budgets: reading takes time by the waveform, counting by the pixel, and neither may hold up
  // the window.
  std::int64_t waveforms = picture.view.waveforms_per_call, pixels = pixel_budget;
  while (picture.n_counted < picture.n_to_count && waveforms > 0 && pixels > 0) {
    // Spread over the recording, so that a picture that is half done looks like the whole.
    const auto i = static_cast<std::size_t>(order.at(picture.n_counted++));
    pixels -= count_event(session, i, picture);
    waveforms -= n_panels;
  }
  picture.complete = picture.n_counted == picture.n_to_count;
}

// ---------------------------------------------------------------- painting

struct waveform_painting {
  QPainter& painter;
  const waveform_picture& picture;
  const waveform_view& view;
  const cluster_theme& theme;
};

float x_of_point(const waveform_layout& layout, const waveform_panel& panel, std::int32_t p) {
  return panel.x + layout.step * static_cast<float>(p);
}

QPolygonF line_of(const waveform_layout& layout, const waveform_panel& panel, const float* values,
                  const float* added = nullptr, float sign = 0) {
  QPolygonF line;
  line.reserve(layout.n_points);
  for (std::int32_t p = 0; p < layout.n_points; ++p) {
    const float v = added == nullptr ? values[p] : values[p] + sign * added[p];
    line << QPointF(x_of_point(layout, panel, p), panel.y - layout.pixels_per_uv * v);
  }
  return line;
}

void paint_zero_lines(waveform_painting& p) {
  const waveform_layout& layout = p.picture.layout;
  p.painter.setPen(QPen(p.theme.grid, 1));
  for (const waveform_panel& panel : layout.panels) {
    p.painter.drawLine(QPointF(panel.x, panel.y),
                       QPointF(x_of_point(layout, panel, layout.n_points - 1), panel.y));
  }
}

// Lines of one width on a raster, set pixel by pixel into an image that is laid over the
// picture: ten times as fast as a painter's own.
struct line_overlay {
  QImage image;
  double ratio = 1;
  std::int32_t thickness = 1;  // pixels of the image
};

void set_line(line_overlay& overlay, const QPolygonF& line, QRgb colour) {
  line_point points[template_point_limit];
  auto* pixels = reinterpret_cast<QRgb*>(overlay.image.bits());
  const std::int32_t width = overlay.image.width(), height = overlay.image.height();
  // A thick line is the thin one beside itself.
  for (std::int32_t pass = 0; pass < overlay.thickness; ++pass) {
    const auto aside = static_cast<float>(pass);
    for (qsizetype k = 0; k < line.size(); ++k) {
      points[k] = {static_cast<float>(line[k].x() * overlay.ratio) + aside,
                   static_cast<float>(line[k].y() * overlay.ratio)};
    }
    walk_line(width, height, points, static_cast<std::int32_t>(line.size()),
              [&](std::int32_t x, std::int32_t from, std::int32_t to) {
                const std::int32_t end = std::min(to + overlay.thickness, height);
                for (std::int32_t y = from; y < end; ++y) {
                  pixels[static_cast<std::int64_t>(y) * width + x] = colour;
                }
              });
  }
}

// Draws an event through line(polygon), panel by panel.
template <typename Line>
void trace_event(const waveform_picture& picture, std::size_t i, Line&& line) {
  const auto n_points = static_cast<std::size_t>(picture.layout.n_points);
  const float* values = picture.values.data() + i * picture.layout.panels.size() * n_points;
  for (const waveform_panel& panel : picture.layout.panels) {
    line(line_of(picture.layout, panel, values));
    values += n_points;
  }
}

void paint_chosen_event(waveform_painting& p) {
  for (std::size_t i = 0; i < p.picture.events.size(); ++i) {
    if (p.picture.events[i] != p.view.selected_event) continue;
    p.painter.setPen(QPen(p.theme.selected, p.view.line_thickness + 1));
    trace_event(p.picture, i, [&](const QPolygonF& line) { p.painter.drawPolyline(line); });
  }
}

void paint_events(waveform_painting& p) {
  const pixel_device device = device_of(p.painter);
  line_overlay overlay;
  if (device.raster) {
    const QSizeF size = QSizeF(p.view.width, p.view.height) * device.ratio;
    overlay.image = QImage(size.toSize(), QImage::Format_ARGB32_Premultiplied);
    overlay.image.fill(Qt::transparent);
    overlay.ratio = device.ratio;
    overlay.thickness =
        std::max(1, static_cast<std::int32_t>(std::lround(p.view.line_thickness * device.ratio)));
  }
  for (std::size_t i = 0; i < p.picture.events.size(); ++i) {
    const QColor colour = colour_of_mark(p.theme, p.picture.marks[i]);
    p.painter.setPen(QPen(colour, p.view.line_thickness));
    trace_event(p.picture, i, [&](const QPolygonF& line) {
      if (device.raster) {
        set_line(overlay, line, colour.rgb());
      } else {
        p.painter.drawPolyline(line);
      }
    });
  }
  if (device.raster) {
    overlay.image.setDevicePixelRatio(device.ratio);
    p.painter.drawImage(0, 0, overlay.image);
  }
  // On top of all others.
  paint_chosen_event(p);
}

void paint_density(waveform_painting& p) {
  if (p.picture.density.layers.empty()) return;
  QImage image = image_of_counts(p.picture.density, p.theme, 0.3);
  image.setDevicePixelRatio(p.picture.view.pixel_ratio);
  p.painter.drawImage(0, 0, image);
}

// The template, white- or black-edged where events of its colour lie under it.
void paint_template(waveform_painting& p, const waveform_set& set) {
  const waveform_layout& layout = p.picture.layout;
  const bool alone = p.view.mode == waveform_mode::templates;
  const QColor colour = colour_of_mark(p.theme, set.mark);
  // Over events the band is neutral, as one in their colour would look like more of them.
  QColor band = alone ? colour : p.theme.text;
  band.setAlpha(alone ? 55 : 40);
  const QColor line = alone ? colour : mix_colours(colour, p.theme.text, 0.65);
  p.painter.setRenderHint(QPainter::Antialiasing, true);
  for (std::size_t k = 0; k < layout.panels.size(); ++k) {
    const float* mean = set.mean.data() + k * static_cast<std::size_t>(layout.n_points);
    const float* sd = set.sd.data() + k * static_cast<std::size_t>(layout.n_points);
    QPolygonF outline = line_of(layout, layout.panels[k], mean, sd, 1);
    const QPolygonF below = line_of(layout, layout.panels[k], mean, sd, -1);
    // Back along the lower edge: the two make one outline that can be filled.
    std::copy(below.rbegin(), below.rend(), std::back_inserter(outline));
    p.painter.setPen(Qt::NoPen);
    p.painter.setBrush(band);
    if (p.view.error_bars) p.painter.drawPolygon(outline);
    p.painter.setBrush(Qt::NoBrush);
    if (!alone) {
      p.painter.setPen(QPen(p.theme.background, p.view.line_thickness + 2.5));
      p.painter.drawPolyline(line_of(layout, layout.panels[k], mean));
    }
    p.painter.setPen(QPen(line, p.view.line_thickness + 0.6));
    p.painter.drawPolyline(line_of(layout, layout.panels[k], mean));
  }
  p.painter.setRenderHint(QPainter::Antialiasing, false);
}

void paint_channel_numbers(waveform_painting& p) {
  use_small_font(p.painter);
  p.painter.setPen(p.theme.neutral);
  const QFontMetricsF metrics = p.painter.fontMetrics();
  for (const waveform_panel& panel : p.picture.layout.panels) {
    const QString text = QString::number(panel.channel);
    // Left of the first point, or over it where another panel stands there.
    p.painter.drawText(
        QPointF(panel.x - metrics.horizontalAdvance(text) - 3, panel.y + metrics.ascent() / 2 - 1),
        text);
  }
}

// A bar of the voltage axis and one of half a millisecond, in the lower left corner.
void paint_axes(waveform_painting& p) {
  const waveform_layout& layout = p.picture.layout;
  const double length =
      std::min(double{layout.pixels_per_uv} * p.view.voltage_axis_uv, p.view.height - 40.0);
  const double corner_x = 8, corner_y = p.view.height - 8.0;
  p.painter.setPen(QPen(p.theme.text, 2));
  p.painter.drawLine(QPointF(corner_x, corner_y), QPointF(corner_x, corner_y - length));
  const double half_ms = 0.5 * layout.pixels_per_ms;
  p.painter.drawLine(QPointF(corner_x, corner_y), QPointF(corner_x + half_ms, corner_y));
  use_small_font(p.painter);
  // What the bar measures as drawn, which is less than asked for where the window ends.
  const double shown = length / layout.pixels_per_uv;
  p.painter.drawText(QPointF(corner_x + 5, corner_y - 6),
                     QString("%1 µV, 0.5 ms").arg(shown, 0, 'f', 0));
}

QString title_of_set(const waveform_painting& p, const waveform_set& set) {
  const waveform_view& view = p.view;
  std::string text = fmt::format("Cluster {}", set.cluster);
  if (view.mode == waveform_mode::events && set.n_labelled > 0) {
    const std::int32_t first = std::min(std::max(view.first_item, 1), set.n_labelled);
    const std::int64_t last =
        std::min<std::int64_t>(std::int64_t{first} + std::max(view.n_items, 1) - 1, set.n_labelled);
    text += fmt::format(": {} to {} of {}", first, last, set.n_labelled);
  } else {
    text += fmt::format(": {} events", set.n_events);
  }
  return QString::fromStdString(text);
}

void paint_cluster_numbers(waveform_painting& p) {
  use_title_font(p.painter);
  double x = 8;
  const QFontMetricsF metrics = p.painter.fontMetrics();
  for (const waveform_set& set : p.picture.sets) {
    const QString text = title_of_set(p, set);
    // A waveform may run under it.
    QColor ground = p.theme.background;
    ground.setAlpha(200);
    p.painter.fillRect(QRectF(x - 3, 4, metrics.horizontalAdvance(text) + 6, metrics.height() + 2),
                       ground);
    p.painter.setPen(colour_of_mark(p.theme, set.mark));
    p.painter.drawText(QPointF(x, 5 + metrics.ascent()), text);
    x += metrics.horizontalAdvance(text) + 24;
  }
}

}  // namespace

void prepare_waveforms(const session_state& session, cluster_index& index,
                       const waveform_view& view, waveform_picture& picture) {
  update_cluster_index(session, index);
  if (picture.index_stamp != index.stamp || picture.view != view) {
    // Another event chosen is no other picture.
    waveform_view same = view;
    same.selected_event = picture.view.selected_event;
    if (picture.index_stamp != index.stamp || picture.view != same) {
      start_picture(session, index, view, picture);
    } else {
      picture.view = view;
    }
  }
  if (view.mode == waveform_mode::density) count_on(session, picture);
}

void paint_waveforms(QPainter& painter, const waveform_picture& picture, const waveform_view& view,
                     const cluster_theme& theme) {
  waveform_painting p = {painter, picture, view, theme};
  painter.save();
  painter.setClipRect(QRectF(0, 0, view.width, view.height), Qt::IntersectClip);
  painter.fillRect(QRectF(0, 0, view.width, view.height), theme.background);
  paint_zero_lines(p);
  if (view.mode == waveform_mode::events) paint_events(p);
  if (view.mode == waveform_mode::density) paint_density(p);
  if (view.mode == waveform_mode::templates || view.template_over_events) {
    for (const waveform_set& set : picture.sets) paint_template(p, set);
  }
  if (view.show_channel_numbers) paint_channel_numbers(p);
  if (view.show_axes && !picture.layout.panels.empty()) paint_axes(p);
  if (view.show_cluster_numbers) paint_cluster_numbers(p);
  painter.restore();
}

std::int32_t waveform_event_at(const waveform_picture& picture, float x, float y) {
  // Pixels, above and below the line at the pointer's place in time.
  constexpr float reach = 4;
  const waveform_layout& layout = picture.layout;
  const auto n_points = static_cast<std::size_t>(layout.n_points);
  float best = reach;
  std::int32_t found = 0;
  for (std::size_t k = 0; k < layout.panels.size(); ++k) {
    const waveform_panel& panel = layout.panels[k];
    const float exact = (x - panel.x) / layout.step;
    if (!(exact >= 0 && exact <= static_cast<float>(layout.n_points - 1))) continue;
    // The last point ends a segment and begins none.
    const auto p = std::min(static_cast<std::size_t>(exact), n_points - 2);
    const float part = exact - static_cast<float>(p);
    for (std::size_t i = 0; i < picture.events.size(); ++i) {
      const float* v = picture.values.data() + (i * layout.panels.size() + k) * n_points + p;
      const float at = panel.y - layout.pixels_per_uv * (v[0] + part * (v[1] - v[0]));
      // Of equally near ones the last, which is drawn over the others.
      if (std::abs(at - y) > best) continue;
      best = std::abs(at - y);
      found = picture.events[i];
    }
  }
  return found;
}

namespace {

// From a place to the piece of a line between two points, pixels.
float distance_to(float x, float y, line_point a, line_point b) {
  const float dx = b.x - a.x, dy = b.y - a.y;
  const float along = ((x - a.x) * dx + (y - a.y) * dy) / (dx * dx + dy * dy);
  const float part = std::clamp(along, 0.0f, 1.0f);
  return std::hypot(a.x + part * dx - x, a.y + part * dy - y);
}

}  // namespace

const waveform_panel* panel_at(const waveform_picture& picture, float x, float y) {
  const waveform_layout& layout = picture.layout;
  const auto n_points = static_cast<std::size_t>(layout.n_points);
  const waveform_panel* nearest = nullptr;
  float best = std::numeric_limits<float>::max();
  for (std::size_t k = 0; k < layout.panels.size(); ++k) {
    const waveform_panel& panel = layout.panels[k];
    if (!(x >= panel.x && x <= panel.x + layout.step * static_cast<float>(n_points - 1))) continue;
    for (const waveform_set& set : picture.sets) {
      const float* mean = set.mean.data() + k * n_points;
      const auto place = [&](std::size_t p) {
        return line_point{panel.x + layout.step * static_cast<float>(p),
                          panel.y - layout.pixels_per_uv * mean[p]};
      };
      // Not straight up or down: the flank of a large spike is nearly upright.
      for (std::size_t p = 0; p + 1 < n_points; ++p) {
        const float away = distance_to(x, y, place(p), place(p + 1));
        if (away >= best) continue;
        best = away;
        nearest = &panel;
      }
    }
  }
  return nearest;
}

QString waveform_words(const session_state& session, const waveform_picture& picture, float x,
                       float y) {
  const waveform_layout& layout = picture.layout;
  const waveform_panel* panel = panel_at(picture, x, y);
  if (panel == nullptr || session.recording.sampling_frequency < 1) return {};
  const float sample = static_cast<float>(layout.first_sample) + (x - panel->x) / layout.step;
  const double ms = 1000.0 * double{sample} / session.recording.sampling_frequency;
  return QString("channel %1, %2 ms, %3 µV")
      .arg(panel->channel)
      .arg(ms, 0, 'f', 2)
      .arg(double{(panel->y - y) / layout.pixels_per_uv}, 0, 'f', 1);
}

}  // namespace kestrelvane

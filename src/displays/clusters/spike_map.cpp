#include "displays/clusters/spike_map.h"

#include <QFontMetricsF>
#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "displays/clusters/event_words.h"
#include "displays/point_labels.h"
#include "numerics/simd.h"
#include "review/cluster_marks.h"
#include "review/event_reading.h"

namespace kestrelvane {

namespace {

// Chosen events that are read for their own places; each costs a waveform per channel.
constexpr std::size_t most_own = 2500;

double duration_of(const session_state& session) {
  const recording_store& r = session.recording;
  const double samples = r.sampling_frequency > 0 ? r.n_samples / (60.0 * r.sampling_frequency) : 0;
  // Stored records may end long after their samples, laid end to end, would; epochs as well.
  return std::max<double>({samples, r.duration_mins, 1e-6});
}

graph_view view_in_force(const session_state& session, const spike_view& view) {
  const recording_store& r = session.recording;
  graph_view shown = {view.from_minutes, view.to_minutes, view.y_from, view.y_to};
  if (!(shown.x_from < shown.x_to)) {
    shown.x_from = 0;
    shown.x_to = duration_of(session);
  }
  if (!(shown.y_from < shown.y_to)) {
    // µm beyond the outermost sites: units lie there, too, and a single site has no extent.
    const double room = std::max(10.0, 0.02 * (r.site_y_max - r.site_y_min));
    shown.y_from = r.site_y_min - room;
    shown.y_to = r.site_y_max + room;
  }
  return shown;
}

// Minutes of events on one time axis, without the look-ups that stored records need.
struct event_clock {
  const session_state& session;
  float per_sample;
  explicit event_clock(const session_state& s)
      : session(s),
        per_sample(
            s.recording.is_continuous || s.preferences.treat_as_continuous
                ? 1.0f / (60.0f * static_cast<float>(std::max(s.recording.sampling_frequency, 1)))
                : 0.0f) {}
  float minutes(std::int32_t event) const {
    return per_sample > 0 ? static_cast<float>(session.events.event_time[event]) * per_sample
                          : event_minutes(session, event);
  }
};

// Time indices in view, on one time axis; where records have stamps of their own, all.
struct index_range {
  std::int32_t first = 1, last = std::numeric_limits<std::int32_t>::max();
};

index_range indices_in_view(const event_clock& clock, const graph_view& v) {
  if (!(clock.per_sample > 0)) return {};
  const auto index = [&](double minutes) {
    return static_cast<std::int32_t>(std::clamp(minutes / clock.per_sample, 1.0, 2147483000.0));
  };
  // A sample more on either side, for the rounding of minutes.
  return {std::max(index(v.x_from) - 1, 1), index(v.x_to) + 1};
}

// Where clusters stand, and which of them are in the background: by cluster, 0 for none.
struct background_rows {
  std::vector<float> y;
  std::vector<std::int16_t> marks;
  std::vector<std::uint8_t> behind;
};

background_rows find_rows(const session_state& session, const spike_view& view,
                          const std::vector<std::int32_t>& chosen) {
  const auto n = static_cast<std::size_t>(session.clusters.n_clusters) + 1;
  background_rows rows = {std::vector<float>(n), std::vector<std::int16_t>(n),
                          std::vector<std::uint8_t>(n, 1)};
  rows.behind[0] = view.show_unclustered ? 1 : 0;
  for (std::size_t c = 1; c < n; ++c) {
    rows.y[c] = session.templates.template_y[static_cast<std::int64_t>(c)];
    rows.marks[c] = mark_of_cluster(static_cast<std::int32_t>(c));
  }
  for (const std::int32_t c : chosen) rows.behind[static_cast<std::size_t>(c)] = 0;
  return rows;
}

// How many of the times of a stretch of events lie in the range: a scan in wide lanes.
KESTRELVANE_CLONES std::int32_t count_in_range(const std::int32_t* times, std::int32_t n,
                                               std::int32_t first, std::int32_t last) {
  std::int32_t count = 0;
  for (std::int32_t i = 0; i < n; ++i) count += (times[i] >= first) & (times[i] <= last);
  return count;
}

// visit(event, cluster) for the events of the background in view. Events stand about in order of
// time, so that most stretches of a long recording are passed over at once.
template <typename Visit>
void for_each_behind(const session_state& session, const background_rows& rows, index_range range,
                     Visit&& visit) {
  constexpr std::int32_t stretch = 4096;
  const event_table& events = session.events;
  const std::int32_t* times = events.event_time.base();
  const auto n = static_cast<std::int32_t>(rows.y.size());
  for (std::int32_t from = 1; from <= events.n_events; from += stretch) {
    const std::int32_t length = std::min(stretch, events.n_events - from + 1);
    if (count_in_range(times + from, length, range.first, range.last) == 0) continue;
    for (std::int32_t e = from; e < from + length; ++e) {
      if (times[e] < range.first || times[e] > range.last) continue;
      std::int32_t c = events.event_cluster[e];
      // Events under removal belong nowhere, as those without a cluster.
      if (c < 0 || c >= n) c = 0;
      if (rows.behind[static_cast<std::size_t>(c)] != 0) visit(e, c);
    }
  }
}

// Into pixels of the plane. A cluster's events share a row, so that most of the sum is one
// addition at a place that is in the cache.
void count_background(const session_state& session, const spike_view& view,
                      const background_rows& rows, index_range range, spike_picture& picture) {
  const QRectF& box = picture.plane.inside;
  const graph_view& v = picture.plane.view;
  const double ratio = counted_ratio(view.pixel_ratio);
  picture.behind = make_mark_counts(static_cast<std::int32_t>(std::ceil(box.width() * ratio)),
                                    static_cast<std::int32_t>(std::ceil(box.height() * ratio)));
  for (const std::int16_t mark : rows.marks) counts_of_mark(picture.behind, mark);
  const auto row_of = [&](float y) {
    const double down = (pixel_of(picture.plane, v.x_from, y).y() - box.top()) * ratio;
    return down >= 0 && down < picture.behind.height ? static_cast<std::int32_t>(down) : -1;
  };
  const std::int32_t width = picture.behind.width;
  const auto place_of = [&](std::int16_t mark, std::int32_t y) -> std::uint32_t* {
    if (y < 0) return nullptr;
    return counts_of_mark(picture.behind, mark) + static_cast<std::int64_t>(y) * width;
  };
  // The row of pixels of each cluster, and for events without one of each channel; null: outside.
  std::vector<std::uint32_t*> row(rows.y.size());
  for (std::size_t c = 0; c < row.size(); ++c) row[c] = place_of(rows.marks[c], row_of(rows.y[c]));
  const std::int32_t n_channels = session.recording.n_channels;
  std::vector<std::uint32_t*> row_of_channel(static_cast<std::size_t>(n_channels) + 1);
  for (std::int32_t k = 1; k <= n_channels; ++k) {
    row_of_channel[static_cast<std::size_t>(k)] =
        place_of(rows.marks[0], row_of(session.recording.chan_y[k]));
  }
  const event_clock clock(session);
  const auto scale = static_cast<float>(picture.behind.width / (v.x_to - v.x_from));
  const auto from = static_cast<float>(v.x_from);
  std::int64_t n_counted = 0;
  for_each_behind(session, rows, range, [&](std::int32_t e, std::int32_t c) {
    const float x = (clock.minutes(e) - from) * scale;
    if (!(x >= 0)) return;
    ++n_counted;
    std::uint32_t* pixels =
        c > 0 ? row[static_cast<std::size_t>(c)]
              : row_of_channel[static_cast<std::size_t>(session.events.event_channel[e])];
    const auto column = static_cast<std::int32_t>(x);
    if (pixels != nullptr && column < width) ++pixels[column];
  });
  picture.n_counted = n_counted;
}

// All events in view that are not of a chosen cluster, at the places of their clusters.
void gather_background(const session_state& session, const spike_view& view,
                       const std::vector<std::int32_t>& chosen, spike_picture& picture) {
  constexpr std::int64_t most_single = 100'000;
  const graph_view& v = picture.plane.view;
  const event_clock clock(session);
  const index_range range = indices_in_view(clock, v);
  const background_rows rows = find_rows(session, view, chosen);
  for (std::size_t c = 0; c < rows.y.size(); ++c) {
    picture.centres.push_back(
        {session.templates.template_x[static_cast<std::int64_t>(c)], rows.y[c]});
  }
  const std::int32_t n_in_time = count_in_range(session.events.event_time.base() + 1,
                                                session.events.n_events, range.first, range.last);
  if (n_in_time > most_single) {
    // Chosen clusters stay in it, so that the next choice finds it ready.
    count_background(session, view, find_rows(session, view, {}), range, picture);
    return;
  }
  for_each_behind(session, rows, range, [&](std::int32_t e, std::int32_t c) {
    const float x = clock.minutes(e);
    const float y =
        c > 0 ? rows.y[static_cast<std::size_t>(c)]
              : static_cast<float>(session.recording.chan_y[session.events.event_channel[e]]);
    if (!(x >= v.x_from && x <= v.x_to && y >= v.y_from && y <= v.y_to)) return;
    picture.events.push_back(e);
    picture.marks.push_back(rows.marks[static_cast<std::size_t>(c)]);
    picture.points.push_back({x, y});
  });
  picture.n_behind = picture.events.size();
}

std::vector<std::int32_t> events_in_time(const session_state& session, const cluster_index& index,
                                         const std::vector<std::int32_t>& clusters,
                                         const graph_view& v) {
  const event_clock clock(session);
  std::vector<std::int32_t> events;
  for (const std::int32_t c : clusters) {
    for (const std::int32_t e : events_of_cluster(index, c)) {
      const float x = clock.minutes(e);
      if (x >= v.x_from && x <= v.x_to) events.push_back(e);
    }
  }
  return events;
}

void gather_chosen(const session_state& session, const cluster_index& index,
                   const std::vector<std::int32_t>& clusters, spike_picture& picture) {
  const std::vector<std::int32_t> events =
      events_in_time(session, index, clusters, picture.plane.view);
  const std::size_t stride = std::max<std::size_t>((events.size() + most_own - 1) / most_own, 1);
  picture.stride = static_cast<std::int32_t>(stride);
  const event_clock clock(session);
  for (std::size_t i = 0; i < events.size(); i += stride) {
    const std::int32_t c = session.events.event_cluster[events[i]];
    const bool has_centre = session.templates.template_n_channels[c] > 0;
    picture.events.push_back(events[i]);
    picture.marks.push_back(mark_of_cluster(c));
    picture.points.push_back({clock.minutes(events[i]), event_place(session, events[i], c).y});
    picture.heights.push_back(
        has_centre ? event_height_uv(session, events[i], session.templates.centre_channel(c))
                   : 0.0f);
  }
}

// With few events in view all of them stand at their own places.
void place_background(const session_state& session, spike_picture& picture) {
  if (!picture.behind.layers.empty() || picture.n_behind + picture.heights.size() > most_own)
    return;
  for (std::size_t i = 0; i < picture.n_behind; ++i) {
    const std::int32_t e = picture.events[i];
    const std::int32_t c = session.events.event_cluster[e];
    if (c >= 1 && c <= session.clusters.n_clusters) {
      picture.points[i].y = event_place(session, e, c).y;
    }
  }
}

// The view moved so that it lies within the recording.
void hold_view(const session_state& session, spike_view& view, double from, double length) {
  const double duration = duration_of(session);
  // Minutes: the least is under a ms, where a window holds a single spike.
  length = std::clamp(length, 1e-5, duration);
  view.from_minutes = std::clamp(from, 0.0, duration - length);
  view.to_minutes = view.from_minutes + length;
}

void paint_chosen(QPainter& painter, const spike_picture& picture, const spike_view& view,
                  const cluster_theme& theme) {
  const float most = picture.heights.empty()
                         ? 0
                         : *std::max_element(picture.heights.begin(), picture.heights.end());
  painter.setClipRect(picture.plane.inside, Qt::IntersectClip);
  for (std::size_t k = 0; k < picture.heights.size(); ++k) {
    const std::size_t i = picture.n_behind + k;
    const QPointF at = pixel_of(picture.plane, picture.points[i].x, picture.points[i].y);
    const double part = most > 0 && view.size_by_height ? picture.heights[k] / most : 0.5;
    // Pixels: the smallest is still seen, the largest hides few others.
    const double radius = 0.9 + 2.1 * part;
    painter.fillRect(QRectF(at.x() - radius, at.y() - radius, 2 * radius, 2 * radius),
                     colour_of_mark(theme, picture.marks[i]));
  }
}

}  // namespace

void prepare_spikes(const session_state& session, cluster_index& index, const spike_view& view,
                    spike_picture& picture) {
  update_cluster_index(session, index);
  spike_picture before;
  std::swap(before, picture);
  picture.plane =
      lay_out_plane(QRectF(0, 0, view.width, view.height), view_in_force(session, view), true);
  const spike_picture::counted_view wanted = {index.stamp,      picture.plane.view,
                                              view.width,       view.height,
                                              view.pixel_ratio, view.show_unclustered};
  const std::vector<std::int32_t> clusters = clusters_on_show(session, view.clusters);
  if (!before.behind.layers.empty() && before.counted == wanted) {
    std::swap(picture.behind, before.behind);
    std::swap(picture.centres, before.centres);
    picture.n_counted = before.n_counted;
  } else {
    gather_background(session, view, clusters, picture);
  }
  picture.counted = wanted;
  gather_chosen(session, index, clusters, picture);
  place_background(session, picture);
  picture.n_in_view = picture.n_counted;
  if (picture.behind.layers.empty()) {
    picture.n_in_view = static_cast<std::int64_t>(picture.n_behind) +
                        static_cast<std::int64_t>(picture.heights.size()) * picture.stride;
  }
}

void paint_spikes(QPainter& painter, const spike_picture& picture, const spike_view& view,
                  const cluster_theme& theme) {
  plane_labels labels;
  labels.title = "Spikes along the probe";
  labels.x = "time (min)";
  labels.y = "y (µm)";
  labels.note = QString("%1 events").arg(picture.n_in_view);
  if (picture.stride > 1) labels.note += QString(", 1 in %1 of those chosen").arg(picture.stride);
  // Faint where something is chosen, which is drawn over it.
  cluster_theme behind = theme;
  if (!view.clusters.empty()) {
    constexpr double faint = 0.4;  // any nearer to the ground, single spikes are lost in it
    for (QColor& colour : behind.colours) colour = mix_colours(colour, theme.background, faint);
    behind.neutral = mix_colours(theme.neutral, theme.background, faint);
  }
  painter.save();
  paint_plane(painter, QRectF(0, 0, view.width, view.height), picture.plane, labels, theme);
  if (!picture.behind.layers.empty()) {
    QImage image = image_of_counts(picture.behind, behind, 0.9);
    image.setDevicePixelRatio(counted_ratio(view.pixel_ratio));
    painter.drawImage(picture.plane.inside.topLeft(), image);
  }
  paint_points(painter, picture.plane, std::span(picture.points).first(picture.n_behind),
               std::span(picture.marks).first(picture.n_behind), behind, 1.0);
  paint_chosen(painter, picture, view, theme);
  painter.restore();
}

std::int32_t spike_event_at(const spike_picture& picture, QPointF pixel) {
  if (!picture.plane.inside.contains(pixel)) return 0;
  const std::span<const shape_point> points(picture.points);
  // The chosen ones first: they are drawn over the others.
  std::ptrdiff_t i = point_at(picture.plane, points.subspan(picture.n_behind), pixel);
  if (i >= 0) return picture.events[picture.n_behind + static_cast<std::size_t>(i)];
  i = point_at(picture.plane, points.first(picture.n_behind), pixel);
  return i < 0 ? 0 : picture.events[static_cast<std::size_t>(i)];
}

QString spike_words(const session_state& session, const spike_picture& picture,
                    std::int32_t event) {
  const auto found = std::find(picture.events.begin(), picture.events.end(), event);
  if (event < 1 || found == picture.events.end()) return {};
  const auto i = static_cast<std::size_t>(found - picture.events.begin());
  return event_words(session, event) +
         QString("\ny %1 µm").arg(static_cast<double>(picture.points[i].y), 0, 'f', 1);
}

std::int32_t spike_cluster_at(const session_state& session, const spike_picture& picture,
                              QPointF pixel) {
  const std::int32_t event = spike_event_at(picture, pixel);
  if (event != 0) return std::max(session.events.event_cluster[event], 0);
  if (picture.behind.layers.empty() || !picture.plane.inside.contains(pixel)) return 0;
  // A counted background: the cluster whose row is next to the pointer.
  std::int32_t found = 0;
  // Pixels from the row of the cluster.
  double best = 6;
  for (std::size_t c = 1; c < picture.centres.size(); ++c) {
    const double y = pixel_of(picture.plane, 0, picture.centres[c].y).y();
    if (std::abs(y - pixel.y()) >= best) continue;
    best = std::abs(y - pixel.y());
    found = static_cast<std::int32_t>(c);
  }
  return found;
}

void scroll_spikes(const session_state& session, spike_view& view, double windows) {
  const graph_view v = view_in_force(session, view);
  const double length = v.x_to - v.x_from;
  hold_view(session, view, v.x_from + windows * length, length);
}

void zoom_spikes(const session_state& session, spike_view& view, const spike_picture& picture,
                 QPointF about, double factor) {
  const graph_view v = view_in_force(session, view);
  const double fixed = value_at(picture.plane, about).x();
  if (!(factor > 0)) return;
  // What lies under the pointer stays there.
  hold_view(session, view, fixed + (v.x_from - fixed) / factor, (v.x_to - v.x_from) / factor);
}

// ---------------------------------------------------------------- the probe

void prepare_probe(const session_state& session, cluster_index& index, const probe_view& view,
                   probe_picture& picture) {
  update_cluster_index(session, index);
  picture = {};
  const recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    picture.sites.push_back({static_cast<float>(r.chan_x[c]), static_cast<float>(r.chan_y[c])});
    picture.masked.push_back(r.chan_mask[c] ? 1 : 0);
  }
  std::size_t most = 1;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    picture.units.push_back({session.templates.template_x[c], session.templates.template_y[c]});
    most = std::max(most, events_of_cluster(index, c).size());
  }
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const double part =
        static_cast<double>(events_of_cluster(index, c).size()) / static_cast<double>(most);
    // The area grows about with the count of events, as the eye compares areas.
    picture.radii.push_back(static_cast<float>(3 + 7 * std::sqrt(part)));
  }
  graph_view shown = view_of_points(picture.sites);
  // A single column or row of sites is no line without a width.
  shown = {shown.x_from - 15, shown.x_to + 15, shown.y_from - 15, shown.y_to + 15};
  if (view.range.x_from < view.range.x_to && view.range.y_from < view.range.y_to) {
    shown = view.range;
  }
  const QRectF rect(0, 0, view.width, view.height);
  // A long shank in true proportion would be a line: x then has a scale of its own.
  const bool slender = shown.y_to - shown.y_from > 6 * (shown.x_to - shown.x_from);
  picture.plane =
      slender ? lay_out_plane(rect, shown, true) : lay_out_even_plane(rect, shown, true);
}

void paint_probe(QPainter& painter, const probe_picture& picture, const probe_view& view,
                 const cluster_theme& theme) {
  plane_labels labels;
  labels.title = "Probe";
  labels.x = "x (µm)";
  labels.y = "y (µm)";
  labels.note = QString("%1 units").arg(picture.units.size());
  painter.save();
  paint_plane(painter, QRectF(0, 0, view.width, view.height), picture.plane, labels, theme);
  painter.setClipRect(picture.plane.inside, Qt::IntersectClip);
  for (std::size_t i = 0; i < picture.sites.size(); ++i) {
    const QPointF at = pixel_of(picture.plane, picture.sites[i].x, picture.sites[i].y);
    painter.fillRect(QRectF(at.x() - 2.5, at.y() - 2.5, 5, 5),
                     picture.masked[i] != 0 ? theme.grid : theme.axes);
  }
  painter.setRenderHint(QPainter::Antialiasing, true);
  use_small_font(painter);
  const QFontMetricsF metrics = painter.fontMetrics();
  std::vector<labelled_point> numbers;
  for (std::size_t i = 0; i < picture.units.size(); ++i) {
    const auto cluster = static_cast<std::int32_t>(i) + 1;
    const QPointF at = pixel_of(picture.plane, picture.units[i].x, picture.units[i].y);
    const bool chosen =
        std::find(view.clusters.begin(), view.clusters.end(), cluster) != view.clusters.end();
    QColor colour = colour_of_mark(theme, mark_of_cluster(cluster));
    painter.setPen(
        QPen(chosen ? theme.selected : mix_colours(colour, theme.text, 0.5), chosen ? 3 : 1));
    colour.setAlpha(170);
    painter.setBrush(colour);
    painter.drawEllipse(at, picture.radii[i], picture.radii[i]);
    // Hundreds of numbers would hide the units.
    const bool named = view.show_numbers && (chosen || picture.units.size() <= 60) &&
                       picture.plane.inside.contains(at);
    const double width = named ? metrics.horizontalAdvance(QString::number(cluster)) + 2 : 0;
    numbers.push_back({at, picture.radii[i], QSizeF(width, metrics.capHeight() + 2)});
  }
  painter.setPen(theme.text);
  const std::vector<QRectF> places = place_labels(numbers, picture.plane.inside);
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (places[i].isEmpty()) continue;
    painter.drawText(places[i].bottomLeft() + QPointF(1, -1), QString::number(i + 1));
  }
  painter.restore();
}

std::int32_t probe_cluster_at(const probe_picture& picture, QPointF pixel) {
  if (!picture.plane.inside.contains(pixel)) return 0;
  std::int32_t found = 0;
  double best = 1e30;
  for (std::size_t i = 0; i < picture.units.size(); ++i) {
    const QPointF off = pixel_of(picture.plane, picture.units[i].x, picture.units[i].y) - pixel;
    const double distance = std::hypot(off.x(), off.y());
    // A little more than the circle: small ones are hard to hit.
    if (distance > picture.radii[i] + 2 || distance >= best) continue;
    best = distance;
    found = static_cast<std::int32_t>(i) + 1;
  }
  return found;
}

}  // namespace kestrelvane

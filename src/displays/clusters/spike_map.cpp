#include "displays/clusters/spike_map.h"

#include <algorithm>
#include <cmath>

#include "displays/clusters/event_reading.h"

namespace kestrelvane {

namespace {

// Chosen events that are read for their own places; each costs a waveform per channel.
constexpr std::size_t most_own = 4000;

double duration_of(const session_state& session) {
  const recording_store& r = session.recording;
  const double samples = r.sampling_frequency > 0 ? r.n_samples / (60.0 * r.sampling_frequency) : 0;
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
                          : minutes_of_event(session, event);
  }
};

// All events in view that are not of a chosen cluster, at the places of their clusters.
void gather_background(const session_state& session, const spike_view& view,
                       const std::vector<std::uint8_t>& chosen, spike_picture& picture) {
  const event_table& events = session.events;
  const graph_view& v = picture.plane.view;
  const event_clock clock(session);
  const std::int32_t n_clusters = session.clusters.n_clusters;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const float x = clock.minutes(e);
    if (!(x >= v.x_from && x <= v.x_to)) continue;
    const std::int32_t c = events.event_cluster[e];
    const bool clustered = c >= 1 && c <= n_clusters;
    if (clustered ? chosen[static_cast<std::size_t>(c)] != 0 : !view.show_unclustered) continue;
    const float y = clustered
                        ? session.templates.template_y[c]
                        : static_cast<float>(session.recording.chan_y[events.event_channel[e]]);
    if (!(y >= v.y_from && y <= v.y_to)) continue;
    picture.events.push_back(e);
    picture.marks.push_back(clustered ? mark_of_cluster(c) : std::int16_t{0});
    picture.points.push_back({x, y});
  }
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
    picture.points.push_back({clock.minutes(events[i]), read_event_place(session, events[i], c).y});
    picture.heights.push_back(
        has_centre ? read_event_height(session, events[i], session.templates.centre_channel(c))
                   : 0.0f);
  }
}

// With few events in view all of them stand at their own places.
void place_background(const session_state& session, spike_picture& picture) {
  if (picture.n_behind + picture.heights.size() > most_own) return;
  for (std::size_t i = 0; i < picture.n_behind; ++i) {
    const std::int32_t e = picture.events[i];
    const std::int32_t c = session.events.event_cluster[e];
    if (c >= 1 && c <= session.clusters.n_clusters) {
      picture.points[i].y = read_event_place(session, e, c).y;
    }
  }
}

// The view moved so that it lies within the recording.
void hold_view(const session_state& session, spike_view& view, double from, double length) {
  const double duration = duration_of(session);
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
    const double radius = 0.9 + 2.1 * part;
    painter.fillRect(QRectF(at.x() - radius, at.y() - radius, 2 * radius, 2 * radius),
                     colour_of_mark(theme, picture.marks[i]));
  }
}

}  // namespace

void prepare_spikes(const session_state& session, cluster_index& index, const spike_view& view,
                    spike_picture& picture) {
  update_cluster_index(session, index);
  picture = {};
  picture.plane =
      lay_out_plane(QRectF(0, 0, view.width, view.height), view_in_force(session, view), true);
  const std::vector<std::int32_t> clusters = clusters_on_show(session, view.clusters);
  std::vector<std::uint8_t> chosen(static_cast<std::size_t>(session.clusters.n_clusters) + 1);
  for (const std::int32_t c : clusters) chosen[static_cast<std::size_t>(c)] = 1;
  gather_background(session, view, chosen, picture);
  gather_chosen(session, index, clusters, picture);
  place_background(session, picture);
}

void paint_spikes(QPainter& painter, const spike_picture& picture, const spike_view& view,
                  const cluster_theme& theme) {
  plane_labels labels;
  labels.title = "Spikes along the probe";
  labels.x = "time (min)";
  labels.y = "y (µm)";
  labels.note = QString("%1 events").arg(picture.events.size());
  if (picture.stride > 1) labels.note += QString(", 1 in %1 of those chosen").arg(picture.stride);
  // Faint where something is chosen, which is drawn over it.
  cluster_theme behind = theme;
  if (!view.clusters.empty()) {
    for (QColor& colour : behind.colours) colour = mix_colours(colour, theme.background, 0.65);
    behind.neutral = mix_colours(theme.neutral, theme.background, 0.65);
  }
  painter.save();
  paint_plane(painter, QRectF(0, 0, view.width, view.height), picture.plane, labels, theme);
  paint_points(painter, picture.plane, std::span(picture.points).first(picture.n_behind),
               std::span(picture.marks).first(picture.n_behind), behind, 1.0);
  paint_chosen(painter, picture, view, theme);
  painter.restore();
}

std::int32_t spike_event_at(const spike_picture& picture, QPointF pixel) {
  if (!picture.plane.inside.contains(pixel)) return 0;
  const std::span<const plane_point> points(picture.points);
  std::ptrdiff_t i = point_at(picture.plane, points.subspan(picture.n_behind), pixel);
  if (i >= 0) return picture.events[picture.n_behind + static_cast<std::size_t>(i)];
  i = point_at(picture.plane, points.first(picture.n_behind), pixel);
  return i < 0 ? 0 : picture.events[static_cast<std::size_t>(i)];
}

std::int32_t spike_cluster_at(const session_state& session, const spike_picture& picture,
                              QPointF pixel) {
  const std::int32_t event = spike_event_at(picture, pixel);
  return event == 0 ? 0 : std::max(session.events.event_cluster[event], 0);
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
    painter.setPen(theme.text);
    // Hundreds of numbers would hide the units.
    if (view.show_numbers && (chosen || picture.units.size() <= 60)) {
      painter.drawText(at + QPointF(picture.radii[i] + 2, 4), QString::number(cluster));
    }
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

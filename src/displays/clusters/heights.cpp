#include "displays/clusters/heights.h"

#include <algorithm>
#include <utility>

#include "displays/clusters/event_words.h"
#include "review/cluster_marks.h"
#include "review/event_reading.h"

namespace kestrelvane {

namespace {

float height_of(const session_state& session, std::int32_t event, std::int32_t cluster) {
  // A flat template has no centre, and its events no height.
  if (session.templates.template_n_channels[cluster] < 1) return 0.0f;
  return event_height_uv(session, event, session.templates.centre_channel(cluster));
}

void gather_heights(const session_state& session, const cluster_index& index,
                    std::int64_t most_events, height_picture& picture) {
  std::int64_t n = 0;
  for (const std::int32_t c : picture.clusters) {
    n += static_cast<std::int64_t>(events_of_cluster(index, c).size());
  }
  // One stride for both clusters, so that their densities can still be compared.
  picture.stride = static_cast<std::int32_t>((n + most_events - 1) / most_events);
  picture.stride = std::max(picture.stride, 1);
  for (const std::int32_t c : picture.clusters) {
    const auto events = events_of_cluster(index, c);
    for (std::size_t i = 0; i < events.size(); i += static_cast<std::size_t>(picture.stride)) {
      picture.events.push_back(events[i]);
      picture.points.push_back(
          {event_minutes(session, events[i]), height_of(session, events[i], c)});
    }
  }
}

void gather_components(const session_state& session, const component_values& values,
                       height_measure measure, height_picture& picture) {
  const std::int32_t d = measure == height_measure::pc1 ? 0 : 1;
  picture.clusters = values.clusters;
  picture.events = values.events;
  for (std::size_t i = 0; i < values.events.size(); ++i) {
    const float y = d < values.dimensions
                        ? values.values[i * static_cast<std::size_t>(values.dimensions) +
                                        static_cast<std::size_t>(d)]
                        : 0.0f;
    picture.points.push_back({event_minutes(session, values.events[i]), y});
  }
}

void mark_events_on_show(const session_state& session, height_picture& picture) {
  const mark_source source = find_mark_source(session, {picture.events}, picture.clusters.size());
  for (const std::int32_t e : picture.events) {
    const std::int32_t cluster = session.events.event_cluster[e];
    const std::size_t place = cluster == picture.clusters[0] ? 0 : 1;
    picture.marks.push_back(mark_of_event(session, source, e, place));
  }
}

void find_medians(const session_state& session, height_picture& picture) {
  for (const std::int32_t c : picture.clusters) {
    std::vector<shape_point> own;
    for (std::size_t i = 0; i < picture.events.size(); ++i) {
      if (session.events.event_cluster[picture.events[i]] == c) own.push_back(picture.points[i]);
    }
    // Long enough to be steady, short enough to follow a drift.
    const std::size_t stretch = std::max<std::size_t>(31, own.size() / 60);
    picture.medians.push_back(running_median(std::move(own), stretch));
  }
}

void find_gaps(const session_state& session, height_picture& picture) {
  const recording_store& r = session.recording;
  // Epochs are laid end to end, with real time missing between them.
  for (std::int32_t k = 2; k <= r.n_epochs && r.sampling_frequency > 0; ++k) {
    picture.gaps.push_back(static_cast<float>(static_cast<double>(r.epoch_first_index[k]) /
                                              (60.0 * r.sampling_frequency)));
  }
}

void paint_gaps(QPainter& painter, const height_picture& picture, const cluster_theme& theme) {
  painter.setPen(QPen(theme.axes, 1, Qt::DashLine));
  for (const float minutes : picture.gaps) {
    const double x = pixel_of(picture.plane, minutes, 0).x();
    painter.drawLine(QPointF(x, picture.plane.inside.top()),
                     QPointF(x, picture.plane.inside.bottom()));
  }
}

void paint_medians(QPainter& painter, const height_picture& picture, const cluster_theme& theme) {
  painter.setRenderHint(QPainter::Antialiasing, true);
  for (const std::vector<shape_point>& median : picture.medians) {
    QPolygonF line;
    for (const shape_point p : median) line << pixel_of(picture.plane, p.x, p.y);
    // Edged, so that it is seen over points of any colour.
    painter.setPen(QPen(theme.background, 4));
    painter.drawPolyline(line);
    painter.setPen(QPen(theme.text, 1.6));
    painter.drawPolyline(line);
  }
}

}  // namespace

std::vector<shape_point> running_median(std::vector<shape_point> points, std::size_t stretch) {
  std::stable_sort(points.begin(), points.end(),
                   [](shape_point a, shape_point b) { return a.x < b.x; });
  std::vector<shape_point> medians;
  // Stretches overlap by half, which makes a line and not stairs.
  const std::size_t step = std::max<std::size_t>(stretch / 2, 1);
  std::vector<float> heights;
  for (std::size_t from = 0; from < points.size(); from += step) {
    // The last stretch is as long as the others, where there are so many points.
    const std::size_t end = std::min(points.size(), from + std::max<std::size_t>(stretch, 1));
    const std::size_t begin = end - std::min(end, std::max<std::size_t>(stretch, 1));
    heights.clear();
    double x = 0;
    for (std::size_t i = begin; i < end; ++i) {
      heights.push_back(points[i].y);
      x += points[i].x;
    }
    const auto middle = heights.begin() + static_cast<std::ptrdiff_t>(heights.size() / 2);
    std::nth_element(heights.begin(), middle, heights.end());
    medians.push_back({static_cast<float>(x / static_cast<double>(end - begin)), *middle});
    if (end == points.size()) break;
  }
  return medians;
}

void prepare_heights(const session_state& session, cluster_index& index,
                     const component_values* values, const height_view& view,
                     height_picture& picture) {
  update_cluster_index(session, index);
  picture = {};
  picture.clusters = clusters_on_show(session, view.clusters);
  if (picture.clusters.size() > 2)
    picture.clusters.erase(picture.clusters.begin() + 2, picture.clusters.end());
  if (view.measure == height_measure::peak_to_peak) {
    gather_heights(session, index, view.most_events, picture);
  } else if (values != nullptr) {
    gather_components(session, *values, view.measure, picture);
  }
  for (const std::int32_t c : picture.clusters) {
    const bool has_centre = session.templates.template_n_channels[c] > 0;
    picture.channels.push_back(has_centre ? session.templates.centre_channel(c) : 0);
  }
  mark_events_on_show(session, picture);
  if (view.show_median) find_medians(session, picture);
  if (view.show_gaps) find_gaps(session, picture);
  graph_view shown = view_of_points(picture.points);
  // The whole recording, so that a unit that comes late or goes is seen to.
  shown.x_from = 0;
  if (session.recording.duration_mins > 0) shown.x_to = session.recording.duration_mins;
  // From 0, so that a drift of a tenth looks like a tenth.
  if (view.measure == height_measure::peak_to_peak) shown.y_from = 0;
  if (view.range.x_from < view.range.x_to && view.range.y_from < view.range.y_to) {
    shown = view.range;
  }
  picture.plane = lay_out_plane(QRectF(0, 0, view.width, view.height), shown, false);
}

QString height_title(const height_picture& picture, height_measure measure) {
  if (picture.clusters.empty()) return {};
  const std::int32_t a = picture.clusters[0];
  const bool pair = picture.clusters.size() == 2;
  if (measure == height_measure::peak_to_peak) {
    const QString first = QString("%1 on channel %2").arg(a).arg(picture.channels[0]);
    if (!pair) return "P-P Height (" + first + ")";
    return "P-P Height (" + first +
           QString(" and %1 on channel %2)").arg(picture.clusters[1]).arg(picture.channels[1]);
  }
  const QString name = measure == height_measure::pc1 ? "PC1" : "PC2";
  if (!pair) return name + QString(" vs time for cluster %1").arg(a);
  return name + QString(" vs time for clusters %1 and %2").arg(a).arg(picture.clusters[1]);
}

void paint_heights(QPainter& painter, const height_picture& picture, const height_view& view,
                   const cluster_theme& theme) {
  plane_labels labels;
  labels.title = height_title(picture, view.measure);
  labels.x = "time (min)";
  labels.y = view.measure == height_measure::peak_to_peak ? QString("height (µV)")
             : view.measure == height_measure::pc1        ? QString("PC1")
                                                          : QString("PC2");
  if (picture.stride > 1) labels.note = QString("1 event in %1").arg(picture.stride);
  painter.save();
  paint_plane(painter, QRectF(0, 0, view.width, view.height), picture.plane, labels, theme);
  paint_points(painter, picture.plane, picture.points, picture.marks, theme, 1.0);
  painter.setClipRect(picture.plane.inside, Qt::IntersectClip);
  paint_gaps(painter, picture, theme);
  paint_medians(painter, picture, theme);
  const auto chosen = std::find(picture.events.begin(), picture.events.end(), view.selected_event);
  if (chosen != picture.events.end()) {
    const auto i = static_cast<std::size_t>(chosen - picture.events.begin());
    paint_ring(painter, picture.plane, picture.points[i], theme);
  }
  painter.restore();
}

std::int32_t height_event_at(const height_picture& picture, QPointF pixel) {
  if (!picture.plane.inside.contains(pixel)) return 0;
  const std::ptrdiff_t i = point_at(picture.plane, picture.points, pixel);
  return i < 0 ? 0 : picture.events[static_cast<std::size_t>(i)];
}

QString height_words(const session_state& session, const height_picture& picture,
                     height_measure measure, std::int32_t event) {
  const auto found = std::find(picture.events.begin(), picture.events.end(), event);
  if (event < 1 || found == picture.events.end()) return {};
  const auto i = static_cast<std::size_t>(found - picture.events.begin());
  const auto value = static_cast<double>(picture.points[i].y);
  const QString words = event_words(session, event);
  if (measure == height_measure::peak_to_peak) {
    return words + QString("\nheight %1 µV").arg(value, 0, 'f', 1);
  }
  return words +
         QString("\nPC%1 %2").arg(measure == height_measure::pc1 ? 1 : 2).arg(value, 0, 'f', 2);
}

}  // namespace kestrelvane

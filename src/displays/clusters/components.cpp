#include "displays/clusters/components.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <utility>

#include "displays/clusters/event_words.h"

namespace kestrelvane {

namespace {

bool ascends(const graph_view& view) { return view.x_from < view.x_to && view.y_from < view.y_to; }

float component_of(const component_values& values, std::size_t i, std::int32_t dimension) {
  // The settings may ask for fewer components than a view was made for: the missing ones are flat.
  if (dimension < 1 || dimension > values.dimensions) return 0.0f;
  return values.values[i * static_cast<std::size_t>(values.dimensions) +
                       static_cast<std::size_t>(dimension) - 1];
}

std::array<float, 3> mean_of(const component_values& values, const component_view& view) {
  std::array<double, 3> sum{};
  const std::size_t n = values.events.size();
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t d = 0; d < 3; ++d) sum[d] += component_of(values, i, view.dimensions[d]);
  }
  std::array<float, 3> mean{};
  for (std::size_t d = 0; d < 3 && n > 0; ++d) {
    mean[d] = static_cast<float>(sum[d] / static_cast<double>(n));
  }
  return mean;
}

// Turned about their mean, which keeps its place; without a turn the values as they are.
std::vector<shape_point> project_to_plane(const component_values& values,
                                          const component_view& view) {
  constexpr float degree = std::numbers::pi_v<float> / 180.0f;
  const std::array<float, 3> mean = mean_of(values, view);
  // First about the upright axis, then about the level one, as a hand turns a globe.
  const float ct = std::cos(view.turn * degree), st = std::sin(view.turn * degree);
  const float cl = std::cos(view.tilt * degree), sl = std::sin(view.tilt * degree);
  const bool turned = view.turn != 0 || view.tilt != 0;
  std::vector<shape_point> points(values.events.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    points[i] = {component_of(values, i, view.dimensions[0]),
                 component_of(values, i, view.dimensions[1])};
    if (!turned) continue;
    const float x = points[i].x - mean[0], y = points[i].y - mean[1];
    const float z = component_of(values, i, view.dimensions[2]) - mean[2];
    const float toward = ct * z - st * x;
    points[i] = {mean[0] + ct * x + st * z, mean[1] + cl * y - sl * toward};
  }
  return points;
}

// As many units as the window holds at the scale.
graph_view scaled_view(const component_values& values, const component_view& view) {
  const std::array<float, 3> mean = view.centred ? mean_of(values, view) : std::array<float, 3>{};
  const double scale = view.display_scale > 0 ? view.display_scale : 1;
  const double half_x = 0.5 * view.width / scale, half_y = 0.5 * view.height / scale;
  return {mean[0] - half_x, mean[0] + half_x, mean[1] - half_y, mean[1] + half_y};
}

std::string title_of(const component_values& values) {
  if (values.clusters.size() == 1) {
    return fmt::format("PC values for cluster {}", values.clusters[0]);
  }
  if (values.clusters.size() == 2) {
    return fmt::format("PC values for clusters {} and {}", values.clusters[0], values.clusters[1]);
  }
  return "Principal Components display";
}

// Events of both clusters in event order, which is that of the pair's values.
std::vector<std::int32_t> events_of_both(const cluster_index& index,
                                         const std::vector<std::int32_t>& clusters) {
  const auto a = events_of_cluster(index, clusters[0]);
  std::vector<std::int32_t> events(a.begin(), a.end());
  if (clusters.size() == 2) {
    const auto b = events_of_cluster(index, clusters[1]);
    events.insert(events.end(), b.begin(), b.end());
    std::inplace_merge(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(a.size()),
                       events.end());
  }
  return events;
}

}  // namespace

component_view component_view_of_settings(const session_state& session) {
  component_view view;
  view.autoscale = session.preferences.autoscale_pc_display;
  view.centred = session.preferences.centre_pc_points;
  view.display_scale = session.preferences.pc_display_scale;
  const float* r = session.display.pc_view_range;
  // With automatic scaling the stored range is that of another cluster.
  if (!view.autoscale) view.range = {r[0], r[1], r[2], r[3]};
  return view;
}

void store_component_range(session_state& session, const graph_view& range) {
  float* r = session.display.pc_view_range;
  const double ends[] = {range.x_from, range.x_to, range.y_from, range.y_to};
  for (std::size_t i = 0; i < 4; ++i) r[i] = static_cast<float>(ends[i]);
  r[6] = r[2];
}

void mark_component_values(const session_state& session, component_values& values) {
  const mark_source source = find_mark_source(session, {values.events}, values.clusters.size());
  values.marks.clear();
  for (const std::int32_t e : values.events) {
    const std::size_t place = session.events.event_cluster[e] == values.clusters[0] ? 0 : 1;
    values.marks.push_back(mark_of_event(session, source, e, place));
  }
}

void begin_component_values(session_state& session, cluster_index& index,
                            const std::vector<std::int32_t>& clusters, component_reading& reading) {
  update_cluster_index(session, index);
  reading = {};
  reading.wanted = clusters;
  reading.index_stamp = index.stamp;
  component_values& values = reading.values;
  values.clusters = clusters_on_show(session, clusters);
  if (values.clusters.empty()) return;
  if (values.clusters.size() > 2)
    values.clusters.erase(values.clusters.begin() + 2, values.clusters.end());
  values.events = events_of_both(index, values.clusters);
  if (values.clusters.size() == 1) {
    begin_projection(session, values.clusters[0], values.events, reading.projection);
  } else {
    // Pairs are known by the lower number first.
    const auto [a, b] = std::minmax(values.clusters[0], values.clusters[1]);
    begin_pair_projection(session, a, b, 0, reading.projection);
  }
}

bool read_on(session_state& session, std::int32_t n, component_reading& reading) {
  if (!project_on(session, n, reading.projection)) return false;
  component_values& values = reading.values;
  values.dimensions = reading.projection.values.dimensions;
  values.values = std::move(reading.projection.values.values);
  values.values.resize(values.events.size() * static_cast<std::size_t>(values.dimensions));
  if (!values.clusters.empty()) mark_component_values(session, values);
  return true;
}

void read_component_values(session_state& session, cluster_index& index,
                           const std::vector<std::int32_t>& clusters, component_values& values) {
  component_reading reading;
  begin_component_values(session, index, clusters, reading);
  while (!read_on(session, std::numeric_limits<std::int32_t>::max(), reading)) {
  }
  values = std::move(reading.values);
}

component_values component_values_of(std::vector<std::int32_t> events,
                                     std::vector<std::int16_t> marks, std::int32_t dimensions,
                                     std::vector<float> values) {
  component_values made;
  made.events = std::move(events);
  made.marks = std::move(marks);
  made.dimensions = std::max(dimensions, 0);
  made.values = std::move(values);
  made.marks.resize(made.events.size());
  made.values.resize(made.events.size() * static_cast<std::size_t>(made.dimensions));
  return made;
}

void prepare_components(const session_state& session, const component_values& values,
                        const component_view& view, component_picture& picture) {
  picture = {};
  picture.values = &values;
  picture.points = project_to_plane(values, view);
  graph_view shown = view.autoscale ? view_of_points(picture.points) : scaled_view(values, view);
  // A range that the user has zoomed to goes before any scaling.
  if (ascends(view.range)) shown = view.range;
  picture.plane = lay_out_plane(QRectF(0, 0, view.width, view.height), shown, false);
  // The ellipse was drawn in the plane of the first two components of its cluster, and means
  // nothing in another.
  const bool plane_of_two = view.turn == 0 && view.tilt == 0 && view.dimensions[0] == 1 &&
                            view.dimensions[1] == 2 && values.clusters.size() == 1;
  if (!plane_of_two || !view.show_ellipse || values.clusters[0] > session.clusters.n_clusters) {
    return;
  }
  const cluster_ellipse_record& ellipse = session.clusters.cluster_ellipse[values.clusters[0]];
  if (ellipse.semi_axis_1 > 0 && ellipse.semi_axis_2 > 0) picture.ellipse = outline_of(ellipse);
}

void paint_components(QPainter& painter, const component_picture& picture,
                      const component_view& view, const cluster_theme& theme) {
  if (picture.values == nullptr) return;
  const component_values& values = *picture.values;
  const bool turned = view.turn != 0 || view.tilt != 0;
  plane_labels labels;
  labels.title = QString::fromStdString(title_of(values));
  labels.note = QString("%1 events").arg(values.events.size());
  labels.x = turned ? QString("turned") : QString("PC%1").arg(view.dimensions[0]);
  labels.y = turned ? QString("tilted") : QString("PC%1").arg(view.dimensions[1]);
  // An axis that is turned measures no single component, and its numbers would say nothing.
  labels.x_numbers = labels.y_numbers = !turned;
  painter.save();
  paint_plane(painter, QRectF(0, 0, view.width, view.height), picture.plane, labels, theme);
  // Pixels: few points have room to be large, many would run together.
  const double radius = values.events.size() < 1500 ? 1.5 : 1.0;
  paint_points(painter, picture.plane, picture.points, values.marks, theme, radius);
  paint_outline(painter, picture.plane, picture.ellipse, theme);
  const auto chosen = std::find(values.events.begin(), values.events.end(), view.selected_event);
  if (chosen != values.events.end()) {
    const auto i = static_cast<std::size_t>(chosen - values.events.begin());
    paint_ring(painter, picture.plane, picture.points[i], theme);
  }
  painter.restore();
}

std::int32_t component_event_at(const component_picture& picture, QPointF pixel) {
  if (!picture.plane.inside.contains(pixel)) return 0;
  const std::ptrdiff_t i = point_at(picture.plane, picture.points, pixel);
  // Values that have come since are of other events, until the picture follows.
  if (i < 0 || picture.values->events.size() != picture.points.size()) return 0;
  return picture.values->events[static_cast<std::size_t>(i)];
}

QString component_words(const session_state& session, const component_picture& picture,
                        const component_view& view, std::int32_t event) {
  if (event < 1 || picture.values == nullptr) return {};
  const std::vector<std::int32_t>& events = picture.values->events;
  const auto found = std::find(events.begin(), events.end(), event);
  if (found == events.end()) return {};
  const auto i = static_cast<std::size_t>(found - events.begin());
  QString words = event_words(session, event) + '\n';
  const bool turned = view.turn != 0 || view.tilt != 0;
  for (std::size_t d = 0; d < (turned ? 3 : 2); ++d) {
    const float value = component_of(*picture.values, i, view.dimensions[d]);
    words += QString(d == 0 ? "PC%1 %2" : ", PC%1 %2")
                 .arg(view.dimensions[d])
                 .arg(static_cast<double>(value), 0, 'f', 2);
  }
  return words;
}

}  // namespace kestrelvane

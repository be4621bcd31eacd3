// The cluster displays: what they gather against plain forms, what a click finds, and pictures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QImage>
#include <QPainter>
#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>

#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "clustering/templates.h"
#include "displays/clusters/components.h"
#include "displays/clusters/correlogram_panel.h"
#include "displays/clusters/heights.h"
#include "displays/clusters/overlap_display.h"
#include "displays/clusters/sorted_waveforms.h"
#include "displays/clusters/spike_map.h"
#include "displays/clusters/template_image.h"
#include "displays/clusters/train_correlograms.h"
#include "displays/picture_file.h"
#include "review/cluster_marks.h"
#include "review/event_reading.h"
#include "sorting/cluster_edits.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct sorted_session : small_session {
  cluster_index index;
  sorted_session() {
    make_busy_recording(**this, 4, 100000, 41);
    calculate_all_templates(**this);
    // The fixture's templates have no place until they are asked for it.
    for (std::int32_t c = 1; c <= state->clusters.n_clusters; ++c) {
      calculate_template_centre(**this, c);
    }
    update_cluster_index(**this, index);
  }
};

std::int64_t ink(const QImage& image, const QColor& background) {
  std::int64_t n = 0;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) n += image.pixel(x, y) != background.rgb();
  }
  return n;
}

template <typename Paint>
QImage paint_image(int width, int height, Paint&& paint) {
  QImage image(width, height, QImage::Format_RGB32);
  image.fill(Qt::magenta);
  QPainter painter(&image);
  paint(painter);
  painter.end();
  return image;
}

TEST(cluster_index, holds_the_events_of_every_cluster_through_edits) {
  sorted_session s;
  vector_random random(5);
  for (int round = 0; round < 12; ++round) {
    const std::int32_t n = s->clusters.n_clusters;
    for (std::int32_t c = 0; c <= n; ++c) {
      const auto found = events_of_cluster(s.index, c);
      EXPECT_EQ(std::vector<std::int32_t>(found.begin(), found.end()), list_cluster_events(*s, c));
    }
    EXPECT_THAT(events_of_cluster(s.index, n + 1), IsEmpty());
    if (n < 3) break;
    const auto a = 1 + static_cast<std::int32_t>(random.next() >> 8) % (n - 1);
    if (round % 2 == 0) {
      merge_clusters(*s, a, a + 1);
    } else {
      delete_cluster(*s, a);
    }
    EXPECT_EQ(check_session(*s), "");
    const std::uint64_t stamp = s.index.stamp;
    forget_cluster_index(s.index);
    update_cluster_index(*s, s.index);
    EXPECT_NE(s.index.stamp, stamp);
  }
}

TEST(spread_order, visits_each_once_and_every_part_of_all_soon) {
  for (const std::int64_t n : {1, 2, 3, 10, 97, 1000}) {
    const spread_order order(n);
    std::vector<std::int64_t> visited;
    for (std::int64_t i = 0; i < n; ++i) visited.push_back(order.at(i));
    // A tenth of them leaves no gap of a third.
    std::vector<std::int64_t> first(visited.begin(), visited.begin() + (n + 9) / 10);
    std::sort(first.begin(), first.end());
    for (std::size_t i = 1; i < first.size() && n >= 97; ++i) {
      EXPECT_LT(first[i] - first[i - 1], n / 3);
    }
    std::sort(visited.begin(), visited.end());
    for (std::int64_t i = 0; i < n; ++i) EXPECT_EQ(visited[static_cast<std::size_t>(i)], i);
  }
}

TEST(plane_shapes, hold_what_lies_in_them) {
  // An arrowhead with a notch from the right.
  const shape_polygon arrow = {{0, 0}, {4, 0}, {1, 2}, {4, 4}, {0, 4}};
  EXPECT_TRUE(polygon_holds(arrow, {0.5f, 2}));
  EXPECT_FALSE(polygon_holds(arrow, {3, 2}));
  EXPECT_TRUE(polygon_holds(arrow, {3, 0.5f}));
  EXPECT_FALSE(polygon_holds(arrow, {-1, 2}));
  EXPECT_FALSE(polygon_holds({{0, 0}, {1, 1}}, {0.5f, 0.5f}));
  EXPECT_FALSE(polygon_holds(arrow, {std::nanf(""), 1}));
  const std::vector<shape_point> points = {{0, 0}, {2, 1}, {2.1f, 1}, {-2, -1}, {0, 0.9f}};
  const auto held = [&](auto&& holds) {
    std::vector<std::size_t> inside;
    for (std::size_t i = 0; i < points.size(); ++i) {
      if (holds(points[i])) inside.push_back(i);
    }
    return inside;
  };
  EXPECT_THAT(held([](shape_point p) {
                return rectangle_holds({2, 1}, {0, 0}, p);
              }),
              ElementsAre(0, 1, 4));
  cluster_ellipse_record ellipse = {0, 0, 2, 1, 0};
  EXPECT_THAT(held([&](shape_point p) { return ellipse_holds(ellipse, p); }), ElementsAre(0, 4));
  ellipse.angle = 90;
  EXPECT_FALSE(ellipse_holds(ellipse, {1.5f, 0}));
  EXPECT_TRUE(ellipse_holds(ellipse, {0, 1.5f}));
  // Its outline as a polygon holds the same but for a hair at the rim.
  ellipse.angle = 30;
  vector_random random(3);
  for (int i = 0; i < 2000; ++i) {
    const shape_point p = {static_cast<float>(random.next() >> 8 & 511) / 100 - 2.5f,
                           static_cast<float>(random.next() >> 8 & 511) / 100 - 2.5f};
    cluster_ellipse_record less = ellipse, more = ellipse;
    less.semi_axis_1 *= 0.99f, less.semi_axis_2 *= 0.99f;
    more.semi_axis_1 *= 1.01f, more.semi_axis_2 *= 1.01f;
    const bool in_outline = polygon_holds(outline_of(ellipse), p);
    EXPECT_TRUE(in_outline || !ellipse_holds(less, p));
    EXPECT_TRUE(!in_outline || ellipse_holds(more, p));
  }
  EXPECT_EQ(nearest_point(points, {2.06f, 1}, 0.5f, 0.5f), 2);
  EXPECT_EQ(nearest_point(points, {9, 9}, 0.5f, 0.5f), -1);
}

// A spike of known heights on two sites 40 µm apart.
TEST(event_reading, heights_and_places_by_hand) {
  small_session s;
  make_recording(*s, 3, 5000, 25000, 0.5f);
  put_samples(*s, 1, 1000, {-200, 100});
  put_samples(*s, 2, 1000, {-100, 50});
  s->events.n_events = 2;
  s->events.event_time[1] = 1000;
  s->events.event_channel[1] = 1;
  s->events.event_cluster[1] = 1;
  s->clusters.n_clusters = 1;
  calculate_all_templates(*s);
  EXPECT_FLOAT_EQ(event_height_uv(*s, 1, 1), 150.0f);
  EXPECT_FLOAT_EQ(event_height_uv(*s, 1, 3), 0.0f);
  EXPECT_FLOAT_EQ(event_minutes(*s, 1), 1000.0f / (25000.0f * 60.0f));
  s->templates.channels(1)[1] = 1;
  s->templates.channels(1)[2] = 2;
  s->templates.template_n_channels[1] = 2;
  // Weights 4 to 1.
  EXPECT_FLOAT_EQ(event_place(*s, 1, 1).y, 8.0f);
  // Beyond what is in memory nothing is read.
  s->events.event_time[2] = 6000;
  EXPECT_EQ(event_height_uv(*s, 2, 1), 0.0f);
}

TEST(mark_counts, lines_count_once_in_each_column) {
  mark_counts counts = make_mark_counts(8, 8);
  std::uint32_t* layer = counts_of_mark(counts, 3);
  const line_point level[] = {{0.5f, 2.5f}, {4.5f, 2.5f}, {7.5f, 2.5f}};
  EXPECT_EQ(count_line(counts, layer, level, 3), 7);
  EXPECT_EQ(std::accumulate(layer, layer + 64, 0u), 7u);
  EXPECT_EQ(layer[2 * 8 + 4], 1u);
  const line_point steep[] = {{1.2f, -20.0f}, {1.8f, 20.0f}};
  EXPECT_EQ(count_line(counts, layer, steep, 2), 8) << "cut to the image";
  EXPECT_EQ(layer[2 * 8 + 1], 2u);
  const line_point nowhere[] = {{1, std::nanf("")}, {3, 1}, {20, 1}, {30, 2}};
  count_line(counts, layer, nowhere, 4);
  // Layers stand in the order of their marks, whenever they came.
  counts_of_mark(counts, 1);
  EXPECT_EQ(counts.layers[0].mark, 1);
  EXPECT_EQ(counts.layers[1].counts[2 * 8 + 1], 2u);
  const cluster_theme theme = make_cluster_theme(small_session()->preferences, false);
  const QImage image = image_of_counts(counts, theme, 0.5);
  EXPECT_EQ(qAlpha(image.pixel(7, 7)), 0);
  EXPECT_NEAR(qAlpha(image.pixel(4, 2)), 128, 64);
  EXPECT_EQ(qAlpha(image.pixel(1, 2)), 255) << "the most";
}

TEST(sorted_waveforms, windows_and_clicks_find_their_way_back) {
  sorted_session s;
  for (const bool autoscale : {true, false}) {
    waveform_view view = view_of_settings(*s);
    view.clusters = {2};
    view.mode = waveform_mode::events;
    view.autoscale = autoscale;
    view.n_channels = 4;
    view.n_items = 1;
    view.first_item = 7;
    waveform_picture picture;
    prepare_waveforms(*s, s.index, view, picture);
    ASSERT_EQ(picture.layout.panels.size(), 4u);
    ASSERT_THAT(picture.events, ElementsAre(list_cluster_events(*s, 2)[6]));
    const waveform_layout& layout = picture.layout;
    for (std::size_t k = 0; k < 4; ++k) {
      const waveform_panel& panel = layout.panels[k];
      const float* v = picture.values.data() + k * static_cast<std::size_t>(layout.n_points);
      const float x = panel.x + 5 * layout.step, y = panel.y - layout.pixels_per_uv * v[5];
      const waveform_window window =
          window_of_corners(layout, panel, panel.x + 2 * layout.step, panel.y - 4,
                            panel.x + 9 * layout.step, panel.y + 4);
      EXPECT_EQ(window.channel, panel.channel);
      const float mean = picture.sets[0].mean[k * static_cast<std::size_t>(layout.n_points) + 5];
      EXPECT_EQ(panel_at(picture, x, panel.y - layout.pixels_per_uv * mean), &panel);
      EXPECT_EQ(window.first_point, 3);
      EXPECT_EQ(window.last_point, 10);
      EXPECT_NEAR(window.high_uv, 4 / layout.pixels_per_uv, 1e-2);
      EXPECT_EQ(waveform_event_at(picture, x, y), picture.events[0]);
    }
    EXPECT_EQ(waveform_event_at(picture, -50, -50), 0);
  }
}

// Counted in parts or at once: the same counts, and labels choose what is in them.
TEST(sorted_waveforms, a_density_is_the_sum_of_its_parts) {
  sorted_session s;
  s->events.event_subcluster[list_cluster_events(*s, 1)[0]] = 2;
  waveform_view view = view_of_settings(*s);
  view.clusters = {1, 3};
  view.mode = waveform_mode::density;
  view.n_channels = 4;
  view.waveforms_per_call = 100;
  waveform_picture picture;
  prepare_waveforms(*s, s.index, view, picture);
  EXPECT_FALSE(picture.complete);
  EXPECT_EQ(picture.n_counted, 25);
  for (int i = 0; i < 1000 && !picture.complete; ++i) {
    prepare_waveforms(*s, s.index, view, picture);
  }
  ASSERT_TRUE(picture.complete);
  mark_counts plain = make_mark_counts(view.width, view.height);
  float values[waveform_room];
  for (const std::int32_t c : {1, 3}) {
    for (const std::int32_t e : list_cluster_events(*s, c)) {
      std::uint32_t* layer = counts_of_mark(plain, c == 1 ? 1 : 2);
      for (const waveform_panel& panel : picture.layout.panels) {
        read_event_waveform(*s, e, panel.channel, values);
        line_point line[waveform_room];
        for (std::int32_t p = 0; p < picture.layout.n_points; ++p) {
          line[p] = {panel.x + picture.layout.step * static_cast<float>(p),
                     panel.y - picture.layout.pixels_per_uv * values[p]};
        }
        count_line(plain, layer, line, picture.layout.n_points);
      }
    }
  }
  ASSERT_EQ(picture.density.layers.size(), 2u) << "the two clusters, for all that one is marked";
  for (std::size_t k = 0; k < 2; ++k) {
    EXPECT_EQ(picture.density.layers[k].counts, plain.layers[k].counts);
  }
  view.labels = {2};
  prepare_waveforms(*s, s.index, view, picture);
  EXPECT_EQ(picture.n_to_count, 1);
}

TEST(components, points_are_those_of_clustering_and_are_found_by_a_click) {
  sorted_session s;
  gac_points plain;
  cluster_pc_values(*s, 2, plain);
  component_values values;
  read_component_values(*s, s.index, {2}, values);
  EXPECT_EQ(values.values, plain.values);
  EXPECT_EQ(values.events, list_cluster_events(*s, 2));
  component_view view;
  view.clusters = {2};
  component_picture picture;
  s->clusters.cluster_ellipse[2] = {plain.values[0], plain.values[1], 1, 2, 20};
  prepare_components(*s, values, view, picture);
  const QPointF at = pixel_of(picture.plane, picture.points[0].x, picture.points[0].y);
  const std::int32_t clicked = component_event_at(picture, at);
  const auto i =
      std::find(values.events.begin(), values.events.end(), clicked) - values.events.begin();
  ASSERT_LT(i, static_cast<std::ptrdiff_t>(values.events.size()));
  EXPECT_NEAR(picture.points[static_cast<std::size_t>(i)].x, picture.points[0].x, 1e-3);
  EXPECT_EQ(picture.ellipse, outline_of(s->clusters.cluster_ellipse[2]));
  // Half a turn mirrors the first component about its mean.
  component_view turned = view;
  turned.turn = 180;
  component_picture mirrored;
  prepare_components(*s, values, turned, mirrored);
  double mean = 0;
  for (const shape_point p : picture.points) mean += p.x;
  mean /= static_cast<double>(picture.points.size());
  for (std::size_t k = 0; k < picture.points.size(); k += 17) {
    EXPECT_NEAR(mirrored.points[k].x, 2 * mean - picture.points[k].x, 1e-2);
    EXPECT_NEAR(mirrored.points[k].y, picture.points[k].y, 1e-3);
  }
  // Of a pair, in event order; 1 and 2 until all of its events have a label.
  read_component_values(*s, s.index, {3, 1}, values);
  EXPECT_TRUE(std::is_sorted(values.events.begin(), values.events.end()));
  for (std::size_t k = 0; k < values.events.size(); ++k) {
    EXPECT_EQ(values.marks[k], s->events.event_cluster[values.events[k]] == 3 ? 1 : 2);
  }
  read_component_values(*s, s.index, {99}, values);
  EXPECT_TRUE(values.events.empty());
}

TEST(heights, medians_shapes_and_clicks) {
  std::vector<shape_point> ramp;
  for (int i = 9; i >= 0; --i) ramp.push_back({static_cast<float>(i), static_cast<float>(10 * i)});
  const std::vector<shape_point> medians = running_median(ramp, 5);
  ASSERT_EQ(medians.size(), 4u);
  EXPECT_EQ(medians[0], (shape_point{2, 20}));
  EXPECT_EQ(medians[3], (shape_point{7, 70})) << "the last five";
  EXPECT_THAT(running_median({}, 5), IsEmpty());
  EXPECT_EQ(running_median({{1, 4}}, 5)[0], (shape_point{1, 4}));

  sorted_session s;
  s->recording.n_epochs = 2;
  s->recording.epoch_first_index[2] = 50000;
  height_view view;
  view.clusters = {2, 4};
  height_picture picture;
  prepare_heights(*s, s.index, nullptr, view, picture);
  EXPECT_EQ(picture.events.size(),
            list_cluster_events(*s, 2).size() + list_cluster_events(*s, 4).size());
  EXPECT_FLOAT_EQ(picture.points[0].y,
                  event_height_uv(*s, picture.events[0], s->templates.centre_channel(2)));
  ASSERT_EQ(picture.gaps.size(), 1u);
  EXPECT_NEAR(picture.gaps[0], 2.0 / 60, 1e-6);
  const shape_point p = picture.points[5];
  EXPECT_NE(height_event_at(picture, pixel_of(picture.plane, p.x, p.y)), 0);
  EXPECT_EQ(height_title(picture, height_measure::pc2), "PC2 vs time for clusters 2 and 4");
  EXPECT_EQ(height_title(picture, height_measure::peak_to_peak),
            "P-P Height (2 on channel 2 and 4 on channel 4)");
}

TEST(template_image, rows_in_site_order_are_read_at_the_pointer) {
  sorted_session s;
  template_image_view view;
  view.cluster = 3;
  template_image_picture picture;
  prepare_template_image(*s, view, picture);
  ASSERT_THAT(picture.channels, ElementsAre(1, 2, 3, 4));
  const int n = picture.n_points;
  // Third of four rows, middle of the first and of the last point.
  const double left = 52, width = view.width - 52.0 - 74, top = 24, height = view.height - 62.0;
  const template_reading first =
      read_template_image(picture, {left + 0.5 * width / n, top + 0.6 * height});
  EXPECT_EQ(first.channel, 3);
  EXPECT_FLOAT_EQ(first.microvolts, s->templates.mean(3, 3)[1] * 0.25f);
  const template_reading last =
      read_template_image(picture, {left + width - 1, top + 0.9 * height});
  EXPECT_FLOAT_EQ(last.microvolts, s->templates.mean(3, 4)[n] * 0.25f);
  EXPECT_EQ(read_template_image(picture, {5, 5}).channel, 0);
  view.cluster = 77;
  prepare_template_image(*s, view, picture);
  EXPECT_EQ(picture.cluster, 0);
}

TEST(spike_map, chosen_clusters_are_found_and_the_view_stays_in_the_recording) {
  sorted_session s;
  spike_view view;
  view.clusters = {2};
  spike_picture picture;
  prepare_spikes(*s, s.index, view, picture);
  EXPECT_EQ(picture.events.size(), static_cast<std::size_t>(s->events.n_events));
  const std::vector<std::int32_t> list = list_cluster_events(*s, 2);
  EXPECT_EQ(std::vector<std::int32_t>(
                picture.events.begin() + static_cast<std::ptrdiff_t>(picture.n_behind),
                picture.events.end()),
            list);
  const shape_point p = picture.points[picture.n_behind + 3];
  EXPECT_EQ(spike_cluster_at(*s, picture, pixel_of(picture.plane, p.x, p.y)), 2);
  for (int i = 0; i < 40; ++i) {
    zoom_spikes(*s, view, picture, {300, 200}, i % 7 == 0 ? 0.2 : 1.7);
    scroll_spikes(*s, view, i % 3 == 0 ? -5 : 0.4);
    EXPECT_GE(view.from_minutes, 0);
    EXPECT_LT(view.from_minutes, view.to_minutes);
    EXPECT_LE(view.to_minutes, 100000 / (25000.0 * 60) + 1e-6);
    prepare_spikes(*s, s.index, view, picture);
  }
  probe_view probe;
  probe_picture sites;
  prepare_probe(*s, s.index, probe, sites);
  for (std::int32_t c = 1; c <= 4; ++c) {
    const shape_point unit = sites.units[static_cast<std::size_t>(c) - 1];
    const std::int32_t found = probe_cluster_at(sites, pixel_of(sites.plane, unit.x, unit.y));
    EXPECT_TRUE(found == c || found == c + 4) << "two units may share a site";
  }
}

// Very many events are counted: each in the row of its cluster, however the choice changes.
TEST(spike_map, a_crowd_is_counted_and_its_rows_are_clusters) {
  small_session s;
  make_recording(*s, 4, 300000);
  constexpr std::int32_t n = 240'000;
  s->events.n_events = n;
  for (std::int32_t e = 1; e <= n; ++e) {
    s->events.event_time[e] = e + 100;
    s->events.event_channel[e] = 1 + e % 4;
    s->events.event_cluster[e] = e % 4;
  }
  s->clusters.n_clusters = 3;
  for (std::int32_t c = 1; c <= 3; ++c) s->templates.template_y[c] = 35.0f * static_cast<float>(c);
  cluster_index index;
  spike_view view;
  spike_picture picture;
  const auto sum_of = [&](std::size_t layer) {
    const auto& counts = picture.behind.layers[layer].counts;
    return std::accumulate(counts.begin(), counts.end(), 0u);
  };
  for (const std::int32_t chosen : {0, 2, 3}) {
    view.clusters = {chosen};
    prepare_spikes(*s, index, view, picture);
    EXPECT_EQ(picture.n_in_view, n);
    ASSERT_EQ(picture.behind.layers.size(), 4u);
    for (std::size_t layer = 0; layer < 4; ++layer) EXPECT_EQ(sum_of(layer), n / 4u);
    for (std::int32_t c = 1; c <= 3; ++c) {
      const QPointF at = pixel_of(picture.plane, 0.1, 35.0 * c);
      EXPECT_EQ(spike_cluster_at(*s, picture, at + QPointF(0, 2)), c);
    }
  }
  // An edit is seen: the counts belong to their index.
  s->events.event_cluster[4] = 1;
  forget_cluster_index(index);
  prepare_spikes(*s, index, view, picture);
  EXPECT_EQ(sum_of(1), n / 4 + 1u);
  // A row is seen as well on a finer device: it is as high there, and takes as many of its pixels.
  const auto painted_height = [&](double ratio, std::int32_t n_events) {
    s->events.n_events = n_events;
    forget_cluster_index(index);
    view.pixel_ratio = ratio;
    view.clusters = {};
    prepare_spikes(*s, index, view, picture);
    QImage image(QSize(view.width, view.height) * ratio, QImage::Format_RGB32);
    image.setDevicePixelRatio(ratio);
    const cluster_theme theme = make_cluster_theme(s->preferences, true);
    image.fill(theme.background);
    QPainter painter(&image);
    paint_spikes(painter, picture, view, theme);
    painter.end();
    const QPointF at = pixel_of(picture.plane, 0.01, 70.0) * ratio;
    int height = 0;
    for (int y = -8; y <= 8; ++y) {
      const QColor seen = image.pixelColor(at.toPoint() + QPoint(1, y));
      height += seen.green() > 150 && seen.red() < 100 ? 1 : 0;
    }
    return height / ratio;
  };
  for (const std::int32_t n_events : {n, 40'000}) {  // counted at once, and as points
    const double height = painted_height(1, n_events);
    EXPECT_EQ(height, 1);
    EXPECT_EQ(painted_height(2, n_events), height);
  }
}

TEST(correlogram_panel, bars_stand_where_they_are_found) {
  correlogram_panel panel;
  panel.title = "AC: Unit 3";
  panel.bin_ms = 0.5f;
  panel.counts.assign(101, 0);
  panel.counts[60] = 40;
  panel.counts[50] = 80;
  const cluster_theme theme = make_cluster_theme(small_session()->preferences, false);
  for (const QRectF rect : {QRectF(0, 0, 400, 300), QRectF(0, 0, 150, 110)}) {
    std::int32_t hits = 0;
    for (int x = 0; x < rect.width(); ++x) {
      const correlogram_hit hit = correlogram_bin_at(rect, panel, QPointF(x, rect.height() / 2));
      if (!hit.found) continue;
      ++hits;
      EXPECT_EQ(hit.count, panel.counts[static_cast<std::size_t>(hit.bin + 50)]);
    }
    EXPECT_GT(hits, 100);
    const QImage image =
        paint_image(static_cast<int>(rect.width()), static_cast<int>(rect.height()),
                    [&](QPainter& p) { paint_correlogram(p, rect, panel, theme); });
    std::int32_t bars = 0;
    for (int y = 0; y < image.height(); ++y) {
      for (int x = 0; x < image.width(); ++x) bars += image.pixel(x, y) == theme.neutral.rgb();
    }
    EXPECT_GT(bars, rect.height() / 2);
  }
  const std::vector<QRectF> panels = lay_out_panels(QRectF(0, 0, 600, 200), 3);
  ASSERT_EQ(panels.size(), 3u);
  for (const QRectF& one : panels) EXPECT_TRUE(QRectF(0, 0, 600, 200).contains(one.center()));
  EXPECT_FALSE(panels[0].intersects(panels[1]));
}

// The width of the bins stands at the right of the title where the two have room, otherwise with
// the axis that it divides; never on the bars.
TEST(correlogram_panel, the_width_of_the_bins_keeps_off_the_bars) {
  correlogram_panel panel;
  panel.title = "CC: Units 103 and 107";
  panel.caption = "0.500 ms bins";
  panel.bin_ms = 0.5f;
  panel.counts.assign(101, 7);
  const cluster_theme theme = make_cluster_theme(small_session()->preferences, false);
  const auto words = [&](int width) {
    return picture_as_svg(QSize(width, 200), [&](QPainter& p) {
      paint_correlogram(p, QRectF(0, 0, width, 200), panel, theme);
    });
  };
  EXPECT_NE(words(500).find(">0.500 ms bins<"), std::string::npos);
  EXPECT_NE(words(220).find(">time (ms), 0.500 ms bins<"), std::string::npos);
  EXPECT_EQ(words(220).find(">0.500 ms bins<"), std::string::npos);
}

// show(name, width, height, paint) for the waveforms of a pair in every mode.
template <typename Show>
void show_waveforms(session_state& session, cluster_index& index, const cluster_theme& theme,
                    Show&& show) {
  for (const auto mode :
       {waveform_mode::events, waveform_mode::density, waveform_mode::templates}) {
    show("waveforms", 800, 600, [&](QPainter& p) {
      waveform_view view = view_of_settings(session);
      view.clusters = {1, 2};
      view.mode = mode;
      waveform_picture picture;
      prepare_waveforms(session, index, view, picture);
      paint_waveforms(p, picture, view, theme);
    });
  }
}

// The same for planes and images.
template <typename Show>
void show_planes(session_state& session, cluster_index& index, const cluster_theme& theme,
                 Show&& show) {
  show("components", 500, 500, [&](QPainter& p) {
    component_values values;
    read_component_values(session, index, {1, 2}, values);
    component_picture picture;
    prepare_components(session, values, {}, picture);
    paint_components(p, picture, {}, theme);
  });
  show("heights", 800, 300, [&](QPainter& p) {
    height_view view;
    view.clusters = {1, 2};
    height_picture picture;
    prepare_heights(session, index, nullptr, view, picture);
    paint_heights(p, picture, view, theme);
  });
  show("template", 500, 600, [&](QPainter& p) {
    template_image_view view;
    view.cluster = 1;
    template_image_picture picture;
    prepare_template_image(session, view, picture);
    paint_template_image(p, picture, view, theme);
  });
  show("spikes", 1000, 600, [&](QPainter& p) {
    spike_picture picture;
    prepare_spikes(session, index, {}, picture);
    paint_spikes(p, picture, {}, theme);
  });
  show("probe", 300, 700, [&](QPainter& p) {
    probe_picture picture;
    prepare_probe(session, index, {}, picture);
    paint_probe(p, picture, {}, theme);
  });
}

// All of them, on an empty session and on a sorted one, light and dark, leave no pixel unpainted
// and change nothing.
void check_pictures(bool dark, bool empty) {
  // Shared, so that each goes as what it was made as.
  const std::shared_ptr<small_session> s =
      empty ? std::make_shared<small_session>()
            : std::static_pointer_cast<small_session>(std::make_shared<sorted_session>());
  session_state& session = **s;
  cluster_index index;
  const cluster_theme theme = make_cluster_theme(session.preferences, dark);
  for (const QColor& colour : theme.colours) {
    EXPECT_GE(std::abs(qGray(colour.rgb()) - qGray(theme.background.rgb())), 60);
  }
  const auto show = [&](const char* name, int width, int height, auto&& paint) {
    const QImage image = paint_image(width, height, paint);
    EXPECT_EQ(ink(image, Qt::magenta), std::int64_t{width} * height) << name;
    EXPECT_TRUE(empty || ink(image, theme.background) > 500) << name;
  };
  show_waveforms(session, index, theme, show);
  show_planes(session, index, theme, show);
  EXPECT_EQ(check_session(session), "");
}

TEST(overlap_display, counts_what_the_lists_hold) {
  sorted_session session;
  build_status_lists(*session);
  session->strategy.pca_dimensions = 3;
  const std::int32_t n = session->clusters.n_clusters;
  float most = -100;
  for (std::int32_t b = 2; b <= n; ++b) {
    overlap_picture picture;
    prepare_overlap(*session, b, 1, picture);
    EXPECT_EQ(picture.pair.a, 1) << "the lower first";
    const overlap_points& p = picture.points;
    const std::int64_t k = find_pair(*session, {1, b});
    most = std::max(most, session->lists.kv_cluster_overlap[k]);
    const pair_shift shift = {session->lists.rms_template_shift[k],
                              session->lists.kv_n_shift_template[k]};
    EXPECT_EQ(p.overlap, plain_cluster_overlap(*session, 1, b, n + 1, shift));
    EXPECT_EQ(p.n_foreign, std::count(p.foreign.begin(), p.foreign.end(), 1));
    // Those of the cluster that does not ask have no ring.
    const auto first = p.foreign.begin() + (p.a_asks ? p.n_a : 0);
    EXPECT_EQ(std::count(first, first + (p.a_asks ? p.n_b : p.n_a), 1), 0);
    EXPECT_EQ(overlap_title(picture),
              "Overlap diagnostics for Clusters 1 and " + std::to_string(b));
  }
  const std::int32_t partner = find_overlap_partner(*session, 1);
  EXPECT_EQ(session->lists.kv_cluster_overlap[find_pair(*session, {1, partner})], most);
  session->lists.n_kv_pairs = 0;
  const std::int32_t nearest = find_overlap_partner(*session, 1);
  for (std::int32_t b = 2; b <= n; ++b) {
    EXPECT_LE(spatial_separation(*session, 1, nearest), spatial_separation(*session, 1, b));
  }
  session->clusters.n_clusters = 1;
  EXPECT_EQ(find_overlap_partner(*session, 1), 0);
  overlap_picture none;
  prepare_overlap(*session, 1, 0, none);
  EXPECT_THAT(none.words, ElementsAre("There are no two clusters to compare"));
}

TEST(train_correlograms, neighbours_come_by_their_distance_page_by_page) {
  sorted_session session;
  const std::int32_t n = session->clusters.n_clusters;
  // Twenty more at one place: of equals the lower number comes first.
  for (std::int32_t c = n + 1; c <= n + 20; ++c) {
    session->templates.template_x[c] = 0;
    session->templates.template_y[c] = 10'000;
  }
  session->clusters.n_clusters = n + 20;
  const train_panels first = count_trains(*session, 2, -3);
  ASSERT_EQ(first.others.size(), static_cast<std::size_t>(n + 19));
  EXPECT_EQ(first.others.back(), n + 20);
  for (std::size_t i = 1; i < first.others.size(); ++i) {
    EXPECT_LE(spatial_separation(*session, 2, first.others[i - 1]),
              spatial_separation(*session, 2, first.others[i]));
  }
  EXPECT_EQ(first.first, 0);
  ASSERT_EQ(first.correlograms.size(), 16u);
  EXPECT_EQ(first.correlograms[0].counts, correlogram_counts(*session, 2, 2).counts);
  const std::int32_t third = first.others[2];
  EXPECT_EQ(first.correlograms[3].counts, correlogram_counts(*session, 2, third).counts);
  const train_panels last = count_trains(*session, 2, 1000);
  EXPECT_EQ(last.first, n + 18);
  EXPECT_EQ(last.correlograms.size(), 2u);
  EXPECT_EQ(last.correlograms[1].b, first.others.back());
  const QRectF rect(0, 0, 640, 480);
  EXPECT_EQ(train_at(rect, first, QPointF(3, 3)), 2) << "its own";
  EXPECT_EQ(train_at(rect, first, QPointF(636, 476)), first.others[14]);
  EXPECT_EQ(train_at(rect, first, QPointF(700, 3)), 0);
  // Two panels stand one above the other where there is room for no more.
  const QRectF small(0, 0, 150, 170);
  EXPECT_EQ(panels_in(small, first), 2);
  EXPECT_EQ(train_at(small, first, QPointF(75, 3)), 2);
  EXPECT_EQ(train_at(small, first, QPointF(75, 160)), first.others[0]);
  EXPECT_EQ(panels_in(QRectF(), train_panels{}), 0);
}

TEST(train_correlograms, records_that_were_stored_one_by_one_have_none) {
  sorted_session session;
  const cluster_theme theme = make_cluster_theme(session->preferences, false);
  const auto words = [&] {
    const train_panels panels = count_trains(*session, 1, 0);
    return picture_as_svg(QSize(600, 300), [&](QPainter& painter) {
      paint_trains(painter, QRectF(0, 0, 600, 300), panels, false, theme);
    });
  };
  const char* refusal = "Cross correlation not supported for event based recording";
  EXPECT_EQ(words().find(refusal), std::string::npos);
  EXPECT_NE(words().find("AC: Unit 1"), std::string::npos);
  EXPECT_NE(words().find("CC: Units 1 and "), std::string::npos);
  EXPECT_NE(words().find(" ms bins"), std::string::npos);
  session->recording.is_continuous = false;
  EXPECT_NE(words().find(refusal), std::string::npos);
  session->preferences.treat_as_continuous = true;
  EXPECT_EQ(words().find(refusal), std::string::npos);
}

TEST(cluster_pictures, are_whole_in_both_themes_and_change_nothing) {
  for (const bool dark : {false, true}) {
    for (const bool empty : {true, false}) check_pictures(dark, empty);
  }
}

}  // namespace
}  // namespace kestrelvane::test

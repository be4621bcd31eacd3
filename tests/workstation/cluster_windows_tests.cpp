// The windows of sorted clusters: what they show, and what mouse and keys do in them.
#include <QTest>
#include <QWheelEvent>

#include "sorting/cluster_edits.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/operation.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"

namespace kestrelvane::test {
namespace {

graph_surface* surface_of(driven_workstation& w, graph_kind kind) {
  graph_window* window = graph_of(w.shell, kind);
  return window == nullptr ? nullptr : window->surface();
}

void turn(graph_surface* surface, int notches, Qt::KeyboardModifiers keys = Qt::NoModifier) {
  const QPointF middle = surface->rect().center();
  QWheelEvent wheel(middle, surface->mapToGlobal(middle), {}, QPoint(0, 120 * notches),
                    Qt::NoButton, keys, Qt::NoScrollPhase, false);
  QApplication::sendEvent(surface, &wheel);
}

TEST(ClusterWindows, ShowTheCurrentClusterAndFollowIt) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  w.shell.frame->resize(1280, 780);
  w.choose_entry("sorted_waveforms");
  graph_surface* waveforms = surface_of(w, graph_kind::cluster_waveforms);
  graph_surface* components = surface_of(w, graph_kind::principal_components);
  ASSERT_TRUE(waveforms != nullptr && components != nullptr);
  EXPECT_FALSE(graph_of(w.shell, graph_kind::cluster_waveforms)
                   ->geometry()
                   .intersects(graph_of(w.shell, graph_kind::principal_components)->geometry()))
      << "one hides the other";
  const cluster_displays& d = *w.shell.cluster_windows;
  EXPECT_EQ(d.single.view.clusters, std::vector<std::int32_t>{2});
  EXPECT_EQ(d.values.clusters, std::vector<std::int32_t>{2});
  const QImage second = waveforms->picture();

  choose_cluster(w.shell, 3);
  EXPECT_EQ(d.single.view.clusters, std::vector<std::int32_t>{3});
  EXPECT_EQ(d.values.clusters, std::vector<std::int32_t>{3});
  EXPECT_NE(waveforms->picture(), second);
  choose_cluster(w.shell, 2);
  EXPECT_EQ(waveforms->picture(), second);
  choose_cluster(w.shell, 1000);
  EXPECT_EQ(w.session->clusters.current_cluster, 2) << "there is none of that number";

  // The wheel scales, keys page, a double click changes how events are drawn.
  const float gain = d.single.view.voltage_gain;
  turn(waveforms, 2);
  EXPECT_GT(d.single.view.voltage_gain, gain);
  QTest::keyClick(waveforms, Qt::Key_PageDown);
  QTest::keyClick(waveforms, Qt::Key_Home);
  EXPECT_EQ(d.single.view.first_item, 1);
  const waveform_mode mode = d.single.view.mode;
  QTest::mouseDClick(waveforms, Qt::LeftButton, {}, {20, 20});
  EXPECT_NE(d.single.view.mode, mode);
  turn(components, 3);
  EXPECT_LT(d.components.range.x_from, d.components.range.x_to);
  QTest::mouseDClick(components, Qt::LeftButton, {}, {20, 20});
  EXPECT_EQ(d.components.range, (graph_view{0, 0, 0, 0}));
}

TEST(ClusterWindows, APairKeepsItsTwoUnitsOverEdits) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  show_pair_windows(w.shell, 3, 4);
  const cluster_displays& d = *w.shell.cluster_windows;
  EXPECT_EQ(d.pair.view.clusters, (std::vector<std::int32_t>{3, 4}));
  start_operation(
      w.shell, [](session_state& s) { delete_cluster(s, 1); }, nullptr);
  w.settle();
  EXPECT_EQ(d.a, 2);
  EXPECT_EQ(d.b, 3);
  EXPECT_EQ(d.pair.view.clusters, (std::vector<std::int32_t>{2, 3}));
  // One of the two is gone: the current cluster alone.
  start_operation(
      w.shell, [](session_state& s) { delete_cluster(s, 3); }, nullptr);
  w.settle();
  EXPECT_EQ(d.b, 0);
  EXPECT_EQ(d.pair.view.clusters.size(), 1u);
  EXPECT_EQ(check_session(*w.session), "");
}

TEST(ClusterWindows, TheProbeChoosesAClusterAndScrollsThroughTime) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  w.choose_entry("spike_view");
  graph_surface* spikes = surface_of(w, graph_kind::spike_view);
  ASSERT_NE(spikes, nullptr);
  const cluster_displays& d = *w.shell.cluster_windows;
  ASSERT_FALSE(d.spike_points.points.empty());
  // Press on a spike of another cluster.
  for (std::size_t i = 0; i < d.spike_points.points.size(); ++i) {
    const std::int32_t event = d.spike_points.events[i];
    const std::int32_t cluster = w.session->events.event_cluster[event];
    if (cluster < 1 || cluster == w.session->clusters.current_cluster) continue;
    const shape_point at = d.spike_points.points[i];
    QTest::mouseClick(spikes, Qt::LeftButton, {},
                      pixel_of(d.spike_points.plane, at.x, at.y).toPoint());
    break;
  }
  EXPECT_NE(w.session->clusters.current_cluster, 2);
  turn(spikes, 2, Qt::ControlModifier);
  EXPECT_LT(d.spikes.to_minutes - d.spikes.from_minutes, w.session->recording.duration_mins);
  QTest::keyClick(spikes, Qt::Key_Home);
  EXPECT_EQ(d.spikes.to_minutes, 0);
}

TEST(ClusterWindows, WithoutClustersTheyAreEmptyAndDoNoHarm) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  w.choose_entry("sorted_waveforms");
  w.choose_entry("spike_view");
  open_graph(w.shell, graph_kind::template_image);
  open_graph(w.shell, graph_kind::amplitude_vs_time);
  open_graph(w.shell, graph_kind::correlograms);
  start_operation(
      w.shell, [](session_state& s) { delete_clusters(s, all_clusters(s)); }, nullptr);
  w.settle();
  EXPECT_EQ(w.session->clusters.n_clusters, 0);
  for (const graph_kind kind :
       {graph_kind::cluster_waveforms, graph_kind::principal_components, graph_kind::spike_view,
        graph_kind::template_image, graph_kind::amplitude_vs_time, graph_kind::correlograms}) {
    graph_surface* surface = surface_of(w, kind);
    ASSERT_NE(surface, nullptr);
    surface->redraw();
    turn(surface, 1);
    QTest::mouseClick(surface, Qt::LeftButton, {}, surface->rect().center());
    EXPECT_FALSE(surface->picture().isNull());
  }
  EXPECT_EQ(check_session(*w.session), "");
}

}  // namespace
}  // namespace kestrelvane::test

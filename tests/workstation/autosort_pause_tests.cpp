// A sort that pauses in the stages of pairs: what it shows of the pair in hand, that the windows
// live meanwhile, that nothing comes of a pause, and the way on to guided merging.
#include <QCheckBox>
#include <QPushButton>
#include <QSlider>
#include <QTest>
#include <algorithm>
#include <set>

#include "clustering/membership.h"
#include "sorting/cluster_edits.h"
#include "sorting/status_lists.h"
#include "workstation/interface_desk.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"

namespace kestrelvane::test {
namespace {

// Cluster 1 has been cut into every other of its events, so that the halves are a safe pair.
struct halved_workstation : sorted_workstation {
  explicit halved_workstation(const std::string& home) : sorted_workstation(home) {
    start_operation(
        shell,
        [](session_state& s) {
          std::int16_t half = 0;
          for (const std::int32_t e : list_cluster_events(s, 1)) {
            s.events.event_subcluster[e] = half = static_cast<std::int16_t>(1 - half);
          }
          s.clusters.current_cluster = 1;
          split_marked_to_new_cluster(s, 1);
        },
        nullptr);
    settle();
    n_halved = session->clusters.n_clusters;
    shell.frame->resize(1280, 760);
  }
  QDialog* start(bool pause, bool merge_safe, bool merge_and_split) {
    choose_entry("autosort");
    QDialog* opened = dialog("autosort_dialog");
    tick(opened, "skip_event_detection", true);
    tick(opened, "skip_clustering", true);
    tick(opened, "merge_safe_pairs", merge_safe);
    tick(opened, "merge_split_pairs", merge_and_split);
    tick(opened, "pause", pause);
    press(opened, "start");
    return opened;
  }
  // False when the run has come to its last box instead.
  bool wait_for_pause() {
    const auto over = [] { return QApplication::activeModalWidget() != nullptr; };
    return wait_until([&] { return shell.paused || over(); }) && shell.paused;
  }
  bool has_logged(const std::string& start) const {
    for (std::int32_t i = 1; i <= session->log.n_log_lines; ++i) {
      if (session->log.log_lines[i].view().starts_with(start)) return true;
    }
    return false;
  }
  std::vector<std::int32_t> membership() const {
    const std::int32_t* of = session->events.event_cluster.first();
    return {of, of + session->events.n_events};
  }
  std::int32_t n_halved = 0;
};

std::set<std::int16_t> labels_in(const std::vector<std::int16_t>& marks) {
  return {marks.begin(), marks.end()};
}

TEST(PausedAutosort, ShowsTheSafePairAsItWasAndLetsTheWindowsLive) {
  const temporary_directory home;
  halved_workstation w(home.path);
  const std::int32_t half = w.n_halved;  // the new one stands at the end
  const auto n_half = static_cast<std::size_t>(count_cluster_events(*w.session, half));
  const auto n_both = n_half + static_cast<std::size_t>(count_cluster_events(*w.session, 1));
  QDialog* dialog = w.start(true, true, true);
  ASSERT_TRUE(w.wait_for_pause());
  const event_pool& pool = w.session->autosort.pool;
  ASSERT_EQ(pool.pooled, (std::vector<std::int32_t>{1, half}));
  EXPECT_EQ(pool.clusters, std::vector<std::int32_t>{1}) << "it has been merged already";
  EXPECT_EQ(pool.events.size(), n_both);
  EXPECT_EQ(std::count(pool.labels.begin(), pool.labels.end(), 1),
            static_cast<std::ptrdiff_t>(n_half));
  EXPECT_TRUE(w.has_logged("Paused for clusters 1 " + std::to_string(half)));
  EXPECT_TRUE(w.has_logged("Merging did not remove any events") ||
              w.has_logged("events deleted, original-final cluster sizes="));

  const cluster_displays& d = *w.shell.cluster_windows;
  graph_window* waveforms = graph_of(w.shell, graph_kind::waveform_comparison);
  graph_window* components = graph_of(w.shell, graph_kind::principal_components);
  ASSERT_TRUE(waveforms != nullptr && components != nullptr);
  EXPECT_FALSE(waveforms->geometry().intersects(components->geometry()));
  EXPECT_EQ(d.component_points.points.size(), n_both);
  EXPECT_EQ(labels_in(d.values.marks), (std::set<std::int16_t>{0, 1}));
  EXPECT_EQ(d.pair.view.clusters, std::vector<std::int32_t>{1});
  EXPECT_EQ(d.pair.view.mode, waveform_mode::events);
  EXPECT_EQ(labels_in(d.pair.picture.marks), (std::set<std::int16_t>{0, 1}));
  // Pages and scales are the user's while the worker waits.
  QTest::keyClick(waveforms->surface(), Qt::Key_PageDown);
  EXPECT_EQ(d.pair.view.first_item, 1 + d.pair.view.n_items);
  w.control<QSlider>(dialog, "pc_display_scale")->setValue(60);
  const graph_view& plane = d.component_points.plane.view;
  EXPECT_NEAR((plane.x_to - plane.x_from) * (60 * 9.75 / 200 + 0.25), d.components.width, 1e-3);
  EXPECT_EQ(w.text(dialog, "current_pair"), QString("1 %1").arg(half));
  EXPECT_EQ(check_session(*w.session), "");

  // The next step looks at each cluster alone.
  w.press(dialog, "resume");
  ASSERT_TRUE(w.wait_for_pause());
  EXPECT_EQ(pool.pooled, std::vector<std::int32_t>{1});
  EXPECT_EQ(d.component_points.points.size(), pool.events.size());
  EXPECT_EQ(labels_in(d.values.marks), std::set<std::int16_t>{mark_of_cluster(1)});
  w.press(dialog, "interrupt");
  w.settle();
  EXPECT_TRUE(w.told.contains("Autosort interrupted by user!"));
  EXPECT_TRUE(pool.pooled.empty());
  EXPECT_EQ(d.values.clusters.size(), 1u) << "the current cluster again";
  EXPECT_EQ(check_session(*w.session), "");
}

TEST(PausedAutosort, ShowsThePoolOfAPairAndWhatItHasBecome) {
  const temporary_directory home;
  halved_workstation w(home.path);
  QDialog* dialog = w.start(true, false, true);
  ASSERT_TRUE(w.wait_for_pause());
  const event_pool& pool = w.session->autosort.pool;
  ASSERT_EQ(pool.pooled, (std::vector<std::int32_t>{1, w.n_halved}));
  const cluster_displays& d = *w.shell.cluster_windows;
  EXPECT_EQ(d.component_points.points.size(), pool.events.size());
  EXPECT_EQ(labels_in(d.values.marks).count(0), 0u) << "each has its place in the list";
  EXPECT_EQ(d.pair.view.clusters, pool.clusters);
  EXPECT_EQ(d.pair.picture.sets.size(), pool.clusters.size());
  w.press(dialog, "interrupt");
  w.settle();
  EXPECT_EQ(check_session(*w.session), "");
}

TEST(PausedAutosort, APausedRunEndsAsAStraightOne) {
  const temporary_directory home, other;
  halved_workstation w(home.path), straight(other.path);
  straight.start(false, true, true);
  straight.settle();
  QDialog* dialog = w.start(true, true, true);
  int pauses = 0;
  while (w.wait_for_pause()) {
    ++pauses;
    EXPECT_EQ(check_session(*w.session), "");
    w.press(dialog, "resume");
  }
  w.settle();
  EXPECT_GT(pauses, 3);
  EXPECT_EQ(w.session->clusters.n_clusters, straight.session->clusters.n_clusters);
  EXPECT_EQ(w.membership(), straight.membership());
  EXPECT_EQ(w.places(), straight.places());
}

TEST(PausedAutosort, NextGoesOnToGuidedMergeWhileThereArePairs) {
  const temporary_directory home;
  halved_workstation w(home.path);
  QDialog* dialog = w.start(false, false, false);
  w.settle();
  ASSERT_GT(count_pairs_to_examine(*w.session), 0);
  w.press(dialog, "next");
  QDialog* guided = w.dialog("guided_merge_dialog");
  w.settle();
  ASSERT_NE(guided, nullptr);
  w.press(guided, "finish");
  w.settle();
  // "Done" does not.
  w.choose_entry("autosort");
  w.press(w.dialog("autosort_dialog"), "done");
  w.settle();
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("guided_merge_dialog"), nullptr);
}

}  // namespace
}  // namespace kestrelvane::test

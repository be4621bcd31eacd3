// The windows of the analysis, and the table of decisions, driven as a user would.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QTableView>
#include <QTest>

#include "analysis/power_spectrum.h"
#include "displays/clusters/train_correlograms.h"
#include "sorting/status_lists.h"
#include "workstation/commands/menu_table.h"
#include "workstation/program_options.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane::test {
namespace {

// With the entries that few laboratories need.
struct research_workstation : sorted_workstation {
  explicit research_workstation(const std::string& home) : sorted_workstation(home) {
    keep_wish(program_option::research_tools, true);
    show_full_entries(shell);
  }
  ~research_workstation() { keep_wish(program_option::research_tools, false); }
};

TEST(AnalysisWindows, TheSpectrumIsShownUntilTheRecordingIsAnother) {
  const temporary_directory home;
  research_workstation w(home.path);
  w.choose_entry("hp_spectrum");
  w.settle();
  graph_window* window = graph_of(w.shell, graph_kind::hp_spectrum);
  ASSERT_NE(window, nullptr);
  const graph_data graph = window->surface()->graph();
  EXPECT_EQ(graph.series[0].y,
            make_spectrum_graph(measure_power_spectrum(*w.session), 1).series[0].y);
  EXPECT_EQ(graph.labels[label_legend + 3], "Channel 1");
  const auto channel_after = [&](int key) {
    QTest::keyClick(window->surface(), static_cast<Qt::Key>(key));
    return window->surface()->graph().labels[label_legend + 3];
  };
  EXPECT_EQ(channel_after(Qt::Key_Down), "Channel 2");
  EXPECT_EQ(channel_after(Qt::Key_PageDown), "Channel 4");
  EXPECT_EQ(channel_after(Qt::Key_Up), "Channel 3");
  ++w.session->filter_history.n_entries;
  window->surface()->redraw();
  EXPECT_TRUE(window->surface()->graph().series[0].x.empty());
  EXPECT_FALSE(window->surface()->graph().remark.empty());
}

TEST(MeasureWindows, FollowTheCurrentClusterAndThePairOnShow) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  for (const char* entry : {"isi_plot", "spike_trains", "overlap_diagnostics"}) {
    w.choose_entry(entry);
  }
  const auto title = [&](graph_kind kind) { return graph_of(w.shell, kind)->windowTitle(); };
  graph_surface* isi = graph_of(w.shell, graph_kind::intervals)->surface();
  EXPECT_EQ(title(graph_kind::intervals), "ISI plot");
  EXPECT_EQ(isi->graph().title, "Unit 2 interspike intervals");
  EXPECT_EQ(title(graph_kind::spike_trains), "Spike train cross correlograms");
  w.session->clusters.current_cluster = 3;
  refresh_windows(w.shell);
  EXPECT_EQ(isi->graph().title, "Unit 3 interspike intervals");
  EXPECT_TRUE(title(graph_kind::overlap).startsWith("Overlap diagnostics for Clusters "));
  cluster_displays& d = displays_of(w.shell);
  d.a = 4;
  d.b = 1;
  refresh_windows(w.shell);
  EXPECT_EQ(title(graph_kind::overlap), "Overlap diagnostics for Clusters 1 and 4");
  // A panel that is pressed is shown large: the second is the one that lies nearest.
  graph_surface* trains = graph_of(w.shell, graph_kind::spike_trains)->surface();
  const train_panels panels = count_trains(*w.session, 3, 0);
  QTest::mouseClick(trains, Qt::LeftButton, {}, QPoint(trains->width() - 5, 5));
  const std::int32_t pressed =
      train_at(QRectF(trains->rect()), panels, QPointF(trains->width() - 5, 5));
  ASSERT_NE(w.shell.correlograms, nullptr);
  EXPECT_EQ(w.shell.correlograms->a, 3);
  EXPECT_EQ(w.shell.correlograms->b, pressed);
  // All neighbours are on one page.
  QTest::keyClick(trains, Qt::Key_PageDown);
  QTest::mouseClick(trains, Qt::LeftButton, {}, QPoint(5, 5));
  EXPECT_EQ(w.shell.correlograms->b, 3);
}

// Which windows are there is what the boxes say, whoever has opened them.
TEST(MeasureWindows, TheBoxOfAReviewFollowsAWindowOfAnotherHand) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  w.choose_entry("view_clusters");
  w.settle();
  QDialog* dialog = w.dialog("view_clusters_dialog");
  ASSERT_NE(dialog, nullptr);
  auto* box = w.control<QCheckBox>(dialog, "show_correlograms");
  w.tick(dialog, "show_correlograms", false);
  w.choose_entry("spike_trains");
  ASSERT_NE(graph_of(w.shell, graph_kind::spike_trains), nullptr);
  graph_surface* trains = graph_of(w.shell, graph_kind::spike_trains)->surface();
  QTest::mouseClick(trains, Qt::LeftButton, {}, QPoint(trains->width() - 5, 5));
  ASSERT_NE(graph_of(w.shell, graph_kind::correlograms), nullptr);
  EXPECT_TRUE(box->isChecked());
  graph_of(w.shell, graph_kind::correlograms)->close();
  EXPECT_FALSE(box->isChecked());
  // Pressed again at once, before the loop has deleted the one that was closed.
  QTest::mouseClick(trains, Qt::LeftButton, {}, QPoint(trains->width() - 5, 5));
  w.settle();
  const graph_window* again = graph_of(w.shell, graph_kind::correlograms);
  ASSERT_NE(again, nullptr);
  EXPECT_TRUE(again->isVisible() && box->isChecked());
  EXPECT_EQ(again->windowTitle(), "Auto- and cross-correlations");
  dialog->close();
  w.settle();
  // Nothing is left that would follow.
  close_graphs(w.shell);
  w.choose_entry("spike_trains");
}

TEST(MeasureWindows, AreDrawnOnceUnderAHold) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  w.choose_entry("isi_plot");
  graph_window* window = graph_of(w.shell, graph_kind::intervals);
  int n_drawn = 0;
  QObject::connect(window->surface(), &graph_surface::drawn, [&] { ++n_drawn; });
  {
    const drawing_hold hold(w.shell);
    window->resize(700, 500);
    refresh_windows(w.shell);
    {
      const drawing_hold inner(w.shell);
      w.session->clusters.current_cluster = 3;
      window->resize(600, 400);
      refresh_windows(w.shell);
    }
    EXPECT_EQ(n_drawn, 0);
  }
  EXPECT_EQ(n_drawn, 1);
  EXPECT_EQ(window->surface()->graph().title, "Unit 3 interspike intervals");
  EXPECT_EQ(window->surface()->picture().size(), window->surface()->size());
  // Nothing is owed any more.
  { const drawing_hold hold(w.shell); }
  EXPECT_EQ(n_drawn, 1);
}

TEST(MeasureWindows, StandBesideAReviewWithoutOverlap) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  w.shell.frame->resize(1400, 900);
  w.choose_entry("compare_pairs");
  w.settle(true);
  QDialog* dialog = w.dialog("compare_pairs_dialog");
  ASSERT_NE(dialog, nullptr);
  w.settle();
  w.tick(dialog, "show_overlap", true);
  w.choose_entry("isi_plot");
  w.settle();
  std::vector<QRect> places;
  for (const graph_kind kind :
       {graph_kind::overlap, graph_kind::intervals, graph_kind::waveform_comparison,
        graph_kind::principal_components}) {
    ASSERT_NE(graph_of(w.shell, kind), nullptr) << static_cast<int>(kind);
    places.push_back(graph_of(w.shell, kind)->geometry());
  }
  for (std::size_t i = 0; i < places.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) EXPECT_FALSE(places[i].intersects(places[j])) << i << j;
  }
  // The box follows the cross of the window.
  graph_of(w.shell, graph_kind::overlap)->close();
  w.settle();
  EXPECT_FALSE(w.control<QCheckBox>(dialog, "show_overlap")->isChecked());
  dialog->close();
  w.settle();
}

TEST(AnalysisWindows, TheAutocorrelogramAgainstTimeFollowsTheCurrentCluster) {
  const temporary_directory home;
  research_workstation w(home.path);
  w.choose_entry("acf_time");
  graph_window* window = graph_of(w.shell, graph_kind::autocorrelation_vs_time);
  ASSERT_NE(window, nullptr);
  EXPECT_EQ(window->surface()->graph().title, "Unit 2 autocorrelation vs time");
  w.session->clusters.current_cluster = 3;
  refresh_windows(w.shell);
  EXPECT_EQ(window->surface()->graph().title, "Unit 3 autocorrelation vs time");
}

TEST(AnalysisWindows, ALineOfTheDecisionsShowsItsPair) {
  const temporary_directory home;
  research_workstation w(home.path);
  start_operation(w.shell, build_status_lists, nullptr);
  w.settle();
  const std::vector<float> before = w.places();
  w.choose_entry("test_decisions");
  w.settle();
  QDialog* dialog = w.dialog("test_decisions_dialog");
  auto* table = w.control<QTableView>(dialog, "decisions");
  ASSERT_GT(table->model()->rowCount(), 1);
  table->selectRow(1);
  const cluster_displays& d = displays_of(w.shell);
  EXPECT_EQ(table->model()->index(1, 0).data().toString(), QString("%1 and %2").arg(d.a).arg(d.b));
  EXPECT_NE(graph_of(w.shell, graph_kind::waveform_comparison), nullptr);
  w.press(dialog, "done");
  EXPECT_EQ(displays_of(w.shell).a, 0) << "windows show the current cluster again";
  EXPECT_EQ(w.places(), before);
}

}  // namespace
}  // namespace kestrelvane::test

// The windows of the analysis, and the table of decisions, driven as a user would.
#include <gtest/gtest.h>

#include <QTableView>
#include <QTest>

#include "analysis/power_spectrum.h"
#include "sorting/status_lists.h"
#include "workstation/commands/menu_table.h"
#include "workstation/program_options.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/cluster_displays.h"
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

// One cluster looked at, marked, split, cleaned and put back, as a user does it.
#include <QComboBox>
#include <QInputDialog>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSlider>
#include <QTableView>
#include <QTest>
#include <random>

#include "clustering/membership.h"
#include "review/cluster_marks.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane::test {
namespace {

struct viewed_workstation : sorted_workstation {
  using sorted_workstation::sorted_workstation;
  QDialog* begin() {
    choose_entry("view_clusters");
    QDialog* opened = dialog("view_clusters_dialog");
    settle();
    return opened;
  }
  void do_press(QDialog* in, const char* button, bool yes = false) {
    press(in, button);
    settle(yes);
  }
  int number(QDialog* in, const char* label) { return text(in, label).toInt(); }
  // What the fields show is what the session holds.
  void expect_in_step(QDialog* in) {
    const label_sizes labels = count_labels(*session);
    for (int k = 0; k <= 4; ++k) {
      const std::string at = std::to_string(k);
      EXPECT_EQ(number(in, ("size_" + at).c_str()), labels.size[k]) << k;
      EXPECT_EQ(control<QPushButton>(in, ("split_" + at).c_str())->isEnabled(), labels.size[k] > 0);
    }
    EXPECT_EQ(number(in, "n_events"), labels.n_events);
    EXPECT_EQ(text(in, "n_clusters"), QString("of %1").arg(session->clusters.n_clusters));
    EXPECT_EQ(control<number_field>(in, "current_cluster")->value(),
              session->clusters.current_cluster);
    EXPECT_EQ(control<QTableView>(in, "unit_table")->model()->rowCount(),
              session->clusters.n_clusters);
    EXPECT_EQ(check_session(*session), "");
  }
  std::vector<std::int32_t> membership() const {
    const std::int32_t* of = session->events.event_cluster.first();
    return {of, of + session->events.n_events};
  }
};

TEST(ViewClusters, MarksAreSwappedClearedSplitOffAndTakenBack) {
  const temporary_directory home;
  viewed_workstation w(home.path);
  session_state& s = *w.session;
  const std::vector<std::int32_t> before = w.membership();
  const int n = s.clusters.n_clusters;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  EXPECT_EQ(dialog->windowTitle(), "View, clean and split clusters");
  w.expect_in_step(dialog);
  EXPECT_FALSE(w.control<QPushButton>(dialog, "undo")->isEnabled());
  EXPECT_FALSE(w.control<QPushButton>(dialog, "split_1")->isEnabled()) << "nothing is marked";

  // Distances from the template: the farther half of them, whatever this sort's are.
  auto* method = w.control<QComboBox>(dialog, "clean_method");
  method->setCurrentIndex(method->findData(clean_by_rms));
  w.control<QComboBox>(dialog, "clean_channels")->setCurrentIndex(0);
  const std::vector<std::int32_t> list = [&] {
    std::vector<std::int32_t> found;
    for (std::int32_t e = 1; e <= s.events.n_events; ++e) {
      if (s.events.event_cluster[e] == 2) found.push_back(e);
    }
    return found;
  }();
  std::vector<float> values;
  ASSERT_TRUE(measure_events(s, {clean_by_rms, clean_on_centre, 0}, 2, list, values));
  std::vector<float> sorted = values;
  std::sort(sorted.begin(), sorted.end());
  const double threshold = std::round(100.0 * double{sorted[sorted.size() / 2]}) / 100.0;
  w.set_number(dialog, "clean_threshold", threshold);
  w.do_press(dialog, "mark");
  const int marked = static_cast<int>(std::count_if(
      values.begin(), values.end(), [&](float v) { return v > static_cast<float>(threshold); }));
  ASSERT_GT(marked, 0);
  EXPECT_EQ(w.number(dialog, "size_1"), marked);
  EXPECT_EQ(w.text(dialog, "message"), QString("%1 events marked").arg(marked));
  w.do_press(dialog, "invert");
  EXPECT_EQ(w.number(dialog, "size_0"), marked);
  w.expect_in_step(dialog);
  w.do_press(dialog, "unmark");
  EXPECT_EQ(w.number(dialog, "size_1"), 0);
  w.do_press(dialog, "mark");
  EXPECT_EQ(w.membership(), before) << "marking moves nothing";

  w.do_press(dialog, "split_1");
  EXPECT_EQ(s.clusters.n_clusters, n + 1);
  EXPECT_EQ(count_cluster_events(s, n + 1), marked);
  w.expect_in_step(dialog);
  w.do_press(dialog, "undo");
  EXPECT_EQ(w.membership(), before);
  EXPECT_EQ(w.number(dialog, "size_1"), marked) << "the marks are there again";
  w.do_press(dialog, "delete_1");
  EXPECT_EQ(w.number(dialog, "n_events"), static_cast<int>(list.size()) - marked);
  w.expect_in_step(dialog);
  w.do_press(dialog, "done");
  EXPECT_EQ(s.review.clean_method, clean_by_rms);
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("view_clusters_dialog"), nullptr);
}

TEST(ViewClusters, AsksBeforeAClusterGoesAndFollowsTheOthers) {
  const temporary_directory home;
  viewed_workstation w(home.path);
  session_state& s = *w.session;
  const int n = s.clusters.n_clusters;
  QDialog* dialog = w.begin();
  w.do_press(dialog, "invert");
  EXPECT_EQ(w.number(dialog, "size_1"), w.number(dialog, "n_events"));
  w.do_press(dialog, "split_1");
  EXPECT_TRUE(w.told.contains("all events have this label"));
  const QString question = "There will be no points left: delete the whole cluster?";
  w.do_press(dialog, "delete_1", false);
  EXPECT_EQ(w.asked, QStringList(question));
  EXPECT_EQ(s.clusters.n_clusters, n);
  w.do_press(dialog, "delete_cluster", true);
  EXPECT_EQ(s.clusters.n_clusters, n - 1);
  w.expect_in_step(dialog);
  // Down to none, and one back.
  for (int left = n - 1; left > 0; --left) w.do_press(dialog, "delete_cluster", true);
  EXPECT_EQ(s.clusters.n_clusters, 0);
  EXPECT_EQ(w.number(dialog, "n_events"), 0);
  for (const char* tool : {"mark", "autosplit", "fixed_split", "reclaim", "realign", "annotate"}) {
    w.do_press(dialog, tool);
  }
  EXPECT_EQ(s.clusters.n_clusters, 0) << "nothing to work on, and nothing happens";
  w.do_press(dialog, "undo");
  EXPECT_EQ(s.clusters.n_clusters, 1);
  w.expect_in_step(dialog);
  w.do_press(dialog, "done");
}

TEST(ViewClusters, SubclustersAreLabelledByTheChosenBandwidth) {
  const temporary_directory home;
  viewed_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  auto* slider = w.control<QSlider>(dialog, "view_split_sigma_slider");
  const float start = s.strategy.gac_start_sigma;
  w.set_number(dialog, "view_split_sigma", static_cast<double>(start) * 1.1 * 1.1 * 1.1);
  EXPECT_EQ(slider->value(), 4) << "three steps of 1.1 above the first";
  slider->setSliderPosition(1);
  emit slider->sliderMoved(1);
  EXPECT_NEAR(w.control<number_field>(dialog, "view_split_sigma")->value(),
              static_cast<double>(start), 0.005);
  w.do_press(dialog, "fixed_split");
  EXPECT_TRUE(w.text(dialog, "message").startsWith("sigma = "));
  w.expect_in_step(dialog);
  w.do_press(dialog, "autosplit");
  EXPECT_NE(w.text(dialog, "message"), "Finished");
  w.expect_in_step(dialog);
  w.do_press(dialog, "reclaim");
  EXPECT_TRUE(w.text(dialog, "message").contains("relabelled on final check"));
  w.expect_in_step(dialog);
  w.do_press(dialog, "realign");
  w.expect_in_step(dialog);
  w.do_press(dialog, "done");
}

TEST(ViewClusters, KeysAndTheListGoFromClusterToCluster) {
  const temporary_directory home;
  viewed_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  ASSERT_TRUE(QTest::qWaitForWindowActive(dialog));
  w.control<QTableView>(dialog, "unit_table")->setFocus();
  EXPECT_EQ(s.clusters.current_cluster, 2);
  QTest::keyClick(dialog, Qt::Key_N);
  EXPECT_EQ(s.clusters.current_cluster, 3);
  QTest::keyClick(dialog, Qt::Key_Up);
  QTest::keyClick(dialog, Qt::Key_P);
  QTest::keyClick(dialog, Qt::Key_P);
  EXPECT_EQ(s.clusters.current_cluster, 1) << "stays at the end";
  w.expect_in_step(dialog);
  auto* table = w.control<QTableView>(dialog, "unit_table");
  table->selectRow(2);
  EXPECT_EQ(s.clusters.current_cluster, 3);
  w.expect_in_step(dialog);

  // The correlograms stay with the cluster on show.
  w.tick(dialog, "show_correlograms", true);
  ASSERT_NE(graph_of(w.shell, graph_kind::correlograms), nullptr);
  EXPECT_EQ(w.shell.correlograms->shown.first.a, 3);
  QTest::keyClick(dialog, Qt::Key_P);
  EXPECT_EQ(w.shell.correlograms->shown.first.a, 2);
  EXPECT_EQ(w.shell.correlograms->shown.n_first, w.number(dialog, "n_events"));

  // A digit chooses the label that the keys go by.
  QTest::keyClick(dialog, Qt::Key_I);
  w.settle();
  QTest::keyClick(dialog, Qt::Key_0);
  EXPECT_TRUE(w.control<QRadioButton>(dialog, "label_0")->isChecked());
  QTest::keyClick(dialog, Qt::Key_X);
  w.settle();
  EXPECT_EQ(w.asked, QStringList{}) << "no event is without a label";
  QTest::keyClick(dialog, Qt::Key_1);
  QTest::keyClick(dialog, Qt::Key_X);
  w.settle(false);
  EXPECT_EQ(w.asked.size(), 1);

  w.press(dialog, "annotate");
  auto* input = qobject_cast<QInputDialog*>(w.dialog("annotate_dialog"));
  ASSERT_NE(input, nullptr);
  EXPECT_EQ(input->windowTitle(), "Annotate");
  input->findChild<QLineEdit*>("cluster_comment")->setText("fires with the next one");
  input->accept();
  EXPECT_EQ(s.clusters.cluster_comment[2].view(), "fires with the next one");
  EXPECT_EQ(w.text(dialog, "comment"), "fires with the next one");
  dialog->close();
  w.settle();
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("view_clusters_dialog"), nullptr);
}

// Whatever is pressed, the fields are in step and the session in order; an edit is taken back to
// the events as they were, with their labels and places.
TEST(ViewClusters, RandomEditsAreInStepAndTakenBack) {
  const temporary_directory home;
  viewed_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  const auto events_now = [&] {
    std::vector<float> all = w.places();
    for (std::int32_t e = 1; e <= s.events.n_events; ++e) {
      all.push_back(static_cast<float>(s.events.event_cluster[e]));
      all.push_back(s.events.event_subcluster[e]);
    }
    return all;
  };
  const QStringList marks = {"mark", "invert", "fixed_split", "autosplit"};
  const QStringList edits = {"split_0",  "split_1", "split_2", "delete_0",
                             "delete_1", "realign", "reclaim", "delete_cluster"};
  std::mt19937 random(11);
  const auto one_of = [&](const QStringList& list) {
    return list[static_cast<qsizetype>(random() % list.size())].toStdString();
  };
  int n_edits = 0;
  for (int step = 0; step < 60 && s.clusters.n_clusters > 0; ++step) {
    w.set_number(dialog, "current_cluster", 1 + static_cast<int>(random() % s.clusters.n_clusters));
    w.set_number(dialog, "clean_threshold", static_cast<double>(random() % 80) / 10);
    auto* method = w.control<QComboBox>(dialog, "clean_method");
    method->setCurrentIndex(static_cast<int>(random() % method->count()));
    w.do_press(dialog, one_of(marks).c_str());
    const std::string edit = one_of(edits);
    if (!w.control<QPushButton>(dialog, edit.c_str())->isEnabled()) continue;
    const std::vector<float> before = events_now();
    w.do_press(dialog, edit.c_str(), true);
    w.expect_in_step(dialog);
    if (events_now() == before || random() % 3 == 0) continue;
    w.do_press(dialog, "undo");
    EXPECT_EQ(events_now(), before) << edit << " in step " << step;
    w.expect_in_step(dialog);
    ++n_edits;
  }
  EXPECT_GT(n_edits, 10);
  w.do_press(dialog, "done");
}

}  // namespace
}  // namespace kestrelvane::test

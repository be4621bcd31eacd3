// Comparing pairs as a user does it: through the list by button and key, any pair by its numbers
// or two lines, edits and their undo, the split that asks, and leaving.
#include <QCheckBox>
#include <QComboBox>
#include <QPushButton>
#include <QRadioButton>
#include <QSlider>
#include <QTabWidget>
#include <QTableView>
#include <QTest>
#include <QThread>
#include <atomic>
#include <map>
#include <set>

#include "clustering/membership.h"
#include "review/pair_comparison.h"
#include "sorting/cluster_edits.h"
#include "sorting/status_lists.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/operation.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/correlogram_window.h"

namespace kestrelvane::test {
namespace {

struct comparing_workstation : sorted_workstation {
  explicit comparing_workstation(const std::string& home) : sorted_workstation(home) {
    on_worker([](session_state& s) {
      build_status_lists(s);
      s.review.match_method = match_separation;
    });
  }
  void on_worker(session_routine routine) {
    start_operation(shell, std::move(routine), nullptr);
    settle();
  }
  QDialog* begin() {
    choose_entry("compare_pairs");
    QDialog* opened = dialog("compare_pairs_dialog");
    settle();
    told.clear();
    return opened;
  }
  // On show, by the fields; a figure beside them has to be of the same pair.
  cluster_pair shown(QDialog* in) {
    const cluster_pair pair{
        static_cast<std::int32_t>(control<number_field>(in, "compare_a")->value()),
        static_cast<std::int32_t>(control<number_field>(in, "compare_b")->value())};
    EXPECT_EQ(text(in, "pair_title"),
              QString("Comparing templates %1 and %2").arg(pair.a).arg(pair.b));
    EXPECT_EQ(session->clusters.current_cluster, pair.a);
    return pair;
  }
  std::pair<int, int> shown_numbers(QDialog* in) {
    const cluster_pair pair = shown(in);
    return {pair.a, pair.b};
  }
  std::pair<int, int> entry(std::int32_t position) const {
    return {session->lists.match_a[position], session->lists.match_b[position]};
  }
  bool has_logged(const QString& words) const {
    for (std::int32_t i = 1; i <= session->log.n_log_lines; ++i) {
      if (session->log.log_lines[i].view() == words.toStdString()) return true;
    }
    return false;
  }
  bool is_open() { return shell.frame->findChild<QDialog*>("compare_pairs_dialog") != nullptr; }
  std::vector<std::int32_t> membership() const {
    const std::int32_t* of = session->events.event_cluster.first();
    return {of, of + session->events.n_events};
  }
};

TEST(ComparePairs, GoesThroughTheListAndShowsAnyPair) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  const std::int32_t n = s.lists.n_match;
  ASSERT_GE(n, 3);
  EXPECT_EQ(w.shown_numbers(dialog), w.entry(1));
  EXPECT_EQ(w.text(dialog, "match_position"), QString("1 of %1").arg(n));
  EXPECT_EQ(w.text(dialog, "match_value"), QString::number(s.lists.match_values[1], 'f', 3));

  w.press(dialog, "next");
  EXPECT_EQ(w.shown_numbers(dialog), w.entry(2));
  EXPECT_EQ(w.text(dialog, "match_value"), QString::number(s.lists.match_values[2], 'f', 3));
  w.press(dialog, "previous");
  w.press(dialog, "previous");
  EXPECT_EQ(w.shown_numbers(dialog), w.entry(1)) << "stays at the beginning";
  for (std::int32_t i = 0; i < n + 2; ++i) w.press(dialog, "next");
  EXPECT_EQ(w.shown_numbers(dialog), w.entry(n)) << "and at the end";

  // The first cluster is followed; its best match is the first entry that holds it.
  const int a = w.shown(dialog).a;
  w.press(dialog, "most_similar_to_a");
  EXPECT_EQ(w.shown(dialog).a, a);
  std::int32_t first = 1;
  while (w.entry(first).first != a && w.entry(first).second != a) ++first;
  EXPECT_EQ(s.reviewed.match_position, first);
  w.press(dialog, "next_with_first");
  EXPECT_EQ(w.shown(dialog).a, a);
  EXPECT_GT(s.reviewed.match_position, first);

  w.set_number(dialog, "compare_a", 2);
  w.set_number(dialog, "compare_b", 4);
  EXPECT_EQ(w.shown_numbers(dialog), std::pair(2, 4));
  EXPECT_EQ(w.text(dialog, "match_position"), QString("- of %1").arg(n));
  w.set_number(dialog, "compare_b", 2);
  EXPECT_EQ(w.text(dialog, "pair_title"), "Comparing templates 2 and 4") << "no pair";
  EXPECT_EQ(w.text(dialog, "message"), "A pair has two different clusters");
  // Keys work wherever the hand is; the second cluster is passed over.
  w.set_number(dialog, "compare_b", 3);
  ASSERT_TRUE(QTest::qWaitForWindowActive(dialog));
  w.control<QTableView>(dialog, "unit_table")->setFocus();
  QTest::keyClick(dialog, Qt::Key_Down);
  EXPECT_EQ(w.shown_numbers(dialog), std::pair(4, 3));
  w.control<number_field>(dialog, "compare_b")->setFocus();
  QTest::keyClick(w.control<number_field>(dialog, "compare_b"), Qt::Key_Down);
  EXPECT_EQ(w.shown_numbers(dialog), std::pair(4, 2)) << "one less in a field";
  w.control<QTableView>(dialog, "unit_table")->setFocus();
  QTest::keyClick(dialog, Qt::Key_N);
  EXPECT_EQ(w.shown_numbers(dialog), w.entry(1)) << "from a typed pair into the list";

  auto* table = w.control<QTableView>(dialog, "unit_table");
  table->selectRow(3);
  EXPECT_EQ(w.shown(dialog).a, 4) << "beside its best match";
  table->selectionModel()->select(table->model()->index(0, 0),
                                  QItemSelectionModel::Select | QItemSelectionModel::Rows);
  EXPECT_EQ(w.shown_numbers(dialog), std::pair(1, 4));
  w.press(dialog, "ok");
  w.settle();
  EXPECT_FALSE(w.is_open());
}

TEST(ComparePairs, EditsKeepTheListAndAreTakenBack) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  session_state& s = *w.session;
  const std::vector<std::int32_t> before = w.membership();
  const int n = s.clusters.n_clusters;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  auto* undo = w.control<QPushButton>(dialog, "undo");
  EXPECT_FALSE(undo->isEnabled());
  w.press(dialog, "next");
  const std::pair<int, int> pair = w.shown_numbers(dialog);
  const auto distinct = [&] { return w.control<QCheckBox>(dialog, "distinct")->isChecked(); };
  w.control<QCheckBox>(dialog, "distinct")->click();
  w.settle();
  EXPECT_TRUE(s.lists.kv_user_distinct[find_pair(s, {pair.first, pair.second})]);
  EXPECT_EQ(w.text(dialog, "pair_is_distinct"), "yes");
  w.press(dialog, "undo");
  w.settle();
  EXPECT_FALSE(distinct());

  w.press(dialog, "merge");
  w.settle();
  const int merged = std::min(pair.first, pair.second);
  EXPECT_EQ(
      w.told,
      QStringList(QString("Clusters %1 and %2 were merged").arg(pair.first).arg(pair.second)));
  EXPECT_TRUE(w.has_logged(QString("Compare templates: user merged clusters %1 and %2")
                               .arg(pair.first)
                               .arg(pair.second)));
  EXPECT_EQ(s.clusters.n_clusters, n - 1);
  const cluster_pair now = w.shown(dialog);
  EXPECT_TRUE(now.a == merged || now.b == merged) << "stays with what was merged";
  EXPECT_EQ(w.control<QTableView>(dialog, "unit_table")->model()->rowCount(), n - 1);
  EXPECT_EQ(w.control<number_field>(dialog, "compare_a")->maximum(), n - 1);
  EXPECT_EQ(check_session(s), "");
  w.press(dialog, "undo");
  w.settle();
  EXPECT_EQ(w.membership(), before);
  EXPECT_EQ(w.shown_numbers(dialog), pair);
  EXPECT_FALSE(undo->isEnabled()) << "one level";
  w.press(dialog, "merge_back");
  w.settle();
  EXPECT_EQ(w.shown_numbers(dialog), w.entry(1));
  // The cross of the window is "OK".
  dialog->close();
  w.settle();
  EXPECT_FALSE(w.is_open());
  EXPECT_EQ(check_session(s), "");
}

TEST(ComparePairs, KeysAreTextInAFieldAndCommandsElsewhere) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  ASSERT_TRUE(QTest::qWaitForWindowActive(dialog));
  const std::pair<int, int> first = w.shown_numbers(dialog);
  auto* field = w.control<number_field>(dialog, "compare_b");
  field->setFocus();
  QTest::keyClick(field, Qt::Key_N);
  QTest::keyClick(field, Qt::Key_G);
  w.settle();
  EXPECT_EQ(w.shown_numbers(dialog), first);
  EXPECT_EQ(w.text(dialog, "message"), field->problem()->text()) << "what is wrong is told";
  EXPECT_NE(w.text(dialog, "message"), "");
  // The end of typing is not the end of the dialog.
  QTest::keyClick(field, Qt::Key_Escape);
  EXPECT_TRUE(w.is_open());
  EXPECT_FALSE(field->hasFocus());
  field->setFocus();
  QTest::keyClick(field, Qt::Key_Return);
  EXPECT_TRUE(w.is_open());
  QTest::keyClick(dialog, Qt::Key_N);
  EXPECT_EQ(w.shown_numbers(dialog), w.entry(2));

  // Marks by key, each with its undo; Guided Merge then passes the pair over.
  const std::int64_t k = find_pair(s, w.shown(dialog));
  QTest::keyClick(dialog, Qt::Key_A);
  w.settle();
  EXPECT_TRUE(s.lists.kv_user_ambiguous[k]);
  EXPECT_TRUE(w.control<QCheckBox>(dialog, "ambiguous")->isChecked());
  QTest::keyClick(dialog, Qt::Key_U);
  w.settle();
  EXPECT_FALSE(s.lists.kv_user_ambiguous[k]);
  EXPECT_FALSE(w.control<QCheckBox>(dialog, "ambiguous")->isChecked());
  QTest::keyClick(dialog, Qt::Key_D);
  w.settle();
  EXPECT_TRUE(s.lists.kv_user_distinct[k]);

  // From a window of the frame, too; but not under a worker.
  graph_surface* surface = graph_of(w.shell, graph_kind::waveform_comparison)->surface();
  std::atomic<bool> over = false;
  start_operation(
      w.shell,
      [&](session_state&) {
        while (!over) QThread::msleep(1);
      },
      nullptr);
  QTest::keyClick(surface, Qt::Key_Escape);
  EXPECT_TRUE(w.is_open());
  over = true;
  w.settle();
  QTest::keyClick(surface, Qt::Key_Escape);
  w.settle();
  EXPECT_FALSE(w.is_open());
}

TEST(ComparePairs, IsANarrowColumnWithHelpForEachPage) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  EXPECT_LE(dialog->width(), 430);
  EXPECT_EQ(w.text(dialog, "warning"), "");
  // Every channel a tetrode of its own.
  recording_store& r = w.session->recording;
  r.electrode_type = electrode_tetrode;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) r.tetrode_of_channel[c] = c;
  w.set_number(dialog, "compare_a", 1);
  w.set_number(dialog, "compare_b", 2);
  ASSERT_NE(w.text(dialog, "channel_a"), w.text(dialog, "channel_b"));
  EXPECT_EQ(w.text(dialog, "warning"), "Clusters belong to different tetrodes");
  EXPECT_LE(dialog->width(), 430);
  EXPECT_TRUE(w.text(dialog, "separation").endsWith(" µm"));
  EXPECT_EQ(
      w.text(dialog, "overlap"),
      QString::number(w.session->lists.kv_cluster_overlap[find_pair(*w.session, {1, 2})], 'f', 3));
  EXPECT_LE(dialog->minimumSizeHint().height(), 752) << "as high as a screen of 800";
  w.press(dialog, "help");
  w.settle();
  EXPECT_TRUE(w.told.last().startsWith("Pairs come in the order of the match method"));
  w.control<QTabWidget>(dialog, "pages")->setCurrentIndex(1);
  w.press(dialog, "help");
  w.settle();
  EXPECT_TRUE(w.told.last().startsWith("\"Swap display\" draws the other cluster on top"));
  w.press(dialog, "ok");
}

TEST(ComparePairs, ResplitsAndWaitsForTheAnswer) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  const std::vector<std::int32_t> before = w.membership();
  bool asked = false;
  for (std::int32_t i = 1; i <= s.lists.n_match && !asked; ++i) {
    w.press(dialog, "split");
    w.settle();
    EXPECT_EQ(check_session(s), "");
    auto* split = w.shell.frame->findChild<QDialog*>("pair_split_dialog");
    if (split != nullptr) {
      asked = true;
      EXPECT_FALSE(w.control<QPushButton>(dialog, "merge")->isEnabled());
      dialog->close();
      EXPECT_TRUE(w.is_open()) << "the answer comes first";
      w.press(split, "leave");
      w.settle();
      EXPECT_EQ(w.membership(), before) << "left as it was";
      EXPECT_TRUE(w.control<QPushButton>(dialog, "merge")->isEnabled());
    } else {
      w.press(dialog, "undo");
      w.settle();
      EXPECT_EQ(w.membership(), before);
      w.press(dialog, "next");
    }
  }
  EXPECT_TRUE(asked) << "one of the pairs is not clearly two";
  w.press(dialog, "ok");
}

TEST(ComparePairs, MethodsShowWhatTheyCompare) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  session_state& s = *w.session;
  s.review.match_method = match_doublets;
  s.review.show_correlograms = false;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  auto* method = w.control<QComboBox>(dialog, "match_method");
  EXPECT_EQ(method->currentData().toInt(), match_correlation) << "no slow list on opening";
  EXPECT_EQ(graph_of(w.shell, graph_kind::correlograms), nullptr);
  const auto choose = [&](int of) {
    method->setCurrentIndex(method->findData(of));
    emit method->activated(method->currentIndex());
    w.settle();
  };
  choose(match_doublets);
  EXPECT_EQ(s.review.match_method, match_doublets);
  EXPECT_EQ(w.shown_numbers(dialog), w.entry(1));
  ASSERT_NE(graph_of(w.shell, graph_kind::correlograms), nullptr);
  EXPECT_EQ(w.shell.correlograms->a, w.shown(dialog).a);
  w.press(dialog, "swap_display");
  EXPECT_EQ(w.shell.correlograms->b, w.shown(dialog).a);
  EXPECT_EQ(graph_of(w.shell, graph_kind::amplitude_vs_time), nullptr);
  choose(match_rates);
  EXPECT_NE(graph_of(w.shell, graph_kind::amplitude_vs_time), nullptr);
  EXPECT_TRUE(w.control<QCheckBox>(dialog, "show_times")->isChecked());
  // No two templates overlap: told once, and any pair can still be shown.
  s.lists.kv_templates_dont_overlap[1] = true;
  for (std::int64_t k = 1; k <= s.lists.n_kv_pairs; ++k)
    s.lists.kv_templates_dont_overlap[k] = true;
  w.told.clear();
  choose(match_separation);
  EXPECT_EQ(w.told, QStringList("There are no pairs in this list"));
  EXPECT_EQ(w.text(dialog, "match_value"), "0");
  EXPECT_FALSE(w.control<QPushButton>(dialog, "next")->isEnabled());
  w.set_number(dialog, "compare_a", 1);
  w.set_number(dialog, "compare_b", 3);
  EXPECT_EQ(w.shown_numbers(dialog), std::pair(1, 3));
  w.press(dialog, "ok");
  // Windows that stay open are of the current cluster again.
  EXPECT_EQ(s.clusters.current_cluster, 1);
  EXPECT_EQ(w.shell.correlograms->shown.first.a, 1);
  EXPECT_EQ(w.shell.correlograms->shown.second.a, 0);
  // Of whatever units it was: beside the dialog of one cluster it is of that cluster.
  w.choose_entry("correlograms");
  QDialog* correlation = w.dialog("correlation_dialog");
  w.set_number(correlation, "first_unit", 2);
  w.set_number(correlation, "second_unit", 4);
  w.press(correlation, "autocorrelation");
  ASSERT_EQ(w.shell.correlograms->shown.second.a, 4);
  w.press(correlation, "done");
  w.settle();
  w.choose_entry("view_clusters");
  w.settle();
  QDialog* view = w.dialog("view_clusters_dialog");
  EXPECT_EQ(w.shell.correlograms->shown.first.a, 1);
  EXPECT_EQ(w.shell.correlograms->shown.second.a, 0);
  EXPECT_FALSE(w.shell.correlograms->autos_only);
  // The boxes say what is open, also when a window is closed by its cross.
  auto* box = w.control<QCheckBox>(view, "show_correlograms");
  EXPECT_TRUE(box->isChecked());
  EXPECT_TRUE(w.control<QCheckBox>(view, "show_vs_time")->isChecked());
  graph_of(w.shell, graph_kind::correlograms)->close();
  EXPECT_FALSE(box->isChecked());
  EXPECT_TRUE(wait_until([&] { return graph_of(w.shell, graph_kind::correlograms) == nullptr; }));
  w.tick(view, "show_correlograms", true);
  ASSERT_NE(graph_of(w.shell, graph_kind::correlograms), nullptr);
  EXPECT_TRUE(graph_of(w.shell, graph_kind::correlograms)->isVisible());
  w.press(view, "done");
}

// A few marks of the view of one cluster do not hide which of the two an event is of; labels that
// all events have are those of a review of the pair.
TEST(ComparePairs, MarksOfOneClusterDoNotColourThePair) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  session_state& s = *w.session;
  const std::vector<std::int32_t> of_1 = list_cluster_events(s, 1);
  s.events.event_subcluster[of_1[0]] = s.events.event_subcluster[of_1[5]] = 1;
  s.review.show_correlograms = true;
  QDialog* dialog = w.begin();
  const auto expect_marks = [&](const std::map<std::int32_t, std::set<std::int16_t>>& expected) {
    const cluster_displays& d = *w.shell.cluster_windows;
    std::map<std::int32_t, std::set<std::int16_t>> components, waveforms;
    for (std::size_t i = 0; i < d.values.events.size(); ++i) {
      components[s.events.event_cluster[d.values.events[i]]].insert(d.values.marks[i]);
    }
    for (std::size_t i = 0; i < d.pair.picture.events.size(); ++i) {
      waveforms[s.events.event_cluster[d.pair.picture.events[i]]].insert(d.pair.picture.marks[i]);
    }
    EXPECT_EQ(components, expected);
    EXPECT_EQ(waveforms, expected);
    EXPECT_EQ(w.shell.correlograms->mark_first, *expected.at(1).begin());
    EXPECT_EQ(w.shell.correlograms->mark_second, *expected.at(2).begin());
  };
  const auto show = [&](int a, int b) {
    w.set_number(dialog, "compare_a", a);
    w.set_number(dialog, "compare_b", b);
    ASSERT_EQ(w.shown_numbers(dialog), std::pair(a, b));
  };
  w.control<QRadioButton>(dialog, "waveforms")->setChecked(true);
  show(1, 2);
  expect_marks({{1, {1}}, {2, {2}}});
  show(1, 3);
  w.on_worker([](session_state& of) {
    for (std::int32_t e = 1; e <= of.events.n_events; ++e) {
      of.events.event_subcluster[e] = of.events.event_cluster[e] == 1 ? 2 : 1;
    }
  });
  show(1, 2);
  expect_marks({{1, {2}}, {2, {1}}});
  w.press(dialog, "ok");
}

TEST(ComparePairs, LeavesWithTheLastPair) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  session_state& s = *w.session;
  w.on_worker([](session_state& of) {
    while (of.clusters.n_clusters > 2) merge_clusters(of, 1, 2);
  });
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  w.press(dialog, "merge_back");
  w.settle();
  EXPECT_EQ(w.told, QStringList({"Clusters 1 and 2 were merged",
                                 "Only one cluster is left - exiting dialog"}));
  EXPECT_FALSE(w.is_open());
  EXPECT_EQ(check_session(s), "");
  w.choose_entry("compare_pairs");
  w.settle();
  EXPECT_EQ(w.told.last(), "There is only one cluster");
  EXPECT_FALSE(w.is_open());
}

TEST(ComparePairs, KnowsTheNextTimeWhetherCorrelogramsWereWanted) {
  const temporary_directory home;
  comparing_workstation w(home.path);
  const bool before = w.session->review.show_correlograms;
  QDialog* dialog = w.begin();
  w.control<QCheckBox>(dialog, "show_correlograms")->click();
  w.settle();
  w.press(dialog, "ok");
  w.settle();
  EXPECT_EQ(w.session->review.show_correlograms, !before);
  dialog = w.begin();
  EXPECT_EQ(w.control<QCheckBox>(dialog, "show_correlograms")->isChecked(), !before);
  w.press(dialog, "ok");
  w.settle();
}

}  // namespace
}  // namespace kestrelvane::test

// Guided merging as a user does it: decisions by button and key, the dialog that asks how to
// split, undo, and leaving.
#include <QCheckBox>
#include <QComboBox>
#include <QPushButton>
#include <QSlider>
#include <QTableView>
#include <QTest>

#include "review/guided_merge.h"
#include "sorting/status_lists.h"
#include "workstation/operation.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/correlogram_window.h"

namespace kestrelvane::test {
namespace {

// Every pair is a candidate.
struct doubtful_workstation : sorted_workstation {
  explicit doubtful_workstation(const std::string& home) : sorted_workstation(home) {
    session->strategy.overlap_threshold = -5.0f;
    session->strategy.correlation_threshold = -2.0f;
    start_operation(
        shell, [](session_state& s) { build_status_lists(s); }, nullptr);
    settle();
  }
  QDialog* begin() {
    choose_entry("guided_merge");
    QDialog* opened = dialog("guided_merge_dialog");
    settle();
    return opened;
  }
  std::vector<std::int32_t> membership() const {
    const std::int32_t* of = session->events.event_cluster.first();
    return {of, of + session->events.n_events};
  }
};

TEST(GuidedMerge, TheReasonOfAProposalStaysOnTheScreen) {
  const temporary_directory home;
  doubtful_workstation w(home.path);
  cluster_table& c = w.session->clusters;
  c.proposal_reasons = {"in turn, similarity 0.85, overlap 0.02, and some more of it"};
  c.cluster_proposal[2] = c.cluster_proposal[4] = 1;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  EXPECT_EQ(w.text(dialog, "guided_pair"), "2 and 4");
  auto* message = w.control<QLabel>(dialog, "message");
  EXPECT_TRUE(message->text().endsWith("and some more of it"));
  // All of its lines have room, and the dialog is no wider for them.
  EXPECT_GE(message->height(), message->heightForWidth(message->width()));
  const int width = dialog->minimumSizeHint().width();
  message->setText("-");
  EXPECT_EQ(dialog->minimumSizeHint().width(), width);
  w.press(dialog, "distinct");
  w.settle();
  EXPECT_FALSE(message->text().contains("template pass"));
  w.press(dialog, "finish");
  w.settle();
}

TEST(GuidedMerge, DecisionsShowTheNextPairAndUndoGoesBack) {
  const temporary_directory home;
  doubtful_workstation w(home.path);
  session_state& s = *w.session;
  const std::vector<std::int32_t> before = w.membership();
  const int n = s.clusters.n_clusters;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  EXPECT_EQ(dialog->windowTitle(), "Guided Merge and Split");
  // A key can mean but one of two, and says which.
  EXPECT_TRUE(w.control<QTableView>(dialog, "unit_table")
                  ->toolTip()
                  .contains("Label the first cluster of the pair: "));
  const int pairs = w.text(dialog, "pairs_left").toInt();
  ASSERT_EQ(pairs, count_pairs_to_examine(s));
  const QString first = w.text(dialog, "guided_pair");
  EXPECT_FALSE(w.control<QPushButton>(dialog, "undo")->isEnabled());
  EXPECT_EQ(w.control<QTableView>(dialog, "unit_table")->selectionModel()->selectedRows().size(),
            2);

  w.press(dialog, "distinct");
  w.settle();
  EXPECT_EQ(w.text(dialog, "pairs_left").toInt(), pairs - 1);
  EXPECT_NE(w.text(dialog, "guided_pair"), first);
  // By the keys that a hand lies on.
  dialog->activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(dialog, 30'000));
  w.control<QTableView>(dialog, "unit_table")->setFocus();
  QTest::keyClick(dialog, Qt::Key_U);
  w.settle();
  EXPECT_EQ(w.text(dialog, "guided_pair"), first);
  EXPECT_EQ(w.text(dialog, "pairs_left").toInt(), pairs);

  QTest::keyClick(dialog, Qt::Key_G);
  w.settle();
  EXPECT_EQ(s.clusters.n_clusters, n - 1);
  EXPECT_EQ(check_session(s), "");
  QTest::keyClick(dialog, Qt::Key_Z, Qt::ControlModifier);
  w.settle();
  EXPECT_EQ(w.membership(), before);

  w.control<QCheckBox>(dialog, "show_correlograms")->setChecked(true);
  ASSERT_NE(graph_of(w.shell, graph_kind::correlograms), nullptr);
  EXPECT_EQ(QString("%1 and %2").arg(w.shell.correlograms->a).arg(w.shell.correlograms->b), first);
  w.press(dialog, "finish");
  w.settle();
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("guided_merge_dialog"), nullptr);
  EXPECT_EQ(s.clusters.current_cluster, 2) << "as it was";
}

TEST(GuidedMerge, AsksHowToSplitAndLeavesWhatIsNotDecided) {
  const temporary_directory home;
  doubtful_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  // Asked for again after an undo, the split is always shown.
  w.press(dialog, "split");
  w.settle();
  if (auto* open = w.shell.frame->findChild<QDialog*>("pair_split_dialog")) {
    w.press(open, "leave");
    w.settle();
  }
  w.press(dialog, "undo");
  w.settle();
  const std::vector<std::int32_t> before = w.membership();
  w.press(dialog, "split");
  QDialog* split = w.dialog("pair_split_dialog");
  w.settle();
  ASSERT_NE(split, nullptr);
  EXPECT_EQ(w.text(split, "ugm_message"), "Pair could not be split");
  EXPECT_FALSE(w.control<QPushButton>(dialog, "merge")->isEnabled()) << "one question at a time";
  auto* slider = w.control<QSlider>(split, "selected_stage");
  slider->setValue(slider->maximum());
  w.settle();
  EXPECT_TRUE(w.text(split, "sigma").endsWith("µV"));
  w.press(split, "delete_1");
  w.settle();
  EXPECT_TRUE(w.text(split, "events_1").endsWith("deleted"));
  slider->setValue(1);
  w.settle();
  EXPECT_FALSE(w.text(split, "events_1").endsWith("deleted")) << "a new stage forgets";
  w.press(split, "help");
  w.settle();
  EXPECT_TRUE(w.told.last().startsWith("The lines are the subclusters"));
  w.press(split, "revert");
  w.settle();
  EXPECT_TRUE(w.control<QPushButton>(split, "split")->isDefault());
  // Its keys are those of the dialog that asks until it is answered.
  split->activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(split));
  QTest::keyClick(split, Qt::Key_D);
  EXPECT_NE(w.shell.frame->findChild<QDialog*>("pair_split_dialog"), nullptr);
  QTest::keyClick(split, Qt::Key_S);
  w.settle();
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("pair_split_dialog"), nullptr);
  EXPECT_EQ(w.membership(), before) << "as it was";
  EXPECT_EQ(check_session(s), "");
  // The cross of the window is "Finish".
  dialog->close();
  w.settle();
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("guided_merge_dialog"), nullptr);
  w.choose_entry("autosort");
  EXPECT_NE(w.dialog("autosort_dialog"), nullptr) << "the menus are free again";
}

TEST(GuidedMerge, WithoutPairsItSaysSo) {
  const temporary_directory home;
  driven_workstation empty(home.path);
  empty.choose_entry("guided_merge");
  empty.settle();
  EXPECT_TRUE(empty.told.contains("No recording data in memory"));
}

}  // namespace
}  // namespace kestrelvane::test

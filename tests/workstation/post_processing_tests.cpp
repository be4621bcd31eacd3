// The dialogs that clean a sort and correlate its units, and the keys of the review.
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSlider>
#include <QTableWidget>
#include <QTest>
#include <memory>

#include "review/post_processing.h"
#include "sorting/status_lists.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/correlogram_window.h"

namespace kestrelvane::test {
namespace {

TEST(PostProcess, ToolsCleanTheSortAndUndoTakesThemBack) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  session_state& s = *w.session;
  const std::vector<std::int32_t> clusters(s.events.event_cluster.first(),
                                           s.events.event_cluster.first() + s.events.n_events);
  w.choose_entry("post_processing");
  QDialog* dialog = w.dialog("post_process_dialog");
  w.settle();
  EXPECT_EQ(dialog->windowTitle(), "Post-process");
  EXPECT_EQ(w.text(dialog, "n_clusters").toInt(), s.clusters.n_clusters);
  EXPECT_EQ(w.text(dialog, "n_events").toInt(), s.events.n_events);
  EXPECT_EQ(w.text(dialog, "percent_clustered"),
            QString::number(count_sort(s).percent_clustered, 'f', 2));

  // A threshold that nothing reaches marks all; the marks go one way and then the other.
  w.set_number(dialog, "clean_threshold", 1000);
  w.press(dialog, "mark_misaligned");
  w.settle();
  EXPECT_GT(w.text(dialog, "n_marked").toInt(), 0);
  w.press(dialog, "clear_labels");
  w.settle();
  EXPECT_EQ(w.text(dialog, "n_marked"), "0");
  EXPECT_TRUE(w.told.contains("All sub-cluster labelling removed; events remain in clusters"));
  const int before = s.clusters.n_clusters;
  w.control<QComboBox>(dialog, "delete_measure")->setCurrentText("size");
  w.set_number(dialog, "delete_size_limit", 1'000'000);
  w.press(dialog, "delete_weak");
  w.settle(false);
  EXPECT_TRUE(w.asked.contains("This will delete all the clusters!"));
  EXPECT_EQ(s.clusters.n_clusters, before);
  w.press(dialog, "delete_weak");
  w.settle(true);
  EXPECT_EQ(s.clusters.n_clusters, 0);
  EXPECT_EQ(w.text(dialog, "n_deleted").toInt(), before);
  EXPECT_EQ(w.text(dialog, "n_unclustered").toInt(), s.events.n_events);

  w.press(dialog, "undo");
  w.settle();
  EXPECT_TRUE(w.told.contains("All changes undone!"));
  EXPECT_EQ(w.text(dialog, "n_clusters").toInt(), before);
  EXPECT_TRUE(std::equal(clusters.begin(), clusters.end(), s.events.event_cluster.first()));
  w.press(dialog, "ok");
  w.settle();
  EXPECT_EQ(check_session(s), "");
}

TEST(PostProcess, NumbersFollowTheOrderChosen) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  session_state& s = *w.session;
  w.choose_entry("post_processing");
  QDialog* dialog = w.dialog("post_process_dialog");
  w.settle();
  w.control<QComboBox>(dialog, "renumber_order")
      ->setCurrentIndex(w.control<QComboBox>(dialog, "renumber_order")->findData(order_by_channel));
  w.control<QRadioButton>(dialog, "renumber_decreasing")->setChecked(true);
  w.press(dialog, "reorder");
  w.settle();
  for (std::int32_t c = 2; c <= s.clusters.n_clusters; ++c) {
    EXPECT_LE(s.templates.centre_channel(c), s.templates.centre_channel(c - 1));
  }
  EXPECT_EQ(check_session(s), "");
  w.press(dialog, "ok");
  w.settle();
}

TEST(Correlations, FollowTheUnitsAndTheWidth) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  session_state& s = *w.session;
  w.choose_entry("correlograms");
  QDialog* dialog = w.dialog("correlation_dialog");
  EXPECT_EQ(dialog->windowTitle(), "Cross-correlate spike trains");
  ASSERT_NE(graph_of(w.shell, graph_kind::correlograms), nullptr);
  w.set_number(dialog, "first_unit", 1);
  w.set_number(dialog, "second_unit", 3);
  const train_correlation& shown = w.shell.correlograms->shown;
  EXPECT_EQ(shown.cross.a, 1);
  EXPECT_EQ(shown.cross.b, 3);
  const correlogram plain = correlogram_counts(s, 1, 3);
  EXPECT_EQ(shown.cross.counts, plain.counts);
  EXPECT_EQ(w.text(dialog, "n_second").toInt(), plain.n_b);
  w.control<QSlider>(dialog, "correlogram_bin_ms")->setValue(30);
  EXPECT_EQ(shown.cross.bin_ms, s.review.correlogram_bin_ms);
  EXPECT_EQ(w.text(dialog, "bin_width"), QString::number(s.review.correlogram_bin_ms, 'f', 3));
  const int lines = s.log.n_log_lines;
  w.press(dialog, "print_values");
  EXPECT_GT(s.log.n_log_lines, lines);
  w.press(dialog, "done");
}

TEST(ReviewKeys, PresetsAndEditsCount) {
  EXPECT_EQ(keys_of("merge"), "G");
  use_key_preset(key_preset::phy);
  EXPECT_EQ(keys_of("split"), "K");
  set_keys("undo", "Ctrl+U");
  EXPECT_EQ(key_preset_in_force(), key_preset::edited);
  EXPECT_EQ(keys_of("split"), "K") << "the others stay as they were";
  EXPECT_EQ(keys_of("undo"), "Ctrl+U");
  use_key_preset(key_preset::own);
  EXPECT_EQ(keys_of("undo"), "U Ctrl+Z");

  QDialog dialog;
  auto* button = new QPushButton("Undo", &dialog);
  button->setObjectName("undo");
  button->setToolTip("Back");
  auto* field = new QLineEdit(&dialog);
  field->move(0, 60);
  int pressed = 0;
  QObject::connect(button, &QPushButton::clicked, [&] { ++pressed; });
  bind_keys(&dialog, button);
  EXPECT_EQ(button->toolTip(), "Back (U, Ctrl+Z)");
  dialog.show();
  dialog.activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&dialog));
  button->setFocus();
  QTest::keyClick(&dialog, Qt::Key_U);
  EXPECT_EQ(pressed, 1);
  field->setFocus();
  QTest::keyClick(field, Qt::Key_U);
  EXPECT_EQ(pressed, 1) << "a letter in a field is text";
  EXPECT_EQ(field->text(), "u");
  button->setEnabled(false);
  button->setFocus();
  QTest::keyClick(&dialog, Qt::Key_U);
  EXPECT_EQ(pressed, 1);
}

}  // namespace
}  // namespace kestrelvane::test

// Dialogs that look a recording or a sort over: acquisition properties, the sorting
// summary, realignment.
#include <QCheckBox>
#include <QComboBox>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTableView>
#include <QTest>
#include <filesystem>
#include <tuple>

#include "analysis/correlograms.h"
#include "analysis/unit_quality.h"
#include "clustering/membership.h"
#include "sorting/realign_steps.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/driven_workstation.h"
#include "workstation/sorted_workstation.h"

namespace kestrelvane::test {
namespace {

TEST(AcquisitionProperties, ChangesAreKeptByOkAndTakenBackByCancel) {
  const temporary_directory home, data;
  driven_workstation w(home.path, make_small_recording(data));
  recording_store& r = w.session->recording;
  const float vscale = r.vscale_HP;
  w.session->current_channel = 3;
  w.choose_entry("acquisition_properties");
  QDialog* dialog = w.dialog("acquisition_dialog");
  const auto text = [&](const char* name) { return w.control<QLabel>(dialog, name)->text(); };
  EXPECT_EQ(w.session->current_channel, 1);
  EXPECT_EQ(text("n_channels"), "4");
  EXPECT_EQ(text("sampling_frequency"), QString("%1 Hz").arg(r.sampling_frequency));
  EXPECT_EQ(text("n_samples"), QString::number(r.n_samples));
  w.control<number_field>(dialog, "channel")->setValue(4);
  EXPECT_EQ(w.session->current_channel, 4);
  EXPECT_EQ(text("y_position"), QString("%1 µm").arg(r.chan_y[4]));

  w.set_number(dialog, "new_vscale", 0.5);
  w.press(dialog, "change_vscale");
  w.settle();
  EXPECT_EQ(r.vscale_HP, 0.5f);
  EXPECT_EQ(text("vscale"), "0.5 µV/bit");
  for (int c = 1; c <= 4; ++c) r.chan_y[c] = static_cast<std::int16_t>(100 - 20 * c);
  w.set_number(dialog, "scan_angle", 90);
  w.press(dialog, "recalculate");
  w.settle();
  EXPECT_EQ(r.chan_sort_order[1], 4);
  EXPECT_EQ(text("sort_order"), "1");
  w.press(dialog, "linear");
  w.settle();
  EXPECT_EQ(text("sort_order"), "4");
  w.press(dialog, "recalculate");
  w.settle();
  w.press(dialog, "cancel");
  w.settle();
  EXPECT_EQ(r.vscale_HP, vscale);
  EXPECT_EQ(r.chan_sort_order[1], 1);

  w.choose_entry("acquisition_properties");
  dialog = w.dialog("acquisition_dialog");
  w.set_number(dialog, "new_vscale", 0.25);
  w.press(dialog, "change_vscale");
  w.settle();
  w.press(dialog, "ok");
  w.settle();
  EXPECT_EQ(r.vscale_HP, 0.25f);
}

TEST(AcquisitionProperties, SavesTheConfigurationAndAsksBeforeReplacingIt) {
  const temporary_directory home, data;
  driven_workstation w(home.path);
  w.choose_entry("acquisition_properties");
  w.settle();
  EXPECT_EQ(w.told, QStringList{"No recording data in memory"});
  start_operation(
      w.shell,
      [&](session_state& s) {
        make_recording(s, 2, 1000);
        s.recording.recording_path = data.file("shank.tsf");
      },
      nullptr);
  w.settle();
  w.choose_entry("acquisition_properties");
  QDialog* dialog = w.dialog("acquisition_dialog");
  w.press(dialog, "save_configuration");
  w.settle();
  EXPECT_TRUE(w.told.contains("Configuration file saved"));
  const std::string config = data.file("shank.cfg");
  ASSERT_TRUE(std::filesystem::exists(config));
  write_bytes(config, {'m', 'i', 'n', 'e'});
  w.press(dialog, "save_configuration");
  w.settle(false);
  EXPECT_EQ(read_bytes(config).size(), 4u) << "declined";
  w.press(dialog, "save_configuration");
  w.settle(true);
  EXPECT_GT(read_bytes(config).size(), 4u);
}

TEST(SortingSummary, LabelsByFiguresAndTakesTheLabelsBack) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  const std::int32_t n = w.session->clusters.n_clusters;
  w.choose_entry("sorting_statistics");
  QDialog* dialog = w.dialog("summary_dialog");
  w.settle();
  auto* table = w.control<QTableView>(dialog, "summary_table");
  constexpr int first_figure = 11, drift = first_figure + 10;
  EXPECT_TRUE(table->isColumnHidden(drift));
  w.control<QCheckBox>(dialog, "quality_columns")->click();
  w.settle();
  EXPECT_FALSE(table->isColumnHidden(drift));
  EXPECT_TRUE(table->isColumnHidden(first_figure)) << "events, which the summary has";
  const std::vector<unit_quality> quality = measure_quality(*w.session);
  for (int row = 0; row < n; ++row) {
    for (int figure = 0; figure < static_cast<int>(quality_figures().size()); ++figure) {
      EXPECT_EQ(table->model()->index(row, first_figure + figure).data().toString().toStdString(),
                quality_text(quality_figures()[figure], quality[row]));
    }
  }
  // A limit between the units decides, and one that is no number is refused.
  double least = 1e9, most = 0;
  for (const unit_quality& unit : quality) {
    least = std::min(least, unit.snr);
    most = std::max(most, unit.snr);
  }
  ASSERT_LT(least + 1, most);
  const double limit = std::round((least + most) / 2);
  w.control<number_field>(dialog, "noise_snr")->setValue(limit);
  w.press(dialog, "label_by_figures");
  w.settle();
  const std::size_t n_records = w.session->history.records.size();
  for (std::int32_t c = 1; c <= n; ++c) {
    EXPECT_EQ(w.session->clusters.cluster_label[c] == unit_label::noise, quality[c - 1].snr < limit)
        << c;
  }
  EXPECT_TRUE(has_unit_labels(w.session->clusters));
  w.press(dialog, "undo_labels");
  w.settle();
  EXPECT_FALSE(has_unit_labels(w.session->clusters));
  EXPECT_EQ(w.session->history.records.size(), n_records + 1);
  w.press(dialog, "done");
}

TEST(SortingSummary, SortsByItsHeadingsAndLeavesTheCurrentCluster) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  const std::int32_t n = w.session->clusters.n_clusters;
  w.choose_entry("sorting_statistics");
  QDialog* dialog = w.dialog("summary_dialog");
  w.settle();
  auto* table = w.control<QTableView>(dialog, "summary_table");
  const auto cell = [&](int row, int column) {
    return table->model()->index(row, column).data().toString();
  };
  ASSERT_EQ(table->model()->rowCount(), n);
  EXPECT_EQ(w.text(dialog, "n_events").toInt(), w.session->events.n_events);
  EXPECT_EQ(w.text(dialog, "n_stable"), "0");
  EXPECT_EQ(cell(0, 0), "1");
  EXPECT_EQ(cell(0, 6), " unknown");
  EXPECT_EQ(table->model()->headerData(4, Qt::Horizontal).toString(), "p-p µV");
  // A press on a heading, and another one.
  const auto press = [&](int column) {
    QHeaderView* heading = table->horizontalHeader();
    const auto order = heading->sortIndicatorSection() == column &&
                               heading->sortIndicatorOrder() == Qt::AscendingOrder
                           ? Qt::DescendingOrder
                           : Qt::AscendingOrder;
    heading->setSortIndicator(column, order);
  };
  press(3);
  for (int row = 1; row < n; ++row) EXPECT_LE(cell(row - 1, 3).toInt(), cell(row, 3).toInt());
  press(3);
  for (int row = 1; row < n; ++row) EXPECT_GE(cell(row - 1, 3).toInt(), cell(row, 3).toInt());
  EXPECT_EQ(w.session->clusters.current_cluster, 2);
  // The windows beside it follow the line that is pressed.
  EXPECT_FALSE(dialog->isModal());
  w.choose_entry("voltage_record");
  table->selectRow(0);
  EXPECT_EQ(w.session->clusters.current_cluster, cell(0, 0).toInt());
  EXPECT_TRUE(table->model()->index(0, 0).data(Qt::FontRole).value<QFont>().bold());
  EXPECT_TRUE(table->isColumnHidden(7)) << "off at first";
  w.control<QCheckBox>(dialog, "more_columns")->click();
  w.settle();
  EXPECT_FALSE(table->isColumnHidden(9));
  press(9);
  for (int row = 0; row < n; ++row) {
    const spike_train train = get_spike_train(*w.session, cell(row, 0).toInt());
    const interval_histogram intervals = count_intervals(*w.session, train, 1, 10);
    EXPECT_EQ(cell(row, 9),
              QString::number(100.0 * intervals.below_2_ms / intervals.n_intervals, 'f', 2));
    EXPECT_EQ(cell(row, 8),
              QString::number(cell(row, 3).toInt() / (60.0 * w.session->recording.duration_mins),
                              'f', 2));
    EXPECT_LE(cell(std::max(0, row - 1), 9).toDouble(), cell(row, 9).toDouble());
  }

  table->setColumnWidth(1, 123);
  w.press(dialog, "done");
  w.choose_entry("sorting_statistics");
  dialog = w.dialog("summary_dialog");
  w.settle();
  EXPECT_EQ(w.control<QTableView>(dialog, "summary_table")->columnWidth(1), 123);
  EXPECT_TRUE(w.control<QCheckBox>(dialog, "more_columns")->isChecked());
  w.press(dialog, "done");
}

TEST(Realign, OneClusterAllOfThemAndBack) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  const std::vector<float> before = w.places();
  w.choose_entry("realign");
  QDialog* dialog = w.dialog("realign_dialog");
  w.settle();
  EXPECT_EQ(w.control<number_field>(dialog, "cluster")->value(), 2);
  EXPECT_EQ(w.text(dialog, "cluster_events").toInt(), count_cluster_events(*w.session, 2));
  const QString sd = w.text(dialog, "template_sd"), mean = w.text(dialog, "mean_template_sd");
  EXPECT_EQ(sd, QString::number(template_sd_uv(*w.session, 2), 'f', 3) + " µV");
  EXPECT_FALSE(w.control<QPushButton>(dialog, "undo_templates")->isEnabled());

  w.control<QComboBox>(dialog, "template_align_mode")->setCurrentIndex(0);
  EXPECT_EQ(w.session->strategy.template_align_mode, 9) << "only Realign takes it";
  w.press(dialog, "realign_template");
  w.settle();
  EXPECT_EQ(w.session->strategy.template_align_mode, 1);
  EXPECT_NE(w.places(), before);
  EXPECT_NE(w.text(dialog, "template_sd"), sd);
  auto* cluster = w.control<number_field>(dialog, "cluster");
  cluster->setValue(1);
  EXPECT_FALSE(w.control<QPushButton>(dialog, "undo_events")->isEnabled())
      << "the copy is of another cluster";
  cluster->setValue(2);
  w.press(dialog, "undo_events");
  w.settle();
  EXPECT_EQ(w.places(), before);
  EXPECT_EQ(w.text(dialog, "template_sd"), sd);

  w.control<QComboBox>(dialog, "event_align_mode")->setCurrentIndex(2);
  w.press(dialog, "realign_events");
  w.settle();
  w.press(dialog, "realign_all_templates");
  w.settle();
  w.press(dialog, "realign_all_events");
  w.settle();
  EXPECT_NE(w.text(dialog, "mean_template_sd"), mean);
  EXPECT_NE(w.places(), before);
  EXPECT_FALSE(w.control<QPushButton>(dialog, "undo_templates")->isEnabled());
  cluster->setValue(3);
  w.press(dialog, "undo_all");
  w.settle(true);
  EXPECT_EQ(w.places(), before);
  EXPECT_EQ(w.session->clusters.current_cluster, 2);
  EXPECT_EQ(check_session(*w.session), "");
  EXPECT_EQ(w.session->undo, nullptr);
  EXPECT_EQ(w.asked, QStringList{"Continue to use newly selected template realignment method?"});
  EXPECT_EQ(w.session->strategy.template_align_mode, 1) << "answered with yes";
}

TEST(Realign, TheOldMethodComesBackWithNo) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  w.choose_entry("realign");
  QDialog* dialog = w.dialog("realign_dialog");
  w.settle();
  w.press(dialog, "done");
  w.settle();
  EXPECT_EQ(w.asked, QStringList{}) << "nothing was chosen";
  w.choose_entry("realign");
  dialog = w.dialog("realign_dialog");
  w.settle();
  w.control<QComboBox>(dialog, "template_align_mode")->setCurrentIndex(4);
  w.press(dialog, "realign_template");
  w.settle();
  const std::vector<float> moved = w.places();
  w.press(dialog, "done");
  w.settle(false);
  EXPECT_EQ(w.asked.size(), 1);
  EXPECT_EQ(w.session->strategy.template_align_mode, 9);
  EXPECT_EQ(w.places(), moved) << "the events stay where they were moved to";
}

TEST(Realign, NeedsClusters) {
  const temporary_directory home;
  driven_workstation w(home.path);
  for (const char* entry : {"realign", "recalculate_templates"}) {
    w.told.clear();
    w.choose_entry(entry);
    w.settle();
    EXPECT_EQ(w.told, QStringList{"No recording data in memory"}) << entry;
  }
  start_operation(
      w.shell, [](session_state& s) { make_recording(s, 2, 1000); }, nullptr);
  w.settle();
  for (const char* entry : {"realign", "recalculate_templates"}) {
    w.told.clear();
    w.choose_entry(entry);
    w.settle();
    EXPECT_EQ(w.told, QStringList{"There are no clusters"}) << entry;
  }
}

// Return presses what closes a dialog, and H tells of the keys, where there is no list either.
TEST(ReviewDialogs, ReturnClosesAndTheKeysAreToldOf) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  const std::tuple<const char*, const char*, const char*> dialogs[] = {
      {"correlograms", "correlation_dialog", "done"},
      {"post_processing", "post_process_dialog", "ok"},
      {"sorting_statistics", "summary_dialog", "done"}};
  for (const auto& [entry, name, closing] : dialogs) {
    w.choose_entry(entry);
    QDialog* dialog = w.dialog(name);
    w.settle();
    ASSERT_NE(dialog, nullptr) << name;
    EXPECT_TRUE(w.control<QPushButton>(dialog, closing)->isDefault()) << name;
    if (dialog->findChild<QPushButton*>("key_page") != nullptr) {
      ASSERT_TRUE(QTest::qWaitForWindowActive(dialog));
      QTest::keyClick(dialog, Qt::Key_H);
      auto* page = dialog->findChild<QDialog*>("key_page_dialog");
      ASSERT_NE(page, nullptr) << name;
      page->close();
    } else {
      EXPECT_STREQ(name, "correlation_dialog");
    }
    QTest::keyClick(dialog, Qt::Key_Return);
    EXPECT_TRUE(wait_until([&] { return w.shell.frame->findChild<QDialog*>(name) == nullptr; }))
        << name;
    w.settle();
  }
}

}  // namespace
}  // namespace kestrelvane::test

// Dialogs over settings: what they show, refuse, keep and give back.
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QScrollBar>
#include <QSlider>
#include <QTest>
#include <cmath>
#include <filesystem>

#include "session/run_log.h"
#include "session/settings_files.h"
#include "session/settings_table.h"
#include "support/interleaved_fixture.h"
#include "workstation/dialogs/messages_dialog.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/driven_workstation.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane::test {
namespace {

TEST(NumberField, RefusesInWordsAndKeepsTheValue) {
  small_session s;
  s->detection.variable_multiplier = 5.25f;
  QDialog dialog;
  settings_form form(*s, &dialog);
  number_field* field = number_control(form, "variable_multiplier");
  form.load();
  EXPECT_EQ(field->text(), "5.25");
  field->selectAll();
  QTest::keyClicks(field, "4000");
  EXPECT_EQ(field->problem()->text(), "from 0 to 1000");
  EXPECT_FALSE(form.store());
  EXPECT_EQ(s->detection.variable_multiplier, 5.25f);
  field->selectAll();
  QTest::keyClicks(field, "x");
  EXPECT_EQ(field->problem()->text(), "not a number");
  field->selectAll();
  QTest::keyClicks(field, "0.1");
  EXPECT_EQ(field->problem()->text(), "");
  EXPECT_TRUE(form.store());
  EXPECT_EQ(s->detection.variable_multiplier, 0.1f);

  number_field* whole = number_control(form, "pca_dimensions");
  form.load();
  whole->selectAll();
  QTest::keyClicks(whole, "2.5");
  EXPECT_EQ(whole->problem()->text(), "not a whole number");
}

TEST(NumberField, ARefusedTextIsNotCutToTheDigitsThatWereInRange) {
  QWidget window;
  auto* field = free_number(&window, "points", 1, 50, {});
  auto* other = free_number(&window, "other", 1, 50, {});
  window.show();
  field->show_value(25);
  QList<double> followed;
  QObject::connect(field, &QDoubleSpinBox::valueChanged, field,
                   [&](double value) { followed << value; });
  field->setFocus();
  field->selectAll();
  QTest::keyClicks(field, "999");
  EXPECT_EQ(followed, QList<double>({9, 25})) << "and not 9";
  QTest::keyClick(field, Qt::Key_Return);
  QTest::keyClick(field, Qt::Key_Tab);
  other->setFocus();
  EXPECT_EQ(field->text(), "999");
  EXPECT_EQ(field->problem()->text(), "from 1 to 50");
  EXPECT_FALSE(field->hasAcceptableInput());
  EXPECT_EQ(field->value(), 25);
  // Steps go on from the value, typing from the text, and a value from elsewhere replaces it.
  field->stepUp();
  EXPECT_EQ(field->text(), "26");
  EXPECT_EQ(field->problem()->text(), "");
  field->selectAll();
  QTest::keyClicks(field, "77");
  QTest::keyClick(field, Qt::Key_Backspace);
  EXPECT_EQ(field->value(), 7);
  QTest::keyClicks(field, "7");
  field->show_value(26);
  EXPECT_EQ(field->text(), "26");
  EXPECT_FALSE(field->refused());
}

TEST(Preferences, AppliesAtOnceAndCancelGivesBack) {
  const temporary_directory home;
  driven_workstation w(home.path);
  preferences_record& p = w.session->preferences;
  p.autorecover_minutes = 7;  // not in the list: its first entry
  w.choose_entry("preferences");
  QDialog* dialog = w.dialog("preferences_dialog");
  auto* intervals = w.control<QComboBox>(dialog, "autorecover_minutes");
  EXPECT_EQ(intervals->currentText(), "Never");
  w.tick(dialog, "verbose_log", true);
  w.press(dialog, "apply");
  w.settle();
  EXPECT_TRUE(p.verbose_log);
  EXPECT_EQ(p.autorecover_minutes, 1.0e27f);
  small_session other;
  other->home_directory = home.path;
  ASSERT_TRUE(read_preferences(*other));
  EXPECT_TRUE(other->preferences.verbose_log);

  intervals->setCurrentIndex(3);
  w.set_number(dialog, "pixels_per_um_x", 4.2);
  w.press(dialog, "cancel");
  EXPECT_EQ(p.pixels_per_um_x, 2.5f);
  EXPECT_FALSE(p.verbose_log) << "as it was when the dialog opened";

  w.choose_entry("preferences");
  dialog = w.dialog("preferences_dialog");
  w.control<QComboBox>(dialog, "autorecover_minutes")->setCurrentIndex(7);
  w.press(dialog, "ok");
  EXPECT_EQ(p.autorecover_minutes, 60.0f);
}

TEST(Preferences, TheListOfIntervalsIsOneOfMinutes) {
  const temporary_directory home;
  driven_workstation w(home.path);
  const std::pair<const char*, float> entries[] = {
      {"Never", 1.0e27f},    {"every 1 min", 1},    {"every 2 mins", 2},   {"every 5 mins", 5},
      {"every 10 mins", 10}, {"every 20 mins", 20}, {"every 30 mins", 30}, {"every hour", 60}};
  preferences_record& p = w.session->preferences;
  for (int i = 0; i < 8; ++i) {
    w.choose_entry("preferences");
    QDialog* dialog = w.dialog("preferences_dialog");
    auto* list = w.control<QComboBox>(dialog, "autorecover_minutes");
    EXPECT_EQ(list->currentIndex(), i == 0 ? 3 : i - 1) << "found from the value";
    EXPECT_EQ(list->itemText(i), entries[i].first);
    list->setCurrentIndex(i);
    w.press(dialog, "ok");
    w.settle();
    EXPECT_EQ(p.autorecover_minutes, entries[i].second);
  }
  p.autorecover_minutes = 2000;
  w.choose_entry("preferences");
  QDialog* dialog = w.dialog("preferences_dialog");
  EXPECT_EQ(w.control<QComboBox>(dialog, "autorecover_minutes")->currentText(), "Never");
  w.tick(dialog, "verbose_log", true);
  w.press(dialog, "apply");
  w.settle();
  QTest::keyClick(dialog, Qt::Key_Escape);
  EXPECT_FALSE(p.verbose_log) << "left by the key, as by Cancel";
}

TEST(Preferences, TheLogFileIsOpenedAtOnceOrTheOptionGoesOff) {
  const temporary_directory home, data;
  driven_workstation w(home.path, make_small_recording(data));
  const run_log_table& log = w.session->log;
  w.choose_entry("preferences");
  QDialog* dialog = w.dialog("preferences_dialog");
  w.tick(dialog, "log_file_enabled", true);
  w.press(dialog, "apply");
  w.settle();
  ASSERT_TRUE(log.log_file_open);
  EXPECT_TRUE(std::filesystem::exists(log.log_file_path));
  EXPECT_EQ(log.log_lines[log.n_log_lines].view(), "Opening logfile: " + log.log_file_path);
  w.tick(dialog, "log_file_enabled", false);
  w.press(dialog, "apply");
  w.settle();
  EXPECT_FALSE(log.log_file_open);

  w.session->recording.recording_path = data.file("no such folder/a.tsf");
  w.tick(dialog, "log_file_enabled", true);
  w.press(dialog, "apply");
  auto* box = dialog->findChild<QMessageBox*>("message_box");
  ASSERT_NE(box, nullptr);
  EXPECT_EQ(box->property("title"), "File open error");
  w.settle();
  EXPECT_TRUE(w.told.contains("Error opening logfile"));
  EXPECT_EQ(log.log_lines[log.n_log_lines].view(), "Failed to open logfile");
  EXPECT_FALSE(w.session->preferences.log_file_enabled);
  EXPECT_FALSE(w.control<QCheckBox>(dialog, "log_file_enabled")->isChecked());
  w.told.clear();
  w.press(dialog, "ok");
  w.settle();
  EXPECT_TRUE(w.told.isEmpty()) << "not tried again";
}

TEST(Preferences, DefaultShowsTheTableAndKeepsNothingUntilOk) {
  const temporary_directory home;
  driven_workstation w(home.path);
  preferences_record& p = w.session->preferences;
  p.pixels_per_uv = 3;
  p.subcluster_colours[0] = 0x123456;
  p.window_origin[10] = 77;
  w.choose_entry("preferences");
  QDialog* dialog = w.dialog("preferences_dialog");
  w.press(dialog, "default");
  EXPECT_EQ(p.pixels_per_uv, 3.0f);
  EXPECT_EQ(p.window_origin[10], 77);
  w.press(dialog, "ok");
  EXPECT_EQ(p.pixels_per_uv, 0.5f);
  EXPECT_EQ(p.subcluster_colours[0], 0x2A22CD);
  EXPECT_EQ(p.window_origin[10], 0) << "as computed for this frame";
  EXPECT_EQ(p.autorecover_minutes, 5.0f);
}

TEST(Preferences, WindowSizesAreThoseOfTheChosenWindow) {
  const temporary_directory home;
  driven_workstation w(home.path);
  w.choose_entry("preferences");
  QDialog* dialog = w.dialog("preferences_dialog");
  const auto size = [&] {
    return std::pair(w.control<number_field>(dialog, "window_width")->value(),
                     w.control<number_field>(dialog, "window_height")->value());
  };
  EXPECT_EQ(size(), std::pair(400.0, 500.0));
  auto* windows = w.control<QComboBox>(dialog, "window_list");
  windows->setCurrentIndex(3);
  EXPECT_EQ(size(), std::pair(510.0, 250.0));
  w.set_number(dialog, "window_height", 320);
  windows->setCurrentIndex(5);
  EXPECT_EQ(size(), std::pair(790.0, 600.0));
  w.press(dialog, "ok");
  const preferences_record& p = w.session->preferences;
  EXPECT_EQ(p.window_size[6], 510);
  EXPECT_EQ(p.window_size[7], 320);
  EXPECT_EQ(p.window_size[1], 500);
  EXPECT_EQ(p.voltage_window_size[1], 600);
}

TEST(Strategy, EverySettingIsShownAndStored) {
  const temporary_directory home;
  driven_workstation w(home.path);
  w.choose_entry("strategy");
  QDialog* dialog = w.dialog("strategy_dialog");
  w.set_number(dialog, "channel_threshold_1", 0.35);
  w.set_number(dialog, "overlap_threshold", 0.225);
  w.control<QComboBox>(dialog, "pc_point_selection")->setCurrentIndex(1);
  w.tick(dialog, "register_to_max_v", true);
  w.set_number(dialog, "interp_depth", 40);
  w.set_number(dialog, "interp_width", 40);
  w.press(dialog, "ok");
  EXPECT_EQ(w.control<QLabel>(dialog, "problem")->text(), "Depth times width must be 1000 at most");
  EXPECT_EQ(w.session->strategy.channel_threshold_1, 0.2f);
  w.set_number(dialog, "interp_width", 8);
  w.press(dialog, "ok");
  const sorting_strategy_settings& s = w.session->strategy;
  EXPECT_EQ(s.channel_threshold_1, 0.35f);
  EXPECT_EQ(s.overlap_threshold, 0.225f);
  EXPECT_EQ(s.pc_point_selection, -1);
  EXPECT_FALSE(w.session->detection.register_to_cog);
  EXPECT_EQ(w.session->tables.depth, 40);

  w.choose_entry("strategy");
  dialog = w.dialog("strategy_dialog");
  w.press(dialog, "restore_defaults");
  EXPECT_EQ(s.channel_threshold_1, 0.35f);
  w.press(dialog, "ok");
  EXPECT_EQ(s.channel_threshold_1, 0.2f);
  EXPECT_EQ(s.pc_point_selection, 4);
  EXPECT_TRUE(w.session->detection.register_to_cog);
}

TEST(Strategy, TheSliderOfSigmaGoesInSteps) {
  const temporary_directory home;
  driven_workstation w(home.path);
  w.choose_entry("strategy");
  QDialog* dialog = w.dialog("strategy_dialog");
  auto* slider = w.control<QSlider>(dialog, "gac_start_sigma_slider");
  auto* field = w.control<number_field>(dialog, "gac_start_sigma");
  EXPECT_EQ(slider->value(), 20);
  emit slider->sliderMoved(30);
  EXPECT_NEAR(field->value(), 5 * std::pow(1.1, 10), 1e-6);
  EXPECT_EQ(slider->value(), 30);
  for (int position = 0; position <= slider->maximum(); ++position) {
    emit slider->sliderMoved(position);
    EXPECT_EQ(slider->value(), position);
  }
  field->setValue(5.4);  // short of the next step
  EXPECT_EQ(slider->value(), 20);
  field->setValue(10000);
  EXPECT_EQ(slider->value(), slider->maximum());
  field->setValue(6.5);
  w.set_number(dialog, "interp_width", 8);
  w.press(dialog, "ok");
  EXPECT_EQ(w.session->strategy.gac_start_sigma, 6.5f);
  const run_log_table& log = w.session->log;
  ASSERT_GE(log.n_log_lines, 2);
  EXPECT_EQ(log.log_lines[log.n_log_lines - 1].view(), "Recalculating interpolation table");
  EXPECT_EQ(log.log_lines[log.n_log_lines].view(),
            "Changing interpolation parameters, depth, width = 10 8");
}

TEST(Messages, InterruptLeavesNoRecording) {
  const temporary_directory home, data;
  spikeglx_fixture recording;
  recording.told_bytes = 77;  // a box about it holds the reader
  const QString path = QString::fromStdString(write_spikeglx(data.path, recording));
  driven_workstation w(home.path);
  w.choose_entry("open_recording");
  QStringList paths{path};
  ASSERT_TRUE(wait_until([&] { return w.answer_box(true, paths) && paths.isEmpty(); }));
  QDialog* dialog = w.dialog("messages_dialog");
  ASSERT_NE(dialog, nullptr);
  auto* interrupt = w.control<QPushButton>(dialog, "interrupt");
  ASSERT_TRUE(wait_until([&] { return interrupt->isEnabled(); }));
  EXPECT_FALSE(w.control<QPushButton>(dialog, "ok")->isEnabled());
  interrupt->click();
  EXPECT_FALSE(interrupt->isEnabled());
  w.settle();
  EXPECT_EQ(w.session->recording.n_samples, 0);
  EXPECT_EQ(w.session->recording.recording_path, "No data file");
  auto* lines = w.control<QListWidget>(dialog, "log_lines");
  EXPECT_FALSE(lines->findItems("Reading interrupted", Qt::MatchExactly).isEmpty());
  EXPECT_TRUE(w.control<QPushButton>(dialog, "ok")->isEnabled());
}

TEST(Messages, ShowsTheRingAndFollowsIt) {
  const temporary_directory home, data;
  driven_workstation w(home.path, make_small_recording(data));
  w.choose_entry("messages");
  QDialog* dialog = w.dialog("messages_dialog");
  EXPECT_EQ(dialog->windowTitle(), "Messages");
  EXPECT_EQ(w.control<QLineEdit>(dialog, "file_name")->text().toStdString(),
            data.file("small.tsf"));
  auto* list = w.control<QListWidget>(dialog, "log_lines");
  const int before = list->count();
  EXPECT_EQ(before, w.session->log.n_log_lines);
  start_operation(
      w.shell,
      [](session_state& session) {
        for (int i = 1; i <= 1100; ++i) log_message(session, "line " + std::to_string(i));
      },
      nullptr);
  w.settle();
  EXPECT_EQ(list->count(), before + 1100);
  EXPECT_EQ(list->item(before + 1099)->text(), "line 1100");
  EXPECT_EQ(list->verticalScrollBar()->value(), list->verticalScrollBar()->maximum());
  w.close_messages();
  EXPECT_FALSE(w.session->log.messages_dialog_open);
  w.choose_entry("messages");
  list = w.control<QListWidget>(w.dialog("messages_dialog"), "log_lines");
  ASSERT_EQ(list->count(), 1024) << "what the ring holds";
  EXPECT_EQ(list->item(0)->text(), "line 77");
  EXPECT_EQ(list->item(1023)->text(), "line 1100");
  w.close_messages();
}

TEST(Messages, OpensWhileAWorkerLogsAndNamesItsFile) {
  const temporary_directory home;
  driven_workstation w(home.path);
  for (int round = 1; round <= 10; ++round) {
    start_operation(
        w.shell,
        [round](session_state& session) {
          set_status(session, status_field::file_name, "/data/told.tsf");
          for (int i = 1; i <= 50; ++i) {
            log_message(session, "line " + std::to_string(1000 * round + i));
            session.recording.recording_path = "/data/" + std::to_string(i) + ".tsf";
          }
        },
        nullptr);
    QDialog* dialog = show_messages(w.shell);
    w.settle();
    EXPECT_EQ(w.control<QLineEdit>(dialog, "file_name")->text(), "/data/told.tsf");
    const auto* list = w.control<QListWidget>(dialog, "log_lines");
    for (int i = 1; i <= 50; ++i) {
      const QString line = "line " + QString::number(1000 * round + i);
      EXPECT_EQ(list->findItems(line, Qt::MatchExactly).size(), 1) << line.toStdString();
    }
    w.close_messages();
  }
}

TEST(About, ShowsLimitsWhateverTheMachine) {
  const temporary_directory home;
  driven_workstation w(home.path);
  w.choose_entry("about");
  QDialog* dialog = w.dialog("about_dialog");
  EXPECT_EQ(w.control<QLabel>(dialog, "limit_clusters")->text(), "4000");
  EXPECT_EQ(w.control<QLabel>(dialog, "limit_events")->text(), "50000000");
  EXPECT_EQ(w.control<QLabel>(dialog, "limit_proto_events")->text(), "n/a");
  EXPECT_EQ(w.control<QLabel>(dialog, "allocated_memory")->text(), "0.0 GB");
  w.press(dialog, "ok");
  // Half a gigabyte is no 0.0: 62 channels of 1 million samples, and their templates.
  w.session->recording.n_samples = 1'000'000;
  w.session->recording.n_channels = 62;
  wait_until([&] { return w.shell.frame->findChild<QDialog*>("about_dialog") == nullptr; });
  w.choose_entry("about");
  dialog = w.dialog("about_dialog");
  EXPECT_EQ(w.control<QLabel>(dialog, "allocated_memory")->text(), "0.4 GB");
  w.press(dialog, "ok");
  w.session->recording.n_samples = w.session->recording.n_channels = 0;
}

TEST(Messages, ClosesByItselfWhenWantedAndNothingWentWrong) {
  const temporary_directory home, data;
  const QString good = QString::fromStdString(make_small_recording(data));
  spikeglx_fixture recording;
  recording.told_bytes = 77;  // a box about it comes
  const QString odd = QString::fromStdString(write_spikeglx(data.path, recording));
  driven_workstation w(home.path);
  const auto read = [&](const QString& path) {
    w.choose_entry("open_recording");
    w.settle(true, {path});
    EXPECT_GT(w.session->recording.n_samples, 0);
    QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  };
  read(good);
  ASSERT_FALSE(w.shell.messages.isNull()) << "it waits at first";
  w.tick(w.shell.messages, "close_messages", true);
  w.close_messages();
  read(good);
  EXPECT_TRUE(w.shell.messages.isNull());
  w.told.clear();
  read(odd);
  EXPECT_FALSE(w.told.isEmpty());
  ASSERT_FALSE(w.shell.messages.isNull()) << "there was a warning";
  w.tick(w.shell.messages, "close_messages", false);
  w.close_messages();
}

TEST(Traces, OpenAfterALoadUnlessUnwanted) {
  const temporary_directory home, data;
  const QString path = QString::fromStdString(make_small_recording(data));
  driven_workstation w(home.path, path.toStdString());
  ASSERT_NE(graph_of(w.shell, graph_kind::voltage_record), nullptr);
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("voltage_dialog"), nullptr) << "the traces alone";
  for (const bool wanted : {false, true}) {
    w.choose_entry("preferences");
    QDialog* dialog = w.dialog("preferences_dialog");
    w.tick(dialog, "open_traces", wanted);
    w.press(dialog, "ok");
    w.settle();
    w.choose_entry("open_recording");
    w.settle(true, {path});
    w.close_messages();
    EXPECT_EQ(graph_of(w.shell, graph_kind::voltage_record) != nullptr, wanted);
  }
}

}  // namespace
}  // namespace kestrelvane::test

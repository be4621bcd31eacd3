// The maker of test recordings: made, opened, sorted and scored as a user would.
#include <gtest/gtest.h>

#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFile>
#include <QLabel>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>

#include "synthesis/test_recording.h"
#include "workstation/commands/menu_table.h"
#include "workstation/driven_workstation.h"
#include "workstation/program_options.h"

namespace kestrelvane::test {
namespace {

struct making_workstation : driven_workstation {
  explicit making_workstation(const std::string& home) : driven_workstation(home) {
    keep_wish(program_option::research_tools, true);
    show_full_entries(shell);
  }
  ~making_workstation() { keep_wish(program_option::research_tools, false); }
  QDialog* open_maker() {
    choose_entry("test_waveform");
    QDialog* maker = dialog("test_waveform_dialog");
    settle();
    return maker;
  }
  void ask_for(QDialog* maker, int n_channels, double minutes) {
    control<QComboBox>(maker, "electrode")->setCurrentText("tetrode");
    set_number(maker, "n_channels", n_channels);
    set_number(maker, "minutes", minutes);
    set_number(maker, "n_units", 3);
    set_number(maker, "seed", 4);
  }
};

TEST(TestWaveform, ARecordingIsMadeOpenedSortedAndScored) {
  const temporary_directory home;
  making_workstation w(home.path);
  QDialog* maker = w.open_maker();
  ASSERT_NE(maker, nullptr);
  w.ask_for(maker, 4, 0.3);
  w.set_number(maker, "overlap", 0.2);
  w.press(maker, "make");
  const QString path = QString::fromStdString(home.file("made.tsf"));
  w.settle(true, {path});
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("test_waveform_dialog"), nullptr);
  w.settle();
  w.close_messages();
  ASSERT_EQ(w.session->recording.n_channels, 4);
  // The verb writes the same.
  test_recording_options options;
  options.electrode = test_electrode::tetrode;
  options.n_channels = 4;
  options.minutes = 0.3;
  options.n_units = 3;
  options.seed = 4;
  options.overlap = 0.2;
  std::string problem;
  ASSERT_TRUE(make_test_recording(options, home.file("again.tsf"), {}, problem));
  for (const char* ending : {".tsf", ".truth.csv", ".units.csv"}) {
    EXPECT_EQ(read_bytes(home.file(std::string("made") + ending)),
              read_bytes(home.file(std::string("again") + ending)));
  }
  // Not sorted yet.
  maker = w.open_maker();
  EXPECT_TRUE(w.control<QPlainTextEdit>(maker, "score")->toPlainText().contains("sort it"));
  w.press(maker, "done");
  w.choose_entry("autosort");
  QDialog* sort = w.dialog("autosort_dialog");
  w.press(sort, "start");
  w.settle(true);
  w.press(sort, "done");
  w.settle();
  std::string log;
  for (std::int32_t i = 1; i <= w.session->log.n_log_lines; ++i) {
    log += std::string(w.session->log.log_lines[i].view()) + "\n";
  }
  EXPECT_NE(log.find("of 3 planted units with accuracy 0.8 or better"), log.npos) << log;
  maker = w.open_maker();
  EXPECT_TRUE(
      w.control<QPlainTextEdit>(maker, "score")->toPlainText().contains("3 planted units: "));
  // What was asked for last is asked for again.
  EXPECT_EQ(w.control<QDoubleSpinBox>(maker, "seed")->value(), 4);
  EXPECT_EQ(w.control<QComboBox>(maker, "electrode")->currentText(), "tetrode");
  w.press(maker, "done");
}

TEST(TestWaveform, WhatCannotBeMadeIsSaidAndAnInterruptLeavesNothing) {
  const temporary_directory home;
  making_workstation w(home.path);
  QDialog* maker = w.open_maker();
  w.ask_for(maker, 4096, 0.3);
  w.press(maker, "make");
  w.settle();
  const auto* message = w.control<QLabel>(maker, "message");
  EXPECT_TRUE(message->text().startsWith("This cannot be made: this electrode would be longer"));
  // So many channels that one of them takes less than the whole by far.
  w.ask_for(maker, 128, 4);
  w.tick(maker, "open_recording", false);
  w.press(maker, "make");
  const QString path = QString::fromStdString(home.file("made.tsf"));
  QStringList paths = {path};
  ASSERT_TRUE(wait_until([&] { return w.answer_box(true, paths); }));
  ASSERT_TRUE(wait_until([&] { return w.control<QProgressBar>(maker, "progress")->value() > 0; }));
  w.press(maker, "interrupt");
  w.settle();
  EXPECT_EQ(message->text(), "Nothing is written: the making was interrupted");
  EXPECT_FALSE(QFile::exists(path));
  EXPECT_EQ(partial_files(path.toStdString()), std::vector<std::string>());
  // The file dialog cancelled.
  w.press(maker, "make");
  w.settle();
  EXPECT_EQ(message->text(), "");
  w.press(maker, "done");
}

}  // namespace
}  // namespace kestrelvane::test

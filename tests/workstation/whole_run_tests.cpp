// A user's whole road on a small recording: open, filter, detect, sort, save, export,
// leave, resume, recover.
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <filesystem>

#include "operations/recovery.h"
#include "support/samples.h"
#include "workstation/driven_workstation.h"
#include "workstation/interface_desk.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane::test {
namespace {

QString qt(const std::string& text) { return QString::fromStdString(text); }

void open_by_dialog(driven_workstation& w, const std::string& path) {
  w.choose_entry("open_recording");
  w.settle(true, {qt(path)});
  w.close_messages();
}

// Runs the pipeline from its dialog; during is called when it has begun.
void autosort(driven_workstation& w, const std::function<void(QDialog*)>& during = {}) {
  w.choose_entry("autosort");
  QDialog* dialog = w.dialog("autosort_dialog");
  ASSERT_NE(dialog, nullptr);
  w.tick(dialog, "skip_event_detection", false);
  w.tick(dialog, "skip_clustering", false);
  w.set_number(dialog, "min_cluster_size", 20);
  const bool replaces = w.session->clusters.n_clusters > 0;
  w.press(dialog, "start");
  QStringList none;
  if (replaces) {
    EXPECT_TRUE(wait_until([&] { return w.answer_box(true, none); }));
    EXPECT_TRUE(w.asked.last().contains("clusters in memory."));
  }
  if (during) during(dialog);
  w.settle();
  w.press(dialog, "done");
  w.settle();
}

TEST(WholeRun, RealRecordingsOpen) {
  const char* samples[] = {
      "blackrock/FileSpec2.3001.nev",
      "blackrock/blackrock_2_1/l101210-001.ns2",
      "blackrock/segment/PauseCorrect/pause_correct.ns2",
      "intan/derived/fps_repacked_v3.3.rhd",
      "neuralynx/Cheetah_v5.5.1/original_data/Tet3a.ncs",
      "neuroscope/test1/test1.xml",
      "openephysbinary/v0.4.4.1_with_spikes/experiment1/recording1/structure.oebin",
      "spikeglx/Noise4Sam_g0/Noise4Sam_g0_imec0/Noise4Sam_g0_t0.imec0.ap.bin",
  };
  if (sample_path(samples[0]).empty()) GTEST_SKIP() << "no samples";
  const temporary_directory home;
  driven_workstation w(home.path);
  for (const char* sample : samples) {
    SCOPED_TRACE(sample);
    const std::string path = sample_path(sample);
    w.choose_entry("open_recording");
    w.settle(true, {qt(path)});
    w.close_messages();
    EXPECT_GT(w.session->recording.n_samples, 0);
    EXPECT_EQ(w.session->recording.recording_path, path);
    EXPECT_EQ(check_session(*w.session), "");
  }
}

TEST(WholeRun, FromARecordingToExportedUnits) {
  const temporary_directory home, data;
  const std::string path = make_small_recording(data);
  driven_workstation w(home.path);
  w.choose_entry("open_recording");
  w.settle(true, {qt(path)});
  EXPECT_EQ(w.control<QLineEdit>(w.dialog("messages_dialog"), "file_name")->text(), qt(path));
  w.close_messages();
  ASSERT_GT(w.session->recording.n_samples, 0);
  EXPECT_EQ(w.session->recording.n_channels, 4);

  // filter
  const std::int16_t before = w.session->recording.vd.channel(1)[5000];
  w.choose_entry("transform_filter");
  QDialog* filter = w.dialog("filter_dialog");
  w.tick(filter, "do_channel_means", true);
  w.tick(filter, "do_high_pass", true);
  w.press(filter, "do_it");
  w.settle();
  EXPECT_TRUE(w.told.contains("Finished transforming"));
  EXPECT_FALSE(w.control<QCheckBox>(filter, "do_high_pass")->isChecked());
  w.press(filter, "done");
  EXPECT_EQ(w.session->filter_history.n_entries, 2);
  EXPECT_NE(w.session->recording.vd.channel(1)[5000], before);

  // detect
  w.choose_entry("event_detection");
  QDialog* detection = w.dialog("event_detection_dialog");
  w.settle();
  w.press(detection, "start");
  w.settle();
  EXPECT_EQ(w.control<QLabel>(detection, "events_found")->text().toInt(),
            w.session->events.n_events);
  EXPECT_GT(w.session->events.n_events, 100);
  w.press(detection, "done");
  w.settle();

  // sort
  autosort(w);
  EXPECT_GE(w.session->clusters.n_clusters, 2);
  EXPECT_EQ(check_session(*w.session), "");
  const std::int32_t n_clusters = w.session->clusters.n_clusters;

  // save, spoil, read back; a user takes time over a name, and nothing may come in between
  const std::string work = data.file("small.wrk");
  w.choose_entry("save_work_file");
  wait_until([] { return false; }, 700);
  EXPECT_EQ(QApplication::activeModalWidget()->objectName(), "choose_file");
  w.settle(true, {qt(work)});
  ASSERT_TRUE(std::filesystem::exists(work));
  EXPECT_TRUE(w.told.contains(qt("Work saved in file " + work)));
  w.session->clusters.n_clusters = 0;
  w.choose_entry("open_work_file");
  w.settle(false, {qt(work)});
  EXPECT_TRUE(w.asked.contains("Repeat previous filtering?"));
  EXPECT_EQ(w.session->clusters.n_clusters, n_clusters);

  // export
  w.choose_entry("export_spikes");
  QDialog* exporting = w.dialog("export_dialog");
  w.settle();
  w.tick(exporting, "export_save_work_file", true);
  w.tick(exporting, "save_comments", true);
  w.press(exporting, "save_as");
  const std::string csv = data.file("units.csv");
  w.settle(true, {qt(csv)});
  EXPECT_TRUE(w.told.contains("CSV data saved"));
  EXPECT_EQ(w.control<QLabel>(exporting, "exported_file")->text().toStdString(), csv);
  for (const char* name : {"units.csv", "units.wrk", "units.txt"}) {
    EXPECT_TRUE(std::filesystem::exists(data.file(name))) << name;
  }
  w.press(exporting, "done");
}

// Asks for a pause from the worker itself, as soon as it is on its first cluster: a small
// sort is over before a click would reach it.
struct early_pause {
  static inline session_state* session = nullptr;
  static inline decltype(user_interface::status) shown = nullptr;

  explicit early_pause(session_state& of) {
    session = &of;
    shown = of.ui.status;
    of.ui.status = [](void* context, status_field field, const std::string& text) {
      if (field == status_field::current_cluster && !text.empty()) {
        session->operation.pause_requested = true;
        session->ui.status = shown;
      }
      shown(context, field, text);
    };
  }
  ~early_pause() { session->ui.status = shown; }
};

TEST(WholeRun, PauseResumeAndInterruptOfASort) {
  const temporary_directory home, data;
  const std::string path = make_small_recording(data);
  driven_workstation w(home.path, path);
  bool paused = false;
  QObject::connect(w.shell.desk, &interface_desk::paused, w.shell.frame, [&] { paused = true; });
  const early_pause first(*w.session);
  autosort(w, [&](QDialog* dialog) {
    ASSERT_TRUE(wait_until([&] { return paused; }));
    EXPECT_TRUE(w.control<QPushButton>(dialog, "resume")->isEnabled());
    EXPECT_FALSE(w.control<QPushButton>(dialog, "start")->isEnabled());
    EXPECT_FALSE(w.control<QPushButton>(dialog, "done")->isEnabled());
    dialog->close();  // not while it runs
    EXPECT_TRUE(dialog->isVisible());
    // Ticked, the box stays so, and every Resume is a step.
    auto* pause = w.control<QCheckBox>(dialog, "pause");
    pause->setChecked(true);
    for (int step = 0; step < 2; ++step) {
      paused = false;
      w.press(dialog, "resume");
      ASSERT_TRUE(wait_until([&] { return paused; }));
      EXPECT_TRUE(pause->isChecked());
    }
    pause->setChecked(false);
    w.press(dialog, "resume");
    w.settle();
    EXPECT_GE(w.session->clusters.n_clusters, 2);
  });
  EXPECT_EQ(check_session(*w.session), "");

  paused = false;
  const early_pause second(*w.session);
  autosort(w, [&](QDialog* dialog) {
    ASSERT_TRUE(wait_until([&] { return paused; }));
    w.press(dialog, "interrupt");
    w.settle();
    EXPECT_TRUE(w.control<QPushButton>(dialog, "start")->isEnabled());
  });
  EXPECT_EQ(check_session(*w.session), "");
  EXPECT_TRUE(w.told.filter("terminated by user").size() +
              w.told.filter("interrupted by user").size());
}

QMessageBox* open_question(driven_workstation& w) {
  QMessageBox* box = nullptr;
  wait_until([&] {
    box = w.shell.frame->findChild<QMessageBox*>("question_box");
    return box != nullptr && box->isVisible();
  });
  return box;
}

TEST(WholeRun, EscapeOnTheWayOutStays) {
  const temporary_directory home, data;
  driven_workstation w(home.path, make_small_recording(data));
  w.choose_entry("exit");
  QMessageBox* box = open_question(w);
  ASSERT_NE(box, nullptr);
  EXPECT_EQ(box->text(), "Save program state for next time?");
  EXPECT_EQ(box->defaultButton(), box->button(QMessageBox::Yes));
  QTest::keyClick(box, Qt::Key_Escape);
  EXPECT_TRUE(wait_until([&] { return !w.shell.worker.running; }));
  EXPECT_FALSE(w.shell.leaving);
  // The cross of the box; and the timed save goes on.
  w.choose_entry("exit");
  box = open_question(w);
  ASSERT_NE(box, nullptr);
  box->close();
  EXPECT_TRUE(wait_until([&] { return !w.shell.worker.running; }));
  EXPECT_FALSE(w.shell.leaving);
  EXPECT_GT(w.session->recording.n_samples, 0);
  EXPECT_TRUE(w.shell.autorecover_running && w.shell.autorecover.thread.joinable());
  EXPECT_TRUE(w.leave(true));
}

TEST(WholeRun, AnExitStopsWhatRuns) {
  const temporary_directory home, data;
  driven_workstation w(home.path, make_small_recording(data));
  bool paused = false;
  QObject::connect(w.shell.desk, &interface_desk::paused, w.shell.frame, [&] { paused = true; });
  const early_pause first(*w.session);
  w.choose_entry("autosort");
  QDialog* dialog = w.dialog("autosort_dialog");
  w.tick(dialog, "skip_event_detection", false);
  w.set_number(dialog, "min_cluster_size", 20);
  w.press(dialog, "start");
  ASSERT_TRUE(wait_until([&] { return paused; }));
  w.shell.frame->close();
  QMessageBox* box = open_question(w);
  ASSERT_NE(box, nullptr);
  EXPECT_EQ(box->text(), "An operation is running. Stop it and leave?");
  box->button(QMessageBox::No)->click();
  EXPECT_TRUE(w.shell.worker.running) << "it pauses as before";
  w.shell.frame->close();
  QStringList none;
  EXPECT_TRUE(wait_until([&] {
    if (w.answer_box(true, none)) return false;
    return w.shell.leaving && !w.shell.worker.running;
  }));
  EXPECT_TRUE(w.told.filter("by user").size());
  EXPECT_TRUE(w.asked.contains("Save program state for next time?"));
  EXPECT_TRUE(std::filesystem::exists(home.file("kv_restart.sav")));
}

TEST(WholeRun, LeavingWithYesIsResumedAndWithNoIsNot) {
  const temporary_directory home, data;
  const std::string path = make_small_recording(data);
  std::int32_t n_clusters = 0;
  {
    driven_workstation w(home.path, path);
    autosort(w);
    n_clusters = w.session->clusters.n_clusters;
    ASSERT_GE(n_clusters, 2);
    w.choose_entry("exit");
    w.settle(true);
    EXPECT_TRUE(w.asked.contains("Save program state for next time?"));
  }
  EXPECT_TRUE(std::filesystem::exists(home.file(restart_file_name)));
  EXPECT_FALSE(std::filesystem::exists(home.file(autorecover_file_name)));
  {
    driven_workstation w(home.path, "", true);
    EXPECT_TRUE(w.asked.contains("Resume previous state?"));
    EXPECT_EQ(w.session->clusters.n_clusters, n_clusters);
    EXPECT_EQ(w.session->recording.recording_path, path);
    EXPECT_FALSE(std::filesystem::exists(home.file(restart_file_name)));
    w.leave(false);
  }
  EXPECT_FALSE(std::filesystem::exists(home.file(restart_file_name)));
  driven_workstation w(home.path);
  EXPECT_TRUE(w.asked.isEmpty());
}

TEST(WholeRun, WhatTheTimerSavedIsOfferedAgain) {
  const temporary_directory home, data;
  const std::string path = make_small_recording(data);
  const std::string saved = home.file(autorecover_file_name), kept = data.file("kept.sav");
  std::int32_t n_clusters = 0;
  {
    driven_workstation w(home.path, path);
    autosort(w);
    n_clusters = w.session->clusters.n_clusters;
    // The file may stand already from the start; the sort has to be in it.
    std::filesystem::remove(saved);
    save_autorecover_soon(w.shell.autorecover);
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(saved); }));
    std::filesystem::copy(saved, kept);
  }
  EXPECT_FALSE(std::filesystem::exists(saved)) << "a clean exit leaves none";
  std::filesystem::copy(kept, saved);  // as after a crash
  driven_workstation w(home.path, "", true);
  EXPECT_TRUE(w.asked.contains("Recover information from previous run?"));
  EXPECT_EQ(w.session->clusters.n_clusters, n_clusters);
}

// Bytes of memory that belong to this process.
std::int64_t resident_bytes() {
  long pages = 0, resident = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(file);
  }
  return std::int64_t{resident} * 4096;
}

TEST(WholeRun, TenRecordingsInARowLeaveNoMemoryBehind) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer keeps freed memory";
#endif
  const temporary_directory home, data;
  const std::string path = make_small_recording(data);
  driven_workstation w(home.path);
  std::int64_t after_third = 0;
  for (int i = 1; i <= 10; ++i) {
    open_by_dialog(w, path);
    autosort(w);
    w.choose_entry("voltage_record");
    w.settle();
    if (QDialog* dialog = w.shell.frame->findChild<QDialog*>("voltage_dialog")) dialog->close();
    w.choose_entry("close_recording");
    w.settle(true);
    if (i == 3) after_third = resident_bytes();
  }
  const std::int64_t grown = resident_bytes() - after_third;
  RecordProperty("grown_kb", static_cast<int>(grown / 1024));
  EXPECT_LT(grown, 8'000'000);
}

}  // namespace
}  // namespace kestrelvane::test

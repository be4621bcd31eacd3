// Dialogs that work on the samples, the events and the clusters: filters, detection,
// Autosort, pair lists, export.
#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSlider>
#include <QTabWidget>
#include <QTableWidget>
#include <QTest>
#include <chrono>
#include <filesystem>
#include <thread>

#include "session/presets.h"
#include "session/template_window.h"
#include "session/user_interface.h"
#include "sorting/status_lists.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/driven_workstation.h"

namespace kestrelvane::test {
namespace {

// A small recording in memory.
struct recording_at_hand {
  temporary_directory home, data;
  driven_workstation w{home.path, make_small_recording(data)};
  session_state& session() { return *w.session; }

  // Types into a number field; what it says beside itself.
  QString type(QDialog* in, const char* field, const char* text) {
    auto* number = w.control<number_field>(in, field);
    number->selectAll();
    QTest::keyClicks(number, text);
    return number->problem()->text();
  }
  QString text(QDialog* in, const char* label) { return w.control<QLabel>(in, label)->text(); }
  QDialog* open(const char* entry, const char* name) {
    w.choose_entry(entry);
    QDialog* dialog = w.dialog(name);
    w.settle();
    return dialog;
  }
  // Runs the pipeline; the dialog stays open.
  QDialog* sort() {
    QDialog* dialog = open("autosort", "autosort_dialog");
    w.tick(dialog, "skip_event_detection", false);
    w.tick(dialog, "skip_clustering", false);
    w.set_number(dialog, "min_cluster_size", 20);
    w.press(dialog, "start");
    w.settle();
    return dialog;
  }
};

// The template of a cluster has values at its last point.
bool reaches_the_end(const session_state& s, std::int32_t cluster) {
  const std::int32_t channel = s.templates.centre_channel(cluster);
  return s.templates.mean(cluster, channel)[s.templates.template_points] != 0.0f;
}

TEST(FilterDialog, SmoothingStaysTickedAndTheRestIsTickedAfresh) {
  recording_at_hand r;
  const char* cleared[] = {"do_channel_means", "do_common_mean",      "do_notch",
                           "do_compressive",   "do_phase_correction", "do_high_pass"};
  QDialog* dialog = r.open("transform_filter", "filter_dialog");
  EXPECT_EQ(dialog->windowTitle(), "Transform voltage waveform");
  for (const char* option : cleared) r.w.tick(dialog, option, true);
  r.w.tick(dialog, "do_spatial_smooth", true);
  r.w.tick(dialog, "do_temporal_smooth", true);
  r.w.tick(dialog, "make_low_pass", true);
  r.w.press(dialog, "do_it");
  r.w.settle();
  EXPECT_EQ(r.w.told, QStringList("Finished transforming"));
  const auto ticked = [&](const char* name) {
    return r.w.control<QCheckBox>(dialog, name)->isChecked();
  };
  for (const char* option : cleared) EXPECT_FALSE(ticked(option)) << option;
  EXPECT_TRUE(ticked("do_spatial_smooth"));
  EXPECT_TRUE(ticked("do_temporal_smooth"));
  const filter_history_table& history = r.session().filter_history;
  std::vector<std::int32_t> codes;
  for (std::int32_t i = 1; i <= history.n_entries; ++i) codes.push_back(history.code[i]);
  EXPECT_EQ(codes, (std::vector<std::int32_t>{1, 2, 3, 4, 7, -5, 6, 8}));

  // A number that is refused runs nothing and keeps the dialog.
  EXPECT_EQ(r.type(dialog, "bw_poles", "11"), "from 1 to 10");
  r.w.press(dialog, "do_it");
  r.w.press(dialog, "done");
  r.w.settle();
  EXPECT_TRUE(dialog->isVisible());
  EXPECT_EQ(history.n_entries, 8);
  EXPECT_EQ(r.type(dialog, "bw_poles", "6"), "");
  EXPECT_EQ(r.type(dialog, "bw_f0_khz", "0.05"), "from 0.1 to 3200");
  EXPECT_EQ(r.type(dialog, "bw_f0_khz", "0.3"), "");
  EXPECT_EQ(r.type(dialog, "compressive_75pct_uv", "2001"), "from 1 to 2000");
  EXPECT_EQ(r.type(dialog, "compressive_75pct_uv", "2000"), "");
  r.w.press(dialog, "done");
  EXPECT_EQ(r.session().filter.bw_poles, 6);
  dialog = r.open("transform_filter", "filter_dialog");
  EXPECT_FALSE(ticked("make_low_pass")) << "never on from the start";
  EXPECT_TRUE(ticked("do_spatial_smooth"));
}

TEST(DetectionDialog, MasksAreSetByHandByNoiseAndAllAtOnce) {
  recording_at_hand r;
  const auto& mask = r.session().recording.chan_mask;
  QDialog* dialog = r.open("event_detection", "event_detection_dialog");
  r.w.control<QSlider>(dialog, "channel")->setValue(2);
  r.w.tick(dialog, "mask_channel", true);
  EXPECT_TRUE(mask[2]);
  EXPECT_EQ(r.text(dialog, "n_masked"), "1 of 4 channels are masked");
  r.w.set_number(dialog, "mask_noise_below_uv", 0.001);
  r.w.press(dialog, "mask_quiet");
  EXPECT_TRUE(mask[2]) << "masked already";
  EXPECT_FALSE(mask[1]);
  r.w.set_number(dialog, "mask_noise_below_uv", 10000);
  r.w.press(dialog, "mask_quiet");
  EXPECT_EQ(r.text(dialog, "n_masked"), "4 of 4 channels are masked");
  r.w.press(dialog, "unmask_all");
  EXPECT_FALSE(r.w.control<QCheckBox>(dialog, "mask_channel")->isChecked());
  r.w.press(dialog, "mask_all");
  r.w.control<QSlider>(dialog, "channel")->setValue(3);
  r.w.tick(dialog, "mask_channel", false);
  r.w.press(dialog, "done");
  r.w.settle(true);
  EXPECT_EQ(r.w.asked, QStringList("Save/replace mask file (.msk)?"));
  const std::vector<char> bytes = read_bytes(r.data.file("small.msk"));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "     1T\n     2T\n     3F\n     4T\n");
  // Nothing changed, nothing asked.
  dialog = r.open("event_detection", "event_detection_dialog");
  r.w.press(dialog, "done");
  r.w.settle(true);
  EXPECT_EQ(r.w.asked.size(), 1);
}

TEST(DetectionDialog, ATableMasksSeveralChannelsAndTellsTheirThresholds) {
  recording_at_hand r;
  const recording_store& recording = r.session().recording;
  QDialog* dialog = r.open("event_detection", "event_detection_dialog");
  auto* table = r.w.control<QTableWidget>(dialog, "channel_masks");
  ASSERT_EQ(table->rowCount(), 4);
  const double noise_uv = recording.chan_noise[3] * static_cast<double>(recording.vscale_HP);
  EXPECT_EQ(table->item(2, 1)->text(), QString::number(noise_uv, 'f', 2));
  EXPECT_EQ(table->item(2, 2)->text(), "± " + QString::number(5 * noise_uv, 'f', 1));
  r.w.set_number(dialog, "variable_multiplier", 7);
  EXPECT_EQ(table->item(2, 2)->text(), "± " + QString::number(7 * noise_uv, 'f', 1));
  r.w.control<QRadioButton>(dialog, "threshold_fixed")->click();
  r.w.set_number(dialog, "fixed_threshold_uv", -66);
  EXPECT_EQ(table->item(3, 2)->text(), "± 66.0");
  r.w.control<QRadioButton>(dialog, "threshold_automatic")->click();
  EXPECT_EQ(table->item(3, 2)->text(), "fitted");
  // A tick in one of the selected rows is for all of them, one elsewhere for its own.
  const auto masked = [&] {
    QString marks;
    for (int c = 1; c <= 4; ++c) marks += recording.chan_mask[c] ? 'T' : 'F';
    return marks;
  };
  table->setRangeSelected(QTableWidgetSelectionRange(0, 0, 2, 3), true);
  table->item(1, 3)->setCheckState(Qt::Checked);
  EXPECT_EQ(masked(), "TTTF");
  EXPECT_EQ(table->item(0, 3)->checkState(), Qt::Checked);
  table->item(3, 3)->setCheckState(Qt::Checked);
  EXPECT_EQ(masked(), "TTTT");
  table->item(0, 3)->setCheckState(Qt::Unchecked);
  EXPECT_EQ(masked(), "FFFT");
  // The slider goes with the row.
  table->setCurrentCell(3, 0);
  EXPECT_EQ(r.w.control<QSlider>(dialog, "channel")->value(), 4);
  EXPECT_TRUE(r.w.control<QCheckBox>(dialog, "mask_channel")->isChecked());
  // Escape leaves it as Done does, but for the settings.
  QTest::keyClick(dialog, Qt::Key_Escape);
  r.w.settle(true);
  EXPECT_EQ(r.w.asked, QStringList("Save/replace mask file (.msk)?"));
  EXPECT_TRUE(std::filesystem::exists(r.data.file("small.msk")));
  EXPECT_EQ(r.w.shell.frame->findChild<QDialog*>("event_detection_dialog"), nullptr);
  EXPECT_NE(r.session().detection.fixed_threshold_uv, -66);
}

TEST(AutosortDialog, APresetHoldsForItsRun) {
  QSettings().remove("preset");
  recording_at_hand r;
  detection_settings& d = r.session().detection;
  d.variable_multiplier = 4.5f;
  QDialog* dialog = r.open("autosort", "autosort_dialog");
  // The first time all are told.
  for (const sort_preset& preset : sort_presets()) {
    EXPECT_TRUE(r.text(dialog, "preset_purpose").contains(preset.purpose)) << preset.name;
  }
  auto* list = r.w.control<QComboBox>(dialog, "preset");
  const QLabel* purpose = r.w.control<QLabel>(dialog, "preset_purpose");
  QApplication::processEvents();
  const int room = purpose->height();
  EXPECT_EQ(list->currentText(), "Standard");
  auto* multiplier = r.w.control<number_field>(dialog, "variable_multiplier");
  list->setCurrentText("Sensitive");
  EXPECT_EQ(multiplier->value(), 5);
  EXPECT_EQ(r.text(dialog, "preset_purpose"), list->toolTip());
  QApplication::processEvents();
  EXPECT_GE(purpose->height(), room) << "no control moves";
  list->setCurrentText("Standard");
  EXPECT_EQ(multiplier->value(), 4.5);
  list->setCurrentText("Sensitive");
  r.w.tick(dialog, "skip_event_detection", false);
  r.w.set_number(dialog, "min_cluster_size", 20);
  r.w.press(dialog, "start");
  r.w.settle();
  EXPECT_EQ(r.session().filter_history.n_entries, 2);
  EXPECT_FALSE(r.w.told.contains("Finished transforming")) << "the run would wait for it";
  EXPECT_GT(r.session().clusters.n_clusters, 0);
  EXPECT_EQ(d.detection_method, method_dynamic_multiphasic);
  EXPECT_EQ(d.variable_multiplier, 4.5f);
  EXPECT_FALSE(d.use_lockout);
  EXPECT_EQ(r.session().strategy.min_cluster_size, 20);
  EXPECT_EQ(multiplier->value(), 5) << "the preset is still chosen";
  r.w.press(dialog, "done");
  r.w.settle();
  EXPECT_EQ(d.variable_multiplier, 4.5f);
  dialog = r.open("autosort", "autosort_dialog");
  EXPECT_EQ(r.w.control<QComboBox>(dialog, "preset")->currentText(), "Sensitive");
  QSettings().remove("preset");
}

TEST(RunningDialog, LetsMessagesAndLimitsBeLookedAt) {
  recording_at_hand r;
  QDialog* sort = r.open("autosort", "autosort_dialog");
  r.w.tick(sort, "skip_event_detection", false);
  r.w.set_number(sort, "min_cluster_size", 20);
  r.w.press(sort, "start");
  ASSERT_TRUE(r.w.shell.worker.running);
  r.w.choose_entry("messages");
  r.w.choose_entry("about");
  QDialog *messages = r.w.dialog("messages_dialog"), *about = r.w.dialog("about_dialog");
  EXPECT_EQ(QApplication::activeModalWidget(), nullptr) << "Interrupt can still be pressed";
  EXPECT_FALSE(r.w.shell.frame->findChild<QAction*>("preferences")->isEnabled());
  about->close();
  r.w.settle();
  EXPECT_GT(r.session().clusters.n_clusters, 0);
  EXPECT_TRUE(messages->isVisible());
  r.w.close_messages();
}

TEST(DetectionDialog, NoiseIsMeasuredOnOpeningAndByTheMethodChosen) {
  recording_at_hand r;
  const auto& noise = r.session().recording.chan_noise;
  const float median = noise[1];
  ASSERT_GT(median, 0);
  r.session().recording.chan_noise[1] = 0;
  QDialog* dialog = r.open("event_detection", "event_detection_dialog");
  EXPECT_EQ(noise[1], median);
  r.w.tick(dialog, "noise_sd", true);
  r.w.settle();
  EXPECT_NE(noise[1], median);
  const double uv = static_cast<double>(noise[1] * r.session().recording.vscale_HP);
  EXPECT_EQ(r.text(dialog, "channel_noise"), QString("Channel 1: noise %1 µV").arg(uv, 0, 'f', 2));
  r.w.tick(dialog, "noise_median", true);
  r.w.settle();
  EXPECT_EQ(noise[1], median);
  EXPECT_EQ(r.type(dialog, "noise_window_secs", "15"), "not a multiple of 10");
  EXPECT_EQ(r.type(dialog, "noise_window_secs", "30"), "");
  r.w.press(dialog, "done");
  r.w.settle();
  EXPECT_EQ(r.session().detection.noise_window_secs, 30);
}

TEST(DetectionDialog, TheWindowIsKeptInWholeSamples) {
  recording_at_hand r;
  std::int32_t& samples = r.session().detection.window_samples;
  for (const std::int32_t rate : {20000, 24414, 25000, 30000, 32556}) {
    r.session().recording.sampling_frequency = rate;
    for (const std::int32_t n : {1, 6, 7, 13, 29}) {
      samples = n;
      QDialog* dialog = r.open("event_detection", "event_detection_dialog");
      r.w.press(dialog, "done");
      r.w.settle();
      EXPECT_EQ(samples, n) << rate << ": only looked at";
    }
    QDialog* dialog = r.open("event_detection", "event_detection_dialog");
    r.w.control<number_field>(dialog, "window_samples")->stepBy(1);
    r.w.press(dialog, "done");
    r.w.settle();
    EXPECT_EQ(samples, 30) << rate << ": one sample more";
  }
  r.session().detection.detection_method = 2;
  QDialog* dialog = r.open("event_detection", "event_detection_dialog");
  EXPECT_FALSE(r.w.control<number_field>(dialog, "window_samples")->isEnabled())
      << "the bipolar threshold looks at one sample";
  r.w.press(dialog, "done");
  r.w.settle();
}

TEST(DetectionDialog, WithoutRoomForProtoEventsLockoutIsForced) {
  recording_at_hand r;
  r.session().detector.pe_alloc_failed = true;
  QDialog* dialog = r.open("event_detection", "event_detection_dialog");
  EXPECT_FALSE(r.w.control<QRadioButton>(dialog, "use_proto_events")->isEnabled());
  r.w.press(dialog, "restore_defaults");
  EXPECT_TRUE(r.w.control<QRadioButton>(dialog, "use_lockout")->isChecked());
  r.w.press(dialog, "start");
  r.w.settle();
  EXPECT_GT(r.session().events.n_events, 100);
  EXPECT_FALSE(r.text(dialog, "coincident_deleted").isEmpty());
  EXPECT_FALSE(r.text(dialog, "large_deleted").isEmpty());
  r.w.press(dialog, "done");
  r.w.settle();
  EXPECT_TRUE(r.session().detection.use_lockout);
}

TEST(DetectionDialog, DoneTellsOfAnInterruptedRunAndOfTimesOutside) {
  recording_at_hand r;
  r.session().operation.polls = 0;
  r.session().operation.interrupt_at_poll = 2;
  QDialog* dialog = r.open("event_detection", "event_detection_dialog");
  r.w.press(dialog, "start");
  r.w.settle();
  r.session().operation.interrupt_at_poll = -1;
  r.w.press(dialog, "done");
  r.w.settle();
  EXPECT_EQ(r.w.told, QStringList("Event detection was incomplete."));
  dialog = r.open("event_detection", "event_detection_dialog");
  r.w.press(dialog, "start");
  r.w.settle();
  event_table& events = r.session().events;
  ASSERT_GT(events.n_events, 101);
  {
    const session_hold hold(r.session());
    for (std::int32_t e = 1; e <= 101; ++e) events.event_time[e] = 0;
  }
  r.w.press(dialog, "done");
  r.w.settle();
  EXPECT_EQ(r.w.told.size(), 1);
  EXPECT_EQ(events.n_events, 0) << "more than 100 bad times";
}

TEST(AutosortDialog, RefusesWhatCannotBeSortedWith) {
  recording_at_hand r;
  r.session().strategy.overlap_threshold = 0.225f;
  QDialog* dialog = r.open("autosort", "autosort_dialog");
  EXPECT_FALSE(r.w.control<QCheckBox>(dialog, "skip_event_detection")->isChecked());
  const std::tuple<const char*, const char*, const char*> limits[] = {
      {"gac_threshold", "1", "2"},
      {"min_cluster_size", "-1", "0"},
      {"pca_dimensions", "6", "5"},
      {"pca_dimensions", "1", "2"}};
  for (const auto& [field, refused, taken] : limits) {
    EXPECT_TRUE(r.type(dialog, field, refused).startsWith("from ")) << field;
    for (const char* button : {"start", "next", "done"}) {
      r.w.press(dialog, button);
      EXPECT_TRUE(dialog->isVisible() && !r.w.shell.worker.running) << field << button;
    }
    EXPECT_EQ(r.type(dialog, field, taken), "") << field;
  }
  r.w.set_number(dialog, "template_window_start_ms", 0.9);
  r.w.press(dialog, "done");
  EXPECT_TRUE(dialog->isVisible());
  EXPECT_EQ(r.text(dialog, "message"), "The template window must begin before it ends");
  r.w.set_number(dialog, "template_window_start_ms", -0.8);
  auto* slider = r.w.control<QSlider>(dialog, "pc_display_scale");
  slider->setValue(200);
  EXPECT_EQ(r.session().preferences.pc_display_scale, 10.0f);
  slider->setValue(0);
  EXPECT_EQ(r.session().preferences.pc_display_scale, 0.25f);
  r.w.press(dialog, "done");
  r.w.settle();
  EXPECT_EQ(r.session().strategy.min_cluster_size, 0);
  EXPECT_EQ(r.session().strategy.overlap_threshold, 0.225f) << "finer than shown, not changed";
}

TEST(AutosortDialog, AChangedWindowRealignsUnlessARunHasDoneIt) {
  recording_at_hand r;
  session_state& s = r.session();
  s.strategy.template_window_end_ms = 0.6f;
  QDialog* dialog = r.sort();
  ASSERT_GE(s.clusters.n_clusters, 2);
  r.w.press(dialog, "done");
  r.w.settle();

  // Changed and sorted again: the templates are of the new window already.
  dialog = r.open("autosort", "autosort_dialog");
  EXPECT_TRUE(r.w.control<QCheckBox>(dialog, "skip_event_detection")->isChecked());
  r.w.set_number(dialog, "template_window_end_ms", 0.7);
  r.w.press(dialog, "start");
  r.w.settle(true);
  r.w.press(dialog, "done");
  r.w.settle();
  EXPECT_EQ(r.w.shell.frame->findChild<QDialog*>("realign_box"), nullptr);

  // Changed only: they are not.
  dialog = r.open("autosort", "autosort_dialog");
  const std::int32_t points = s.templates.template_points;
  r.w.set_number(dialog, "template_window_end_ms", 1.0);
  r.w.press(dialog, "done");
  QDialog* box = r.w.dialog("realign_box");
  ASSERT_NE(box, nullptr);
  r.w.settle();
  EXPECT_EQ(r.text(box, "message"), "Finished ... press OK to continue");
  EXPECT_GT(s.templates.template_points, points);
  EXPECT_TRUE(reaches_the_end(s, 1)) << "recalculated";
  r.w.press(box, "ok");
  EXPECT_EQ(check_session(s), "");

  // Changed, and on to the pairs: templates first.
  r.w.told.clear();
  dialog = r.open("autosort", "autosort_dialog");
  r.w.set_number(dialog, "template_window_end_ms", 0.8);
  r.w.press(dialog, "next");
  box = r.w.dialog("realign_box");
  ASSERT_NE(box, nullptr);
  r.w.settle();
  EXPECT_FALSE(templates_are_outdated(s));
  EXPECT_TRUE(r.w.told.isEmpty());
  {
    const session_hold hold(s);
    s.strategy.overlap_threshold = -5.0f;  // nothing is distinct by its overlap
    s.strategy.correlation_threshold = -2.0f;
  }
  ASSERT_GT(count_pairs_to_examine(s), 0);
  r.w.press(box, "ok");
  r.w.settle();
  EXPECT_NE(r.w.shell.frame->findChild<QDialog*>("guided_merge_dialog"), nullptr);
  EXPECT_TRUE(s.autosort.next_stage_requested);
}

TEST(StatusListsDialog, ComparesAnewAndForgetsMarks) {
  recording_at_hand r;
  session_state& s = r.session();
  s.clusters.n_clusters = 1;
  QDialog* dialog = r.open("make_status_lists", "status_lists_dialog");
  EXPECT_EQ(r.text(dialog, "stable_clusters"), "1") << "it has no pair";
  r.w.press(dialog, "done");
  s.clusters.n_clusters = 0;
  r.w.press(r.sort(), "done");
  r.w.settle();
  ASSERT_GE(s.clusters.n_clusters, 2);
  {
    // The sort has just ended, and a timed save may be at it.
    const session_hold hold(s);
    s.lists.kv_user_distinct[1] = true;
    s.lists.kv_user_ambiguous[1] = true;
    s.lists.kv_cluster_overlap[1] = 0.9f;
  }
  dialog = r.open("make_status_lists", "status_lists_dialog");
  r.w.press(dialog, "begin");
  r.w.settle();
  EXPECT_FALSE(s.lists.kv_user_distinct[1]);
  EXPECT_FALSE(s.lists.kv_user_ambiguous[1]);
  EXPECT_NE(s.lists.kv_cluster_overlap[1], 0.9f);
  EXPECT_EQ(r.text(dialog, "n_clusters").toInt(), s.clusters.n_clusters);
  EXPECT_EQ(r.text(dialog, "stable_clusters").toInt(), count_stable_clusters(s));
  EXPECT_EQ(r.text(dialog, "pairs_to_examine").toInt(), count_pairs_to_examine(s));
  r.w.press(dialog, "done");
}

TEST(ConvertChannels, AsksBeforeItOverwritesASort) {
  recording_at_hand r;
  r.w.choose_entry("convert_channels");
  r.w.settle();
  EXPECT_EQ(r.w.told, QStringList("There are no events to cluster!"));
  QDialog* detection = r.open("event_detection", "event_detection_dialog");
  r.w.press(detection, "start");
  r.w.settle();
  r.w.press(detection, "done");
  r.w.settle();
  r.session().strategy.min_cluster_size = 20;
  r.w.choose_entry("convert_channels");
  r.w.settle();
  const std::int32_t n = r.session().clusters.n_clusters;
  ASSERT_GE(n, 1);
  EXPECT_TRUE(
      r.w.told.last().startsWith(QString("Events clustered by channel, %1 cluster").arg(n)));
  EXPECT_TRUE(r.w.asked.isEmpty());
  r.session().clusters.cluster_comment[1].assign("mine");
  r.w.choose_entry("convert_channels");
  r.w.settle(false);
  EXPECT_EQ(r.session().clusters.cluster_comment[1].view(), "mine") << "declined";
  r.w.choose_entry("convert_channels");
  r.w.settle(true);
  EXPECT_EQ(r.session().clusters.cluster_comment[1].view(), "");
}

TEST(ExportDialog, SaysWhatItCannotWriteAndWarnsFirst) {
  recording_at_hand r;
  r.session().detector.detection_incomplete = true;
  QDialog* dialog = r.open("export_spikes", "export_dialog");
  ASSERT_EQ(r.w.told.size(), 1);
  EXPECT_TRUE(r.w.told.first().startsWith("Event detection was probably incomplete due to"));
  EXPECT_EQ(r.text(dialog, "source_file").toStdString(), r.data.file("small.tsf"));
  EXPECT_EQ(r.text(dialog, "n_duplicates"), "     0");
  auto* format = r.w.control<QComboBox>(dialog, "data_format");
  ASSERT_EQ(format->count(), 11);
  const std::pair<int, const char*> refused[] = {{3, "No Neuralynx data in memory"},
                                                 {5, "No Blackrock .nev data in memory"}};
  for (const auto& [entry, words] : refused) {
    format->setCurrentIndex(entry);
    r.w.told.clear();
    r.w.press(dialog, "save_as");
    r.w.settle(false, {QString::fromStdString(r.data.file("never"))});
    EXPECT_EQ(r.w.told, QStringList(words)) << "no file is asked for";
  }
  r.session().recording.is_continuous = false;
  format->setCurrentIndex(7);
  r.w.told.clear();
  r.w.press(dialog, "save_as");
  r.w.settle();
  EXPECT_EQ(r.w.told, QStringList("TSF export not supported for  event based recording"));
  r.session().recording.is_continuous = true;
  r.w.press(dialog, "done");
}

TEST(RunningDialog, ItsClockGoesWithTheRunAndStandsUnderABox) {
  recording_at_hand r;
  QLabel minutes;
  auto* dialog = new operation_dialog(r.w.shell, "runner", "Runner");
  follow_clock(dialog, &minutes);
  open_runner(r.w.shell, dialog);
  const auto elapsed = [](int ms) {
    QElapsedTimer clock;
    clock.start();
    wait_until([&] { return clock.elapsed() > ms; });
  };
  dialog->run(
      [](session_state& session) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        tell(session, "Finished", "Runner", box_icon::information);
      },
      nullptr);
  ASSERT_TRUE(wait_until([] { return QApplication::activeModalWidget() != nullptr; }));
  const QString at_end = minutes.text();
  EXPECT_TRUE(at_end == "0.01" || at_end == "0.02") << at_end.toStdString();
  elapsed(1300);
  EXPECT_EQ(minutes.text(), at_end);
  r.w.settle();
  elapsed(700);
  EXPECT_EQ(minutes.text(), at_end);
  dialog->close();
}

TEST(RunningDialog, BarsEndFullAlsoWhereAStageHadNothingToDo) {
  recording_at_hand r;
  QDialog* dialog = r.sort();
  r.w.tick(dialog, "skip_event_detection", true);
  r.w.tick(dialog, "skip_clustering", true);
  r.w.tick(dialog, "merge_safe_pairs", false);
  r.w.press(dialog, "start");
  r.w.settle();
  for (const char* name : {"detection_meter", "cluster_meter", "merge_meter"}) {
    const auto* bar = r.w.control<QProgressBar>(dialog, name);
    EXPECT_EQ(bar->value(), bar->maximum()) << name;
  }
}

// Where the controls of a dialog are; labels are what may change.
QList<QRect> places_in(const QDialog* dialog) {
  QList<QRect> places = {QRect(QPoint(0, 0), dialog->size())};
  const QList<QWidget*> widgets = dialog->findChildren<QWidget*>();
  for (const QWidget* widget : widgets) {
    if (!widget->isVisible() || qobject_cast<const QLabel*>(widget)) continue;
    places << QRect(widget->mapTo(dialog, QPoint(0, 0)), widget->size());
  }
  return places;
}

TEST(WrongInput, IsSaidWhereItIsTypedAndMovesNothing) {
  recording_at_hand r;
  r.w.press(r.sort(), "done");
  r.w.settle();
  const std::pair<const char*, const char*> dialogs[] = {
      {"preferences", "preferences_dialog"},
      {"strategy", "strategy_dialog"},
      {"acquisition_properties", "acquisition_dialog"},
      {"transform_filter", "filter_dialog"},
      {"event_detection", "event_detection_dialog"},
      {"autosort", "autosort_dialog"},
      {"realign", "realign_dialog"}};
  for (const auto& [entry, name] : dialogs) {
    QDialog* dialog = r.open(entry, name);
    const auto* pages = dialog->findChild<QTabWidget*>("pages");
    const int n_pages = pages ? pages->count() : 1;
    for (int page = 0; page < n_pages; ++page) {
      if (pages) dialog->findChild<QTabWidget*>("pages")->setCurrentIndex(page);
      QApplication::processEvents();
      const QList<QRect> before = places_in(dialog);
      const QList<number_field*> fields = dialog->findChildren<number_field*>();
      for (number_field* field : fields) {
        if (!field->isVisible() || !field->isEnabled()) continue;
        const std::string where = std::string(name) + ": " + field->objectName().toStdString();
        for (const char* text : {"-99999999999", "x", "0.12345678901"}) {
          field->selectAll();
          QTest::keyClicks(field, text);
          QApplication::processEvents();
          EXPECT_EQ(places_in(dialog), before) << where << ' ' << text;
          if (!field->refused()) continue;
          const QLabel* words = field->problem();
          const bool seen = words != nullptr && words->isVisible();
          EXPECT_TRUE(seen) << where;
          if (!seen) continue;
          const int needed = words->fontMetrics().horizontalAdvance(words->text());
          EXPECT_GE(words->width(), needed) << where << ": " << words->text().toStdString();
        }
      }
    }
    dialog->close();
    r.w.settle();
    wait_until([&, own = name] { return r.w.shell.frame->findChild<QDialog*>(own) == nullptr; });
  }
}

}  // namespace
}  // namespace kestrelvane::test

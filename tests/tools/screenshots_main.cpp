// Takes a picture of every window and dialog, as scripts/screenshots arranges it.
//
//   kestrelvane-screenshots RECORDING WORK_FILE FOLDER light|dark
//
// Runs on a real screen (a virtual one will do), opens the recording and the work file,
// then each dialog in turn, and saves the screen as FOLDER/NAME.png. It also measures for how
// long the interface thread has not turned on the way to each picture, and prints what is above a
// tenth of a second.
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QPointer>
#include <QScreen>
#include <QSettings>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QTreeWidget>
#include <algorithm>
#include <cstdio>
#include <ctime>

#include "numerics/parallel.h"
#include "recording/formats/hdf/hdf_probe.h"
#include "results/work_file.h"
#include "review/manage_clusters.h"
#include "support/hdf_fixture.h"
#include "support/small_session.h"
#include "workstation/commands/commands.h"
#include "workstation/commands/menu_table.h"
#include "workstation/dialogs/messages_dialog.h"
#include "workstation/driven_workstation.h"
#include "workstation/program_options.h"
#include "workstation/themes.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/voltage_window.h"

namespace {

using namespace kestrelvane;
using test::driven_workstation;
using test::wait_until;

QString folder;
QElapsedTimer since_turn;
// ms in which the interface thread has not turned, since the last picture, and how many of them it
// had a processor: on a busy machine the former say little of the program.
qint64 longest_turn = 0, longest_work = 0;
qint64 worked_before = 0;

qint64 worked_ms() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

void end_turn() {
  const qint64 worked = worked_ms();
  longest_turn = std::max(longest_turn, since_turn.restart());
  longest_work = std::max(longest_work, worked - worked_before);
  worked_before = worked;
}

// Before the picture: taking one takes longer than any window may.
void tell_turn(const QString& name) {
  constexpr qint64 limit = 100;
  if (longest_turn > limit) {
    std::printf("%s: a turn of %lld ms, at most %lld ms of work\n", qPrintable(name),
                static_cast<long long>(longest_turn), static_cast<long long>(longest_work));
  }
}

void forget_turn() {
  longest_turn = longest_work = 0;
  worked_before = worked_ms();
  since_turn.restart();
}

void take(const QString& name) {
  tell_turn(name);
  QElapsedTimer clock;
  clock.start();
  wait_until([&] { return clock.elapsed() > 400; });
  const QPixmap picture = QApplication::primaryScreen()->grabWindow(0);
  picture.save(folder + '/' + name + ".png");
  forget_turn();
}

// The dialog alone, for the user guide.
void take_alone(QWidget* dialog, const QString& name) {
  QDir().mkpath(folder + "/alone");
  tell_turn(name);
  dialog->grab().save(folder + "/alone/" + name + ".png");
  forget_turn();
}

// Opens a dialog by its menu entry, pictures it and its pages, and closes it.
void take_dialog(driven_workstation& w, const char* entry, const char* name) {
  wait_until([&] { return !w.shell.worker.running; });
  w.choose_entry(entry);
  QDialog* dialog = w.dialog(name);
  if (dialog == nullptr) return;
  wait_until([&] { return !w.shell.worker.running; });
  take(name);
  take_alone(dialog, name);
  if (auto* pages = dialog->findChild<QTabWidget*>("pages")) {
    for (int page = 1; page < pages->count(); ++page) {
      pages->setCurrentIndex(page);
      take(QString("%1_%2").arg(name).arg(page + 1));
    }
  }
  dialog->close();
  wait_until([&] { return w.shell.frame->findChild<QDialog*>(name) == nullptr; }, 2000);
}

// The list of the channel check lies open, and on the line that the background bears out, if any.
void take_channel_problems(driven_workstation& w) {
  w.choose_entry("channel_check");
  QDialog* dialog = w.dialog("channel_check_dialog");
  w.settle();
  auto* problems = w.control<QComboBox>(dialog, "problems");
  problems->setFocus();
  QTest::keyClick(problems, Qt::Key_Down);
  take("channel_check_line");
  problems->showPopup();
  take("channel_check_list");
  problems->hidePopup();
  dialog->close();
  w.settle();
}

// A sort with a pause, so that a running dialog can be seen.
void take_running_sort(driven_workstation& w) {
  w.choose_entry("autosort");
  QDialog* dialog = w.dialog("autosort_dialog");
  w.tick(dialog, "skip_event_detection", false);
  w.tick(dialog, "skip_clustering", false);
  w.press(dialog, "start");
  QStringList none;
  // It asks before it replaces the clusters.
  wait_until([&] { return w.answer_box(true, none); }, 2000);
  QElapsedTimer clock;
  clock.start();
  wait_until([&] { return clock.elapsed() > 900; });
  take_alone(dialog, "autosort_running");
  take("autosort_running");
  w.settle();
  take("autosort_finished");
  w.press(dialog, "done");
  w.settle();
}

// Comparing with the windows of what is compared beside the others.
void take_measures(driven_workstation& w) {
  close_graphs(w.shell);
  w.choose_entry("compare_pairs");
  QDialog* dialog = w.dialog("compare_pairs_dialog");
  w.settle();
  w.tick(dialog, "show_overlap", true);
  w.choose_entry("isi_plot");
  w.settle();
  take("compare_with_measures");
  dialog->close();
  w.settle();
  close_graphs(w.shell);
}

// The windows of sorted clusters, and guided merging with every pair in doubt.
void take_review(driven_workstation& w) {
  for (const char* entry : {"sorted_waveforms", "spike_view"}) {
    close_graphs(w.shell);
    w.choose_entry(entry);
    w.settle();
    take(entry);
  }
  close_graphs(w.shell);
  open_graph(w.shell, graph_kind::template_image);
  take("template_image");
  close_graphs(w.shell);
  // Nothing is distinct by these.
  const sorting_strategy_settings kept = w.session->strategy;
  w.session->strategy.overlap_threshold = -5;
  w.session->strategy.correlation_threshold = -2;
  w.session->review.show_correlograms = true;
  w.choose_entry("guided_merge");
  const QPointer<QDialog> dialog = w.dialog("guided_merge_dialog");
  w.settle();
  if (dialog) {
    take("guided_merge");
    const auto asked = [&] { return w.shell.frame->findChild<QDialog*>("pair_split_dialog"); };
    // Undone and asked for again, the split is shown in any case.
    for (const char* button : {"split", "undo", "split"}) {
      if (dialog && asked() == nullptr) w.press(dialog, button);
      w.settle();
    }
    take("pair_split");
    if (QDialog* split = asked()) w.press(split, "leave");
    w.settle();
    if (dialog) w.press(dialog, "finish");
    w.settle();
  }
  w.session->strategy = kept;
  close_graphs(w.shell);
  start_operation(
      w.shell, [](session_state& session) { label_unit(session, 1, unit_label::good); }, nullptr);
  w.settle();
  take_dialog(w, "history", "history_dialog");
}

// The dialogs of the analysis beside what they plot, and the quality of units in both lists.
void take_analysis(driven_workstation& w) {
  close_graphs(w.shell);
  keep_wish(program_option::research_tools, true);
  show_full_entries(w.shell);
  w.choose_entry("amplitude_distribution");
  QDialog* dialog = w.dialog("amplitude_dialog");
  w.tick(dialog, "all_channels", true);
  w.tick(dialog, "log_scaling", true);
  w.press(dialog, "graph");
  w.settle();
  take("amplitude_dialog");
  dialog->close();
  w.settle();
  close_graphs(w.shell);
  for (const char* entry :
       {"hp_spectrum", "acf_time", "isi_plot", "spike_trains", "overlap_diagnostics"}) {
    w.choose_entry(entry);
    w.settle();
    take(entry);
    close_graphs(w.shell);
  }
  take_dialog(w, "isi_height", "interval_heights_dialog");
  close_graphs(w.shell);
  for (const char* name : {"test_decisions", "manage_clusters"}) {
    take_dialog(w, name, qPrintable(QString("%1_dialog").arg(name)));
    w.settle();
  }
  close_graphs(w.shell);
  w.choose_entry("sorting_statistics");
  dialog = w.dialog("summary_dialog");
  w.settle();
  w.control<QCheckBox>(dialog, "quality_columns")->click();
  w.settle();
  take("quality_of_units");
  take_alone(dialog, "quality_of_units");
  w.control<QCheckBox>(dialog, "quality_columns")->click();
  w.settle();
  dialog->close();
  w.choose_entry("view_clusters");
  dialog = w.dialog("view_clusters_dialog");
  w.settle();
  w.control<QCheckBox>(dialog, "unit_quality")->click();
  w.settle();
  take("quality_in_review");
  w.control<QCheckBox>(dialog, "unit_quality")->click();
  dialog->close();
  w.settle();
  close_graphs(w.shell);
}

// The walk through a container file: a stream of channels, and the dataset in it.
void take_hdf_walk(driven_workstation& w, const std::string& path) {
  test::make_mcs_file(path);
  open_recording_path(w.shell, QString::fromStdString(path));
  QStringList none;
  int n_entered = 0;
  QDialog* dialog = nullptr;
  wait_until([&] {
    w.answer_box(true, none);
    dialog = w.shell.frame->findChild<QDialog*>("hdf_folder_dialog");
    if (dialog == nullptr || !dialog->isVisible() || !dialog->isEnabled()) return false;
    if (n_entered++ == 4) take("hdf_folder_dialog_stream");
    auto* members = dialog->findChild<QTreeWidget*>("hdf_members");
    if (members->topLevelItemCount() == 0) return true;
    emit members->itemDoubleClicked(members->currentItem(), 0);
    return false;
  });
  if (dialog == nullptr) return;
  take("hdf_folder_dialog");
  take_alone(dialog, "hdf_folder_dialog");
  w.press(dialog, "cancel");
  w.settle();
  w.close_messages();
}

}  // namespace

int main(int argc, char** argv) {
  int status = 0;
  if (kestrelvane::run_as_hdf_probe(argc, argv, status)) return status;
  flush_denormals();
  if (argc != 5) return 2;
  QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
  QApplication application(argc, argv);
  QApplication::setOrganizationName("Kestrelvane");
  QApplication::setApplicationName("Kestrelvane screenshots");
  QTemporaryDir store;
  QSettings::setDefaultFormat(QSettings::IniFormat);
  QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, store.path());
  load_resources();
  choose_theme(QString(argv[4]) == "dark" ? colour_theme::dark : colour_theme::light);
  apply_theme();
  keep_wish(program_option::research_tools, true);
  folder = QString(argv[3]);
  QDir().mkpath(folder);

  since_turn.start();
  QTimer pulse;
  QObject::connect(&pulse, &QTimer::timeout, [] { end_turn(); });

  const test::temporary_directory home;
  driven_workstation w(home.path);
  // With its title, or the status line would lie below the screen.
  wait_until([&] { return w.shell.frame->frameSize() != w.shell.frame->size(); }, 2000);
  const QSize edges = w.shell.frame->frameSize() - w.shell.frame->size();
  w.shell.frame->resize(QApplication::primaryScreen()->availableSize() - edges);
  w.shell.frame->move(0, 0);
  take("empty_frame");
  take_hdf_walk(w, home.file("walk.h5"));
  pulse.start(5);
  forget_turn();
  open_recording_path(w.shell, argv[1]);
  wait_until([&] { return !w.shell.messages.isNull(); });
  w.settle();
  take_alone(w.shell.messages, "messages_dialog");
  take("messages_dialog");
  w.close_messages();
  start_operation(
      w.shell,
      [&](session_state& session) {
        bool wrong = false;
        read_work_file(session, argv[2], wrong);
      },
      nullptr);
  w.settle();
  w.session->display.vd_show_events = true;
  w.session->display.vd_cluster_colours = true;
  w.session->display.vd_cluster_numbers = true;
  w.choose_entry("voltage_record");
  w.dialog("voltage_dialog");
  take("voltage_record");
  w.tick(w.dialog("voltage_dialog"), "vd_grey_scale", true);
  take("voltage_record_grey");
  w.tick(w.dialog("voltage_dialog"), "vd_waveforms", true);
  const bool dark = w.session->view.vd_reverse_contrast;
  w.tick(w.dialog("voltage_dialog"), "vd_reverse_contrast", !dark);
  take("voltage_record_reversed");
  w.tick(w.dialog("voltage_dialog"), "vd_reverse_contrast", dark);
  w.dialog("voltage_dialog")->close();

  // A fifth of a second over the whole width, without the dialog; then ten seconds.
  for (const auto& [scale, name] : {std::pair{0.25f, "traces"}, {1 / 256.5f, "traces_far"}}) {
    w.session->display.vd_time_scale = scale;
    open_voltage_window(w.shell);
    take(name);
  }
  w.session->display.vd_time_scale = 1.0f;
  open_voltage_window(w.shell);

  const std::pair<const char*, const char*> dialogs[] = {
      {"preferences", "preferences_dialog"},
      {"acquisition_properties", "acquisition_dialog"},
      {"sorting_statistics", "summary_dialog"},
      {"transform_filter", "filter_dialog"},
      {"channel_check", "channel_check_dialog"},
      {"event_detection", "event_detection_dialog"},
      {"autosort", "autosort_dialog"},
      {"make_status_lists", "status_lists_dialog"},
      {"strategy", "strategy_dialog"},
      {"realign", "realign_dialog"},
      {"post_processing", "post_process_dialog"},
      {"correlograms", "correlation_dialog"},
      {"compare_pairs", "compare_pairs_dialog"},
      {"view_clusters", "view_clusters_dialog"},
      {"export_spikes", "export_dialog"},
      {"test_waveform", "test_waveform_dialog"},
      {"about", "about_dialog"},
      {"open_recording", "question_box"},
  };
  for (const auto& [entry, name] : dialogs) take_dialog(w, entry, name);
  w.settle();
  take_channel_problems(w);
  take_review(w);
  take_measures(w);
  take_analysis(w);
  take_running_sort(w);
  w.shell.frame->close();
  wait_until([&] { return w.shell.frame->findChild<QDialog*>("question_box") != nullptr; });
  take("exit_question");
  return 0;
}

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <optional>

#include "displays/report/unit_report.h"
#include "operations/open_recording.h"
#include "recording/recording_formats.h"
#include "results/exports.h"
#include "results/ptcs.h"
#include "results/work_file.h"
#include "signal/display_scale.h"
#include "workstation/commands/commands.h"
#include "workstation/commands/file_choice.h"
#include "workstation/commands/menu_table.h"
#include "workstation/frame.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr const char* all_files = "All files(*.*)";

// A format's filter as the dialog takes it: labels without a pattern of their own get the
// extensions of their row.
QString dialog_filter(const recording_format& format) {
  const QString label = format.filter_label;
  if (label.contains("(*.NSx)")) {
    return label + " (*.ns1 *.ns2 *.ns3 *.ns4 *.ns5 *.ns6 *.ns7 *.ns8 *.ns9)";
  }
  if (label.contains('(')) return label;
  QStringList patterns;
  const QStringList extensions = QString(format.extensions).split(' ');
  for (const QString& extension : extensions) patterns << '*' + extension;
  return label + " (" + patterns.join(' ') + ')';
}

// Every pattern of every format.
QString all_recordings(const QList<const recording_format*>& formats) {
  static const QRegularExpression pattern(R"(\*\.\w+)");
  QStringList patterns;
  for (const recording_format* format : formats) {
    for (const QRegularExpressionMatch& match : pattern.globalMatch(dialog_filter(*format))) {
      // "x" stands for a digit there, and the digits follow.
      if (match.captured() != "*.NSx") patterns << match.captured().toLower();
    }
  }
  return "All recordings (" + patterns.join(' ') + ')';
}

// Codes in the order of the dialog's filters, which is the order of the codes.
QList<const recording_format*> formats_by_code() {
  QList<const recording_format*> formats;
  for (const recording_format& format : recording_formats()) formats << &format;
  std::sort(formats.begin(), formats.end(),
            [](const auto* a, const auto* b) { return a->code < b->code; });
  return formats;
}

// Reads on the worker what prepare agrees to; the Messages dialog opens by itself when
// reading begins.
using recording_decision = std::function<std::optional<recording_request>(session_state&)>;
void read_recording(workstation& w, recording_decision prepare) {
  start_operation(
      w,
      [prepare = std::move(prepare)](session_state& session) {
        const std::optional<recording_request> request = prepare(session);
        if (request) open_recording_or_return(session, *request);
      },
      [&w] { rebuild_recent_menu(w); });
}

void choose_recording(workstation& w) {
  const QList<const recording_format*> formats = formats_by_code();
  // First, and chosen: most users know their file and not the filter that would hide it.
  file_choice choice{"Open a recording file", {all_recordings(formats)}, {}, false};
  for (const recording_format* format : formats) choice.filters << dialog_filter(*format);
  choice.filters << all_files;
  choose_file(w, choice, [&w, formats](const QString& path, int filter) {
    if (path.isEmpty()) return;
    // A known extension says more than a filter that was merely left as it stood.
    const bool picked = filter >= 1 && filter <= formats.size();
    const std::int32_t own = classify_extension(path.toStdString());
    const std::int32_t code = own != file_type_unknown || !picked ? own : formats[filter - 1]->code;
    const recording_request chosen{path.toStdString(), code};
    read_recording(
        w, [chosen](session_state& session) { return prepare_chosen_recording(session, chosen); });
  });
}

// Asks what opening another recording would cost, on the interface thread.
void ask_before_reading(workstation& w, std::function<void()> then) {
  if (w.session.recording.n_samples == 0) {
    then();
    return;
  }
  ask_then(w, overwrite_question, overwrite_title, [then = std::move(then)](bool yes) {
    if (yes) then();
  });
}

}  // namespace

void open_recording_command(workstation& w) {
  ask_before_reading(w, [&w] { choose_recording(w); });
}

void open_recording_path(workstation& w, const QString& path) {
  ask_before_reading(w, [&w, path] {
    read_recording(w, [path = path.toStdString()](session_state& session) {
      return prepare_chosen_recording(session, {path});
    });
  });
}

void open_recent_command(workstation& w, int entry) {
  ask_before_reading(w, [&w, entry] {
    read_recording(w, [entry](session_state& session) {
      return prepare_open_recent(session, static_cast<std::size_t>(entry));
    });
  });
}

void open_kept_state_path(workstation& w, const QString& path) {
  ask_before_reading(w, [&w, path] {
    start_operation(
        w, [path = path.toStdString()](session_state& session) { open_kept_state(session, path); },
        [&w] { rebuild_recent_menu(w); });
  });
}

void open_work_file_command(workstation& w) {
  run_with_progress(
      w, "work_file_progress", "Reading the work file",
      [](session_state& session) { open_work_file_dialog(session); }, nullptr);
}

void import_ptcs_command(workstation& w) {
  if (!needs_recording(w)) return;
  run_with_progress(
      w, "ptcs_import_progress", "Import events from ptcs file",
      [](session_state& session) { import_ptcs_dialog(session); }, nullptr);
}

namespace {

// The file dialog comes from within; the worker waits for it.
void export_alone(workstation& w, const char* name) {
  if (!needs_recording(w)) return;
  const export_format& format = *find_export_format(name);
  run_with_progress(
      w, "full_export_progress", format.label,
      [&format](session_state& session) { export_from_full_menu(session, format); }, nullptr);
}

}  // namespace

void event_noise_command(workstation& w) { export_alone(w, "noise"); }
void feature_matrices_command(workstation& w) { export_alone(w, "features"); }
void lfp_export_command(workstation& w) { export_alone(w, "lfp"); }

void save_work_file_command(workstation& w) {
  if (!needs_recording(w)) return;
  run_with_progress(
      w, "work_file_progress", "Saving the work file",
      [](session_state& session) { save_work_file_dialog(session); }, nullptr);
}

void report_command(workstation& w) {
  if (!needs_recording(w)) return;
  run_with_progress(
      w, "report_progress", "Report",
      [](session_state& session) { save_unit_report_dialog(session); }, nullptr);
}

void close_recording_command(workstation& w) {
  ask_then(w, "This will discard any unsaved work: Are you sure?", "Close file", [&w](bool yes) {
    if (!yes) return;
    // Before the samples go: a window that is drawn meanwhile would read memory that is no longer
    // there.
    close_graphs(w);
    start_operation(
        w,
        [](session_state& session) {
          reset_session(session);
          reset_voltage_view(session);
          session.recording.vd.release();
          set_frame_title(session, "Kestrelvane");
        },
        nullptr);
  });
}

void exit_command(workstation& w) { request_exit(w, exit_way::menu); }

}  // namespace kestrelvane

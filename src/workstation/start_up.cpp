#include <fmt/format.h>

#include <QApplication>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QPlainTextEdit>
#include <QStatusBar>
#include <algorithm>
#include <memory>
#include <utility>

#include "operations/program_run.h"
#include "results/curation_file.h"
#include "results/work_file.h"
#include "session/run_log.h"
#include "session/settings_files.h"
#include "session/settings_table.h"
#include "session/version.h"
#include "workstation/commands/commands.h"
#include "workstation/commands/menu_table.h"
#include "workstation/dialogs/messages_dialog.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/program_options.h"
#include "workstation/themes.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/voltage_window.h"
#include "workstation/windows/window_table.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr int run_log_limit = 5000;  // lines that the run log window keeps

void build_run_log_window(workstation& w) {
  w.run_log = new QPlainTextEdit;
  w.run_log->setObjectName("run_log");
  w.run_log->setReadOnly(true);
  // The oldest lines go, or a run of weeks would fill the memory with words.
  w.run_log->setMaximumBlockCount(run_log_limit);
  const window_row& row = window_row_of(graph_kind::run_log);
  if (std::optional<QFont> font = read_window_font(w.session, row.kind)) {
    font->setUnderline(false);  // nobody reads pages of underlined text
    w.run_log->setFont(*font);
  }
  QMdiSubWindow* window = w.frame->area()->addSubWindow(w.run_log);
  window->setObjectName(row.object_name);
  window->setWindowTitle(row.title);
  window->setWindowIcon(program_icon());
  // It is there for the whole run; closing hides it until the windows are arranged.
  window->setAttribute(Qt::WA_DeleteOnClose, false);
  QObject::connect(w.desk, &interface_desk::run_log_line_added, w.run_log,
                   &QPlainTextEdit::appendPlainText);
}

void connect_frame(workstation& w) {
  QObject::connect(w.desk, &interface_desk::title_changed, w.frame, &QWidget::setWindowTitle);
  QObject::connect(w.desk, &interface_desk::refresh_requested, w.frame,
                   [&w] { refresh_windows(w); });
  QObject::connect(w.desk, &interface_desk::clusters_changed, w.frame,
                   [&w](const cluster_change& change) {
                     follow_cluster_change(w, change);
                     refresh_windows(w);
                   });
  QObject::connect(w.desk, &interface_desk::paused, w.frame, [&w] {
    if (w.desk->worker_waits()) begin_pause(w);
  });
  QObject::connect(w.desk, &interface_desk::resuming, w.frame, [&w] { end_pause(w); });
  QObject::connect(w.desk, &interface_desk::status_changed, w.frame,
                   [&w](status_field field, const QString& text) {
                     if (field == status_field::message) w.frame->statusBar()->showMessage(text);
                   });
  QObject::connect(w.desk, &interface_desk::stage_began, w.frame, [&w](const QString& name) {
    if (name != "reading" || !w.worker.running) return;
    close_graphs(w);  // they show another recording
    w.reads_recording = true;
    show_messages(w)->set_reading(true);
  });
}

// Sizes and places of the graph windows for the preference file.
void keep_window_layout(workstation& w) {
  keep_window_sizes(w);
  w.frame->save_layout();
}

void read_settings(workstation& w) {
  const bool found = read_settings_files(w.session);
  // A damaged file makes no window that fits no screen, and no analysis without an end.
  settle_settings(w.session);
  if (!found) compute_window_layout(w);
  follow_picture_theme(w);
  w.session.view.vd_keep_peaks = wants(program_option::keep_peaks);
}

void begin_idle_loop(workstation& w) {
  if (w.autorecover_running || w.leaving) return;
  w.autorecover_running = true;
  start_autorecover(w.autorecover, w.session);
}

// Runs a routine once the messages of the start have been closed.
void after_messages(workstation& w, std::function<void()> then) {
  if (w.messages) {
    QObject::connect(w.messages, &QObject::destroyed, w.frame, then);
  } else {
    then();
  }
}

void show_voltage_if_wanted(workstation& w, bool wanted) {
  if (!wanted) return;
  after_messages(w, [&w] {
    if (!w.leaving) voltage_record_command(w);
  });
}

// The work file that the command line names, then the picture it asks for.
void show_requested(workstation& w, const start_request& request) {
  if (w.session.recording.n_samples == 0) return;
  const auto show = [&w, wanted = request.show_voltage] { show_voltage_if_wanted(w, wanted); };
  if (request.work_file.isEmpty()) {
    show();
    return;
  }
  run_with_progress(
      w, "work_file_progress", "Reading the work file",
      [path = request.work_file.toStdString()](session_state& session) {
        bool wrong_file = false;
        if (!read_work_file(session, path, wrong_file)) {
          tell(session, "Failed to read file " + path, "Kestrelvane work file");
          return;
        }
        offer_history_beside(session, path);
      },
      show);
}

// The recovery timer starts once the recording of the start is in and its messages have
// been closed.
void after_start(workstation& w, const start_request& request) {
  rebuild_recent_menu(w);
  show_requested(w, request);
  after_messages(w, [&w] { begin_idle_loop(w); });
}

void leave(workstation& w) {
  w.leaving = true;
  // Nobody listens from here on: what is said while windows go would reach controls that are gone.
  w.session.ui = user_interface{};
  w.frame->close();
}

}  // namespace

void place_run_log(workstation& w) {
  const char* name = window_row_of(graph_kind::run_log).object_name;
  auto* window = w.frame->area()->findChild<QMdiSubWindow*>(name);
  if (window == nullptr || !window->isVisible()) return;
  const QSize area = w.frame->area()->viewport()->size();
  // Pixels: a few lines on small screens, and no more of a large one than can be read at a glance.
  const int height = std::clamp(area.height() / 4, 90, 200);
  window->setGeometry(0, area.height() - height, area.width(), height);
}

void start_workstation(workstation& w, const start_request& request) {
  w.desk = new interface_desk(w);
  w.frame = new main_frame(w);
  w.session.history.written = keep_record;
  // Before anything that may speak: settings are told in the log when they cannot be used.
  attach_desk(w);
  build_run_log_window(w);
  connect_frame(w);
  write_run_log_window(w.session,
                       fmt::format("This is Kestrelvane version {}   working with {:3}  cpus",
                                   program_version, w.session.n_cpus));
  w.frame->restore_layout();
  w.frame->show();
  // After the frame is shown, whose area the layout of a new installation goes by.
  read_settings(w);
  build_menus(w);
  start_operation(
      w,
      [&w, path = request.recording.toStdString()](session_state& session) {
        lock_home(session, w.lock);
        open_at_start(session, path);
      },
      [&w, request] { after_start(w, request); });
}

namespace {

// Asks whether to stop what runs; the exit goes on when it has come to its end.
void offer_to_stop(workstation& w, exit_way way) {
  ask_then(w, "An operation is running. Stop it and leave?", "Exit Kestrelvane",
           [&w, way](bool yes) {
             if (!yes) return;
             w.exit_wanted = way;
             if (w.worker.running) {
               interrupt_worker(w);
             } else {
               go_on_leaving(w);
             }
           });
}

void run_exit(workstation& w, exit_way way) {
  w.exit_begun = true;
  const auto left = std::make_shared<bool>(false);
  start_operation(
      w,
      [&w, way, left](session_state& session) {
        if (w.autorecover_running) {
          // A save under way needs the gate to come to its end.
          const session_pause pause(session);
          stop_autorecover(w.autorecover);
        }
        *left = end_session(session, way);
      },
      [&w, left] {
        w.exit_begun = false;
        if (*left) {
          close_graphs(w);
          leave(w);
        } else if (w.autorecover_running) {
          start_autorecover(w.autorecover, w.session);
        }
      });
}

}  // namespace

bool request_exit(workstation& w, exit_way way) {
  if (w.leaving) return true;
  if (w.exit_begun) return false;  // a second click while the state is being written
  if (w.worker.running) {
    offer_to_stop(w, way);
    return false;
  }
  if (const QDialog* dialog = dialog_beside(w)) {
    // It may hold a sort half changed, which would be saved as it stands.
    show_message(w, QString("Close \"%1\" first.").arg(dialog->windowTitle()), "Exit Kestrelvane");
    return false;
  }
  keep_window_layout(w);
  run_exit(w, way);
  return false;
}

// The dialog of the operation that was stopped is left as by its cross.
void go_on_leaving(workstation& w) {
  const exit_way way = *std::exchange(w.exit_wanted, std::nullopt);
  // The user may stay after all, and start another.
  set_interrupts(w.session.operation, false);
  const QList<QDialog*> dialogs = w.frame->findChildren<QDialog*>(Qt::FindDirectChildrenOnly);
  for (QDialog* dialog : dialogs) {
    if (dialog->isVisible()) dialog->reject();
  }
  request_exit(w, way);
}

}  // namespace kestrelvane

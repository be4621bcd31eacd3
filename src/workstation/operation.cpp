#include "workstation/operation.h"

#include <QApplication>
#include <QPointer>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <memory>
#include <utility>

#ifdef __linux__
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include "numerics/parallel.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/messages_dialog.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/program_options.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/voltage_window.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// A worker below normal gives way to the windows of this and other programs.
void lower_priority() {
#ifdef __linux__
  const auto thread = static_cast<id_t>(syscall(SYS_gettid));
  setpriority(PRIO_PROCESS, thread, 5);
#endif
}

// What is off while a worker runs loses the focus, and the next key would go nowhere.
void remember_focus(operation_worker& worker) {
  if (!worker.focus) worker.focus = QApplication::focusWidget();
}

void give_focus_back(operation_worker& worker) {
  QWidget* widget = std::exchange(worker.focus, nullptr);
  if (widget == nullptr || !widget->isEnabled() || !widget->isVisible()) return;
  // Whatever has come up meanwhile, or was chosen by the user, keeps it.
  const QWidget* now = QApplication::focusWidget();
  if (widget->isActiveWindow() && (now == nullptr || !now->isEnabled())) widget->setFocus();
}

void finish_operation(workstation& w) {
  if (w.worker.thread.joinable()) w.worker.thread.join();
  w.worker.running = false;
  // Before finished, which may open what the menus open or start the next operation.
  w.frame->set_busy(false);
  if (w.messages) w.messages->set_reading(false);
  const bool has_read = std::exchange(w.reads_recording, false);
  const std::function<void()> finished = std::exchange(w.worker.finished, nullptr);
  if (w.session.operation.refresh_owed.exchange(false)) {
    refresh_windows(w);
  } else {
    refresh_graphs(w);
  }
  if (has_read && w.session.recording.n_samples > 0 && wants(program_option::open_traces)) {
    open_voltage_window(w);
  }
  if (finished) finished();
  if (!w.worker.running) give_focus_back(w.worker);
  // Not while what came after the operation runs itself: the exit goes on when that is through.
  if (w.exit_wanted && !w.worker.running) go_on_leaving(w);
}

}  // namespace

bool start_operation(workstation& w, session_routine routine, std::function<void()> finished,
                     worker_priority priority) {
  // One session, one worker: a second would wait at the gate for the first, with its dialog open.
  if (w.worker.running) return false;
  remember_focus(w.worker);
  w.worker.running = true;
  w.worker.finished = std::move(finished);
  // Here and not in the worker, where it would take back a press that came right after the start.
  // A user who is leaving wants no operation at all.
  if (!w.exit_wanted) set_interrupts(w.session.operation, false);
  w.frame->set_busy(true);
  w.worker.thread = std::thread([&w, routine = std::move(routine), priority] {
    flush_denormals();
    if (priority == worker_priority::below_normal) lower_priority();
    {
      const session_hold hold(w.session);
      // A preference that changes meanwhile counts from the next operation on: no loop changes its
      // threads half way.
      w.session.multi_threaded_now = w.session.preferences.multi_threaded;
      routine(w.session);
    }
    // After the hold is gone, so that windows which refresh at the end find the gate free.
    w.desk->hand_over([&w] { finish_operation(w); });
  });
  return true;
}

void interrupt_worker(workstation& w) {
  set_interrupts(w.session.operation, true);
  // One that is to stop must not sit down first.
  w.session.operation.pause_requested = false;
  w.desk->resume();
}

void join_worker(workstation& w) {
  // Nobody is left who could resume it.
  if (w.worker.running && w.desk != nullptr) interrupt_worker(w);
  if (w.worker.thread.joinable()) w.worker.thread.join();
}

operation_dialog::operation_dialog(workstation& of, const char* object_name, const QString& title)
    : QDialog(of.frame), w_(of) {
  setObjectName(object_name);
  setWindowTitle(title);
  setAttribute(Qt::WA_DeleteOnClose);
  connect(of.desk, &interface_desk::paused, this, [this] {
    if (runs_ && w_.desk->worker_waits()) block_frame(false);
  });
  connect(of.desk, &interface_desk::resuming, this, [this] { block_frame(true); });
}

// What a window blocks is settled when it is shown, so that it has to be hidden for a change.
// One that stands beside the windows blocks nothing, and must not begin to after a pause.
void operation_dialog::block_frame(bool block) {
  const bool stands_beside = !block && windowModality() == Qt::NonModal;
  if (stands_beside || !isVisible() || block != std::exchange(frame_is_free_, !block)) return;
  // Shown again, it would be placed anew by the window manager.
  const QPoint place = pos();
  hide();
  setWindowModality(block ? Qt::WindowModal : Qt::NonModal);
  move(place);
  show();
}

void operation_dialog::run(session_routine routine, std::function<void()> finished,
                           worker_priority priority) {
  if (w_.worker.running) return;
  remember_focus(w_.worker);
  // Known before it starts: dialogs beside the windows wait then, but for the one that runs.
  set_running(true);
  start_operation(
      w_, std::move(routine),
      [self = QPointer<operation_dialog>(this), finished = std::move(finished)] {
        if (!self) return;  // finished would fill controls that are gone
        self->set_running(false);
        if (finished) finished();
      },
      priority);
}

void operation_dialog::set_running(bool running) {
  runs_ = running;
  for (QWidget* widget : std::as_const(disabled_while_running)) widget->setEnabled(!running);
  for (QWidget* widget : std::as_const(enabled_while_running)) widget->setEnabled(running);
  emit running_changed(running);
}

void operation_dialog::reject() {
  // Escape and the cross are no interrupt, which has a button of its own.
  if (runs_) return;
  if (on_leaving) {
    on_leaving();
  } else {
    QDialog::reject();
  }
}

void run_with_progress(workstation& w, const char* object_name, const QString& title,
                       session_routine routine, std::function<void()> finished) {
  auto* dialog = new operation_dialog(w, object_name, title);
  auto* layout = new QVBoxLayout(dialog);
  auto* message = new QLabel(title);
  message->setObjectName("message");
  message->setMinimumWidth(360);
  // Busy, without an end, until the routine says how far it goes.
  QProgressBar* bar = make_bar("progress", 0);
  layout->addWidget(message);
  layout->addWidget(bar);
  follow(w, dialog, every_meter(bar), {{status_field::message, message}});
  // Not while the routine waits for the user in a box or a file dialog, which the window
  // would block.
  auto* show_late = new QTimer(dialog);
  QObject::connect(show_late, &QTimer::timeout, dialog, [dialog, show_late] {
    if (QApplication::activeModalWidget() != nullptr) return;
    show_late->stop();
    dialog->open();
  });
  // ms: what is done sooner would only flash.
  show_late->start(300);
  dialog->run(
      std::move(routine),
      [dialog, finished = std::move(finished)] {
        dialog->hide();
        dialog->deleteLater();
        if (finished) finished();
      },
      worker_priority::normal);
}

namespace {

// A button that became the default before it stood in its dialog is so for itself alone: the
// dialog would take its first button, and Return press that.
void announce_default(QDialog* dialog) {
  for (QPushButton* button : dialog->findChildren<QPushButton*>()) {
    if (!button->isDefault()) continue;
    button->setDefault(false);
    button->setDefault(true);
  }
}

}  // namespace

void open_dialog(workstation&, QDialog* dialog) {
  fit_to_screen(dialog);
  announce_default(dialog);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->open();
  // The keys may be with a window of the frame, which is blocked now.
  dialog->activateWindow();
}

void open_to_look(workstation& w, QDialog* dialog) {
  if (!w.worker.running) return open_dialog(w, dialog);
  fit_to_screen(dialog);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->show();
}

void open_runner(workstation& w, operation_dialog* dialog) {
  // The windows beside it can be brought back to their places.
  open_beside(w, dialog, live_entries + measure_entries + QStringList{"auto_arrange"});
}

void open_beside(workstation& w, QDialog* dialog, const QStringList& allowed) {
  hold_menus(w, dialog, allowed);
  // One that comes while an operation runs waits for it with the others.
  enable_companions(w, !w.worker.running || w.paused);
  // Closed by a button, a key or its frame, or gone with what it stood on.
  const auto release = [&w, dialog] { release_menus(w, dialog); };
  QObject::connect(dialog, &QDialog::finished, w.desk, release);
  QObject::connect(dialog, &QObject::destroyed, w.desk, release);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setModal(false);
  fit_to_screen(dialog);
  announce_default(dialog);
  dialog->show();
}

}  // namespace kestrelvane

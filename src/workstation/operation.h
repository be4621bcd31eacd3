// Running an operation: one worker thread, one operation at a time.
//
// The routine runs on the worker with the session gate held; then finished runs on the
// interface thread. The engine's notices reach the windows through the desk. Both threads
// meet in the flags of session/long_operation.h and at the gate alone.
#pragma once

#include <QDialog>
#include <QPointer>
#include <functional>
#include <thread>

namespace kestrelvane {

struct session_state;
struct workstation;

struct operation_worker {
  std::thread thread;
  bool running = false;  // on the interface thread's clock: from start to finished
  bool below_normal = false;
  std::function<void()> finished;
  QPointer<QWidget> focus;  // had the keys when it began, and gets them back
};

using session_routine = std::function<void(session_state& session)>;

enum class worker_priority { normal, below_normal };

// Starts a routine. False, and nothing happens, while another one runs.
bool start_operation(workstation& w, session_routine routine, std::function<void()> finished,
                     worker_priority priority = worker_priority::normal);

// Asks whatever runs to stop, and wakes it if it pauses.
void interrupt_worker(workstation& w);

// Waits for the worker's thread, which is told to stop; before the program ends.
void join_worker(workstation& w);

// A dialog that can run operations: it stays open while one runs. While the worker pauses
// it leaves the frame to the user, whose windows can be scrolled then; one that stands beside
// the windows has left it to him all along.
class operation_dialog : public QDialog {
  Q_OBJECT

 public:
  operation_dialog(workstation& of, const char* object_name, const QString& title);

  // Runs a routine; until it has finished the widgets of `disabled` are off, those of
  // `enabled` on, and the other way round afterwards. Nothing happens while another runs;
  // finished is not called when the dialog is gone by then.
  void run(session_routine routine, std::function<void()> finished,
           worker_priority priority = worker_priority::below_normal);
  bool running() const { return runs_; }

  QList<QWidget*> disabled_while_running;
  QList<QWidget*> enabled_while_running;
  // Escape and the cross of the window while nothing runs; empty: the dialog closes.
  std::function<void()> on_leaving;

 signals:
  void running_changed(bool running);

 protected:
  void reject() override;  // not while an operation runs

  workstation& w_;

 private:
  void set_running(bool running);
  void block_frame(bool block);
  bool runs_ = false;
  bool frame_is_free_ = false;  // during a pause
};

// Runs a routine behind a small window with the bar of whatever it reports; the window
// appears only when the routine takes longer than a third of a second.
void run_with_progress(workstation& w, const char* object_name, const QString& title,
                       session_routine routine, std::function<void()> finished);

// Shows a dialog, modal to the frame; it deletes itself when it is closed.
void open_dialog(workstation& w, QDialog* dialog);

// The same for one that only tells: while an operation runs it blocks nothing, so that the
// operation can still be interrupted.
void open_to_look(workstation& w, QDialog* dialog);

// Shows a dialog whose operations take long, beside the windows: messages and limits can be
// looked up meanwhile.
void open_runner(workstation& w, operation_dialog* dialog);

// Shows a dialog beside the windows, which stay live; it deletes itself when it is closed.
// Until then menus and tool bar wait but for the entries whose names are allowed, and while
// an operation runs for those, too. The program cannot be left before it is closed.
void open_beside(workstation& w, QDialog* dialog, const QStringList& allowed);

}  // namespace kestrelvane

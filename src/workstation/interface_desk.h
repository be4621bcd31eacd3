// The desk: where the engine's notices and questions arrive in the interface thread.
//
// attach_desk fills the session's user_interface with routines that turn each call, from
// any thread, into a signal or a box here. Notices are queued and never hold up the
// worker; a box or a question holds it until the user has answered.
#pragma once

#include <QObject>
#include <QString>
#include <functional>
#include <memory>

#include "session/cluster_change.h"
#include "session/user_interface.h"

namespace kestrelvane {

struct workstation;
struct desk_state;

class interface_desk : public QObject {
  Q_OBJECT

 public:
  explicit interface_desk(workstation& of);
  ~interface_desk() override;

  // Has the interface thread run a routine, each after those handed over before it; from any
  // thread, and without waiting.
  void hand_over(std::function<void()> routine);

  // Wakes a worker that waits at a pause point. Interface thread.
  void resume();
  bool worker_waits() const;  // at a pause point
  // What a field was last set to, for a window that opened later.
  QString latest(status_field field) const;
  // How many boxes the worker has put up so far; questions are none. Interface thread.
  int boxes_shown() const;

  workstation& shell;
  std::unique_ptr<desk_state> state;  // notices on their way; interface_desk.cpp

 protected:
  void customEvent(QEvent* event) override;  // a routine has been handed over

 signals:
  void progressed(kestrelvane::meter which, int value, int range);
  void status_changed(kestrelvane::status_field field, const QString& text);
  void log_line_added(const QString& line);
  void run_log_line_added(const QString& line);
  void title_changed(const QString& text);
  // An edit of the clusters has ended; who keeps a cluster number follows it.
  void clusters_changed(const kestrelvane::cluster_change& change);
  void refresh_requested();
  void stage_began(const QString& name);
  void paused();    // the worker waits at a pause point
  void resuming();  // it is about to be woken
  void resumed();   // it has gone on
};

void attach_desk(workstation& w);

}  // namespace kestrelvane

// The interface thread's turn at the session.
//
// It has one at once while no operation runs, and while one runs only where the worker has
// given up the gate or lends it: at pause points, under boxes, and where displays are
// refreshed. It never waits for one. Whatever draws from the session, or moves its view,
// does so in a turn.
#pragma once

#include "workstation/workstation.h"

namespace kestrelvane {

struct session_turn {
  explicit session_turn(workstation& of)
      : w(of), entered(of.worker.running && try_enter_session(of.session)) {
    taken = entered || !w.worker.running;
  }
  ~session_turn() {
    if (entered) leave_session(w.session);
  }
  session_turn(const session_turn&) = delete;
  session_turn& operator=(const session_turn&) = delete;

  workstation& w;
  const bool entered;  // the gate, which has to be left again
  bool taken;
};

}  // namespace kestrelvane

#include "session/long_operation.h"

#include <algorithm>

#include "session/run_log.h"
#include "session/session_state.h"

namespace kestrelvane {

namespace {

// Counts a poll, and plays the user who presses "Interrupt" at the planned one.
void count_poll(long_operation_flags& operation) {
  const std::int64_t polls = ++operation.polls;
  const std::int64_t at = operation.interrupt_at_poll;
  // Equal and not beyond: the one press is planned, and an operation that clears its flag
  // afterwards must not be stopped again.
  if (at < 0 || polls != std::max<std::int64_t>(at, 1)) return;
  // All at once, as the plan does not know which kind of operation the poll belongs to.
  operation.autosort_interrupt = true;
  operation.detection_interrupted = true;
  operation.reading_interrupted = true;
}

// What every poll does for the others.
void give_way(const session_state& session) {
  yield_session(session);
  std::atomic<bool>& owed = session.operation.refresh_owed;
  // The plain look first: polls are by the million, and an exchange would take the cache line from
  // the thread that writes it each time.
  if (owed.load(std::memory_order_relaxed) && owed.exchange(false)) refresh_displays(session);
}

}  // namespace

void note_unsaved(const session_state& session, unsaved_results what) {
  std::atomic<unsaved_results>& unsaved = session.operation.unsaved;
  unsaved_results now = unsaved;
  // Upwards only: a mark noted late must not hide that a whole sort is still unsaved.
  while (now < what && !unsaved.compare_exchange_weak(now, what)) continue;
}

void set_interrupts(long_operation_flags& operation, bool on) {
  operation.autosort_interrupt = on;
  operation.detection_interrupted = on;
  operation.reading_interrupted = on;
  operation.filtering_interrupted = on;
}

bool autosort_interrupted(const session_state& session) {
  count_poll(session.operation);
  give_way(session);
  return session.operation.autosort_interrupt;
}

bool detection_interrupted(const session_state& session) {
  count_poll(session.operation);
  give_way(session);
  return session.operation.detection_interrupted;
}

bool reading_interrupted(const session_state& session) {
  count_poll(session.operation);
  give_way(session);
  return session.operation.reading_interrupted;
}

void pause_point(const session_state& session) {
  // Taken before the wait: what is requested meanwhile is the next pause.
  if (!session.operation.pause_requested.exchange(false)) return;
  log_message(session, "Paused, press resume button to continue ... ");
  const user_interface& ui = session.ui;
  if (ui.wait_for_resume != nullptr) {
    const session_pause others_may_save(session);
    ui.wait_for_resume(ui.context);
  }
  log_message(session, "resuming");
}

}  // namespace kestrelvane

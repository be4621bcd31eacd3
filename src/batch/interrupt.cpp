#include "batch/interrupt.h"

#include <signal.h>

#include <atomic>

namespace kestrelvane {

namespace {

// A signal handler has no other way to its session.
std::atomic<long_operation_flags*> watched{nullptr};
std::atomic<bool> pressed{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void on_interrupt(int which) {
  // The second one, of whichever kind, ends the program in the system's own way.
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  // Besides, stores to lock-free atomics are all that a handler may do; the words are said by
  // whoever polls.
  if (pressed.exchange(true)) {
    // Both at one moment, on two threads: the second is no less the second for that.
    raise(which);
    return;
  }
  long_operation_flags* flags = watched;
  // The press may come before there is a session, or after it has gone.
  if (flags == nullptr) return;
  flags->autosort_interrupt = true;
  flags->detection_interrupted = true;
  flags->filtering_interrupted = true;
  flags->reading_interrupted = true;
}

}  // namespace

void catch_interrupt(session_state& session) {
  watched = &session.operation;
  struct sigaction action {};
  action.sa_handler = on_interrupt;
  // Reads and writes go on. Neither interrupts the handler of the other.
  action.sa_flags = SA_RESTART;
  sigaddset(&action.sa_mask, SIGINT);
  sigaddset(&action.sa_mask, SIGTERM);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void release_interrupt() {
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  watched = nullptr;
}

bool interrupt_was_pressed() { return pressed; }

}  // namespace kestrelvane

#include "batch/interrupt.h"

#include <signal.h>

#include <atomic>

namespace kestrelvane {

namespace {

// A signal handler has no other way to its session.
std::atomic<long_operation_flags*> watched{nullptr};
std::atomic<bool> pressed{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void on_interrupt(int) {
  // Stores to lock-free atomics are all that a handler may do; the words are said by whoever polls.
  pressed = true;
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
  // The second time the system's own way holds; reads and writes go on.
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  sigaction(SIGINT, &action, nullptr);
}

void release_interrupt() {
  signal(SIGINT, SIG_DFL);
  watched = nullptr;
}

bool interrupt_was_pressed() { return pressed; }

}  // namespace kestrelvane

// Flags by which a long operation and whoever watches it meet.
//
// The watcher sets interrupt and pause; the worker polls them between items,
// never inside a numerical stage. What an interrupted operation leaves behind is
// told in the header of that operation.
//
// Requests that an earlier operation has left are taken back by who starts the next one, before its
// worker exists: an operation that did it would lose a press that comes right after the start. The
// scan for proto-events alone takes back the request that ends it, since the next one is for the
// clustering of what it has found.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace kestrelvane {

struct session_state;

// Results that the recovery file does not have yet.
enum class unsaved_results : std::int32_t {
  none,
  edits,  // of clusters, by hand
  run,    // of detection, Autosort or an import, which may have taken hours
};

struct long_operation_flags {
  std::atomic<bool> reader_running{false};
  std::atomic<bool> open_succeeded{false};
  std::atomic<bool> reading_interrupted{false};
  std::atomic<bool> detection_interrupted{false};
  std::atomic<bool> autosort_interrupt{false};
  std::atomic<bool> filtering_interrupted{false};
  std::atomic<bool> pause_requested{false};
  // A refresh of the displays came too soon after another; a poll makes up for it.
  std::atomic<bool> refresh_owed{false};
  std::atomic<bool> work_save_busy{false};
  std::atomic<bool> autorecover_busy{false};
  std::atomic<unsaved_results> unsaved{unsaved_results::none};  // note_unsaved
  // Value and range last posted to each meter, so that only changes are posted.
  std::array<std::atomic<std::int64_t>, 8> meter_value{};

  // Tests only: counts polls, and raises autosort_interrupt,
  // detection_interrupted and reading_interrupted when the count reaches interrupt_at_poll;
  // negative: never.
  std::atomic<std::int64_t> polls{0};
  std::atomic<std::int64_t> interrupt_at_poll{-1};
};

// There are results to be saved soon; the timed save comes to them (operations/recovery.h).
void note_unsaved(const session_state& session, unsaved_results what);

// All requests to stop, for whoever does not know which operation runs.
void set_interrupts(long_operation_flags& operation, bool on);

// True when the user has asked Autosort to stop. Every poll goes through here, and lets
// a waiting save of the session go first (session_gate.h) and the displays follow.
bool autosort_interrupted(const session_state& session);
bool detection_interrupted(const session_state& session);
// The same of a reader, which polls between blocks and then gives up: the session is empty
// afterwards. Only the thread that runs the operation polls; a parallel loop's bodies test
// operation.reading_interrupted.
bool reading_interrupted(const session_state& session);

// When a pause is requested: takes the request, logs, blocks until resumed, logs "resuming".
// Goes on at once when nobody is there who could resume.
void pause_point(const session_state& session);

}  // namespace kestrelvane

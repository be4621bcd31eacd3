// What a run that gets killed and the test that kills it have in common: a state that
// counts its changes, and a page of memory in which the run notes what it has done.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane::test {

constexpr std::int32_t victim_events = 300000;
constexpr std::int32_t victim_samples = 301000;
constexpr std::int64_t victim_interval_ms = 150;  // of the timed save
constexpr std::int64_t victim_look_ms = 10;

// Shared by both processes through a mapped file. Times are ns of the steady clock, which
// all processes of a machine share.
struct victim_notes {
  static constexpr std::int64_t limit = 1 << 18;
  std::atomic<std::int64_t> changes;    // the last one made
  std::atomic<std::int64_t> wrk_begun;  // change that goes into the work file
  std::atomic<std::int64_t> wrk_done;
  std::atomic<std::int64_t> made_at[limit];  // by change; of a review the fingerprint instead
};

// Maps the file, which is made when it does not exist. Null on failure.
victim_notes* map_notes(const std::string& path);
void unmap_notes(victim_notes* notes);

std::int64_t steady_ns();

// Writes change k all over the events and into the first comment; in between, the tables
// are torn.
void make_change(session_state& session, std::int64_t k);
// The change that the whole state shows; -1 when the state is torn.
std::int64_t change_of(const session_state& session);

// The state after change 1 as a work file for a recording of victim_samples.
void write_first_state(const std::string& path, const std::string& recording);

}  // namespace kestrelvane::test

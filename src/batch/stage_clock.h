// Where the time of a run went: one entry per stage, for the report.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

struct stage_entry {
  std::string name;
  double wall_seconds = 0;
  double cpu_seconds = 0;       // all threads together
  std::int32_t n_events = 0;    // at its end
  std::int32_t n_clusters = 0;  // at its end
};

struct stage_clock {
  std::vector<stage_entry> stages;
  std::chrono::steady_clock::time_point wall_start;
  double cpu_start = 0;
  bool running = false;
};

// Ends the running stage, if any, and begins the next.
void begin_timed_stage(stage_clock& clock, const session_state& session, const std::string& name);
void end_timed_stage(stage_clock& clock, const session_state& session);

// Largest resident size of the process so far, in bytes.
std::int64_t peak_memory_bytes();

}  // namespace kestrelvane

#include "batch/stage_clock.h"

#include <sys/resource.h>

namespace kestrelvane {

namespace {

rusage usage_now() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage;
}

double seconds_of(const timeval& time) {
  return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

// Processor time of the process so far, user and system, in seconds.
double cpu_seconds_used() {
  const rusage usage = usage_now();
  return seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime);
}

}  // namespace

// The system counts in units of 1024 bytes.
std::int64_t peak_memory_bytes() { return std::int64_t{usage_now().ru_maxrss} * 1024; }

void begin_timed_stage(stage_clock& clock, const session_state& session, const std::string& name) {
  // A stage that nobody ended ends where the next one begins.
  end_timed_stage(clock, session);
  clock.stages.push_back({name});
  // Steady: the clock of the day may be set while a sort runs over night.
  clock.wall_start = std::chrono::steady_clock::now();
  clock.cpu_start = cpu_seconds_used();
  clock.running = true;
}

void end_timed_stage(stage_clock& clock, const session_state& session) {
  if (!clock.running) return;
  stage_entry& stage = clock.stages.back();
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - clock.wall_start;
  stage.wall_seconds = wall.count();
  stage.cpu_seconds = cpu_seconds_used() - clock.cpu_start;
  // Read on the thread that runs the stages, between two of them.
  stage.n_events = session.events.n_events;
  stage.n_clusters = session.clusters.n_clusters;
  clock.running = false;
}

}  // namespace kestrelvane

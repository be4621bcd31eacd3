// The bar over the steps of a filter chain, and the ear for its Interrupt button.
//
// A step counts for as many units of the bar as the chain gives it; it announces how
// many parts it has and counts each when done, from any of its threads. The calling
// thread alone posts, at most twenty times a second. There, too, a waiting save of the
// session goes first: samples are in none of its files, and the history names a step
// only once it is done.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

struct filter_progress {
  session_state& session;
  std::int64_t range = 0;      // units of the whole chain
  std::int64_t before = 0;     // units of the steps that are done
  std::int64_t units = 0;      // of the step under way
  const char* step_name = "";  // as the user reads it
  bool interrupt_told = false;
  std::int64_t n_parts = 0;  // of the step under way
  std::atomic<std::int64_t> parts_done{0};
  std::chrono::steady_clock::time_point last_post{};
};

// A step of the chain begins and ends.
void begin_filter_step(filter_progress& progress, const char* name, std::int64_t units);
void end_filter_step(filter_progress& progress);

// Called by the step: how many parts it has, and that a thread has done one. Rank 0 is
// the thread that runs the chain.
void set_parts(filter_progress& progress, std::int64_t n_parts);
void finish_part(filter_progress& progress, std::int32_t rank);

}  // namespace kestrelvane

#include "signal/filter_progress.h"

#include <fmt/format.h>

#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr auto between_posts = std::chrono::milliseconds(50);

// A unit of the bar is a channel or a percent of the samples, which may take minutes:
// the bar moves in hundredths of it.
constexpr std::int64_t steps_per_unit = 100;

void post(filter_progress& progress, std::int64_t hundredths) {
  progress.last_post = std::chrono::steady_clock::now();
  set_progress(progress.session, meter::filtering, static_cast<std::int32_t>(hundredths),
               static_cast<std::int32_t>(progress.range * steps_per_unit));
}

// The step is finished all the same, and the user is told what to wait for.
void tell_interrupt(filter_progress& progress) {
  if (progress.interrupt_told || !progress.session.operation.filtering_interrupted) return;
  progress.interrupt_told = true;
  say(progress.session, fmt::format("Interrupted: finishing {}", progress.step_name));
}

}  // namespace

void begin_filter_step(filter_progress& progress, const char* name, std::int64_t units) {
  progress.step_name = name;
  progress.units = units;
  // One part until the step says how many: finish_part divides by it.
  set_parts(progress, 1);
  set_status(progress.session, status_field::message, name);
}

void end_filter_step(filter_progress& progress) {
  progress.before += progress.units;
  progress.units = 0;
  post(progress, progress.before * steps_per_unit);
}

void set_parts(filter_progress& progress, std::int64_t n_parts) {
  progress.n_parts = n_parts;
  progress.parts_done = 0;
}

void finish_part(filter_progress& progress, std::int32_t rank) {
  const std::int64_t done = ++progress.parts_done;
  // The count is every thread's; the bar and the gate are the calling thread's alone.
  if (rank != 0) return;
  yield_session(progress.session);
  tell_interrupt(progress);
  if (std::chrono::steady_clock::now() - progress.last_post < between_posts) return;
  post(progress, progress.before * steps_per_unit +
                     progress.units * steps_per_unit * done / progress.n_parts);
}

}  // namespace kestrelvane

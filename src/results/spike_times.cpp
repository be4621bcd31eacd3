#include "results/spike_times.h"

#include <cmath>

#include "recording/acquisition_facts.h"

namespace kestrelvane {

namespace {

constexpr double us_per_second = 1e6;

// Whole µs are exact in 64-bit floats for some 285 years, longer than any clock that counts
// from 1970.
double stamp_seconds(std::int64_t us) { return static_cast<double>(us) / us_per_second; }

// Of the first record; a continuous recording counts from its first sample.
double clock_start(const recording_store& r) {
  return r.is_continuous ? 0.0 : stamp_seconds(r.first_timestamp);
}

}  // namespace

bool has_unbroken_time(const session_state& session) {
  return session.recording.is_continuous || session.preferences.treat_as_continuous;
}

double clock_seconds(const session_state& session, std::int32_t event) {
  const recording_store& r = session.recording;
  const std::int32_t t = session.events.event_time[event];
  // Time index 1 is the first sample.
  if (has_unbroken_time(session)) return clock_start(r) + (t - 1) / exact_rate(r);
  const std::int64_t us = event_record_time_us(session, t, session.events.event_channel[event]);
  // Added as whole numbers, so that nothing is rounded before the one division.
  return stamp_seconds(r.first_timestamp + us);
}

std::int64_t clock_sample(const session_state& session, std::int32_t event) {
  if (has_unbroken_time(session)) return session.events.event_time[event] - 1;
  return std::llround(clock_seconds(session, event) * exact_rate(session.recording));
}

double clock_resolution(const session_state& session) {
  // Stamps are held in whole µs, whatever the clock of the file counts in.
  if (!has_unbroken_time(session)) return 1 / us_per_second;
  const double rate = exact_rate(session.recording);
  return rate > 0 ? 1 / rate : 0.0;
}

clock_span recording_span(const session_state& session) {
  const recording_store& r = session.recording;
  const double start = clock_start(r), rate = exact_rate(r);
  if (has_unbroken_time(session) && rate > 0) return {start, start + r.n_samples / rate};
  return {start, start + 60.0 * r.duration_mins};
}

}  // namespace kestrelvane

// When a spike was, by the clock of the recording's file.
//
// A continuous recording counts from its first sample. The records of an event-based one
// stand end to end on an axis of the program's own (recording/event_records.h), which says
// nothing of time; there a spike has the stamp that the acquisition system gave to its record.
// The text formats keep their own, coarser time (exports.h).
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// True when time indices are times: continuous recordings, and event-based ones that were
// laid out in real time.
bool has_unbroken_time(const session_state& session);

// Seconds, in double precision.
double clock_seconds(const session_state& session, std::int32_t event);
// The same in samples from 0, rounded where the clock is finer than the samples. In unbroken
// time these are places in the samples of the recording.
std::int64_t clock_sample(const session_state& session, std::int32_t event);

// The smallest difference of two times, s; 0 without a sampling frequency.
double clock_resolution(const session_state& session);

// From where to where there may be spikes, s.
struct clock_span {
  double from = 0, to = 0;
};
clock_span recording_span(const session_state& session);

}  // namespace kestrelvane

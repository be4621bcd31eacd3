#include "recording/record_start.h"

#include <fmt/format.h>

#include "session/run_log.h"

namespace kestrelvane {

namespace {

bool is_between(std::int32_t value, std::int32_t low, std::int32_t high) {
  return value >= low && value <= high;
}

}  // namespace

void note_record_start(session_state& session, const record_start& start) {
  const bool sound = is_between(start.year, 1900, 9999) && is_between(start.month, 1, 12) &&
                     is_between(start.day, 1, 31) && is_between(start.hour, 0, 23) &&
                     // 60: a leap second.
                     is_between(start.minute, 0, 59) && is_between(start.second, 0, 60);
  // No date is better than a wrong one; many files have zeros.
  if (!sound) return;
  recording_store& r = session.recording;
  r.record_date[0] = start.year;
  r.record_date[1] = start.month;
  r.record_date[2] = start.day;
  r.record_time[0] = start.second;
  r.record_time[1] = start.minute;
  r.record_time[2] = start.hour;
  log_message(session,
              fmt::format("Recording Date (d/m/y): {}/{}/{}", start.day, start.month, start.year));
  log_message(session, fmt::format("Recording started at (h:m:s) {}:{:02}:{:02}", start.hour,
                                   start.minute, start.second));
}

}  // namespace kestrelvane

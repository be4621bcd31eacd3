// When a recording began, as its file tells it.
#pragma once

#include "session/session_state.h"

namespace kestrelvane {

struct record_start {
  std::int32_t year = 0, month = 0, day = 0;
  std::int32_t hour = 0, minute = 0, second = 0;
};

// Sets record_date and record_time and logs them. A date that no calendar has is left out.
void note_record_start(session_state& session, const record_start& start);

}  // namespace kestrelvane

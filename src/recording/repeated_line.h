// What a file may give cause to say a million times: the first few are logged, then their
// number.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

struct repeated_line {
  std::int64_t most = 10;  // lines that are logged
  std::int64_t n = 0;
};

// Counts one; true when it is to be logged.
bool is_worth_a_line(repeated_line& counter);
// "and 7 more pauses", where lines were left out.
void log_rest(const session_state& session, const repeated_line& counter, const char* what);

}  // namespace kestrelvane

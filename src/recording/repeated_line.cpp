#include "recording/repeated_line.h"

#include <fmt/format.h>

#include "session/run_log.h"

namespace kestrelvane {

bool is_worth_a_line(repeated_line& counter) { return ++counter.n <= counter.most; }

void log_rest(const session_state& session, const repeated_line& counter, const char* what) {
  if (counter.n <= counter.most) return;
  log_message(session, fmt::format("and {} more {}", counter.n - counter.most, what));
}

}  // namespace kestrelvane

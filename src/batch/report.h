// The report of a run, as JSON: what went in, what came out and what it cost.
#pragma once

#include <string>
#include <vector>

#include "batch/stage_clock.h"
#include "batch/unit_list.h"
#include "session/session_state.h"

namespace kestrelvane {

struct run_report {
  std::string verb;
  bool completed = false;
  bool interrupted = false;
  stage_clock clock;
};

// Writes it beside its target and renames. False on failure.
bool write_report(session_state& session, const run_report& report,
                  const std::vector<unit_row>& units, const std::string& path);

}  // namespace kestrelvane
